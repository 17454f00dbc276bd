#include <cfloat>
#include <cmath>
#include <vector>

#include "core/em.h"
#include "core/em_loop_state.h"

namespace tarn {

bool is_usable_likelihood(double value) {
  return std::isnormal(value);
}

namespace {

// BIC = -2 llh + log(n_samples) m, m the number of free parameters.
double bic_of(double llh, int p, int k, const EmSettings& settings, int n_samples) {
  double m = static_cast<double>((k + 1) * p) + static_cast<double>(k * k + k) * 0.5;
  if (settings.update_mu != 0) m += static_cast<double>(k);
  return llh * -2.0 + std::log(n_samples) * m;
}

}  // namespace

bool stop(EmLoop* loop, bool converged, StopReason reason) {
  loop->converged = converged;
  loop->stopped_by = reason;
  return true;
}

bool stops(const EmSettings& settings, double llh, double reference, bool test_rise, EmLoop* loop) {
  loop->llh = llh;
  if (loop->i > settings.em_loop / 10 && std::isnan(llh)) {
    return stop(loop, false, StopReason::nan_likelihood);
  }
  double diff = llh - reference;
  if (settings.abs_converge != 0) diff = std::fabs(diff);
  if (diff < 0.0) loop->monotone = false;
  if (!std::isnan(llh) && settings.converge > diff && (test_rise || diff < 0.0)) {
    return stop(loop, true, StopReason::absolute_test);
  }
  if (test_rise && settings.converge_relative > 0.0 &&
      std::fabs(llh - reference) < settings.converge_relative * std::fabs(llh)) {
    return stop(loop, true, StopReason::relative_test);
  }
  if (loop->i == settings.em_loop - 1) return stop(loop, false, StopReason::loop_limit);
  return false;
}

void count_pass(const EmSettings& settings, double llh, bool chained, std::FILE* log,
                EmLoop* loop) {
  if (chained) loop->prev = llh;
  ++loop->i;
  if (settings.verbose >= 2) {
    std::fprintf(log, "(%d) llh = %f\n", loop->i, llh);
    std::fflush(log);
  }
}

namespace {

// The part of a pass after the E-step that gave llh: the stopping rules, then
// the M-step and the progress line. False when the start stops here.
bool go_on(const EmSettings& settings, const EmData& data, double llh, StateSpaceModel* model,
           EmBuffers* buffers, std::FILE* log, EmLoop* loop) {
  if (settings.accelerate != 0) {
    return accelerated_go_on(settings, data, llh, model, buffers, log, loop);
  }
  if (stops(settings, llh, loop->prev, true, loop)) return false;
  m_step(settings, data.table(), buffers->total_sums, model, &buffers->workspace);
  count_pass(settings, llh, true, log, loop);
  return true;
}

Estimate finish(const EmSettings& settings, const EmData& data, const EmLoop& loop,
                StateSpaceModel* model, std::FILE* log) {
  if (settings.verbose > 0) {
    std::fprintf(log, "SSM_EM_algo(): Estimation finished. llh=%f\n", loop.llh);
    std::fflush(log);
  }
  const double bic = bic_of(loop.llh, data.p(), model->k(), settings, data.table().n_samples);
  return Estimate{loop.llh, bic, loop.monotone, loop.converged, loop.i + 1, model, loop.stopped_by};
}

}  // namespace

void run_em_batch(const EmSettings& settings, const EmData& data, const EmBatch& batch,
                  std::span<Estimate> results) {
  const std::size_t n = batch.models.size();
  std::vector<EmLoop> loops(n);
  for (std::size_t b = 0; b < n; ++b) {
    if (batch.buffers[b]->extrapolation) batch.buffers[b]->extrapolation->restart();
  }
  std::vector<std::size_t> active(n);
  for (std::size_t b = 0; b < n; ++b) active[b] = b;
  std::vector<const StateSpaceModel*> models(n);
  std::vector<EmBuffers*> buffers(n);
  std::vector<double> llh(n);
  while (!active.empty()) {
    const std::size_t m = active.size();
    for (std::size_t a = 0; a < m; ++a) {
      models[a] = batch.models[active[a]];
      buffers[a] = batch.buffers[active[a]];
    }
    e_step_batch({models.data(), m}, data, {buffers.data(), m}, batch.products, {llh.data(), m});
    std::size_t kept = 0;
    for (std::size_t a = 0; a < m; ++a) {
      const std::size_t b = active[a];
      StateSpaceModel* model = batch.models[b];
      if (go_on(settings, data, llh[a], model, batch.buffers[b], batch.logs[b], &loops[b])) {
        active[kept++] = b;
      } else {
        results[b] = finish(settings, data, loops[b], model, batch.logs[b]);
      }
    }
    active.resize(kept);
  }
}

Estimate run_em(const EmSettings& settings, const EmData& data, StateSpaceModel* model,
                EmBuffers* buffers, BatchProducts* products, std::FILE* log) {
  StateSpaceModel* models[] = {model};
  EmBuffers* start_buffers[] = {buffers};
  std::FILE* logs[] = {log};
  Estimate result{};
  run_em_batch(settings, data, EmBatch{models, start_buffers, logs, products}, {&result, 1});
  return result;
}

}  // namespace tarn
