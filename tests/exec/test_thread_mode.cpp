// The thread mode through the real binary: jobs of many more tasks than
// threads, run repeatedly to shake out races around the ticket counter and
// the table of best results; the edges of the team; agreement with the single
// mode where both draw the same random models.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
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

// 3 objects, 11 replicates of 20 time points: small enough for many runs.
const fs::path kData = fs::path(TARN_EXAMPLES_DIR) / "data" / "grunfeld-11firms.txt";
constexpr int kObjects = 3;
constexpr int kReplicates = 11;
constexpr int kTimes = 20;

RunResult run(const ScratchDir& dir, std::vector<std::string> args) {
  fs::copy_file(kData, dir / "data.txt", fs::copy_options::overwrite_existing);
  args.insert(args.end(), {"-l", "30", "data.txt"});
  return run_tarnssm(args, dir.path());
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    lines.push_back(text.substr(at, end - at));
  return lines;
}

std::vector<std::string> result_files(const ScratchDir& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("result.", 0) == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string file_name(int k, int set, const std::string& kind) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "result.D%03d.S%03d.%s.dat", k, set, kind.c_str());
  return buf;
}

// The log from reading the input to the first task, and its last two lines.
void expect_frame(const std::string& log, int threads, int max_k, int tasks) {
  const std::string stars(31, '*');
  const std::string head =
      "Reading input data file: data.txt\nApplying mean shift for the input data set.\n" + stars +
      "\n**   Thread Execution Mode   **\n" + stars +
      "\nNumber of threads = " + std::to_string(threads) +
      "\n--- INPUT DATA ---------\n observed samples = 220\n objects = 3\n time points = 20\n"
      " replicates = 11\n------------------------\nMax dimemsion = " +
      std::to_string(max_k) + "\nTotal single tasks = " + std::to_string(tasks) + "\n";
  EXPECT_EQ(log.substr(0, head.size()), head);
  EXPECT_TRUE(std::regex_search(log, std::regex(R"(\nAll time: \d+ day \d\d hour \d\d min \d\d sec)"
                                                R"(\nX-ALL-TIME:\t\d+\.\d{6}\n$)")));
  EXPECT_EQ(log.find("Going to exit."), std::string::npos);
}

struct SetSeen {
  int tasks = 0;
  double best = -HUGE_VAL;
  std::string best_text;  // empty while no task had a normal likelihood
  int best_loops = -1;
};

