// The canonical rotation of a finished model and its module matrix D, checked
// by what an orthogonal change of state basis must keep: with var = SD^2 I and
// Q = I, the rotated model is the same model.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "core/canonical_form.h"
#include "core/dense_reference.h"

using namespace dense_ref;

namespace {

void expect_all_near(const Mat& got, const Mat& want, const char* what) {
  double scale = 1.0;
  for (double x : want.a) scale = std::max(scale, std::fabs(x));
  for (std::size_t i = 0; i < want.a.size(); ++i)
    EXPECT_NEAR(got.a[i], want.a[i], 1e-12 * scale) << what << " element " << i;
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
                same_bits(rotated.initial_cov.data(), m.var.a.data(), k * k) &&
                same_bits(ssm->H.data(), m.H.a.data(), p * k));  // the input stays
    for (int a = 1; a < k; ++a) EXPECT_GE(c.L[a - 1], c.L[a]);
    if (p < k) continue;

    // H' R^-1 H is diag(L) and D diag(sqrt R)^-1 H = I; x_new = V' x with V
    // orthogonal keeps H H', H F H' and H exp.
    const Mat H(p, k, rotated.H), F(k, k, rotated.F), x0(k, 1, rotated.initial_mean);
    Mat L(k, k), info(k, k), DH(k, k);
    for (int a = 0; a < k; ++a) {
      L(a, a) = c.L[a];
      for (int b = 0; b < k; ++b) {
        for (int i = 0; i < p; ++i) {
          info(a, b) += H(i, a) * H(i, b) / m.R.a[i];
          DH(a, b) += c.D(a, i) * H(i, b) / std::sqrt(m.R.a[i]);
        }
      }
    }
    expect_all_near(info, L, "H' R^-1 H");
    expect_all_near(DH, identity(k), "D H");
    expect_all_near(mul(H, tr(H)), mul(m.H, tr(m.H)), "H H'");
    expect_all_near(mul(mul(H, F), tr(H)), mul(mul(m.H, m.F), tr(m.H)), "H F H'");
    expect_all_near(mul(H, x0), mul(m.H, m.exp), "H exp");
  }
}
