#include <algorithm>

#include "core/em.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::at;
using small::dim;

// Missing rows: R[m] + h P h' and h P, the expectations given what is
// observed, into yy and the sums of x y'; Y holds 0.0 there, so that the
// product adds nothing to them. P and h P stay in registers where k is
// fixed; the last h P is left in hP.
template <int K>
void add_missing_rows(const StateSpaceModel& model, const StartProducts& products,
                      const int* missing, const double* P, double* yy, double* hP) {
  const int k = dim<K>(model.k());
  double local_P[K > 0 ? K * K : 1];
  double local_hP[K > 0 ? K : 1];
  const double* p = P;
  double* hp = hP;
  if constexpr (K > 0) {
    small::copy(K * K, P, local_P);
    p = local_P;
    hp = local_hP;
  }
  for (const int* m = missing; *m != -1; ++m) {
    const double* h = products.H_rows + static_cast<std::size_t>(*m) * k;
    small::gemv<K>(k, 1.0, p, h, 1, 0.0, hp);
    yy[*m] += model.R[*m] + small::dot(k, h, 1, hp);
    double* xy_object = products.state_data + static_cast<std::size_t>(*m) * products.ld;
    for (int c = 0; c < k; ++c) xy_object[c] += hp[c];
  }
  if (K > 0 && *missing != -1) small::copy(k, hp, hP);
}

// The sums of one replicate from its smoothed trajectory: the state sums into
// state_sums, the missing rows' expectations into yy and products.state_data,
// and the states for the product that adds the observed rows' y x'.
template <int K>
void sum_series(const StateSpaceModel& model, const ReplicateView& series, const Trajectory& s,
                const StartProducts& products, double* yy, SufficientStats* sums, Workspace* w) {
  const int k = dim<K>(model.k());
  const int kk = k * k;
  const int T = s.T;
  double* P = w->second_moment.data();
  double* hP = w->vector_scratch.data();
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
    small::copy(kk, s.smoothed_cov[t + 1], P);
    small::ger<K>(k, 1.0, s.smoothed_mean[t + 1], s.smoothed_mean[t + 1], P);
    add_missing_rows<K>(model, products, series.missing[col], P, yy, hP);
    small::axpy(kk, 1.0, P, sums->sum_xx_observed.data());
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
  buffers->total_sums.reset(k);
  double llh = 0.0;
  for (int r = 0; r < data.table().n_replicates; ++r) {
    const ReplicateView series = replicate_view(data, r);
    llh += run_filter(model, series, products, &buffers->trajectory, &buffers->workspace);
    run_smoother(&buffers->trajectory, &buffers->workspace);
    small::with_fixed_size(k, [&](auto fixed) {
      constexpr int K = decltype(fixed)::value;
      form_lag_covariances<K>(&buffers->trajectory);
      sum_series<K>(model, series, buffers->trajectory, products, buffers->total_sums.sum_yy.data(),
                    &buffers->replicate_sums, &buffers->workspace);
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
  products->finish(data);
  const int p = data.p();
  for (std::size_t b = 0; b < models.size(); ++b) {
    SufficientStats& sums = buffers[b]->total_sums;
    products->copy_sums(static_cast<int>(b), &sums.sum_yx);
    const double* squares = data.sum_squares();
    for (int i = 0; i < p; ++i) sums.sum_yy[static_cast<std::size_t>(i)] += squares[i];
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
