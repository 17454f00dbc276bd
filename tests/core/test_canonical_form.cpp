// The canonical rotation of a finished model and its module matrix D, checked
// by what an orthogonal change of state basis must keep: with var = SD^2 I and
// Q = I, the rotated model is the same model.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "core/canonical_form.h"
#include "core/dense_reference.h"

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

// {2, 4}: fewer objects than states, where only the first p values mean anything.
TEST(Canonical, RotationDiagonalisesInformationAndKeepsTheModel) {
  std::mt19937_64 rng(4401);
  for (auto [p, k] : {std::pair{1, 1}, {7, 1}, {6, 2}, {3, 3}, {12, 3}, {40, 4}, {2, 4}}) {
    SCOPED_TRACE(testing::Message() << "p=" << p << " k=" << k);
    Model m = random_model(p, k, rng);
    for (double& v : m.var.a) v *= 2.25;  // var = SD^2 I, as the estimation leaves it
    const auto ssm = to_ssm(m);           // exact sizes, for the sanitizers
    Workspace work(p, k, false);
    const CanonicalModel c = to_canonical_form(*ssm, &work);
    const StateSpaceModel& rotated = c.model;
    ASSERT_TRUE(rotated.k() == k && c.D.rows() == k && c.D.cols() == p && c.L.rows() == k);
    EXPECT_TRUE(same_bits(rotated.R.data(), m.R.a.data(), p) &&
                same_bits(rotated.Q.data(), m.Q.a.data(), k) &&
                same_bits(rotated.initial_cov.data(), m.var.a.data(), k * k));
    for (int a = 1; a < k; ++a) EXPECT_GE(c.L[a - 1], c.L[a]);
    if (p < k) continue;

    // H' R^-1 H is diag(L), with the spectrum of the old one; D diag(sqrt R)^-1 H = I.
    const Mat H(p, k, rotated.H.data()), F(k, k, rotated.F.data());
    const Mat x0(k, 1, rotated.initial_mean.data());
    Mat L(k, k), info(k, k), info_before(k, k), DH(k, k);
    for (int a = 0; a < k; ++a) {
      L(a, a) = c.L[a];
      for (int b = 0; b < k; ++b) {
        for (int i = 0; i < p; ++i) {
          info(a, b) += H(i, a) * H(i, b) / m.R.a[i];
          info_before(a, b) += m.H(i, a) * m.H(i, b) / m.R.a[i];
          DH(a, b) += c.D(a, i) * H(i, b) / std::sqrt(m.R.a[i]);
        }
      }
    }
    expect_all_near(info, L, 1e-12, "H' R^-1 H");
    const auto traces = power_traces(L), traces_before = power_traces(info_before);
    for (int j = 0; j < k; ++j)
      EXPECT_NEAR(traces[j], traces_before[j], 1e-12 * std::pow(c.L[0], j + 1));
    expect_all_near(DH, identity(k), 1e-12, "D H");

    // x_new = V' x, V orthogonal: H H', H F H', H exp and the spectrum of F stay.
    expect_all_near(mul(H, tr(H)), mul(m.H, tr(m.H)), 1e-12, "H H'");
    expect_all_near(mul(mul(H, F), tr(H)), mul(mul(m.H, m.F), tr(m.H)), 1e-12, "H F H'");
    expect_all_near(mul(H, x0), mul(m.H, m.exp), 1e-12, "H exp");
    const auto F_traces = power_traces(F), F_traces_before = power_traces(m.F);
    for (int j = 0; j < k; ++j) EXPECT_NEAR(F_traces[j], F_traces_before[j], 1e-12);

    // The D block written beside the state variables: R^-1 H laid out p x k.
    const Matrix module = information_matrix_as_module(rotated);
    ASSERT_TRUE(module.rows() == k && module.cols() == p);
    for (int i = 0; i < p; ++i)
      for (int j = 0; j < k; ++j)
        EXPECT_EQ(module[static_cast<std::size_t>(i + j * p)], H(i, j) / m.R.a[i]);
  }
}
