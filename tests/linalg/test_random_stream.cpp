// The run's random stream: its raw sequence, the uniform and Gaussian
// readings, the argument checks, and the inverse error function behind the
// Gaussians, checked against the extended-precision error function.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "linalg/random_stream.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

std::unique_ptr<RandomStream> stream_of(std::uint32_t seed) {
  std::unique_ptr<RandomStream> cell;
  EXPECT_EQ(RandomStream_new(&cell, seed), RANDOM_OK);
  return cell;
}

}  // namespace

TEST(RandomStream, Seed39RawValuesUniformsAndFirstGaussian) {
  auto s = stream_of(39);
  const std::uint32_t raw[] = {39, 1217427700, 22707093, 564725488, 1573805335};
  const double uniform[] = {-0.9999999636784196, 0.1338179005001754, -0.9788523716753592,
                            -0.47405840431994684, 0.46572043721830503};
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(s->x, raw[i]) << "before draw " << i;
    double u = 0.0;
    ASSERT_EQ(RandomStream_uniform(s.get(), 1, &u, -1.0, 1.0), RANDOM_OK);
    EXPECT_NEAR(u, uniform[i], 2e-16) << "draw " << i;
  }
  double g = 0.0;
  auto fresh = stream_of(39);
  ASSERT_EQ(RandomStream_gaussian(fresh.get(), 1, &g, 0.0, 1.0), RANDOM_OK);
  EXPECT_NEAR(g, -5.5079, 1e-4);
  EXPECT_EQ(fresh->x, raw[1]);
  for (std::uint32_t seed : {0u, 1u, 2147483647u, 4294967295u}) EXPECT_EQ(stream_of(seed)->x, 1u);
}

// One raw value per number, whatever the kind of draw; a refused draw moves
// nothing, and each call fails the first check in the order stream, count,
// buffer, parameter.
TEST(RandomStream, DrawsShareOneSequenceAndRefusalsTouchNothing) {
  auto split = stream_of(12345), whole = stream_of(12345), uniform = stream_of(12345);
  std::vector<double> a(6), b(6), c(6);
  RandomStream_gaussian(split.get(), 3, a.data(), 0.5, 2.0);
  RandomStream_gaussian(split.get(), 3, a.data() + 3, 0.5, 2.0);
  RandomStream_gaussian(whole.get(), 6, b.data(), 0.5, 2.0);
  RandomStream_uniform(uniform.get(), 6, c.data(), 3.0, 4.0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(split->x, uniform->x);

  auto s = stream_of(777);
  const std::uint32_t x0 = s->x;
  double r[2] = {42.0, 42.0};
  const int status[] = {RandomStream_uniform(s.get(), 0, nullptr, 1.0, 0.0),
                        RandomStream_gaussian(s.get(), 0, r, 0.0, -1.0),
                        RandomStream_uniform(nullptr, -1, nullptr, 1.0, 0.0),
                        RandomStream_gaussian(s.get(), -1, nullptr, 0.0, 0.0),
                        RandomStream_uniform(s.get(), 2, nullptr, 1.0, 0.0),
                        RandomStream_gaussian(s.get(), 2, r, 0.0, 0.0),
                        RandomStream_uniform(s.get(), 2, r, 1.0, 1.0)};
  EXPECT_EQ(std::vector<int>(status, status + 7),
            (std::vector<int>{RANDOM_OK, RANDOM_OK, RANDOM_BAD_STREAM, RANDOM_BAD_COUNT,
                              RANDOM_BAD_BUFFER, RANDOM_BAD_PARAMETER, RANDOM_BAD_PARAMETER}));
  EXPECT_TRUE(r[0] == 42.0 && r[1] == 42.0 && s->x == x0);
  // NaN fails neither sigma <= 0 nor a >= b.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(RandomStream_gaussian(s.get(), 1, r, 0.0, nan), RANDOM_OK);
  EXPECT_EQ(RandomStream_uniform(s.get(), 1, r + 1, nan, 1.0), RANDOM_OK);
  EXPECT_TRUE(std::isnan(r[0]) && std::isnan(r[1]));
}

TEST(RandomStream, ErfinvInvertsErrorFunction) {
  // Relative error of y: one Newton step in extended precision, through erfc
  // near the ends, where 1 - x is exact.
  auto error = [](double x, double y) {
    const long double ly = y, ax = std::fabs(static_cast<long double>(x));
    const long double f = ax > 0.5L ? (1.0L - ax) - std::erfc(std::fabs(ly))
                                    : std::erf(ly) - static_cast<long double>(x);
    return static_cast<double>(std::fabs(f / (1.1283791670955125739L * std::exp(-ly * ly)) / ly));
  };
  std::vector<double> xs = {1e-300, 1e-20, -1e-12};
  for (int i = -999; i <= 999; ++i) xs.push_back(i / 1000.0 + 0.000123);
  for (double gap : {2.0 / 2147483647.0, 1e-9, 1e-12, 1e-15, 1.1102230246251565e-16}) {
    xs.push_back(1.0 - gap);
    xs.push_back(-1.0 + gap);
  }
  for (double x : xs) {
    const double y = erfinv(x);
    EXPECT_EQ(std::signbit(y), std::signbit(x)) << x;
    EXPECT_LT(error(x, y), 2e-15) << "x = " << x;
  }
  EXPECT_NEAR(erfinv(1.0 - 2.0 / 2147483647.0) * 1.4142135623730951, 6.1208, 1e-4);
}
