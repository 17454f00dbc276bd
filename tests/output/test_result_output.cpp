// Result files of a set: the ".A." model file with D and L, the summary line,
// the each layout, what D and L hold with and without state output, and the
// failures of the end of a set.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "log.h"
#include "output/output.h"
#include "output/read_back.h"
#include "output/ssm_output.h"

using namespace dense_ref;
using namespace out_test;
using tarn_test::read_text;
using tarn_test::ScratchDir;

namespace {

struct Run {
  ScratchDir dir;
  tarn_test::RunResult result;
  std::string text(const std::string& name) const { return read_text(dir / name); }
};

// A quick estimation in a fresh directory, with directories of the given
// names standing in the way of output files.
std::unique_ptr<Run> estimate(const std::vector<std::string>& extra,
                              const std::vector<std::string>& in_the_way = {}) {
  auto run = std::make_unique<Run>();
  for (const auto& name : in_the_way) std::filesystem::create_directory(run->dir / name);
  std::vector<std::string> args{"-n", "2", "-l", "50"};
  args.insert(args.end(), extra.begin(), extra.end());
  args.push_back(kSim);
  run->result = tarn_test::run_tarnssm(args, run->dir.path());
  return run;
}

// Points TARN_ERR at a temporary file while alive.
struct LogCapture {
  std::FILE* fp = std::tmpfile();
  LogCapture() { TARN_ERR = fp; }
  ~LogCapture() { TARN_ERR = stderr, std::fclose(fp); }
  std::string text() const {
    std::string s;
    std::rewind(fp);
    for (int c; (c = std::fgetc(fp)) != EOF;) s += static_cast<char>(c);
    return s;
  }
};

// One object observed at three times in one replicate; the model has k = 1.
struct Tiny {
  SSMData data;
  std::unique_ptr<SSM> ssm = SSM_new(1, 1);
  std::unique_ptr<SSMState> state = SSMState_new(1, 3);
  std::unique_ptr<SSMWork> work = SSMWork_new(1, 1, 3, 0);
  SSMResult result{1, 1, -4.25, 11.5, 1, 1, 9, ssm.get(), nullptr, nullptr};
  Tiny() {
    data.p = 1, data.n_samples = 3, data.T = 3, data.n_replicates = 1;
    data.Y = {0.5, -1.0, 0.5};
    data.sample_at_block = {0, 1, 2};
    data.missing_block = {-1, -1, -1};
    data.sample_at = {data.sample_at_block.data()};
    for (int& end : data.missing_block) data.missing.push_back(&end);
    ssm->exp[0] = 0.3, ssm->var[0] = 1.0, ssm->H[0] = 2.0, ssm->R[0] = 0.5, ssm->F[0] = 0.6;
    ssm->Q[0] = 1.0;
  }
};

}  // namespace

TEST(ResultOutput, SingleFileIsModelFileFollowedByDAndLAndSummary) {
  const auto run = estimate({});
  ASSERT_EQ(run->result.status, 0) << run->result.err;
  const std::string a = run->text("result.D004.S001.A.dat");
  const auto blocks = read_blocks(a);
  const std::vector<std::tuple<std::string, int, int>> want{
      {"SSM_p_k", 1, 2},  {"SSM::exp", 4, 1},       {"SSM::var", 4, 4},
      {"SSM::H", 200, 4}, {"SSM::R", 200, 1},       {"SSM::F", 4, 4},
      {"SSM::Q", 4, 1},   {"SSMResult::D", 4, 200}, {"SSMResult::L", 4, 1}};
  ASSERT_EQ(blocks.size(), want.size());
  const std::regex number("-?[0-9]+\\.[0-9]{18}");
  for (std::size_t b = 0; b < want.size(); ++b) {
    ASSERT_EQ(std::tie(blocks[b].label, blocks[b].rows, blocks[b].cols), want[b]);
    for (const auto& row : b == 0 ? Rows{} : blocks[b].cells)
      for (const auto& v : row) EXPECT_TRUE(std::regex_match(v, number)) << v;
  }
  EXPECT_EQ(std::count(a.begin(), a.end(), '\n'), (4 * 4 + 2 * 200 + 15) + 6 + 6);

  // With state output on, D is R^-1 H of the canonical model read in the
  // reshaped order, and L the last state correction of replicate 3.
  const Model m = read_model(run->dir / "result.D004.S001.A.dat");
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 200; ++j) {
      const int el = i + j * 4, row = el % 200;
      const double want_d = m.H(row, el / 200) / m.R.a[row];
      EXPECT_NEAR(num(blocks[7].cells[i][j]), want_d, 1e-12 * std::max(1.0, std::fabs(want_d)));
    }
  }
  const auto reps = read_state_file(run->text("result.D004.S001.K.dat"), 12);
  ASSERT_EQ(reps.size(), 3u);
  for (int j = 0; j < 4; ++j) {
    const double u = num(reps[2].at("Xf")[11][j]) - num(reps[2].at("Xp")[11][j]);
    EXPECT_NEAR(num(blocks[8].cells[j][0]), u, 1e-15);
  }

  // Summary: dim, set, llh, BIC = -2 llh + log(n_samples) m, loops, flags.
  const std::string b = run->text("result.D004.S001.B.dat");
  std::smatch f;
  const std::regex line(
      "004\t001\t(-?[0-9]+\\.[0-9]{6})\t(-?[0-9]+\\.[0-9]{6})\t50\t"
      "Monotone\tNot Converged\n");
  ASSERT_TRUE(std::regex_match(b, f, line)) << b;
  const double m_params = (4 + 1) * 200 + (16 + 4) / 2.0 + 4;
  EXPECT_NEAR(num(f[2]), -2.0 * num(f[1]) + std::log(34.0) * m_params, 2e-6);
  EXPECT_NE(run->result.err.find("Finished: dim=4, likelihood=" + f[1].str() + "\n"),
            std::string::npos);
}

