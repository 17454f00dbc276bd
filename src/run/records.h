#pragma once
// The working records of an estimation, made once for the largest state
// dimension they are to serve, for a batch of starts that advance together.

#include <memory>
#include <vector>

#include "core/data_set.h"
#include "core/em.h"
#include "core/options.h"

namespace tarn {

// How many starts of a set advance together: up to kMaxBatchStarts, and one at a
// time where a start's random model depends on how the one before ended (an
// empty range for F leaves F as the model record held it) or where every pass
// is logged (-v 2), so that the lines come as the passes run.
int batch_size(const InitialModelSettings& init, const EmSettings& em, int starts);

struct EstimationRecords {
  EstimationRecords(const EmData& data, int k, const EmSettings& em, int batch);

  int batch() const { return static_cast<int>(working.size()); }
  // The constraint on the diagonal of F, for dimension k, in every workspace.
  void prepare_F_constraint(int k);

  // Per start of a batch: the model it works on and its buffers; and one
  // more model, for the best of a set.
  std::vector<std::unique_ptr<StateSpaceModel>> working;
  std::vector<std::unique_ptr<EmBuffers>> buffers;
  std::unique_ptr<StateSpaceModel> best;
  std::unique_ptr<BatchProducts> products;
  // The buffers of the start that ran last, in the order of the starts.
  EmBuffers* last = nullptr;
};

// Bytes the records of a batch take, in double precision.
double records_bytes(const DataSet& data, int k, const EmSettings& em, int batch);

}  // namespace tarn
