// The option parser: result codes of one key, the word scan over a command
// line, and the run configuration that parse_args leaves behind.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "Args.h"
#include "log.h"

namespace {

// A mutable argv with the program name in front, as main receives it.
struct Argv {
  explicit Argv(std::vector<std::string> w) : words(std::move(w)) {
    words.insert(words.begin(), "tarnssm");
    for (auto& s : words) ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words.size()); }
  char** argv() { return ptrs.data(); }
  std::vector<std::string> words;
  std::vector<char*> ptrs;
};

int g_help_calls = 0;
void count_help() {
  ++g_help_calls;
}

// A small table with one row of every kind the command line uses.
struct Mini {
  const char* input = nullptr;
  const char* prefix = "result";
  int sge = 0, each = 0, retry = 7;
  double f_min = -1.5;
  std::vector<ArgOption> table{
      {ARGS_WITHOUT_KEY, 2, &input, nullptr, nullptr},
      {"-o", 2, &prefix, nullptr, nullptr},
      {"--sge", 4, &sge, nullptr, nullptr},
      {"--each", 5, &each, nullptr, nullptr},
      {"--retry", 0, &retry, nullptr, nullptr},
      {"--F-min", 1, &f_min, nullptr, nullptr},
      {"-h", 7, nullptr, nullptr, count_help},
      {nullptr, 0, nullptr, nullptr, nullptr},
  };
  int parse(const char* key, const char* value) {
    return ParseArgs_parse(table.data(), key, value ? (held = value).data() : nullptr);
  }
  std::string held;
};

}  // namespace

TEST(ParseArgsParse, ResultCodesAndEffects) {
  Mini m;
  EXPECT_EQ(m.parse("--nope", "1"), -1);
  EXPECT_EQ(m.parse("--RETRY", "1"), -1);  // exact and case-sensitive
  EXPECT_EQ(m.parse("--retr", "1"), -1);   // no prefix matching
  EXPECT_EQ(m.parse("--retry", nullptr), -2);
  EXPECT_EQ(m.retry, 7);
  EXPECT_EQ(m.parse("--retry", "12xyz"), 0);
  EXPECT_EQ(m.retry, 12);
  EXPECT_EQ(m.parse("--retry", "abc"), 0);
  EXPECT_EQ(m.retry, 0);
  EXPECT_EQ(m.parse("--F-min", "-2.5e0"), 0);
  EXPECT_DOUBLE_EQ(m.f_min, -2.5);
  EXPECT_EQ(m.parse("-o", "out"), 0);
  EXPECT_EQ(m.prefix, m.held.data());  // the word itself, not a copy
  EXPECT_EQ(m.parse("--sge", nullptr), 0);
  EXPECT_EQ(m.sge, 1);
  m.sge = 0;
  EXPECT_EQ(m.parse("--sge", "data"), -3);
  EXPECT_EQ(m.sge, 1);  // set all the same
  g_help_calls = 0;
  EXPECT_EQ(m.parse("-h", "x"), 0);
  EXPECT_EQ(m.parse("-h", nullptr), 0);
  EXPECT_EQ(g_help_calls, 2);

  const struct {
    const char* word;
    int result, each;
  } words[] = {{"on", 0, 1},  {"On", 0, 1},  {"1", 0, 1},   {"TRUE", 0, 1}, {"t", 0, 1},
               {"YES", 0, 1}, {"off", 0, 0}, {"OFF", 0, 0}, {"0", 0, 0},    {"False", 0, 0},
               {"F", 0, 0},   {"no", 0, 0},  {"2", -4, 5},  {"", -4, 5},    {"onn", -4, 5},
               {"y", -4, 5},  {"-1", -4, 5}};
  for (const auto& w : words) {
    m.each = 5;
    EXPECT_EQ(m.parse("--each", w.word), w.result) << w.word;
    EXPECT_EQ(m.each, w.each) << w.word;
  }
  EXPECT_EQ(m.parse("--each", nullptr), -2);
}

