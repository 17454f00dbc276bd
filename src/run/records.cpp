#include "run/records.h"

#include <algorithm>

namespace tarn {

EstimationRecords::EstimationRecords(const SSMData* data, int k, int constrain_F)
    : ssm_a(std::make_unique<StateSpaceModel>(data->p, k)),
      ssm_b(std::make_unique<StateSpaceModel>(data->p, k)),
      buffers(std::make_unique<EmBuffers>(data->p, k, data->T, constrain_F != 0)) {}

int max_dimension(const Args* args) {
  int max_k = -2147483647;
  for (int d = 0; d < args->n_dims; ++d) max_k = std::max(max_k, args->dims[d]);
  return max_k;
}

}  // namespace tarn
