#include "core/kalman.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::dim;

template <int K>
void smoother(SSMState* s, int k_, int T, double* vec_k, double* mat_k1, double* mat_k2) {
  const int k = dim<K>(k_);
  const int kk = k * k;
  small::copy(k, s->Xf[T], s->Xs[T]);
  small::copy(kk, s->Vf[T], s->Vs[T]);
  for (int t = T - 1; t >= 0; --t) {
    // J[t] = FV[t]' Vp_inv[t] = Vf[t] F' Vp[t]^-1.
    small::gemm<K, true, false>(k, 1.0, s->FV[t], s->Vp_inv[t], 0.0, s->J[t]);
    // Xs[t] = Xf[t] + J[t] (Xs[t+1] - Xp[t]).
    small::copy(k, s->Xs[t + 1], vec_k);
    small::axpy(k, -1.0, s->Xp[t], vec_k);
    small::copy(k, s->Xf[t], s->Xs[t]);
    small::gemv<K>(k, 1.0, s->J[t], vec_k, 1, 1.0, s->Xs[t]);
    // Vs[t] = Vf[t] + J[t] (Vs[t+1] - Vp[t]) J[t]'.
    small::copy(kk, s->Vs[t + 1], mat_k1);
    small::axpy(kk, -1.0, s->Vp[t], mat_k1);
    small::gemm<K, false, false>(k, 1.0, s->J[t], mat_k1, 0.0, mat_k2);
    small::gemm<K, false, true>(k, 1.0, mat_k2, s->J[t], 0.0, mat_k1);
    small::copy(kk, s->Vf[t], s->Vs[t]);
    small::axpy(kk, 1.0, mat_k1, s->Vs[t]);
  }
}

}  // namespace

void Kalman_smoother(SSMState* state, int k, int T, double* vec_k, double* mat_k1, double* mat_k2) {
  small::with_fixed_size(
      k, [&](auto fixed) { smoother<decltype(fixed)::value>(state, k, T, vec_k, mat_k1, mat_k2); });
}

}  // namespace tarn
