// The restarts of one set: progress lines and the best model, replayed on a
// twin stream; the retry rule and its messages; the empty result.

#include <gtest/gtest.h>

#include <cfloat>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "Args.h"
#include "em/SSM_EM.h"
#include "em/em_fixtures.h"
#include "model/SSM_init.h"

using namespace dense_ref;
using em_test::LogCapture;
using em_test::Records;

namespace {

const char* const kWarning = "WARNING: Retry count exceeded the limitation.";

struct Fixture {
  int p = 4, k = 2;
  std::mt19937_64 rng;
  Data d;
  std::unique_ptr<SSMData> data;
  std::unique_ptr<SSMInit> init = SSMInit_new(), twin = SSMInit_new();
  std::unique_ptr<SSM> a = SSM_new(p, k), b = SSM_new(p, k);
  Records rec{p, k, 6, 0};
  SSMEMParam em;
  explicit Fixture(std::uint32_t seed) : rng(seed), d(random_series(p, 6, 2, rng)) {
    em_test::simulate_into(random_model(p, k, rng), d, rng);
    data = em_test::to_data(d);
    RandomStream_new(init->stream.get(), seed);
    RandomStream_new(twin->stream.get(), seed);
    em.em_loop = 15;
    em.constrain_F = 0;
  }
  SSMResult iterate(int iterations) {
    return SSM_EM_iterate(&em, init.get(), iterations, data.get(), k, a.get(), b.get(),
                          rec.state.get(), rec.each.get(), rec.total.get(), rec.work.get());
  }
  std::uint32_t x() const { return init->stream->get()->x; }
  // Where the stream stands after the given number of initial models.
  std::uint32_t x_after(int models) {
    std::vector<double> skip(static_cast<std::size_t>(models * (k * p + k * k)));
    RandomStream_uniform(twin->stream->get(), static_cast<int>(skip.size()), skip.data(), 0, 1);
    return twin->stream->get()->x;
  }
};

bool starts(const std::string& line, const std::string& head) {
  return line.rfind(head, 0) == 0;
}

}  // namespace

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
    Records rec(set.p, set.k, set.d.T, 0);
    const SSMResult r = SSM_EM_algo(&set.em, models.back().get(), rec.state.get(), rec.each.get(),
                                    rec.total.get(), set.data.get(), set.k, rec.work.get());
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

TEST(Restart, RetryZeroWarnsAfterEveryEstimation) {
  Fixture set(44);
  set.em.retry = 0;
  LogCapture log;
  set.iterate(2);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(lines[0] == kWarning && starts(lines[1], "1: Loops="));
  EXPECT_TRUE(lines[2] == kWarning && starts(lines[3], "2: Loops="));
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
    const std::vector<std::string> head = {"Estimation failed.  Retrying (1)...",
                                           "Estimation failed.  Retrying (2)...", kWarning};
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 3), head);
    EXPECT_TRUE(starts(lines[3], "1: Loops=3, Likelihood=") &&
                lines[3].find("nan") != std::string::npos)
        << lines[3];
    // NaN never beats the empty result; every attempt drew a model of its own.
    EXPECT_TRUE(res.llh == -DBL_MAX && res.loops == -1);
    EXPECT_EQ(set.x(), set.x_after(3));
  }
  // With no retries allowed a failed attempt is let through at once.
  set.em.retry = 0;
  LogCapture log;
  set.iterate(1);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0] == kWarning && starts(lines[1], "1: Loops=3, Likelihood="));
}

TEST(Restart, NoIterationsGiveTheEmptyResult) {
  Fixture set(46);
  const std::uint32_t x = set.x();
  LogCapture log;
  const SSMResult res = set.iterate(0);
  EXPECT_TRUE(res.llh == -DBL_MAX && res.BIC == -DBL_MAX && res.loops == -1);
  EXPECT_TRUE(res.p == -1 && res.k == -1 && res.monotone == 0 && res.converged == 0);
  EXPECT_TRUE(res.ssm == set.b.get() && res.D == nullptr && res.L == nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(set.x(), x);
}
