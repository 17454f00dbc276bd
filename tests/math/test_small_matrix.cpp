// The k x k kernels against the BLAS and LAPACK routines of the same names.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

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
    const int nrhs = 3;
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

}  // namespace
