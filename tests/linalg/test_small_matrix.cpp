// The k x k kernels against the BLAS and LAPACK routines of the same names,
// and the code fixed at compile time for a size against the run-time loops.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "linalg/blas.h"
#include "linalg/small_matrix.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

std::vector<double> random_matrix(int rows, int cols, std::mt19937& gen) {
  std::normal_distribution<double> normal;
  std::vector<double> A(static_cast<std::size_t>(rows) * cols);
  for (auto& a : A) a = normal(gen);
  return A;
}

void expect_close(const std::vector<double>& got, const std::vector<double>& want, double tol) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    EXPECT_NEAR(got[i], want[i], tol * (1.0 + std::fabs(want[i]))) << "element " << i;
}

// The kernels at the size picked at run time, as the program calls them.
void getrf(int n, double* A, int* ipiv) {
  small::with_fixed_size(n, [&](auto N) { small::getrf<N()>(n, A, ipiv); });
}
void getrs(char trans, int n, int nrhs, const double* LU, const int* ipiv, double* B, int ldb) {
  small::with_fixed_size(n, [&](auto N) {
    if (trans == 'T') {
      small::getrs<N(), true>(n, nrhs, LU, ipiv, B, ldb);
    } else {
      small::getrs<N(), false>(n, nrhs, LU, ipiv, B, ldb);
    }
  });
}

// 9 and 17 take the run-time loops.
const int kSizes[] = {1, 2, 3, 4, 5, 8, 9, 17};

TEST(SmallMatrix, ProductsAndVectorKernelsMatchBlas) {
  std::mt19937 gen(3);
  for (const int n : kSizes) {
    SCOPED_TRACE(testing::Message() << "n=" << n);
    for (const char* trans : {"NN", "NT", "TN", "TT"}) {
      for (const double beta : {0.0, 1.0, -0.5}) {
        const auto A = random_matrix(n, n, gen), B = random_matrix(n, n, gen);
        auto C = random_matrix(n, n, gen);
        if (beta == 0.0) C[0] = NAN;  // beta 0 discards C, NaNs included
        auto want = C;
        const double alpha = 1.5;
        dgemm_(trans, trans + 1, &n, &n, &n, &alpha, A.data(), &n, B.data(), &n, &beta, want.data(),
               &n);
        gemm_small(trans[0], trans[1], n, alpha, A.data(), B.data(), beta, C.data());
        expect_close(C, want, 1e-13);
      }
    }
    // x and y read with increment 3, as a row of a matrix of three rows.
    const int inc = 3;
    const auto A = random_matrix(n, n, gen), X = random_matrix(n, inc, gen);
    auto y = random_matrix(n, 1, gen), y_ref = y, G = A, G_ref = A;
    const double alpha = -0.75, beta = 0.5;
    dgemv_("N", &n, &n, &alpha, A.data(), &n, X.data(), &inc, &beta, y_ref.data(), &blas::kIncOne);
    dger_(&n, &n, &alpha, X.data(), &inc, X.data() + 1, &inc, G_ref.data(), &n);
    small::with_fixed_size(n, [&](auto fixed) {
      constexpr int N = decltype(fixed)::value;
      small::gemv<N>(n, alpha, A.data(), X.data(), inc, beta, y.data());
      small::ger<N>(n, alpha, X.data(), X.data() + 1, G.data(), inc);
    });
    expect_close(y, y_ref, 1e-13);
    expect_close(G, G_ref, 1e-13);
    const double d_ref = ddot_(&n, X.data(), &inc, X.data() + 2, &inc);
    EXPECT_NEAR(small::dot(n, X.data(), inc, X.data() + 2, inc), d_ref,
                1e-13 * (1.0 + std::fabs(d_ref)));
  }
}

