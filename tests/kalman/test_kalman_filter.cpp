// The information-form filter against a textbook covariance-form filter, and
// its behaviour at time points with no sample or no observed object.

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "kalman/Kalman.h"
#include "kalman/dense_reference.h"

using namespace dense_ref;

TEST(KalmanFilter, AgreesWithCovarianceFormOnRandomModels) {
  std::mt19937_64 rng(20240611);
  for (int k : {1, 2, 5, 9}) {  // 9: above the sizes with code of their own
    for (int p : {1, 2, 7, 23, 40}) {
      for (int T : {0, 1, 9}) {
        SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p << " T=" << T);
        const Model m = random_model(p, k, rng);
        const Data d = random_series(p, T, 3, rng);
        auto ssm = to_ssm(m);
        auto state = SSMState_new(k, T);
        auto work = SSMWork_new(p, k, d.n_samples, 0);
        // One set of records for all replicates, as the E-step uses them.
        for (int r = 0; r < 3; ++r) {
          SCOPED_TRACE(testing::Message() << "replicate " << r);
          const double llh = Kalman_filter(ssm.get(), state.get(), p, k, T, d.Y.data(),
                                           d.sample_at[static_cast<std::size_t>(r)].data(),
                                           d.missing.data(), work.get());
          const Filtered ref = filter(m, d, r);
          EXPECT_NEAR(llh, ref.llh, 1e-9 * std::max(1.0, std::fabs(ref.llh)));
          if (T == 0) {
            EXPECT_EQ(llh, 0.0);
            EXPECT_TRUE(same_bits(state->Xf[0], m.exp.a.data(), k));
            EXPECT_TRUE(same_bits(state->Vf[0], m.var.a.data(), k * k));
          }
          for (std::size_t t = 0; t <= static_cast<std::size_t>(T); ++t) {
            const int ti = static_cast<int>(t);
            expect_close(state->Xf[ti], ref.Xf[t], "Xf", t);
            expect_close(state->Vf[ti], ref.Vf[t], "Vf", t);
            if (ti == T) continue;
            expect_close(state->Xp[ti], ref.Xp[t], "Xp", t);
            expect_close(state->Vp[ti], ref.Vp[t], "Vp", t);
            expect_close(state->FV[ti], mul(m.F, ref.Vf[t]), "FV", t);
            expect_close(state->Vp_inv[ti], inverse(ref.Vp[t]), "Vp_inv", t);
          }
        }
      }
    }
  }
}

TEST(KalmanFilter, ScalarTermIsGaussianDensityOfInnovation) {
  const double H = 1.7, R = 0.45, F = -0.8, Q = 0.6, x0 = 0.3, v0 = 2.5;
  const std::vector<double> Y = {0.9, -1.4, 2.2, 0.1};
  auto ssm = SSM_new(1, 1);
  ssm->H[0] = H;
  ssm->R[0] = R;
  ssm->F[0] = F;
  ssm->Q[0] = Q;
  ssm->exp[0] = x0;
  ssm->var[0] = v0;
  const std::vector<int> sample_at = {0, 1, 2, 3};
  const int none[] = {-1};
  const std::vector<const int*> missing(4, none);
  auto state = SSMState_new(1, 4);
  auto work = SSMWork_new(1, 1, 4, 0);

  // Each longer prefix of the series adds one term to the previous total.
  double x = x0, v = v0, total = 0.0;
  for (int T = 1; T <= 4; ++T) {
    const double xp = F * x, vp = F * F * v + Q;
    const double S = H * H * vp + R;
    const double e = Y[static_cast<std::size_t>(T - 1)] - H * xp;
    total += -0.5 * (std::log(2.0 * std::numbers::pi * S) + e * e / S);
    x = xp + vp * H * e / S;
    v = vp - vp * H * H * vp / S;
    const double llh = Kalman_filter(ssm.get(), state.get(), 1, 1, T, Y.data(), sample_at.data(),
                                     missing.data(), work.get());
    EXPECT_NEAR(llh, total, 1e-12 * std::fabs(total)) << "T=" << T;
    EXPECT_NEAR(state->Xp[T - 1][0], xp, 1e-14);
    EXPECT_NEAR(state->Vp[T - 1][0], vp, 1e-14);
    EXPECT_NEAR(state->Xf[T][0], x, 1e-13);
    EXPECT_NEAR(state->Vf[T][0], v, 1e-13);
  }
}

