// The canonical rotation of a finished model and its module matrix D: checked
// by what an orthogonal change of state basis must keep, and by the filter's
// likelihood before and after.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kalman/Kalman.h"
#include "kalman/dense_reference.h"
#include "model/SSM_constrain.h"

using namespace dense_ref;

namespace {

// Coefficients of det(x I - A), constant term first, by Faddeev-LeVerrier.
std::vector<double> char_poly(const Mat& A) {
  const int n = A.rows;
  std::vector<double> c(n + 1, 0.0);
  c[n] = 1.0;
  Mat M(n, n);
  for (int m = 1; m <= n; ++m) {
    M = mul(A, M);
    for (int i = 0; i < n; ++i) M(i, i) += c[n - m + 1];
    const Mat AM = mul(A, M);
    for (int i = 0; i < n; ++i) c[n - m] -= AM(i, i) / m;
  }
  return c;
}

// H' R^-1 H of a p x k H.
Mat information(const Mat& H, const Mat& R) {
  Mat S(H.cols, H.cols);
  for (int a = 0; a < H.cols; ++a)
    for (int b = 0; b < H.cols; ++b)
      for (int i = 0; i < H.rows; ++i) S(a, b) += H(i, a) * H(i, b) / R.a[i];
  return S;
}

void expect_all_near(const Mat& got, const Mat& want, double tol, const char* what) {
  double scale = 1.0;
  for (double x : want.a) scale = std::max(scale, std::fabs(x));
  for (std::size_t i = 0; i < want.a.size(); ++i)
    EXPECT_NEAR(got.a[i], want.a[i], tol * scale) << what << " element " << i;
}

double total_llh(const SSM* ssm, int p, int k, const Data& d) {
  auto state = SSMState_new(k, d.T);
  auto work = SSMWork_new(p, k, d.n_samples, 0);
  double llh = 0.0;
  for (const auto& slots : d.sample_at)
    llh += Kalman_filter(ssm, state.get(), p, k, d.T, d.Y.data(), slots.data(), d.missing.data(),
                         work.get());
  return llh;
}

}  // namespace

TEST(Canonical, RotationDiagonalisesInformationAndKeepsTheModel) {
  std::mt19937_64 rng(4401);
  for (auto [p, k] : {std::pair{6, 2}, {3, 3}, {12, 3}, {40, 4}}) {
    SCOPED_TRACE(testing::Message() << "p=" << p << " k=" << k);
    Model m = random_model(p, k, rng);
    for (double& v : m.var.a) v *= 2.25;  // var = SD^2 I, as the estimation leaves it
    const Data d = random_series(p, 8, 2, rng);
    auto ssm = to_ssm(m);
    auto work = SSMWork_new(p, k, d.n_samples, 0);
    const double llh_before = total_llh(ssm.get(), p, k, d);
    SSMResult result{p, k, -12.5, 30.0, 1, 0, 17, ssm.get(), nullptr, nullptr};
    SSMResult_calc_D_L(&result, work.get());

    EXPECT_EQ(result.D, work->RinvH.get());
    EXPECT_EQ(result.L, work->u.get());
    EXPECT_EQ(std::tuple(result.llh, result.BIC, result.loops), std::tuple(-12.5, 30.0, 17));
    EXPECT_TRUE(same_bits(ssm->R, m.R.a.data(), p));
    EXPECT_TRUE(same_bits(ssm->Q, m.Q.a.data(), k));
    EXPECT_TRUE(same_bits(ssm->var, m.var.a.data(), k * k));

    // H' R^-1 H is diag(L), descending, and L holds the eigenvalues of the old one.
    const Mat H(p, k, ssm->H), F(k, k, ssm->F), x0(k, 1, ssm->exp);
    Mat L(k, k);
    for (int a = 0; a < k; ++a) L(a, a) = result.L[a];
    expect_all_near(information(H, m.R), L, 1e-12, "H' R^-1 H");
    for (int a = 1; a < k; ++a) EXPECT_GT(result.L[a - 1], result.L[a]);
    const auto want_poly = char_poly(information(m.H, m.R)), got_poly = char_poly(L);
    for (int j = 0; j < k; ++j)
      EXPECT_NEAR(got_poly[j], want_poly[j], 1e-10 * std::pow(result.L[0], k - j));

    // D diag(sqrt R)^-1 H = I.
    Mat DH(k, k);
    for (int a = 0; a < k; ++a)
      for (int b = 0; b < k; ++b)
        for (int i = 0; i < p; ++i) DH(a, b) += result.D[a + i * k] * H(i, b) / std::sqrt(m.R.a[i]);
    expect_all_near(DH, identity(k), 1e-12, "D H");

    // x_new = V' x, V orthogonal: H H', H F H', H exp and the spectrum of F stay.
    expect_all_near(mul(H, tr(H)), mul(m.H, tr(m.H)), 1e-12, "H H'");
    expect_all_near(mul(mul(H, F), tr(H)), mul(mul(m.H, m.F), tr(m.H)), 1e-12, "H F H'");
    expect_all_near(mul(H, x0), mul(m.H, m.exp), 1e-12, "H exp");
    const auto F_poly = char_poly(F), F_poly_before = char_poly(m.F);
    for (int j = 0; j < k; ++j) EXPECT_NEAR(F_poly[j], F_poly_before[j], 1e-12);

    EXPECT_NEAR(total_llh(ssm.get(), p, k, d), llh_before, 1e-9 * std::fabs(llh_before));
  }
}

