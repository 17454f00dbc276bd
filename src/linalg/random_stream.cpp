#include "linalg/random_stream.h"

#include <cmath>
#include <limits>

namespace tarn {

namespace {

constexpr std::uint32_t kModulus = 2147483647u;
constexpr std::uint32_t kMultiplier = 1132489760u;
constexpr double kScale = 1.0 / 2147483647.0;
constexpr double kSqrt2 = 1.4142135623730951;
constexpr double kTwoOverSqrtPi = 1.1283791670955126;

// A first guess good to about single precision.
double erfinv_guess(double x) {
  double w = -std::log((1.0 - x) * (1.0 + x));
  double p = 0.0;
  if (w < 5.0) {
    w -= 2.5;
    p = 2.81022636e-08;
    p = 3.43273939e-07 + p * w;
    p = -3.5233877e-06 + p * w;
    p = -4.39150654e-06 + p * w;
    p = 0.00021858087 + p * w;
    p = -0.00125372503 + p * w;
    p = -0.00417768164 + p * w;
    p = 0.246640727 + p * w;
    p = 1.50140941 + p * w;
  } else {
    w = std::sqrt(w) - 3.0;
    p = -0.000200214257;
    p = 0.000100950558 + p * w;
    p = 0.00134934322 + p * w;
    p = -0.00367342844 + p * w;
    p = 0.00573950773 + p * w;
    p = -0.0076224613 + p * w;
    p = 0.00943887047 + p * w;
    p = 1.00167406 + p * w;
    p = 2.83297682 + p * w;
  }
  return p * x;
}

}  // namespace

double erfinv(double x) {
  if (std::isnan(x) || x < -1.0 || x > 1.0) return std::numeric_limits<double>::quiet_NaN();
  if (x == 1.0) return std::numeric_limits<double>::infinity();
  if (x == -1.0) return -std::numeric_limits<double>::infinity();
  if (x == 0.0) return x;
  // Solve for y > 0 with |x|, refining the guess by Halley steps. Away from
  // zero the residual is taken through erfc, whose value keeps its precision
  // where erf is close to 1.
  const double ax = std::fabs(x);
  const bool tail = ax > 0.5;
  const double target = tail ? 1.0 - ax : ax;  // exact for ax > 0.5
  double y = erfinv_guess(ax);
  // Two to four steps settle y over most of the range; within about 3e-15
  // of the ends the first guess is poor and more are needed.
  for (int iter = 0; iter < 12; ++iter) {
    const double slope = kTwoOverSqrtPi * std::exp(-y * y);
    const double f = tail ? target - std::erfc(y) : std::erf(y) - target;
    const double dy = f / slope;
    y -= dy / (1.0 + y * dy);
    if (std::fabs(dy) <= 1e-17 * y) break;
  }
  return x < 0.0 ? -y : y;
}

RandomStream::RandomStream(std::uint32_t seed) : x_(seed % kModulus) {
  if (x_ == 0) x_ = 1;
}

void RandomStream::uniform(std::span<double> r, double a, double b) {
  if (r.empty() || a >= b) return;
  const double s = (b - a) * kScale;
  std::uint64_t x = x_;
  for (double& value : r) {
    value = static_cast<double>(x) * s + a;
    x = x * kMultiplier % kModulus;
  }
  x_ = static_cast<std::uint32_t>(x);
}

void RandomStream::gaussian(std::span<double> r, double mean, double sigma) {
  if (r.empty() || sigma <= 0.0) return;
  uniform(r, -1.0, 1.0);
  for (double& value : r) value = erfinv(value);
  const double t = sigma * kSqrt2;
  for (double& value : r) value = mean + t * value;
}

}  // namespace tarn
