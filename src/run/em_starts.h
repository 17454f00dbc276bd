#pragma once
// The restarts of one set: estimations from fresh random models, retried
// while untrustworthy, the best kept.

#include "core/em.h"
#include "run/records.h"
#include "run/start_guard.h"

namespace tarn {

// The iterations estimations of one set, each from a fresh random model,
// retried while untrustworthy; returns the best by log-likelihood. The guard
// ends the run when a start keeps failing before any start has succeeded.
Estimate SSM_EM_iterate(const EmSettings* em, const InitialModelSettings* init, int iterations,
                        const SSMData* data, int k, EstimationRecords* rec, StartGuard* guard);

}  // namespace tarn
