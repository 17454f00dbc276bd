#include "run/records.h"

#include <algorithm>

namespace tarn {

int batch_size(const InitialModelSettings& init, const EmSettings& em, int starts) {
  if (!(init.F_min < init.F_max) || em.verbose >= 2) return 1;
  return std::clamp(starts, 1, kMaxBatchStarts);
}

EstimationRecords::EstimationRecords(const EmData& data, int k, const EmSettings& em, int batch)
    : best(std::make_unique<StateSpaceModel>(data.p(), k)),
      products(std::make_unique<BatchProducts>(data.p(), data.columns(), k, batch)) {
  for (int b = 0; b < batch; ++b) {
    working.push_back(std::make_unique<StateSpaceModel>(data.p(), k));
    buffers.push_back(std::make_unique<EmBuffers>(data.p(), k, data.table().T, em.constrain_F != 0,
                                                  em.accelerate != 0));
  }
  last = buffers.front().get();
}

void EstimationRecords::prepare_F_constraint(int k) {
  for (auto& b : buffers) tarn::prepare_F_constraint(&b->workspace, k);
}

double records_bytes(const DataSet& data, int k, const EmSettings& em, int batch) {
  const double per_start = model_bytes(data.p, k) + trajectory_bytes(k, data.T) +
                           sufficient_stats_bytes(0, k) + sufficient_stats_bytes(data.p, k) +
                           workspace_bytes(data.p, k, em.constrain_F != 0) +
                           (em.accelerate != 0 ? 4.0 * model_bytes(data.p, k) : 0.0);
  return batch * per_start + model_bytes(data.p, k) +
         batch_products_bytes(data.p, data.n_samples, k, batch);
}

}  // namespace tarn
