#include "core/canonical_form.h"

#include <cmath>

#include "linalg/blas.h"
#include "linalg/matrix.h"
#include "linalg/small_matrix.h"

namespace tarn {

void SSM_constrain(SSM* ssm, int p, int k, double* u, double* e, double* vec_k, double* mat_k1,
                   double* svd_work, int svd_lwork) {
  double* H = ssm->H;
  for (int i = 0; i < p; ++i) e[i] = std::sqrt(ssm->R[i]);
  for (int j = 0; j < k; ++j) {
    for (int i = 0; i < p; ++i) H[i + static_cast<std::size_t>(j) * p] /= e[i];
  }
  // H <- U (left singular vectors), vec_k <- S, mat_k1 <- V'.
  int info = 0;
  dgesvd_("O", "A", &p, &k, H, &p, vec_k, nullptr, &p, mat_k1, &k, svd_work, &svd_lwork, &info);
  for (int j = 0; j < k; ++j) {
    double* column = H + static_cast<std::size_t>(j) * p;
    for (int i = 0; i < p; ++i) column[i] *= e[i];
    for (int i = 0; i < p; ++i) column[i] *= vec_k[j];
  }
  // F <- V' F V, exp <- V' exp.
  Small_gemm('N', 'N', k, 1.0, mat_k1, ssm->F, 0.0, svd_work);
  Small_gemm('N', 'T', k, 1.0, svd_work, mat_k1, 0.0, ssm->F);
  dgemv_("N", &k, &k, &Matrix_DOUBLE_ONE, mat_k1, &k, ssm->exp, &Matrix_INT_ONE,
         &Matrix_DOUBLE_ZERO, svd_work, &Matrix_INT_ONE);
  Matrix_copy(ssm->exp, svd_work, k, 1);
  for (int j = 0; j < k; ++j) u[j] = vec_k[j] * vec_k[j];
}

void SSM_calc_module(int p, int k, const double* H, const double* u, const double* e, double* D) {
  for (int j = 0; j < k; ++j) {
    dcopy_(&p, H + static_cast<std::size_t>(j) * p, &Matrix_INT_ONE, D + j, &k);
  }
  for (int i = 0; i < p; ++i) {
    double* column = D + static_cast<std::size_t>(i) * k;
    for (int j = 0; j < k; ++j) column[j] /= u[j];
  }
  for (int i = 0; i < p; ++i) {
    double* column = D + static_cast<std::size_t>(i) * k;
    const double scale = 1.0 / e[i];
    for (int j = 0; j < k; ++j) column[j] *= scale;
  }
}

void SSMResult_calc_D_L(SSMResult* result, SSMWork* work) {
  const int p = result->p;
  const int k = result->k;
  SSM_constrain(result->ssm, p, k, work->u, work->e, work->vec_k, work->mat_k1, work->svd_work,
                work->svd_lwork);
  SSM_calc_module(p, k, result->ssm->H, work->u, work->e, work->RinvH);
  result->D = work->RinvH;
  result->L = work->u;
}

}  // namespace tarn
