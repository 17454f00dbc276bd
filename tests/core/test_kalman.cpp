// The information-form filter and the smoother against the textbook
// covariance-form filter and Rauch-Tung-Striebel smoother, on records made for
// larger sizes and reused from case to case, as the estimation reuses them.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "core/dense_reference.h"
#include "core/kalman.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

using namespace dense_ref;

TEST(Kalman, FilterAndSmootherAgreeWithTextbookPasses) {
  std::mt19937_64 rng(20240611);
  constexpr int kMaxK = 9, kMaxT = 10;  // 9: above the sizes with code of their own
  for (int p : {1, 2, 7, 23, 40}) {
    // Larger cases first, so that stale values lie beyond what the smaller use.
    auto state = SSMState_new(kMaxK, kMaxT);
    auto work = SSMWork_new(p, kMaxK, 0, 0);
    for (int k : {9, 5, 2, 1}) {
      for (int T : {10, 2, 1, 0}) {
        SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p << " T=" << T);
        const Model m = random_model(p, k, rng);
        const Data d = random_series(p, T, 3, rng);
        auto ssm = to_ssm(m, kMaxK);
        for (int r = 0; r < 3; ++r) {
          SCOPED_TRACE(testing::Message() << "replicate " << r);
          std::fill(work->vec_k.get(), work->vec_k.get() + k, 7.5);
          const double llh = Kalman_filter(ssm.get(), state.get(), p, k, T, d.Y.data(),
                                           d.sample_at[static_cast<std::size_t>(r)].data(),
                                           d.missing.data(), work.get());
          Kalman_smoother(state.get(), k, T, work->vec_k, work->mat_k1, work->mat_k2);
          const Filtered f = filter(m, d, r);
          const Smoothed s = smooth(m, f);
          EXPECT_NEAR(llh, f.llh, 1e-9 * std::max(1.0, std::fabs(f.llh)));
          for (std::size_t t = 0; t <= static_cast<std::size_t>(T); ++t) {
            const int ti = static_cast<int>(t);
            expect_close(state->Xf[ti], f.Xf[t], "Xf", t);
            expect_close(state->Vf[ti], f.Vf[t], "Vf", t);
            expect_close(state->Xs[ti], s.Xs[t], "Xs", t);
            expect_close(state->Vs[ti], s.Vs[t], "Vs", t);
            if (ti == T) continue;
            expect_close(state->Xp[ti], f.Xp[t], "Xp", t);
            expect_close(state->Vp[ti], f.Vp[t], "Vp", t);
            expect_close(state->FV[ti], mul(m.F, f.Vf[t]), "FV", t);
            expect_close(state->Vp_inv[ti], inverse(f.Vp[t]), "Vp_inv", t);
            expect_close(state->J[ti], s.J[t], "J", t);
          }
          EXPECT_TRUE(same_bits(state->Xs[T], state->Xf[T], k));
          EXPECT_TRUE(same_bits(state->Vs[T], state->Vf[T], k * k));
          // The scratch vector is left with Xs[1] - Xp[0], which the apply mode
          // reads; a series of length 0 leaves it and the start model alone.
          for (int j = 0; j < k; ++j)
            EXPECT_DOUBLE_EQ(work->vec_k[j], T == 0 ? 7.5 : state->Xs[1][j] - state->Xp[0][j]);
          if (T == 0) {
            EXPECT_EQ(llh, 0.0);
            EXPECT_TRUE(same_bits(state->Xs[0], m.exp.a.data(), k));
            EXPECT_TRUE(same_bits(state->Vs[0], m.var.a.data(), k * k));
          }
        }
      }
    }
  }
}
