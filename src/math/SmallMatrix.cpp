#include "math/SmallMatrix.h"

#include <cmath>
#include <cstddef>
#include <utility>

namespace {

inline std::size_t at(int i, int j, int ld) {
  return static_cast<std::size_t>(i) + static_cast<std::size_t>(j) * static_cast<std::size_t>(ld);
}

// C(:, j) = beta C(:, j), with beta 0 clearing whatever C held.
void scale_column(double* c, int n, double beta) {
  if (beta == 0.0) {
    for (int i = 0; i < n; ++i) c[i] = 0.0;
  } else if (beta != 1.0) {
    for (int i = 0; i < n; ++i) c[i] *= beta;
  }
}

}  // namespace

void Small_gemm(char trans_a, char trans_b, int n, double alpha, const double* A, const double* B,
                double beta, double* C) {
  const bool ta = trans_a == 'T';
  const bool tb = trans_b == 'T';
  for (int j = 0; j < n; ++j) {
    double* c = C + at(0, j, n);
    if (!ta) {
      // C(:, j) += alpha op(B)(l, j) A(:, l), column by column.
      scale_column(c, n, beta);
      for (int l = 0; l < n; ++l) {
        const double temp = alpha * (tb ? B[at(j, l, n)] : B[at(l, j, n)]);
        const double* a = A + at(0, l, n);
        for (int i = 0; i < n; ++i) c[i] += temp * a[i];
      }
    } else {
      // C(i, j) = alpha A(:, i)' op(B)(:, j) + beta C(i, j).
      for (int i = 0; i < n; ++i) {
        const double* a = A + at(0, i, n);
        double temp = 0.0;
        for (int l = 0; l < n; ++l) temp += a[l] * (tb ? B[at(j, l, n)] : B[at(l, j, n)]);
        c[i] = beta == 0.0 ? alpha * temp : alpha * temp + beta * c[i];
      }
    }
  }
}

void Small_getrf(int n, double* A, int* ipiv) {
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

void Small_getrs(char trans, int n, int nrhs, const double* LU, const int* ipiv, double* B,
                 int ldb) {
  for (int c = 0; c < nrhs; ++c) {
    double* b = B + at(0, c, ldb);
    if (trans != 'T') {
      // A = P L U: apply the swaps, then L, then U.
      for (int i = 0; i < n; ++i) {
        if (ipiv[i] - 1 != i) std::swap(b[i], b[ipiv[i] - 1]);
      }
      for (int j = 0; j < n; ++j) {
        const double bj = b[j];
        for (int i = j + 1; i < n; ++i) b[i] -= bj * LU[at(i, j, n)];
      }
      for (int j = n - 1; j >= 0; --j) {
        b[j] /= LU[at(j, j, n)];
        const double bj = b[j];
        for (int i = 0; i < j; ++i) b[i] -= bj * LU[at(i, j, n)];
      }
    } else {
      // A' = U' L' P': U', then L', then the swaps in reverse.
      for (int j = 0; j < n; ++j) {
        double temp = b[j];
        for (int i = 0; i < j; ++i) temp -= LU[at(i, j, n)] * b[i];
        b[j] = temp / LU[at(j, j, n)];
      }
      for (int j = n - 1; j >= 0; --j) {
        double temp = b[j];
        for (int i = j + 1; i < n; ++i) temp -= LU[at(i, j, n)] * b[i];
        b[j] = temp;
      }
      for (int i = n - 1; i >= 0; --i) {
        if (ipiv[i] - 1 != i) std::swap(b[i], b[ipiv[i] - 1]);
      }
    }
  }
}

void Small_inverse(double* A, int n, int* ipiv, double* work) {
  Small_getrf(n, A, ipiv);
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) work[at(i, j, n)] = i == j ? 1.0 : 0.0;
  }
  Small_getrs('N', n, n, A, ipiv, work, n);
  for (std::size_t m = 0; m < static_cast<std::size_t>(n) * static_cast<std::size_t>(n); ++m) {
    A[m] = work[m];
  }
}
