// The checks before an estimation, through the real binary: runs that could
// never end, cells and labels read in doubt, and jobs too large for the
// machine each get one clear line at once, and runs that estimate nothing get
// none of them.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "io/set_lock.h"
#include "run_binary.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

// GCC 12 takes "literal" + std::string for an overlapping copy (a known false
// positive of -Wrestrict at -O3).
#pragma GCC diagnostic ignored "-Wrestrict"

namespace {

// Three objects over two replicates of three time points, then extra rows.
std::string table(const std::string& extra_rows = "") {
  return "@time\t1\t2\t3\t1\t2\t3\n@replicate\t1\t1\t1\t2\t2\t2\n"
         "a\t0.5\t1.2\t-0.3\t0.7\t1.1\t0.9\n"
         "b\t-0.1\t0.4\t0.3\t0.2\tNaN\t0.1\n"
         "c\t1.5\t-1.0\t0.2\t0.1\t0.3\t-0.8\n" +
         extra_rows;
}

struct Case {
  std::string input;  // the table; a model file too, after "--ssm" in the arguments
  std::vector<std::string> args;
  int status;
  std::string line;  // the first WARNING/ERROR line the run prints, in full or its start
};

// The lines of log that begin with "WARNING: " or "ERROR: ".
std::vector<std::string> flagged(const std::string& log) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at < log.size()) {
    const std::size_t end = log.find('\n', at);
    const std::string line = log.substr(at, end - at);
    if (line.starts_with("WARNING: ") || line.starts_with("ERROR: ")) out.push_back(line);
    at = end == std::string::npos ? log.size() : end + 1;
  }
  return out;
}

void expect_cases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    std::string trace = c.input.substr(c.input.rfind('\n', c.input.size() - 2) + 1);
    for (const auto& a : c.args) trace += " " + a;
    SCOPED_TRACE(trace);
    tarn_test::ScratchDir dir;
    const std::size_t model = c.input.find("\f");  // a form feed parts table and model
    tarn_test::write_text(dir / "in.txt", c.input.substr(0, model));
    if (model != std::string::npos) tarn_test::write_text(dir / "m.txt", c.input.substr(model + 1));
    std::vector<std::string> args = c.args;
    args.push_back("in.txt");
    const tarn_test::RunResult r = tarn_test::run_tarnssm(args, dir.path());
    EXPECT_EQ(r.signal, 0);
    EXPECT_EQ(r.status, c.status) << r.err;
    const std::vector<std::string> lines = flagged(r.err);
    if (c.line.empty()) {
      EXPECT_TRUE(lines.empty()) << r.err;
    } else {
      ASSERT_FALSE(lines.empty()) << r.err;
      EXPECT_TRUE(lines[0].starts_with(c.line)) << lines[0];
    }
  }
}

const std::vector<std::string> kQuick = {"-n", "1", "-l", "20", "-d", "1"};

std::vector<std::string> quick(std::vector<std::string> more) {
  more.insert(more.begin(), kQuick.begin(), kQuick.end());
  return more;
}

}  // namespace

TEST(Preflight, RunsThatCouldNeverEnd) {
  const std::string no_variance =
      " object has no positive, finite variance to start from (no observed value, a single one, "
      "constant values, or values too large): \"z\" (line 6). Every start fails on such an "
      "object: remove these rows, or try another --shift.";
  const std::string empty_row = table("z\tNaN\tnan\tNaN\tNaN\tNaN\tNaN\n");
  const std::string huge = "1 cell is not finite or too large to square in double precision";
  expect_cases({
      {empty_row, quick({}), 1, "ERROR: 1" + no_variance},
      {table("z\t2\t2\t2\t2\t2\t2\n"), quick({}), 1, "ERROR: 1" + no_variance},
      {table("z\t2\tNaN\tNaN\t3\tNaN\tNaN\n"), quick({"--retry", "-2"}), 1, "ERROR: 1"},
      {empty_row, quick({"--retry", "0"}), 0, "WARNING: 1" + no_variance},
      {empty_row, quick({"--threads", "2"}), 1, "ERROR: 1" + no_variance},
      {empty_row, quick({"--sge", "-i", "1", "-L", "2"}), 1, "ERROR: 1" + no_variance},
      {table("z\tinf\t1\t2\t3\t4\t5\n"), quick({}), 1,
       "ERROR: " + huge + " (first at line 6, column 2: read as inf)"},
      {table("z\t1e200\t1\t2\t3\t4\t5\n"), quick({}), 1, "ERROR: " + huge},
      // Runs that estimate nothing are not checked.
      {empty_row, {"-n", "0"}, 0, ""},
      {empty_row, {"-s", "0"}, 0, ""},
      {empty_row, {"--sge", "-i", "2", "-L", "2"}, 0, "WARNING: ID exceeded the total sets."},
      // Option values; those that change nothing are not checked.
      {table(), quick({"-g", "nan"}), 1, "ERROR: The value of -g/--constrain-Fg is not a finite"},
      {table(), quick({"--SD", "nan"}), 1, "ERROR: The value of --SD is not a finite number: nan."},
      {table(), quick({"--mu", "inf"}), 1, "ERROR: The value of --mu is not a finite number: inf."},
      {table(), quick({"--F-max", "nan"}), 1, "ERROR: The value of --F-max is not"},
      {table(), quick({"-c", "inf"}), 1, "ERROR: The value of -c/--converge is not"},
      {table(), quick({"--H-SD", "nan", "--ridge", "inf", "-F", "off", "-g", "nan"}), 0, ""},
      // What no check foresees ends after a hundred failed attempts, in every mode.
      {table(), quick({"--H-mean", "1e300"}), 1, "ERROR: 100 attempts of a start (dim=1)"},
      {table(), quick({"--H-mean", "1e300", "--threads", "2"}), 1, "ERROR: 100 attempts"},
      {table(), quick({"--H-mean", "1e300", "--sge", "-L", "2"}), 1, "ERROR: 100 attempts"},
  });
}

