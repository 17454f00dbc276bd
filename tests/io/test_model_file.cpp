// The model file reader on a small model and variants of it that it lets pass
// or refuses, and on what the writer prints for values that are not finite.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "io/model_file.h"
#include "run_binary.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

Result<StoredModel> read_text(std::string text, double memory_bytes = 1e9) {
  text += '\0';  // a buffer to open also for empty text; the NUL is not read
  std::FILE* in = fmemopen(text.data(), text.size() - 1, "r");
  auto model = read_model(in, memory_bytes);
  std::fclose(in);
  return model;
}

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
  for (std::size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
  return s;
}

// p = 3, k = 2; lines 12, 17 and 22 are the headers of H, R and F, 26 that of Q.
const std::string kSmall =
    "SSM_p_k\t1\t2\n3\t2\n\nSSM::exp\t2\t1\n0.5\n-1.25\n\nSSM::var\t2\t2\n2\t-0.75\n0.25\t3\n\n"
    "SSM::H\t3\t2\n1\t-4\n2\t-5\n3\t-6.5\n\nSSM::R\t3\t1\n0.5\n0.75\n12345.5\n\n"
    "SSM::F\t2\t2\n0.5\t0.25\n-0.125\t0.375\n\nSSM::Q\t2\t1\n1\n0.0625\n\n";
const std::vector<double> kSmallValues = {0.5,     -1.25, 2,      0.25, -0.75, 3,   1,
                                          2,       3,     -4,     -5,   -6.5,  0.5, 0.75,
                                          12345.5, 0.5,   -0.125, 0.25, 0.375, 1,   0.0625};

// Every value of a model of p = 3, k = 2, block by block, column-major.
std::vector<double> values_of(const Result<StoredModel>& model) {
  EXPECT_TRUE(model.ok()) << model.status().message();
  if (!model.ok() || model->p != 3 || model->k != 2) return {};
  const StateSpaceModel& m = *model->ssm;
  std::vector<double> all;
  const std::pair<const double*, int> blocks[] = {{m.initial_mean.data(), 2},
                                                  {m.initial_cov.data(), 4},
                                                  {m.H.data(), 6},
                                                  {m.R.data(), 3},
                                                  {m.F.data(), 4},
                                                  {m.Q.data(), 2}};
  for (const auto& [a, n] : blocks) all.insert(all.end(), a, a + n);
  return all;
}

}  // namespace

// The reader goes by position alone: headers, line endings, blanks around
// cells and extra cells are ignored, and nothing is read after the last
// block, whose closing empty line may be missing at the end of the file.
TEST(ModelFile, ReaderIgnoresHeadersLineEndingsAndExtras) {
  const std::string extras = replace_all(kSmall, "-6.5\n", "-6.5\t9\tx\n") +
                             "SSMResult::D\t2\t3\n1\t2\t3\n\nSSMResult::L\t2\t1\n";
  const std::string headers =
      replace_all(replace_all(kSmall, "SSM_p_k\t1\t2", "whatever"), "SSM::H\t3\t2", "x\t9\t9");
  const std::string blanks =
      replace_all(replace_all(kSmall, "\n-1.25", "\n  -1.25"), "\t3\n", "\t3.0  \t\n");
  for (const std::string& text :
       {kSmall, replace_all(kSmall, "\n", "\r\n"), replace_all(kSmall, "\n", "\r"), headers, extras,
        blanks, kSmall.substr(0, kSmall.size() - 1), kSmall.substr(0, kSmall.size() - 2)})
    EXPECT_EQ(values_of(read_text(text)), kSmallValues) << text;
}

// What the writer prints for NaN (nan or -nan), the infinities and values
// below its last decimal reads back.
TEST(ModelFile, NonFiniteValuesComeBackFromTheWriter) {
  const auto model = read_text(kSmall);
  StateSpaceModel& m = *model.value().ssm;
  m.initial_mean.data()[0] = 3e-20, m.H.data()[4] = std::nan(""), m.Q.data()[1] = -std::nan("");
  m.R.data()[2] = HUGE_VAL, m.F.data()[2] = -HUGE_VAL;
  std::FILE* fp = std::tmpfile();
  write_model(&m, 3, 2, fp);
  const std::string text = tarn_test::text_of(fp);
  std::fclose(fp);
  const std::vector<double> back = values_of(read_text(text));
  ASSERT_EQ(back.size(), kSmallValues.size());
  EXPECT_TRUE(back[0] == 0.0 && std::isnan(back[10]) && std::isnan(back[20]));
  EXPECT_TRUE(back[14] == HUGE_VAL && back[17] == -HUGE_VAL);
}

// The message names what is wrong and where: the end of the file inside a
// block, a line of the wrong kind at a place or a cell that is not a number.
TEST(ModelFile, MalformedFilesFailNamingBlockAndLine) {
  const auto cut = [](const std::string& before) { return kSmall.substr(0, kSmall.find(before)); };
  const auto at = [](int line, const std::string& what) {
    return "ERROR: SSM model file, line " + std::to_string(line) + ": " + what + ".";
  };
  const std::string params = "ERROR: Failed to read the SSM parameters.";
  const std::pair<std::string, std::string> cases[] = {
      {"", params},
      {"SSM_p_k\t1\t2\n-3\t2\n\n", params},
      {"x\n2000\t3000\n",
       "ERROR: SSM dimensions too large: p = 2000, dim = 3000 (the model needs "
       "at least 1.5 GB of memory, more than the 1.0 GB this run may use)."},
      {"SSM_p_k\t1\t2\n3\t2\n", at(3, "the file ends before block SSM_p_k is complete")},
      {cut("2\t-5"), at(14, "the file ends before block SSM::H is complete")},
      {cut("SSM::Q"), at(26, "the file ends before block SSM::Q is complete")},
      {replace_all(kSmall, "\n3\t2\n", "\n3\t1\n"),
       at(6, "empty line after block SSM::exp expected, found \"-1.25\"")},
      {replace_all(kSmall, "SSM::R\t3\t1\n", ""),
       at(17, "header of block SSM::R expected, found \"0.5\"")},
      {replace_all(kSmall, "\n\nSSM::H", "\n\n\nSSM::H"),
       at(12, "header of block SSM::H expected, found \"\"")},
      {replace_all(kSmall, "\n0.5\n0.75", "\n0.5\n\n0.75"),
       at(19, "row of block SSM::R expected, found \"\"")},
      {replace_all(kSmall, "\t0.25\n", "\t1,5\n"),
       at(23, "not a number in block SSM::F, column 2: \"1,5\"")},
      {replace_all(kSmall, "2\t-5", "2"), at(14, "too few cells in block SSM::H: 1 of 2")}};
  for (const auto& [text, message] : cases)
    EXPECT_EQ(read_text(text).status().message(), message) << text;
}
