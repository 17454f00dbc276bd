#include "run/em_starts.h"

#include <cfloat>
#include <utility>

#include "core/em.h"
#include "core/initial_model.h"
#include "io/log.h"
#include "io/model_file.h"
#include "run/start_guard.h"

namespace tarn {

namespace {

SSMResult empty_result() {
  return SSMResult{-1, -1, -DBL_MAX, -DBL_MAX, 0, 0, -1, nullptr, nullptr, nullptr};
}

void warn_retry_limit() {
  std::fprintf(TARN_ERR, "WARNING: Retry count exceeded the limitation.\n");
  std::fflush(TARN_ERR);
}

// One estimation: attempts from fresh random models until one can be trusted
// or the retry limit lets the last one through.
SSMResult estimate_with_retries(const SSMEMParam* em, const SSMInit* init, const SSMData* data,
                                int k, SSM* working, SSMState* state_store, SSMSuffStat* suff_a,
                                SSMSuffStat* suff_b, SSMWork* work, StartGuard* guard) {
  int count = 0;
  for (;;) {
    SSM_init(working, init, data->p, k, data->Y.data(), data->n_samples);
    if (em->verbose > 0) write_model(working, data->p, k, TARN_ERR);
    const SSMResult res = SSM_EM_algo(em, working, state_store, suff_a, suff_b, data, k, work);
    if (em->retry >= 0 && count >= em->retry) {
      warn_retry_limit();
      return res;
    }
    if (SSM_EM_is_normal(res.llh) && res.monotone != 0) {
      guard->note_success();
      if (em->retry != -1 && count >= em->retry) warn_retry_limit();
      return res;
    }
    ++count;
    if (guard->gives_up(count)) tarn_fatal("%s", StartGuard::message(k).c_str());
    std::fprintf(TARN_ERR, "Estimation failed.  Retrying (%d)...\n", count);
    std::fflush(TARN_ERR);
  }
}

}  // namespace

SSMResult SSM_EM_iterate(const SSMEMParam* em, const SSMInit* init, int iterations,
                         const SSMData* data, int k, SSM* ssm_a, SSM* ssm_b, SSMState* state_store,
                         SSMSuffStat* suff_a, SSMSuffStat* suff_b, SSMWork* work,
                         StartGuard* guard) {
  SSM* working = ssm_a;
  SSM* keeper = ssm_b;
  SSMResult best = empty_result();
  for (int n = 0; n < iterations;) {
    const SSMResult res =
        estimate_with_retries(em, init, data, k, working, state_store, suff_a, suff_b, work, guard);
    ++n;
    std::fprintf(TARN_ERR, "%d: Loops=%d, Likelihood=%f\n", n, res.loops, res.llh);
    std::fflush(TARN_ERR);
    if (res.llh > best.llh) {
      best = res;
      std::swap(working, keeper);
    }
  }
  best.ssm = keeper;
  return best;
}

}  // namespace tarn
