#include <algorithm>

#include "core/em.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::at;
using small::dim;

// The sums of one replicate from its smoothed trajectory: the state sums into
// sums, and for each observed time point its state and E[x x'] into products,
// from which the observed rows' y x' and the missing rows' expectations are
// summed once every replicate is in. The last missing row's h E[x x'] is left
// in the scratch vector, as summing it there row by row left it.
template <int K>
void sum_series(const StateSpaceModel& model, const ReplicateView& series, const Trajectory& s,
                const StartProducts& products, SufficientStats* sums, Workspace* w) {
  const int k = dim<K>(model.k());
  const int kk = k * k;
  const int T = s.T;
  const double* last_P = nullptr;
  int last_missing = -1;
  sums->reset(k);
  small::copy(k, s.smoothed_mean[0], sums->sum_x0.data());
  for (int t = 0; t < T; ++t) {
    small::ger<K>(k, 1.0, s.smoothed_mean[t], s.smoothed_mean[t], sums->sum_xx_previous.data());
    small::axpy(kk, 1.0, s.smoothed_cov[t], sums->sum_xx_previous.data());
    small::ger<K>(k, 1.0, s.smoothed_mean[t + 1], s.smoothed_mean[t], sums->sum_xx_lag.data());
    small::axpy(kk, 1.0, s.lag_cov[t], sums->sum_xx_lag.data());

    const int col = series.sample_at[static_cast<std::size_t>(t)];
    if (col == -1) continue;
    const int j = series.column_of[col];
    small::copy(k, s.smoothed_mean[t + 1],
                products.states + static_cast<std::size_t>(j) * products.ld);
    // P = Vs[t+1] + Xs[t+1] Xs[t+1]'.
    double* P = products.second_moments + static_cast<std::size_t>(j) * kk;
    small::copy(kk, s.smoothed_cov[t + 1], P);
    small::ger<K>(k, 1.0, s.smoothed_mean[t + 1], s.smoothed_mean[t + 1], P);
    small::axpy(kk, 1.0, P, sums->sum_xx_observed.data());
    for (const int* m = series.missing[col]; *m != -1; ++m) {
      last_P = P;
      last_missing = *m;
    }
  }
  if (last_P != nullptr) {
    const double* h = products.H_rows + static_cast<std::size_t>(last_missing) * k;
    small::gemv<K>(k, 1.0, last_P, h, 1, 0.0, w->vector_scratch.data());
  }
}

// lag_cov[t] = smoother_gain[t] smoothed_cov[t + 1].
template <int K>
void form_lag_covariances(Trajectory* s) {
  for (int t = 0; t < s->T; ++t) {
    small::gemm<K, false, false>(s->k, 1.0, s->smoother_gain[t], s->smoothed_cov[t + 1], 0.0,
                                 s->lag_cov[t]);
  }
}

// Filter, smoother and sums of every replicate for start b of the batch;
// returns its log-likelihood.
double pass_start(const StateSpaceModel& model, const EmData& data, StartProducts products,
                  EmBuffers* buffers) {
  const int k = model.k();
  buffers->total_sums.reset_states(k);
  double llh = 0.0;
  for (int r = 0; r < data.table().n_replicates; ++r) {
    const ReplicateView series = replicate_view(data, r);
    llh += run_filter(model, series, products, &buffers->trajectory, &buffers->workspace);
    run_smoother(&buffers->trajectory, &buffers->workspace);
    small::with_fixed_size(k, [&](auto fixed) {
      constexpr int K = decltype(fixed)::value;
      form_lag_covariances<K>(&buffers->trajectory);
      sum_series<K>(model, series, buffers->trajectory, products, &buffers->replicate_sums,
                    &buffers->workspace);
    });
    buffers->total_sums.add(buffers->replicate_sums);
  }
  return llh;
}

}  // namespace

void e_step_batch(std::span<const StateSpaceModel* const> models, const EmData& data,
                  std::span<EmBuffers* const> buffers, BatchProducts* products,
                  std::span<double> llh) {
  products->prepare(models, data);
  for (std::size_t b = 0; b < models.size(); ++b) {
    llh[b] = pass_start(*models[b], data, products->start(static_cast<int>(b)), buffers[b]);
  }
  const int p = data.p();
  for (int first = 0; first < p; first += kProductRows) {
    const RowRange objects{first, std::min(kProductRows, p - first)};
    products->multiply_states(data, objects);
    for (std::size_t b = 0; b < models.size(); ++b) {
      products->finish(static_cast<int>(b), *models[b], data, objects, &buffers[b]->total_sums);
    }
  }
}

double e_step(const StateSpaceModel& model, const EmData& data, EmBuffers* buffers,
              BatchProducts* products) {
  const StateSpaceModel* models[] = {&model};
  EmBuffers* const start_buffers[] = {buffers};
  double llh = 0.0;
  e_step_batch(models, data, start_buffers, products, {&llh, 1});
  return llh;
}

}  // namespace tarn
