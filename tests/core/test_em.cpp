// The E-step sums against sums formed here from the textbook filter and
// smoother, the M-step against its closed form from those sums, the stopping
// rules of the EM loop, and the restarts of one set replayed on a twin stream.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "cli/args.h"
#include "core/em_fixtures.h"
#include "core/initial_model.h"
#include "run/em_starts.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

using namespace dense_ref;
using em_test::LogCapture;
using em_test::Records;

namespace {

struct Sums {
  Mat x0, yy, yx, xx_obs, xx_lag, xx_prev;
  double llh = 0.0;
};

Mat outer(const Mat& a, const Mat& b) {
  return mul(a, tr(b));
}

// Observed rows of a sample from the data, missing rows by their conditional
// expectations R[m] + h P h' and h P, with P = Vs + Xs Xs'.
Sums reference_sums(const Model& m, const Data& d, std::size_t first_rep = 0) {
  Sums s{Mat(m.k, 1), Mat(m.p, 1), Mat(m.p, m.k), Mat(m.k, m.k), Mat(m.k, m.k), Mat(m.k, m.k)};
  for (std::size_t r = first_rep; r < d.sample_at.size(); ++r) {
    const Filtered f = filter(m, d, static_cast<int>(r));
    const Smoothed sm = smooth(m, f);
    s.llh += f.llh;
    s.x0 = add(s.x0, sm.Xs[0]);
    for (std::size_t t = 0; t < static_cast<std::size_t>(d.T); ++t) {
      s.xx_prev = add(s.xx_prev, add(outer(sm.Xs[t], sm.Xs[t]), sm.Vs[t]));
      s.xx_lag = add(s.xx_lag, add(outer(sm.Xs[t + 1], sm.Xs[t]), mul(sm.J[t], sm.Vs[t + 1])));
      const int col = d.sample_at[r][t];
      if (col < 0) continue;
      const Mat P = add(sm.Vs[t + 1], outer(sm.Xs[t + 1], sm.Xs[t + 1]));
      s.xx_obs = add(s.xx_obs, P);
      for (int i = 0; i < m.p; ++i) {
        Mat h(1, m.k);
        for (int j = 0; j < m.k; ++j) h(0, j) = m.H(i, j);
        const bool missing = is_missing(d, col, i);
        const double y = d.Y[static_cast<std::size_t>(i + col * m.p)];
        const Mat hP = mul(h, P);
        s.yy(i, 0) += missing ? m.R.a[static_cast<std::size_t>(i)] + mul(hP, tr(h))(0, 0) : y * y;
        for (int j = 0; j < m.k; ++j) s.yx(i, j) += missing ? hP(0, j) : y * sm.Xs[t + 1](j, 0);
      }
    }
  }
  return s;
}

void expect_sums(const SSMSuffStat& got, const Sums& want) {
  const std::pair<const double*, const Mat*> fields[] = {
      {got.x0, &want.x0},         {got.yy, &want.yy},         {got.yx, &want.yx},
      {got.xx_obs, &want.xx_obs}, {got.xx_lag, &want.xx_lag}, {got.xx_prev, &want.xx_prev}};
  for (std::size_t f = 0; f < 6; ++f) expect_close(fields[f].first, *fields[f].second, "sum", f);
}

const char* const kWarning = "WARNING: Retry count exceeded the limitation.";

// Data drawn from a random model; the set's stream and a twin of the same seed.
struct Fixture {
  int p = 4, k = 2;
  std::unique_ptr<SSMData> data;
  std::unique_ptr<SSMInit> init = SSMInit_new(), twin = SSMInit_new();
  std::unique_ptr<SSM> a = SSM_new(p, k), b = SSM_new(p, k);
  Records rec{p, k, 6, 0};
  SSMEMParam em;
  explicit Fixture(std::uint32_t seed) {
    std::mt19937_64 rng(seed);
    Data d = random_series(p, 6, 2, rng);
    em_test::simulate_into(random_model(p, k, rng), d, rng);
    data = em_test::to_data(d);
    RandomStream_new(init->stream.get(), seed);
    RandomStream_new(twin->stream.get(), seed);
    em.em_loop = 15;
    em.constrain_F = 0;
  }
  SSMResult iterate(int iterations) {
    StartGuard guard(em.retry);
    return SSM_EM_iterate(&em, init.get(), iterations, data.get(), k, a.get(), b.get(),
                          rec.state.get(), rec.each.get(), rec.total.get(), rec.work.get(), &guard);
  }
  std::uint32_t x() const { return init->stream->get()->x; }
};

}  // namespace