TEST(ResultOutput, WithoutStatesDAndLAreModuleMatrixAndSquaredSingularValues) {
  const auto on = estimate({});
  const auto off = estimate({"--state", "off"});
  ASSERT_EQ(off->result.status, 0) << off->result.err;
  EXPECT_EQ(files_in(off->dir.path()).size(), 2u);  // no .K. file
  const std::string a = off->text("result.D004.S001.A.dat");
  const std::string a_on = on->text("result.D004.S001.A.dat");
  EXPECT_EQ(a.substr(0, a.find("SSMResult::D")), a_on.substr(0, a_on.find("SSMResult::D")));
  EXPECT_EQ(off->text("result.D004.S001.B.dat"), on->text("result.D004.S001.B.dat"));

  const Model m = read_model(off->dir / "result.D004.S001.A.dat");
  const auto blocks = read_blocks(a);
  ASSERT_EQ(blocks.size(), 9u);
  ASSERT_EQ(std::pair(blocks[7].rows, blocks[7].cols), std::pair(4, 200));
  ASSERT_EQ(blocks[8].rows, 4);
  std::vector<double> L(4, 0.0);
  for (int j = 0; j < 4; ++j) {
    for (int i = 0; i < 200; ++i) L[j] += m.H(i, j) * m.H(i, j) / m.R.a[i];
    EXPECT_NEAR(num(blocks[8].cells[j][0]), L[j], 1e-10 * L[0]);
    if (j > 0) {
      EXPECT_GT(L[j - 1], L[j]);
    }
    for (int i = 0; i < 200; ++i) {
      const double want = m.H(i, j) / (L[j] * std::sqrt(m.R.a[i]));
      EXPECT_NEAR(num(blocks[7].cells[j][i]), want, 1e-9 * std::fabs(want) + 1e-17);
    }
  }
}

TEST(ResultOutput, EachLayoutWithoutStatesWritesExactlySevenFiles) {
  const auto single = estimate({"--state", "off"});
  const auto each = estimate({"--state", "off", "--each", "on"});
  ASSERT_EQ(each->result.status, 0) << each->result.err;
  EXPECT_EQ(files_in(each->dir.path()).size(), 7u);
  EXPECT_EQ(each->text("result.D004.S001.B.dat"), single->text("result.D004.S001.B.dat"));
  const auto blocks = read_blocks(single->text("result.D004.S001.A.dat"));
  ASSERT_EQ(blocks.size(), 9u);
  const std::regex number("-?[0-9]+\\.[0-9]{15}");
  for (const auto& [label, block] :
       {std::pair{"H", 3}, {"R", 4}, {"F", 5}, {"D", 7}, {"L", 8}, {"x", 1}}) {
    const auto& want = blocks[block].cells;
    const auto lines = split(each->text(std::string("result.D004.S001.") + label + ".dat"), '\n');
    ASSERT_EQ(lines.size(), want.size() + 1) << label;
    EXPECT_EQ(lines.back(), "");
    for (std::size_t i = 0; i < want.size(); ++i) {
      const auto values = split(lines[i], ' ');  // "a  b": the double space leaves an empty piece
      ASSERT_EQ(values.size(), 2 * want[i].size() - 1) << label << " line " << i;
      for (std::size_t j = 0; j < want[i].size(); ++j) {
        const double v = num(want[i][j]);
        EXPECT_TRUE(std::regex_match(values[2 * j], number)) << values[2 * j];
        EXPECT_NEAR(num(values[2 * j]), v, 1e-15 * std::max(1.0, std::fabs(v)));
        if (j > 0) {
          EXPECT_EQ(values[2 * j - 1], "");
        }
      }
    }
  }
}

