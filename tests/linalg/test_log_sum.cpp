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

// The numbers added in runs of at most kMaxFactors, two sums merged.
double log_sum(const std::vector<double>& x) {
  LogSum first, second;
  for (std::size_t i = 0; i < x.size(); ++i) {
    LogSum& to = i % 2 == 0 ? first : second;
    to.add(x[i]);
    if ((i / 2 + 1) % LogSum::kMaxFactors == 0) to.renormalise();
  }
  first.add(second);
  return first.value();
}

double plain_sum(const std::vector<double>& x) {
  double sum = 0.0;
  for (const double v : x) sum += std::log(v);
  return sum;
}

TEST(LogSum, MatchesOneLogarithmPerNumber) {
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> exponent(-300.0, 300.0);
  for (const int n : {0, 1, 7, 5000}) {
    std::vector<double> x(static_cast<std::size_t>(n));
    for (double& v : x) v = std::pow(10.0, exponent(rng));
    // Values near one, where the significands are all close to 1 or 2.
    if (n == 7) x = {1.0, 2.0, 0.5, 1.0 - 1e-16, 1.0 + 1e-15, DBL_MIN, DBL_MAX};
    const double want = plain_sum(x);
    EXPECT_NEAR(log_sum(x), want, 1e-13 * (1.0 + std::fabs(want))) << n;
  }
}

TEST(LogSum, NumbersWithoutAFiniteLogarithmGiveWhatLogGives) {
  const double inf = std::numeric_limits<double>::infinity();
  const double subnormal = DBL_MIN / 1024.0;
  const std::vector<std::vector<double>> cases = {
      {2.0, 0.0, 3.0}, {2.0, -1.0},         {-1.0, -2.0},     {inf, 1.0},
      {0.0, inf},      {std::nan(""), 1.0}, {subnormal, 5.0}, {4.9e-324}};
  for (const auto& x : cases) {
    const double want = plain_sum(x);
    const double got = log_sum(x);
    if (std::isnan(want)) {
      EXPECT_TRUE(std::isnan(got));
    } else if (std::isinf(want)) {
      EXPECT_EQ(got, want);
    } else {
      EXPECT_NEAR(got, want, 1e-13 * std::fabs(want));
    }
  }
}

}  // namespace
