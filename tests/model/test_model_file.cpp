// The model file: the exact text the writer produces, the round trip through
// the reader, and the reader's positional, forgiving treatment of odd files.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "kalman/Kalman.h"
#include "kalman/dense_reference.h"
#include "log.h"
#include "model/SSM_file.h"

using namespace dense_ref;

namespace {

std::string written(const SSM* ssm, int p, int k) {
  char* buf = nullptr;
  std::size_t size = 0;
  std::FILE* mem = open_memstream(&buf, &size);
  SSM_write_fp(ssm, p, k, mem);
  std::fclose(mem);
  std::string text(buf, size);
  std::free(buf);
  return text;
}

struct Loaded {
  int p = -7, k = -7;
  std::unique_ptr<SSM> ssm;
};

Loaded read_text(const std::string& text) {
  std::FILE* fp = std::tmpfile();
  std::fwrite(text.data(), 1, text.size(), fp);
  std::rewind(fp);
  Loaded out;
  out.ssm = SSM_read_fp(fp, &out.p, &out.k);
  std::fclose(fp);
  return out;
}

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
  for (std::size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
  return s;
}

void expect_same_model(const SSM& a, const SSM& b, int p, int k) {
  EXPECT_TRUE(same_bits(a.exp, b.exp, k));
  EXPECT_TRUE(same_bits(a.var, b.var, k * k));
  EXPECT_TRUE(same_bits(a.H, b.H, p * k));
  EXPECT_TRUE(same_bits(a.R, b.R, p));
  EXPECT_TRUE(same_bits(a.F, b.F, k * k));
  EXPECT_TRUE(same_bits(a.Q, b.Q, k));
}

// p = 3, k = 2 with values that print exactly; column-major in memory.
std::unique_ptr<SSM> small_model() {
  const double exp[] = {0.5, -1.25}, var[] = {2.0, 0.25, -0.75, 3.0};
  const double H[] = {1.0, 2.0, 3.0, -4.0, -5.0, -6.5}, R[] = {0.5, 0.75, 12345.5};
  const double F[] = {0.5, -0.125, 0.25, 0.375}, Q[] = {1.0, 0.0625};
  return to_ssm(Model{3, 2, Mat(2, 1, exp), Mat(2, 2, var), Mat(3, 2, H), Mat(3, 1, R),
                      Mat(2, 2, F), Mat(2, 1, Q)});
}

const char kSmallText[] =
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

void expect_fatal(const std::string& text, const char* message) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        TARN_ERR = stderr;
        read_text(text);
      },
      testing::ExitedWithCode(1), message);
}

}  // namespace

TEST(ModelFile, WritesLabelledBlocksRowByRowAndReadsThemBack) {
  auto ssm = small_model();
  const std::string text = written(ssm.get(), 3, 2);
  EXPECT_EQ(text, kSmallText);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4 * 2 + 2 * 3 + 15);
  const Loaded back = read_text(text);
  EXPECT_EQ(back.p, 3);
  EXPECT_EQ(back.k, 2);
  expect_same_model(*back.ssm, *ssm, 3, 2);
}

TEST(ModelFile, RoundTripKeepsFilterResults) {
  std::mt19937_64 rng(53);
  for (int k : {1, 3}) {
    for (int p : {1, 8}) {
      SCOPED_TRACE(testing::Message() << "p=" << p << " k=" << k);
      const Model m = random_model(p, k, rng);
      auto ssm = to_ssm(m);
      const Loaded back = read_text(written(ssm.get(), p, k));
      ASSERT_EQ(back.p, p);
      ASSERT_EQ(back.k, k);
      for (int i = 0; i < p * k; ++i) EXPECT_NEAR(back.ssm->H[i], ssm->H[i], 1e-17);
      for (int i = 0; i < k * k; ++i) EXPECT_NEAR(back.ssm->F[i], ssm->F[i], 1e-17);
      const Data d = random_series(p, 6, 2, rng);
      auto state = SSMState_new(k, 6);
      auto work = SSMWork_new(p, k, d.n_samples, 0);
      for (int r = 0; r < 2; ++r) {
        const auto* at = d.sample_at[static_cast<std::size_t>(r)].data();
        const double a = Kalman_filter(ssm.get(), state.get(), p, k, 6, d.Y.data(), at,
                                       d.missing.data(), work.get());
        const double b = Kalman_filter(back.ssm.get(), state.get(), p, k, 6, d.Y.data(), at,
                                       d.missing.data(), work.get());
        EXPECT_NEAR(b, a, 1e-12 * std::fabs(a));
      }
    }
  }
}

