// The canonical rotation of a finished model and its module matrix D, checked
// by what an orthogonal change of state basis must keep: with var = SD^2 I and
// Q = I, the rotated model is the same model.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "core/canonical_form.h"
#include "core/dense_reference.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

using namespace dense_ref;

namespace {

// trace(A^j) for j = 1..n: equal for two matrices exactly when their spectra are.
std::vector<double> power_traces(const Mat& A) {
  std::vector<double> traces;
  Mat P = A;
  for (int j = 1; j <= A.rows; ++j, P = mul(P, A)) {
    traces.push_back(0.0);
    for (int i = 0; i < A.rows; ++i) traces.back() += P(i, i);
  }
  return traces;
}

void expect_all_near(const Mat& got, const Mat& want, double tol, const char* what) {
  double scale = 1.0;
  for (double x : want.a) scale = std::max(scale, std::fabs(x));
  for (std::size_t i = 0; i < want.a.size(); ++i)
    EXPECT_NEAR(got.a[i], want.a[i], tol * scale) << what << " element " << i;
}

}  // namespace

TEST(Canonical, RotationDiagonalisesInformationAndKeepsTheModel) {
  std::mt19937_64 rng(4401);
  for (auto [p, k] : {std::pair{1, 1}, {7, 1}, {6, 2}, {3, 3}, {12, 3}, {40, 4}}) {
    SCOPED_TRACE(testing::Message() << "p=" << p << " k=" << k);
    Model m = random_model(p, k, rng);
    for (double& v : m.var.a) v *= 2.25;  // var = SD^2 I, as the estimation leaves it
    auto ssm = to_ssm(m);
    auto work = SSMWork_new(p, k, 0, 0);
    SSMResult result{p, k, -12.5, 30.0, 1, 0, 17, ssm.get(), nullptr, nullptr};
    SSMResult_calc_D_L(&result, work.get());

    EXPECT_TRUE(result.D == work->RinvH.get() && result.L == work->u.get());
    EXPECT_EQ(std::tuple(result.llh, result.BIC, result.loops), std::tuple(-12.5, 30.0, 17));
    EXPECT_TRUE(same_bits(ssm->R, m.R.a.data(), p) && same_bits(ssm->Q, m.Q.a.data(), k) &&
                same_bits(ssm->var, m.var.a.data(), k * k));

    // H' R^-1 H is diag(L), descending, with the spectrum of the old one.
    const Mat H(p, k, ssm->H), F(k, k, ssm->F), x0(k, 1, ssm->exp);
    Mat L(k, k), info(k, k), info_before(k, k), DH(k, k);
    for (int a = 0; a < k; ++a) {
      L(a, a) = result.L[a];
      for (int b = 0; b < k; ++b) {
        for (int i = 0; i < p; ++i) {
          info(a, b) += H(i, a) * H(i, b) / m.R.a[i];
          info_before(a, b) += m.H(i, a) * m.H(i, b) / m.R.a[i];
          DH(a, b) += result.D[a + i * k] * H(i, b) / std::sqrt(m.R.a[i]);
        }
      }
    }
    expect_all_near(info, L, 1e-12, "H' R^-1 H");
    for (int a = 1; a < k; ++a) EXPECT_GT(result.L[a - 1], result.L[a]);
    const auto traces = power_traces(L), traces_before = power_traces(info_before);
    for (int j = 0; j < k; ++j)
      EXPECT_NEAR(traces[j], traces_before[j], 1e-12 * std::pow(result.L[0], j + 1));
    // D diag(sqrt R)^-1 H = I.
    expect_all_near(DH, identity(k), 1e-12, "D H");

    // x_new = V' x, V orthogonal: H H', H F H', H exp and the spectrum of F stay.
    expect_all_near(mul(H, tr(H)), mul(m.H, tr(m.H)), 1e-12, "H H'");
    expect_all_near(mul(mul(H, F), tr(H)), mul(mul(m.H, m.F), tr(m.H)), 1e-12, "H F H'");
    expect_all_near(mul(H, x0), mul(m.H, m.exp), 1e-12, "H exp");
    const auto F_traces = power_traces(F), F_traces_before = power_traces(m.F);
    for (int j = 0; j < k; ++j) EXPECT_NEAR(F_traces[j], F_traces_before[j], 1e-12);
  }
}

// With fewer objects than states only the first p values mean anything; the
// rotation stays inside arrays of the exact sizes (for the sanitizers).
TEST(Canonical, MoreStatesThanObjectsStaysInsideTheArrays) {
  std::mt19937_64 rng(5);
  const Model m = random_model(2, 4, rng);
  auto ssm = to_ssm(m);
  auto work = SSMWork_new(2, 4, 0, 0);
  SSMResult result{2, 4, -1.0, 2.0, 1, 1, 3, ssm.get(), nullptr, nullptr};
  SSMResult_calc_D_L(&result, work.get());
  EXPECT_TRUE(same_bits(ssm->R, m.R.a.data(), 2) && same_bits(ssm->var, m.var.a.data(), 16));
  EXPECT_GE(result.L[0], result.L[1]);
}
