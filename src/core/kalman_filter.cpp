#include <cmath>
#include <cstring>

#include "core/kalman.h"
#include "linalg/blas.h"
#include "linalg/matrix.h"
#include "linalg/small_matrix.h"

namespace tarn {

// Every step on k x k matrices runs in the kernels of SmallMatrix.h with k
// fixed at compile time where it can be; the sweeps over the p objects are
// written out so that one pass does what several library calls would.

namespace {

using small::at;
using small::dim;

constexpr double kTwoPi = 6.283185307179586;

// Two doubles side by side, as the vector registers of most machines hold
// them; its arithmetic is that of the two doubles on their own.
using Pair = double __attribute__((vector_size(2 * sizeof(double))));

inline Pair load_pair(const double* x) {
  Pair v;
  std::memcpy(&v, x, sizeof v);
  return v;
}

// RinvH = R^-1 H, row i of H divided by R[i]; HtRinvH = H' RinvH.
void prepare_information(const SSM* ssm, int p, int k, SSMWork* w) {
  for (int j = 0; j < k; ++j) {
    const double* h = ssm->H + at(0, j, p);
    double* rh = w->RinvH + at(0, j, p);
    for (int i = 0; i < p; ++i) rh[i] = h[i] / ssm->R[i];
  }
  for (int j = 0; j < k; ++j) {
    dgemv_("T", &p, &k, &Matrix_DOUBLE_ONE, ssm->H, &p, w->RinvH + at(0, j, p), &Matrix_INT_ONE,
           &Matrix_DOUBLE_ZERO, w->HtRinvH + at(0, j, k), &Matrix_INT_ONE);
  }
}

// Xp[i] = F Xf[i], Vp[i] = (F Vf[i]) F' + diag(Q), and its explicit inverse.
template <int K>
void predict(const SSM* ssm, SSMState* s, int k_, int i, SSMWork* w) {
  const int k = dim<K>(k_);
  small::gemm<K, false, false>(k, 1.0, ssm->F, s->Vf[i], 0.0, s->FV[i]);
  small::gemv<K>(k, 1.0, ssm->F, s->Xf[i], 1, 0.0, s->Xp[i]);
  Matrix_set_diag(s->Vp[i], k, ssm->Q, Matrix_DOUBLE_ONE);
  small::gemm<K, false, true>(k, 1.0, s->FV[i], ssm->F, 1.0, s->Vp[i]);
  small::copy(k * k, s->Vp[i], s->Vp_inv[i]);
  small::inverse<K>(k, s->Vp_inv[i], w->ipiv, w->work);
}

// e = y - H xp, then 0.0 at the missing rows.
template <int K>
void innovation(int p, int k_, const double* __restrict H, const double* __restrict xp,
                const double* __restrict y, const int* missing, double* __restrict e) {
  const int k = dim<K>(k_);
  for (int i = 0; i < p; ++i) {
    double v = y[i];
    for (int j = 0; j < k; ++j) v -= H[at(i, j, p)] * xp[j];
    e[i] = v;
  }
  for (const int* m = missing; *m != -1; ++m) e[*m] = 0.0;
}

// b = RinvH' e, and returns the sum of e[i]^2 / R[i]. Both sums run in four
// interleaved partial sums (two pairs of lanes), added pairwise at the end.
template <int K>
double project_innovation(int p, int k_, const double* __restrict RinvH, const double* __restrict R,
                          const double* __restrict e, double* __restrict b) {
  const int k = dim<K>(k_);
  Pair q[2] = {};
  int i = 0;
  if constexpr (K == 0) {
    dgemv_("T", &p, &k, &Matrix_DOUBLE_ONE, RinvH, &p, e, &Matrix_INT_ONE, &Matrix_DOUBLE_ZERO, b,
           &Matrix_INT_ONE);
  } else {
    Pair lanes[K][2] = {};
    for (; i + 4 <= p; i += 4) {
      const Pair e0 = load_pair(e + i);
      const Pair e1 = load_pair(e + i + 2);
      for (int j = 0; j < K; ++j) {
        lanes[j][0] += load_pair(RinvH + at(i, j, p)) * e0;
        lanes[j][1] += load_pair(RinvH + at(i + 2, j, p)) * e1;
      }
      q[0] += e0 * e0 / load_pair(R + i);
      q[1] += e1 * e1 / load_pair(R + i + 2);
    }
    for (int l = 0; i + l < p; ++l) {
      for (int j = 0; j < K; ++j) lanes[j][l / 2][l % 2] += RinvH[at(i + l, j, p)] * e[i + l];
    }
    for (int j = 0; j < K; ++j) {
      b[j] = (lanes[j][0][0] + lanes[j][0][1]) + (lanes[j][1][0] + lanes[j][1][1]);
    }
  }
  for (int l = 0; i < p; ++i, l = (l + 1) % 4) q[l / 2][l % 2] += e[i] * e[i] / R[i];
  return (q[0][0] + q[0][1]) + (q[1][0] + q[1][1]);
}

// -0.5 (e' S^-1 e + log det S + n log 2 pi), evaluated without S from the
// update's e, b, u and B. e_Rinv_e is the sum of e[i]^2 / R[i]; log_R holds
// log R of every object, sum_log_R their sum.
template <int K>
double likelihood_term(int p, int k_, double e_Rinv_e, const int* missing, const double* log_R,
                       double sum_log_R, double log_2pi, SSMWork* w) {
  const int k = dim<K>(k_);
  const double q = e_Rinv_e - small::dot(k, w->b, 1, w->u);

  double r = sum_log_R;
  int n_missing = 0;
  for (const int* m = missing; *m != -1; ++m) {
    r -= log_R[*m];
    ++n_missing;
  }
  const double c = static_cast<double>(p - n_missing) * log_2pi;

  small::copy(k * k, w->B, w->mat_k2);
  small::getrf<K>(k, w->mat_k2, w->ipiv);
  const double d = Matrix_log_abs_diag(w->mat_k2, k);
  return -0.5 * (q + r + c - d);
}

// The update of Kalman_filter_observed; returns the sum of e[i]^2 / R[i].
template <int K>
double update(const double* H, const double* R, const double* Xp, const double* Vp,
              const double* Vp_inv, const double* HtRinvH, const double* RinvH, double* e,
              double* b, double* u, double* Xf, double* Vf, double* B, const double* y,
              const int* missing, int p, int k_, double* A, double* mat_k1, double* mat_k2,
              int* ipiv) {
  const int k = dim<K>(k_);
  const int kk = k * k;
  innovation<K>(p, k, H, Xp, y, missing, e);
  // A = H' R^-1 H over the observed rows: take each missing row out again.
  small::copy(kk, HtRinvH, A);
  for (const int* m = missing; *m != -1; ++m) {
    small::ger<K>(k, -1.0 / R[*m], H + *m, H + *m, A, static_cast<std::size_t>(p));
  }
  // b = H' R^-1 e; the zeros in e remove the missing rows.
  const double e_Rinv_e = project_innovation<K>(p, k, RinvH, R, e, b);
  // G = Vp^-1 + A; solve G u = b.
  small::copy(kk, Vp_inv, mat_k1);
  small::axpy(kk, 1.0, A, mat_k1);
  small::copy(kk, mat_k1, mat_k2);
  small::copy(k, b, u);
  small::getrf<K>(k, mat_k2, ipiv);
  small::getrs1<K, false>(k, mat_k2, ipiv, u);
  // Xf = Xp + u.
  small::copy(k, Xp, Xf);
  small::axpy(k, 1.0, u, Xf);
  // B = I - G^-1 A; Vf = B Vp.
  small::copy(kk, A, mat_k1);
  small::getrs<K, false>(k, k, mat_k2, ipiv, mat_k1, k);
  Matrix_set_identity(B, k);
  small::axpy(kk, -1.0, mat_k1, B);
  small::gemm<K, false, false>(k, 1.0, B, Vp, 0.0, Vf);
  return e_Rinv_e;
}

template <int K>
double filter(const SSM* ssm, SSMState* state, int p, int k_, int T, const double* Y,
              const int* sample_at, const int* const* missing, SSMWork* work) {
  const int k = dim<K>(k_);
  prepare_information(ssm, p, k, work);
  small::copy(k, ssm->exp, state->Xf[0]);
  small::copy(k * k, ssm->var, state->Vf[0]);
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
    predict<K>(ssm, state, k, i, work);
    const int s = sample_at[i];
    if (s == -1) {
      small::copy(k, state->Xp[i], state->Xf[i + 1]);
      small::copy(k * k, state->Vp[i], state->Vf[i + 1]);
      continue;
    }
    const double* y = Y + static_cast<std::size_t>(s) * static_cast<std::size_t>(p);
    const double e_Rinv_e = update<K>(ssm->H, ssm->R, state->Xp[i], state->Vp[i], state->Vp_inv[i],
                                      work->HtRinvH, work->RinvH, work->e, work->b, work->u,
                                      state->Xf[i + 1], state->Vf[i + 1], work->B, y, missing[s], p,
                                      k, work->HtRinvH_obs, work->mat_k1, work->mat_k2, work->ipiv);
    llh += likelihood_term<K>(p, k, e_Rinv_e, missing[s], log_R, sum_log_R, log_2pi, work);
  }
  return llh;
}

}  // namespace

void Kalman_filter_observed(const double* H, const double* R, const double* Xp, const double* Vp,
                            const double* Vp_inv, const double* HtRinvH, const double* RinvH,
                            double* e, double* b, double* u, double* Xf, double* Vf, double* B,
                            const double* y, const int* missing, int p, int k, double* HtRinvH_obs,
                            double* mat_k1, double* mat_k2, int* ipiv) {
  small::with_fixed_size(k, [&](auto fixed) {
    update<decltype(fixed)::value>(H, R, Xp, Vp, Vp_inv, HtRinvH, RinvH, e, b, u, Xf, Vf, B, y,
                                   missing, p, k, HtRinvH_obs, mat_k1, mat_k2, ipiv);
  });
}

double Kalman_filter(const SSM* ssm, SSMState* state, int p, int k, int T, const double* Y,
                     const int* sample_at, const int* const* missing, SSMWork* work) {
  return small::with_fixed_size(k, [&](auto fixed) {
    return filter<decltype(fixed)::value>(ssm, state, p, k, T, Y, sample_at, missing, work);
  });
}

}  // namespace tarn
