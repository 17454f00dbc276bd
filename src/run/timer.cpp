#include "run/timer.h"

#include <cstdio>

namespace tarn {

std::string format_duration(double seconds) {
  const double rounded = seconds + 0.5;
  // Truncation to a 32-bit int; out-of-range values are pinned to its limits.
  int n = 0;
  if (rounded >= 2147483647.0) {
    n = 2147483647;
  } else if (rounded > -2147483648.0) {
    n = static_cast<int>(rounded);
  } else if (rounded <= -2147483648.0) {
    n = -2147483647 - 1;
  }
  const int m = n / 60;
  const int h = m / 60;
  char text[80];
  std::snprintf(text, sizeof text, "%d day %02d hour %02d min %02d sec", h / 24, h % 24, m % 60,
                n % 60);
  return text;
}

}  // namespace tarn
