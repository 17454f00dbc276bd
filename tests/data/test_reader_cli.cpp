// The input reader as the real program runs it: exact log text and exit status
// for good and broken tables. Runs that get past the reader use "-n 0", so that
// the estimation has no starts and ends at once.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "run_binary.h"

namespace {

const char kReading[] = "Reading input data file: in.txt\n";

tarn_test::RunResult run_on(const std::string& table, std::vector<std::string> args = {}) {
  tarn_test::ScratchDir dir;
  tarn_test::write_text(dir / "in.txt", table);
  args.insert(args.end(), {"-n", "0", "in.txt"});
  return tarn_test::run_tarnssm(args, dir.path());
}

std::string summary(int samples, int objects, int T, int replicates) {
  return "--- INPUT DATA ---------\n observed samples = " + std::to_string(samples) +
         "\n objects = " + std::to_string(objects) + "\n time points = " + std::to_string(T) +
         "\n replicates = " + std::to_string(replicates) + "\n------------------------\n";
}

}  // namespace

TEST(ReaderCli, BrokenTablesEndWithOneMessageAndStatusOne) {
  const struct {
    const char* what;
    std::string table;
    std::string log;  // everything after the "Reading input data file" line
  } cases[] = {
      {"empty last cell", "@time\t1\t2\na\t1\t\n",
       "ERROR: Inconsistent number of columns: line 2\n     :   2 (previous) vs 1 (now).\n"},
      {"row starting with a tab", "@time\t1\t2\n\t1\t2\n",
       "ERROR: Inconsistent number of columns: line 2\n     :   2 (previous) vs 1 (now).\n"},
      {"previous is the header's count", "@time\t1\t2\na\t1\t2\nb\t1\t2\t3\nc\t1\n",
       "ERROR: Inconsistent number of columns: line 3\n     :   2 (previous) vs 3 (now).\n"},
      {"trailing empty line", "# c\n@time\t1\t2\na\t1\t2\n\n",
       "ERROR: Inconsistent number of columns: line 4\n     :   2 (previous) vs 0 (now).\n"},
      {"blank line among the data", "@time\t1\t2\na\t1\t2\n \t \nb\t3\t4\n",
       "ERROR: Inconsistent number of columns: line 3\n     :   2 (previous) vs 0 (now).\n"},
      {"empty line after the header", "@time\t1\t2\n\na\t1\t2\n",
       "ERROR: Inconsistent number of columns: line 2\n     :   2 (previous) vs 0 (now).\n"},
      {"empty line before the header", "\n@time\t1\t2\na\t1\t2\n",
       "ERROR: Inconsistent number of columns: line 2\n     :   0 (previous) vs 2 (now).\n"},
      {"blank before the comment mark", " # note\n@time\t1\t2\t3\na\t1\t2\t3\n",
       "ERROR: Inconsistent number of columns: line 2\n     :   0 (previous) vs 3 (now).\n"},
      {"header line in the data", "@time\t1\t2\na\t1\t2\n@replicate\t1\n",
       "ERROR: Inconsistent number of columns: line 3\n     :   2 (previous) vs 1 (now).\n"},
      {"NA with comments counted", "# one\n@time\t1\t2\n#three\na\t1\t2\n# five\nb\tNA\t2\n",
       "ERROR: Unrecognizable character found at line 6\n"},
      {"text cell", "@time\t1\na\tabc\n", "ERROR: Unrecognizable character found at line 2\n"},
      {"time and replicate lines differ", "@time\t1\t2\t3\n@replicate\t1\t1\na\t1\t2\t3\n",
       "ERROR: Inconsistent number of columns: line 2\n"},
      {"replicate line longer", "#\n@replicate\t1\t1\n@time\t1\na\t1\n",
       "ERROR: Inconsistent number of columns: line 3\n"},
      {"header without a tab", "@time\t1\t2\n@replicate\na\t1\t2\n",
       "ERROR: Header line without a tab: line 2\n"},
      {"dollar line without a tab in the header", "@time\t1\n$PrimaryKeyGroupID\na\t1\n",
       "ERROR: Header line without a tab: line 2\n"},
      {"time label zero", "@time\t1\t0\na\t1\t2\n",
       "ERROR: Time label out of range: 0 (time labels count from 1).\n"},
      {"negative time label", "@time\t-4\t1\na\t1\t2\n",
       "ERROR: Time label out of range: -4 (time labels count from 1).\n"},
      {"negative replicate label", "@time\t1\t2\n@replicate\t1\t-3\na\t1\t2\n",
       "ERROR: Negative replicate label: -3.\n"},
  };
  for (const auto& c : cases) {
    const auto r = run_on(c.table);
    EXPECT_EQ(r.signal, 0) << c.what;
    EXPECT_EQ(r.status, 1) << c.what;
    EXPECT_EQ(tarn_test::after_banner(r.err), kReading + c.log) << c.what;
  }
}

