#pragma once
// The one random stream of a run: a 31-bit multiplicative congruential
// generator read as uniform or Gaussian doubles.

#include <cstdint>

struct RandomStream {
  std::uint32_t x;           // next raw value, in 1 .. 2147483646
  std::uint32_t multiplier;  // 1132489760
};
