#include "kalman/Kalman.h"
#include "math/Matrix.h"
#include "math/SmallMatrix.h"
#include "math/blas.h"

void Kalman_smoother(SSMState* state, int k, int T, double* vec_k, double* mat_k1,
                     double* mat_k2) {
  const int kk = k * k;
  SSMState* s = state;
  Matrix_copy(s->Xs[T], s->Xf[T], k, 1);
  Matrix_copy(s->Vs[T], s->Vf[T], k, k);
  for (int t = T - 1; t >= 0; --t) {
    // J[t] = FV[t]' Vp_inv[t] = Vf[t] F' Vp[t]^-1.
    Small_gemm('T', 'N', k, 1.0, s->FV[t], s->Vp_inv[t], 0.0, s->J[t]);
    // Xs[t] = Xf[t] + J[t] (Xs[t+1] - Xp[t]).
    Matrix_copy(vec_k, s->Xs[t + 1], k, 1);
    daxpy_(&k, &Matrix_DOUBLE_MINUS_ONE, s->Xp[t], &Matrix_INT_ONE, vec_k, &Matrix_INT_ONE);
    Matrix_copy(s->Xs[t], s->Xf[t], k, 1);
    dgemv_("N", &k, &k, &Matrix_DOUBLE_ONE, s->J[t], &k, vec_k, &Matrix_INT_ONE,
           &Matrix_DOUBLE_ONE, s->Xs[t], &Matrix_INT_ONE);
    // Vs[t] = Vf[t] + J[t] (Vs[t+1] - Vp[t]) J[t]'.
    Matrix_copy(mat_k1, s->Vs[t + 1], k, k);
    daxpy_(&kk, &Matrix_DOUBLE_MINUS_ONE, s->Vp[t], &Matrix_INT_ONE, mat_k1, &Matrix_INT_ONE);
    Small_gemm('N', 'N', k, 1.0, s->J[t], mat_k1, 0.0, mat_k2);
    Small_gemm('N', 'T', k, 1.0, mat_k2, s->J[t], 0.0, mat_k1);
    Matrix_copy(s->Vs[t], s->Vf[t], k, k);
    daxpy_(&kk, &Matrix_DOUBLE_ONE, mat_k1, &Matrix_INT_ONE, s->Vs[t], &Matrix_INT_ONE);
  }
}
