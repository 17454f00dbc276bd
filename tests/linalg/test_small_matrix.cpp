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

using Vec = std::vector<double>;

Vec random_matrix(int rows, int cols, std::mt19937& gen) {
  std::normal_distribution<double> normal;
  Vec A(static_cast<std::size_t>(rows) * cols);
  for (auto& a : A) a = normal(gen);
  return A;
}

void expect_close(const Vec& got, const Vec& want, double tol, const char* what) {
  for (std::size_t i = 0; i < got.size(); ++i)
    EXPECT_NEAR(got[i], want[i], tol * (1.0 + std::fabs(want[i]))) << what << " element " << i;
}

// Every kernel in turn, sized by N (0: at run time), each result kept: the
// products, the factors and pivots, seven solves (a group of four columns
// side by side and three single ones), a product with a strided vector, a
// rank-one update and the inverse.
template <int N>
Vec every_kernel(int n, const Vec& A, const Vec& B, const Vec& X) {
  Vec out, C = B, LU = A, inv = A, work(A.size()), y(B.begin(), B.begin() + n);
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
  auto Xn = X, Xt = X;
  small::getrs<N, false>(n, 7, LU.data(), ipiv.data(), Xn.data(), n);
  small::getrs<N, true>(n, 7, LU.data(), ipiv.data(), Xt.data(), n);
  keep(Xn);
  keep(Xt);
  small::gemv<N>(n, 0.75, A.data(), X.data(), 3, -0.5, y.data());
  keep(y);
  small::ger<N>(n, -0.5, X.data(), X.data() + 1, C.data(), 3);
  keep(C);
  small::inverse<N>(n, inv.data(), ipiv.data(), work.data());
  keep(inv);
  return out;
}

// The same through BLAS and LAPACK.
Vec every_routine(int n, const Vec& A, const Vec& B, const Vec& X) {
  Vec out, C = B, LU = A, work(64 * A.size()), y(B.begin(), B.begin() + n);
  auto keep = [&out](const auto& v) { out.insert(out.end(), v.begin(), v.end()); };
  const double alpha[] = {0.5, -1.5, 2.0, 0.75}, beta[] = {1.0, 0.25, -1.0, 0.0};
  const char* trans[] = {"NN", "NT", "TN", "TT"};
  for (int c = 0; c < 4; ++c) {
    dgemm_(trans[c], trans[c] + 1, &n, &n, &n, &alpha[c], A.data(), &n, B.data(), &n, &beta[c],
           C.data(), &n);
    keep(C);
  }
  std::vector<int> ipiv(static_cast<std::size_t>(n));
  int info = 0, nrhs = 7, inc = 3, lwork = static_cast<int>(work.size());
  dgetrf_(&n, &n, LU.data(), &n, ipiv.data(), &info);
  keep(LU);
  keep(ipiv);
  auto Xn = X, Xt = X;
  dgetrs_("N", &n, &nrhs, LU.data(), &n, ipiv.data(), Xn.data(), &n, &info);
  dgetrs_("T", &n, &nrhs, LU.data(), &n, ipiv.data(), Xt.data(), &n, &info);
  keep(Xn);
  keep(Xt);
  const double a = 0.75, b = -0.5, g = -0.5;
  dgemv_("N", &n, &n, &a, A.data(), &n, X.data(), &inc, &b, y.data(), &blas::kIncOne);
  keep(y);
  dger_(&n, &n, &g, X.data(), &inc, X.data() + 1, &inc, C.data(), &n);
  keep(C);
  dgetri_(&n, LU.data(), &n, ipiv.data(), work.data(), &lwork, &info);
  keep(LU);
  return out;
}

TEST(SmallMatrix, KernelsMatchBlasAndLapackAndFixedSizesTheRunTimeLoops) {
  std::mt19937 gen(13);
  for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 17}) {  // 9 and 17 take the run-time loops
    SCOPED_TRACE(testing::Message() << "n=" << n);
    Vec A = random_matrix(n, n, gen);
    const Vec B = random_matrix(n, n, gen);
    if (n > 2) A[0] = 10.0, A[1] = -10.0, A[2] = 10.0;  // tied first pivots: the first row wins
    const Vec X = random_matrix(n, 7, gen);             // general: pivoting matters
    const Vec run_time = every_kernel<0>(n, A, B, X);
    expect_close(run_time, every_routine(n, A, B, X), 1e-10, "vs BLAS/LAPACK");
    small::with_fixed_size(n, [&](auto fixed) {
      constexpr int N = decltype(fixed)::value;
      if (N > 0) {
        EXPECT_EQ(every_kernel<N>(n, A, B, X), run_time);
      }
    });
  }
  // beta 0 discards C, NaNs included; the run-time entry points.
  Vec S = {1, 2, 3, 2, 4, 6, 0, 1, 1}, C(9, NAN), work(9);
  gemm_small('N', 'T', 3, 1.0, S.data(), S.data(), 0.0, C.data());
  EXPECT_TRUE(std::all_of(C.begin(), C.end(), [](double c) { return std::isfinite(c); }));
  // Singular input: a zero pivot stays in place and the inverse is not finite.
  std::vector<int> ipiv(3);
  invert_small(S.data(), 3, ipiv.data(), work.data());
  EXPECT_TRUE(std::any_of(S.begin(), S.end(), [](double s) { return !std::isfinite(s); }));
}

}  // namespace
