// The E-step sums against sums formed here from the textbook filter and
// smoother, the M-step against its closed form from those sums, and the EM
// loop: a likelihood that never falls, and its stopping rules.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <vector>

#include "core/dense_reference.h"
#include "core/em.h"

using namespace dense_ref;

namespace {

// The E-step and the EM loop on a data set, with products made for it.
double run_e_step(const StateSpaceModel& model, const DataSet& data, EmBuffers* buffers) {
  const EmData em_data(data);
  BatchProducts products(data.p, em_data.columns(), model.k(), 1);
  return e_step(model, em_data, buffers, &products);
}

Estimate run_em_on(const EmSettings& em, const DataSet& data, StateSpaceModel* model,
                   EmBuffers* buffers, std::FILE* log) {
  const EmData em_data(data);
  BatchProducts products(data.p, em_data.columns(), model->k(), 1);
  return run_em(em, em_data, model, buffers, &products, log);
}

struct Sums {
  Mat x0, yy, yx, xx_obs, xx_lag, xx_prev;
  double llh = 0.0;
};

// Observed rows of a sample from the data, missing rows by their conditional
// expectations R[m] + h P h' and h P, with P = Vs + Xs Xs'.
Sums reference_sums(const Model& m, const Data& d) {
  Sums s{Mat(m.k, 1), Mat(m.p, 1), Mat(m.p, m.k), Mat(m.k, m.k), Mat(m.k, m.k), Mat(m.k, m.k)};
  auto outer = [](const Mat& a, const Mat& b) { return mul(a, tr(b)); };
  for (std::size_t r = 0; r < d.sample_at.size(); ++r) {
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

void expect_sums(const SufficientStats& got, const Sums& want) {
  const std::pair<const Matrix*, const Mat*> fields[] = {
      {&got.sum_x0, &want.x0},         {&got.sum_yy, &want.yy},
      {&got.sum_yx, &want.yx},         {&got.sum_xx_observed, &want.xx_obs},
      {&got.sum_xx_lag, &want.xx_lag}, {&got.sum_xx_previous, &want.xx_prev}};
  for (std::size_t f = 0; f < 6; ++f) {
    ASSERT_EQ(fields[f].first->size(), fields[f].second->a.size());
    expect_close(fields[f].first->data(), *fields[f].second, "sum", f);
  }
}

}  // namespace

// Time points without a sample count in the lagged sums only; an empty series
// sums the initial states alone; a column no time point reads (the earlier of
// a repeated replicate and time) counts in no sum.
TEST(EStep, SumsAgreeWithTextbookSmoother) {
  std::mt19937_64 rng(2024);
  for (int p : {2, 7}) {
    EmBuffers buffers(p, 9, 8, false);  // reused by the smaller cases, stale sums and all
    for (int k : {9, 3, 1}) {
      for (int T : {8, 0}) {
        SCOPED_TRACE(testing::Message() << "k=" << k << " p=" << p << " T=" << T);
        const Model m = random_model(p, k, rng);
        const Data d = random_series(p, T, 3, rng);
        // An unread first column of large values shifts the others by one.
        const auto data = to_data(d);
        std::vector<int> none_missing = {-1};
        std::vector<std::vector<int>> shifted = d.sample_at;
        data->Y.insert(data->Y.begin(), static_cast<std::size_t>(p), 1e6);
        data->missing.insert(data->missing.begin(), none_missing.data());
        ++data->n_samples;
        for (std::size_t r = 0; r < shifted.size(); ++r) {
          for (int& col : shifted[r]) col += col >= 0 ? 1 : 0;
          data->sample_at[r] = shifted[r].data();
        }
        const double llh = run_e_step(*to_ssm(m), *data, &buffers);
        const Sums want = reference_sums(m, d);
        EXPECT_NEAR(llh, want.llh, 1e-9 * std::max(1.0, std::fabs(want.llh)));
        expect_sums(buffers.total_sums, want);
      }
    }
  }
}

// Past a few thousand objects the E-step forms its terms and products block
// by block. Its likelihood must be that of the direct-form filter, which
// sweeps every object at every time point, and the sums of each object must
// not depend on where the blocks cut the objects: here, in reverse order.
// Nor may they depend on the other starts of a batch.
TEST(EStep, BlocksOfObjectsChangeNoSum) {
  std::mt19937_64 rng(31);
  const int p = 2 * kProductRows + 300, k = 3, T = 6;
  const Model m = random_model(p, k, rng);
  const Data d = random_series(p, T, 2, rng);
  Model rm = m;
  Data rd;  // the reverse of d
  rd.p = p;
  rd.T = T;
  rd.sample_at = d.sample_at;
  rd.n_samples = d.n_samples;
  rd.Y.assign(d.Y.size(), 0.0);
  rd.lists.assign(d.lists.size(), {});
  rd.missing.clear();
  const auto reverse = [&](int i) { return p - 1 - i; };
  for (int i = 0; i < p; ++i) {
    for (int j = 0; j < k; ++j) rm.H(reverse(i), j) = m.H(i, j);
    rm.R.a[static_cast<std::size_t>(reverse(i))] = m.R.a[static_cast<std::size_t>(i)];
    for (int s = 0; s < d.n_samples; ++s) {
      rd.Y[static_cast<std::size_t>(reverse(i) + s * p)] = d.Y[static_cast<std::size_t>(i + s * p)];
    }
  }
  for (std::size_t s = 0; s < d.lists.size(); ++s) {
    for (const int i : d.lists[s]) {
      if (i >= 0) rd.lists[s].insert(rd.lists[s].begin(), reverse(i));
    }
    rd.lists[s].push_back(-1);
    rd.missing.push_back(rd.lists[s].data());
  }

  const auto data = to_data(d);
  const auto reversed = to_data(rd);
  EmBuffers forward_sums(p, k, T, false), reverse_sums(p, k, T, false);
  const double llh = run_e_step(*to_ssm(m), *data, &forward_sums);
  const double reverse_llh = run_e_step(*to_ssm(rm), *reversed, &reverse_sums);

  Trajectory s(k, T);
  Workspace work(p, k, false);
  double direct = 0.0;
  for (int r = 0; r < 2; ++r) direct += run_filter(*to_ssm(m), replicate_view(*data, r), &s, &work);
  EXPECT_NEAR(llh, direct, 1e-10 * std::fabs(direct));
  EXPECT_NEAR(reverse_llh, direct, 1e-10 * std::fabs(direct));

  const SufficientStats& a = forward_sums.total_sums;
  const SufficientStats& b = reverse_sums.total_sums;
  // The sums cancel down to a thousandth of their terms, which are of order 1.
  const auto close = [](double x, double y) {
    return std::fabs(x - y) <= 1e-10 * std::fabs(y) + 1e-9;
  };
  for (int i = 0; i < p; ++i) {
    ASSERT_TRUE(close(a.sum_yy(i, 0), b.sum_yy(reverse(i), 0))) << "object " << i;
    for (int j = 0; j < k; ++j) {
      ASSERT_TRUE(close(a.sum_yx(i, j), b.sum_yx(reverse(i), j))) << "object " << i << ", " << j;
    }
  }
  for (int e = 0; e < k * k; ++e) {
    EXPECT_TRUE(close(a.sum_xx_observed.data()[e], b.sum_xx_observed.data()[e]));
    EXPECT_TRUE(close(a.sum_xx_lag.data()[e], b.sum_xx_lag.data()[e]));
  }

  // The model beside another start in a batch, whose product with the states
  // of a block serves both: the sums of each start as it runs alone.
  const auto ssm = to_ssm(m);
  const auto other = to_ssm(random_model(p, k, rng));
  const StateSpaceModel* models[] = {ssm.get(), other.get()};
  EmBuffers first(p, k, T, false), second(p, k, T, false), other_alone(p, k, T, false);
  EmBuffers* const batch_buffers[] = {&first, &second};
  const EmData em_data(*data);
  BatchProducts products(p, em_data.columns(), k, 2);
  double batch_llh[2];
  e_step_batch(models, em_data, batch_buffers, &products, batch_llh);
  const double other_llh = run_e_step(*other, *data, &other_alone);
  EXPECT_NEAR(batch_llh[0], llh, 1e-12 * std::fabs(llh));
  EXPECT_NEAR(batch_llh[1], other_llh, 1e-12 * std::fabs(other_llh));
  const std::pair<const EmBuffers*, const EmBuffers*> pairs[] = {{&first, &forward_sums},
                                                                 {&second, &other_alone}};
  for (const auto& [got, want] : pairs) {
    for (int i = 0; i < p; ++i) {
      ASSERT_TRUE(close(got->total_sums.sum_yy(i, 0), want->total_sums.sum_yy(i, 0))) << i;
      for (int j = 0; j < k; ++j) {
        ASSERT_TRUE(close(got->total_sums.sum_yx(i, j), want->total_sums.sum_yx(i, j))) << i;
      }
    }
  }
}

// H = yx xx_obs^-1, F = xx_lag xx_prev^-1 (its diagonal pinned at g under the
// constraint), R row by row or their mean, exp the mean of the x0 sums. The
// 19 rows of k = 4 take every way through the rows solved side by side.
TEST(MStep, OnePassMatchesClosedForm) {
  struct Case {
    int update_mu, common_R, constrain_F;
    double g;
  };
  const Case cases[] = {{1, 0, 0, 0.0}, {0, 1, 0, 0.0}, {1, 0, 1, 0.8}, {1, 1, 1, -0.35}};
  std::mt19937_64 rng(11);
  for (const auto& [p, k] : {std::pair{6, 3}, {2, 3}, {11, 9}, {19, 4}}) {
    const Model m = random_model(p, k, rng);
    const Data d = random_series(p, 7, 2, rng);
    const auto data = to_data(d);
    EmBuffers sums_only(p, k, d.T, false);
    run_e_step(*to_ssm(m), *data, &sums_only);
    const SufficientStats& s = sums_only.total_sums;
    const Mat xx_obs(k, k, s.sum_xx_observed.data());
    const Mat H = mul(Mat(p, k, s.sum_yx.data()), inverse(xx_obs));
    const Mat F = mul(Mat(k, k, s.sum_xx_lag.data()), inverse(Mat(k, k, s.sum_xx_previous.data())));
    std::vector<double> R(static_cast<std::size_t>(p));
    double R_mean = 0.0;
    for (int i = 0; i < p; ++i) {
      double hyx = 0.0, hPh = 0.0;
      for (int j = 0; j < k; ++j) {
        hyx += H(i, j) * s.sum_yx(i, j);
        for (int l = 0; l < k; ++l) hPh += H(i, j) * xx_obs(j, l) * H(i, l);
      }
      R[static_cast<std::size_t>(i)] = (s.sum_yy[i] - 2.0 * hyx + hPh) / d.n_samples;
      R_mean += R[static_cast<std::size_t>(i)] / p;
    }

    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << "p=" << p << " k=" << k << " update_mu=" << c.update_mu
                                      << " common_R=" << c.common_R << " g=" << c.g);
      const EmSettings em{.common_R = c.common_R,
                          .update_mu = c.update_mu,
                          .constrain_F = c.constrain_F,
                          .constrain_Fg = c.g};
      EmBuffers buffers(p, k, d.T, c.constrain_F != 0);
      if (c.constrain_F != 0) prepare_F_constraint(&buffers.workspace, k);
      auto ssm = to_ssm(m);
      m_step(em, *data, s, ssm.get(), &buffers.workspace);
      expect_close(ssm->H.data(), H, "H", 0);
      for (int i = 0; i < k * k; ++i) {
        const bool pinned = c.constrain_F != 0 && i % (k + 1) == 0;
        EXPECT_NEAR(ssm->F[i], pinned ? c.g : F.a[static_cast<std::size_t>(i)],
                    pinned ? 1e-15 : 1e-9)
            << "F element " << i;
      }
      for (int i = 0; i < p; ++i) {
        const double want = c.common_R != 0 ? R_mean : R[static_cast<std::size_t>(i)];
        EXPECT_NEAR(ssm->R[i], want, 1e-9 * std::fabs(want));
      }
      for (int j = 0; j < k; ++j)
        EXPECT_NEAR(ssm->initial_mean[j], c.update_mu != 0 ? s.sum_x0[j] / 2.0 : m.exp.a[j], 1e-12);
    }
  }
}