TEST(ParseArgsSet, ReturnIndexMessagesAndInput) {
  struct Case {
    std::vector<std::string> words;
    int ret;
    std::string err;
    const char* input;
  };
  const std::string takes_each = "ERROR: \"--each\" takes its argument.\n";
  const std::vector<Case> cases = {
      {{}, 0, "", nullptr},
      {{"--F-min", "-.5"}, 2, "ERROR: \"--F-min\" takes its argument.\n", nullptr},
      {{"--retry", "--sge"}, 2, "ERROR: \"--retry\" takes its argument.\n", nullptr},
      {{"--each"}, 1, takes_each, nullptr},
      {{"--each", "2"}, 2, "ERROR: Arugment parsing failed.\n", nullptr},
      {{"x", "--each", "maybe", "y"}, 3, "ERROR: Arugment parsing failed.\n", "x"},
      {{"--sge", "data.txt"}, 0, "", "data.txt"},
      {{"first", "-5", "second"}, 0, "", "second"},
      {{"--sge", "-o", "out", "-0"}, 0, "", "-0"},
      {{"--foo", "--bar"}, 2, "", nullptr},
      {{"--foo", "x"}, 1, "", nullptr},
      {{"-o", "a", "--foo"}, 3, "", nullptr},
      {{"--threads=4"}, 1, "", nullptr},
      {{"-", "x"}, 2, "", "x"},
      {{"--retry", "3", "-", "--sge", "y"}, 4, "", "--sge"},
      {{"x", "-"}, 0, "", "x"},
      {{"--each", "-"}, 2, takes_each, nullptr},
      {{"--each", "-", "x"}, 3, "", "x"},  // the pending key is dropped unseen
      {{"-h", "anything"}, 0, "", nullptr},
  };
  for (const auto& c : cases) {
    Mini m;
    Argv av(c.words);
    testing::internal::CaptureStderr();
    const int ret = ParseArgs_set(m.table.data(), av.argc(), av.argv());
    const std::string err = testing::internal::GetCapturedStderr();
    std::string line;
    for (const auto& s : c.words) line += s + " ";
    EXPECT_EQ(ret, c.ret) << line;
    EXPECT_EQ(err, c.err) << line;
    EXPECT_EQ(m.input ? std::string(m.input) : "(null)", c.input ? c.input : "(null)") << line;
  }

  Mini m;
  Argv av({"--retry", "-1", "--F-min", "-2", "-o", "a", "-o", "b", "--sge", "-"});
  EXPECT_EQ(ParseArgs_set(m.table.data(), av.argc(), av.argv()), 0);
  EXPECT_EQ(m.retry, -1);
  EXPECT_DOUBLE_EQ(m.f_min, -2.0);
  EXPECT_STREQ(m.prefix, "b");
  EXPECT_EQ(m.sge, 1);  // a closing lone dash still lets the pending key through
}

namespace {

// parse_args on a fresh Args; the log stream is put back to stderr after.
struct Parsed {
  explicit Parsed(std::vector<std::string> words) : av(std::move(words)), args(Args_new()) {
    parse_args(av.argc(), av.argv(), args.get());
    log = TARN_ERR;
    TARN_ERR = stderr;
  }
  ~Parsed() {
    if (log != nullptr && log != stderr) std::fclose(log);
  }
  Argv av;
  std::unique_ptr<Args> args;
  std::FILE* log = nullptr;
};

std::vector<int> iota(int lo, int n) {
  std::vector<int> v(static_cast<std::size_t>(n));
  std::iota(v.begin(), v.end(), lo);
  return v;
}

}  // namespace

TEST(ParseArgs, DimensionRanges) {
  Parsed defaults({});
  EXPECT_EQ(defaults.args->dims, std::vector<int>{4});
  EXPECT_EQ(defaults.args->n_dims, 1);
  EXPECT_EQ(defaults.log, stderr);

  std::vector<int> big = iota(1, 256);
  std::vector<int> big_plus = big;
  big_plus.push_back(2000);
  std::vector<int> down = iota(7 - 255, 256);  // a negative step walks down
  std::reverse(down.begin(), down.end());
  const struct {
    std::vector<std::string> words;
    std::vector<int> dims;
  } cases[] = {
      {{"-d", "3-5", "-d", "9"}, {3, 4, 5, 9}},
      {{"-d", "2-10:3"}, {2, 5, 8}},
      {{"-d", "5-2"}, {5}},
      {{"-d", "4:2"}, {4}},
      {{"-d", "2,4,8-10"}, {2, 4, 8, 9, 10}},
      {{"-d", "3,3", "-d", "1"}, {3, 3, 1}},
      {{"-d", "1-1000"}, big},
      {{"-d", "1-1000,2000"}, big_plus},
      {{"-d", "-3"}, {-3, -2, -1, 0, 1, 2, 3}},
      {{"-d", "5-9:0"}, std::vector<int>(256, 5)},
      {{"-d", "7-8:-1"}, down},
  };
  for (const auto& c : cases) {
    Parsed p(c.words);
    EXPECT_EQ(p.args->dims, c.dims) << c.words[1];
    EXPECT_EQ(p.args->n_dims, static_cast<int>(c.dims.size())) << c.words[1];
  }
  Parsed p({"-d", "2,4"});
  EXPECT_EQ(p.av.words[2], std::string("2\0"
                                       "4",
                                       3));  // the comma is cut in place
}

