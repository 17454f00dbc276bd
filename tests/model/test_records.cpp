// The model records: reuse of records made for a larger state dimension, the
// layout of the time tables, the scratch sizes, SSM_copy and the zeroing of
// the EM sums.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kalman/Kalman.h"
#include "kalman/dense_reference.h"
#include "model/SSM.h"

using namespace dense_ref;

namespace {

// Log-likelihoods, then Xf, Vf, Xs, Vs and J of every replicate in turn.
std::vector<double> run_all(const SSM* ssm, SSMState* s, SSMWork* work, const Data& d, int k) {
  std::vector<double> out;
  for (const auto& at : d.sample_at) {
    out.push_back(
        Kalman_filter(ssm, s, d.p, k, d.T, d.Y.data(), at.data(), d.missing.data(), work));
    Kalman_smoother(s, k, d.T, work->vec_k, work->mat_k1, work->mat_k2);
    for (int t = 0; t <= d.T; ++t) {
      for (const double* v : {s->Xf[t], s->Xs[t]}) out.insert(out.end(), v, v + k);
      for (const double* v : {s->Vf[t], s->Vs[t]}) out.insert(out.end(), v, v + k * k);
      if (t < d.T) out.insert(out.end(), s->J[t], s->J[t] + k * k);
    }
  }
  return out;
}

}  // namespace

TEST(Records, RecordsForLargerStateDimensionGiveIdenticalResults) {
  std::mt19937_64 rng(41);
  const int p = 6, T = 8, max_k = 7;
  auto big_state = SSMState_new(max_k, T);
  auto big_work = SSMWork_new(p, max_k, 0, 0);
  const Data d = random_series(p, T, 3, rng);
  // Used at full size first, so that stale values lie beyond every smaller k.
  run_all(to_ssm(random_model(p, max_k, rng)).get(), big_state.get(), big_work.get(), d, max_k);
  for (int k : {1, 2, 3, 5}) {
    SCOPED_TRACE(testing::Message() << "k=" << k);
    const Model m = random_model(p, k, rng);
    const auto exact =
        run_all(to_ssm(m).get(), SSMState_new(k, T).get(), SSMWork_new(p, k, 0, 0).get(), d, k);
    const auto reused = run_all(to_ssm(m, max_k).get(), big_state.get(), big_work.get(), d, k);
    EXPECT_EQ(reused, exact);
    for (double x : exact) ASSERT_TRUE(std::isfinite(x));
  }
}

TEST(Records, ScratchSizesCoverEveryUse) {
  auto ssm = SSM_new(1, 1);
  for (const auto* a : {&ssm->exp, &ssm->var, &ssm->H, &ssm->R, &ssm->F, &ssm->Q})
    EXPECT_EQ(a->size(), 1u);
  auto stat = SSMSuffStat_new(1, 1);
  for (const auto* a :
       {&stat->x0, &stat->yy, &stat->yx, &stat->xx_obs, &stat->xx_lag, &stat->xx_prev})
    EXPECT_EQ(a->size(), 1u);
  for (int p : {1, 3, 50}) {
    for (int k : {1, 2, 6}) {
      SCOPED_TRACE(testing::Message() << "p=" << p << " k=" << k);
      auto w = SSMWork_new(p, k, 10, 0);
      EXPECT_GE(w->lwork, 1);
      EXPECT_GE(w->work.size(), static_cast<std::size_t>(w->lwork));
      // Never below k * k, whatever the query reported.
      EXPECT_GE(w->svd_work.size(),
                static_cast<std::size_t>(std::max({w->svd_lwork, p, k, k * k})));
      for (const auto* a : {&w->RinvH, &w->mat_pk})
        EXPECT_GE(a->size(), static_cast<std::size_t>(p * k));
      for (const auto* a : {&w->e, &w->vec_p}) EXPECT_GE(a->size(), static_cast<std::size_t>(p));
      for (const auto* a : {&w->b, &w->u, &w->vec_k})
        EXPECT_GE(a->size(), static_cast<std::size_t>(k));
      for (const auto* a :
           {&w->HtRinvH, &w->HtRinvH_obs, &w->B, &w->mat_k1, &w->mat_k2, &w->mat_k3})
        EXPECT_GE(a->size(), static_cast<std::size_t>(k * k));
      EXPECT_GE(w->ipiv.size(), static_cast<std::size_t>(k));
    }
  }
}