// Walks the task lines of a run and checks that each set's files hold the
// best of its tasks and were written once, by the set's last task.
void expect_job(const ScratchDir& dir, const RunResult& r, const std::vector<int>& dims, int sets,
                int iterations, int threads) {
  ASSERT_EQ(r.status, 0) << r.err;
  const int n = static_cast<int>(dims.size()) * sets;
  const int max_k = *std::max_element(dims.begin(), dims.end());
  expect_frame(tarn_test::after_banner(r.err), threads, max_k, n * iterations);
  const auto log = lines_of(tarn_test::after_banner(r.err));
  ASSERT_GE(log.size(), 16u);

  const std::regex task(
      R"(\{(\d+)\} set=(\d+), dim=(\d+), likelihood=(\S+), loops=(\d+), finished=(\d+))");
  const std::regex updated(R"(Best likelihood updated for set id = (\d+)\.)");
  const std::regex retry(
      R"(Estimation failed\.  Retrying \(\d+\)\.\.\.|WARNING: Retry count exceeded the limitation\.)");
  const std::vector<std::string> writers{
      "Outputting the calculated state variables: ", "Outputting the result into a single file: ",
      "Outputting the summary file: "};
  const std::vector<std::string> kinds{"K", "A", "B"};
  auto dim_of = [&](int sid) { return dims[(sid - 1) / sets]; };

  std::vector<SetSeen> seen(n + 1);
  std::map<std::string, int> written;
  struct {
    int sid = 0;
    bool must = false, may = false;
    double v = 0;
    std::string text;
    int loops = 0;
  } pending;
  int writing = 0;  // the set whose files come next, after its last task
  int step = 0;     // which of its three files
  for (std::size_t i = 14; i + 2 < log.size(); ++i) {
    const std::string& line = log[i];
    std::smatch m;
    if (std::regex_match(line, retry)) continue;  // printed outside the lock
    if (std::regex_match(line, m, updated)) {
      const int sid = std::stoi(m[1]);
      ASSERT_EQ(sid, pending.sid) << "line " << i << " follows no task of its set";
      EXPECT_TRUE(pending.may) << "set " << sid << " updated by " << pending.text << " over "
                               << seen[sid].best_text;
      seen[sid].best = pending.v;
      seen[sid].best_text = pending.text;
      seen[sid].best_loops = pending.loops;
      pending = {};
      continue;
    }
    EXPECT_FALSE(pending.must) << "no update for set " << pending.sid << " after " << pending.text
                               << " beat " << seen[pending.sid].best_text;
    pending = {};
    if (std::regex_match(line, m, task)) {
      ASSERT_EQ(writing, 0) << "task line " << i << " cuts into the files of set " << writing;
      const int sid = std::stoi(m[2]);
      ASSERT_GE(sid, 1);
      ASSERT_LE(sid, n);
      if (threads > 0) {
        EXPECT_LT(std::stoi(m[1]), threads);
      }
      EXPECT_EQ(std::stoi(m[3]), dim_of(sid)) << line;
      EXPECT_EQ(std::stoi(m[6]), ++seen[sid].tasks) << line;
      EXPECT_LE(std::stoi(m[5]), 30);
      const double v = std::strtod(m[4].str().c_str(), nullptr);
      const bool normal = std::isnormal(v);
      pending = {sid,
                 normal && v > seen[sid].best,
                 normal && v >= seen[sid].best,
                 v,
                 m[4],
                 std::stoi(m[5])};
      if (seen[sid].tasks == iterations) writing = sid;
      continue;
    }
    ASSERT_NE(writing, 0) << "unexpected line " << i << ": " << line;
    if (line == "Estimation failed for this set.") {
      EXPECT_TRUE(seen[writing].best_text.empty());
      writing = 0;
      continue;
    }
    ASSERT_EQ(line, writers[step] + file_name(dim_of(writing), writing % sets + 1, kinds[step]));
    ++written[line.substr(writers[step].size())];
    if (++step == 3) step = writing = 0;
  }
  EXPECT_FALSE(pending.must);
  EXPECT_EQ(writing, 0) << "files of the last set incomplete";

  std::vector<std::string> want_files;
  for (int sid = 1; sid <= n; ++sid) {
    SCOPED_TRACE("set id " + std::to_string(sid));
    const SetSeen& s = seen[sid];
    EXPECT_EQ(s.tasks, iterations);
    if (s.best_text.empty()) continue;
    const int k = dim_of(sid);
    const int set_no = sid % sets + 1;
    for (const auto& kind : kinds) {
      want_files.push_back(file_name(k, set_no, kind));
      EXPECT_EQ(written[want_files.back()], 1) << want_files.back();
    }
    std::smatch m;
    const std::string summary = read_text(dir / file_name(k, set_no, "B"));
    ASSERT_TRUE(std::regex_match(
        summary, m,
        std::regex(
            R"((\d{3})\t(\d{3})\t(\S+)\t-?\d+\.\d{6}\t(\d+)\t(Not )?Monotone\t(Not )?Converged\n)")))
        << summary;
    EXPECT_EQ(std::stoi(m[1]), k);
    EXPECT_EQ(std::stoi(m[2]), set_no);
    EXPECT_EQ(m[3].str(), s.best_text);
    EXPECT_EQ(std::stoi(m[4]), s.best_loops);

    // The model file ends with the D and L blocks, complete.
    const std::string num = R"(-?\d+\.\d{18})";
    std::string row = num;
    for (int j = 1; j < kObjects; ++j) row += "\t" + num;
    const std::string ks = std::to_string(k);
    const std::regex tail("SSMResult::D\t" + ks + "\t" + std::to_string(kObjects) + "\n(" + row +
                          "\n){" + ks + "}\nSSMResult::L\t" + ks + "\t1\n(" + num + "\n){" + ks +
                          "}\n");
    const std::string model = read_text(dir / file_name(k, set_no, "A"));
    EXPECT_EQ(model.rfind("SSM_p_k\t", 0), 0u);
    const std::size_t blocks = model.rfind("SSMResult::D\t");
    ASSERT_NE(blocks, std::string::npos) << model;
    EXPECT_TRUE(std::regex_match(model.substr(blocks), tail)) << model;

    // The state variables: every replicate, seven blocks of all time points.
    const std::string states = read_text(dir / file_name(k, set_no, "K"));
    std::size_t replicates = 0;
    for (std::size_t at = 0; (at = states.find("# REPLICATE ", at)) != std::string::npos; ++at)
      ++replicates;
    EXPECT_EQ(replicates, static_cast<std::size_t>(kReplicates));
    EXPECT_EQ(std::count(states.begin(), states.end(), '\n'),
              kReplicates * (1 + 7 * (1 + kTimes + 2)));
  }
  std::sort(want_files.begin(), want_files.end());
  EXPECT_EQ(result_files(dir), want_files);
}

// Whether two runs wrote the same result files, byte for byte.
bool same_files(const ScratchDir& a, const ScratchDir& b) {
  const auto names = result_files(a);
  if (names.empty() || names != result_files(b)) return false;
  for (const auto& name : names)
    if (read_text(a / name) != read_text(b / name)) return false;
  return true;
}

