// Inputs too large or too odd to keep as files, and result sets held by
// another run, through the real binary against golden logs: each run reads
// with the right summary or ends with one clear error, never a signal, a hang
// or memory out of proportion to the input.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "golden/golden_log.h"

using tarn_test::expect_golden_log;
using tarn_test::record_run;
using tarn_test::ScratchDir;

namespace {

constexpr rlim_t kGiB = rlim_t{1} << 30;

// The run without starts on dir/t.txt under a limit on its address space.
std::string run_on_table(const ScratchDir& dir, const char* dim = "1", rlim_t limit = 2 * kGiB) {
  return record_run({"-n", "0", "-d", dim, "t.txt"}, dir.path(), "", limit);
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
  expect_golden_log("hostile_long_row_name", run_on_table(dir));
  // A million columns in 100,000 replicates of 10 time points each.
  std::ofstream(t) << cells("@time", kColumns, [](int i) { return i % 10 + 1; })
                   << cells("@replicate", kColumns, [](int i) { return 2147483647 - i / 10; })
                   << cells("a", kColumns, [](int i) { return i % 7; })
                   << cells("b", kColumns, [](int i) { return i % 5; });
  expect_golden_log("hostile_million_columns", run_on_table(dir));
  // A million labels and no rows.
  std::ofstream(t) << cells("@time", kColumns, [](int i) { return i + 1; })
                   << cells("@replicate", kColumns, [](int i) { return i % 3; });
  expect_golden_log("hostile_million_labels", run_on_table(dir));
}

TEST(HostileInput, RandomBytes) {
  // Some behind a plausible header.
  std::mt19937 gen(20240611);
  for (int i = 0; i < 6; ++i) {
    ScratchDir dir;
    std::string bytes = i % 2 == 0 ? "" : "@time\t1\t2\n@replicate\t1\t2\n";
    for (int j = 0; j < 200000; ++j) bytes.push_back(static_cast<char>(gen() & 0xff));
    tarn_test::write_text(dir / "t.txt", bytes);
    expect_golden_log("hostile_random_bytes_" + std::to_string(i), run_on_table(dir));
  }
}

TEST(HostileInput, TimeGridBeyondTheMemoryLimitIsRefusedWhileReading) {
  // The filter's tables for ten million time points take gigabytes: under a
  // limit of 1 GiB the reader refuses the grid before allocating it.
  if (TARN_TEST_ASAN) GTEST_SKIP() << "needs an address-space limit";
  ScratchDir dir;
  tarn_test::write_text(dir / "t.txt", "@time\t10000000\na\t1.5\n");
  expect_golden_log("hostile_time_grid_over_limit", run_on_table(dir, "4", kGiB));
}

TEST(HostileInput, ResultSetsHeldByAnotherRun) {
  ScratchDir dir;
  std::filesystem::copy_file(TARN_TESTS_DIR "/golden/inputs/table.txt", dir / "in.txt");
  // This process holds set 2 of dimension 1 of prefix "run", as another run would.
  const int fd = open((dir / ".run.D001.S002.B.dat.lock").c_str(), O_RDWR | O_CREAT, 0666);
  flock lock{};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
  const std::vector<std::string> quick = {"-n", "1", "-l", "20", "-d", "1", "-s", "2", "-o", "run"};
  const std::pair<std::string, std::vector<std::string>> modes[] = {
      {"single", {}},
      {"threads", {"--threads", "2"}},
      {"sge_other_set", {"--sge", "-i", "2", "-L", "2"}},  // goes on beside it
      {"sge_same_set", {"--sge", "-i", "1", "-L", "2"}}};
  for (const auto& [name, mode] : modes) {
    std::vector<std::string> args = quick;
    args.insert(args.end(), mode.begin(), mode.end());
    args.push_back("in.txt");
    expect_golden_log("hostile_set_held_" + name, record_run(args, dir.path()));
  }
  close(fd);
}
