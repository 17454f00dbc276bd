// The k x k kernels against the BLAS and LAPACK routines of the same names.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "math/Matrix.h"
#include "math/SmallMatrix.h"
#include "math/blas.h"

namespace {

std::vector<double> random_matrix(int n, std::mt19937& gen, bool dominant) {
  std::normal_distribution<double> normal;
  std::vector<double> A(static_cast<std::size_t>(n) * n);
  for (auto& a : A) a = normal(gen);
  if (dominant) {
    for (int i = 0; i < n; ++i) A[static_cast<std::size_t>(i) * (n + 1)] += n;
  }
  return A;
}

void expect_close(const std::vector<double>& got, const std::vector<double>& want, double tol) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_NEAR(got[i], want[i], tol * (1.0 + std::fabs(want[i]))) << "element " << i;
  }
}

const int kSizes[] = {1, 2, 3, 4, 5, 8, 17};

TEST(SmallMatrix, ProductsMatchDgemm) {
  std::mt19937 gen(3);
  for (const int n : kSizes) {
    for (const char ta : {'N', 'T'}) {
      for (const char tb : {'N', 'T'}) {
        for (const double beta : {0.0, 1.0, -0.5}) {
          const auto A = random_matrix(n, gen, false);
          const auto B = random_matrix(n, gen, false);
          auto C = random_matrix(n, gen, false);
          // beta 0 discards C, NaNs included.
          if (beta == 0.0) C[0] = NAN;
          auto want = C;
          const double alpha = 1.5;
          const char sa[2] = {ta, 0};
          const char sb[2] = {tb, 0};
          dgemm_(sa, sb, &n, &n, &n, &alpha, A.data(), &n, B.data(), &n, &beta, want.data(), &n);
          Small_gemm(ta, tb, n, alpha, A.data(), B.data(), beta, C.data());
          expect_close(C, want, 1e-13);
        }
      }
    }
  }
}

TEST(SmallMatrix, SolvesAndInverseMatchLapack) {
  std::mt19937 gen(5);
  for (const int n : kSizes) {
    const auto A = random_matrix(n, gen, false);  // general: pivoting matters
    const int nrhs = 7;  // one group of four columns side by side and three single ones
    std::vector<double> Bm(static_cast<std::size_t>(n) * nrhs);
    for (auto& b : Bm) b = std::sin(static_cast<double>(&b - Bm.data()));
    std::vector<int> ipiv(static_cast<std::size_t>(n));
    std::vector<int> ipiv_ref(static_cast<std::size_t>(n));
    int info = 0;
    auto LU_ref = A;
    dgetrf_(&n, &n, LU_ref.data(), &n, ipiv_ref.data(), &info);
    auto LU = A;
    Small_getrf(n, LU.data(), ipiv.data());
    EXPECT_EQ(ipiv, ipiv_ref) << n;
    expect_close(LU, LU_ref, 1e-12);
    for (const char trans : {'N', 'T'}) {
      auto X_ref = Bm;
      const char st[2] = {trans, 0};
      dgetrs_(st, &n, &nrhs, LU_ref.data(), &n, ipiv_ref.data(), X_ref.data(), &n, &info);
      auto X = Bm;
      Small_getrs(trans, n, nrhs, LU.data(), ipiv.data(), X.data(), n);
      expect_close(X, X_ref, 1e-10);
    }
    auto inv_ref = LU_ref;
    const int lwork = 64 * n;
    std::vector<double> work(static_cast<std::size_t>(lwork));
    dgetri_(&n, inv_ref.data(), &n, ipiv_ref.data(), work.data(), &lwork, &info);
    auto inv = A;
    Small_inverse(inv.data(), n, ipiv.data(), work.data());
    expect_close(inv, inv_ref, 1e-10);
  }
}