// Time points without a sample count in xx_lag and xx_prev only; an empty
// series sums the initial states alone.
TEST(EStep, SumsAgreeWithTextbookSmoother) {
  std::mt19937_64 rng(2024);
  for (int p : {2, 7}) {
    Records rec(p, 9, 8, 0);  // reused by the smaller cases, stale sums and all
    for (int k : {9, 3, 1}) {
      for (int T : {8, 0}) {
        SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p << " T=" << T);
        const Model m = random_model(p, k, rng);
        const Data d = random_series(p, T, 3, rng);
        const double llh = rec.estimate(to_ssm(m).get(), *em_test::to_data(d), k);
        const Sums want = reference_sums(m, d);
        EXPECT_NEAR(llh, want.llh, 1e-9 * std::max(1.0, std::fabs(want.llh)));
        expect_sums(*rec.total, want);
        expect_sums(*rec.each, reference_sums(m, d, 2));  // the last replicate alone
      }
    }
  }
}

// With one replicate each holds what total holds; the ridge then lands on the
// diagonals of xx_obs and xx_prev in each alone, never in what the M-step reads.
TEST(EStep, RidgeTouchesTheLastReplicatesSumsOnly) {
  std::mt19937_64 rng(7);
  const int p = 5, k = 2;
  const auto ssm = to_ssm(random_model(p, k, rng));
  const auto data = em_test::to_data(random_series(p, 6, 1, rng));
  Records plain(p, k, 6, 0), ridged(p, k, 6, 0);
  EXPECT_EQ(plain.estimate(ssm.get(), *data, k), ridged.estimate(ssm.get(), *data, k, 5.0));
  auto field = [p, k](const SSMSuffStat& s, int f) {
    const std::pair<const double*, int> all[] = {{s.x0, k},         {s.yy, p},
                                                 {s.yx, p * k},     {s.xx_obs, k * k},
                                                 {s.xx_lag, k * k}, {s.xx_prev, k * k}};
    return all[f];
  };
  for (int f = 0; f < 6; ++f) {
    const auto [each, n] = field(*plain.each, f);
    EXPECT_TRUE(same_bits(each, field(*plain.total, f).first, n)) << "field " << f;
    EXPECT_TRUE(same_bits(each, field(*ridged.total, f).first, n)) << "field " << f;
  }
  for (int i = 0; i < k * k; ++i) {
    const double on_diagonal = i % (k + 1) == 0 ? 5.0 : 0.0;
    EXPECT_EQ(ridged.each->xx_obs[i], plain.total->xx_obs[i] + on_diagonal);
    EXPECT_EQ(ridged.each->xx_prev[i], plain.total->xx_prev[i] + on_diagonal);
    EXPECT_EQ(ridged.each->xx_lag[i], plain.total->xx_lag[i]);
  }
}

