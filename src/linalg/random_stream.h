#pragma once
// The one random stream of a run: the 31-bit multiplicative congruential
// generator x(n+1) = 1132489760 x(n) mod (2^31 - 1), read as uniform doubles or
// as Gaussians through the inverse error function. One raw value per number.

#include <cstdint>
#include <span>

namespace tarn {

class RandomStream {
 public:
  // A seed of 0 modulo 2^31 - 1 starts from 1.
  explicit RandomStream(std::uint32_t seed);

  // r[i] = x * ((b - a) / (2^31 - 1)) + a for raw values x; draws nothing
  // when a >= b.
  void uniform(std::span<double> r, double a, double b);

  // r[i] = mean + sigma * sqrt(2) * erfinv(u), u uniform on (-1, 1); draws
  // nothing when sigma <= 0.
  void gaussian(std::span<double> r, double mean, double sigma);

  // The next raw value, in 1 .. 2147483646.
  std::uint32_t next_raw() const { return x_; }

 private:
  std::uint32_t x_;
};

// Inverse of the error function on (-1, 1), good to double precision.
double erfinv(double x);

}  // namespace tarn
