#include <algorithm>
#include <type_traits>

#include "core/em.h"
#include "linalg/blas.h"
#include "linalg/pair.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::at;
using small::dim;

// One double, or two side by side: the rows of the M-step go two at a time,
// one per lane, where k is fixed.
template <typename V>
V load(const double* x) {
  if constexpr (std::is_same_v<V, Pair>) {
    return load_pair(x);
  } else {
    return *x;
  }
}

template <typename V>
void store(double* x, V v) {
  if constexpr (std::is_same_v<V, Pair>) {
    store_pair(x, v);
  } else {
    *x = v;
  }
}

// The column that element j of a solved row ends in: the swaps of the LU
// factors, applied to the row in reverse, are the same for every row.
void column_order(int k, const int* ipiv, int* order) {
  for (int j = 0; j < k; ++j) order[j] = j;
  for (int i = k - 1; i >= 0; --i) std::swap(order[i], order[ipiv[i] - 1]);
}

// Pairs of rows that a fixed k solves side by side.
constexpr int kPairsAtOnce = 4;

// X = A B^-1 (A and X rows x k, B k x k) through one LU factorisation of B,
// row by row, each row read and written once: x B = a is B' x' = a', solved
// by U' then L' and the swaps in reverse. on_row(i, x, order) sees the
// solved row i (two rows, i and i + 1, where x holds pairs), its element
// order[c] in column c.
template <int K, typename OnRow>
void right_divide(const double* __restrict A, const double* B, int rows, int k_,
                  double* __restrict X, Workspace* w, OnRow&& on_row) {
  const int k = dim<K>(k_);
  double* lu = w->square_b.data();
  small::copy(k * k, B, lu);
  small::getrf<K>(k, lu, w->pivots.get());
  int fixed_order[K > 0 ? K : 1];
  int* order = K > 0 ? fixed_order : w->column_order.get();
  column_order(k, w->pivots.get(), order);
  // G groups of k values, lanes of rows i, i + 1, ... of A and X.
  auto solve = [&]<int G>(int i, auto* x) {
    using V = std::remove_reference_t<decltype(*x)>;
    constexpr int lanes = std::is_same_v<V, Pair> ? 2 : 1;
    for (int g = 0; g < G; ++g) {
      for (int j = 0; j < k; ++j) x[g * k + j] = load<V>(A + at(i + lanes * g, j, rows));
    }
    small::solve_transposed_factors<K, G>(k, lu, x);
    for (int g = 0; g < G; ++g) {
      const V* row = x + g * k;
      for (int c = 0; c < k; ++c) store(X + at(i + lanes * g, c, rows), row[order[c]]);
      on_row(i + lanes * g, row, order);
    }
  };
  int i = 0;
  if constexpr (K > 0) {
    Pair x[kPairsAtOnce * (K > 0 ? K : 1)];
    for (; i + 2 * kPairsAtOnce <= rows; i += 2 * kPairsAtOnce) {
      solve.template operator()<kPairsAtOnce>(i, x);
    }
    for (; i + 2 <= rows; i += 2) solve.template operator()<1>(i, x);
  }
  double fixed_x[K > 0 ? K : 1];
  double* x = K > 0 ? fixed_x : w->row_scratch.data();
  for (; i < rows; ++i) solve.template operator()<1>(i, x);
}

// R of one row (or two side by side) from its new row h of H, element
// order[c] of x in column c: (yy - 2 h yx' + h xx_observed h') / n_samples.
// xh holds k values of V.
template <int K, typename V>
[[gnu::always_inline]] inline V noise_variance(const SufficientStats& sums, int p, int i,
                                               const V* x, const int* order, V* xh, double scale) {
  const int k = dim<K>(sums.k());
  const double* xx = sums.sum_xx_observed.data();
  auto h = [&](int c) { return x[order[c]]; };
  V a{};
  for (int j = 0; j < k; ++j) a += h(j) * load<V>(sums.sum_yx.data() + at(i, j, p));
  for (int j = 0; j < k; ++j) xh[j] = V{};
  for (int l = 0; l < k; ++l) {
    for (int j = 0; j < k; ++j) xh[j] += h(l) * xx[at(j, l, k)];
  }
  V b{};
  for (int j = 0; j < k; ++j) b += h(j) * xh[j];
  return (load<V>(sums.sum_yy.data() + i) - a - a + b) * scale;
}

// H = sum_yx sum_xx_observed^-1 and, from each new row of H, R of its object.
template <int K>
void update_H_and_R(const SufficientStats& sums, int n_samples, StateSpaceModel* model,
                    Workspace* w) {
  const int p = model->p();
  const double scale = 1.0 / n_samples;
  double* R = model->R.data();
  auto update_R = [&](int i, auto* x, const int* order) {
    using V = std::remove_const_t<std::remove_reference_t<decltype(*x)>>;
    if constexpr (std::is_same_v<V, Pair>) {
      Pair xh[K > 0 ? K : 1];
      store(R + i, noise_variance<K>(sums, p, i, x, order, xh, scale));
    } else {
      // A fixed k keeps h xx in registers; other sizes use the scratch vector.
      double fixed_xh[K > 0 ? K : 1];
      double* xh = K > 0 ? fixed_xh : w->vector_scratch.data();
      R[i] = noise_variance<K>(sums, p, i, x, order, xh, scale);
    }
  };
  right_divide<K>(sums.sum_yx.data(), sums.sum_xx_observed.data(), p, model->k(), model->H.data(),
                  w, update_R);
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
    update_H_and_R<K>(sums, data.n_samples, model, work);
    if (settings.constrain_F == 0) {
      right_divide<K>(sums.sum_xx_lag.data(), sums.sum_xx_previous.data(), k, k, model->F.data(),
                      work, [](int, auto*, const int*) {});
    } else {
      update_F_constrained(sums, settings.constrain_Fg, model, work);
    }
  });
  if (settings.common_R != 0) {
    double sum = 0.0;
    for (int i = 0; i < p; ++i) sum += model->R[i];
    const double r = sum / p;
    dcopy_(&p, &r, &blas::kIncZero, model->R.data(), &blas::kIncOne);
  }
}

}  // namespace tarn
