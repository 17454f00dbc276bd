// The sum of logarithms through the product of significands against one
// logarithm per number.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "linalg/log_sum.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

// Ordinary numbers over 600 decades and at the ends of the range, and the
// numbers without a finite logarithm (-inf, NaN or +inf), added into two sums
// renormalised as often as they must be, then merged.
TEST(LogSum, MatchesOneLogarithmPerNumber) {
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> decade(-300.0, 300.0);
  std::vector<double> many(5000);
  for (double& v : many) v = std::pow(10.0, decade(rng));
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<std::vector<double>> cases = {
      {},
      many,
      {1.0, 2.0, 0.5, 1.0 - 1e-16, 1.0 + 1e-15, DBL_MIN, DBL_MAX},
      {2.0, 0.0},
      {2.0, -1.0},
      {-1.0, -2.0},
      {inf, 1.0},
      {0.0, inf},
      {std::nan(""), 1.0},
      {DBL_MIN / 1024.0, 5.0},
      {4.9e-324}};
  for (const auto& x : cases) {
    LogSum sums[2];
    double want = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i) {
      sums[i % 2].add(log_factor(x[i]));
      if ((i / 2 + 1) % LogSum::kMaxFactors == 0) sums[i % 2].renormalise();
      want += std::log(x[i]);
    }
    sums[0].add(sums[1]);
    const double got = sums[0].value();
    if (std::isnan(want)) {
      EXPECT_TRUE(std::isnan(got)) << x.size();
    } else if (std::isinf(want)) {
      EXPECT_EQ(got, want);
    } else {
      EXPECT_NEAR(got, want, 1e-13 * (1.0 + std::fabs(want))) << x.size();
    }
  }
}

}  // namespace
