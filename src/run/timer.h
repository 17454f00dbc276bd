#pragma once
// A wall-clock stopwatch in seconds, and the day/hour/min/sec form of the log.

#include <chrono>
#include <string>

namespace tarn {

class Stopwatch {
 public:
  Stopwatch() { restart(); }
  void restart() { start_ = Clock::now(); }
  double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_;
};

// "%d day %02d hour %02d min %02d sec" of seconds rounded to the nearest one.
std::string format_duration(double seconds);

}  // namespace tarn
