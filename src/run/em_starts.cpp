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

Estimate empty_result() {
  return Estimate{-DBL_MAX, -DBL_MAX, false, false, -1, nullptr};
}

void warn_retry_limit() {
  std::fprintf(TARN_ERR, "WARNING: Retry count exceeded the limitation.\n");
  std::fflush(TARN_ERR);
}

// One estimation: attempts from fresh random models until one can be trusted
// or the retry limit lets the last one through.
Estimate estimate_with_retries(const EmSettings* em, const InitialModelSettings* init,
                               const SSMData* data, int k, StateSpaceModel* working,
                               EmBuffers* buffers, StartGuard* guard) {
  int count = 0;
  for (;;) {
    draw_initial_model(*init, *data, k, working);
    if (em->verbose > 0) write_model(working, data->p, k, TARN_ERR);
    const Estimate res = run_em(*em, *data, working, buffers, TARN_ERR);
    if (em->retry >= 0 && count >= em->retry) {
      warn_retry_limit();
      return res;
    }
    if (is_usable_likelihood(res.log_likelihood) && res.monotone) {
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

Estimate SSM_EM_iterate(const EmSettings* em, const InitialModelSettings* init, int iterations,
                        const SSMData* data, int k, EstimationRecords* rec, StartGuard* guard) {
  StateSpaceModel* working = rec->ssm_a.get();
  StateSpaceModel* keeper = rec->ssm_b.get();
  Estimate best = empty_result();
  for (int n = 0; n < iterations;) {
    const Estimate res =
        estimate_with_retries(em, init, data, k, working, rec->buffers.get(), guard);
    ++n;
    std::fprintf(TARN_ERR, "%d: Loops=%d, Likelihood=%f\n", n, res.loops, res.log_likelihood);
    std::fflush(TARN_ERR);
    if (res.log_likelihood > best.log_likelihood) {
      best = res;
      std::swap(working, keeper);
    }
  }
  best.model = keeper;
  return best;
}

}  // namespace tarn
