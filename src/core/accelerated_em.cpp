// The passes of an accelerated start. A cycle evaluates x0 and x1 = M(x0),
// forms x2 = M(x1) and from the three the extrapolated x' (extrapolation.h),
// which is evaluated next. x' is kept, as the x0 of the next cycle, where its
// likelihood is not below that of x1; otherwise x2, the plain step, takes its
// place. The convergence tests compare the likelihoods at the starts of
// successive cycles.
//
// A start ends on the model of the highest likelihood it evaluated, so that
// its likelihood never falls from one pass limit to the next. Where the
// M-step is exact, that is the last model kept; with a constrained F, whose
// diagonal the M-step sets rather than estimates, a plain step can lower the
// likelihood, in plain EM as well.

#include "core/em_loop_state.h"

namespace tarn {

namespace {

bool at_first(const EmSettings& settings, const EmData& data, double llh, StateSpaceModel* model,
              EmBuffers* buffers, EmLoop* loop) {
  const double reference = loop->cycle_start;
  loop->cycle_start = llh;
  if (stops(settings, llh, reference, true, loop)) return false;
  buffers->extrapolation->keep_first(*model);
  m_step(settings, data.table(), buffers->total_sums, model, &buffers->workspace);
  loop->cycle = Cycle::second;
  return true;
}

bool at_second(const EmSettings& settings, const EmData& data, double llh, StateSpaceModel* model,
               EmBuffers* buffers, EmLoop* loop) {
  if (stops(settings, llh, loop->prev, false, loop)) return false;
  Extrapolation& cycle = *buffers->extrapolation;
  cycle.keep_second(*model);
  m_step(settings, data.table(), buffers->total_sums, model, &buffers->workspace);
  const bool jumped = cycle.extrapolate(settings.constrain_F != 0, model);
  loop->cycle = jumped ? Cycle::extrapolated : Cycle::first;
  return true;
}

// x' below x1 gives way to x2, which the next pass evaluates.
bool turn_down(const EmSettings& settings, double llh, StateSpaceModel* model, EmBuffers* buffers,
               EmLoop* loop) {
  if (loop->i == settings.em_loop - 1) {
    loop->llh = llh;
    stop(loop, false, StopReason::loop_limit);
    return false;
  }
  buffers->extrapolation->reject(model);
  loop->cycle = Cycle::first;
  return true;
}

}  // namespace

bool accelerated_go_on(const EmSettings& settings, const EmData& data, double llh,
                       StateSpaceModel* model, EmBuffers* buffers, std::FILE* log, EmLoop* loop) {
  Extrapolation& cycle = *buffers->extrapolation;
  cycle.keep_if_best(*model, llh);
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
        cycle.accept();
        going = at_first(settings, data, llh, model, buffers, loop);
      } else {
        going = turn_down(settings, llh, model, buffers, loop);
      }
      break;
  }
  if (going) {
    count_pass(settings, llh, kept, log, loop);
  } else if (loop->stopped_by != StopReason::nan_likelihood &&
             cycle.best_likelihood() > loop->llh) {
    copy_model(cycle.best(), model);
    loop->llh = cycle.best_likelihood();
  }
  return going;
}

}  // namespace tarn
