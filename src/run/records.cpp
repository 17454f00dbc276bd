#include "run/records.h"

#include <algorithm>

namespace tarn {

EstimationRecords::EstimationRecords(const SSMData* data, int k, int constrain_F)
    : ssm_a(SSM_new(data->p, k)),
      ssm_b(SSM_new(data->p, k)),
      state(SSMState_new(k, data->T)),
      suff_a(SSMSuffStat_new(data->p, k)),
      suff_b(SSMSuffStat_new(data->p, k)),
      work(SSMWork_new(data->p, k, data->n_samples, constrain_F)) {}

int max_dimension(const Args* args) {
  int max_k = -2147483647;
  for (int d = 0; d < args->n_dims; ++d) max_k = std::max(max_k, args->dims[d]);
  return max_k;
}

}  // namespace tarn
