#pragma once
// One start's EM loop between its E-steps: its state and the rules that end
// it, shared by the plain passes and the accelerated ones.

#include <cfloat>
#include <cstdio>

#include "core/em.h"

namespace tarn {

// Where an accelerated start stands in its cycle x0, x1 = M(x0), x2 = M(x1)
// and x' (see extrapolation.h): the model that the E-step just evaluated.
enum class Cycle { first, second, extrapolated };

struct EmLoop {
  int i = 0;               // the passes before this one
  double prev = -DBL_MAX;  // the log-likelihood the pass before gave
  bool monotone = true;
  double llh = 0.0;
  bool converged = false;
  StopReason stopped_by = StopReason::loop_limit;
  // Accelerated starts only.
  Cycle cycle = Cycle::first;
  double cycle_start = -DBL_MAX;  // the log-likelihood at the last x0
};

// Ends the loop with its outcome; true.
bool stop(EmLoop* loop, bool converged, StopReason reason);

// The stopping rules for a pass that gave llh, its change taken from
// reference: true when the start ends here. Without test_rise, only a fall
// (with abs_converge off) passes the convergence tests.
bool stops(const EmSettings& settings, double llh, double reference, bool test_rise, EmLoop* loop);

// Counts a pass that gave llh: the -v 2 line; with chained, llh becomes the
// one the next pass is compared with.
void count_pass(const EmSettings& settings, double llh, bool chained, std::FILE* log, EmLoop* loop);

// The part of an accelerated pass after its E-step gave llh. False when the
// start ends here, its model then the one whose likelihood loop->llh holds.
bool accelerated_go_on(const EmSettings& settings, const EmData& data, double llh,
                       StateSpaceModel* model, EmBuffers* buffers, std::FILE* log, EmLoop* loop);

}  // namespace tarn
