#include <cfloat>
#include <cmath>

#include "core/em.h"
#include "io/log.h"
#include "linalg/blas.h"
#include "linalg/matrix.h"
#include "linalg/small_matrix.h"

namespace tarn {

bool SSM_EM_is_normal(double value) {
  return std::isnormal(value);
}

namespace {

using small::at;
using small::dim;

// X = A B^-1 as SSM_EM_calc_ABinv describes it, with k fixed where it can be.
template <int K>
void calc_ABinv(const double* __restrict A, const double* B, double* __restrict X, int rows, int k_,
                double* tmp, int* ipiv, double* __restrict At) {
  const int k = dim<K>(k_);
  small::copy(k * k, B, tmp);
  small::getrf<K>(k, tmp, ipiv);
  // Solve B' Z = A' on the transpose of A, then transpose back.
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < k; ++j) At[at(j, i, k)] = A[at(i, j, rows)];
  }
  small::getrs<K, true>(k, rows, tmp, ipiv, At, k);
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < k; ++j) X[at(i, j, rows)] = At[at(j, i, k)];
  }
}

// R[i] = (yy[i] - 2 h yx(i)' + h xx_obs h') / n_samples, h the new row i of H.
template <int K>
void update_R(SSM* ssm, const SSMSuffStat* total, int p, int k_, int n_samples, double* vec_k) {
  const int k = dim<K>(k_);
  const std::size_t stride = static_cast<std::size_t>(p);
  const double c = 1.0 / n_samples;
  for (int i = 0; i < p; ++i) {
    const double* h = ssm->H + i;
    const double a = small::dot(k, h, stride, total->yx + i, stride);
    small::gemv<K>(k, 1.0, total->xx_obs, h, stride, 0.0, vec_k);
    const double b = small::dot(k, h, stride, vec_k);
    ssm->R[i] = (total->yy[i] - a - a + b) * c;
  }
}

}  // namespace

void SSM_EM_calc_ABinv(const double* A, const double* B, double* X, int rows, int k, double* tmp,
                       int* ipiv, double* At) {
  small::with_fixed_size(
      k, [&](auto fixed) { calc_ABinv<decltype(fixed)::value>(A, B, X, rows, k, tmp, ipiv, At); });
}

void SSM_EM_update_constraint_F(const double* xx_lag, const double* xx_prev, const double* /*Q*/,
                                const double* Fc_C, double* F, int k, double* /*Fc_G*/,
                                double* Fc_CW, double* /*Fc_W*/, int* ipiv, double* work, int lwork,
                                double g) {
  // The plain update, by the explicit inverse of xx_prev.
  Matrix_copy(Fc_CW, xx_prev, k, k);
  Matrix_inverse(Fc_CW, k, ipiv, work, lwork);
  Small_gemm('N', 'N', k, 1.0, xx_lag, Fc_CW, 0.0, F);
  // The Lagrange multipliers of the constraint: only the diagonal of F moves,
  // each element to F(i, i) + (g - F(i, i)). Fc_C read with leading dimension
  // k * k is the transpose of the k x (k * k) selection matrix.
  for (int i = 0; i < k; ++i) Fc_CW[i] = g - F[i + i * k];
  const int kk = k * k;
  dgemv_("N", &kk, &k, &Matrix_DOUBLE_ONE, Fc_C, &kk, Fc_CW, &Matrix_INT_ONE, &Matrix_DOUBLE_ONE, F,
         &Matrix_INT_ONE);
}

void SSM_EM_prepare_constraint(SSMWork* work, int k) {
  Matrix_clear(work->Fc_C, k * k, k);
  for (int i = 0; i < k; ++i) work->Fc_C[static_cast<std::size_t>(i) * (k * k + k + 1)] = 1.0;
}

void SSM_EM_m_step(const SSMEMParam* em, SSM* ssm, const SSMSuffStat* total, const SSMData* data,
                   int k, SSMWork* work) {
  const int p = data->p;
  if (em->update_mu != 0) {
    const double scale = 1.0 / data->n_replicates;
    Matrix_copy(ssm->exp, total->x0, k, 1);
    dscal_(&k, &scale, ssm->exp, &Matrix_INT_ONE);
  }
  SSM_EM_calc_ABinv(total->yx, total->xx_obs, ssm->H, p, k, work->mat_k2, work->ipiv, work->mat_pk);
  if (!work->Fc_C) {
    SSM_EM_calc_ABinv(total->xx_lag, total->xx_prev, ssm->F, k, k, work->mat_k2, work->ipiv,
                      work->mat_pk);
  } else {
    SSM_EM_update_constraint_F(total->xx_lag, total->xx_prev, ssm->Q, work->Fc_C, ssm->F, k,
                               work->Fc_G, work->Fc_CW, work->Fc_W, work->ipiv, work->work,
                               work->lwork, em->constrain_Fg);
  }
  small::with_fixed_size(k, [&](auto fixed) {
    update_R<decltype(fixed)::value>(ssm, total, p, k, data->n_samples, work->vec_k);
  });
  if (em->RrI != 0) {
    double sum = 0.0;
    for (int i = 0; i < p; ++i) sum += ssm->R[i];
    const double r = sum / p;
    dcopy_(&p, &r, &Matrix_INT_ZERO, ssm->R, &Matrix_INT_ONE);
  }
}

SSMResult SSM_EM_algo(const SSMEMParam* em, SSM* ssm, SSMState* state, SSMSuffStat* each,
                      SSMSuffStat* total, const SSMData* data, int k, SSMWork* work) {
  int i = 0;
  double prev = -DBL_MAX;
  int monotone = 1;
  double llh = 0.0;
  int converged = 0;
  for (;;) {
    llh = SSM_EM_estimate(ssm, state, each, total, data, k, work, em->ridge);
    if (i > em->em_loop / 10 && std::isnan(llh)) {
      converged = 0;
      break;
    }
    double diff = llh - prev;
    if (em->abs_converge != 0) diff = std::fabs(diff);
    if (diff < 0.0) monotone = 0;
    if (!std::isnan(llh) && em->converge > diff) {
      converged = 1;
      break;
    }
    if (i == em->em_loop - 1) {
      converged = 0;
      break;
    }
    SSM_EM_m_step(em, ssm, total, data, k, work);
    prev = llh;
    ++i;
    if (em->verbose >= 2) {
      std::fprintf(TARN_ERR, "(%d) llh = %f\n", i, llh);
      std::fflush(TARN_ERR);
    }
  }
  if (em->verbose > 0) {
    std::fprintf(TARN_ERR, "SSM_EM_algo(): Estimation finished. llh=%f\n", llh);
    std::fflush(TARN_ERR);
  }
  const int p = data->p;
  double m = static_cast<double>((k + 1) * p) + static_cast<double>(k * k + k) * 0.5;
  if (em->update_mu != 0) m += static_cast<double>(k);
  SSMResult result{};
  result.p = p;
  result.k = k;
  result.llh = llh;
  result.BIC = llh * -2.0 + std::log(data->n_samples) * m;
  result.monotone = monotone;
  result.converged = converged;
  result.loops = i + 1;
  result.ssm = ssm;
  result.D = nullptr;
  result.L = nullptr;
  return result;
}

}  // namespace tarn
