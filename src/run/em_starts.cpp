#include "run/em_starts.h"

#include <cfloat>
#include <utility>

#include "core/initial_model.h"
#include "io/model_file.h"

namespace tarn {

namespace {

void warn_retry_limit(std::FILE* log) {
  std::fprintf(log, "WARNING: Retry count exceeded the limitation.\n");
  std::fflush(log);
}

}  // namespace

Result<Estimate> estimate_start(const StartContext& context, int k, StateSpaceModel* working,
                                EstimationRecords* rec) {
  const EmSettings& em = context.em;
  int count = 0;
  for (;;) {
    // The run's one random stream, shared by the threads.
#pragma omp critical
    draw_initial_model(context.init, context.data.table(), k, working);
    if (context.show_initial_model && em.verbose > 0) {
      write_model(working, context.data.p(), k, context.log);
    }
    const Estimate res =
        run_em(em, context.data, working, rec->buffers.get(), rec->products.get(), context.log);
    if (em.retry >= 0 && count >= em.retry) {
      warn_retry_limit(context.log);
      return res;
    }
    if (is_usable_likelihood(res.log_likelihood) && res.monotone) {
      context.guard->note_success();
      if (em.retry != -1 && count >= em.retry) warn_retry_limit(context.log);
      return res;
    }
    ++count;
    if (context.guard->gives_up(count)) return Status::error(StartGuard::message(k));
    if (context.guard->stopped()) return res;
    std::fprintf(context.log, "Estimation failed.  Retrying (%d)...\n", count);
    std::fflush(context.log);
  }
}

Result<Estimate> estimate_set(const StartContext& context, int k, int starts,
                              EstimationRecords* rec) {
  StateSpaceModel* working = rec->working.get();
  StateSpaceModel* keeper = rec->spare.get();
  Estimate best{-DBL_MAX, -DBL_MAX, false, false, -1, nullptr};
  for (int n = 0; n < starts;) {
    const Result<Estimate> res = estimate_start(context, k, working, rec);
    if (!res.ok()) return res;
    ++n;
    std::fprintf(context.log, "%d: Loops=%d, Likelihood=%f\n", n, res->loops, res->log_likelihood);
    std::fflush(context.log);
    if (res->log_likelihood > best.log_likelihood) {
      best = res.value();
      std::swap(working, keeper);
    }
  }
  best.model = keeper;
  return best;
}

}  // namespace tarn
