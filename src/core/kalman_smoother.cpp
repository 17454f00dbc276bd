#include "core/kalman.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::dim;

template <int K>
void smoother(Trajectory* s, Workspace* w) {
  const int k = dim<K>(s->k);
  const int kk = k * k;
  const int T = s->T;
  double* difference = w->vector_scratch.data();
  double* inner = w->square_a.data();
  double* product = w->square_b.data();
  small::copy(k, s->filtered_mean[T], s->smoothed_mean[T]);
  small::copy(kk, s->filtered_cov[T], s->smoothed_cov[T]);
  for (int t = T - 1; t >= 0; --t) {
    double* J = s->smoother_gain[t];
    // J = F_filtered_cov' predicted_precision = Vf F' Vp^-1.
    small::gemm<K, true, false>(k, 1.0, s->F_filtered_cov[t], s->predicted_precision[t], 0.0, J);
    // Xs[t] = Xf[t] + J (Xs[t+1] - Xp[t]).
    small::copy(k, s->smoothed_mean[t + 1], difference);
    small::axpy(k, -1.0, s->predicted_mean[t], difference);
    small::copy(k, s->filtered_mean[t], s->smoothed_mean[t]);
    small::gemv<K>(k, 1.0, J, difference, 1, 1.0, s->smoothed_mean[t]);
    // Vs[t] = Vf[t] + J (Vs[t+1] - Vp[t]) J'.
    small::copy(kk, s->smoothed_cov[t + 1], inner);
    small::axpy(kk, -1.0, s->predicted_cov[t], inner);
    small::gemm<K, false, false>(k, 1.0, J, inner, 0.0, product);
    small::gemm<K, false, true>(k, 1.0, product, J, 0.0, inner);
    small::copy(kk, s->filtered_cov[t], s->smoothed_cov[t]);
    small::axpy(kk, 1.0, inner, s->smoothed_cov[t]);
  }
}

}  // namespace

void run_smoother(Trajectory* trajectory, Workspace* work) {
  small::with_fixed_size(trajectory->k,
                         [&](auto fixed) { smoother<decltype(fixed)::value>(trajectory, work); });
}

}  // namespace tarn