// EM never lowers the likelihood (verbose 2 logs each pass), and the loop
// stops as its settings say.
TEST(EM, LikelihoodNeverFallsAndTheLoopStopsAsSet) {
  std::mt19937_64 rng(21);
  const int p = 3, k = 2;
  const Model m = random_model(p, k, rng);
  const Data d = random_series(p, 12, 2, rng);
  auto data = to_data(d);
  EmBuffers buffers(p, k, d.T, true);
  prepare_F_constraint(&buffers.workspace, k);
  const EmSettings em{.converge = 0.0, .em_loop = 30, .constrain_F = 0, .verbose = 2};
  std::FILE* log = std::tmpfile();
  Estimate res = run_em_on(em, *data, to_ssm(m).get(), &buffers, log);
  EXPECT_TRUE(res.loops == 30 && !res.converged && res.monotone);
  std::rewind(log);
  double prev = -HUGE_VAL, llh = 0.0;
  for (int i = 1, n = 0; std::fscanf(log, "(%d) llh = %lf\n", &n, &llh) == 2; ++i, prev = llh) {
    EXPECT_EQ(n, i);
    EXPECT_GE(llh, prev - 1e-9 * std::fabs(prev)) << "pass " << i;
  }
  std::fclose(log);

  // A limit of one pass makes no M-step; a huge tolerance stops at the first
  // difference (about DBL_MAX); a NaN cell stops the loop at the first pass
  // beyond a tenth of the limit; the diagonal of F pinned at 5 lowers the
  // likelihood, which ends the loop unless changes count as absolute values.
  struct Stop {
    int em_loop;
    double converge;
    bool nan_cell;
    int constrain_F, abs_converge, loops;
    bool converged, monotone;
  };
  for (const Stop& s :
       {Stop{1, 1e-5, false, 0, 1, 1, false, true}, Stop{40000, 1e300, false, 0, 1, 2, true, true},
        Stop{40000, 1e-5, true, 0, 1, 4002, false, true}, Stop{0, 1e-5, true, 0, 1, 2, false, true},
        Stop{3, 0.0, false, 1, 0, 2, true, false}, Stop{3, 0.0, false, 1, 1, 3, false, true}}) {
    SCOPED_TRACE(testing::Message() << "em_loop " << s.em_loop << " F " << s.constrain_F);
    const EmSettings stop{.converge = s.converge,
                          .em_loop = s.em_loop,
                          .abs_converge = s.abs_converge,
                          .constrain_F = s.constrain_F,
                          .constrain_Fg = 5.0};  // far outside the stable range
    data->Y[0] = s.nan_cell ? std::numeric_limits<double>::quiet_NaN() : d.Y[0];
    auto ssm = to_ssm(m);
    res = run_em_on(stop, *data, ssm.get(), &buffers, stderr);
    EXPECT_EQ(res.loops, s.loops);
    EXPECT_TRUE(res.converged == s.converged && res.monotone == s.monotone);
    if (s.em_loop == 1) {
      EXPECT_TRUE(same_bits(ssm->H.data(), m.H.a.data(), p * k));
    }
  }
}
