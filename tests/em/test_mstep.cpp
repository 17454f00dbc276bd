// The M-step against its closed form computed here from the E-step sums, the
// right division, the stopping rules of the EM loop, and EM on data drawn from
// a known model.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "Args.h"
#include "em/SSM_EM.h"
#include "em/em_fixtures.h"
#include "model/SSM_init.h"

using namespace dense_ref;
using em_test::Records;
using em_test::solve_right;

namespace {

SSMResult run_em(const SSMEMParam& em, SSM* ssm, const SSMData& data, int k, int constrain_F) {
  Records rec(data.p, k, data.T, constrain_F);
  if (constrain_F != 0) SSM_EM_prepare_constraint(rec.work.get(), k);
  return SSM_EM_algo(&em, ssm, rec.state.get(), rec.each.get(), rec.total.get(), &data, k,
                     rec.work.get());
}

}  // namespace

TEST(MStep, OnePassMatchesClosedForm) {
  struct Case {
    int update_mu, RrI, constrain_F;
    double g;
  };
  const Case cases[] = {{1, 0, 0, 0.0}, {0, 1, 0, 0.0}, {1, 0, 1, 0.8}, {1, 1, 1, -0.35}};
  std::mt19937_64 rng(11);
  for (const auto& [p, k] : {std::pair{6, 3}, std::pair{2, 3}, std::pair{11, 9}}) {
    const Model m = random_model(p, k, rng);
    const Data d = random_series(p, 7, 2, rng);
    const auto data = em_test::to_data(d);
    // The closed form from the sums of the start model.
    Records rec(p, k, d.T, 0);
    SSM_EM_estimate(to_ssm(m).get(), rec.state.get(), rec.each.get(), rec.total.get(), data.get(),
                    k, rec.work.get(), 0.0);
    const SSMSuffStat& s = *rec.total;
    const Mat xx_obs(k, k, s.xx_obs);
    const Mat H = solve_right(Mat(p, k, s.yx), xx_obs);
    const Mat F = solve_right(Mat(k, k, s.xx_lag), Mat(k, k, s.xx_prev));
    std::vector<double> R(static_cast<std::size_t>(p));
    double R_mean = 0.0;
    for (int i = 0; i < p; ++i) {
      double hyx = 0.0, hPh = 0.0;
      for (int j = 0; j < k; ++j) {
        hyx += H(i, j) * s.yx[i + j * p];
        for (int l = 0; l < k; ++l) hPh += H(i, j) * xx_obs(j, l) * H(i, l);
      }
      R[static_cast<std::size_t>(i)] = (s.yy[i] - 2.0 * hyx + hPh) / d.n_samples;
      R_mean += R[static_cast<std::size_t>(i)] / p;
    }

    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << "p=" << p << " update_mu=" << c.update_mu
                                      << " RrI=" << c.RrI << " g=" << c.g);
      SSMEMParam em;
      em.em_loop = 2;  // E-step, M-step, E-step
      em.update_mu = c.update_mu;
      em.RrI = c.RrI;
      em.constrain_Fg = c.g;
      auto ssm = to_ssm(m), start = to_ssm(m);
      EXPECT_EQ(run_em(em, ssm.get(), *data, k, c.constrain_F).loops, 2);
      expect_close(ssm->H, H, "H", 0);
      for (int i = 0; i < k * k; ++i) {
        const bool pinned = c.constrain_F != 0 && i % (k + 1) == 0;
        EXPECT_NEAR(ssm->F[i], pinned ? c.g : F.a[static_cast<std::size_t>(i)],
                    pinned ? 1e-15 : 1e-9)
            << "F element " << i;
      }
      for (int i = 0; i < p; ++i) {
        const double want = c.RrI != 0 ? R_mean : R[static_cast<std::size_t>(i)];
        EXPECT_NEAR(ssm->R[i], want, 1e-9 * std::fabs(want));
        if (c.RrI != 0) {
          EXPECT_EQ(ssm->R[i], ssm->R[0]);
        }
      }
      for (int j = 0; j < k; ++j)
        EXPECT_NEAR(ssm->exp[j], c.update_mu != 0 ? s.x0[j] / 2.0 : start->exp[j], 1e-12);
      EXPECT_TRUE(same_bits(ssm->Q, start->Q, k) && same_bits(ssm->var, start->var, k * k));
    }
  }
}

TEST(MStep, RightDivisionAgreesWithElimination) {
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const int k = 4;
  for (int rows : {1, 2, 4, 9}) {
    Mat A(rows, k), B(k, k);
    for (double& x : A.a) x = u(rng);
    for (double& x : B.a) x = u(rng);
    for (int i = 0; i < k; ++i) B(i, i) += 3.0;
    const Mat A0 = A, B0 = B;
    std::vector<double> X(A.a.size()), At(A.a.size()), tmp(k * k);
    std::vector<int> ipiv(k);
    SSM_EM_calc_ABinv(A.a.data(), B.a.data(), X.data(), rows, k, tmp.data(), ipiv.data(),
                      At.data());
    expect_close(X.data(), solve_right(A, B), "X", static_cast<std::size_t>(rows));
    EXPECT_TRUE(A.a == A0.a && B.a == B0.a);
  }
}

