// The stopwatch and the duration format of the log.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Timer.h"

namespace {

std::string printed(double seconds) {
  char* buf = nullptr;
  std::size_t size = 0;
  std::FILE* mem = open_memstream(&buf, &size);
  Timer_print(seconds, mem);
  std::fclose(mem);
  std::string text(buf, size);
  std::free(buf);
  return text;
}

}  // namespace

TEST(TimerPrint, RoundsHalfUpAndSplitsIntoUnits) {
  const struct {
    double seconds;
    const char* text;
  } cases[] = {
      {90061.4, "1 day 01 hour 01 min 01 sec"},
      {59.5, "0 day 00 hour 01 min 00 sec"},
      {59.4999, "0 day 00 hour 00 min 59 sec"},
      {0.0, "0 day 00 hour 00 min 00 sec"},
      {0.49, "0 day 00 hour 00 min 00 sec"},
      {3599.5, "0 day 01 hour 00 min 00 sec"},
      {86399.0, "0 day 23 hour 59 min 59 sec"},
      {3 * 86400.0 + 10 * 3600 + 5 * 60 + 7, "3 day 10 hour 05 min 07 sec"},
      {12 * 86400.0, "12 day 00 hour 00 min 00 sec"},
  };
  for (const auto& c : cases) EXPECT_EQ(printed(c.seconds), c.text) << c.seconds;
}

TEST(Timer, NewStartStopGet) {
  Timer t = Timer_new();
  EXPECT_EQ(t.elapsed, 0.0);
  EXPECT_EQ(t.running, 0);
  EXPECT_EQ(t.type, 0);
  EXPECT_EQ(Timer_get(&t), 0.0);

  Timer_start(&t);
  EXPECT_EQ(t.running, 1);
  t.start.seconds -= 10;  // pretend the start lay ten seconds back
  const double running = Timer_get(&t);
  EXPECT_GE(running, 10.0);
  EXPECT_LT(running, 1000.0);
  EXPECT_EQ(t.running, 1);  // a read changes nothing

  Timer_stop(&t);
  EXPECT_EQ(t.running, 0);
  const double stopped = t.elapsed;
  EXPECT_GE(stopped, running);
  EXPECT_EQ(Timer_get(&t), stopped);
  Timer_stop(&t);  // not running: no change
  EXPECT_EQ(t.elapsed, stopped);
  EXPECT_EQ(Timer_get(&t), stopped);

  Timer_start(&t);  // a restart drops what was accumulated
  EXPECT_EQ(t.running, 1);
  EXPECT_LT(Timer_get(&t), 10.0);
  Timer_stop(&t);
  EXPECT_LT(t.elapsed, 10.0);
}

TEST(Timer, ProcessorTime) {
  Timer t = Timer_new();
  t.type = 1;
  Timer_start(&t);
  t.cpu_start -= 2000000;  // two seconds of ticks at one million per second
  EXPECT_GE(Timer_get(&t), 2.0);
  Timer_stop(&t);
  EXPECT_GE(t.elapsed, 2.0);
  EXPECT_LT(t.elapsed, 100.0);
  EXPECT_EQ(t.running, 0);
}

TEST(TimerDeathTest, IllegalTypeFailsAtStopOrRead) {
  Timer t = Timer_new();
  t.type = 2;
  Timer_start(&t);  // reads no clock and does not fail
  EXPECT_EQ(t.running, 1);
  EXPECT_EXIT(Timer_stop(&t), testing::ExitedWithCode(1),
              "^ERROR: Timer: illegal timer type\\.\n$");
  t.type = -1;
  EXPECT_EXIT(Timer_get(&t), testing::ExitedWithCode(1), "^ERROR: Timer: illegal timer type\\.\n$");
  t.running = 0;  // even a stopped timer reads its clock
  EXPECT_EXIT(Timer_get(&t), testing::ExitedWithCode(1), "illegal timer type");
}
