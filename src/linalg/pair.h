#pragma once
// Two doubles side by side, as the vector registers of most machines hold
// them. Its arithmetic is that of the two doubles on their own, so that a
// loop written for one double gives the same results two at a time.

#include <cstring>

namespace tarn {

using Pair = double __attribute__((vector_size(2 * sizeof(double))));

inline Pair load_pair(const double* x) {
  Pair v;
  std::memcpy(&v, x, sizeof v);
  return v;
}

inline void store_pair(double* x, Pair v) {
  std::memcpy(x, &v, sizeof v);
}

}  // namespace tarn
