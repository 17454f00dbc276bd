#include <algorithm>

#include "core/em.h"
#include "linalg/blas.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::at;
using small::dim;

// y -= u x over n elements.
void subtract_scaled(int n, double u, const double* __restrict x, double* __restrict y) {
  for (int r = 0; r < n; ++r) y[r] -= u * x[r];
}

// Rows of X solved side by side, in blocks that stay in the core's cache.
constexpr int kRowBlock = 512;

// X = A B^-1 (A and X rows x k, B k x k) through one LU factorisation of B:
// for every row, the solve of B' x' = a' by U', then L', then the swaps in
// reverse; rows side by side, column by column of X, a block of rows at a time.
template <int K>
void right_divide(const double* __restrict A, const double* B, int rows, int k_,
                  double* __restrict X, Workspace* w) {
  const int k = dim<K>(k_);
  double* lu = w->square_b.data();
  int* ipiv = w->pivots.get();
  small::copy(k * k, B, lu);
  small::getrf<K>(k, lu, ipiv);
  for (int first = 0; first < rows; first += kRowBlock) {
    const int n = std::min(kRowBlock, rows - first);
    auto column = [&](int j) { return X + at(first, j, rows); };
    for (int j = 0; j < k; ++j) {
      double* x = column(j);
      std::copy_n(A + at(first, j, rows), n, x);
      for (int i = 0; i < j; ++i) subtract_scaled(n, lu[at(i, j, k)], column(i), x);
      const double pivot = lu[at(j, j, k)];
      for (int r = 0; r < n; ++r) x[r] /= pivot;
    }
    for (int j = k - 1; j >= 0; --j) {
      for (int i = j + 1; i < k; ++i) subtract_scaled(n, lu[at(i, j, k)], column(i), column(j));
    }
    for (int i = k - 1; i >= 0; --i) {
      const int swap = ipiv[i] - 1;
      if (k != 1 && swap != i) std::swap_ranges(column(i), column(i) + n, column(swap));
    }
  }
}

// R[i] = (yy[i] - 2 h yx(i)' + h xx_observed h') / n_samples, h the new row i
// of H; all rows at once.
template <int K>
void update_R(const SufficientStats& sums, int n_samples, StateSpaceModel* model, Workspace* w) {
  const int p = model->p();
  const int k = dim<K>(model->k());
  const double c = 1.0 / n_samples;
  const double* __restrict H = model->H.data();
  const double* __restrict yx = sums.sum_yx.data();
  const double* __restrict yy = sums.sum_yy.data();
  const double* __restrict xx = sums.sum_xx_observed.data();
  double* __restrict R = model->R.data();
  // A fixed k keeps h xx in registers; other sizes use the scratch vector.
  double fixed_xh[K > 0 ? K : 1];
  double* xh = K > 0 ? fixed_xh : w->vector_scratch.data();
  for (int i = 0; i < p; ++i) {
    double a = 0.0;
    for (int j = 0; j < k; ++j) a += H[at(i, j, p)] * yx[at(i, j, p)];
    for (int j = 0; j < k; ++j) xh[j] = 0.0;
    for (int l = 0; l < k; ++l) {
      const double h = H[at(i, l, p)];
      for (int j = 0; j < k; ++j) xh[j] += h * xx[at(j, l, k)];
    }
    double b = 0.0;
    for (int j = 0; j < k; ++j) b += H[at(i, j, p)] * xh[j];
    R[i] = (yy[i] - a - a + b) * c;
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
