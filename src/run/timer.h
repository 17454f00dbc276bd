#pragma once
// Wall-clock or processor-time stopwatch in seconds.

#include <cstdint>
#include <cstdio>
#include <ctime>

namespace tarn {

struct TimerInstant {
  std::int64_t seconds;
  std::int64_t microseconds;
};

struct Timer {
  TimerInstant start;
  std::clock_t cpu_start;
  double elapsed;
  int running;
  int type;  // 0: wall clock (gettimeofday), 1: processor time (clock)
};

Timer Timer_new();
void Timer_start(Timer* timer);
void Timer_stop(Timer* timer);
double Timer_get(Timer* timer);

// Prints "%d day %02d hour %02d min %02d sec", with no line end.
void Timer_print(double seconds, std::FILE* stream);

}  // namespace tarn
