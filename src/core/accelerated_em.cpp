// The passes of an accelerated start. A cycle evaluates x0 and x1 = M(x0),
// forms x2 = M(x1) and from the three the extrapolated x' (extrapolation.h),
// which is evaluated next. x' is kept, as the x0 of the next cycle, where its
// likelihood is not below that of x1; otherwise x2, the plain step, takes its
// place. The convergence tests compare the likelihoods at the starts of
// successive cycles.
//
// Where the M-step is exact, a plain step never lowers the likelihood, and
// a fall (by rounding) ends the start on the model before: the likelihoods
// of the models an accelerated start keeps then never fall. With a
// constrained F the M-step sets the diagonal rather than estimating it; a
// plain step there can lower the likelihood, in plain EM as well, and the
// start goes on as plain EM would.

#include "core/em_loop_state.h"

namespace tarn {

namespace {

bool falls(const EmSettings& settings, double llh, const EmLoop& loop) {
  return settings.constrain_F == 0 && settings.abs_converge != 0 && llh < loop.prev;
}

// Ends the start on a model kept before, whose likelihood was llh.
bool end_on(const StateSpaceModel& kept, double llh, bool converged, StopReason reason,
            StateSpaceModel* model, EmLoop* loop) {
  copy_model(kept, model);
  loop->llh = llh;
  stop(loop, converged, reason);
  return false;
}

void plain_m_step(const EmSettings& settings, const EmData& data, StateSpaceModel* model,
                  EmBuffers* buffers) {
  m_step(settings, data.table(), buffers->total_sums, model, &buffers->workspace);
}

bool at_first(const EmSettings& settings, const EmData& data, double llh, StateSpaceModel* model,
              EmBuffers* buffers, EmLoop* loop) {
  Extrapolation& cycle = *buffers->extrapolation;
  if (falls(settings, llh, *loop)) {
    return end_on(cycle.second(), loop->prev, true, StopReason::fall, model, loop);
  }
  const double reference = loop->cycle_start;
  loop->cycle_start = llh;
  if (stops(settings, llh, reference, true, loop)) return false;
  cycle.keep_first(*model);
  plain_m_step(settings, data, model, buffers);
  loop->cycle = Cycle::second;
  return true;
}

bool at_second(const EmSettings& settings, const EmData& data, double llh, StateSpaceModel* model,
               EmBuffers* buffers, EmLoop* loop) {
  Extrapolation& cycle = *buffers->extrapolation;
  if (falls(settings, llh, *loop)) {
    return end_on(cycle.first(), loop->prev, true, StopReason::fall, model, loop);
  }
  if (stops(settings, llh, loop->prev, false, loop)) return false;
  cycle.keep_second(*model);
  plain_m_step(settings, data, model, buffers);
  const bool jumped = cycle.extrapolate(settings.constrain_F != 0, model);
  loop->cycle = jumped ? Cycle::extrapolated : Cycle::first;
  return true;
}

// x' below x1 gives way to x2, which the next pass evaluates; with no pass
// left, the start ends on x1.
bool turn_down(const EmSettings& settings, StateSpaceModel* model, EmBuffers* buffers,
               EmLoop* loop) {
  Extrapolation& cycle = *buffers->extrapolation;
  if (loop->i == settings.em_loop - 1) {
    return end_on(cycle.second(), loop->prev, false, StopReason::loop_limit, model, loop);
  }
  cycle.reject(model);
  loop->cycle = Cycle::first;
  return true;
}

}  // namespace

bool accelerated_go_on(const EmSettings& settings, const EmData& data, double llh,
                       StateSpaceModel* model, EmBuffers* buffers, std::FILE* log, EmLoop* loop) {
  bool kept = true;
  bool going = false;
  switch (loop->cycle) {
    case Cycle::first:
      going = at_first(settings, data, llh, model, buffers, loop);
      break;
    case Cycle::second:
      going = at_second(settings, data, llh, model, buffers, loop);
      break;
    case Cycle::extrapolated:
      kept = llh >= loop->prev;
      if (kept) {
        buffers->extrapolation->accept();
        going = at_first(settings, data, llh, model, buffers, loop);
      } else {
        going = turn_down(settings, model, buffers, loop);
      }
      break;
  }
  if (going) count_pass(settings, llh, kept, log, loop);
  return going;
}

}  // namespace tarn