TEST(SmallMatrix, SingularInputsGiveNonFiniteValuesQuietly) {
  const int n = 3;
  std::vector<double> A = {1, 2, 3, 2, 4, 6, 0, 1, 1};  // first two columns dependent
  std::vector<int> ipiv(3);
  std::vector<double> work(9);
  Small_inverse(A.data(), n, ipiv.data(), work.data());
  bool non_finite = false;
  for (const double a : A) non_finite = non_finite || !std::isfinite(a);
  EXPECT_TRUE(non_finite);
  std::vector<double> Z(9, 0.0);
  Small_getrf(n, Z.data(), ipiv.data());
  EXPECT_EQ(ipiv, (std::vector<int>{1, 2, 3}));
}

TEST(SmallMatrix, VectorKernelsWithIncrementsMatchBlas) {
  std::mt19937 gen(9);
  for (const int n : kSizes) {
    const int inc = 3;  // a row of a column-major matrix with three rows
    const auto A = random_matrix(n, gen, false);
    const auto X = random_matrix(n * inc, gen, false);  // x = X[0], X[inc], ...
    auto y = random_matrix(n, gen, false);
    y.resize(static_cast<std::size_t>(n));
    auto y_ref = y;
    const double alpha = -0.75, beta = 0.5;
    dgemv_("N", &n, &n, &alpha, A.data(), &n, X.data(), &inc, &beta, y_ref.data(),
           &Matrix_INT_ONE);
    small::with_fixed_size(n, [&](auto fixed) {
      small::gemv<decltype(fixed)::value>(n, alpha, A.data(), X.data(), inc, beta, y.data());
    });
    expect_close(y, y_ref, 1e-13);

    auto G = A;
    auto G_ref = A;
    dger_(&n, &n, &alpha, X.data(), &inc, X.data() + 1, &inc, G_ref.data(), &n);
    small::with_fixed_size(n, [&](auto fixed) {
      small::ger<decltype(fixed)::value>(n, alpha, X.data(), X.data() + 1, G.data(), inc);
    });
    expect_close(G, G_ref, 1e-13);

    const double d_ref = ddot_(&n, X.data(), &inc, X.data() + 2, &inc);
    EXPECT_NEAR(small::dot(n, X.data(), inc, X.data() + 2, inc), d_ref,
                1e-13 * (1.0 + std::fabs(d_ref)));
  }
}

// Code fixed at compile time for a size does what the run-time loops do,
// bit for bit.
TEST(SmallMatrix, FixedSizesRepeatTheRunTimeLoopsExactly) {
  std::mt19937 gen(13);
  constexpr int n = 4;
  const auto A = random_matrix(n, gen, false);
  const auto B = random_matrix(n, gen, false);
  auto C_fixed = random_matrix(n, gen, false);
  auto C_any = C_fixed;
  small::gemm<n, false, true>(n, 0.5, A.data(), B.data(), 1.0, C_fixed.data());
  small::gemm<0, false, true>(n, 0.5, A.data(), B.data(), 1.0, C_any.data());
  EXPECT_EQ(C_fixed, C_any);

  auto LU_fixed = A;
  auto LU_any = A;
  std::vector<int> ipiv_fixed(n), ipiv_any(n);
  small::getrf<n>(n, LU_fixed.data(), ipiv_fixed.data());
  small::getrf<0>(n, LU_any.data(), ipiv_any.data());
  EXPECT_EQ(LU_fixed, LU_any);
  EXPECT_EQ(ipiv_fixed, ipiv_any);

  const int nrhs = 6;
  std::vector<double> X_fixed(static_cast<std::size_t>(n) * nrhs);
  for (auto& x : X_fixed) x = std::cos(static_cast<double>(&x - X_fixed.data()));
  auto X_any = X_fixed;
  small::getrs<n, true>(n, nrhs, LU_fixed.data(), ipiv_fixed.data(), X_fixed.data(), n);
  small::getrs<0, true>(n, nrhs, LU_any.data(), ipiv_any.data(), X_any.data(), n);
  EXPECT_EQ(X_fixed, X_any);
}

}  // namespace
