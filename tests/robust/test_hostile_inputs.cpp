// Hostile input tables and model files through the real binary: each either
// reads with the right summary or ends with one clear error and status 1,
// never a signal, a hang or memory out of proportion to the input.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "run_binary.h"

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

namespace fs = std::filesystem;
using tarn_test::ScratchDir;
using tarn_test::write_text;

namespace {

struct Outcome {
  int status = -1;
  int signal = 0;
  std::string log;  // standard output and standard error together
  long max_rss_kb = 0;
};

// Runs tarnssm in dir. A non-zero address-space limit turns runaway memory
// into "ERROR: Out of memory." (it cannot be used with AddressSanitizer,
// whose shadow memory needs terabytes of address space).
Outcome run(const std::vector<std::string>& args, const fs::path& dir, rlim_t as_limit = 0) {
  const fs::path log_path = dir / ".log";
  std::vector<std::string> words{TARNSSM_BIN};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0 || std::freopen(log_path.c_str(), "w", stdout) == nullptr) {
      _exit(127);
    }
    dup2(1, 2);
    if (as_limit != 0) {
      const rlimit limit{as_limit, as_limit};
      setrlimit(RLIMIT_AS, &limit);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  int wstatus = 0;
  rusage usage{};
  wait4(pid, &wstatus, 0, &usage);
  Outcome o;
  if (WIFEXITED(wstatus)) o.status = WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) o.signal = WTERMSIG(wstatus);
  o.log = tarn_test::read_text(log_path);
  o.max_rss_kb = usage.ru_maxrss;
  return o;
}

constexpr rlim_t kGiB = rlim_t{1} << 30;
constexpr rlim_t kMemoryLimit = TARN_TEST_ASAN ? 0 : 2 * kGiB;

// Reading, shifting and the summary only: -n 0 runs no EM.
Outcome read_table(const fs::path& dir, const std::string& file, rlim_t as_limit = kMemoryLimit) {
  return run({"-n", "0", "-d", "1", file}, dir, as_limit);
}

std::string summary(int samples, int objects, int T, int replicates) {
  std::ostringstream s;
  s << "--- INPUT DATA ---------\n observed samples = " << samples << "\n objects = " << objects
    << "\n time points = " << T << "\n replicates = " << replicates << "\n";
  return s.str();
}

int error_lines(const std::string& log) {
  int n = log.rfind("ERROR: ", 0) == 0 ? 1 : 0;
  for (auto at = log.find("\nERROR: "); at != std::string::npos;
       at = log.find("\nERROR: ", at + 1)) {
    ++n;
  }
  return n;
}

void expect_read(const Outcome& o, const std::string& block) {
  EXPECT_EQ(o.signal, 0);
  EXPECT_EQ(o.status, 0) << o.log;
  EXPECT_NE(o.log.find(block), std::string::npos) << o.log;
  EXPECT_EQ(error_lines(o.log), 0) << o.log;
}

// The run ends with message, its only error, and status 1.
void expect_error(const Outcome& o, const std::string& message) {
  EXPECT_EQ(o.signal, 0);
  EXPECT_EQ(o.status, 1);
  EXPECT_TRUE(o.log.size() >= message.size() &&
              o.log.compare(o.log.size() - message.size(), message.size(), message) == 0)
      << o.log;
  EXPECT_EQ(error_lines(o.log), 1) << o.log;
}

// n tab-separated cells made by cell(i).
template <typename Cell>
void put_cells(std::ofstream& out, const char* name, int n, Cell cell) {
  out << name;
  for (int i = 0; i < n; ++i) out << '\t' << cell(i);
  out << '\n';
}

}  // namespace

