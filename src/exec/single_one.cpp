#include <algorithm>

#include "Timer.h"
#include "em/SSM_EM.h"
#include "exec/modes.h"
#include "log.h"
#include "output/ssm_output.h"

void single_one(const Args* args, const SSMData* data) {
  const SSMEMParam* em = args->em.get();
  std::fprintf(TARN_ERR, "*******************************\n");
  std::fprintf(TARN_ERR, "**   Single Execution Mode   **\n");
  std::fprintf(TARN_ERR, "*******************************\n");
  SSMData_print_summary(data);
  SSMData_require_samples(data);
  int max_k = -2147483647;
  for (int d = 0; d < args->n_dims; ++d) max_k = std::max(max_k, args->dims[d]);
  std::fprintf(TARN_ERR, "Max dimemsion = %d\n", max_k);
  require_dimensions(args);

  const int p = data->p;
  auto ssm_a = SSM_new(p, max_k);
  auto ssm_b = SSM_new(p, max_k);
  auto state_store = SSMState_new(max_k, data->T);
  auto suff_a = SSMSuffStat_new(p, max_k);
  auto suff_b = SSMSuffStat_new(p, max_k);
  auto work = SSMWork_new(p, max_k, data->n_samples, em->constrain_F);
  Timer timer = Timer_new();

  for (int d = 0; d < args->n_dims; ++d) {
    const int k = args->dims[d];
    std::fprintf(TARN_ERR, "========================================\n");
    std::fprintf(TARN_ERR, "= Start the loop for dim=%d\n", k);
    std::fflush(TARN_ERR);
    if (em->constrain_F != 0) SSM_EM_prepare_constraint(work.get(), k);
    for (int s = 1; s <= args->sets; ++s) {
      std::fprintf(TARN_ERR, "Set %d...\n", s);
      std::fflush(TARN_ERR);
      Timer_start(&timer);
      SSMResult result =
          SSM_EM_iterate(em, args->init.get(), args->iterations, data, k, ssm_a.get(),
                         ssm_b.get(), state_store.get(), suff_a.get(), suff_b.get(), work.get());
      Timer_stop(&timer);
      std::fprintf(TARN_ERR, "Finished: dim=%d, likelihood=%f\n", k, result.llh);
      const double t = Timer_get(&timer);
      Timer_print(t, TARN_ERR);
      std::fprintf(TARN_ERR, "\nX-SINGLE-TIME:\t%f\n", t);
      std::fflush(TARN_ERR);
      if (SSM_EM_is_normal(result.llh) && result.monotone != 0) {
        ssm_output(&result, work.get(), state_store.get(), data, args->prefix, args->suffix,
                   s + args->id - 1, args->each, args->state, args->output_option);
      } else {
        std::fprintf(TARN_ERR, "Estimation failed for this set.\n");
        std::fflush(TARN_ERR);
      }
    }
  }
  std::fprintf(TARN_ERR, "Going to exit.\n");
}