TEST(ResultOutput, WritersPutHandMadeResultsVerbatim) {
  ScratchDir dir;
  const std::string prefix = (dir / "pre").string();
  auto ssm = SSM_new(2, 12);
  std::vector<double> D(24, 0.5), L(12, 2.0);
  SSMResult big{2, 12, -1234.5678915, 2469.25, 0, 1, 77, ssm.get(), D.data(), L.data()};
  {
    LogCapture log;
    SSMResult_output(&big, prefix.c_str(), "dat", 7);
    EXPECT_EQ(log.text(), "Outputting the result into a single file: " + prefix +
                              ".D012.S007.A.dat\nOutputting the summary file: " + prefix +
                              ".D012.S007.B.dat\n");
  }
  EXPECT_EQ(read_text(prefix + ".D012.S007.B.dat"),
            "012\t007\t-1234.567892\t2469.250000\t77\tNot Monotone\tConverged\n");
  EXPECT_EQ(read_model(prefix + ".D012.S007.A.dat").k, 12);

  auto small = SSM_new(2, 2);
  double H[] = {1.0, -2.5, 0.125, 3.0}, R[] = {0.5, 4.0}, F[] = {0.25, 0.0, -1.0, 0.75};
  double d[] = {1.0, 2.0, 3.0, 4.0}, l[] = {9.0, 0.0625}, x[] = {-0.5, 8.0};
  for (auto [src, dst, n] : {std::tuple{H, small->H.get(), 4},
                             {R, small->R.get(), 2},
                             {F, small->F.get(), 4},
                             {x, small->exp.get(), 2}})
    std::copy(src, src + n, dst);
  SSMResult two{2, 2, 3.5, -1.0, 1, 0, 40000, small.get(), d, l};
  {
    LogCapture log;
    SSMResult_output_each(&two, prefix.c_str(), "txt", 3);
    std::string want = "Outputting files: " + prefix + ".D002.S003.*.txt\n";
    for (const char* label : {"H", "R", "F", "D", "L", "x", "B"})
      want += prefix + ".D002.S003." + label + ".txt ...\n";
    EXPECT_EQ(log.text(), want);
  }
  const std::pair<const char*, const char*> texts[] = {
      {"H", "1.000000000000000  0.125000000000000\n-2.500000000000000  3.000000000000000\n"},
      {"R", "0.500000000000000\n4.000000000000000\n"},
      {"F", "0.250000000000000  -1.000000000000000\n0.000000000000000  0.750000000000000\n"},
      {"D", "1.000000000000000  3.000000000000000\n2.000000000000000  4.000000000000000\n"},
      {"L", "9.000000000000000\n0.062500000000000\n"},
      {"x", "-0.500000000000000\n8.000000000000000\n"},
      {"B", "002\t003\t3.500000\t-1.000000\t40000\tMonotone\tNot Converged\n"}};
  for (const auto& [label, text] : texts)
    EXPECT_EQ(read_text(prefix + ".D002.S003." + label + ".txt"), text) << label;
}

TEST(SetOutput, OneObjectOneStateDDependsOnStateOutput) {
  for (int state : {1, 0}) {
    ScratchDir dir;
    const std::string prefix = (dir / "r").string();
    Tiny tiny;
    {
      LogCapture log;
      ssm_output(&tiny.result, tiny.work.get(), tiny.state.get(), &tiny.data, prefix.c_str(), "dat",
                 7, 0, state, 0);
    }
    EXPECT_EQ(std::filesystem::exists(prefix + ".D001.S007.K.dat"), state == 1);
    const auto blocks = read_blocks(read_text(prefix + ".D001.S007.A.dat"));
    ASSERT_EQ(blocks.size(), 9u);
    const double h = num(blocks[3].cells[0][0]), D = num(blocks[7].cells[0][0]);
    EXPECT_NEAR(std::fabs(h), 2.0, 1e-15);
    if (state == 1) {
      EXPECT_NEAR(D, h / 0.5, 1e-15);  // R^-1 H
    } else {
      EXPECT_NEAR(D, std::sqrt(0.5) / h, 1e-15);  // H / (L sqrt R), L = H^2 / R
      EXPECT_NEAR(num(blocks[8].cells[0][0]), 8.0, 1e-14);
    }
  }
}

