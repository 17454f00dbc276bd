// The files of an estimated set: the model file with D and L against its own
// model, the summary line, the state file against the textbook filter and
// smoother and the input centred here, the writers' exact text; names that
// cannot be opened, a full file system or a file size limit against an older
// set, and older files in the way.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <regex>
#include <sstream>

#include "io/log.h"
#include "io/read_back.h"
#include "io/result_writers.h"
#include "text_stream.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace fs = std::filesystem;
using namespace dense_ref;
using namespace out_test;
using tarn_test::read_text;
using tarn_test::ScratchDir;

namespace {

const std::string kStem = "result.D004.S011.";

// A quick estimation of set 11 of 200 objects in 3 replicates of 12 times.
tarn_test::RunResult estimate(const fs::path& dir, std::vector<std::string> args) {
  args.insert(args.end(), {"-n", "2", "-l", "50", "-i", "11", kSim});
  return tarn_test::run_tarnssm(args, dir);
}

// The numbers of the block headed by label in a result file, row by row.
std::vector<double> block(const std::string& text, const std::string& label) {
  std::istringstream in(text.substr(text.find(label + "\t")));
  std::string name;
  std::size_t rows = 0, cols = 0;
  in >> name >> rows >> cols;
  std::vector<double> values(rows * cols);
  for (double& v : values) in >> v;
  return values;
}

// A tmpfs of the given size on dir while alive, none for size ""; mounting
// needs root.
struct Tmpfs {
  fs::path dir;
  bool mounted;
  Tmpfs(const fs::path& at, const std::string& size)
      : dir(at),
        mounted(!size.empty() && fs::create_directory(at) &&
                mount("tmpfs", at.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0) {}
  ~Tmpfs() {
    if (mounted) umount2(dir.c_str(), MNT_DETACH);
  }
};

// estimate() under a limit on the size of any file written, with SIGXFSZ
// ignored as tarnssm ignores it: writes past the limit fail with EFBIG.
tarn_test::RunResult estimate_limited(const fs::path& dir, const std::vector<std::string>& args,
                                      rlim_t bytes) {
  const fs::path log = dir / ".limited.log";
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit lim{bytes, bytes};
    setrlimit(RLIMIT_FSIZE, &lim);
    std::signal(SIGXFSZ, SIG_IGN);
    const auto r = estimate(dir, args);
    tarn_test::write_text(log, r.err);
    _exit(r.status < 0 ? 99 : r.status);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  tarn_test::RunResult r{WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, 0, "", read_text(log)};
  fs::remove(log);
  return r;
}

// The names of the files a log says were written, in order.
std::vector<std::string> written_files(const std::string& log) {
  std::vector<std::string> names;
  for (const std::string& line : split(log, '\n')) {
    if (line.starts_with("Outputting the "))
      names.push_back(fs::path(line.substr(line.find(": ") + 2)).filename());
    else if (line.ends_with(" ..."))
      names.push_back(fs::path(line.substr(0, line.size() - 4)).filename());
  }
  return names;
}

}  // namespace

TEST(ResultFiles, CombinedLayoutAgainstItsOwnModelAndInput) {
  ScratchDir dir;
  const auto run = estimate(dir.path(), {});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(files_in(dir.path()),
            (std::set<std::string>{kStem + "A.dat", kStem + "B.dat", kStem + "K.dat"}));
  // The model file: block headers, rows of numbers with 18 decimals, empty lines.
  const std::string a = read_text(dir / (kStem + "A.dat"));
  const std::regex a_line(R"(SSM\S*\t\d+\t\d+|200\t4|-?\d+\.\d{18}(\t-?\d+\.\d{18})*|)");
  for (const auto& line : split(a, '\n')) EXPECT_TRUE(std::regex_match(line, a_line)) << line;
  // D is R^-1 H of the model read in the reshaped order.
  const Model m = read_model(dir / (kStem + "A.dat"));
  const auto D = block(a, "SSMResult::D"), L = block(a, "SSMResult::L");
  ASSERT_EQ(D.size(), 800u);
  for (int el = 0; el < 800; ++el) {
    const double want = m.H(el % 200, el / 200) / m.R.a[el % 200];
    EXPECT_NEAR(D[el % 4 * 200 + el / 4], want, 1e-12 * std::max(1.0, std::fabs(want)));
  }
  // States with 17 decimals under the textbook passes of the model; Y the
  // centred input with 15, "NAN" where missing (all of replicate 3 at times
  // 5 and 9); L the last state correction of replicate 3.
  const auto reps = read_state_file(read_text(dir / (kStem + "K.dat")), 12);
  const Data d = read_centred(kSim);
  ASSERT_EQ(reps.size(), 3u);
  const std::regex state_number(R"(-?\d+\.\d{17})"), data_number(R"(-?\d+\.\d{15}|NAN)");
  for (int r = 0; r < 3; ++r) {
    SCOPED_TRACE(testing::Message() << "replicate " << r + 1);
    expect_states(reps[r], m, d, r);
    for (const auto& [label, rows] : reps[r]) {
      for (const auto& row : rows) {
        ASSERT_EQ(row.size(), label[0] == 'X' ? 4u : 200u) << label;
        for (const auto& v : row)
          EXPECT_TRUE(std::regex_match(v, label == "Y" ? data_number : state_number)) << v;
      }
    }
    for (int t = 0; t < 12; ++t) {
      const int s = d.sample_at[r][t];
      for (int i = 0; i < 200; ++i) {
        const bool missing = s < 0 || std::count(d.lists[s].begin(), d.lists[s].end(), i) > 0;
        const std::string& y = reps[r].at("Y")[t][i];
        EXPECT_EQ(y == "NAN", missing) << "time " << t + 1 << " object " << i;
        EXPECT_NEAR(missing ? 0.0 : num(y), missing ? 0.0 : d.Y[i + s * 200], 1e-12) << y;
      }
    }
  }
  for (int j = 0; j < 4; ++j)
    EXPECT_NEAR(L[j], num(reps[2].at("Xf")[11][j]) - num(reps[2].at("Xp")[11][j]), 1e-15);

  // Summary: dim, set, llh, BIC = -2 llh + log(n_samples) m, loops, flags.
  std::smatch f;
  const std::string b = read_text(dir / (kStem + "B.dat"));
  ASSERT_TRUE(std::regex_match(
      b, f,
      std::regex(R"(004\t011\t(-?\d+\.\d{6})\t(-?\d+\.\d{6})\t50\tMonotone\tNot Converged\n)")))
      << b;
  EXPECT_NEAR(num(f[2]), -2.0 * num(f[1]) + std::log(34.0) * ((4 + 1) * 200 + 10 + 4), 2e-6);
  EXPECT_NE(run.err.find("Finished: dim=4, likelihood=" + f[1].str() + "\n"), std::string::npos);
}

TEST(ResultFiles, EachLayoutWriterPutsHandMadeResultsVerbatim) {
  ScratchDir dir;
  const std::string pre = (dir / "pre").string();
  CanonicalModel c{StateSpaceModel(2, 2), Matrix(2, 2), Matrix(2, 1)};
  double H[] = {1.0, -2.5, 0.125, 3.0}, R[] = {0.5, 4.0}, F[] = {0.25, 0.0, -1.0, 0.75};
  double D[] = {1.0, 2.0, 3.0, 4.0}, L[] = {9.0, 0.0625}, x[] = {-0.5, 8.0};
  std::copy(H, H + 4, c.model.H.data());
  std::copy(R, R + 2, c.model.R.data());
  std::copy(F, F + 4, c.model.F.data());
  std::copy(x, x + 2, c.model.initial_mean.data());
  std::copy(D, D + 4, c.D.data());
  std::copy(L, L + 2, c.L.data());
  const Estimate result{-1234.5678915, 2469.25, false, true, 40000, &c.model};
  TARN_ERR = std::tmpfile();
  SSMResult_output_each(&result, &c, pre.c_str(), "txt", 3);
  std::string log = "Outputting files: " + pre + ".D002.S003.*.txt\n";
  for (const char* label : {"H", "R", "F", "D", "L", "x", "B"})
    log += pre + ".D002.S003." + label + ".txt ...\n";
  EXPECT_EQ(tarn_test::text_of(TARN_ERR), log);
  std::fclose(TARN_ERR);
  TARN_ERR = stderr;
  const std::pair<const char*, const char*> texts[] = {
      {"H", "1.000000000000000  0.125000000000000\n-2.500000000000000  3.000000000000000\n"},
      {"R", "0.500000000000000\n4.000000000000000\n"},
      {"F", "0.250000000000000  -1.000000000000000\n0.000000000000000  0.750000000000000\n"},
      {"D", "1.000000000000000  3.000000000000000\n2.000000000000000  4.000000000000000\n"},
      {"L", "9.000000000000000\n0.062500000000000\n"},
      {"x", "-0.500000000000000\n8.000000000000000\n"},
      {"B", "002\t003\t-1234.567892\t2469.250000\t40000\tNot Monotone\tConverged\n"}};
  for (const auto& [label, text] : texts)
    EXPECT_EQ(read_text(pre + ".D002.S003." + label + ".txt"), text) << label;
}

TEST(ResultFiles, UnwritableNamesWarnForCombinedStatesAndStopOtherwise) {
  // A directory stands under a file's name. A stop leaves none of the set's
  // files, also none of those written before the failing one.
  const struct {
    std::vector<std::string> args;
    std::string in_the_way, tail;
  } cases[] = {
      {{}, kStem + "K.dat", "WARNING: Cannot open file: " + kStem + "K.dat\n"},
      {{"--each", "on"},
       "result.Y.1.dat",
       "\nresult.Y.1.dat ...\nCannot open file: result.Y.1.dat\n"},
      {{},
       kStem + "A.dat",
       "K.dat\nOutputting the result into a single file: " + kStem +
           "A.dat\nERROR: Failed to open file: " + kStem + "A.dat\n"},
  };
  for (const auto& c : cases) {
    ScratchDir dir;
    fs::create_directory(dir / c.in_the_way);
    const auto r = estimate(dir.path(), c.args);
    const bool warned = c.tail.starts_with("WARNING");
    EXPECT_EQ(r.status, warned ? 0 : 1);
    EXPECT_TRUE(warned ? r.err.find(c.tail) != std::string::npos : r.err.ends_with(c.tail))
        << r.err;
    const std::set<std::string> left =
        warned ? std::set<std::string>{kStem + "A.dat", kStem + "B.dat", c.in_the_way}
               : std::set<std::string>{c.in_the_way};
    EXPECT_EQ(files_in(dir.path()), left);
  }
}

TEST(ResultFiles, SetThatCannotBeWrittenLeavesTheOlderSetAsItWas) {
  // A full tmpfs with the given room, or a limit on the size of a file with
  // SIGXFSZ ignored (EFBIG), then options. The K file takes ~575 KB, the A
  // file ~40 KB, a Yp file ~48 KB; "?": the first file in writing order that
  // no longer fits.
  const struct {
    bool tmpfs;
    int kb;
    std::vector<std::string> args;
    std::string failing;
  } cases[] = {
      {true, 64, {}, kStem + "K.dat"},
      {true, 64, {"--each", "on"}, "?"},
      {true, 32, {"--state", "off"}, kStem + "A.dat"},
      {true, 32, {"--state", "off", "--each", "on"}, "?"},
      {false, 64, {}, kStem + "K.dat"},
      {false, 32, {"--each", "on"}, "result.D004.S011.Yp.1.dat"},
      {false, 8, {"--state", "off", "--each", "on"}, "?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.tmpfs ? "tmpfs " : "file size ") << c.kb << "k "
                                    << testing::PrintToString(c.args));
    ScratchDir dir;
    fs::create_directory(dir / "ref");
    auto run_into = [&](const std::string& prefix, rlim_t limit) {
      std::vector<std::string> args{"-o", prefix};
      args.insert(args.end(), c.args.begin(), c.args.end());
      return estimate_limited(dir.path(), args, limit);
    };
    const auto ref = run_into("ref/result", RLIM_INFINITY);
    ASSERT_EQ(ref.status, 0) << ref.err;
    const std::vector<std::string> order = written_files(ref.err);
    // An older set stands under every name, a page each on the tmpfs.
    const int kb = c.kb + 4 * static_cast<int>(order.size());
    const Tmpfs mnt(dir / "out", c.tmpfs ? std::to_string(kb) + "k" : "");
    if (c.tmpfs && !mnt.mounted) continue;  // mounting needs root
    fs::create_directories(dir / "out");
    for (const auto& file : order) tarn_test::write_text(dir / "out" / file, "older\n");
    const auto r = run_into("out/result", c.tmpfs ? RLIM_INFINITY : rlim_t(c.kb) * 1024);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(error_lines(r.err), 1) << r.err;
    std::smatch m;
    ASSERT_TRUE(
        std::regex_search(r.err, m, std::regex("\nERROR: Failed to write file: out/(.*)\n$")));
    const std::string name = m[1];
    EXPECT_TRUE(c.failing == "?" || c.failing == name) << name;
    const auto failed_at = std::find(order.begin(), order.end(), name);
    ASSERT_NE(failed_at, order.end()) << name;
    // Only the data files, shared by all sets, written before the failing
    // one are new; no temporary is left.
    EXPECT_EQ(files_in(dir / "out"), std::set<std::string>(order.begin(), order.end()));
    for (auto file = order.begin(); file != order.end(); ++file) {
      const bool shared = file->starts_with("result.Y.") && file < failed_at;
      EXPECT_EQ(read_text(dir / "out" / *file), shared ? read_text(dir / "ref" / *file) : "older\n")
          << *file;
    }
  }
}

TEST(ResultFiles, OlderFileIsReplacedWholeWithUsualPermissions) {
  ScratchDir dir;
  fs::create_directory(dir / "ref");
  const std::string A = kStem + "A.dat";
  // A longer file of junk stands under the name first; the runs with and
  // without states write different D and L.
  tarn_test::write_text(dir / A, std::string(1 << 20, 'x'));
  for (const std::string state : {"off", "on"}) {
    for (const std::string prefix : {"result", "ref/result"})
      ASSERT_EQ(estimate(dir.path(), {"--state", state, "-o", prefix}).status, 0);
    EXPECT_EQ(read_text(dir / A), read_text(dir / "ref" / A)) << state;
  }
  const mode_t mask = umask(0);
  umask(mask);
  for (const auto& name : {A, kStem + "B.dat", kStem + "K.dat"}) {
    struct stat st {};
    ASSERT_EQ(stat((dir / name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask) << name;
  }
}
