#include "core/em.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::at;
using small::dim;

// yy += y^2 and yx += y x', one pass over the rows.
template <int K>
void add_sample(int p, int k_, const double* __restrict y, const double* __restrict x,
                double* __restrict yy, double* __restrict yx) {
  const int k = dim<K>(k_);
  for (int i = 0; i < p; ++i) {
    yy[i] += y[i] * y[i];
    for (int j = 0; j < k; ++j) yx[at(i, j, p)] += y[i] * x[j];
  }
}

template <int K>
void sum_series(const StateSpaceModel& model, const ReplicateView& series, const Trajectory& s,
                SufficientStats* sums, Workspace* w) {
  const int p = model.p();
  const int k = dim<K>(model.k());
  const int kk = k * k;
  const int T = s.T;
  double* P = w->second_moment.data();
  double* hP = w->vector_scratch.data();
  double* yy = sums->sum_yy.data();
  double* yx = sums->sum_yx.data();
  sums->reset(k);
  small::copy(k, s.smoothed_mean[0], sums->sum_x0.data());
  for (int t = 0; t < T; ++t) {
    small::ger<K>(k, 1.0, s.smoothed_mean[t], s.smoothed_mean[t], sums->sum_xx_previous.data());
    small::axpy(kk, 1.0, s.smoothed_cov[t], sums->sum_xx_previous.data());
    small::ger<K>(k, 1.0, s.smoothed_mean[t + 1], s.smoothed_mean[t], sums->sum_xx_lag.data());
    small::axpy(kk, 1.0, s.lag_cov[t], sums->sum_xx_lag.data());

    const int col = series.sample_at[static_cast<std::size_t>(t)];
    if (col == -1) continue;
    const double* y = series.Y + static_cast<std::size_t>(col) * static_cast<std::size_t>(p);
    // Straight into the sums: a missing row adds the 0.0 that Y holds there,
    // and its conditional expectation below.
    add_sample<K>(p, k, y, s.smoothed_mean[t + 1], yy, yx);
    // P = Vs[t+1] + Xs[t+1] Xs[t+1]'.
    small::copy(kk, s.smoothed_cov[t + 1], P);
    small::ger<K>(k, 1.0, s.smoothed_mean[t + 1], s.smoothed_mean[t + 1], P);
    // Missing rows: R[m] + h P h' and h P, the expectations given what is observed.
    for (const int* m = series.missing[col]; *m != -1; ++m) {
      const double* h = model.H.data() + *m;
      small::gemv<K>(k, 1.0, P, h, static_cast<std::size_t>(p), 0.0, hP);
      yy[*m] += model.R[*m] + small::dot(k, h, static_cast<std::size_t>(p), hP);
      double* yx_row = yx + *m;
      for (int j = 0; j < k; ++j) yx_row[at(0, j, p)] += hP[j];
    }
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

}  // namespace

void sum_replicate(const StateSpaceModel& model, const ReplicateView& series,
                   const Trajectory& trajectory, SufficientStats* sums, Workspace* work) {
  small::with_fixed_size(model.k(), [&](auto fixed) {
    sum_series<decltype(fixed)::value>(model, series, trajectory, sums, work);
  });
}

double e_step(const StateSpaceModel& model, const DataSet& data, EmBuffers* buffers) {
  const int k = model.k();
  buffers->total_sums.reset(k);
  double llh = 0.0;
  for (int r = 0; r < data.n_replicates; ++r) {
    const ReplicateView series = replicate_view(data, r);
    llh += run_filter(model, series, &buffers->trajectory, &buffers->workspace);
    run_smoother(&buffers->trajectory, &buffers->workspace);
    small::with_fixed_size(
        k, [&](auto fixed) { form_lag_covariances<decltype(fixed)::value>(&buffers->trajectory); });
    sum_replicate(model, series, buffers->trajectory, &buffers->replicate_sums,
                  &buffers->workspace);
    buffers->total_sums.add(buffers->replicate_sums);
  }
  return llh;
}

}  // namespace tarn