TEST(ModelFile, TinyValuesAndNotANumber) {
  auto ssm = small_model();
  ssm->exp[0] = 3e-20;  // below the last printed decimal
  ssm->exp[1] = -4e-19;
  ssm->H[4] = std::nan("");
  ssm->Q[1] = -std::nan("");
  const std::string text = written(ssm.get(), 3, 2);
  EXPECT_NE(text.find("\tnan\n"), std::string::npos);
  EXPECT_NE(text.find("\n-nan\n"), std::string::npos);
  const Loaded back = read_text(text);
  EXPECT_EQ(back.ssm->exp[0], 0.0);
  EXPECT_EQ(back.ssm->exp[1], 0.0);
  EXPECT_TRUE(std::isnan(back.ssm->H[4]));
  EXPECT_TRUE(std::isnan(back.ssm->Q[1]));
  EXPECT_EQ(back.ssm->H[1], 2.0);
}

TEST(ModelFile, AcceptsCarriageReturnLineEndings) {
  auto ssm = small_model();
  for (const char* ending : {"\r\n", "\r"}) {
    SCOPED_TRACE(ending[1] == '\n' ? "CRLF" : "CR");
    const Loaded back = read_text(replace_all(kSmallText, "\n", ending));
    ASSERT_EQ(back.p, 3);
    ASSERT_EQ(back.k, 2);
    expect_same_model(*back.ssm, *ssm, 3, 2);
  }
}

TEST(ModelFile, DimensionsComeFromLineTwoAlone) {
  auto ssm = small_model();
  std::string text = replace_all(kSmallText, "SSM_p_k\t1\t2", "whatever is here");
  text = replace_all(text, "SSM::H\t3\t2", "SSM::X\t9\t9");
  text = replace_all(text, "SSM::Q\t2\t1", "no header at all");
  const Loaded back = read_text(text);
  EXPECT_EQ(back.p, 3);
  EXPECT_EQ(back.k, 2);
  expect_same_model(*back.ssm, *ssm, 3, 2);
}

TEST(ModelFile, IgnoresWhatFollowsTheLastBlockAndExtraCells) {
  auto ssm = small_model();
  std::string text =
      std::string(kSmallText) + "SSMResult::D\t2\t3\n1\t2\t3\n4\t5\t6\n\nSSMResult::L\t2\t1\n";
  text = replace_all(text, "-6.500000000000000000\n", "-6.500000000000000000\t99\tabc\n");
  text = replace_all(text, "0.375000000000000000\n", "0.375000000000000000\t-1\n");
  const Loaded back = read_text(text);
  expect_same_model(*back.ssm, *ssm, 3, 2);
}

TEST(ModelFile, TruncatedFileRepeatsTheLastLineRead) {
  const std::string text(kSmallText);
  const std::string cut =
      text.substr(0, text.find("2.000000000000000000\t-5"));  // ends after row 0 of H
  const Loaded back = read_text(cut);
  ASSERT_EQ(back.p, 3);
  ASSERT_EQ(back.k, 2);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(back.ssm->H[i], 1.0);
    EXPECT_EQ(back.ssm->H[i + 3], -4.0);
    EXPECT_EQ(back.ssm->R[i], 1.0);
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(back.ssm->F[i], 1.0);
    EXPECT_EQ(back.ssm->F[i + 2], -4.0);
    EXPECT_EQ(back.ssm->Q[i], 1.0);
  }
  EXPECT_EQ(back.ssm->var[3], 3.0);
}

TEST(ModelFile, LineOneAloneIsReadAgainAsLineTwo) {
  for (const char* text : {"SSM_p_k\t1\t2", "SSM_p_k\t1\t2\n"}) {
    const Loaded back = read_text(text);
    EXPECT_EQ(back.p, 0);
    EXPECT_EQ(back.k, 1);
    EXPECT_EQ(back.ssm->exp[0], 0.0);
    EXPECT_EQ(back.ssm->F[0], 0.0);
  }
}

TEST(ModelFileDeathTest, MalformedFilesEndTheRun) {
  const char* params = "ERROR: Failed to read the SSM parameters\\.\n";
  expect_fatal("SSM_p_k\t1\t2\n3\n\nSSM::exp\t2\t1\n0.5\n", params);
  expect_fatal("SSM_p_k\t1\t2\n\n\nSSM::exp\t2\t1\n0.5\n", params);
  expect_fatal("", params);
  expect_fatal("SSM_p_k\t1\t2\n-3\t2\n\n", params);
  expect_fatal(replace_all(kSmallText, "2.000000000000000000\t-5.000000000000000000", "2.0"),
               "ERROR: Too few cells in a matrix line of the SSM model file\\.\n");
}