TEST(EM, StoppingRulesAndBIC) {
  std::mt19937_64 rng(21);
  const int p = 2, k = 1;
  const Model m = random_model(p, k, rng);
  Data d = random_series(p, 10, 2, rng);
  em_test::simulate_into(m, d, rng);
  auto data = em_test::to_data(d);
  SSMEMParam em;
  em.constrain_F = 0;

  em.em_loop = 1;
  auto ssm = to_ssm(m), orig = to_ssm(m);
  SSMResult res = run_em(em, ssm.get(), *data, k, 0);
  EXPECT_TRUE(res.loops == 1 && res.converged == 0);
  EXPECT_TRUE(same_bits(ssm->H, orig->H, p) && same_bits(ssm->F, orig->F, 1) &&
              same_bits(ssm->R, orig->R, p) && same_bits(ssm->exp, orig->exp, 1));

  em.em_loop = 40000;
  em.converge = 1e300;  // the first difference is about DBL_MAX
  for (int update_mu : {1, 0}) {
    em.update_mu = update_mu;
    res = run_em(em, to_ssm(m).get(), *data, k, 0);
    EXPECT_TRUE(res.loops == 2 && res.converged == 1 && res.monotone == 1);
    const double params = (k + 1) * p + (k * k + k) / 2.0 + (update_mu != 0 ? k : 0);
    EXPECT_DOUBLE_EQ(res.BIC, -2.0 * res.llh + std::log(d.n_samples) * params);
  }

  em.converge = 1e-3;
  em.em_loop = 0;  // no limit
  res = run_em(em, to_ssm(m).get(), *data, k, 0);
  EXPECT_TRUE(res.converged == 1 && res.loops > 2) << res.loops;

  // A cell that holds NaN without being listed as missing poisons every pass;
  // the NaN stop waits for the first pass beyond a tenth of the limit.
  data->Y[0] = std::numeric_limits<double>::quiet_NaN();
  for (const auto& [limit, loops] : {std::pair{40000, 4002}, std::pair{25, 4}, std::pair{0, 2}}) {
    em.em_loop = limit;
    res = run_em(em, to_ssm(m).get(), *data, k, 0);
    EXPECT_TRUE(std::isnan(res.llh));
    EXPECT_EQ(res.loops, loops) << "em_loop " << limit;
    EXPECT_EQ(res.converged, 0);
  }
}

TEST(EM, DropOfLikelihoodWithoutAbsoluteTest) {
  // One state with F = 0.95; the constraint then pins F at -0.9, which the
  // data reject, so the second pass is far worse than the first.
  std::mt19937_64 rng(31);
  Model m = random_model(4, 1, rng);
  m.F.a[0] = 0.95;
  Data d = random_series(4, 30, 2, rng);
  em_test::simulate_into(m, d, rng);
  const auto data = em_test::to_data(d);
  SSMEMParam em;
  em.em_loop = 3;
  em.constrain_Fg = -0.9;
  em.abs_converge = 0;
  SSMResult res = run_em(em, to_ssm(m).get(), *data, 1, 1);
  EXPECT_TRUE(res.loops == 2 && res.converged == 1 && res.monotone == 0);
  em.abs_converge = 1;
  res = run_em(em, to_ssm(m).get(), *data, 1, 1);
  EXPECT_TRUE(res.loops == 3 && res.monotone == 1);
}

TEST(EM, NeverLowersLikelihoodOnSimulatedData) {
  std::mt19937_64 rng(77);
  const int p = 30, k = 3;
  const Model truth = random_model(p, k, rng);
  Data d = random_series(p, 15, 3, rng);
  em_test::simulate_into(truth, d, rng);
  const auto data = em_test::to_data(d);
  auto init = SSMInit_new();
  RandomStream_new(init->stream.get(), 39);
  auto ssm = SSM_new(p, k);
  SSM_init(ssm.get(), init.get(), p, k, data->Y.data(), data->n_samples);

  // Each call makes one M-step and returns the likelihood of its result.
  SSMEMParam em;
  em.em_loop = 2;
  em.abs_converge = 0;
  em.converge = -1.0;
  double prev = -DBL_MAX;
  for (int n = 0; n < 40; ++n) {
    const SSMResult res = run_em(em, ssm.get(), *data, k, 0);
    ASSERT_TRUE(std::isfinite(res.llh));
    EXPECT_EQ(res.monotone, 1) << "pass " << n;
    EXPECT_GE(res.llh, prev - 1e-9 * std::fabs(prev)) << "pass " << n;
    prev = res.llh;
  }
  em.em_loop = 3000;
  em.converge = 1e-4;
  const SSMResult fit = run_em(em, ssm.get(), *data, k, 0);
  EXPECT_TRUE(fit.monotone == 1 && fit.llh >= prev);
  Records rec(p, k, d.T, 0);
  const double true_llh = SSM_EM_estimate(to_ssm(truth).get(), rec.state.get(), rec.each.get(),
                                          rec.total.get(), data.get(), k, rec.work.get(), 0.0);
  EXPECT_GT(fit.llh, true_llh - 1e-3 * std::fabs(true_llh));
}
