// Result files on a full or failing file system and in runs killed while
// writing: a file under its final name is always complete, and a failed
// write stops the run with one message and leaves no partial file behind.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "run_binary.h"

namespace fs = std::filesystem;
using tarn_test::read_text;
using tarn_test::run_tarnssm;
using tarn_test::RunResult;
using tarn_test::ScratchDir;

namespace {

const std::string kData = TARN_EXAMPLES_DIR "/data/sim-expression.txt";

// A tmpfs of the given options on dir, for as long as the object lives.
class Tmpfs {
 public:
  Tmpfs(const fs::path& dir, const std::string& options) : dir_(dir) {
    fs::create_directory(dir_);
    mounted_ = geteuid() == 0 && mount("tmpfs", dir_.c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~Tmpfs() {
    if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
  }
  Tmpfs(const Tmpfs&) = delete;
  Tmpfs& operator=(const Tmpfs&) = delete;
  bool mounted() const { return mounted_; }

 private:
  fs::path dir_;
  bool mounted_ = false;
};

// The names (without directory) of the files the log says were written, in order.
std::vector<std::string> written_files(const std::string& log) {
  const std::string heads[] = {
      "Outputting the calculated state variables: ", "Outputting the result into a single file: ",
      "Outputting the summary file: "};
  std::vector<std::string> names;
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
    for (const auto& head : heads) {
      if (line.rfind(head, 0) == 0) names.push_back(fs::path(line.substr(head.size())).filename());
    }
    const std::string dots = " ...";
    if (line.size() > dots.size() &&
        line.compare(line.size() - dots.size(), dots.size(), dots) == 0) {
      names.push_back(fs::path(line.substr(0, line.size() - dots.size())).filename());
    }
  }
  return names;
}

std::set<std::string> files_in(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.insert(entry.path().filename());
  return names;
}

// The last line of a log, without its line feed.
std::string last_line(std::string log) {
  if (!log.empty() && log.back() == '\n') log.pop_back();
  const auto start = log.rfind('\n');
  return start == std::string::npos ? log : log.substr(start + 1);
}

}  // namespace

TEST(WriteFailure, FullFileSystemStopsAtTheFileThatDoesNotFit) {
  struct Case {
    std::string size;
    std::vector<std::string> options;
    // The file named in the error: "?" for the first in writing order that
    // does not fit, empty when all fit.
    std::string failing;
  };
  // The K file is ~575 KB, the A file ~40 KB; the each layout fails at the
  // first state file that no longer fits.
  const Case cases[] = {
      {"64k", {}, "result.D004.S001.K.dat"},
      {"64k", {"--each", "on"}, "?"},
      {"32k", {"--state", "off"}, "result.D004.S001.A.dat"},
      {"64k", {"--state", "off"}, ""},
      {"32k", {"--state", "off", "--each", "on"}, "?"},
  };
  for (const Case& c : cases) {
    ScratchDir dir;
    Tmpfs mnt(dir / "mnt", "size=" + c.size);
    if (!mnt.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
    fs::create_directory(dir / "ref");
    std::vector<std::string> args{"-n", "1", "-l", "5"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    auto with_prefix = [&](const std::string& prefix) {
      std::vector<std::string> a = args;
      a.insert(a.end(), {"-o", prefix, kData});
      return a;
    };
    const RunResult ref = run_tarnssm(with_prefix("ref/result"), dir.path());
    ASSERT_EQ(ref.status, 0) << ref.err;
    const std::vector<std::string> order = written_files(ref.err);
    const RunResult r = run_tarnssm(with_prefix("mnt/result"), dir.path());
    SCOPED_TRACE(c.size + " " + r.err);
    EXPECT_EQ(r.signal, 0);

    std::size_t failed_at = order.size();
    if (c.failing.empty()) {
      EXPECT_EQ(r.status, 0);
      EXPECT_EQ(r.err.find("ERROR"), std::string::npos);
    } else {
      EXPECT_EQ(r.status, 1);
      const std::string head = "ERROR: Failed to write file: mnt/";
      const std::string line = last_line(r.err);
      ASSERT_EQ(line.rfind(head, 0), 0u);
      const std::string name = line.substr(head.size());
      if (c.failing != "?") {
        EXPECT_EQ(name, c.failing);
      }
      failed_at =
          static_cast<std::size_t>(std::find(order.begin(), order.end(), name) - order.begin());
      ASSERT_LT(failed_at, order.size());
      EXPECT_EQ(r.err.find("ERROR: "), r.err.size() - line.size() - 1);
    }
    // Exactly the files before the failing one, each whole; no temporary left.
    const std::set<std::string> expected(order.begin(),
                                         order.begin() + static_cast<long>(failed_at));
    EXPECT_EQ(files_in(dir / "mnt"), expected);
    for (const auto& name : expected) {
      EXPECT_EQ(read_text(dir / "mnt" / name), read_text(dir / "ref" / name)) << name;
    }
  }
}

TEST(WriteFailure, NoRoomForANewFileGivesTheOpenMessages) {
  struct Case {
    std::string options;  // tmpfs options
    std::vector<std::string> args;
    std::string tail;
  };
  const Case cases[] = {
      {"size=64k,nr_inodes=1",
       {},
       "Outputting the calculated state variables: mnt/result.D004.S001.K.dat\n"
       "WARNING: Cannot open file: mnt/result.D004.S001.K.dat\n"
       "Outputting the result into a single file: mnt/result.D004.S001.A.dat\n"
       "ERROR: Failed to open file: mnt/result.D004.S001.A.dat\n"},
      {"size=64k,nr_inodes=1",
       {"--each", "on"},
       "mnt/result.D004.S001.Xp.1.dat ...\nERROR: Cannot open file: "
       "mnt/result.D004.S001.Xp.1.dat\n"},
      {"size=1m,nr_inodes=7",
       {"--each", "on"},
       "mnt/result.Y.1.dat ...\nCannot open file: mnt/result.Y.1.dat\n"},
      {"size=64k,nr_inodes=1",
       {"--each", "on", "--state", "off"},
       "mnt/result.D004.S001.H.dat ...\nERROR: Failed to open file: mnt/result.D004.S001.H.dat\n"},
  };
  for (const Case& c : cases) {
    ScratchDir dir;
    Tmpfs mnt(dir / "mnt", c.options);
    if (!mnt.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
    std::vector<std::string> args{"-n", "1", "-l", "5", "-o", "mnt/result", kData};
    args.insert(args.begin(), c.args.begin(), c.args.end());
    const RunResult r = run_tarnssm(args, dir.path());
    EXPECT_EQ(r.signal, 0);
    EXPECT_EQ(r.status, 1);
    ASSERT_GE(r.err.size(), c.tail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - c.tail.size()), c.tail);
    for (const auto& name : files_in(dir / "mnt")) {
      EXPECT_EQ(name.find(".part"), std::string::npos) << name;
    }
  }
}

TEST(WriteFailure, EarlierResultIsReplacedWholeWithUsualPermissions) {
  ScratchDir dir;
  fs::create_directory(dir / "ref");
  const std::string A = "result.D004.S001.A.dat";
  const std::vector<std::string> base{"-n", "1", "-l", "5", "--state"};
  auto run_with = [&](const std::string& state, const std::string& prefix) {
    std::vector<std::string> args = base;
    args.insert(args.end(), {state, "-o", prefix, kData});
    return run_tarnssm(args, dir.path());
  };
  // A longer file of junk stands under the name first.
  tarn_test::write_text(dir / A, std::string(1 << 20, 'x'));
  ASSERT_EQ(run_with("off", "result").status, 0);
  ASSERT_EQ(run_with("off", "ref/result").status, 0);
  const std::string first = read_text(dir / A);
  EXPECT_EQ(first, read_text(dir / "ref" / A));

  ASSERT_EQ(run_with("on", "result").status, 0);
  ASSERT_EQ(run_with("on", "ref/result").status, 0);
  const std::string second = read_text(dir / A);
  EXPECT_NE(second, first);
  EXPECT_EQ(second, read_text(dir / "ref" / A));

  const mode_t mask = umask(0);
  umask(mask);
  for (const auto& name : files_in(dir.path())) {
    if (name.rfind("result.", 0) != 0) continue;
    struct stat st {};
    ASSERT_EQ(stat((dir / name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask) << name;
  }
}

TEST(KilledRun, FinalNamesHoldOnlyCompleteFiles) {
  ScratchDir dir;
  {
    // 5000 objects, 3 replicates of 12 time points: K files of ~14 MB.
    std::ofstream out(dir / "table.txt");
    out << "@time";
    for (int s = 0; s < 36; ++s) out << '\t' << s % 12 + 1;
    out << "\n@replicate";
    for (int s = 0; s < 36; ++s) out << '\t' << s / 12 + 1;
    out << '\n';
    std::mt19937 gen(7);
    std::normal_distribution<double> normal;
    char cell[32];
    for (int i = 0; i < 5000; ++i) {
      out << 'g' << i;
      for (int s = 0; s < 36; ++s) {
        std::snprintf(cell, sizeof cell, "\t%.4f", normal(gen));
        out << cell;
      }
      out << '\n';
    }
  }
  // Starts a run into dir/sub; returns its pid. Its log goes beside sub.
  auto start = [&](const std::string& sub) {
    fs::create_directory(dir / sub);
    const fs::path log = dir / (sub + ".log");
    const pid_t pid = fork();
    if (pid == 0) {
      if (chdir(dir.path().c_str()) != 0 || std::freopen(log.c_str(), "w", stderr) == nullptr) {
        _exit(127);
      }
      execl(TARNSSM_BIN, TARNSSM_BIN, "--threads", "1", "-d", "1-4", "-n", "1", "-l", "3", "-o",
            (sub + "/result").c_str(), "table.txt", static_cast<char*>(nullptr));
      _exit(127);
    }
    return pid;
  };
  // Waits until the run's log shows its first output, or the run has ended.
  auto await_output = [&](pid_t pid, const std::string& sub, int* wstatus) {
    while (read_text(dir / (sub + ".log")).find("Outputting") == std::string::npos) {
      if (waitpid(pid, wstatus, WNOHANG) == pid) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  };

  int wstatus = 0;
  const pid_t ref = start("ref");
  ASSERT_TRUE(await_output(ref, "ref", &wstatus));
  const auto began = std::chrono::steady_clock::now();
  waitpid(ref, &wstatus, 0);
  const auto writing = std::chrono::steady_clock::now() - began;
  ASSERT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0);
  const std::set<std::string> complete = files_in(dir / "ref");
  ASSERT_EQ(complete.size(), 12u);

  // Kills spread over the time the reference run spent writing.
  for (const double at : {0.0, 0.05, 0.2, 0.4, 0.6, 0.8, 0.95}) {
    const std::string sub = "killed";
    const pid_t pid = start(sub);
    if (await_output(pid, sub, &wstatus)) {
      std::this_thread::sleep_for(
          std::chrono::duration_cast<std::chrono::microseconds>(writing * at));
      kill(pid, SIGKILL);
      waitpid(pid, &wstatus, 0);
    }
    SCOPED_TRACE(at);
    EXPECT_TRUE(WIFSIGNALED(wstatus) || (WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0));
    for (const auto& name : files_in(dir / sub)) {
      if (name.rfind(".tarnssm-", 0) == 0) continue;  // a temporary, allowed to stay
      ASSERT_EQ(complete.count(name), 1u) << name;
      EXPECT_TRUE(read_text(dir / sub / name) == read_text(dir / "ref" / name)) << name;
    }
    fs::remove_all(dir / sub);
  }
}
