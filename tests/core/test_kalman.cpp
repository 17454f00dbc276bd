// The information-form filter and the smoother against the textbook
// covariance-form filter and Rauch-Tung-Striebel smoother, on records made for
// larger sizes and reused from case to case, as the estimation reuses them.

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
        for (int r = 0; r < 3; ++r) {
          SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p << " T=" << T << " r=" << r);
          const ReplicateView series{d.Y.data(), d.sample_at[static_cast<std::size_t>(r)],
                                     d.missing.data()};
          const double llh = run_filter(*ssm, series, &s, &work);
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