TEST(Canonical, OneStateOnlyFlipsSigns) {
  std::mt19937_64 rng(17);
  for (int p : {1, 7}) {
    const Model m = random_model(p, 1, rng);
    auto ssm = to_ssm(m);
    auto work = SSMWork_new(p, 1, 0, 0);
    SSMResult result{p, 1, -1.0, 2.0, 1, 1, 3, ssm.get(), nullptr, nullptr};
    SSMResult_calc_D_L(&result, work.get());
    const double sign = ssm->H[0] / m.H.a[0] > 0 ? 1.0 : -1.0;
    double info = 0.0;
    for (int i = 0; i < p; ++i) {
      EXPECT_NEAR(ssm->H[i], sign * m.H.a[i], 1e-14);
      info += m.H.a[i] * m.H.a[i] / m.R.a[i];
    }
    EXPECT_NEAR(ssm->F[0], m.F.a[0], 1e-15);
    EXPECT_NEAR(ssm->exp[0], sign * m.exp.a[0], 1e-15);
    EXPECT_NEAR(result.L[0], info, 1e-13 * info);
    // D(0, i) = H(i) / (L sqrt R(i)); with p = 1 that is sqrt(R) / H.
    if (p == 1) {
      EXPECT_NEAR(result.D[0], std::sqrt(m.R.a[0]) / ssm->H[0], 1e-13 * std::fabs(result.D[0]));
    }
  }
}

TEST(Canonical, MoreStatesThanObjectsStaysInsideTheArrays) {
  std::mt19937_64 rng(5);
  const Model m = random_model(2, 4, rng);
  auto ssm = to_ssm(m);
  auto work = SSMWork_new(2, 4, 0, 0);  // arrays of the exact sizes, for the sanitizers
  SSMResult result{2, 4, -1.0, 2.0, 1, 1, 3, ssm.get(), nullptr, nullptr};
  SSMResult_calc_D_L(&result, work.get());
  EXPECT_EQ(result.D, work->RinvH.get());
  EXPECT_TRUE(same_bits(ssm->R, m.R.a.data(), 2));
  EXPECT_TRUE(same_bits(ssm->Q, m.Q.a.data(), 4));
  EXPECT_TRUE(same_bits(ssm->var, m.var.a.data(), 16));
  EXPECT_GE(result.L[0], result.L[1]);  // the two meaningful values still lead, descending
}