TEST(HostileInput, LongAndWideLinesAreReadWhole) {
  ScratchDir dir;
  {
    // A row name of 100 MB: lines have no length limit.
    std::ofstream out(dir / "long.txt", std::ios::binary);
    out << "@time\t1\n" << std::string(100'000'000, 'x') << "\t1.5\nb\t2.5\n";
  }
  expect_read(read_table(dir.path(), "long.txt"), summary(1, 2, 1, 1));

  // A million columns in 100,000 replicates of 10 time points each.
  constexpr int kColumns = 1'000'000;
  {
    std::ofstream out(dir / "wide.txt", std::ios::binary);
    put_cells(out, "@time", kColumns, [](int i) { return i % 10 + 1; });
    put_cells(out, "@replicate", kColumns, [](int i) { return 2147483647 - i / 10; });
    for (const char* row : {"a", "b", "c"})
      put_cells(out, row, kColumns, [](int i) { return i % 7; });
  }
  expect_read(read_table(dir.path(), "wide.txt"), summary(kColumns, 3, 10, kColumns / 10));
}

TEST(HostileInput, HeaderOfAMillionLabelsWithoutRows) {
  ScratchDir dir;
  constexpr int kColumns = 1'000'000;
  {
    std::ofstream out(dir / "time-only.txt", std::ios::binary);
    put_cells(out, "@time", kColumns, [](int i) { return i + 1; });
  }
  expect_error(read_table(dir.path(), "time-only.txt"),
               "ERROR: The columns have no replicate labels: the input has a time line but "
               "neither a replicate line nor data rows.\n");
  {
    std::ofstream out(dir / "both.txt", std::ios::binary);
    put_cells(out, "@time", kColumns, [](int i) { return i + 1; });
    put_cells(out, "@replicate", kColumns, [](int i) { return i % 3; });
  }
  const Outcome o = read_table(dir.path(), "both.txt");
  expect_error(o, "ERROR: The input data has no objects or no samples.\n");
  EXPECT_NE(o.log.find(summary(kColumns, 0, kColumns, 3)), std::string::npos) << o.log;
}

TEST(HostileInput, LabelsAtAndBeyondTheirLimits) {
  ScratchDir dir;
  struct Case {
    std::string table;
    std::string error;  // empty: the table reads
    std::string block;
  };
  const Case cases[] = {
      {"@time\t2147483647\na\t1\n",
       "ERROR: Time label out of range: 2147483647 (at most 10000000 time points).\n", ""},
      {"@time\t2147483646\na\t1\n",
       "ERROR: Time label out of range: 2147483646 (at most 10000000 time points).\n", ""},
      {"@time\t10000001\na\t1\n",
       "ERROR: Time label out of range: 10000001 (at most 10000000 time points).\n", ""},
      {"@time\t1\t2\n@replicate\t-1\t0\na\t1\t2\n", "ERROR: Negative replicate label: -1.\n", ""},
      {"@time\t1\t2\t1\n@replicate\t2147483647\t2147483647\t0\na\t1\t2\t3\n", "",
       summary(3, 1, 2, 2)},
      {"@time\t2\t1\n@replicate\t2147483647\t2147483647\na\t1\t2\n", "", summary(2, 1, 2, 1)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.table);
    write_text(dir / "t.txt", c.table);
    const Outcome o = read_table(dir.path(), "t.txt");
    if (c.error.empty()) {
      expect_read(o, c.block);
    } else {
      expect_error(o, "Reading input data file: t.txt\n" + c.error);
    }
  }
}

TEST(HostileInput, LargestTimeGridIsAcceptedAtItsBound) {
  // The filter's tables for ten million time points take gigabytes: under a
  // limit of 1 GiB the run reports the grid and then runs out of memory.
  if (TARN_TEST_ASAN) GTEST_SKIP() << "needs an address-space limit";
  ScratchDir dir;
  write_text(dir / "t.txt", "@time\t10000000\na\t1.5\n");
  const Outcome o = run({"-n", "0", "t.txt"}, dir.path(), kGiB);
  EXPECT_NE(o.log.find(summary(1, 1, 10000000, 1)), std::string::npos) << o.log;
  EXPECT_EQ(o.signal, 0);
  if (o.status != 0) expect_error(o, "ERROR: Out of memory.\n");
}

