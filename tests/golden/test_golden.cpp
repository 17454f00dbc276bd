// Runs the bundled examples and compares every file written with the files
// recorded in tests/golden/files: the same names, the same words, and every
// number within 1e-9 relative. Guards the numbers through changes made for
// speed or structure.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "run_binary.h"

namespace fs = std::filesystem;

namespace {

const std::string kData = TARN_EXAMPLES_DIR "/data/";
const fs::path kGolden = fs::path(TARN_TESTS_DIR) / "golden" / "files";

std::set<std::string> names_in(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name[0] != '.') names.insert(name);
  }
  return names;
}

bool as_number(const std::string& word, double* value) {
  char* end = nullptr;
  *value = std::strtod(word.c_str(), &end);
  return end != word.c_str() && *end == '\0' && word != "NAN";
}

// Words equal, numbers within 1e-9 relative (with a floor for values near zero).
void expect_same_content(const fs::path& got, const fs::path& want) {
  std::istringstream a(tarn_test::read_text(got));
  std::istringstream b(tarn_test::read_text(want));
  std::string x;
  std::string y;
  int word = 0;
  int mismatches = 0;
  while (b >> y) {
    ++word;
    if (!(a >> x)) {
      ADD_FAILURE() << got.filename() << ": ends early at word " << word;
      return;
    }
    double u = 0.0;
    double v = 0.0;
    const bool same = as_number(x, &u) && as_number(y, &v)
                          ? std::fabs(u - v) <= 1e-9 * std::max(std::fabs(u), std::fabs(v)) + 1e-13
                          : x == y;
    if (!same && ++mismatches <= 3) {
      ADD_FAILURE() << got.filename() << " word " << word << ": " << x << " vs " << y;
    }
  }
  EXPECT_FALSE(a >> x) << got.filename() << ": longer than recorded";
  EXPECT_EQ(mismatches, 0) << got.filename();
}

void expect_matches_golden(const std::string& name, std::vector<std::string> args) {
  tarn_test::ScratchDir dir;
  const auto run = tarn_test::run_tarnssm(args, dir.path());
  ASSERT_EQ(run.status, 0) << run.err;
  const fs::path want = kGolden / name;
  ASSERT_EQ(names_in(dir.path()), names_in(want));
  for (const auto& file : names_in(want)) expect_same_content(dir / file, want / file);
}

TEST(Golden, SingleModeOnSimulatedExpression) {
  expect_matches_golden("sim", {"-n", "3", "-l", "200", "-o", "sim", kData + "sim-expression.txt"});
}

TEST(Golden, EachLayoutOnInvestmentPanel) {
  expect_matches_golden("grunfeld", {"-d", "2", "-n", "2", "-l", "100", "--each", "on", "-o",
                                     "grun", kData + "grunfeld-11firms.txt"});
}

TEST(Golden, StoredModelApplied) {
  expect_matches_golden("apply", {"--ssm", kData + "sim-expression-true-model.txt", "-o", "apply",
                                  kData + "sim-expression.txt"});
}

TEST(Golden, ResultFilesWithoutStatesOnMacroPanel) {
  expect_matches_golden("macro", {"-d", "3", "-n", "2", "-l", "100", "--state", "off", "-o",
                                  "macro", kData + "us-macro-growth-4rep.txt"});
}

}  // namespace
