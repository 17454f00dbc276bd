// The files of an estimated set read back against their own model and input
// (D and L, the summary line, the state file against the textbook passes);
// names that cannot be opened and a file size limit against an older set.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <sstream>

#include "io/read_back.h"

namespace fs = std::filesystem;
using namespace dense_ref;
using namespace out_test;
using tarn_test::read_text;
using tarn_test::ScratchDir;

namespace {

const std::string kStem = "result.D004.S011.";

// A quick estimation of set 11 of 200 objects in 3 replicates of 12 times.
tarn_test::RunResult estimate(const fs::path& dir, std::vector<std::string> args,
                              rlim_t file_bytes = RLIM_INFINITY) {
  args.insert(args.end(), {"-n", "2", "-l", "50", "-i", "11", kSim});
  return tarn_test::run_tarnssm(args, dir, "", RLIM_INFINITY, file_bytes);
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

}  // namespace

TEST(ResultFiles, CombinedSetReadsBackAgainstItsOwnModelAndInput) {
  ScratchDir dir;
  const auto run = estimate(dir.path(), {});
  ASSERT_EQ(run.status, 0) << run.err;
  const mode_t mask = umask(0);
  umask(mask);
  for (const auto& name : files_in(dir.path())) {  // the temporaries take the usual permissions
    struct stat st {};
    ASSERT_EQ(stat((dir / name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask) << name;
  }
  // D is R^-1 H of the model read in the reshaped order; L the last state
  // correction of replicate 3, Xf - Xp at its last time.
  const std::string a = read_text(dir / (kStem + "A.dat"));
  const Model m = read_model(dir / (kStem + "A.dat"));
  const auto D = block(a, "SSMResult::D"), L = block(a, "SSMResult::L");
  ASSERT_EQ(D.size(), 800u);
  for (int el = 0; el < 800; ++el) {
    const double want = m.H(el % 200, el / 200) / m.R.a[el % 200];
    EXPECT_NEAR(D[el % 4 * 200 + el / 4], want, 1e-12 * std::max(1.0, std::fabs(want)));
  }
  const auto reps = read_state_file(read_text(dir / (kStem + "K.dat")), 12);
  ASSERT_EQ(reps.size(), 3u);
  for (int j = 0; j < 4; ++j)
    EXPECT_NEAR(L[j], num(reps[2].at("Xf")[11][j]) - num(reps[2].at("Xp")[11][j]), 1e-15);
  // States under the textbook passes; Y the input centred here, "NAN" where missing.
  const Data d = read_centred(kSim);
  for (int r = 0; r < 3; ++r) {
    SCOPED_TRACE(testing::Message() << "replicate " << r + 1);
    expect_states(reps[r], m, d, r);
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
  // Summary: dim, set, llh, BIC = -2 llh + log(n_samples) m, loops, flags.
  std::smatch f;
  const std::string b = read_text(dir / (kStem + "B.dat"));
  ASSERT_TRUE(std::regex_match(
      b, f,
      std::regex(R"(004\t011\t(-?\d+\.\d{6})\t(-?\d+\.\d{6})\t50\tMonotone\tNot Converged\n)")))
      << b;
  EXPECT_NEAR(num(f[2]), -2.0 * num(f[1]) + std::log(34.0) * ((4 + 1) * 200 + 10 + 4), 2e-6);
}

TEST(ResultFiles, UnwritableFilesWarnForCombinedStatesAndStopTheSetOtherwise) {
  // A directory in the way, or a limit on the size of a file (kB), then the
  // options and the end of the log. A stop leaves none of the set's files,
  // an older set as it was, and no temporary; only the shared data files
  // written before the failing file are new.
  const struct {
    std::string in_the_way;
    int kb;
    std::vector<std::string> args;
    std::string tail;
  } cases[] = {
      {kStem + "K.dat", 0, {}, "WARNING: Cannot open file: " + kStem + "K.dat\n"},
      {"result.Y.1.dat",
       0,
       {"--each", "on"},
       "\nresult.Y.1.dat ...\nCannot open file: result.Y.1.dat\n"},
      {kStem + "A.dat",
       0,
       {},
       "K.dat\nOutputting the result into a single file: " + kStem +
           "A.dat\nERROR: Failed to open file: " + kStem + "A.dat\n"},
      {"", 64, {}, "\nERROR: Failed to write file: " + kStem + "K.dat\n"},
      {"", 32, {"--each", "on"}, "\nERROR: Failed to write file: result.D004.S011.Yp.1.dat\n"},
      {"",
       8,
       {"--state", "off", "--each", "on"},
       "\nERROR: Failed to write file: " + kStem + "H.dat\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in_the_way + std::to_string(c.kb) + testing::PrintToString(c.args));
    ScratchDir dir;
    std::set<std::string> older;
    if (c.kb > 0) {  // an older set under every name the full run writes
      ScratchDir ref;
      ASSERT_EQ(estimate(ref.path(), c.args).status, 0);
      for (const auto& name : files_in(ref.path())) {
        tarn_test::write_text(dir / name, "older\n");
        older.insert(name);
      }
    } else {
      fs::create_directory(dir / c.in_the_way);
      older.insert(c.in_the_way);
    }
    const auto r = estimate(dir.path(), c.args, c.kb > 0 ? rlim_t(c.kb) * 1024 : RLIM_INFINITY);
    const bool warned = c.tail.starts_with("WARNING");
    EXPECT_EQ(r.status, warned ? 0 : 1);
    EXPECT_EQ(
        std::ranges::count_if(split(r.err, '\n'), [](auto& l) { return l.starts_with("ERROR: "); }),
        c.tail.find("ERROR: ") != std::string::npos ? 1 : 0);
    EXPECT_TRUE(warned ? r.err.find(c.tail) != std::string::npos : r.err.ends_with(c.tail))
        << r.err;
    std::set<std::string> left = older;
    if (warned) left.insert({kStem + "A.dat", kStem + "B.dat"});
    EXPECT_EQ(files_in(dir.path()), left);
    for (const auto& name : older)
      EXPECT_EQ(read_text(dir / name), c.kb > 0 ? "older\n" : "") << name;
  }
}
