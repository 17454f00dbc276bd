// The backward pass against a textbook Rauch-Tung-Striebel smoother run on the
// textbook filter's output, and its short and sample-free series.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kalman/Kalman.h"
#include "kalman/dense_reference.h"

using namespace dense_ref;

namespace {

// One model's records, filtered and smoothed replicate by replicate.
struct Pass {
  int p, k;
  std::unique_ptr<SSM> ssm;
  std::unique_ptr<SSMState> state;
  std::unique_ptr<SSMWork> work;
  Pass(const Model& m, int T)
      : p(m.p),
        k(m.k),
        ssm(to_ssm(m)),
        state(SSMState_new(m.k, T)),
        work(SSMWork_new(m.p, m.k, 0, 0)) {}

  double run(const Data& d, int r) {
    const double llh = Kalman_filter(ssm.get(), state.get(), p, k, d.T, d.Y.data(),
                                     d.sample_at[static_cast<std::size_t>(r)].data(),
                                     d.missing.data(), work.get());
    Kalman_smoother(state.get(), k, d.T, work->vec_k, work->mat_k1, work->mat_k2);
    return llh;
  }
};

}  // namespace

TEST(KalmanSmoother, AgreesWithTextbookSmootherOnRandomModels) {
  std::mt19937_64 rng(99);
  for (int k : {1, 2, 5, 9}) {
    for (int p : {1, 3, 12, 40}) {
      for (int T : {1, 2, 10}) {
        SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p << " T=" << T);
        const Model m = random_model(p, k, rng);
        const Data d = random_series(p, T, 3, rng);
        Pass pass(m, T);  // one set of records for all replicates
        for (int r = 0; r < 3; ++r) {
          SCOPED_TRACE(testing::Message() << "replicate " << r);
          pass.run(d, r);
          const Smoothed ref = smooth(m, filter(m, d, r));
          const SSMState& s = *pass.state;
          for (std::size_t t = 0; t <= static_cast<std::size_t>(T); ++t) {
            const int ti = static_cast<int>(t);
            expect_close(s.Xs[ti], ref.Xs[t], "Xs", t);
            expect_close(s.Vs[ti], ref.Vs[t], "Vs", t);
            if (t < static_cast<std::size_t>(T)) expect_close(s.J[ti], ref.J[t], "J", t);
          }
          EXPECT_TRUE(same_bits(s.Xs[T], s.Xf[T], k));
          EXPECT_TRUE(same_bits(s.Vs[T], s.Vf[T], k * k));
          // The scratch vector is left with the last difference formed.
          for (int j = 0; j < k; ++j)
            EXPECT_DOUBLE_EQ(pass.work->vec_k[j], s.Xs[1][j] - s.Xp[0][j]);
        }
      }
    }
  }
}

TEST(KalmanSmoother, ZeroLengthSeriesLeavesScratchAlone) {
  std::mt19937_64 rng(17);
  const int k = 3;
  const Model m = random_model(4, k, rng);
  Pass pass(m, 0);
  Kalman_filter(pass.ssm.get(), pass.state.get(), 4, k, 0, nullptr, nullptr, nullptr,
                pass.work.get());
  std::vector<double> vec(k, 7.5), mat1(k * k, -3.25), mat2(k * k, 42.0);
  Kalman_smoother(pass.state.get(), k, 0, vec.data(), mat1.data(), mat2.data());
  EXPECT_EQ(vec, std::vector<double>(k, 7.5));
  EXPECT_EQ(mat1, std::vector<double>(k * k, -3.25));
  EXPECT_EQ(mat2, std::vector<double>(k * k, 42.0));
  EXPECT_TRUE(same_bits(pass.state->Xs[0], m.exp.a.data(), k));
  EXPECT_TRUE(same_bits(pass.state->Vs[0], m.var.a.data(), k * k));
}

TEST(KalmanSmoother, SingleStepPullsInitialStateTowardsFirstSample) {
  std::mt19937_64 rng(23);
  for (int k : {1, 3}) {
    const Model m = random_model(5, k, rng);
    const Data d = random_series(5, 1, 4, rng);
    Pass pass(m, 1);
    for (int r = 0; r < 4; ++r) {
      pass.run(d, r);
      const SSMState& s = *pass.state;
      EXPECT_TRUE(same_bits(s.Xs[1], s.Xf[1], k));
      // Xs[0] = exp + J[0] (Xf[1] - F exp)
      const Mat J(k, k, s.J[0]);
      const Mat want = add(m.exp, mul(J, add(Mat(k, 1, s.Xf[1]), mul(m.F, m.exp), -1.0)));
      expect_close(s.Xs[0], want, "Xs", 0);
    }
  }
}

TEST(KalmanSmoother, WithoutSamplesSmoothedEqualsPredicted) {
  std::mt19937_64 rng(29);
  const int p = 4, k = 2, T = 5;
  const Model m = random_model(p, k, rng);
  Data d = random_series(p, T, 1, rng);
  for (int& s : d.sample_at[0]) s = -1;
  Pass pass(m, T);
  EXPECT_EQ(pass.run(d, 0), 0.0);
  for (int t = 0; t <= T; ++t) {
    EXPECT_TRUE(same_bits(pass.state->Xs[t], pass.state->Xf[t], k)) << t;
    EXPECT_TRUE(same_bits(pass.state->Vs[t], pass.state->Vf[t], k * k)) << t;
  }
}
