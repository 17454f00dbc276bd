// The stopwatch and the duration format of the log.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "run/timer.h"
#include "text_stream.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

TEST(Timer, PrintRoundsHalfUpAndSplitsIntoUnits) {
  const struct {
    double seconds;
    const char* text;
  } cases[] = {
      {0.49, "0 day 00 hour 00 min 00 sec"},          {59.4999, "0 day 00 hour 00 min 59 sec"},
      {59.5, "0 day 00 hour 01 min 00 sec"},          {3599.5, "0 day 01 hour 00 min 00 sec"},
      {86399.0, "0 day 23 hour 59 min 59 sec"},       {90061.4, "1 day 01 hour 01 min 01 sec"},
      {12 * 86400.0, "12 day 00 hour 00 min 00 sec"},
  };
  for (const auto& c : cases) {
    std::FILE* fp = std::tmpfile();
    Timer_print(c.seconds, fp);
    EXPECT_EQ(tarn_test::text_of(fp), c.text) << c.seconds;
    std::fclose(fp);
  }
}

TEST(Timer, StartStopAndRead) {
  Timer t = Timer_new();
  EXPECT_EQ(Timer_get(&t), 0.0);
  Timer_start(&t);
  t.start.seconds -= 10;  // pretend the start lay ten seconds back
  const double running = Timer_get(&t);
  EXPECT_GE(running, 10.0);
  EXPECT_LT(running, 1000.0);
  Timer_stop(&t);
  const double stopped = Timer_get(&t);
  EXPECT_GE(stopped, running);
  Timer_stop(&t);  // not running: no change
  EXPECT_EQ(Timer_get(&t), stopped);
  Timer_start(&t);  // a restart drops what was accumulated
  EXPECT_LT(Timer_get(&t), 10.0);
}