TEST(ParseArgs, EveryOptionReachesItsField) {
  using Check = std::function<bool(const Args&)>;
  const struct {
    const char* key;
    const char* value;
    Check ok;
  } rows[] = {
      {"-i", "7", [](const Args& a) { return a.id == 7; }},
      {"-s", "3", [](const Args& a) { return a.sets == 3; }},
      {"-n", "9", [](const Args& a) { return a.iterations == 9; }},
      {"-o", "out", [](const Args& a) { return std::string(a.prefix) == "out"; }},
      {"-e", "txt", [](const Args& a) { return std::string(a.suffix) == "txt"; }},
      {"--each", "on", [](const Args& a) { return a.each == 1; }},
      {"-E", "yes", [](const Args& a) { return a.each == 1; }},
      {"-L", "2", [](const Args& a) { return a.log_mode == 2; }},
      {"-r", "5", [](const Args& a) { return a.seed == 5; }},
      {"--state", "off", [](const Args& a) { return a.state == 0; }},
      {"--shift", "2", [](const Args& a) { return a.shift == 2; }},
      {"--threads", "0", [](const Args& a) { return a.threads == 0; }},
      {"--converge", "0.5", [](const Args& a) { return a.em->converge == 0.5; }},
      {"-c", "0.25", [](const Args& a) { return a.em->converge == 0.25; }},
      {"--EM-loop", "11", [](const Args& a) { return a.em->em_loop == 11; }},
      {"--em-loop", "12", [](const Args& a) { return a.em->em_loop == 12; }},
      {"-l", "13", [](const Args& a) { return a.em->em_loop == 13; }},
      {"--RrI", "on", [](const Args& a) { return a.em->RrI == 1; }},
      {"-R", "t", [](const Args& a) { return a.em->RrI == 1; }},
      {"--update-mu", "off", [](const Args& a) { return a.em->update_mu == 0; }},
      {"--abs-converge", "no", [](const Args& a) { return a.em->abs_converge == 0; }},
      {"--ridge", "0.1", [](const Args& a) { return a.em->ridge == 0.1; }},
      {"--constrain-F", "off", [](const Args& a) { return a.em->constrain_F == 0; }},
      {"-F", "0", [](const Args& a) { return a.em->constrain_F == 0; }},
      {"--constrain-Fg", "0.5", [](const Args& a) { return a.em->constrain_Fg == 0.5; }},
      {"-g", "0", [](const Args& a) { return a.em->constrain_Fg == 0.0; }},
      {"-g", "1", [](const Args& a) { return a.em->constrain_Fg == 1.0 - 0.0001; }},
      {"-g", "nan", [](const Args& a) { return std::isnan(a.em->constrain_Fg); }},
      {"--retry", "-1", [](const Args& a) { return a.em->retry == -1; }},
      {"--verbose", "2", [](const Args& a) { return a.em->verbose == 2; }},
      {"-v", "1", [](const Args& a) { return a.em->verbose == 1; }},
      {"--H-mean", "0.5", [](const Args& a) { return a.init->H_mean == 0.5; }},
      {"--H-SD", "3", [](const Args& a) { return a.init->H_SD == 3.0; }},
      {"--F-max", "2", [](const Args& a) { return a.init->F_max == 2.0; }},
      {"--F-min", "-2", [](const Args& a) { return a.init->F_min == -2.0; }},
      {"--mu", "0.5", [](const Args& a) { return a.init->mu == 0.5; }},
      {"--SD", "4", [](const Args& a) { return a.init->SD == 4.0; }},
      {"--ssm", "m.txt", [](const Args& a) { return std::string(a.ssm_file) == "m.txt"; }},
      {"--debug", "3", [](const Args& a) { return a.debug == 3; }},
      {"--gsl", "in.txt",
       [](const Args& a) { return a.gsl == 1 && std::string(a.input_file) == "in.txt"; }},
      {"-P", "in.txt",
       [](const Args& a) { return std::string(a.prefix) == "result.P0001" && a.proc_file == 1; }},
      {"--proc-file", "in.txt",
       [](const Args& a) { return std::string(a.prefix) == "result.P0001"; }},
  };
  for (const auto& r : rows) {
    Parsed p({r.key, r.value});
    EXPECT_TRUE(r.ok(*p.args)) << r.key << " " << r.value;
  }
  Parsed renamed({"-o", "out", "-P"});
  EXPECT_STREQ(renamed.args->prefix, "out.P0001");
  Parsed quiet({"-L", "7"});
  EXPECT_NE(quiet.log, nullptr);
  EXPECT_NE(quiet.log, stderr);
}
