// The model file: the text the writer produces, the reader on it and on
// variants it lets pass, and the errors it returns on the files it refuses.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "core/dense_reference.h"
#include "io/model_file.h"
#include "text_stream.h"

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

// p = 3, k = 2 with values that print exactly, and its text.
std::unique_ptr<SSM> small_model() {
  const double exp[] = {0.5, -1.25}, var[] = {2.0, 0.25, -0.75, 3.0};
  const double H[] = {1.0, 2.0, 3.0, -4.0, -5.0, -6.5}, R[] = {0.5, 0.75, 12345.5};
  const double F[] = {0.5, -0.125, 0.25, 0.375}, Q[] = {1.0, 0.0625};
  using dense_ref::Mat;
  return dense_ref::to_ssm(dense_ref::Model{3, 2, Mat(2, 1, exp), Mat(2, 2, var), Mat(3, 2, H),
                                            Mat(3, 1, R), Mat(2, 2, F), Mat(2, 1, Q)});
}

const std::string kSmallText =
    "SSM_p_k\t1\t2\n3\t2\n\n"
    "SSM::exp\t2\t1\n0.500000000000000000\n-1.250000000000000000\n\n"
    "SSM::var\t2\t2\n2.000000000000000000\t-0.750000000000000000\n"
    "0.250000000000000000\t3.000000000000000000\n\n"
    "SSM::H\t3\t2\n1.000000000000000000\t-4.000000000000000000\n"
    "2.000000000000000000\t-5.000000000000000000\n3.000000000000000000\t-6.500000000000000000\n\n"
    "SSM::R\t3\t1\n0.500000000000000000\n0.750000000000000000\n12345.500000000000000000\n\n"
    "SSM::F\t2\t2\n0.500000000000000000\t0.250000000000000000\n"
    "-0.125000000000000000\t0.375000000000000000\n\n"
    "SSM::Q\t2\t1\n1.000000000000000000\n0.062500000000000000\n\n";

// Every value of the model read from text, in the order exp, var, H, R, F, Q.
std::vector<double> values_of(const std::string& text) {
  const auto model = read_text(text);
  EXPECT_TRUE(model.ok()) << model.status().message() << "\n" << text;
  if (!model.ok() || model->p != 3 || model->k != 2) return {};
  const SSM& m = *model->ssm;
  std::vector<double> all;
  const std::pair<const double*, int> blocks[] = {{m.exp, 2}, {m.var, 4}, {m.H, 6},
                                                  {m.R, 3},   {m.F, 4},   {m.Q, 2}};
  for (const auto& [a, n] : blocks) all.insert(all.end(), a, a + n);
  return all;
}

}  // namespace

// The reader goes by position alone: headers, line endings, blanks around
// cells and extra cells are ignored, and nothing is read after the last
// block, whose closing empty line may be missing at the end of the file.
// NaN prints as nan or -nan, the infinities as inf and -inf; values below
// the last decimal come back as 0.
TEST(ModelFile, ReadsWhatTheWriterWritesAndVariantsOfIt) {
  std::FILE* fp = std::tmpfile();
  write_model(small_model().get(), 3, 2, fp);
  EXPECT_EQ(tarn_test::text_of(fp), kSmallText);
  std::fclose(fp);
  const std::vector<double> want = values_of(kSmallText);
  ASSERT_EQ(want.size(), 21u);
  const std::string extras =
      replace_all(kSmallText, "-6.500000000000000000\n", "-6.500000000000000000\t9\tx\n") +
      "SSMResult::D\t2\t3\n1\t2\t3\n\nSSMResult::L\t2\t1\n";
  const std::string headers = replace_all(
      replace_all(kSmallText, "SSM_p_k\t1\t2", "whatever is here"), "SSM::H\t3\t2", "x\t9\t9");
  const std::string blanks = replace_all(replace_all(kSmallText, "\n-1.25", "\n  -1.25"),
                                         "\t3.000000000000000000", "\t3.0  \t");
  for (const std::string& text :
       {replace_all(kSmallText, "\n", "\r\n"), replace_all(kSmallText, "\n", "\r"), headers, extras,
        blanks, kSmallText.substr(0, kSmallText.size() - 1),
        kSmallText.substr(0, kSmallText.size() - 2)})
    EXPECT_EQ(values_of(text), want) << text;

  auto special = small_model();
  special->exp[0] = 3e-20, special->H[4] = std::nan(""), special->Q[1] = -std::nan("");
  special->R[2] = HUGE_VAL, special->F[2] = -HUGE_VAL;
  fp = std::tmpfile();
  write_model(special.get(), 3, 2, fp);
  const std::vector<double> back = values_of(tarn_test::text_of(fp));
  std::fclose(fp);
  EXPECT_TRUE(back[0] == 0.0 && std::isnan(back[10]) && std::isnan(back[20]));
  EXPECT_TRUE(back[14] == HUGE_VAL && back[17] == -HUGE_VAL);
}

