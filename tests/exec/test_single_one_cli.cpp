// The single execution mode through the real binary: the exact log of a run,
// its order of dims and sets, the empty and failed sets, and repeatability.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "run_binary.h"

using tarn_test::RunResult;

namespace {

const char* const kTable =
    "@time\t1\t2\t3\t4\t5\t1\t2\t3\t4\t5\n"
    "@replicate\t1\t1\t1\t1\t1\t2\t2\t2\t2\t2\n"
    "g0\t0.492\t0.967\t1.181\t1.770\t0.960\tNaN\t1.689\t-1.884\t-0.138\t1.773\n"
    "g1\t0.596\t1.604\t-1.547\t-0.124\t-1.014\t0.175\t0.296\t-1.948\t-1.133\t-0.882\n"
    "g2\t1.665\t1.063\t-1.362\t1.189\tNaN\t-1.445\t0.470\t-1.493\t-1.993\t1.486\n"
    "g3\t-1.162\t-1.138\t1.930\t1.490\t-0.843\t1.846\t0.157\t0.711\t-1.181\t1.764\n"
    "g4\t0.763\t1.866\t1.575\tNaN\t-0.805\t-0.555\t-1.336\t-1.417\t-1.739\t-0.795\n"
    "g5\t0.412\t-1.986\t0.712\t-0.648\t-0.760\t1.274\t-0.077\t-0.737\t-0.075\tNaN\n"
    "g6\t0.819\t-1.772\tNaN\t1.900\t-1.909\t0.999\t1.380\t-1.928\t1.151\t-0.535\n"
    "g7\t0.314\t-1.964\t-1.813\t-1.276\t1.821\t-1.214\t1.023\t1.719\tNaN\t1.768\n";

std::string lit(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

const std::string kClock = R"(\d+ day \d\d hour \d\d min \d\d sec)";
const std::string kNumber = R"(-?\d+\.\d{6})";

// The expected log after the banner, one regular expression a line.
struct Log {
  std::vector<std::string> lines;
  explicit Log(int max_k) {
    const std::string stars = lit(std::string(31, '*'));
    lines = {lit("Reading input data file: data.txt"),
             lit("Applying mean shift for the input data set."),
             stars,
             lit("**   Single Execution Mode   **"),
             stars,
             "--- INPUT DATA ---------",
             " observed samples = 10",
             " objects = 8",
             " time points = 5",
             " replicates = 2",
             "------------------------",
             "Max dimemsion = " + std::to_string(max_k)};
  }
  Log& dim(int k) {
    lines.insert(lines.end(),
                 {std::string(40, '='), "= Start the loop for dim=" + std::to_string(k)});
    return *this;
  }
  // A set of dim k; with no iterations it fails, otherwise it writes its files.
  Log& set(int k, int s, int iterations, const std::string& llh = kNumber) {
    lines.push_back(lit("Set " + std::to_string(s) + "..."));
    for (int n = 1; n <= iterations; ++n)
      lines.push_back(std::to_string(n) + R"(: Loops=\d+, Likelihood=)" + kNumber);
    lines.insert(lines.end(), {"Finished: dim=" + std::to_string(k) + ", likelihood=" + llh, kClock,
                               R"(X-SINGLE-TIME:\t\d+\.\d{6})"});
    char name[32];
    std::snprintf(name, sizeof name, "result.D%03d.S%03d", k, s);
    if (iterations == 0) {
      lines.push_back(lit("Estimation failed for this set."));
    } else {
      lines.push_back(
          lit("Outputting the result into a single file: " + std::string(name) + ".A.dat"));
      lines.push_back(lit("Outputting the summary file: " + std::string(name) + ".B.dat"));
    }
    return *this;
  }
  std::vector<std::string> end() {
    lines.insert(lines.end(),
                 {lit("Going to exit."), "All time: " + kClock, R"(X-ALL-TIME:\t\d+\.\d{6})"});
    return lines;
  }
};

std::vector<std::string> log_lines(const RunResult& run) {
  std::vector<std::string> lines;
  std::istringstream in(tarn_test::after_banner(run.err));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> run(std::vector<std::string> args, int status = 0) {
  tarn_test::ScratchDir dir;
  tarn_test::write_text(dir / "data.txt", kTable);
  args.insert(args.end(), {"--state", "off", "data.txt"});
  const RunResult res = tarn_test::run_tarnssm(args, dir.path());
  EXPECT_EQ(res.status, status) << res.err;
  return log_lines(res);
}

void expect_log(const std::vector<std::string>& got, const std::vector<std::string>& want) {
  ASSERT_EQ(got.size(), want.size()) << testing::PrintToString(got);
  for (std::size_t i = 0; i < got.size(); ++i)
    EXPECT_TRUE(std::regex_match(got[i], std::regex(want[i]))) << "line " << i << ": " << got[i];
}

// The likelihood texts of the progress and "Finished" lines.
std::vector<std::string> likelihoods(const std::vector<std::string>& lines) {
  std::vector<std::string> out;
  for (const auto& l : lines)
    if (l.find("ikelihood=") != std::string::npos)
      out.push_back(l.substr(l.find("ikelihood=") + 10));
  return out;
}

}  // namespace

TEST(SingleMode, OneSetLogsEveryStepAndRepeats) {
  const auto lines = run({"-n", "3", "-l", "50"});
  expect_log(lines, Log(4).dim(4).set(4, 1, 3).end());
  // The set's likelihood is the best of its three estimations, and a second
  // run with the same options draws the same models.
  const auto llh = likelihoods(lines);
  ASSERT_EQ(llh.size(), 4u);
  EXPECT_EQ(llh[3], *std::max_element(llh.begin(), llh.end() - 1, [](const auto& a, const auto& b) {
              return std::stod(a) < std::stod(b);
            }));
  EXPECT_EQ(likelihoods(run({"-n", "3", "-l", "50"})), llh);
}

TEST(SingleMode, DimsOuterSetsInner) {
  const auto lines = run({"-d", "2-3", "-s", "2", "-n", "1", "-l", "10"});
  expect_log(lines, Log(3).dim(2).set(2, 1, 1).set(2, 2, 1).dim(3).set(3, 1, 1).set(3, 2, 1).end());
}

TEST(SingleMode, NoSetsRunsOnlyTheDimHeaders) {
  expect_log(run({"-d", "2-3", "-s", "0"}), Log(3).dim(2).dim(3).end());
}

TEST(SingleMode, NoIterationsFailTheSet) {
  // %f of minus the largest double.
  const std::string lowest =
      "-1797693134862315708145274237317043567980705675258449965989174768031572607800285"
      "38760589558632766878171540458953514382464234321326889464182768467546703537516986"
      "04991057655128207624549009038932894407586850845513394230458323690322294816580855"
      "9332123348274797826204144723168738177180919299881250404026184124858368.000000";
  expect_log(run({"-n", "0"}), Log(4).dim(4).set(4, 1, 0, lit(lowest)).end());
}

TEST(SingleMode, ZeroDimensionIsFatal) {
  const auto lines = run({"-d", "0", "-n", "1"}, 1);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().rfind("ERROR: ", 0), 0u);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& l) { return l.rfind("ERROR: ", 0) == 0; }),
            1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Set 1..."), 0);
}
