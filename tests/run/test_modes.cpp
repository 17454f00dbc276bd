// The execution modes through the real binary on 3 objects in 11 replicates
// of 20 time points: exact logs and files of whole, empty, failed and refused
// jobs; the thread mode's bookkeeping under many more tasks than threads; the
// scheduler and thread modes' files against the single mode's.

#include <gtest/gtest.h>

#include <cfloat>
#include <regex>

#include "io/read_back.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

using out_test::files_in;
using tarn_test::read_text;
using tarn_test::RunResult;
using tarn_test::ScratchDir;

namespace {

const std::string kData = TARN_EXAMPLES_DIR "/data/grunfeld-11firms.txt";
const std::string kSummary =
    "--- INPUT DATA ---------\n observed samples = 220\n objects = 3\n time points = 20\n"
    " replicates = 11\n------------------------\n";
const std::string kEnd = "All time: C\nX-ALL-TIME:\t#\n";
const std::string kLoop = std::string(40, '=') + "\n= Start the loop for dim=";

RunResult run(const ScratchDir& dir, std::vector<std::string> args) {
  args.insert(args.end(), {"-l", "30", kData});
  return tarn_test::run_tarnssm(args, dir.path());
}

// The log after the banner with clocks as "C", numbers of six decimals as "#"
// and loop counts as "N".
std::string masked(const std::string& log) {
  std::string text = tarn_test::after_banner(log);
  text = std::regex_replace(text, std::regex(R"(\d+ day \d\d hour \d\d min \d\d sec)"), "C");
  text = std::regex_replace(text, std::regex(R"(-?\d+\.\d{6}\b)"), "#");
  return std::regex_replace(text, std::regex(R"(Loops=\d+)"), "Loops=N");
}

std::string opening(const std::string& mode) {
  const std::string stars(mode.size() + 10, '*');
  return "Reading input data file: " + kData + "\nApplying mean shift for the input data set.\n" +
         stars + "\n**   " + mode + "   **\n" + stars + "\n";
}

std::string stem(int k, int set) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "result.D%03d.S%03d.", k, set);
  return buf;
}

// The log lines of an estimation of n starts, and those of its three files.
std::string estimation(int k, int n) {
  std::string text;
  for (int i = 1; i <= n; ++i) text += std::to_string(i) + ": Loops=N, Likelihood=#\n";
  return text + "Finished: dim=" + std::to_string(k) + ", likelihood=#\n";
}

std::string outputs(int k, int set) {
  return "Outputting the calculated state variables: " + stem(k, set) +
         "K.dat\nOutputting the result into a single file: " + stem(k, set) +
         "A.dat\nOutputting the summary file: " + stem(k, set) + "B.dat\n";
}

}  // namespace

TEST(Modes, WholeEmptyFailedAndRefusedJobs) {
  // Single mode: dims outer, sets inner.
  std::string whole = opening("Single Execution Mode") + kSummary + "Max dimemsion = 3\n";
  for (int k : {2, 3}) {
    whole += kLoop + std::to_string(k) + "\n";
    for (int s : {1, 2})
      whole += "Set " + std::to_string(s) + "...\n" + estimation(k, 2) + "C\nX-SINGLE-TIME:\t#\n" +
               outputs(k, s);
  }
  const std::string dim0 = "ERROR: State dimension must be 1 or more: 0\n";
  const std::string no_tasks =
      "Total single tasks = 0\n"
      "ERROR: The thread mode needs at least one set (-s) and one iteration (-n).\n";
  const struct {
    std::vector<std::string> args;
    int status;
    std::string tail;  // of the masked log
    std::size_t files = 0;
  } cases[] = {
      {{"-d", "2,3", "-s", "2", "-n", "2"}, 0, whole + "Going to exit.\n" + kEnd, 12},
      {{"-d", "2,3", "-s", "0"}, 0, kLoop + "2\n" + kLoop + "3\nGoing to exit.\n" + kEnd},
      {{"-d", "2", "-n", "0"},
       0,
       kLoop + "2\nSet 1...\n" + estimation(2, 0) +
           "C\nX-SINGLE-TIME:\t#\nEstimation failed for this set.\nGoing to exit.\n" + kEnd},
      {{"--threads", "2", "-d", "0,2", "-n", "2"}, 1, "Total single tasks = 4\n" + dim0},
      {{"--threads", "2", "-s", "0"}, 1, no_tasks},
      {{"--threads", "2", "-n", "0"}, 1, no_tasks},
      {{"--sge", "-d", "2,3", "-s", "2", "-i", "0"},
       1,
       "  Total Sets = 4\n\n  ID = 0\nERROR: The job ID (-i) must be 1 or more: 0\n"},
      {{"--sge", "-d", "2,3", "-s", "2", "-i", "5"},
       0,
       "**\n  Total Sets = 4\n\n  ID = 5\nWARNING: ID exceeded the total sets.\n"
       "       : Going to quit.\n" +
           kEnd},
      {{"--sge", "-d", "0,3", "-s", "2", "-i", "2"},
       1,
       "[JobID:2] SGE Job dispatched. dim=0, set ID=2\n" + dim0},
      {{"--sge", "-d", "2", "-n", "0"},
       0,
       "Starting the SSM estimation.\n" + estimation(2, 0) + "Estimation failed for this set.\n\n" +
           kEnd},
  };
  char lowest[512];  // a set without starts keeps the lowest likelihood
  std::snprintf(lowest, sizeof lowest, "Finished: dim=2, likelihood=%f\n", -DBL_MAX);
  for (const auto& c : cases) {
    ScratchDir dir;
    std::vector<std::string> args = c.args;
    args.insert(args.end(), {"-L", "2"});
    const RunResult r = run(dir, args);
    SCOPED_TRACE(r.err);
    EXPECT_EQ(r.status, c.status);
    EXPECT_TRUE(masked(r.err).ends_with(c.tail)) << c.tail;
    EXPECT_EQ(out_test::error_lines(r.err), c.status);
    EXPECT_EQ(r.err.find(lowest) != std::string::npos, c.tail.find("failed") != std::string::npos);
    EXPECT_EQ(files_in(dir.path()).size(), c.files);
  }
}

