// The starts of a set side by side against the same starts one at a time, on
// the firm table with a retry policy that fails some starts: the same log,
// draw for draw (a failed start draws again where it ended, and the starts
// after it in its batch draw again), and the same best within 1e-9.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "io/read_table.h"
#include "run/em_starts.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

struct SetRun {
  std::string log;
  double llh = 0.0;
  std::vector<double> H, R, F;
};

SetRun run_set(const EmData& data, int batch) {
  const EmSettings em{.em_loop = 30, .abs_converge = 0, .retry = 3, .verbose = 1};
  InitialModelSettings init;
  init.stream = std::make_unique<RandomStream>(7);
  StartGuard guard(em.retry);
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* log = open_memstream(&text, &size);
  const StartContext context{em, init, data, log, &guard, true};
  EstimationRecords rec(data, 2, em, batch);
  rec.prepare_F_constraint(2);
  const Result<Estimate> best = estimate_set(context, PlannedSet{2, 0, 1}, 6, &rec);
  std::fclose(log);
  SetRun out;
  out.log.assign(text, size);
  std::free(text);
  EXPECT_TRUE(best.ok());
  if (!best.ok()) return out;
  const StateSpaceModel& m = *best->model;
  out.llh = best->log_likelihood;
  out.H.assign(m.H.data(), m.H.data() + m.H.size());
  out.R.assign(m.R.data(), m.R.data() + m.R.size());
  out.F.assign(m.F.data(), m.F.data() + m.F.size());
  return out;
}

void expect_close(const std::vector<double>& got, const std::vector<double>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    EXPECT_NEAR(got[i], want[i], 1e-9 * std::fabs(want[i])) << "entry " << i;
}

}  // namespace

TEST(Batches, StartsSideBySideRunAsStartsOneAtATime) {
  std::FILE* quiet = std::tmpfile();
  const auto table = read_table_file(TARN_EXAMPLES_DIR "/data/grunfeld-11firms.txt", quiet);
  std::fclose(quiet);
  ASSERT_TRUE(table.ok());
  const EmData data(*table.value());
  const SetRun alone = run_set(data, 1);
  // Starts fail before the last of the batch, some more than once.
  ASSERT_LT(alone.log.find("Retrying (1)"), alone.log.find("5: Loops"));
  ASSERT_NE(alone.log.find("Retrying (2)"), std::string::npos);
  for (int batch : {4, 8}) {
    SCOPED_TRACE(batch);
    const SetRun side_by_side = run_set(data, batch);
    EXPECT_EQ(side_by_side.log, alone.log);
    EXPECT_NEAR(side_by_side.llh, alone.llh, 1e-9 * std::fabs(alone.llh));
    expect_close(side_by_side.H, alone.H);
    expect_close(side_by_side.R, alone.R);
    expect_close(side_by_side.F, alone.F);
  }
}