TEST(KalmanFilter, ReplicateWithoutSamplesOnlyPredicts) {
  std::mt19937_64 rng(7);
  const int p = 5, k = 3, T = 6;
  const Model m = random_model(p, k, rng);
  auto ssm = to_ssm(m);
  auto state = SSMState_new(k, T);
  auto work = SSMWork_new(p, k, 0, 0);
  const std::vector<int> sample_at(T, -1);
  EXPECT_EQ(Kalman_filter(ssm.get(), state.get(), p, k, T, nullptr, sample_at.data(), nullptr,
                          work.get()),
            0.0);
  Mat x = m.exp, V = m.var;
  for (int i = 0; i < T; ++i) {
    const auto t = static_cast<std::size_t>(i);
    EXPECT_TRUE(same_bits(state->Xf[i + 1], state->Xp[i], k)) << i;
    EXPECT_TRUE(same_bits(state->Vf[i + 1], state->Vp[i], k * k)) << i;
    x = mul(m.F, x);
    V = add(mul(mul(m.F, V), tr(m.F)), identity(k));  // Q = 1
    expect_close(state->Xp[i], x, "Xp", t);
    expect_close(state->Vp[i], V, "Vp", t);
    const Mat product = mul(Mat(k, k, state->Vp_inv[i]), Mat(k, k, state->Vp[i]));
    expect_close(product.a.data(), identity(k), "Vp_inv Vp", t);
  }
}

// A sample that lists every object as missing carries no information: the
// pass matches one where that time point has no sample at all.
TEST(KalmanFilter, SampleWithEveryObjectMissingActsLikeNoSample) {
  std::mt19937_64 rng(3);
  const int p = 9, k = 2, T = 3;
  const Model m = random_model(p, k, rng);
  auto ssm = to_ssm(m);
  std::vector<double> Y(static_cast<std::size_t>(p) * 3);
  for (double& y : Y) y = std::uniform_real_distribution<double>(-2.0, 2.0)(rng);
  std::fill(Y.begin() + p, Y.begin() + 2 * p, 0.0);
  std::vector<int> all;
  for (int i = 0; i < p; ++i) all.push_back(i);
  all.push_back(-1);
  const int none[] = {-1};
  const std::vector<const int*> missing = {none, all.data(), none};

  auto with_gap = SSMState_new(k, T);
  auto with_empty = SSMState_new(k, T);
  auto work = SSMWork_new(p, k, 3, 0);
  const std::vector<int> gap = {0, -1, 2}, empty = {0, 1, 2};
  const double llh_gap = Kalman_filter(ssm.get(), with_gap.get(), p, k, T, Y.data(), gap.data(),
                                       missing.data(), work.get());
  const double llh_empty = Kalman_filter(ssm.get(), with_empty.get(), p, k, T, Y.data(),
                                         empty.data(), missing.data(), work.get());
  EXPECT_NEAR(llh_empty, llh_gap, 1e-10);
  EXPECT_TRUE(same_bits(with_empty->Xf[2], with_empty->Xp[1], k));
  for (int t = 0; t <= T; ++t) {
    const auto st = static_cast<std::size_t>(t);
    expect_close(with_empty->Xf[t], Mat(k, 1, with_gap->Xf[t]), "Xf", st);
    expect_close(with_empty->Vf[t], Mat(k, k, with_gap->Vf[t]), "Vf", st);
  }
}
