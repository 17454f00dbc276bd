// The execution modes against each other on 3 objects in 11 replicates of 20
// time points: the scheduler and thread modes write what the single mode
// writes, and the thread mode keeps its books under many more tasks than
// threads. Their logs are golden (tests/golden/cases.tsv, job_*).

#include <gtest/gtest.h>

#include <cfloat>
#include <regex>

#include "io/read_back.h"

using out_test::files_in;
using tarn_test::read_text;
using tarn_test::RunResult;
using tarn_test::ScratchDir;

namespace {

RunResult run(const ScratchDir& dir, std::vector<std::string> args) {
  args.insert(args.end(), {"-l", "30", TARN_EXAMPLES_DIR "/data/grunfeld-11firms.txt"});
  return tarn_test::run_tarnssm(args, dir.path());
}

std::string stem(int k, int set) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "result.D%03d.S%03d.", k, set);
  return buf;
}

std::map<std::string, std::string> files_of(const ScratchDir& dir) {
  std::map<std::string, std::string> files;
  for (const auto& name : files_in(dir.path())) files[name] = read_text(dir / name);
  return files;
}

}  // namespace

TEST(SchedulerMode, EachJobWritesWhatTheSingleModeWritesUnderItsId) {
  // Ids 1, 2 work on dim 2 and ids 3, 4 on dim 3, each set numbered
  // id % sets + 1. A job draws as the single mode does under the same id.
  ScratchDir array;
  for (int id = 1; id <= 4; ++id) {
    const int k = id < 3 ? 2 : 3, set = id % 2 + 1;
    const std::string ids = std::to_string(id), ks = std::to_string(k);
    ASSERT_EQ(run(array, {"--threads", "4", "-d", "2,3", "-s", "2", "-n", "2", "--sge", "-i", ids})
                  .status,
              0);
    ScratchDir single;
    ASSERT_EQ(run(single, {"-d", ks, "-n", "2", "-i", ids}).status, 0);
    for (const char* kind : {"A.dat", "K.dat"})
      EXPECT_EQ(read_text(array / (stem(k, set) + kind)), read_text(single / (stem(k, id) + kind)));
  }
  EXPECT_EQ(files_in(array.path()).size(), 4u * 4);  // three files and a log each
}

TEST(ThreadMode, ManyMoreTasksThanThreadsWriteEachSetOnceWithItsBest) {
  const struct {
    int threads, k_min, k_max, sets, n, rounds;
  } jobs[] = {
      {8, 1, 4, 3, 5, 4},  // 60 tasks, repeated to shake out races
      {6, 2, 3, 1, 2, 1},  // more threads than tasks
      {0, 2, 2, 2, 2, 1},  // the thread mode too, on the default team
      {3, 1, 2, 3, 1, 1},  // one task per set
  };
  const std::regex task(
      R"(\{(\d+)\} set=(\d+), dim=(\d+), likelihood=(\S+), loops=\d+, finished=(\d+))");
  for (const auto& job : jobs) {
    const int n_sets = (job.k_max - job.k_min + 1) * job.sets;
    const std::string dims = std::to_string(job.k_min) + "-" + std::to_string(job.k_max);
    for (int round = 0; round < job.rounds; ++round) {
      SCOPED_TRACE(std::to_string(job.threads) + " threads, dims " + dims);
      ScratchDir dir;
      const RunResult r = run(dir, {"--threads", std::to_string(job.threads), "-d", dims, "-s",
                                    std::to_string(job.sets), "-n", std::to_string(job.n)});
      ASSERT_EQ(r.status, 0) << r.err;
      std::vector<int> done(n_sets + 1);
      std::vector<std::pair<double, std::string>> best(n_sets + 1, {-DBL_MAX, ""});
      for (const std::string& line : out_test::split(r.err, '\n')) {
        std::smatch m;
        if (!std::regex_match(line, m, task)) continue;
        const int sid = std::stoi(m[2]);
        ASSERT_TRUE(sid >= 1 && sid <= n_sets) << line;
        EXPECT_TRUE(job.threads == 0 || std::stoi(m[1]) < job.threads) << line;
        EXPECT_EQ(std::stoi(m[3]), job.k_min + (sid - 1) / job.sets) << line;
        EXPECT_EQ(std::stoi(m[5]), ++done[sid]) << line;
        const double llh = std::strtod(m[4].str().c_str(), nullptr);
        if (std::isnormal(llh) && llh > best[sid].first) best[sid] = {llh, m[4]};
      }
      // Each set written once, when all its tasks are done, with its best likelihood.
      std::set<std::string> files;
      for (int sid = 1; sid <= n_sets; ++sid) {
        EXPECT_EQ(done[sid], job.n) << sid;
        const std::string set_stem = stem(job.k_min + (sid - 1) / job.sets, sid % job.sets + 1);
        if (best[sid].second.empty()) continue;
        for (const char* kind : {"A", "B", "K"}) files.insert(set_stem + kind + ".dat");
        EXPECT_EQ(out_test::split(read_text(dir / (set_stem + "B.dat")), '\t')[2],
                  best[sid].second);
      }
      EXPECT_EQ(files_in(dir.path()), files);
    }
  }
}

TEST(ThreadMode, SameDrawsAsTheSingleModeWhereTheirOrderCannotMatter) {
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