TEST(Preflight, CellsAndLabelsReadInDoubt) {
  const std::string header = "@time\t1\t2\t3\n";
  const std::string rows = "a\t1\t2\t3\nb\t3\t1\t2\n";
  const std::string years = [] {
    std::string t = "@time", row = "a";
    for (int y = 1960; y <= 2013; ++y) {
      t += "\t" + std::to_string(y);
      row += "\t" + std::to_string(y % 7);
    }
    return t + "\n" + row + "\n" + row + "1\n";
  }();
  const struct {
    std::string input;
    std::string line;  // after "WARNING: " (or "ERROR: " under --strict)
  } cases[] = {
      {header + "e\t1.0\t\t3.0\n" + rows,
       "1 empty cell takes the number of the next cell (first at line 2, column 3: read as 3)"},
      {header + rows + "c\t1,5\t2\t3\nd\t2.0abc\t1\t1\n",
       "2 cells have text after their number, which is ignored (first at line 4, column 2: "
       "\"1,5\" read as 1)"},
      {"@time\t1\t2\t2\n" + rows,
       "1 column repeats the (replicate, time) pair of an earlier column (first at line 1, column "
       "4: replicate 1, time 2)"},
      {"@time\t1\t1.5\t3\n" + rows,
       "1 time label is not a whole number (first at line 1, column 3: \"1.5\" read as 1)"},
      {"@time\t1\t2\t3\n@replicate\t1\t\t2\n" + rows,
       "1 replicate label is not a whole number (first at line 2, column 3: \"\" read as 2)"},
      {years, "The largest time label is 2013 (line 1) for 54 distinct time labels"},
  };
  for (const auto& c : cases) {
    expect_cases({{c.input, quick({"--retry", "1"}), 0, "WARNING: " + c.line},
                  {c.input, quick({"--strict"}), 1, "ERROR: " + c.line},
                  {c.input, {"-n", "0", "--strict"}, 0, ""}});
  }
  expect_cases({
      {"@time\t1\t4294967297\n" + rows,
       {"-n", "0"},
       1,
       "ERROR: Label too large for an integer at line 1, column 3: \"4294967297\"."},
      // Gaps that a design means are no doubt.
      {"@time\t1\t2\t4\t8\t24\na\t1\t2\t3\t4\t5\nb\t2\t1\t4\t3\t5\n", quick({}), 0, ""},
  });
}

TEST(Preflight, JobsTooLargeForTheMachineAreRefusedBeforeAllocating) {
  std::string wide = "@time\t2147483646", replicates = "@replicate\t0", row = "a\t1";
  for (int r = 1; r < 450; ++r) {
    wide += "\t1";
    replicates += "\t" + std::to_string(r);
    row += "\t1";
  }
  expect_cases({
      {wide + "\n" + replicates + "\n" + row + "\n", {"-n", "0"}, 1, "ERROR: The job needs about "},
      {table(), {"-n", "0", "-d", "2000000000"}, 1, "ERROR: The job needs about "},
      {table(), {"-d", "3000", "--threads", "100000", "-s", "1"}, 1, "ERROR: The job needs about"},
      {table() + "\fSM\n-p_1\t23222",
       {"--ssm", "m.txt"},
       1,
       "ERROR: SSM dimensions too large: p = 0, dim = 23222 (the model needs at least 82.0 GB"},
      {table() + "\fx\n2147483647\t2147483647\n",
       {"--ssm", "m.txt"},
       1,
       "ERROR: SSM dimensions too large: p = 2147483647, dim = 2147483647"},
  });
}

TEST(Preflight, ResultSetsOfAnotherRunAndFoldersThatTakeNoFiles) {
  tarn_test::ScratchDir dir;
  // This process holds set 2 of dimension 1, as another run would.
  SetLocks held;
  const SetId other[] = {{1, 2}};
  const std::string prefix = (dir / "run").string();
  ASSERT_EQ(take_set_locks(prefix.c_str(), "dat", other, &held), "");
  const std::string pid = std::to_string(getpid());
  expect_cases({
      {table(), quick({"-s", "2", "-o", prefix}), 1,
       "ERROR: Another run (pid " + pid + ") is writing result set D001.S002 of prefix"},
      {table(), quick({"-s", "2", "-o", prefix, "--threads", "2"}), 1, "ERROR: Another run"},
      // An array task whose set is not another's goes on beside it.
      {table(), quick({"-s", "2", "-o", prefix, "--sge", "-i", "2", "-L", "2"}), 0, ""},
      {table(), quick({"-s", "2", "-o", prefix, "--sge", "-i", "1", "-L", "2"}), 1,
       "ERROR: Another run"},
      {table(), quick({"-o", "no/such/folder/run"}), 1,
       "ERROR: Cannot write to the output folder of prefix \"no/such/folder/run\""},
  });
}