TEST(HostileInput, OverflowingAndHexNumbersAreValues) {
  // Through a stored model the observations come back in the Y block.
  ScratchDir dir;
  write_text(dir / "one.ssm",
             "SSM_p_k\t1\t2\n1\t1\n\nSSM::exp\t1\t1\n0\n\nSSM::var\t1\t1\n1\n\nSSM::H\t1\t1\n1\n\n"
             "SSM::R\t1\t1\n1\n\nSSM::F\t1\t1\n0.5\n\nSSM::Q\t1\t1\n1\n\n");
  write_text(dir / "t.txt",
             "@time\t1\t2\t3\t4\t5\t6\na\t1e999\t0x1.8p1\t-1e999\t1e-999\tnan(0x1f)\t-INFINITY\n");
  const Outcome o = run({"--shift", "0", "--update-mu", "off", "--ssm", "one.ssm", "t.txt"},
                        dir.path(), kMemoryLimit);
  expect_read(o, summary(6, 1, 6, 1));
  const std::string K = tarn_test::read_text(dir / "result.D001.S001.K.dat");
  EXPECT_NE(K.find("# Y\n1\tinf\n2\t3.000000000000000\n3\t-inf\n4\t0.000000000000000\n5\tNAN\n"
                   "6\t-inf\n\n\n"),
            std::string::npos)
      << K;
}

TEST(HostileInput, BlankLinesNulBytesAndBinaryFiles) {
  ScratchDir dir;
  write_text(dir / "blank.txt", "\n\n \t \r\n\n");
  const Outcome blank = read_table(dir.path(), "blank.txt");
  expect_error(blank, "ERROR: The input data has no objects or no samples.\n");
  EXPECT_NE(blank.log.find(summary(0, 4, -2147483647, 1)), std::string::npos) << blank.log;

  // A NUL byte ends what the line says: here the row loses its second cell.
  write_text(dir / "nul.txt", std::string("@time\t1\t2\na\t1.0\0\t2.0\n", 21));
  expect_error(
      read_table(dir.path(), "nul.txt"),
      "ERROR: Inconsistent number of columns: line 2\n     :   2 (previous) vs 1 (now).\n");
  write_text(dir / "nul-tail.txt", std::string("@time\t1\na\t1.0\0junk\n", 19));
  expect_read(read_table(dir.path(), "nul-tail.txt"), summary(1, 1, 1, 1));

  // Random bytes, some with a plausible header in front.
  std::mt19937 gen(20240611);
  for (int i = 0; i < 6; ++i) {
    std::string bytes = i % 2 == 0 ? "" : "@time\t1\t2\n@replicate\t1\t2\n";
    std::uniform_int_distribution<int> byte(0, 255);
    for (int j = 0; j < 200000; ++j) bytes.push_back(static_cast<char>(byte(gen)));
    write_text(dir / "random.bin", bytes);
    const Outcome o = read_table(dir.path(), "random.bin");
    SCOPED_TRACE(o.log);
    EXPECT_EQ(o.signal, 0);
    EXPECT_TRUE(o.status == 0 || o.status == 1);
    EXPECT_EQ(error_lines(o.log), o.status);
  }
}

TEST(HostileInput, ModelFileOfHugeDimensionsFailsAtOnce) {
  // Refused before any array of the model is touched.
  ScratchDir dir;
  fs::copy_file(TARN_EXAMPLES_DIR "/data/sim-expression.txt", dir / "data.txt");
  const std::string reading = "Reading the SSM model parameters from the file: huge.ssm\nERROR: ";
  for (const char* dims : {"2000000000\t2000000000", "200\t2000000000"}) {
    SCOPED_TRACE(dims);
    write_text(dir / "huge.ssm", std::string("SSM_p_k\t1\t2\n") + dims + "\n\n");
    const Outcome o = run({"--ssm", "huge.ssm", "data.txt"}, dir.path());
    EXPECT_EQ(o.signal, 0);
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(error_lines(o.log), 1) << o.log;
    const auto at = o.log.find(reading);
    ASSERT_NE(at, std::string::npos) << o.log;
    EXPECT_EQ(o.log.find('\n', at + reading.size()), o.log.size() - 1) << o.log;
    EXPECT_LT(o.max_rss_kb, 512L * 1024);
  }
}
