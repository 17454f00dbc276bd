// The run's random stream against values worked out by hand, and the inverse
// error function behind its Gaussians against the extended-precision one.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "linalg/random_stream.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

TEST(RandomStream, RawValuesUniformsAndGaussiansOfOneSequence) {
  RandomStream s(39);
  const std::uint32_t raw[] = {39, 1217427700, 22707093, 564725488, 1573805335};
  const double uniform[] = {-0.9999999636784196, 0.1338179005001754, -0.9788523716753592,
                            -0.47405840431994684, 0.46572043721830503};
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(s.next_raw(), raw[i]) << "before draw " << i;
    double u = 0.0;
    s.uniform({&u, 1}, -1.0, 1.0);
    EXPECT_NEAR(u, uniform[i], 2e-16) << "draw " << i;
  }
  RandomStream g(39);
  double x = 0.0;
  g.gaussian({&x, 1}, 0.0, 1.0);
  EXPECT_NEAR(x, -5.5079, 1e-4);
  EXPECT_EQ(g.next_raw(), raw[1]);
  // An empty range or no spread draws nothing: the values stay as they were.
  g.uniform({&x, 1}, 0.5, 0.5);
  g.gaussian({&x, 1}, 0.5, 0.0);
  EXPECT_EQ(g.next_raw(), raw[1]);
  EXPECT_NEAR(x, -5.5079, 1e-4);
  for (std::uint32_t seed : {0u, 2147483647u, 4294967295u})
    EXPECT_EQ(RandomStream(seed).next_raw(), 1u);
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
}
