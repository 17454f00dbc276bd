// The E-step sums against sums formed here from the textbook filter and
// smoother, with missing time points and missing objects; the single
// replicate, the ridge and the empty series.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "em/SSM_EM.h"
#include "em/em_fixtures.h"

using namespace dense_ref;
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
      const auto& list = d.lists[static_cast<std::size_t>(col)];
      for (int i = 0; i < m.p; ++i) {
        Mat h(1, m.k);
        for (int j = 0; j < m.k; ++j) h(0, j) = m.H(i, j);
        const bool missing = std::find(list.begin(), list.end(), i) != list.end();
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
  expect_close(got.x0, want.x0, "x0", 0);
  expect_close(got.yy, want.yy, "yy", 0);
  expect_close(got.yx, want.yx, "yx", 0);
  expect_close(got.xx_obs, want.xx_obs, "xx_obs", 0);
  expect_close(got.xx_lag, want.xx_lag, "xx_lag", 0);
  expect_close(got.xx_prev, want.xx_prev, "xx_prev", 0);
}

double estimate(const SSM* ssm, Records& rec, const SSMData& data, int k, double ridge) {
  return SSM_EM_estimate(ssm, rec.state.get(), rec.each.get(), rec.total.get(), &data, k,
                         rec.work.get(), ridge);
}

}  // namespace

TEST(EStep, SumsAgreeWithTextbookSmoother) {
  std::mt19937_64 rng(2024);
  for (int k : {1, 3, 9}) {
    for (int p : {2, 7}) {
      SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p);
      const Model m = random_model(p, k, rng);
      const Data d = random_series(p, 8, 3, rng);
      // Time points without a sample count in xx_lag and xx_prev only.
      ASSERT_NE(std::count(d.sample_at[0].begin(), d.sample_at[0].end(), -1) +
                    std::count(d.sample_at[1].begin(), d.sample_at[1].end(), -1),
                0);
      Records rec(p, k, d.T, 0);
      const double llh = estimate(to_ssm(m).get(), rec, *em_test::to_data(d), k, 0.0);
      const Sums want = reference_sums(m, d);
      EXPECT_NEAR(llh, want.llh, 1e-9 * std::fabs(want.llh));
      expect_sums(*rec.total, want);
      expect_sums(*rec.each, reference_sums(m, d, 2));  // the last replicate alone
    }
  }
}

TEST(EStep, OneReplicateAndRidge) {
  std::mt19937_64 rng(7);
  const int p = 5, k = 2;
  const Model m = random_model(p, k, rng);
  const Data d = random_series(p, 6, 1, rng);
  const auto data = em_test::to_data(d);
  auto ssm = to_ssm(m);
  Records plain(p, k, d.T, 0), ridged(p, k, d.T, 0);
  EXPECT_EQ(estimate(ssm.get(), plain, *data, k, 0.0), estimate(ssm.get(), ridged, *data, k, 5.0));
  auto fields = [p, k](const SSMSuffStat& s) {
    return std::vector<std::pair<const double*, int>>{{s.x0, k},         {s.yy, p},
                                                      {s.yx, p * k},     {s.xx_obs, k * k},
                                                      {s.xx_lag, k * k}, {s.xx_prev, k * k}};
  };
  const auto each = fields(*plain.each), total = fields(*plain.total),
             total5 = fields(*ridged.total);
  for (std::size_t f = 0; f < each.size(); ++f) {
    EXPECT_TRUE(same_bits(each[f].first, total[f].first, each[f].second)) << "field " << f;
    EXPECT_TRUE(same_bits(total[f].first, total5[f].first, each[f].second)) << "field " << f;
  }
  // The ridge sits on the diagonals of each alone...
  for (int i = 0; i < k * k; ++i) {
    const double on_diagonal = i % (k + 1) == 0 ? 5.0 : 0.0;
    EXPECT_EQ(ridged.each->xx_obs[i], plain.total->xx_obs[i] + on_diagonal);
    EXPECT_EQ(ridged.each->xx_prev[i], plain.total->xx_prev[i] + on_diagonal);
    EXPECT_EQ(ridged.each->xx_lag[i], plain.total->xx_lag[i]);
  }
  // ...so whole estimations with ridge 0 and 5 agree bit for bit.
  SSMEMParam em;
  em.em_loop = 6;
  em.constrain_F = 0;
  auto a = to_ssm(m), b = to_ssm(m);
  const SSMResult ra = SSM_EM_algo(&em, a.get(), plain.state.get(), plain.each.get(),
                                   plain.total.get(), data.get(), k, plain.work.get());
  em.ridge = 5.0;
  const SSMResult rb = SSM_EM_algo(&em, b.get(), ridged.state.get(), ridged.each.get(),
                                   ridged.total.get(), data.get(), k, ridged.work.get());
  EXPECT_EQ(ra.llh, rb.llh);
  EXPECT_TRUE(same_bits(a->H, b->H, p * k) && same_bits(a->F, b->F, k * k) &&
              same_bits(a->R, b->R, p) && same_bits(a->exp, b->exp, k));
}

TEST(EStep, EmptySeriesSumsInitialStatesOnly) {
  std::mt19937_64 rng(3);
  const int p = 3, k = 2;
  const Model m = random_model(p, k, rng);
  Data d;
  d.p = p;
  d.sample_at.assign(2, {});
  Records rec(p, k, 0, 0);
  for (int i = 0; i < p; ++i) rec.total->yy[i] = 9.0;  // stale contents
  EXPECT_EQ(estimate(to_ssm(m).get(), rec, *em_test::to_data(d), k, 1.0), 0.0);
  Sums want{add(m.exp, m.exp), Mat(p, 1), Mat(p, k), Mat(k, k), Mat(k, k), Mat(k, k)};
  expect_sums(*rec.total, want);
}
