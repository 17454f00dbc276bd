#pragma once
// The working records of an estimation, made once for the largest state
// dimension they are to serve.

#include <memory>

#include "core/data_set.h"
#include "core/em.h"

namespace tarn {

struct EstimationRecords {
  EstimationRecords(const EmData& data, int k, int constrain_F);
  // The model a start works on, and the best so far; the restarts of a set
  // swap their roles.
  std::unique_ptr<StateSpaceModel> working;
  std::unique_ptr<StateSpaceModel> spare;
  std::unique_ptr<EmBuffers> buffers;
  std::unique_ptr<BatchProducts> products;
};

}  // namespace tarn
