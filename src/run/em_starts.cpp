#include "run/em_starts.h"

#include <algorithm>
#include <cfloat>
#include <utility>

#include "core/initial_model.h"
#include "io/log_buffer.h"
#include "io/model_file.h"

namespace tarn {

namespace {

void warn_retry_limit(std::FILE* log) {
  std::fprintf(log, "WARNING: Retry count exceeded the limitation.\n");
  std::fflush(log);
}

const char* stop_reason_text(StopReason reason) {
  switch (reason) {
    case StopReason::absolute_test:
      return "the absolute test";
    case StopReason::relative_test:
      return "the relative test";
    case StopReason::nan_likelihood:
      return "a NaN likelihood";
    case StopReason::loop_limit:
      break;
  }
  return "the loop limit";
}

}  // namespace

void log_stop_reason(const StartContext& context, const PlannedSet& set, int start,
                     const Estimate& result) {
  if (context.em.converge_relative <= 0.0 && context.em.accelerate == 0) return;
  std::fprintf(context.log, "Ended: dim=%d, set=%d, start=%d, loops=%d, by %s.\n", set.k,
               set.number, start, result.loops, stop_reason_text(result.stopped_by));
  std::fflush(context.log);
}

BatchOutcome run_batch(const StartContext& context, int k, std::span<StateSpaceModel* const> models,
                       EstimationRecords* rec) {
  const int n = static_cast<int>(models.size());
  BatchOutcome out;
  std::vector<LogBuffer> buffers(static_cast<std::size_t>(n));
  std::vector<EmBuffers*> em_buffers;
  std::vector<std::FILE*> logs;
  for (int b = 0; b < n; ++b) {
    em_buffers.push_back(rec->buffers[static_cast<std::size_t>(b)].get());
    logs.push_back(buffers[static_cast<std::size_t>(b)].stream());
  }
  // Nothing in the lock allocates: an exception may not leave it.
  out.after_draws.reserve(static_cast<std::size_t>(n));
  // The run's one random stream, shared by the threads.
#pragma omp critical
  for (int b = 0; b < n; ++b) {
    draw_initial_model(context.init, context.data.table(), k, models[static_cast<std::size_t>(b)]);
    out.after_draws.push_back(*context.init.stream);
  }
  if (context.show_initial_model && context.em.verbose > 0) {
    for (int b = 0; b < n; ++b)
      write_model(models[static_cast<std::size_t>(b)], context.data.p(), k,
                  logs[static_cast<std::size_t>(b)]);
  }
  out.results.resize(static_cast<std::size_t>(n));
  run_em_batch(context.em, context.data, EmBatch{models, em_buffers, logs, rec->products.get()},
               out.results);
  for (LogBuffer& buffer : buffers) out.logs.push_back(buffer.take());
  return out;
}

Result<Verdict> judge_attempt(const StartContext& context, int k, const Estimate& attempt,
                              int* count) {
  const EmSettings& em = context.em;
  if (em.retry >= 0 && *count >= em.retry) {
    warn_retry_limit(context.log);
    return Verdict::kKept;
  }
  if (is_usable_likelihood(attempt.log_likelihood) && attempt.monotone) {
    context.guard->note_success();
    if (em.retry != -1 && *count >= em.retry) warn_retry_limit(context.log);
    return Verdict::kKept;
  }
  ++*count;
  if (context.guard->gives_up(*count)) return Status::error(StartGuard::message(k));
  if (context.guard->stopped()) return Verdict::kKept;
  std::fprintf(context.log, "Estimation failed.  Retrying (%d)...\n", *count);
  std::fflush(context.log);
  return Verdict::kRetried;
}

Result<Estimate> estimate_set(const StartContext& context, const PlannedSet& set, int starts,
                              EstimationRecords* rec) {
  const int k = set.k;
  Estimate best{-DBL_MAX, -DBL_MAX, false, false, -1, nullptr};
  // The records the starts work in and the one that keeps the best: a start
  // better than the best so far trades records with it, for this set only.
  std::vector<StateSpaceModel*> working;
  for (const auto& model : rec->working) working.push_back(model.get());
  StateSpaceModel* keeper = rec->best.get();
  int failed = 0;  // failed attempts of the next start
  for (int done = 0; done < starts;) {
    const int n = std::min(rec->batch(), starts - done);
    const BatchOutcome batch =
        run_batch(context, k, std::span(working).first(static_cast<std::size_t>(n)), rec);
    for (int b = 0; b < n; ++b) {
      const std::size_t slot = static_cast<std::size_t>(b);
      std::fputs(batch.logs[slot].c_str(), context.log);
      std::fflush(context.log);
      rec->last = rec->buffers[slot].get();
      const Result<Verdict> verdict = judge_attempt(context, k, batch.results[slot], &failed);
      if (!verdict.ok()) return verdict.status();
      if (verdict.value() == Verdict::kRetried) {
        // The attempt after a failed one draws where the failed one ended:
        // the starts after it in the batch draw again.
        *context.init.stream = batch.after_draws[slot];
        break;
      }
      failed = 0;
      const Estimate& res = batch.results[slot];
      std::fprintf(context.log, "%d: Loops=%d, Likelihood=%f\n", ++done, res.loops,
                   res.log_likelihood);
      std::fflush(context.log);
      log_stop_reason(context, set, done, res);
      if (res.log_likelihood > best.log_likelihood) {
        best = res;
        std::swap(working[slot], keeper);
      }
    }
  }
  best.model = keeper;
  return best;
}

}  // namespace tarn