// The contents of the result files of one kind, sorted.
std::vector<std::string> contents(const ScratchDir& dir, const std::string& kind,
                                  bool drop_set_column) {
  std::vector<std::string> out;
  for (const auto& name : result_files(dir)) {
    if (name.find("." + kind + ".") == std::string::npos) continue;
    std::string text = read_text(dir / name);
    if (drop_set_column) text.erase(text.find('\t'), 4);
    out.push_back(text);
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace

TEST(ThreadMode, ManyMoreTasksThanThreadsWriteEachSetOnceWithItsBest) {
  // 60 tasks on 8 threads, repeated: every run must be whole.
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ScratchDir dir;
    const RunResult r = run(dir, {"--threads", "8", "-d", "1-4", "-s", "3", "-n", "5"});
    expect_job(dir, r, {1, 2, 3, 4}, 3, 5, 8);
    if (HasFatalFailure()) return;
  }
}

TEST(ThreadMode, TeamEdges) {
  {
    SCOPED_TRACE("more threads than tasks; one set per dim");
    ScratchDir dir;
    expect_job(dir, run(dir, {"--threads", "6", "-d", "2,3", "-s", "1", "-n", "2"}), {2, 3}, 1, 2,
               6);
  }
  {
    SCOPED_TRACE("--threads 0 is the thread mode too");
    ScratchDir dir;
    expect_job(dir, run(dir, {"--threads", "0", "-d", "2", "-s", "2", "-n", "2"}), {2}, 2, 2, 0);
  }
  {
    SCOPED_TRACE("one task per set");
    ScratchDir dir;
    expect_job(dir, run(dir, {"--threads", "3", "-d", "1,2", "-s", "3", "-n", "1"}), {1, 2}, 3, 1,
               3);
  }
}

TEST(ThreadMode, SameDrawsAsTheSingleModeWhereTheirOrderCannotMatter) {
  // One task draws what the single mode draws; four tasks of one set take
  // the first four draws in some order, and their best cannot depend on it.
  for (const std::string n : {"1", "4"}) {
    SCOPED_TRACE("one set of " + n + " tasks");
    ScratchDir threads, single;
    ASSERT_EQ(run(threads, {"--threads", "2", "-d", "3", "-s", "1", "-n", n}).status, 0);
    ASSERT_EQ(run(single, {"-d", "3", "-n", n}).status, 0);
    EXPECT_EQ(result_files(threads).size(), 3u);
    EXPECT_TRUE(same_files(threads, single));
  }
  {
    // Four sets of one dim take the first four draws between them, in an
    // order that depends on timing; the set numbers follow the id rule.
    SCOPED_TRACE("four sets of one task");
    ScratchDir threads, single;
    ASSERT_EQ(run(threads, {"--threads", "2", "-d", "2", "-s", "4", "-n", "1"}).status, 0);
    ASSERT_EQ(run(single, {"-d", "2", "-s", "4", "-n", "1"}).status, 0);
    EXPECT_EQ(result_files(threads), result_files(single));
    for (const char* kind : {"A", "K"})
      EXPECT_EQ(contents(threads, kind, false), contents(single, kind, false));
    EXPECT_EQ(contents(threads, "B", true), contents(single, "B", true));
  }
  {
    // Two dims: whichever task draws first, the run equals the single mode
    // over the dims in that order. A thread taking both tickets rebuilds its
    // F constraint for the second dim.
    SCOPED_TRACE("two dims of one task");
    ScratchDir threads, forward, backward;
    ASSERT_EQ(run(threads, {"--threads", "2", "-d", "2,3", "-s", "1", "-n", "1"}).status, 0);
    ASSERT_EQ(run(forward, {"-d", "2,3", "-n", "1"}).status, 0);
    ASSERT_EQ(run(backward, {"-d", "3,2", "-n", "1"}).status, 0);
    EXPECT_EQ(result_files(threads).size(), 6u);
    EXPECT_TRUE(same_files(threads, forward) || same_files(threads, backward));
  }
}

TEST(ThreadMode, NeedsOneSetAndOneIteration) {
  const std::string error =
      "ERROR: The thread mode needs at least one set (-s) and one iteration (-n).\n";
  for (const auto& [option, value] :
       std::vector<std::pair<std::string, std::string>>{{"-s", "0"}, {"-n", "0"}}) {
    SCOPED_TRACE(option);
    ScratchDir dir;
    const RunResult r = run(dir, {"--threads", "2", "-d", "2", option, value});
    EXPECT_EQ(r.status, 1);
    const std::string tail = "Total single tasks = 0\n" + error;
    ASSERT_GE(r.err.size(), tail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);
    EXPECT_TRUE(result_files(dir).empty());
  }
  ScratchDir dir;
  const RunResult r = run(dir, {"--threads", "2", "-d", "0,2", "-n", "2"});
  EXPECT_EQ(r.status, 1);
  const std::string tail = "Total single tasks = 4\nERROR: State dimension must be 1 or more: 0\n";
  ASSERT_GE(r.err.size(), tail.size());
  EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);
}
