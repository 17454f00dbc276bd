#pragma once
// The EM estimation of one model: the E-step sums, the M-step and the loop.

#include <cstdio>
#include <memory>
#include <span>

#include "core/batch_products.h"
#include "core/data_set.h"
#include "core/em_data.h"
#include "core/extrapolation.h"
#include "core/kalman.h"
#include "core/model.h"
#include "core/options.h"
#include "core/sufficient_stats.h"
#include "core/trajectory.h"
#include "core/workspace.h"

namespace tarn {

// Everything one estimation works in, made once with room for up to max_k
// states and max_T time points; with accelerate, the models of extrapolation.
struct EmBuffers {
  EmBuffers(int p, int max_k, int max_T, bool constrain_F, bool accelerate = false)
      : trajectory(max_k, max_T),
        replicate_sums(0, max_k),
        total_sums(p, max_k),
        workspace(p, max_k, constrain_F) {
    if (accelerate) extrapolation = std::make_unique<Extrapolation>(p, max_k);
  }
  Trajectory trajectory;
  SufficientStats replicate_sums;  // the state sums of one replicate (no objects)
  SufficientStats total_sums;
  Workspace workspace;
  std::unique_ptr<Extrapolation> extrapolation;
};

// Which test ended an estimation.
enum class StopReason { absolute_test, relative_test, loop_limit, nan_likelihood };

// The outcome of one EM run on a model.
struct Estimate {
  double log_likelihood;
  double bic;
  bool monotone;
  bool converged;
  int loops;
  StateSpaceModel* model;  // the estimated model, or null
  StopReason stopped_by = StopReason::loop_limit;
};

// One E-step: filter and smoother over every replicate, summed into
// buffers->total_sums, through products formed for the model. Returns the
// log-likelihood. Allocates nothing.
double e_step(const StateSpaceModel& model, const EmData& data, EmBuffers* buffers,
              BatchProducts* products);

// The E-step of a batch of starts of one dimension: models[b] into
// buffers[b], its log-likelihood into llh[b].
void e_step_batch(std::span<const StateSpaceModel* const> models, const EmData& data,
                  std::span<EmBuffers* const> buffers, BatchProducts* products,
                  std::span<double> llh);

// The M-step on sums: initial mean (with update_mu), H, F (its diagonal held at
// constrain_Fg with constrain_F, which the workspace must have been made
// for), then R.
void m_step(const EmSettings& settings, const DataSet& data, const SufficientStats& sums,
            StateSpaceModel* model, Workspace* work);

// Starts of one dimension that advance together: their models, buffers and
// logs, and the products they share. Each start holds its own random model.
struct EmBatch {
  std::span<StateSpaceModel* const> models;
  std::span<EmBuffers* const> buffers;
  std::span<std::FILE* const> logs;
  BatchProducts* products;  // room for all of them
};

// run_em for every start of the batch, in lockstep: one E-step for all the
// starts still running, then each its own tests, M-step and progress line, to
// its own log. A start's result is that of its run alone, to rounding.
void run_em_batch(const EmSettings& settings, const EmData& data, const EmBatch& batch,
                  std::span<Estimate> results);

// Runs EM on model from the model it holds until the likelihood settles, the
// loop limit is reached or the likelihood turns NaN; progress lines go to log.
Estimate run_em(const EmSettings& settings, const EmData& data, StateSpaceModel* model,
                EmBuffers* buffers, BatchProducts* products, std::FILE* log);

// Finite, not zero and not subnormal: a likelihood a result can be kept for.
bool is_usable_likelihood(double value);

}  // namespace tarn