TEST(SchedulerMode, EachJobLogsItsSetAndWritesWhatTheSingleModeWrites) {
  // Ids 1, 2 work on dim 2 and ids 3, 4 on dim 3, each set numbered
  // id % sets + 1. A job draws as the single mode does under the same id.
  ScratchDir array;
  for (int id = 1; id <= 4; ++id) {
    const int k = id < 3 ? 2 : 3, set = id % 2 + 1;
    const std::string ids = std::to_string(id), ks = std::to_string(k);
    SCOPED_TRACE("id " + ids);
    ASSERT_EQ(run(array, {"--threads", "4", "-d", "2,3", "-s", "2", "-n", "2", "--sge", "-i", ids})
                  .status,
              0);
    EXPECT_EQ(masked(read_text(array / ("result.log.00000" + ids))),
              opening("Single SGE Execution Mode") + "  Total Sets = 4\n\n  ID = " + ids + "\n" +
                  kSummary + "[JobID:" + ids + "] SGE Job dispatched. dim=" + ks +
                  ", set ID=" + ids + "\nStarting the SSM estimation.\n" + estimation(k, 2) +
                  outputs(k, set) + "\n" + kEnd);
    ScratchDir single;
    ASSERT_EQ(run(single, {"-d", ks, "-n", "2", "-i", ids}).status, 0);
    for (const char* kind : {"A.dat", "K.dat"})
      EXPECT_EQ(read_text(array / (stem(k, set) + kind)), read_text(single / (stem(k, id) + kind)));
  }
  EXPECT_EQ(files_in(array.path()).size(), 4u * 4);
}