TEST(SmallMatrix, FactorSolvesAndInverseMatchLapack) {
  std::mt19937 gen(5);
  for (const int n : kSizes) {
    SCOPED_TRACE(testing::Message() << "n=" << n);
    const auto A = random_matrix(n, n, gen);  // general: pivoting matters
    const int nrhs = 7;  // one group of four columns side by side and three single ones
    const auto B = random_matrix(n, nrhs, gen);
    std::vector<int> ipiv(static_cast<std::size_t>(n)), ipiv_ref(ipiv);
    int info = 0;
    auto LU_ref = A, LU = A;
    dgetrf_(&n, &n, LU_ref.data(), &n, ipiv_ref.data(), &info);
    getrf(n, LU.data(), ipiv.data());
    EXPECT_EQ(ipiv, ipiv_ref);
    expect_close(LU, LU_ref, 1e-12);
    for (const char* trans : {"N", "T"}) {
      auto X_ref = B, X = B;
      dgetrs_(trans, &n, &nrhs, LU_ref.data(), &n, ipiv_ref.data(), X_ref.data(), &n, &info);
      getrs(trans[0], n, nrhs, LU.data(), ipiv.data(), X.data(), n);
      expect_close(X, X_ref, 1e-10);
    }
    const int lwork = 64 * n;
    std::vector<double> work(static_cast<std::size_t>(lwork));
    auto inv_ref = LU_ref, inv = A;
    dgetri_(&n, inv_ref.data(), &n, ipiv_ref.data(), work.data(), &lwork, &info);
    invert_small(inv.data(), n, ipiv.data(), work.data());
    expect_close(inv, inv_ref, 1e-10);
  }
  // Singular input: a zero pivot stays in place and the inverse is not finite.
  std::vector<double> S = {1, 2, 3, 2, 4, 6, 0, 1, 1}, work(9), Z(9, 0.0);
  std::vector<int> ipiv(3);
  invert_small(S.data(), 3, ipiv.data(), work.data());
  EXPECT_TRUE(std::any_of(S.begin(), S.end(), [](double s) { return !std::isfinite(s); }));
  getrf(3, Z.data(), ipiv.data());
  EXPECT_EQ(ipiv, (std::vector<int>{1, 2, 3}));
}

// Every kernel in turn, sized by N (0: at run time), each result kept.
template <int N>
std::vector<double> every_kernel(int n, const std::vector<double>& A, const std::vector<double>& B,
                                 const std::vector<double>& X) {
  std::vector<double> out, C = B, LU = A, inv = A, work(A.size()), y(B.begin(), B.begin() + n);
  auto keep = [&out](const auto& v) { out.insert(out.end(), v.begin(), v.end()); };
  small::gemm<N, false, false>(n, 0.5, A.data(), B.data(), 1.0, C.data());
  keep(C);
  small::gemm<N, false, true>(n, -1.5, A.data(), B.data(), 0.25, C.data());
  keep(C);
  small::gemm<N, true, false>(n, 2.0, A.data(), B.data(), -1.0, C.data());
  keep(C);
  small::gemm<N, true, true>(n, 0.75, A.data(), B.data(), 0.0, C.data());
  keep(C);
  std::vector<int> ipiv(static_cast<std::size_t>(n));
  small::getrf<N>(n, LU.data(), ipiv.data());
  keep(LU);
  keep(ipiv);
  auto Xn = X, Xt = X;  // six columns: a group of four and two single ones
  small::getrs<N, false>(n, 6, LU.data(), ipiv.data(), Xn.data(), n);
  small::getrs<N, true>(n, 6, LU.data(), ipiv.data(), Xt.data(), n);
  keep(Xn);
  keep(Xt);
  small::gemv<N>(n, 0.75, A.data(), X.data(), 2, -0.5, y.data());
  keep(y);
  small::ger<N>(n, -0.5, X.data(), X.data() + 1, C.data(), 2);
  keep(C);
  small::inverse<N>(n, inv.data(), ipiv.data(), work.data());
  keep(inv);
  return out;
}

TEST(SmallMatrix, FixedSizesRepeatTheRunTimeLoopsExactly) {
  std::mt19937 gen(13);
  for (int n = 1; n <= small::kMaxFixed; ++n) {
    const auto A = random_matrix(n, n, gen), B = random_matrix(n, n, gen);
    const auto X = random_matrix(n, 6, gen);
    small::with_fixed_size(n, [&](auto fixed) {
      constexpr int N = decltype(fixed)::value;
      ASSERT_EQ(N, n);
      EXPECT_EQ(every_kernel<N>(n, A, B, X), every_kernel<0>(n, A, B, X)) << "n=" << n;
    });
  }
}

}  // namespace
