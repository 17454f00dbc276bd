// Hostile input tables through the real binary: each either reads with the
// right summary or ends with one clear error and status 1, never a signal, a
// hang or memory out of proportion to the input.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "io/read_back.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

#if defined(__SANITIZE_ADDRESS__)
#define TARN_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_TEST_ASAN 1
#endif
#endif
#ifndef TARN_TEST_ASAN
#define TARN_TEST_ASAN 0
#endif

using tarn_test::ScratchDir;

namespace {

struct Outcome {
  int status = -1, signal = 0;
  std::string log;  // standard output and standard error together
};

// Runs tarnssm on dir/t.txt without starts under a limit on its address
// space, which turns runaway memory into "ERROR: Out of memory." (the shadow
// memory of AddressSanitizer needs terabytes, so it runs without one).
Outcome run(const std::filesystem::path& dir, const char* dim = "1",
            rlim_t limit = rlim_t{2} << 30) {
  const std::string log = (dir / ".log").string();
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0 || std::freopen(log.c_str(), "w", stdout) == nullptr) _exit(127);
    dup2(1, 2);
    const rlimit as{limit, limit};
    if (!TARN_TEST_ASAN) setrlimit(RLIMIT_AS, &as);
    execl(TARNSSM_BIN, TARNSSM_BIN, "-n", "0", "-d", dim, "t.txt", static_cast<char*>(nullptr));
    _exit(127);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1,
          WIFSIGNALED(wstatus) ? WTERMSIG(wstatus) : 0, tarn_test::read_text(log)};
}

std::string summary(int samples, int objects, int T, int replicates) {
  return "--- INPUT DATA ---------\n observed samples = " + std::to_string(samples) +
         "\n objects = " + std::to_string(objects) + "\n time points = " + std::to_string(T) +
         "\n replicates = " + std::to_string(replicates) + "\n";
}

// The run on dir/t.txt ends with error, its only error line; with none, it
// reads the table. Either way the log shows block.
void expect_outcome(const std::filesystem::path& dir, const std::string& error,
                    const std::string& block) {
  const Outcome o = run(dir);
  EXPECT_EQ(o.signal, 0);
  EXPECT_EQ(o.status, error.empty() ? 0 : 1) << o.log;
  EXPECT_EQ(out_test::error_lines(o.log), o.status) << o.log;
  EXPECT_NE(o.log.find(block), std::string::npos) << o.log;
  EXPECT_TRUE(o.log.ends_with(error)) << o.log;
}

// A line of n cells made by cell(i).
template <typename Cell>
std::string cells(const char* name, int n, Cell cell) {
  std::string line = name;
  for (int i = 0; i < n; ++i) line += '\t' + std::to_string(cell(i));
  return line + '\n';
}

}  // namespace

TEST(HostileInput, LongLinesAndMillionsOfCells) {
  constexpr int kColumns = 1'000'000;
  ScratchDir dir;
  const auto t = dir / "t.txt";
  // A row name of 100 MB: lines have no length limit.
  std::ofstream(t) << "@time\t1\n" << std::string(100'000'000, 'x') << "\t1.5\nb\t2.5\n";
  expect_outcome(dir.path(), "", summary(1, 2, 1, 1));
  // A million columns in 100,000 replicates of 10 time points each.
  std::ofstream(t) << cells("@time", kColumns, [](int i) { return i % 10 + 1; })
                   << cells("@replicate", kColumns, [](int i) { return 2147483647 - i / 10; })
                   << cells("a", kColumns, [](int i) { return i % 7; })
                   << cells("b", kColumns, [](int i) { return i % 5; });
  expect_outcome(dir.path(), "", summary(kColumns, 2, 10, kColumns / 10));
  // A million labels and no rows.
  std::ofstream(t) << cells("@time", kColumns, [](int i) { return i + 1; })
                   << cells("@replicate", kColumns, [](int i) { return i % 3; });
  expect_outcome(dir.path(), "ERROR: The input data has no objects or no samples.\n",
                 summary(kColumns, 0, kColumns, 3));
}

TEST(HostileInput, OddBytesAndLabelsAtTheirLimits) {
  const struct {
    std::string table, error, block;
  } cases[] = {
      {"@time\t1\t2\t1\n@replicate\t2147483647\t2147483647\t0\na\t1\t2\t3\n", "",
       summary(3, 1, 2, 2)},
      // A NUL byte ends what the line says: here the row loses its second cell.
      {std::string("@time\t1\t2\na\t1.0\0\t2.0\n", 21),
       "ERROR: Inconsistent number of columns: line 2\n     :   2 (previous) vs 1 (now).\n", ""},
      {std::string("@time\t1\na\t1.0\0junk\n", 19), "", summary(1, 1, 1, 1)},
  };
  ScratchDir dir;
  for (const auto& c : cases) {
    tarn_test::write_text(dir / "t.txt", c.table);
    expect_outcome(dir.path(), c.error, c.block);
  }
  // Random bytes, some behind a plausible header: status 0, or 1 with one error.
  std::mt19937 gen(20240611);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int i = 0; i < 6; ++i) {
    std::string bytes = i % 2 == 0 ? "" : "@time\t1\t2\n@replicate\t1\t2\n";
    for (int j = 0; j < 200000; ++j) bytes.push_back(static_cast<char>(byte(gen)));
    tarn_test::write_text(dir / "t.txt", bytes);
    const Outcome o = run(dir.path());
    EXPECT_EQ(o.signal, 0);
    EXPECT_TRUE(o.status == 0 || o.status == 1) << o.log;
    EXPECT_EQ(out_test::error_lines(o.log), o.status) << o.log;
  }
}

TEST(HostileInput, TimeGridBeyondTheMemoryLimitIsRefusedWhileReading) {
  // The filter's tables for ten million time points take gigabytes: under a
  // limit of 1 GiB the reader refuses the grid before allocating it.
  if (TARN_TEST_ASAN) GTEST_SKIP() << "needs an address-space limit";
  ScratchDir dir;
  tarn_test::write_text(dir / "t.txt", "@time\t10000000\na\t1.5\n");
  const Outcome o = run(dir.path(), "4", rlim_t{1} << 30);
  EXPECT_EQ(o.signal, 0);
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.log.find("ERROR: The job needs about 10.8 GB of memory (1 objects, 10000000 time "
                       "points in 1 replicates), more than the 1.1 GB this run may use"),
            std::string::npos)
      << o.log;
}
