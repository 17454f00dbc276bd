#include <cmath>

#include "kalman/Kalman.h"
#include "math/Matrix.h"
#include "math/SmallMatrix.h"
#include "math/blas.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;

// RinvH = R^-1 H, row i of H divided by R[i]; HtRinvH = H' RinvH.
void prepare_information(const SSM* ssm, int p, int k, SSMWork* w) {
  for (int j = 0; j < k; ++j) {
    const double* h = ssm->H + static_cast<std::size_t>(j) * p;
    double* rh = w->RinvH + static_cast<std::size_t>(j) * p;
    for (int i = 0; i < p; ++i) rh[i] = h[i] / ssm->R[i];
  }
  for (int j = 0; j < k; ++j) {
    dgemv_("T", &p, &k, &Matrix_DOUBLE_ONE, ssm->H, &p, w->RinvH + static_cast<std::size_t>(j) * p,
           &Matrix_INT_ONE, &Matrix_DOUBLE_ZERO, w->HtRinvH + static_cast<std::size_t>(j) * k,
           &Matrix_INT_ONE);
  }
}

// Xp[i] = F Xf[i], Vp[i] = (F Vf[i]) F' + diag(Q), and its explicit inverse.
void predict(const SSM* ssm, SSMState* s, int k, int i, SSMWork* w) {
  Small_gemm('N', 'N', k, 1.0, ssm->F, s->Vf[i], 0.0, s->FV[i]);
  dgemv_("N", &k, &k, &Matrix_DOUBLE_ONE, ssm->F, &k, s->Xf[i], &Matrix_INT_ONE,
         &Matrix_DOUBLE_ZERO, s->Xp[i], &Matrix_INT_ONE);
  Matrix_set_diag(s->Vp[i], k, ssm->Q, Matrix_DOUBLE_ONE);
  Small_gemm('N', 'T', k, 1.0, s->FV[i], ssm->F, 1.0, s->Vp[i]);
  Matrix_copy(s->Vp_inv[i], s->Vp[i], k, k);
  Matrix_inverse(s->Vp_inv[i], k, w->ipiv, w->work, w->lwork);
}

// -0.5 (e' S^-1 e + log det S + n log 2 pi), evaluated without S from the
// update's e, b, u and B. log_R holds log R of every object, sum_log_R their sum.
double likelihood_term(const SSM* ssm, int p, int k, const int* missing, const double* log_R,
                       double sum_log_R, double log_2pi, SSMWork* w) {
  double q = 0.0;
  for (int i = 0; i < p; ++i) q += w->e[i] * w->e[i] / ssm->R[i];
  q -= ddot_(&k, w->b, &Matrix_INT_ONE, w->u, &Matrix_INT_ONE);

  double r = sum_log_R;
  int n_missing = 0;
  for (const int* m = missing; *m != -1; ++m) {
    r -= log_R[*m];
    ++n_missing;
  }
  const double c = static_cast<double>(p - n_missing) * log_2pi;

  Matrix_copy(w->mat_k2, w->B, k, k);
  Small_getrf(k, w->mat_k2, w->ipiv);
  const double d = Matrix_log_abs_diag(w->mat_k2, k);
  return -0.5 * (q + r + c - d);
}

}  // namespace

void Kalman_filter_observed(const double* H, const double* R, const double* Xp, const double* Vp,
                            const double* Vp_inv, const double* HtRinvH, const double* RinvH,
                            double* e, double* b, double* u, double* Xf, double* Vf, double* B,
                            const double* y, const int* missing, int p, int k,
                            double* HtRinvH_obs, double* mat_k1, double* mat_k2, int* ipiv) {
  const int kk = k * k;
  double* A = HtRinvH_obs;
  // Innovation e = y - H Xp.
  Matrix_copy(e, y, p, 1);
  dgemv_("N", &p, &k, &Matrix_DOUBLE_MINUS_ONE, H, &p, Xp, &Matrix_INT_ONE, &Matrix_DOUBLE_ONE, e,
         &Matrix_INT_ONE);
  // A = H' R^-1 H over the observed rows: take each missing row out again.
  Matrix_copy(A, HtRinvH, k, k);
  for (const int* m = missing; *m != -1; ++m) {
    e[*m] = 0.0;
    const double alpha = -1.0 / R[*m];
    dger_(&k, &k, &alpha, H + *m, &p, H + *m, &p, A, &k);
  }
  // b = H' R^-1 e; the zeros in e remove the missing rows.
  dgemv_("T", &p, &k, &Matrix_DOUBLE_ONE, RinvH, &p, e, &Matrix_INT_ONE, &Matrix_DOUBLE_ZERO, b,
         &Matrix_INT_ONE);
  // G = Vp^-1 + A; solve G u = b.
  Matrix_copy(mat_k1, Vp_inv, k, k);
  daxpy_(&kk, &Matrix_DOUBLE_ONE, A, &Matrix_INT_ONE, mat_k1, &Matrix_INT_ONE);
  Matrix_copy(mat_k2, mat_k1, k, k);
  Matrix_copy(u, b, k, 1);
  Small_getrf(k, mat_k2, ipiv);
  Small_getrs('N', k, 1, mat_k2, ipiv, u, k);
  // Xf = Xp + u.
  Matrix_copy(Xf, Xp, k, 1);
  daxpy_(&k, &Matrix_DOUBLE_ONE, u, &Matrix_INT_ONE, Xf, &Matrix_INT_ONE);
  // B = I - G^-1 A; Vf = B Vp.
  Matrix_copy(mat_k1, A, k, k);
  Small_getrs('N', k, k, mat_k2, ipiv, mat_k1, k);
  Matrix_set_identity(B, k);
  daxpy_(&kk, &Matrix_DOUBLE_MINUS_ONE, mat_k1, &Matrix_INT_ONE, B, &Matrix_INT_ONE);
  Small_gemm('N', 'N', k, 1.0, B, Vp, 0.0, Vf);
}

double Kalman_filter(const SSM* ssm, SSMState* state, int p, int k, int T, const double* Y,
                     const int* sample_at, const int* const* missing, SSMWork* work) {
  prepare_information(ssm, p, k, work);
  Matrix_copy(state->Xf[0], ssm->exp, k, 1);
  Matrix_copy(state->Vf[0], ssm->var, k, k);
  double llh = 0.0;

  // Formed once per call; each observed time point subtracts its missing rows.
  double* log_R = work->vec_p;
  double sum_log_R = 0.0;
  for (int i = 0; i < p; ++i) {
    log_R[i] = std::log(ssm->R[i]);
    sum_log_R += log_R[i];
  }
  const double log_2pi = std::log(kTwoPi);

  for (int i = 0; i < T; ++i) {
    predict(ssm, state, k, i, work);
    const int s = sample_at[i];
    if (s == -1) {
      Matrix_copy(state->Xf[i + 1], state->Xp[i], k, 1);
      Matrix_copy(state->Vf[i + 1], state->Vp[i], k, k);
      continue;
    }
    const double* y = Y + static_cast<std::size_t>(s) * static_cast<std::size_t>(p);
    Kalman_filter_observed(ssm->H, ssm->R, state->Xp[i], state->Vp[i], state->Vp_inv[i],
                           work->HtRinvH, work->RinvH, work->e, work->b, work->u, state->Xf[i + 1],
                           state->Vf[i + 1], work->B, y, missing[s], p, k, work->HtRinvH_obs,
                           work->mat_k1, work->mat_k2, work->ipiv);
    llh += likelihood_term(ssm, p, k, missing[s], log_R, sum_log_R, log_2pi, work);
  }
  return llh;
}
