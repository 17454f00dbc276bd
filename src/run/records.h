#pragma once
// The working records of an estimation, made once for the largest state
// dimension they are to serve.

#include <memory>

#include "core/data_set.h"
#include "core/em.h"

namespace tarn {

struct EstimationRecords {
  EstimationRecords(const SSMData* data, int k, int constrain_F);
  std::unique_ptr<StateSpaceModel>
      ssm_a;  // working model (and best model, in turn, in the restarts)
  std::unique_ptr<StateSpaceModel> ssm_b;
  std::unique_ptr<EmBuffers> buffers;
};

}  // namespace tarn