// H = yx xx_obs^-1, F = xx_lag xx_prev^-1 (its diagonal pinned at g under the
// constraint), R row by row or their mean, exp the mean of the x0 sums.
TEST(MStep, OnePassMatchesClosedForm) {
  struct Case {
    int update_mu, RrI, constrain_F;
    double g;
  };
  const Case cases[] = {{1, 0, 0, 0.0}, {0, 1, 0, 0.0}, {1, 0, 1, 0.8}, {1, 1, 1, -0.35}};
  std::mt19937_64 rng(11);
  for (const auto& [p, k] : {std::pair{6, 3}, {2, 3}, {11, 9}}) {
    const Model m = random_model(p, k, rng);
    const Data d = random_series(p, 7, 2, rng);
    const auto data = em_test::to_data(d);
    Records rec(p, k, d.T, 0);
    rec.estimate(to_ssm(m).get(), *data, k);
    const SSMSuffStat& s = *rec.total;
    const Mat xx_obs(k, k, s.xx_obs);
    const Mat H = mul(Mat(p, k, s.yx), inverse(xx_obs));
    const Mat F = mul(Mat(k, k, s.xx_lag), inverse(Mat(k, k, s.xx_prev)));
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
      SCOPED_TRACE(testing::Message() << "p=" << p << " k=" << k << " update_mu=" << c.update_mu
                                      << " RrI=" << c.RrI << " g=" << c.g);
      SSMEMParam em;
      em.em_loop = 2;  // E-step, M-step, E-step
      em.update_mu = c.update_mu;
      em.RrI = c.RrI;
      em.constrain_Fg = c.g;
      auto ssm = to_ssm(m), start = to_ssm(m);
      EXPECT_EQ(Records(p, k, d.T, c.constrain_F).run(em, ssm.get(), *data, k).loops, 2);
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

TEST(EM, StoppingRulesAndBIC) {
  std::mt19937_64 rng(21);
  const int p = 2, k = 1;
  const Model m = random_model(p, k, rng);
  Data d = random_series(p, 10, 2, rng);
  em_test::simulate_into(m, d, rng);
  auto data = em_test::to_data(d);
  Records rec(p, k, d.T, 0);
  SSMEMParam em;
  em.constrain_F = 0;

  // A limit of one pass makes no M-step.
  em.em_loop = 1;
  auto ssm = to_ssm(m), orig = to_ssm(m);
  SSMResult res = rec.run(em, ssm.get(), *data, k);
  EXPECT_TRUE(res.loops == 1 && res.converged == 0);
  EXPECT_TRUE(same_bits(ssm->H, orig->H, p) && same_bits(ssm->F, orig->F, 1) &&
              same_bits(ssm->R, orig->R, p) && same_bits(ssm->exp, orig->exp, 1));

  em.em_loop = 40000;
  em.converge = 1e300;  // the first difference is about DBL_MAX
  for (int update_mu : {1, 0}) {
    em.update_mu = update_mu;
    res = rec.run(em, to_ssm(m).get(), *data, k);
    EXPECT_TRUE(res.loops == 2 && res.converged == 1 && res.monotone == 1);
    const double params = (k + 1) * p + (k * k + k) / 2.0 + (update_mu != 0 ? k : 0);
    EXPECT_DOUBLE_EQ(res.BIC, -2.0 * res.llh + std::log(d.n_samples) * params);
  }

  em.converge = 1e-3;
  em.em_loop = 0;  // no limit
  res = rec.run(em, to_ssm(m).get(), *data, k);
  EXPECT_TRUE(res.converged == 1 && res.loops > 2) << res.loops;

  // A cell that holds NaN without being listed as missing poisons every pass;
  // the NaN stop waits for the first pass beyond a tenth of the limit.
  data->Y[0] = std::numeric_limits<double>::quiet_NaN();
  for (const auto& [limit, loops] : {std::pair{40000, 4002}, {25, 4}, {0, 2}}) {
    em.em_loop = limit;
    res = rec.run(em, to_ssm(m).get(), *data, k);
    EXPECT_TRUE(std::isnan(res.llh) && res.converged == 0);
    EXPECT_EQ(res.loops, loops) << "em_loop " << limit;
  }

  // F = 0.95 in the data; pinned at -0.9 the second pass is far worse than the
  // first: a drop ends the loop unless differences are taken as absolute values.
  Model m1 = random_model(4, 1, rng);
  m1.F.a[0] = 0.95;
  Data d1 = random_series(4, 30, 2, rng);
  em_test::simulate_into(m1, d1, rng);
  const auto data1 = em_test::to_data(d1);
  Records constrained(4, 1, 30, 1);
  SSMEMParam em1;
  em1.em_loop = 3;
  em1.constrain_Fg = -0.9;
  em1.abs_converge = 0;
  res = constrained.run(em1, to_ssm(m1).get(), *data1, 1);
  EXPECT_TRUE(res.loops == 2 && res.converged == 1 && res.monotone == 0);
  em1.abs_converge = 1;
  res = constrained.run(em1, to_ssm(m1).get(), *data1, 1);
  EXPECT_TRUE(res.loops == 3 && res.monotone == 1);
}

TEST(Restart, KeepsTheBestOfReplayedEstimations) {
  Fixture set(42);
  // The same estimations by hand, from the twin stream.
  std::vector<std::string> want;
  std::vector<std::unique_ptr<SSM>> models;
  std::vector<double> llh;
  std::size_t best = 0;
  for (int n = 0; n < 4; ++n) {
    models.push_back(SSM_new(set.p, set.k));
    SSM_init(models.back().get(), set.twin.get(), set.p, set.k, set.data->Y.data(),
             set.data->n_samples);
    const SSMResult r =
        Records(set.p, set.k, 6, 0).run(set.em, models.back().get(), *set.data, set.k);
    char line[128];
    std::snprintf(line, sizeof line, "%d: Loops=%d, Likelihood=%f", n + 1, r.loops, r.llh);
    want.push_back(line);
    llh.push_back(r.llh);
    if (r.llh > llh[best]) best = static_cast<std::size_t>(n);
  }
  ASSERT_TRUE(SSM_EM_is_normal(llh[best]) && llh[0] != llh[1]);

  LogCapture log;
  const SSMResult res = set.iterate(4);
  EXPECT_EQ(log.lines(), want);
  EXPECT_TRUE(res.llh == llh[best] && res.p == set.p && res.monotone == 1);
  const SSM& got = *res.ssm;
  const SSM& wanted = *models[best];
  EXPECT_TRUE(same_bits(got.H, wanted.H, set.p * set.k) && same_bits(got.F, wanted.F, 4) &&
              same_bits(got.R, wanted.R, set.p) && same_bits(got.exp, wanted.exp, set.k));
  EXPECT_EQ(set.x(), set.twin->stream->get()->x);
  // A single estimation ends up in the first record.
  EXPECT_EQ(set.iterate(1).ssm, set.a.get());
}

TEST(Restart, FailedAttemptsAreRetriedUpToTheLimit) {
  Fixture set(45);
  // A constant row has variance 0, so R = 0 and the likelihood is NaN; the
  // NaN stop comes at the first pass index beyond 15 / 10, the third pass.
  for (int s = 0; s < set.data->n_samples; ++s)
    set.data->Y[static_cast<std::size_t>(s * set.p)] = 0;
  set.em.retry = 2;
  {
    LogCapture log;
    const SSMResult res = set.iterate(1);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 3),
              (std::vector<std::string>{"Estimation failed.  Retrying (1)...",
                                        "Estimation failed.  Retrying (2)...", kWarning}));
    EXPECT_TRUE(lines[3].starts_with("1: Loops=3, Likelihood=") &&
                lines[3].find("nan") != std::string::npos)
        << lines[3];
    // NaN never beats the empty result; every attempt drew a model of its own.
    EXPECT_TRUE(res.llh == -DBL_MAX && res.loops == -1 && res.ssm == set.b.get());
    std::vector<double> skip(static_cast<std::size_t>(3 * (set.k * set.p + set.k * set.k)));
    RandomStream_uniform(set.twin->stream->get(), static_cast<int>(skip.size()), skip.data(), 0, 1);
    EXPECT_EQ(set.x(), set.twin->stream->get()->x);
  }
  // With no retries allowed every attempt is let through at once, with a warning.
  set.em.retry = 0;
  LogCapture log;
  set.iterate(2);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4u);
  for (int n : {0, 1}) {
    EXPECT_EQ(lines[2 * n], kWarning);
    EXPECT_TRUE(lines[2 * n + 1].starts_with(std::to_string(n + 1) + ": Loops=3, Likelihood="));
  }
}
