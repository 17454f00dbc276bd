#include "run/timer.h"

#include <sys/time.h>

#include "io/log.h"

namespace tarn {

namespace {

TimerInstant wall_now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return {static_cast<std::int64_t>(tv.tv_sec), static_cast<std::int64_t>(tv.tv_usec)};
}

// Seconds since the last start, reading the clock that the type selects.
double since_start(const Timer* timer) {
  if (timer->type == 0) {
    const TimerInstant now = wall_now();
    return static_cast<double>(now.seconds - timer->start.seconds) +
           static_cast<double>(now.microseconds - timer->start.microseconds) * 1e-6;
  }
  if (timer->type == 1) {
    return static_cast<double>(std::clock() - timer->cpu_start) * 1e-6;
  }
  tarn_fatal("ERROR: Timer: illegal timer type.\n");
}

}  // namespace

Timer Timer_new() {
  return Timer{{0, 0}, 0, 0.0, 0, 0};
}

void Timer_start(Timer* timer) {
  timer->elapsed = 0.0;
  timer->running = 0;
  if (timer->type == 0) {
    timer->start = wall_now();
  } else if (timer->type == 1) {
    timer->cpu_start = std::clock();
  }
  timer->running = 1;
}

void Timer_stop(Timer* timer) {
  const double delta = since_start(timer);
  if (timer->running == 1) {
    timer->elapsed += delta;
    timer->running = 0;
  }
}

double Timer_get(Timer* timer) {
  const double delta = since_start(timer);
  return timer->running == 0 ? timer->elapsed : timer->elapsed + delta;
}

void Timer_print(double seconds, std::FILE* stream) {
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
  std::fprintf(stream, "%d day %02d hour %02d min %02d sec", h / 24, h % 24, m % 60, n % 60);
}

}  // namespace tarn