TEST(Records, TimeTablesAreContiguousPerTable) {
  for (int k : {1, 3}) {
    for (int T : {0, 4}) {
      auto s = SSMState_new(k, T);
      for (int t = 0; t < T; ++t) {
        for (const StateTable* v : {&s->Xf, &s->Xs}) EXPECT_EQ((*v)[t + 1] - (*v)[t], k);
        for (const StateTable* v : {&s->Vf, &s->Vs}) EXPECT_EQ((*v)[t + 1] - (*v)[t], k * k);
        if (t + 1 == T) continue;
        EXPECT_EQ(s->Xp[t + 1] - s->Xp[t], k);
        for (const StateTable* v : {&s->Vp, &s->J, &s->FV, &s->Vp_inv, &s->Vlag})
          EXPECT_EQ((*v)[t + 1] - (*v)[t], k * k);
      }
      // Even with T = 0 the initial state has its entry.
      for (const StateTable* v : {&s->Xf, &s->Vf, &s->Xs, &s->Vs}) ASSERT_NE((*v)[0], nullptr);
    }
  }
}

TEST(Records, ConstraintScratchExistsOnlyWhenRequested) {
  const int k = 3;
  auto plain = SSMWork_new(5, k, 2, 0);
  EXPECT_FALSE(plain->Fc_C);
  EXPECT_FALSE(plain->Fc_G);
  EXPECT_FALSE(plain->Fc_CW);
  EXPECT_FALSE(plain->Fc_W);
  // Fc_G and Fc_W feed no result of the constrained update and may stay empty.
  auto constrained = SSMWork_new(5, k, 2, 1);
  EXPECT_EQ(constrained->Fc_C.size(), static_cast<std::size_t>(k * k * k));
  EXPECT_EQ(constrained->Fc_CW.size(), static_cast<std::size_t>(k * k * k));
}

TEST(Records, CopyMovesContentsNotArrays) {
  const int p = 4, k = 2;
  std::mt19937_64 rng(43);
  auto src = to_ssm(random_model(p, k, rng));
  auto dst = SSM_new(p, 3);  // made for a larger k
  HeapArray<double>* to[] = {&dst->exp, &dst->var, &dst->H, &dst->R, &dst->F, &dst->Q};
  const HeapArray<double>* from[] = {&src->exp, &src->var, &src->H, &src->R, &src->F, &src->Q};
  const int used[] = {k, k * k, p * k, p, k * k, k};
  std::vector<double*> before;
  std::vector<std::vector<double>> src_before;
  for (int f = 0; f < 6; ++f) {
    std::fill(to[f]->get(), to[f]->get() + to[f]->size(), -9.0);
    before.push_back(to[f]->get());
    src_before.emplace_back(from[f]->get(), from[f]->get() + from[f]->size());
  }
  SSM_copy(dst.get(), src.get(), p, k);
  for (int f = 0; f < 6; ++f) {
    SCOPED_TRACE(f);
    EXPECT_EQ(to[f]->get(), before[static_cast<std::size_t>(f)]);
    EXPECT_TRUE(same_bits(*to[f], *from[f], used[f]));
    for (std::size_t i = static_cast<std::size_t>(used[f]); i < to[f]->size(); ++i)
      EXPECT_EQ((*to[f])[i], -9.0);
    EXPECT_EQ(std::vector<double>(from[f]->get(), from[f]->get() + from[f]->size()),
              src_before[static_cast<std::size_t>(f)]);
  }
}

TEST(Records, SuffStatSetZeroClearsEverySum) {
  const int p = 5, k = 3;
  auto s = SSMSuffStat_new(p, k);
  HeapArray<double>* fields[] = {&s->x0, &s->yy, &s->yx, &s->xx_obs, &s->xx_lag, &s->xx_prev};
  for (auto* f : fields) std::fill(f->get(), f->get() + f->size(), std::nan(""));
  SSMSuffStat_set_zero(s.get(), p, k);
  for (auto* f : fields)
    for (std::size_t i = 0; i < f->size(); ++i) EXPECT_EQ((*f)[i], 0.0);
}
