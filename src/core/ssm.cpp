#include "core/ssm.h"

#include <algorithm>
#include <cstring>

#include "linalg/blas.h"
#include "linalg/matrix.h"

namespace tarn {

StateTable::StateTable(int entries, std::size_t width)
    : block_(array_size(entries) * width), at_(array_size(entries)) {
  for (std::size_t t = 0; t < at_.size(); ++t) at_[t] = block_.get() + t * width;
}

std::unique_ptr<SSM> SSM_new(int p, int k) {
  auto ssm = std::make_unique<SSM>();
  ssm->exp = HeapArray<double>(array_size(k));
  ssm->var = HeapArray<double>(array_size(k, k));
  ssm->H = HeapArray<double>(array_size(p, k));
  ssm->R = HeapArray<double>(array_size(p));
  ssm->F = HeapArray<double>(array_size(k, k));
  ssm->Q = HeapArray<double>(array_size(k));
  return ssm;
}

std::unique_ptr<SSMState> SSMState_new(int k, int T) {
  auto s = std::make_unique<SSMState>();
  const std::size_t vec = array_size(k);
  const std::size_t mat = array_size(k, k);
  s->Xf = StateTable(T + 1, vec);
  s->Vf = StateTable(T + 1, mat);
  s->Xp = StateTable(T, vec);
  s->Vp = StateTable(T, mat);
  s->Xs = StateTable(T + 1, vec);
  s->Vs = StateTable(T + 1, mat);
  s->J = StateTable(T, mat);
  s->FV = StateTable(T, mat);
  s->Vp_inv = StateTable(T, mat);
  s->Vlag = StateTable(T, mat);
  return s;
}

namespace {

// Optimal DGETRI workspace for k x k inverses, as LAPACK reports it.
int query_getri_lwork(int k) {
  std::vector<int> pivots(array_size(k) + 1);
  double optimal = 0.0;
  double dummy = 0.0;
  const int lda = std::max(k, 1);
  const int query = -1;
  int info = 0;
  dgetri_(&k, &dummy, &lda, pivots.data(), &optimal, &query, &info);
  return static_cast<int>(optimal);
}

// Optimal DGESVD workspace for the canonical rotation of a p x k matrix.
int query_gesvd_lwork(int p, int k) {
  double optimal = 0.0;
  double dummy = 0.0;
  const int lda = std::max(p, 1);
  const int ldvt = std::max(k, 1);
  const int query = -1;
  int info = 0;
  dgesvd_("O", "A", &p, &k, &dummy, &lda, &dummy, nullptr, &Matrix_INT_ONE, &dummy, &ldvt, &optimal,
          &query, &info);
  return static_cast<int>(optimal);
}

}  // namespace

std::unique_ptr<SSMWork> SSMWork_new(int p, int k, int /*n_samples*/, int constrain_F) {
  auto w = std::make_unique<SSMWork>();
  w->lwork = query_getri_lwork(k);
  // Also the scratch of the k x k inverse.
  w->work = HeapArray<double>(std::max(array_size(std::max(w->lwork, 1)), array_size(k, k)));
  w->ipiv = HeapArray<int>(array_size(k));
  w->RinvH = HeapArray<double>(array_size(p, k));
  w->b = HeapArray<double>(array_size(k));
  w->HtRinvH = HeapArray<double>(array_size(k, k));
  w->HtRinvH_obs = HeapArray<double>(array_size(k, k));
  w->e = HeapArray<double>(array_size(p));
  w->u = HeapArray<double>(array_size(k));
  w->B = HeapArray<double>(array_size(k, k));
  w->vec_k = HeapArray<double>(array_size(k));
  w->mat_k1 = HeapArray<double>(array_size(k, k));
  w->mat_k2 = HeapArray<double>(array_size(k, k));
  w->vec_p = HeapArray<double>(array_size(p));
  // Room for the transpose of a k x k matrix as well, for the update of F when k > p.
  w->mat_pk = HeapArray<double>(std::max(array_size(p, k), array_size(k, k)));
  w->mat_k3 = HeapArray<double>(array_size(k, k));
  w->svd_lwork = query_gesvd_lwork(p, k);
  const long long svd_size =
      std::max({static_cast<long long>(w->svd_lwork), static_cast<long long>(p),
                static_cast<long long>(k), static_cast<long long>(k) * k});
  w->svd_work = HeapArray<double>(array_size(svd_size));
  if (constrain_F != 0) {
    // The Lagrangian terms of the constraint feed no result, so Fc_G and Fc_W
    // are never formed and stay empty.
    w->Fc_C = HeapArray<double>(array_size(k, k, k));
    w->Fc_CW = HeapArray<double>(array_size(k, k, k));
  }
  return w;
}

std::unique_ptr<SSMSuffStat> SSMSuffStat_new(int p, int k) {
  auto s = std::make_unique<SSMSuffStat>();
  s->x0 = HeapArray<double>(array_size(k));
  s->yy = HeapArray<double>(array_size(p));
  s->yx = HeapArray<double>(array_size(p, k));
  s->xx_obs = HeapArray<double>(array_size(k, k));
  s->xx_lag = HeapArray<double>(array_size(k, k));
  s->xx_prev = HeapArray<double>(array_size(k, k));
  return s;
}

double SSM_bytes(int p, int k) {
  const double P = p, K = k;
  return 8.0 * (2.0 * K + 2.0 * K * K + P * K + P);
}

double SSMState_bytes(int k, int T) {
  const double K = k, n = T + 1.0;
  const double per_entry = 3.0 * K + 7.0 * K * K;  // vectors and matrices of the ten tables
  return 8.0 * (n * per_entry + 10.0 * n);         // and the pointer of each entry
}

double SSMWork_bytes(int p, int k, int constrain_F) {
  const double P = p, K = k;
  // The LAPACK workspaces are bounded generously: 64 k for DGETRI, and
  // 5 (p + k) + k^2 for DGESVD beside the other k x k and p x k arrays.
  const double doubles = 64.0 * K + 2.0 * P * K + 10.0 * K * K + 3.0 * P + 6.0 * K + 5.0 * (P + K) +
                         (constrain_F != 0 ? 2.0 * K * K * K : 0.0);
  return 8.0 * doubles + 4.0 * K;
}

double SSMSuffStat_bytes(int p, int k) {
  const double P = p, K = k;
  return 8.0 * (K + P + P * K + 3.0 * K * K);
}

void SSMSuffStat_set_zero(SSMSuffStat* s, int p, int k) {
  Matrix_clear(s->x0, k, 1);
  Matrix_clear(s->yy, p, 1);
  Matrix_clear(s->yx, p, k);
  Matrix_clear(s->xx_obs, k, k);
  Matrix_clear(s->xx_lag, k, k);
  Matrix_clear(s->xx_prev, k, k);
}

void SSM_copy(SSM* dst, const SSM* src, int p, int k) {
  Matrix_copy(dst->exp, src->exp, k, 1);
  Matrix_copy(dst->var, src->var, k, k);
  Matrix_copy(dst->H, src->H, p, k);
  Matrix_copy(dst->R, src->R, p, 1);
  Matrix_copy(dst->F, src->F, k, k);
  Matrix_copy(dst->Q, src->Q, k, 1);
}

}  // namespace tarn
