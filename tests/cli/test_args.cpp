// parse_command_line in process: the values options leave in the settings.
// Rejected command lines run through the binary in test_cli.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <sstream>
#include <string>
#include <vector>

#include "cli/args.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

// parse_command_line on the words of line behind the program name.
RunSettings parsed(const std::string& line) {
  std::istringstream in("tarnssm " + line);
  static std::deque<std::vector<std::string>> kept;  // the ranges overwrite their words
  kept.emplace_back();
  for (std::string w; in >> w;) kept.back().push_back(w);
  std::vector<char*> argv;
  for (auto& w : kept.back()) argv.push_back(w.data());
  argv.push_back(nullptr);
  CommandLine cl;
  EXPECT_TRUE(parse_command_line(static_cast<int>(argv.size()) - 1, argv.data(), &cl).ok());
  return std::move(cl.settings);
}

}  // namespace

TEST(ParseArgs, DimensionRanges) {
  std::vector<int> plus2000, down;  // at most 256 values a piece; a negative step walks down
  for (int v = 1; v <= 256; ++v) plus2000.push_back(v);
  plus2000.push_back(2000);
  for (int v = 7; v > 7 - 256; --v) down.push_back(v);
  const struct {
    const char* words;
    std::vector<int> dims;
  } cases[] = {
      {"", {4}},
      {"-d 3-5 -d 9", {3, 4, 5, 9}},
      {"-d 2-10:3", {2, 5, 8}},
      {"-d 5-2", {5}},
      {"-d 2,4,8-10", {2, 4, 8, 9, 10}},
      {"-d 1-1000,2000", plus2000},
      {"-d 7-8:-1", down},
      {"-d -3", {-3, -2, -1, 0, 1, 2, 3}},
      {"-d 5-9:0", std::vector<int>(256, 5)},
  };
  for (const auto& c : cases) EXPECT_EQ(parsed(c.words).dims, c.dims) << c.words;
}

TEST(ParseArgs, EveryOptionReachesItsField) {
  const RunSettings a = parsed(
      "-i 7 -s 3 -n 9 -o out -e txt --each on -L 2 -r 5 --state off --shift 2 --threads 0 "
      "--converge 0.5 --em-loop 12 --RrI on --update-mu off --abs-converge no --ridge 0.1 "
      "--constrain-F off --constrain-Fg 0.5 --retry -1 --verbose 2 --H-mean 0.5 --H-SD 3 "
      "--F-max 2 --F-min -2.5e0 --mu 0.25 --SD 4 --ssm m.txt --debug 3 --strict --gsl in.txt");
  const EmSettings& em = a.em;
  EXPECT_EQ(std::vector<int>({a.id, a.sets, a.iterations, a.each, a.log_mode, a.seed, a.state,
                              a.shift, a.threads, a.strict, em.em_loop, em.common_R, em.update_mu,
                              em.abs_converge, em.constrain_F, em.retry, em.verbose}),
            std::vector<int>({7, 3, 9, 1, 2, 5, 0, 2, 0, 1, 12, 1, 0, 0, 0, -1, 2}));
  EXPECT_EQ(std::vector<double>({em.converge, em.constrain_Fg, a.init.H_mean, a.init.F_max,
                                 a.init.F_min, a.init.mu, a.init.SD}),
            std::vector<double>({0.5, 0.5, 0.5, 2.0, -2.5, 0.25, 4.0}));
  EXPECT_EQ(std::vector<std::string>({a.prefix, a.suffix, *a.model_file, *a.input_file}),
            std::vector<std::string>({"out", "txt", "m.txt", "in.txt"}));

  // Short forms and aliases; -P renames the prefix; lenient number conversion.
  const RunSettings b = parsed("-E yes -c 0.25 -l 13 -R t -F 0 -v 1 -g 1 -o out -P --retry 12xyz");
  EXPECT_EQ(std::vector<int>(
                {b.each, b.em.em_loop, b.em.common_R, b.em.constrain_F, b.em.verbose, b.em.retry}),
            std::vector<int>({1, 13, 1, 0, 1, 12}));
  EXPECT_EQ(b.em.converge, 0.25);
  EXPECT_EQ(b.em.constrain_Fg, 1.0 - 0.0001);
  EXPECT_EQ(b.prefix, "out.P0001");
  const RunSettings c = parsed("--EM-loop 11 --retry abc -g nan");
  EXPECT_TRUE(c.em.em_loop == 11 && c.em.retry == 0 && !c.input_file);
  EXPECT_TRUE(std::isnan(c.em.constrain_Fg));
  const char* const on[] = {"on", "On", "TRUE", "t", "YES", "1"};
  const char* const off[] = {"off", "OFF", "False", "F", "no", "0"};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(parsed(std::string("-E ") + on[i]).each, 1) << on[i];
    EXPECT_EQ(parsed(std::string("-E on --each ") + off[i]).each, 0) << off[i];
  }
}
