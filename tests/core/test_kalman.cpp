// The information-form filter, in its direct form and from the products with
// the data, and the smoother against the textbook covariance-form filter and
// Rauch-Tung-Striebel smoother, on records made for larger sizes and reused
// from case to case, as the estimation reuses them.

#include <gtest/gtest.h>

#include <random>

#include "core/dense_reference.h"
#include "core/kalman.h"

using namespace dense_ref;

TEST(Kalman, FilterAndSmootherAgreeWithTextbookPasses) {
  std::mt19937_64 rng(20240611);
  constexpr int kMaxK = 9, kMaxT = 10;  // 9: above the sizes with code of their own
  for (int p : {1, 2, 7, 23, 40}) {
    // Larger cases first, so that stale values lie beyond what the smaller use.
    Trajectory s(kMaxK, kMaxT);
    Workspace work(p, kMaxK, false);
    for (int k : {9, 5, 2, 1}) {
      for (int T : {10, 2, 1, 0}) {
        const Model m = random_model(p, k, rng);
        const Data d = random_series(p, T, 3, rng);
        const auto ssm = to_ssm(m, kMaxK);
        const auto data = to_data(d);
        const EmData em_data(*data);
        BatchProducts products(p, em_data.columns(), kMaxK, 1);
        const StateSpaceModel* models[] = {ssm.get()};
        products.prepare(models, em_data);
        for (int form = 0; form < 6; ++form) {
          const int r = form / 2;
          const bool direct = form % 2 == 0;
          SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p << " T=" << T << " r=" << r
                                          << (direct ? " direct" : " from the products"));
          const double llh =
              direct ? run_filter(*ssm, replicate_view(*data, r), &s, &work)
                     : run_filter(*ssm, replicate_view(em_data, r), products.start(0), &s, &work);
          run_smoother(&s, &work);
          const Filtered f = filter(m, d, r);
          const Smoothed sm = smooth(m, f);
          EXPECT_NEAR(llh, f.llh, 1e-9 * std::max(1.0, std::fabs(f.llh)));
          for (std::size_t t = 0; t <= static_cast<std::size_t>(T); ++t) {
            const int ti = static_cast<int>(t);
            expect_close(s.filtered_mean[ti], f.Xf[t], "Xf", t);
            expect_close(s.filtered_cov[ti], f.Vf[t], "Vf", t);
            expect_close(s.smoothed_mean[ti], sm.Xs[t], "Xs", t);
            expect_close(s.smoothed_cov[ti], sm.Vs[t], "Vs", t);
            if (ti == T) continue;
            expect_close(s.predicted_mean[ti], f.Xp[t], "Xp", t);
            expect_close(s.predicted_cov[ti], f.Vp[t], "Vp", t);
            expect_close(s.F_filtered_cov[ti], mul(m.F, f.Vf[t]), "FV", t);
            expect_close(s.predicted_precision[ti], inverse(f.Vp[t]), "Vp_inv", t);
            expect_close(s.smoother_gain[ti], sm.J[t], "J", t);
          }
        }
      }
    }
  }
}

// Observations that the model predicts to 1e-6 of their size: the expanded
// form of e'R^-1 e would keep none of its digits, and b = g - A xp none where
// a column misses every object (A then holds only rounding). The filter from
// the products must still give the likelihood and states of the direct form:
// the states on a series with such a column, the likelihood on one without,
// where the two forms take out the missing rows in another order.
TEST(Kalman, ProductsKeepTheDigitsOfTheDirectForm) {
  const int p = 40, k = 3, T = 6;
  for (const bool column_missing_all : {true, false}) {
    SCOPED_TRACE(column_missing_all);
    std::mt19937_64 rng(77);
    std::normal_distribution<double> normal;
    Model m = random_model(p, k, rng);
    for (double& r : m.R.a) r = 1e-12;
    Data d = random_series(p, T, 1, rng);
    if (!column_missing_all) {
      for (auto& list : d.lists) list.assign(1, -1);
      for (std::size_t s = 0; s < d.lists.size(); ++s) d.missing[s] = d.lists[s].data();
    }
    std::vector<double> x(m.exp.a);
    for (int t = 0; t < T; ++t) {
      std::vector<double> next(static_cast<std::size_t>(k), 0.0);
      for (int i = 0; i < k; ++i)
        for (int j = 0; j < k; ++j) next[i] += m.F(i, j) * x[static_cast<std::size_t>(j)];
      x = next;
      const int col = d.sample_at[0][static_cast<std::size_t>(t)];
      if (col < 0) continue;
      for (int i = 0; i < p; ++i) {
        if (is_missing(d, col, i)) continue;
        double y = 1e-6 * normal(rng);
        for (int j = 0; j < k; ++j) y += m.H(i, j) * x[static_cast<std::size_t>(j)];
        d.Y[static_cast<std::size_t>(i + col * p)] = y;
      }
    }
    const auto ssm = to_ssm(m);
    const auto data = to_data(d);
    const EmData em_data(*data);
    BatchProducts products(p, em_data.columns(), k, 1);
    const StateSpaceModel* models[] = {ssm.get()};
    products.prepare(models, em_data);
    Trajectory direct(k, T), expanded(k, T);
    Workspace work(p, k, false);
    const double want = run_filter(*ssm, replicate_view(*data, 0), &direct, &work);
    const double got =
        run_filter(*ssm, replicate_view(em_data, 0), products.start(0), &expanded, &work);
    if (!column_missing_all) {
      EXPECT_NEAR(got, want, 1e-9 * std::fabs(want));
    }
    for (int t = 1; t <= T; ++t) {
      for (int j = 0; j < k; ++j) {
        EXPECT_NEAR(expanded.filtered_mean[t][j], direct.filtered_mean[t][j],
                    1e-9 * std::fabs(direct.filtered_mean[t][j]) + 1e-12);
      }
    }
  }
}
