#pragma once
// Number conversions of the command line, the input table and the model file,
// with the results of the POSIX atoi and atof: a leading numeric part counts,
// and a word with none gives 0.

#include <cerrno>
#include <cstdlib>

namespace tarn {

// atoi as the C library computes it: strtol, truncated to int.
inline int leading_int(const char* s) {
  const int saved = errno;
  const long v = std::strtol(s, nullptr, 10);
  errno = saved;
  return static_cast<int>(v);
}

inline double leading_double(const char* s) {
  const int saved = errno;
  const double v = std::strtod(s, nullptr);
  errno = saved;
  return v;
}

}  // namespace tarn
