#pragma once
// Dense kernels for the k x k matrices of the state: products, LU
// factorisation with partial pivoting, solves and the inverse, and the
// vector operations of length k. They follow the loop order of the reference
// BLAS and LAPACK routines of the same names, with leading dimension n, and
// allocate nothing.
//
// The optimised BLAS stays in charge of the bulk sweeps of size p; for these
// tiny matrices a library call costs more than its arithmetic, and its shared
// work buffers would make the threads of the thread mode wait for each other.
//
// The templates take the size twice: N > 0 fixes it at compile time, so that
// the loops unroll; N = 0 reads the run-time n. Both give the same operations
// in the same order. with_fixed_size() picks N for a run-time n.

#include <cmath>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace tarn {

namespace small {

// Largest size with code of its own; larger sizes take the run-time loops.
constexpr int kMaxFixed = 8;

template <int N>
constexpr int dim(int n) {
  return N > 0 ? N : n;
}

inline std::size_t at(int i, int j, int ld) {
  return static_cast<std::size_t>(i) + static_cast<std::size_t>(j) * static_cast<std::size_t>(ld);
}

// Calls fn(std::integral_constant<int, n>()) for n in 1..kMaxFixed, and
// fn(std::integral_constant<int, 0>()) for any other n.
template <typename Fn>
decltype(auto) with_fixed_size(int n, Fn&& fn) {
  switch (n) {
    case 1:
      return fn(std::integral_constant<int, 1>());
    case 2:
      return fn(std::integral_constant<int, 2>());
    case 3:
      return fn(std::integral_constant<int, 3>());
    case 4:
      return fn(std::integral_constant<int, 4>());
    case 5:
      return fn(std::integral_constant<int, 5>());
    case 6:
      return fn(std::integral_constant<int, 6>());
    case 7:
      return fn(std::integral_constant<int, 7>());
    case 8:
      return fn(std::integral_constant<int, 8>());
    default:
      return fn(std::integral_constant<int, 0>());
  }
}

// y = x, m elements.
inline void copy(int m, const double* x, double* y) {
  for (int i = 0; i < m; ++i) y[i] = x[i];
}

// y += alpha x, m elements.
inline void axpy(int m, double alpha, const double* x, double* y) {
  for (int i = 0; i < m; ++i) y[i] += alpha * x[i];
}

// x' y, m elements, read with increments incx and incy.
inline double dot(int m, const double* x, std::size_t incx, const double* y, std::size_t incy = 1) {
  double sum = 0.0;
  for (int i = 0; i < m; ++i) sum += x[i * incx] * y[i * incy];
  return sum;
}

// y = alpha A x + beta y, A n x n; x read with increment incx.
template <int N>
void gemv(int n_, double alpha, const double* A, const double* x, std::size_t incx, double beta,
          double* y) {
  const int n = dim<N>(n_);
  for (int i = 0; i < n; ++i) y[i] = beta == 0.0 ? 0.0 : beta * y[i];
  for (int j = 0; j < n; ++j) {
    const double temp = alpha * x[j * incx];
    const double* a = A + at(0, j, n);
    for (int i = 0; i < n; ++i) y[i] += temp * a[i];
  }
}

// A += alpha x y', n x n; x and y read with increment inc.
template <int N>
void ger(int n_, double alpha, const double* x, const double* y, double* A, std::size_t inc = 1) {
  const int n = dim<N>(n_);
  for (int j = 0; j < n; ++j) {
    const double temp = alpha * y[j * inc];
    double* a = A + at(0, j, n);
    for (int i = 0; i < n; ++i) a[i] += x[i * inc] * temp;
  }
}

// C = alpha op(A) op(B) + beta C, all n x n.
template <int N, bool TransA, bool TransB>
void gemm(int n_, double alpha, const double* A, const double* B, double beta, double* C) {
  const int n = dim<N>(n_);
  for (int j = 0; j < n; ++j) {
    double* c = C + at(0, j, n);
    if constexpr (!TransA) {
      // C(:, j) += alpha op(B)(l, j) A(:, l), column by column.
      if (beta == 0.0) {
        for (int i = 0; i < n; ++i) c[i] = 0.0;
      } else if (beta != 1.0) {
        for (int i = 0; i < n; ++i) c[i] *= beta;
      }
      for (int l = 0; l < n; ++l) {
        const double temp = alpha * (TransB ? B[at(j, l, n)] : B[at(l, j, n)]);
        const double* a = A + at(0, l, n);
        for (int i = 0; i < n; ++i) c[i] += temp * a[i];
      }
    } else {
      // C(i, j) = alpha A(:, i)' op(B)(:, j) + beta C(i, j).
      for (int i = 0; i < n; ++i) {
        const double* a = A + at(0, i, n);
        double temp = 0.0;
        for (int l = 0; l < n; ++l) temp += a[l] * (TransB ? B[at(j, l, n)] : B[at(l, j, n)]);
        c[i] = beta == 0.0 ? alpha * temp : alpha * temp + beta * c[i];
      }
    }
  }
}

// LU factorisation in place, rows swapped as recorded in ipiv (1-based, as
// LAPACK records them). A zero pivot is left in place, as LAPACK leaves it.
template <int N>
void getrf(int n_, double* A, int* ipiv) {
  const int n = dim<N>(n_);
  for (int j = 0; j < n; ++j) {
    // The first row of largest magnitude in column j becomes the pivot.
    int p = j;
    double largest = std::fabs(A[at(j, j, n)]);
    for (int i = j + 1; i < n; ++i) {
      const double v = std::fabs(A[at(i, j, n)]);
      if (v > largest) {
        largest = v;
        p = i;
      }
    }
    ipiv[j] = p + 1;
    if (p != j) {
      for (int l = 0; l < n; ++l) std::swap(A[at(j, l, n)], A[at(p, l, n)]);
    }
    const double pivot = A[at(j, j, n)];
    if (pivot != 0.0) {
      const double r = 1.0 / pivot;
      for (int i = j + 1; i < n; ++i) A[at(i, j, n)] *= r;
    }
    // Rank-one update of the trailing block.
    for (int l = j + 1; l < n; ++l) {
      const double temp = A[at(j, l, n)];
      if (temp == 0.0) continue;
      for (int i = j + 1; i < n; ++i) A[at(i, l, n)] -= temp * A[at(i, j, n)];
    }
  }
}

// The solve of A' x = b by the factors of getrf before its swaps: U', then
// L'. G right-hand sides side by side, right-hand side g at x + g n, so that
// their chains of dependent operations overlap. V is double, or a vector of
// doubles with one right-hand side in each lane.
template <int N, int G, typename V>
void solve_transposed_factors(int n_, const double* LU, V* x) {
  const int n = dim<N>(n_);
  auto element = [&](int g, int j) -> V& { return x[g * n + j]; };
  for (int j = 0; j < n; ++j) {
    for (int g = 0; g < G; ++g) {
      V temp = element(g, j);
      for (int i = 0; i < j; ++i) temp -= LU[at(i, j, n)] * element(g, i);
      element(g, j) = temp / LU[at(j, j, n)];
    }
  }
  for (int j = n - 1; j >= 0; --j) {
    for (int g = 0; g < G; ++g) {
      V temp = element(g, j);
      for (int i = j + 1; i < n; ++i) temp -= LU[at(i, j, n)] * element(g, i);
      element(g, j) = temp;
    }
  }
}

// Solves op(A) X = B for the G columns of B (leading dimension ldb) with the
// factors of getrf. With a fixed size the columns are worked on side by side
// in a local copy, which the compiler keeps in registers, so that their
// chains of dependent operations overlap; each column sees the operations of
// a solve on its own, in the same order.
template <int N, bool Trans, int G = 1>
void solve_columns(int n_, const double* LU, const int* ipiv, double* B, int ldb) {
  static_assert(N > 0 || G == 1, "run-time sizes solve one column at a time");
  const int n = dim<N>(n_);
  double local[G][N > 0 ? N : 1];
  auto x = [&](int g, int i) -> double& {
    if constexpr (N > 0) {
      return local[g][i];
    } else {
      return B[at(i, g, ldb)];
    }
  };
  if constexpr (N > 0) {
    for (int g = 0; g < G; ++g) {
      for (int i = 0; i < N; ++i) local[g][i] = B[at(i, g, ldb)];
    }
  }
  // A single row never swaps.
  auto swap_rows = [&](int i) {
    const int r = ipiv[i] - 1;
    if (N != 1 && r != i) {
      for (int g = 0; g < G; ++g) std::swap(x(g, i), x(g, r));
    }
  };
  if constexpr (!Trans) {
    // A = P L U: apply the swaps, then L, then U.
    for (int i = 0; i < n; ++i) swap_rows(i);
    for (int j = 0; j < n; ++j) {
      for (int i = j + 1; i < n; ++i) {
        for (int g = 0; g < G; ++g) x(g, i) -= x(g, j) * LU[at(i, j, n)];
      }
    }
    for (int j = n - 1; j >= 0; --j) {
      for (int g = 0; g < G; ++g) x(g, j) /= LU[at(j, j, n)];
      for (int i = 0; i < j; ++i) {
        for (int g = 0; g < G; ++g) x(g, i) -= x(g, j) * LU[at(i, j, n)];
      }
    }
  } else {
    // A' = U' L' P': U', then L', then the swaps in reverse. A run-time size
    // solves its one column in place.
    solve_transposed_factors<N, G>(n, LU, N > 0 ? &local[0][0] : B);
    for (int i = n - 1; i >= 0; --i) swap_rows(i);
  }
  if constexpr (N > 0) {
    for (int g = 0; g < G; ++g) {
      for (int i = 0; i < N; ++i) B[at(i, g, ldb)] = local[g][i];
    }
  }
}

// One right-hand side b.
template <int N, bool Trans>
void getrs1(int n, const double* LU, const int* ipiv, double* b) {
  solve_columns<N, Trans>(n, LU, ipiv, b, dim<N>(n));
}

// All nrhs columns of B, four at a time where the size is fixed.
template <int N, bool Trans>
void getrs(int n, int nrhs, const double* LU, const int* ipiv, double* B, int ldb) {
  constexpr int G = N > 0 ? 4 : 1;
  int c = 0;
  for (; c + G <= nrhs; c += G) solve_columns<N, Trans, G>(n, LU, ipiv, B + at(0, c, ldb), ldb);
  for (; c < nrhs; ++c) solve_columns<N, Trans>(n, LU, ipiv, B + at(0, c, ldb), ldb);
}

// A = A^-1 by its LU factors; work holds n * n doubles.
template <int N>
void inverse(int n_, double* A, int* ipiv, double* work) {
  const int n = dim<N>(n_);
  getrf<N>(n, A, ipiv);
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) work[at(i, j, n)] = i == j ? 1.0 : 0.0;
  }
  getrs<N, false>(n, n, A, ipiv, work, n);
  copy(n * n, work, A);
}

}  // namespace small

// Run-time entry points of the kernels above, for callers outside the hot
// loops; trans arguments are 'N' or 'T'.
void gemm_small(char trans_a, char trans_b, int n, double alpha, const double* A, const double* B,
                double beta, double* C);
// A = A^-1 through its LU factors; work holds n * n doubles. A singular A
// gives infinities or NaNs and no message.
void invert_small(double* A, int n, int* ipiv, double* work);

}  // namespace tarn