TEST(ReaderCli, TimeLineWithoutReplicatesOrRowsIsRefused) {
  const auto r = run_on("@time\t1\t2\n");
  EXPECT_EQ(r.signal, 0);
  EXPECT_EQ(r.status, 1);
  const std::string log = tarn_test::after_banner(r.err);
  EXPECT_EQ(log.rfind(std::string(kReading) + "ERROR: The columns have no replicate labels: ", 0), 0u)
      << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
}

TEST(ReaderCli, FileThatCannotBeOpened) {
  tarn_test::ScratchDir dir;
  const auto r = tarn_test::run_tarnssm({"no-such-file.txt"}, dir.path());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(tarn_test::after_banner(r.err),
            "Reading input data file: no-such-file.txt\nERROR: Cannot open file: no-such-file.txt\n");
}

TEST(ReaderCli, TablesWithoutObjectsOrSamplesStopAfterTheSummary) {
  const struct {
    std::string table;
    std::string block;
  } cases[] = {
      {"", summary(0, 0, -2147483647, 0)},
      {"@time\t1\t2\n@replicate\t1\t1\n", summary(2, 0, 2, 1)},
      {"a\nb\n", summary(0, 2, -2147483647, 1)},
  };
  for (const auto& c : cases) {
    const auto r = run_on(c.table);
    EXPECT_EQ(r.signal, 0);
    EXPECT_EQ(r.status, 1);
    const std::string tail = c.block + "ERROR: The input data has no objects or no samples.\n";
    ASSERT_GE(r.err.size(), tail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail) << r.err;
  }
}

TEST(ReaderCli, TableFromStandardInput) {
  tarn_test::ScratchDir dir;
  const auto r = tarn_test::run_tarnssm(
      {"-n", "0"}, dir.path(),
      "$PrimaryKeyGroupID\thour\n$Unknown\tx\n$broken\n@hour\t1\t2\t3\t1\t2\t3\n"
      "$SecondaryKeyGroupID\tignored\n@replicate\t1\t1\t1\t2\t2\t2\n"
      "obj1\t0.5\t1.2\tNaN\t0.7\t1.1\t0.9\r\nobj2\t-0.1\t0.0\t0.3\t0.2\tNaN\t0.1");
  EXPECT_EQ(r.status, 0);
  const std::string log = tarn_test::after_banner(r.err);
  EXPECT_EQ(log.rfind("Reading input data from the standard input.\n"
                      "  $PrimaryKeyGroupID: \"hour\"\n"
                      "WARNING: Unsupported meta data key: $Unknown\n"
                      "WARNING: Broken meta data line found. Skip...\n"
                      "Applying mean shift for the input data set.\n",
                      0),
            0u)
      << log;
  // The "$" line inside the header changed nothing: two replicates.
  EXPECT_NE(log.find(summary(6, 2, 3, 2)), std::string::npos) << log;
}

TEST(ReaderCli, ShiftOptionDecidesTheShiftLine) {
  const struct {
    const char* value;
    bool shifted;
  } cases[] = {{"0", false}, {"-1", false}, {"1", true}, {"2", true}, {"3", true}};
  for (const auto& c : cases) {
    const auto r = run_on("@time\t1\t2\na\t1\t2\n", {"--shift", c.value});
    EXPECT_EQ(r.status, 0) << c.value;
    const std::string log = tarn_test::after_banner(r.err);
    const std::string line = "Applying mean shift for the input data set.\n";
    EXPECT_EQ(log.find(std::string(kReading) + line) == 0, c.shifted) << c.value << "\n" << log;
    EXPECT_EQ(log.find(line) != std::string::npos, c.shifted) << c.value;
  }
}
