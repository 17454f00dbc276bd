// The scheduler mode (--sge) through the real binary: one set per process,
// picked by -i, logged to a file of its own; the ids past the job; and an
// array of such jobs run one after another covering what the thread mode
// writes for the same job.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "run_binary.h"

namespace fs = std::filesystem;
using tarn_test::read_text;
using tarn_test::run_tarnssm;
using tarn_test::RunResult;
using tarn_test::ScratchDir;

namespace {

// 3 objects, 11 replicates of 20 time points.
const fs::path kData = fs::path(TARN_EXAMPLES_DIR) / "data" / "grunfeld-11firms.txt";

RunResult run(const ScratchDir& dir, std::vector<std::string> args) {
  fs::copy_file(kData, dir / "data.txt", fs::copy_options::overwrite_existing);
  args.insert(args.end(), {"-l", "30", "data.txt"});
  return run_tarnssm(args, dir.path());
}

// Files in dir whose names begin with "result.", sorted.
std::vector<std::string> result_files(const ScratchDir& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("result.", 0) == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> set_files(int k, int set) {
  char stem[64];
  std::snprintf(stem, sizeof stem, "result.D%03d.S%03d.", k, set);
  return {stem + std::string("A.dat"), stem + std::string("B.dat"), stem + std::string("K.dat")};
}

// The mode's opening lines, up to and with the id.
std::string opening(int total, int id) {
  const std::string stars(35, '*');
  return "Reading input data file: data.txt\nApplying mean shift for the input data set.\n" +
         stars + "\n**   Single SGE Execution Mode   **\n" + stars +
         "\n  Total Sets = " + std::to_string(total) + "\n\n  ID = " + std::to_string(id) + "\n";
}

const std::string kSummary =
    "--- INPUT DATA ---------\n observed samples = 220\n objects = 3\n time points = 20\n"
    " replicates = 11\n------------------------\n";

// The log after the banner and before the total time, with every likelihood
// written as "#" and every loop count as "N".
std::string body(const std::string& log) {
  std::string text = tarn_test::after_banner(log);
  const auto end = text.find("All time: ");
  EXPECT_NE(end, std::string::npos) << log;
  if (end == std::string::npos) return text;
  EXPECT_TRUE(std::regex_match(text.substr(end),
                               std::regex(R"(All time: \d+ day \d\d hour \d\d min \d\d sec\n)"
                                          R"(X-ALL-TIME:\t\d+\.\d{6}\n)")));
  text = std::regex_replace(text.substr(0, end), std::regex(R"(-?\d+\.\d{6}\b)"), "#");
  return std::regex_replace(text, std::regex(R"(Loops=\d+)"), "Loops=N");
}

}  // namespace

TEST(SchedulerMode, WorksOneSetIntoTheLogOfItsId) {
  ScratchDir dir;
  const RunResult r = run(dir, {"-d", "2,3", "-s", "2", "-i", "3", "-n", "3", "--sge"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  // Id 3 of 2 sets is the first set of dim 3, numbered 3 % 2 + 1 = 2.
  auto want_files = set_files(3, 2);
  want_files.push_back("result.log.000003");
  ASSERT_EQ(result_files(dir), want_files);

  const std::string log = read_text(dir / "result.log.000003");
  EXPECT_EQ(body(log), opening(4, 3) + kSummary +
                           "[JobID:3] SGE Job dispatched. dim=3, set ID=3\n"
                           "Starting the SSM estimation.\n"
                           "1: Loops=N, Likelihood=#\n2: Loops=N, Likelihood=#\n"
                           "3: Loops=N, Likelihood=#\nFinished: dim=3, likelihood=#\n"
                           "Outputting the calculated state variables: result.D003.S002.K.dat\n"
                           "Outputting the result into a single file: result.D003.S002.A.dat\n"
                           "Outputting the summary file: result.D003.S002.B.dat\n\n");

  // The summary carries the likelihood that the log reports.
  const auto at = log.find("Finished: dim=3, likelihood=") + 28;
  const std::string llh = log.substr(at, log.find('\n', at) - at);
  const std::string summary = read_text(dir / "result.D003.S002.B.dat");
  EXPECT_EQ(summary.rfind("003\t002\t" + llh + "\t", 0), 0u) << summary;
}

TEST(SchedulerMode, ArrayOfJobsWritesWhatTheThreadModeWrites) {
  // Ids 1, 2 work on dim 2 and ids 3, 4 on dim 3; each dim's sets are
  // numbered id % sets + 1. --threads has no say here.
  struct Job {
    int id, k, set;
  };
  ScratchDir array;
  std::vector<std::string> want;
  for (const Job job : {Job{1, 2, 2}, Job{2, 2, 1}, Job{3, 3, 2}, Job{4, 3, 1}}) {
    const std::string id = std::to_string(job.id);
    SCOPED_TRACE("id " + id);
    const RunResult r =
        run(array, {"--threads", "4", "-d", "2,3", "-s", "2", "-n", "1", "--sge", "-i", id});
    ASSERT_EQ(r.status, 0);
    const std::string log = read_text(array / ("result.log.00000" + id));
    const std::string dispatched = "[JobID:" + id +
                                   "] SGE Job dispatched. dim=" + std::to_string(job.k) +
                                   ", set ID=" + id + "\n";
    EXPECT_EQ(body(log).rfind(opening(4, job.id) + kSummary + dispatched, 0), 0u) << log;
    for (const auto& name : set_files(job.k, job.set)) {
      EXPECT_NE(log.find(": " + name + "\n"), std::string::npos) << name;
      want.push_back(name);
    }
  }
  std::sort(want.begin(), want.end());
  auto got = result_files(array);
  std::erase_if(got, [](const std::string& name) { return name.rfind("result.log.", 0) == 0; });
  EXPECT_EQ(got, want);

  ScratchDir threads;
  ASSERT_EQ(run(threads, {"--threads", "2", "-d", "2,3", "-s", "2", "-n", "1"}).status, 0);
  EXPECT_EQ(result_files(threads), want);
}

TEST(SchedulerMode, IdPastTheJobQuitsNormally) {
  ScratchDir dir;
  const RunResult r = run(dir, {"-d", "2,3", "-s", "2", "-i", "5", "--sge"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  ASSERT_EQ(result_files(dir), std::vector<std::string>{"result.log.000005"});
  EXPECT_EQ(body(read_text(dir / "result.log.000005")),
            opening(4, 5) + "WARNING: ID exceeded the total sets.\n       : Going to quit.\n");
}

TEST(SchedulerMode, LogModeTwoLogsToStandardError) {
  ScratchDir dir;
  const RunResult r = run(dir, {"-d", "2,3", "-s", "2", "-i", "2", "-n", "1", "-L", "2", "--sge"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(result_files(dir), set_files(2, 1));
  EXPECT_EQ(body(r.err), opening(4, 2) + kSummary +
                             "[JobID:2] SGE Job dispatched. dim=2, set ID=2\n"
                             "Starting the SSM estimation.\n1: Loops=N, Likelihood=#\n"
                             "Finished: dim=2, likelihood=#\n"
                             "Outputting the calculated state variables: result.D002.S001.K.dat\n"
                             "Outputting the result into a single file: result.D002.S001.A.dat\n"
                             "Outputting the summary file: result.D002.S001.B.dat\n\n");
}

TEST(SchedulerMode, NoIterationsFailTheSet) {
  ScratchDir dir;
  const RunResult r = run(dir, {"-d", "2", "-s", "1", "-i", "1", "-n", "0", "--sge"});
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(result_files(dir), std::vector<std::string>{"result.log.000001"});
  const std::string log = read_text(dir / "result.log.000001");
  EXPECT_EQ(body(log), opening(1, 1) + kSummary +
                           "[JobID:1] SGE Job dispatched. dim=2, set ID=1\n"
                           "Starting the SSM estimation.\nFinished: dim=2, likelihood=#\n"
                           "Estimation failed for this set.\n\n");
  char finished[512];
  std::snprintf(finished, sizeof finished, "Finished: dim=2, likelihood=%f\n", -DBL_MAX);
  EXPECT_NE(log.find(finished), std::string::npos) << log;
}

TEST(SchedulerMode, BadIdOrDimIsFatal) {
  struct Case {
    std::string dims, id, tail;
  };
  for (const Case& c : {Case{"2,3", "0", "  ID = 0\nERROR: The job ID (-i) must be 1 or more: 0\n"},
                        Case{"0,3", "2",
                             "[JobID:2] SGE Job dispatched. dim=0, set ID=2\n"
                             "ERROR: State dimension must be 1 or more: 0\n"}}) {
    SCOPED_TRACE("-d " + c.dims + " -i " + c.id);
    ScratchDir dir;
    const RunResult r = run(dir, {"-d", c.dims, "-s", "2", "-i", c.id, "--sge"});
    EXPECT_EQ(r.status, 1);
    const std::string log_name = "result.log.00000" + c.id;
    ASSERT_EQ(result_files(dir), std::vector<std::string>{log_name});
    const std::string log = read_text(dir / log_name);
    ASSERT_GE(log.size(), c.tail.size());
    EXPECT_EQ(log.substr(log.size() - c.tail.size()), c.tail);
  }
}
