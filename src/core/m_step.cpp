#include <algorithm>

#include "core/em.h"
#include "linalg/blas.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::at;
using small::dim;

// X = A B^-1 (A and X rows x k, B k x k) through one LU factorisation of B:
// solve B' Z = A' on the transpose of A, then transpose back.
template <int K>
void right_divide(const double* __restrict A, const double* B, int rows, int k_,
                  double* __restrict X, Workspace* w) {
  const int k = dim<K>(k_);
  double* lu = w->square_b.data();
  int* ipiv = w->pivots.get();
  double* __restrict At = w->transposed.data();
  small::copy(k * k, B, lu);
  small::getrf<K>(k, lu, ipiv);
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < k; ++j) At[at(j, i, k)] = A[at(i, j, rows)];
  }
  small::getrs<K, true>(k, rows, lu, ipiv, At, k);
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < k; ++j) X[at(i, j, rows)] = At[at(j, i, k)];
  }
}

// R[i] = (yy[i] - 2 h yx(i)' + h xx_observed h') / n_samples, h the new row i of H.
template <int K>
void update_R(const SufficientStats& sums, int n_samples, StateSpaceModel* model, Workspace* w) {
  const int p = model->p();
  const int k = dim<K>(model->k());
  const std::size_t stride = static_cast<std::size_t>(p);
  const double c = 1.0 / n_samples;
  double* xh = w->vector_scratch.data();
  for (int i = 0; i < p; ++i) {
    const double* h = model->H.data() + i;
    const double a = small::dot(k, h, stride, sums.sum_yx.data() + i, stride);
    small::gemv<K>(k, 1.0, sums.sum_xx_observed.data(), h, stride, 0.0, xh);
    const double b = small::dot(k, h, stride, xh);
    model->R[i] = (sums.sum_yy[i] - a - a + b) * c;
  }
}

// The update of F with its diagonal held at g: the plain update by the
// explicit inverse of the lagged sums, then the Lagrange multipliers of the
// constraint, which move only the diagonal of F, each element to
// F(i, i) + (g - F(i, i)). The selection matrix read with leading dimension
// k * k is the transpose of the k x (k * k) selection of diag(F).
void update_F_constrained(const SufficientStats& sums, double g, StateSpaceModel* model,
                          Workspace* w) {
  const int k = model->k();
  double* F = model->F.data();
  double* inverse = w->F_constraint_scratch.data();
  std::copy_n(sums.sum_xx_previous.data(), static_cast<std::size_t>(k) * k, inverse);
  invert_small(inverse, k, w->pivots.get(), w->inverse_scratch.data());
  gemm_small('N', 'N', k, 1.0, sums.sum_xx_lag.data(), inverse, 0.0, F);
  double* multipliers = inverse;
  for (int i = 0; i < k; ++i) multipliers[i] = g - F[i + i * k];
  const int kk = k * k;
  dgemv_("N", &kk, &k, &blas::kOne, w->F_selection.data(), &kk, multipliers, &blas::kIncOne,
         &blas::kOne, F, &blas::kIncOne);
}

}  // namespace

void m_step(const EmSettings& settings, const DataSet& data, const SufficientStats& sums,
            StateSpaceModel* model, Workspace* work) {
  const int p = data.p;
  int k = model->k();
  if (settings.update_mu != 0) {
    const double scale = 1.0 / data.n_replicates;
    std::copy_n(sums.sum_x0.data(), k, model->initial_mean.data());
    dscal_(&k, &scale, model->initial_mean.data(), &blas::kIncOne);
  }
  small::with_fixed_size(k, [&](auto fixed) {
    constexpr int K = decltype(fixed)::value;
    right_divide<K>(sums.sum_yx.data(), sums.sum_xx_observed.data(), p, k, model->H.data(), work);
    if (settings.constrain_F == 0) {
      right_divide<K>(sums.sum_xx_lag.data(), sums.sum_xx_previous.data(), k, k, model->F.data(),
                      work);
    } else {
      update_F_constrained(sums, settings.constrain_Fg, model, work);
    }
    update_R<K>(sums, data.n_samples, model, work);
  });
  if (settings.common_R != 0) {
    double sum = 0.0;
    for (int i = 0; i < p; ++i) sum += model->R[i];
    const double r = sum / p;
    dcopy_(&p, &r, &blas::kIncZero, model->R.data(), &blas::kIncOne);
  }
}

}  // namespace tarn
