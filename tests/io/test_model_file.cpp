// The model file: the exact text the writer produces, the round trip through
// the reader, what the reader lets pass and the files it refuses.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "core/dense_reference.h"
#include "io/log.h"
#include "io/model_file.h"
#include "text_stream.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

using namespace dense_ref;

namespace {

std::string written(const StateSpaceModel* ssm, int p, int k) {
  std::FILE* fp = std::tmpfile();
  SSM_write_fp(ssm, p, k, fp);
  std::string text = tarn_test::text_of(fp);
  std::fclose(fp);
  return text;
}

struct Loaded {
  int p = -7, k = -7;
  std::unique_ptr<StateSpaceModel> ssm;
};

struct CloseFile {
  void operator()(std::FILE* fp) const { std::fclose(fp); }
};

Loaded read_text(const std::string& text) {
  const std::unique_ptr<std::FILE, CloseFile> fp(tarn_test::stream_of(text));
  Loaded out;
  out.ssm = SSM_read_fp(fp.get(), &out.p, &out.k);
  return out;
}

struct FatalError {};

// The log of reading text, which a fatal error ends; "" when the text reads.
std::string read_error(const std::string& text) {
  const std::unique_ptr<std::FILE, CloseFile> log(std::tmpfile());
  TARN_ERR = log.get();
  tarn_fatal_hook = [] { throw FatalError{}; };
  std::string message;
  try {
    read_text(text);
  } catch (const FatalError&) {
    message = tarn_test::text_of(log.get());
  }
  tarn_fatal_hook = nullptr;
  TARN_ERR = stderr;
  return message;
}

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
  for (std::size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
  return s;
}

// Every field of a and b within the last of 18 decimals, exp, var, H, R, F, Q in turn.
void expect_same_model(const StateSpaceModel& a, const StateSpaceModel& b, int p, int k) {
  const std::pair<const double*, const double*> fields[] = {
      {a.initial_mean.data(), b.initial_mean.data()},
      {a.initial_cov.data(), b.initial_cov.data()},
      {a.H.data(), b.H.data()},
      {a.R.data(), b.R.data()},
      {a.F.data(), b.F.data()},
      {a.Q.data(), b.Q.data()}};
  const int sizes[] = {k, k * k, p * k, p, k * k, k};
  for (int f = 0; f < 6; ++f)
    for (int i = 0; i < sizes[f]; ++i)
      EXPECT_NEAR(fields[f].first[i], fields[f].second[i], 1e-17) << "field " << f << " " << i;
}

// p = 3, k = 2 with values that print exactly; column-major in memory.
std::unique_ptr<StateSpaceModel> small_model() {
  const double exp[] = {0.5, -1.25}, var[] = {2.0, 0.25, -0.75, 3.0};
  const double H[] = {1.0, 2.0, 3.0, -4.0, -5.0, -6.5}, R[] = {0.5, 0.75, 12345.5};
  const double F[] = {0.5, -0.125, 0.25, 0.375}, Q[] = {1.0, 0.0625};
  return to_ssm(Model{3, 2, Mat(2, 1, exp), Mat(2, 2, var), Mat(3, 2, H), Mat(3, 1, R),
                      Mat(2, 2, F), Mat(2, 1, Q)});
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

}  // namespace

TEST(ModelFile, WritesLabelledBlocksRowByRowAndReadsThemBack) {
  auto ssm = small_model();
  EXPECT_EQ(written(ssm.get(), 3, 2), kSmallText);
  // Random values come back to within the last of the 18 decimals.
  std::mt19937_64 rng(53);
  for (const auto& [p, k] : {std::pair{3, 2}, {1, 1}, {8, 3}}) {
    if (p != 3) ssm = to_ssm(random_model(p, k, rng));
    const Loaded back = read_text(written(ssm.get(), p, k));
    ASSERT_EQ(back.p, p);
    ASSERT_EQ(back.k, k);
    expect_same_model(*back.ssm, *ssm, p, k);
  }
  // Values below the last decimal come back as 0; NaN prints as nan or -nan,
  // and the infinities as inf and -inf.
  ssm = small_model();
  ssm->initial_mean[0] = 3e-20;
  ssm->initial_mean[1] = -4e-19;
  ssm->H[4] = std::nan("");
  ssm->Q[1] = -std::nan("");
  ssm->R[2] = HUGE_VAL;
  ssm->F[2] = -HUGE_VAL;
  const std::string text = written(ssm.get(), 3, 2);
  for (const char* cell : {"\tnan\n", "\n-nan\n", "\ninf\n", "\t-inf\n"})
    EXPECT_NE(text.find(cell), std::string::npos) << cell;
  const Loaded back = read_text(text);
  EXPECT_TRUE(back.ssm->initial_mean[0] == 0.0 && back.ssm->initial_mean[1] == 0.0);
  EXPECT_TRUE(std::isnan(back.ssm->H[4]) && std::isnan(back.ssm->Q[1]));
  EXPECT_TRUE(back.ssm->R[2] == HUGE_VAL && back.ssm->F[2] == -HUGE_VAL);
}

// The reader goes by position alone: p and k from line two, then one block
// after another whatever their headers say, line endings, blanks around
// cells and extra cells ignored, and nothing read after the last block, whose
// closing empty line may be missing at the end of the file.
TEST(ModelFile, ReaderIgnoresHeadersLineEndingsAndExtras) {
  const std::string extras = replace_all(replace_all(kSmallText, "-6.500000000000000000\n",
                                                     "-6.500000000000000000\t9\tx\n"),
                                         "0.375000000000000000\n", "0.375000000000000000\t-1\n") +
                             "SSMResult::D\t2\t3\n1\t2\t3\n4\t5\t6\n\nSSMResult::L\t2\t1\n";
  const std::string headers =
      replace_all(replace_all(replace_all(kSmallText, "SSM_p_k\t1\t2", "whatever is here"),
                              "SSM::H\t3\t2", "SSM::X\t9\t9"),
                  "SSM::Q\t2\t1", "no header at all");
  const std::string blanks = replace_all(replace_all(kSmallText, "\n-1.25", "\n  -1.25"),
                                         "\t3.000000000000000000", "\t3.0  \t");
  const auto ssm = small_model();
  for (const std::string& text :
       {replace_all(kSmallText, "\n", "\r\n"), replace_all(kSmallText, "\n", "\r"), headers, extras,
        blanks, kSmallText.substr(0, kSmallText.size() - 1),
        kSmallText.substr(0, kSmallText.size() - 2)}) {
    const Loaded back = read_text(text);
    ASSERT_EQ(back.p, 3) << text;
    ASSERT_EQ(back.k, 2) << text;
    expect_same_model(*back.ssm, *ssm, 3, 2);
  }
}

// One line of the log names what is wrong and where: the end of the file
// inside a block, a line of the wrong kind at a place or a cell that is not
// a number. Lines 12, 17 and 22 are the headers of H, R and F; 26 that of Q.
TEST(ModelFile, MalformedFilesEndTheRunNamingBlockAndLine) {
  const auto cut_before = [](const std::string& text) {
    return kSmallText.substr(0, kSmallText.find(text));
  };
  const std::string params = "ERROR: Failed to read the SSM parameters.\n";
  const std::pair<std::string, std::string> cases[] = {
      {"", params},
      {"SSM_p_k\t1\t2\n", params},
      {"SSM_p_k\t1\t2\n3\n\nSSM::exp\t2\t1\n0.5\n", params},
      {"SSM_p_k\t1\t2\n\n\nSSM::exp\t2\t1\n0.5\n", params},
      {"SSM_p_k\t1\t2\n-3\t2\n\n", params},
      {"SSM_p_k\t1\t2\n3\t2\n",
       "ERROR: SSM model file, line 3: the file ends before block SSM_p_k is complete.\n"},
      {cut_before("2.000000000000000000\t-5"),
       "ERROR: SSM model file, line 14: the file ends before block SSM::H is complete.\n"},
      {cut_before("SSM::Q"),
       "ERROR: SSM model file, line 26: the file ends before block SSM::Q is complete.\n"},
      {cut_before("0.0625"),
       "ERROR: SSM model file, line 28: the file ends before block SSM::Q is complete.\n"},
      {replace_all(kSmallText, "\n3\t2\n", "\n3\t1\n"),
       "ERROR: SSM model file, line 6: empty line after block SSM::exp expected, found "
       "\"-1.250000000000000000\".\n"},
      {replace_all(kSmallText, "SSM::R\t3\t1\n", ""),
       "ERROR: SSM model file, line 17: header of block SSM::R expected, found "
       "\"0.500000000000000000\".\n"},
      {replace_all(kSmallText, "\n\nSSM::H", "\n\n\nSSM::H"),
       "ERROR: SSM model file, line 12: header of block SSM::H expected, found \"\".\n"},
      {replace_all(kSmallText, "\n0.500000000000000000\n0.75", "\n0.500000000000000000\n\n0.75"),
       "ERROR: SSM model file, line 19: row of block SSM::R expected, found \"\".\n"},
      {replace_all(kSmallText, "\n0.750000000000000000\n", "\nabc\n"),
       "ERROR: SSM model file, line 19: not a number in block SSM::R, column 1: \"abc\".\n"},
      {replace_all(kSmallText, "\t0.250000000000000000", "\t1,5"),
       "ERROR: SSM model file, line 23: not a number in block SSM::F, column 2: \"1,5\".\n"},
      {replace_all(kSmallText, "2.000000000000000000\t-5.000000000000000000", "2.0\t"),
       "ERROR: SSM model file, line 14: not a number in block SSM::H, column 2: \"\".\n"},
      {replace_all(kSmallText, "2.000000000000000000\t-5.000000000000000000", "2.0"),
       "ERROR: SSM model file, line 14: too few cells in block SSM::H: 1 of 2.\n"}};
  for (const auto& [text, message] : cases) EXPECT_EQ(read_error(text), message) << text;
}