TEST(ThreadMode, ManyMoreTasksThanThreadsWriteEachSetOnceWithItsBest) {
  const struct {
    std::string threads;
    std::vector<int> dims;
    int sets, n, rounds;
  } jobs[] = {
      {"8", {1, 2, 3, 4}, 3, 5, 4},  // 60 tasks, repeated to shake out races
      {"6", {2, 3}, 1, 2, 1},        // more threads than tasks
      {"0", {2}, 2, 2, 1},           // the thread mode too, on the default team
      {"3", {1, 2}, 3, 1, 1},        // one task per set
  };
  const std::regex task(
      R"(\{(\d+)\} set=(\d+), dim=(\d+), likelihood=(\S+), loops=(\d+), finished=(\d+))");
  for (const auto& job : jobs) {
    std::string dims;
    for (int k : job.dims) dims += std::to_string(k) + ",";
    dims.pop_back();
    const int n_sets = static_cast<int>(job.dims.size()) * job.sets;
    for (int round = 0; round < job.rounds; ++round) {
      SCOPED_TRACE("--threads " + job.threads + " -d " + dims);
      ScratchDir dir;
      const RunResult r = run(dir, {"--threads", job.threads, "-d", dims, "-s",
                                    std::to_string(job.sets), "-n", std::to_string(job.n)});
      ASSERT_EQ(r.status, 0) << r.err;
      const std::string head = opening("Thread Execution Mode") +
                               "Number of threads = " + job.threads + "\n" + kSummary +
                               "Max dimemsion = " + std::to_string(job.dims.back()) +
                               "\nTotal single tasks = " + std::to_string(n_sets * job.n) + "\n";
      ASSERT_TRUE(masked(r.err).starts_with(head) && masked(r.err).ends_with(kEnd)) << r.err;

      // The lines after the head, without retries: they are printed outside the lock.
      std::vector<std::string> lines;
      for (const auto& line :
           out_test::split(tarn_test::after_banner(r.err).substr(head.size()), '\n'))
        if (!line.starts_with("Estimation failed.  Retrying")) lines.push_back(line);
      struct Set {
        int done = 0;
        double best = -DBL_MAX;
        std::string llh, loops;  // of the best task; empty while none had a normal likelihood
      };
      std::vector<Set> seen(n_sets + 1);
      std::set<std::string> files;
      for (std::size_t i = 0; i + 3 < lines.size(); ++i) {  // up to the closing time lines
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, task)) << lines[i];
        const int sid = std::stoi(m[2]);
        ASSERT_TRUE(sid >= 1 && sid <= n_sets) << lines[i];
        const int k = job.dims[(sid - 1) / job.sets], set_no = sid % job.sets + 1;
        Set& s = seen[sid];
        EXPECT_TRUE(job.threads == "0" || std::stoi(m[1]) < std::stoi(job.threads)) << lines[i];
        EXPECT_EQ(std::stoi(m[3]), k) << lines[i];
        EXPECT_EQ(std::stoi(m[6]), ++s.done) << lines[i];
        // A likelihood beating the set's best is announced at once; a tie in
        // six decimals may be.
        const double v = std::strtod(m[4].str().c_str(), nullptr);
        const bool updated =
            lines[i + 1] == "Best likelihood updated for set id = " + std::to_string(sid) + ".";
        EXPECT_TRUE(std::isnormal(v) && v >= s.best ? updated || v == s.best : !updated)
            << lines[i] << " after " << s.llh;
        if (updated) s = {s.done, v, m[4], m[5]}, ++i;
        if (s.done < job.n) continue;
        // The set's last task writes its files at once.
        if (s.llh.empty()) {
          EXPECT_EQ(lines[++i], "Estimation failed for this set.");
          continue;
        }
        EXPECT_EQ(lines[i + 1] + "\n" + lines[i + 2] + "\n" + lines[i + 3] + "\n",
                  outputs(k, set_no));
        i += 3;
        for (const char* kind : {"A", "B", "K"}) files.insert(stem(k, set_no) + kind + ".dat");
        const auto fields = out_test::split(read_text(dir / (stem(k, set_no) + "B.dat")), '\t');
        ASSERT_EQ(fields.size(), 7u);
        EXPECT_EQ(fields[2] + " " + fields[4], s.llh + " " + s.loops);
      }
      for (int sid = 1; sid <= n_sets; ++sid) EXPECT_EQ(seen[sid].done, job.n) << sid;
      EXPECT_EQ(files_in(dir.path()), files);
    }
  }
}

TEST(ThreadMode, SameDrawsAsTheSingleModeWhereTheirOrderCannotMatter) {
  auto files_of = [](const ScratchDir& dir) {
    std::map<std::string, std::string> files;
    for (const auto& name : files_in(dir.path())) files[name] = read_text(dir / name);
    return files;
  };
  // One task draws what the single mode draws; the best of one set's four
  // tasks cannot depend on which of them drew first.
  for (const std::string n : {"1", "4"}) {
    ScratchDir threads, single;
    ASSERT_EQ(run(threads, {"--threads", "2", "-d", "3", "-n", n}).status, 0);
    ASSERT_EQ(run(single, {"-d", "3", "-n", n}).status, 0);
    EXPECT_EQ(files_of(threads).size(), 3u);
    EXPECT_EQ(files_of(threads), files_of(single)) << n;
  }
  // Two dims: whichever task draws first, the run equals the single mode over
  // the dims in that order. A thread taking both rebuilds its F constraint.
  ScratchDir threads, forward, backward;
  ASSERT_EQ(run(threads, {"--threads", "2", "-d", "2,3", "-n", "1"}).status, 0);
  ASSERT_EQ(run(forward, {"-d", "2,3", "-n", "1"}).status, 0);
  ASSERT_EQ(run(backward, {"-d", "3,2", "-n", "1"}).status, 0);
  EXPECT_EQ(files_of(threads).size(), 6u);
  EXPECT_TRUE(files_of(threads) == files_of(forward) || files_of(threads) == files_of(backward));
}
