#pragma once
// The random starts of one set under the run's retry policy: an estimation
// from a fresh random model is retried while it cannot be trusted, up to
// --retry times, and the best by log-likelihood is kept.

#include <cstdio>

#include "core/em.h"
#include "io/status.h"
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

// One start of dimension k in working: attempts until one can be trusted or
// the retry limit lets the last one through. Fails when the guard gives up;
// stops retrying, its result to be dropped, once the guard is stopped.
Result<Estimate> estimate_start(const StartContext& context, int k, StateSpaceModel* working,
                                EstimationRecords* rec);

// The starts of one set, one after the other, logged; the best of them, its
// model in rec.
Result<Estimate> estimate_set(const StartContext& context, int k, int starts,
                              EstimationRecords* rec);

}  // namespace tarn
