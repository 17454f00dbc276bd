#include "run/start_guard.h"

namespace tarn {

std::string StartGuard::message(int k) {
  return "ERROR: " + std::to_string(kMaxFailuresInARow) +
         " attempts of a start (dim=" + std::to_string(k) +
         ") failed in a row before any start of the run succeeded. Likely causes: option values "
         "far from the scale of the data (--H-mean, --F-min, --F-max, --mu, --SD), data values "
         "too large or too small to square, or --abs-converge off, under which any fall of the "
         "likelihood fails an attempt. Give --retry N to let such a run go on.";
}

}  // namespace tarn