TEST(SetOutput, UnwritableFilesWarnForCombinedStatesAndStopOtherwise) {
  const auto combined = estimate({}, {"result.D004.S001.K.dat"});
  EXPECT_EQ(combined->result.status, 0);
  EXPECT_NE(combined->result.err.find("WARNING: Cannot open file: result.D004.S001.K.dat\n"),
            std::string::npos);
  EXPECT_EQ(combined->text("result.D004.S001.B.dat").substr(0, 8), "004\t001\t");
  const auto each = estimate({"--each", "on"}, {"result.Y.1.dat"});
  EXPECT_EQ(each->result.status, 1);
  EXPECT_TRUE(
      each->result.err.ends_with("\nresult.Y.1.dat ...\nCannot open file: result.Y.1.dat\n"))
      << each->result.err;
}

TEST(SetOutput, UnwritableDirectoryWarnsForStatesAndFailsForResults) {
  const std::string base = "/nonexistent-dir/result.D004.S001.";
  const auto combined = estimate({"-o", "/nonexistent-dir/result"});
  EXPECT_EQ(combined->result.status, 1);
  EXPECT_NE(combined->result.err.find("WARNING: Cannot open file: " + base +
                                      "K.dat\nOutputting the result into a single file: " + base +
                                      "A.dat\nERROR: Failed to open file: " + base + "A.dat\n"),
            std::string::npos)
      << combined->result.err;
  const auto each = estimate({"-o", "/nonexistent-dir/result", "--each", "on"});
  EXPECT_EQ(each->result.status, 1);
  EXPECT_TRUE(each->result.err.ends_with(base + "Xp.1.dat ...\nERROR: Cannot open file: " + base +
                                         "Xp.1.dat\n"));
  const auto results =
      estimate({"-o", "/nonexistent-dir/result", "--each", "on", "--state", "off"});
  EXPECT_EQ(results->result.status, 1);
  EXPECT_TRUE(results->result.err.ends_with("ERROR: Failed to open file: " + base + "H.dat\n"));
}

TEST(SetOutput, NamesOf1024CharactersStopTheRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Tiny tiny;
  SSMResult& result = tiny.result;
  result.D = tiny.work->RinvH, result.L = tiny.work->u;
  // Each name is the prefix and 16 more characters, as in ".D001.S001.K.dat".
  const std::string fits(1007, 'a'), too_long(1008, 'a');
  const std::string refused = "^ERROR: Output prefix and/or postfix too long\\.\n$";
  EXPECT_EXIT(
      (TARN_ERR = stderr, Kalman_apply_output(tiny.ssm.get(), 1, &tiny.data, tiny.state.get(),
                                              tiny.work.get(), too_long.c_str(), "dat", 1, 0)),
      testing::ExitedWithCode(1), refused);
  EXPECT_EXIT((TARN_ERR = stderr, SSMResult_output(&result, too_long.c_str(), "dat", 1)),
              testing::ExitedWithCode(1), refused);
  EXPECT_EXIT((TARN_ERR = stderr, SSMResult_output_each(&result, too_long.c_str(), "dat", 1)),
              testing::ExitedWithCode(1), refused);
  // One character less passes the length test and fails only at the open.
  {
    LogCapture log;
    Kalman_apply_output(tiny.ssm.get(), 1, &tiny.data, tiny.state.get(), tiny.work.get(),
                        fits.c_str(), "dat", 1, 0);
    EXPECT_TRUE(log.text().ends_with("WARNING: Cannot open file: " + fits + ".D001.S001.K.dat\n"));
  }
  EXPECT_EXIT((TARN_ERR = stderr, SSMResult_output(&result, fits.c_str(), "dat", 1)),
              testing::ExitedWithCode(1),
              "\nERROR: Failed to open file: " + fits + "\\.D001\\.S001\\.A\\.dat\n$");
}