// The message names what is wrong and where: the end of the file inside a
// block, a line of the wrong kind at a place or a cell that is not a number.
// Lines 12, 17 and 22 are the headers of H, R and F; 26 that of Q.
TEST(ModelFile, MalformedFilesFailNamingBlockAndLine) {
  const auto cut_before = [](const std::string& text) {
    return kSmallText.substr(0, kSmallText.find(text));
  };
  const std::string params = "ERROR: Failed to read the SSM parameters.";
  const std::pair<std::string, std::string> cases[] = {
      {"", params},
      {"SSM_p_k\t1\t2\n3\n\nSSM::exp\t2\t1\n0.5\n", params},
      {"SSM_p_k\t1\t2\n-3\t2\n\n", params},
      {"x\n2000\t3000\n",
       "ERROR: SSM dimensions too large: p = 2000, dim = 3000 (the model needs "
       "at least 1.5 GB of memory, more than the 1.0 GB this run may use)."},
      {"SSM_p_k\t1\t2\n3\t2\n",
       "ERROR: SSM model file, line 3: the file ends before block SSM_p_k is complete."},
      {cut_before("2.000000000000000000\t-5"),
       "ERROR: SSM model file, line 14: the file ends before block SSM::H is complete."},
      {cut_before("SSM::Q"),
       "ERROR: SSM model file, line 26: the file ends before block SSM::Q is complete."},
      {replace_all(kSmallText, "\n3\t2\n", "\n3\t1\n"),
       "ERROR: SSM model file, line 6: empty line after block SSM::exp expected, found "
       "\"-1.250000000000000000\"."},
      {replace_all(kSmallText, "SSM::R\t3\t1\n", ""),
       "ERROR: SSM model file, line 17: header of block SSM::R expected, found "
       "\"0.500000000000000000\"."},
      {replace_all(kSmallText, "\n\nSSM::H", "\n\n\nSSM::H"),
       "ERROR: SSM model file, line 12: header of block SSM::H expected, found \"\"."},
      {replace_all(kSmallText, "\n0.500000000000000000\n0.75", "\n0.500000000000000000\n\n0.75"),
       "ERROR: SSM model file, line 19: row of block SSM::R expected, found \"\"."},
      {replace_all(kSmallText, "\t0.250000000000000000", "\t1,5"),
       "ERROR: SSM model file, line 23: not a number in block SSM::F, column 2: \"1,5\"."},
      {replace_all(kSmallText, "2.000000000000000000\t-5.000000000000000000", "2.0\t"),
       "ERROR: SSM model file, line 14: not a number in block SSM::H, column 2: \"\"."},
      {replace_all(kSmallText, "2.000000000000000000\t-5.000000000000000000", "2.0"),
       "ERROR: SSM model file, line 14: too few cells in block SSM::H: 1 of 2."}};
  for (const auto& [text, message] : cases) {
    const auto model = read_text(text);
    EXPECT_FALSE(model.ok()) << text;
    EXPECT_EQ(model.status().message(), message) << text;
  }
}
