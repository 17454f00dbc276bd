// State-variable files of an estimation run: the names of both layouts, the
// exact layout of the combined file, its numbers against a textbook filter and
// smoother under the written model, and the observed rows against the input
// centred here.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "log.h"
#include "output/output.h"
#include "output/read_back.h"

using namespace dense_ref;
using namespace out_test;
using tarn_test::read_text;
using tarn_test::run_tarnssm;
using tarn_test::ScratchDir;

namespace {

// One quick estimation per argument list, shared by the tests of this file.
const std::filesystem::path& run_once(const std::vector<std::string>& extra) {
  static std::map<std::vector<std::string>, std::unique_ptr<ScratchDir>> runs;
  auto& dir = runs[extra];
  if (!dir) {
    dir = std::make_unique<ScratchDir>();
    std::vector<std::string> args{"-n", "2", "-l", "50"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(kSim);
    const auto r = run_tarnssm(args, dir->path());
    EXPECT_EQ(r.status, 0) << r.err;
  }
  return dir->path();
}

}  // namespace

TEST(StateOutput, CombinedFileHasExactLayoutAndFormats) {
  const auto& dir = run_once({});
  EXPECT_EQ(files_in(dir),
            (std::set<std::string>{"result.D004.S001.K.dat", "result.D004.S001.A.dat",
                                   "result.D004.S001.B.dat"}));
  const std::string text = read_text(dir / "result.D004.S001.K.dat");
  const auto reps = read_state_file(text, 12);
  ASSERT_EQ(reps.size(), 3u);
  const std::regex state_number("-?[0-9]+\\.[0-9]{17}"), data_number("-?[0-9]+\\.[0-9]{15}|NAN");
  for (const auto& rep : reps) {
    for (const auto& [label, rows] : rep) {
      const std::size_t width = label[0] == 'X' ? 4 : 200;
      ASSERT_EQ(rows.size(), 12u);
      for (const auto& row : rows) {
        ASSERT_EQ(row.size(), width) << label;  // single tabs, none at the end
        for (const auto& v : row)
          EXPECT_TRUE(std::regex_match(v, label == "Y" ? data_number : state_number))
              << label << ": " << v;
      }
    }
  }
  // Replicate 3 has no sample at times 5 and 9: all-NAN observations, numbers elsewhere.
  for (int t : {5, 9}) {
    for (const auto& v : reps[2].at("Y")[t - 1]) EXPECT_EQ(v, "NAN");
    EXPECT_NE(reps[2].at("Yf")[t - 1][0], "NAN");
  }
  EXPECT_EQ(text.substr(0, 21), "# REPLICATE 1\n# Xp\n1\t");
  EXPECT_EQ(text.substr(text.size() - 3), "\n\n\n");
}

TEST(StateOutput, NumbersMatchTextbookPassesAndCentredInput) {
  const auto& dir = run_once({});
  const auto reps = read_state_file(read_text(dir / "result.D004.S001.K.dat"), 12);
  const Model m = read_model(dir / "result.D004.S001.A.dat");
  const Data d = read_centred(kSim);
  ASSERT_EQ(reps.size(), 3u);
  int missing_cells = 0;
  for (int r = 0; r < 3; ++r) {
    SCOPED_TRACE(testing::Message() << "replicate " << r + 1);
    expect_states(reps[r], m, d, r);
    for (int t = 0; t < 12; ++t) {
      const int s = d.sample_at[r][t];
      if (s < 0) continue;
      const auto& row = reps[r].at("Y")[t];
      const auto& filtered = reps[r].at("Yf")[t];
      const auto& list = d.lists[s];
      ASSERT_EQ(row.size(), 200u);
      for (int i = 0; i < 200; ++i) {
        if (std::find(list.begin(), list.end(), i) != list.end()) {
          EXPECT_EQ(row[i], "NAN") << "time " << t + 1 << " object " << i;
          EXPECT_NE(filtered[i], "NAN");
          ++missing_cells;
        } else {
          EXPECT_NEAR(num(row[i]), d.Y[i + s * 200], 1e-12) << "time " << t + 1 << " object " << i;
        }
      }
    }
  }
  EXPECT_GT(missing_cells, 100);
}

TEST(StateOutput, EachLayoutNamesAndContentsMatchCombinedFile) {
  const auto& combined = run_once({"-i", "11"});
  const auto& each = run_once({"-i", "11", "--each", "on", "-o", "pre", "-e", "txt"});
  std::set<std::string> want{"pre.D004.S011.B.txt"};
  for (const char* label : {"H", "R", "F", "D", "L", "x"})
    want.insert(std::string("pre.D004.S011.") + label + ".txt");
  for (int r = 1; r <= 3; ++r) {
    want.insert("pre.Y." + std::to_string(r) + ".txt");
    for (const char* label : {"Xp", "Xf", "Xs", "Yp", "Yf", "Ys"})
      want.insert(std::string("pre.D004.S011.") + label + "." + std::to_string(r) + ".txt");
  }
  EXPECT_EQ(files_in(each), want);

  const auto reps = read_state_file(read_text(combined / "result.D004.S011.K.dat"), 12);
  ASSERT_EQ(reps.size(), 3u);
  for (int r = 1; r <= 3; ++r) {
    for (const auto& [label, rows] : reps[r - 1]) {
      const std::string name = label == "Y"
                                   ? "pre.Y." + std::to_string(r) + ".txt"
                                   : "pre.D004.S011." + label + "." + std::to_string(r) + ".txt";
      std::string want_text;  // the same rows without the time column
      for (const auto& row : rows) {
        for (std::size_t j = 0; j < row.size(); ++j) want_text += (j ? "\t" : "") + row[j];
        want_text += "\n";
      }
      EXPECT_EQ(read_text(each / name), want_text) << name;
    }
  }
}

TEST(StateOutput, NoReplicatesOrNoTimePointsKeepTheLayout) {
  ScratchDir dir;
  const std::string prefix = (dir / "r").string(), name = prefix + ".D001.S001.K.dat";
  auto ssm = SSM_new(2, 1);
  ssm->H[0] = 1.0, ssm->H[1] = 2.0, ssm->R[0] = ssm->R[1] = ssm->var[0] = ssm->Q[0] = 1.0;
  auto state = SSMState_new(1, 0);
  auto work = SSMWork_new(2, 1, 0, 0);
  SSMData data;
  data.p = 2;
  TARN_ERR = std::tmpfile();
  auto both_layouts = [&] {
    Kalman_apply_output(ssm.get(), 1, &data, state.get(), work.get(), prefix.c_str(), "dat", 1, 0);
    Kalman_apply_output_each(ssm.get(), 1, &data, state.get(), work.get(), prefix.c_str(), "dat", 1,
                             0);
  };
  both_layouts();
  EXPECT_EQ(files_in(dir.path()), std::set<std::string>{"r.D001.S001.K.dat"});
  EXPECT_EQ(read_text(name), "");
  data.n_replicates = 2;
  data.sample_at = {nullptr, nullptr};
  both_layouts();
  std::fclose(TARN_ERR);
  TARN_ERR = stderr;
  const std::string replicate =
      "# Xp\n\n\n# Xf\n\n\n# Xs\n\n\n# Yp\n\n\n# Yf\n\n\n# Ys\n\n\n# Y\n\n\n";
  EXPECT_EQ(read_text(name), "# REPLICATE 1\n" + replicate + "# REPLICATE 2\n" + replicate);
  EXPECT_EQ(files_in(dir.path()).size(), 1u + 2 * 7);
  EXPECT_EQ(read_text(dir / "r.D001.S001.Xs.2.dat") + read_text(dir / "r.Y.2.dat"), "");
}
