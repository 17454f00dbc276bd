#pragma once
// The one random stream of a run: the 31-bit multiplicative congruential
// generator x(n+1) = 1132489760 x(n) mod (2^31 - 1), read as uniform doubles or
// as Gaussians through the inverse error function. One raw value per number.

#include <cstdint>
#include <memory>

namespace tarn {

struct RandomStream {
  std::uint32_t x;           // next raw value, in 1 .. 2147483646
  std::uint32_t multiplier;  // 1132489760
};

// Status values of the draws.
enum {
  RANDOM_OK = 0,
  RANDOM_BAD_STREAM = -1,
  RANDOM_BAD_COUNT = -2,
  RANDOM_BAD_BUFFER = -3,
  RANDOM_BAD_PARAMETER = -4
};

// Creates the stream from a 32-bit seed and stores it in cell. Returns a status.
int RandomStream_new(std::unique_ptr<RandomStream>* cell, std::uint32_t seed);

// r[i] = x * ((b - a) / (2^31 - 1)) + a for n raw values x.
int RandomStream_uniform(RandomStream* stream, int n, double* r, double a, double b);

// r[i] = a + sigma * sqrt(2) * erfinv(u), u uniform on (-1, 1).
int RandomStream_gaussian(RandomStream* stream, int n, double* r, double a, double sigma);

// Inverse of the error function on (-1, 1), good to double precision.
double erfinv(double x);

}  // namespace tarn
