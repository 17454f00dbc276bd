#pragma once
// The random starts of one set under the run's retry policy: an estimation
// from a fresh random model is retried while it cannot be trusted, up to
// --retry times, and the best by log-likelihood is kept. Starts advance in
// batches over the same data, with the random draws, retries and log lines
// of starts run one after the other.

#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "core/em.h"
#include "io/status.h"
#include "run/job.h"
#include "run/records.h"
#include "run/start_guard.h"

namespace tarn {

// What every start of a run shares.
struct StartContext {
  const EmSettings& em;
  const InitialModelSettings& init;
  const EmData& data;
  std::FILE* log;
  StartGuard* guard;
  bool show_initial_model;  // -v: print each random model (single and array modes)
};

// The first attempts of n starts, side by side in the first n records.
struct BatchOutcome {
  std::vector<Estimate> results;
  std::vector<std::string> logs;          // what each start printed, in order
  std::vector<RandomStream> after_draws;  // the run's stream after each start's draw
};

// Draws the random models of starts of dimension k into models, in order
// (under one lock, the stream being the run's), and runs them side by side in
// the first buffers of rec.
BatchOutcome run_batch(const StartContext& context, int k, std::span<StateSpaceModel* const> models,
                       EstimationRecords* rec);

// What becomes of an attempt.
enum class Verdict { kKept, kRetried };

// Judges the attempt of a start after count failed ones, printing what the
// policy prints: kept, or retried (count is then one more). Fails when the
// guard gives up; an attempt is kept once the guard is stopped, to be dropped.
Result<Verdict> judge_attempt(const StartContext& context, int k, const Estimate& attempt,
                              int* count);

// With --converge-rel or --accelerate, the line that tells which test ended
// the start-th finished start of a set.
void log_stop_reason(const StartContext& context, const PlannedSet& set, int start,
                     const Estimate& result);

// The starts of one set, in batches, logged; the best of them, its model in
// one of rec's records.
Result<Estimate> estimate_set(const StartContext& context, const PlannedSet& set, int starts,
                              EstimationRecords* rec);

}  // namespace tarn
