// Inputs that the fuzz targets in fuzz/ turned up, kept as regression tests,
// and a run of the real binary over the seed corpus: every input ends with
// status 0, or with status 1 and a single "ERROR: " line, never by a signal.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "data/SSMData.h"
#include "log.h"
#include "model/SSM_file.h"
#include "run_binary.h"

namespace {

namespace fs = std::filesystem;

struct FatalError {};

[[noreturn]] void throw_fatal() { throw FatalError{}; }

// The fuzz drivers' setting: fatal errors throw, the log goes nowhere.
class ReaderInProcess : public testing::Test {
 protected:
  void SetUp() override {
    log_ = std::fopen("/dev/null", "w");
    ASSERT_NE(log_, nullptr);
    TARN_ERR = log_;
    tarn_fatal_hook = throw_fatal;
  }
  void TearDown() override {
    tarn_fatal_hook = nullptr;
    TARN_ERR = stderr;
    if (log_ != nullptr) std::fclose(log_);
  }

 private:
  std::FILE* log_ = nullptr;
};

std::size_t open_descriptors() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

struct Model {
  int p = -7;
  int k = -7;
  std::unique_ptr<SSM> ssm;
};

Model read_model_text(const std::string& text) {
  std::FILE* fp = std::tmpfile();
  std::fwrite(text.data(), 1, text.size(), fp);
  std::rewind(fp);
  Model m;
  try {
    m.ssm = SSM_read_fp(fp, &m.p, &m.k);
  } catch (...) {
    std::fclose(fp);
    throw;
  }
  std::fclose(fp);
  return m;
}

std::size_t error_lines(const std::string& log) {
  std::size_t n = 0;
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("ERROR: ", 0) == 0) ++n;
  }
  return n;
}

fs::path corpus_dir(const char* name) {
  return fs::path(TARN_EXAMPLES_DIR).parent_path() / "fuzz" / "corpus" / name;
}

std::vector<fs::path> corpus_files(const char* name) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(corpus_dir(name))) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void expect_clean_end(const tarn_test::RunResult& r, const fs::path& input) {
  EXPECT_EQ(r.signal, 0) << input;
  EXPECT_TRUE(r.status == 0 || r.status == 1) << input << ": status " << r.status;
  EXPECT_EQ(error_lines(r.err), r.status == 1 ? 1u : 0u) << input << "\n" << r.err;
  EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << input << "\n" << r.err;
}

}  // namespace

// A fatal error in the table left the named file open: a driver that goes on
// after the error ran out of file descriptors after about a thousand inputs.
TEST_F(ReaderInProcess, TableFatalErrorClosesTheFile) {
  tarn_test::ScratchDir dir;
  const auto path = dir / "in.txt";
  tarn_test::write_text(path, "@time\t1\t2\na\t1\tNA\n");
  const std::size_t before = open_descriptors();
  for (int i = 0; i < 3; ++i) {
    EXPECT_THROW(read_file(path.c_str()), FatalError);
  }
  EXPECT_EQ(open_descriptors(), before);
  // The end of the table is checked after the file is closed; its errors too.
  tarn_test::write_text(path, "@time\t0\na\t1\n");
  EXPECT_THROW(read_file(path.c_str()), FatalError);
  EXPECT_EQ(open_descriptors(), before);
}

// Line 2 of "SM\n-p_1\t23222" declares k = 23222: two k x k arrays of 4.3 GB
// each were zero-filled before anything else was looked at.
TEST(FuzzRegressionCli, ModelOfAbsurdSizeIsRefusedBeforeItIsAllocated) {
  tarn_test::ScratchDir dir;
  tarn_test::write_text(dir / "in.txt", "@time\t1\t2\na\t1\t2\n");
  const struct {
    std::string model;
    std::string message;
  } cases[] = {
      {"SM\n-p_1\t23222",
       "ERROR: SSM dimensions too large: p = 0, dim = 23222 (at most 16777216 elements in a "
       "matrix).\n"},
      {"x\n16777217\t0\n",
       "ERROR: SSM dimensions too large: p = 16777217, dim = 0 (at most 16777216 elements in a "
       "matrix).\n"},
      {"x\n2147483647\t2147483647\n",
       "ERROR: SSM dimensions too large: p = 2147483647, dim = 2147483647 (at most 16777216 "
       "elements in a matrix).\n"},
      {"x\n5000\t4000\n",
       "ERROR: SSM dimensions too large: p = 5000, dim = 4000 (at most 16777216 elements in a "
       "matrix).\n"},
  };
  for (const auto& c : cases) {
    tarn_test::write_text(dir / "model.txt", c.model);
    const auto r = tarn_test::run_tarnssm({"--ssm", "model.txt", "in.txt"}, dir.path());
    EXPECT_EQ(r.signal, 0);
    EXPECT_EQ(r.status, 1);
    const std::string tail =
        "Reading the SSM model parameters from the file: model.txt\n" + c.message;
    ASSERT_GE(r.err.size(), tail.size()) << r.err;
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail) << r.err;
  }
}

// The bound is on each matrix: k = 4096 makes var and F exactly 2^24 elements.
// Such a model is read; one more state, or one object more than H may have, is not.
TEST_F(ReaderInProcess, ModelAtTheSizeBoundIsRead) {
  std::string row = "1.5";
  for (int j = 1; j < 4096; ++j) row += j % 2 == 0 ? "\t1.5" : "\t-2";
  const Model m = read_model_text("x\n0\t4096\n\nexp\n" + row);
  ASSERT_EQ(m.p, 0);
  ASSERT_EQ(m.k, 4096);
  const std::size_t last = 4096u * 4096u - 1;  // row 4095, column 4095
  EXPECT_EQ(m.ssm->var[last], -2.0);
  EXPECT_EQ(m.ssm->F[last - 4096], 1.5);  // column 4094
  EXPECT_EQ(m.ssm->Q[4095], 1.5);
  EXPECT_THROW(read_model_text("x\n0\t4097\n\nexp\n" + row), FatalError);
  EXPECT_THROW(read_model_text("x\n4097\t4096\n\nexp\n" + row), FatalError);
}

// A truncated model ending in a long line of tabs: every row after the end of
// input converted the whole line again, with each empty cell's conversion
// running over all the tabs behind it, so that a 4 kB file took minutes. The
// rows now stand copied, with the same numbers: an empty cell reads the next
// number of the line, as the conversion skips the tabs as white space.
TEST_F(ReaderInProcess, TruncatedModelEndingInTabsRepeatsItsLastLine) {
  const int k = 3000;
  std::string tail(static_cast<std::size_t>(k - 2), '\t');
  tail += "7\t8";
  const Model m = read_model_text("x\n2\t" + std::to_string(k) + "\n" + tail);
  ASSERT_EQ(m.p, 2);
  ASSERT_EQ(m.k, k);
  const std::size_t kk = static_cast<std::size_t>(k) * k;
  for (const double* A : {m.ssm->var.get(), m.ssm->F.get()}) {
    EXPECT_EQ(std::count(A, A + kk, 7.0), static_cast<long>(kk) - k);
    EXPECT_EQ(std::count(A, A + kk, 8.0), k);
    EXPECT_EQ(A[kk - 1], 8.0);  // row k - 1, last column
    EXPECT_EQ(A[kk - k - 1], 7.0);  // row k - 1, column k - 2
  }
  for (int i = 0; i < k; ++i) {
    EXPECT_EQ(m.ssm->exp[i], 7.0);
    EXPECT_EQ(m.ssm->Q[i], 7.0);
  }
  EXPECT_EQ(m.ssm->H[1], 7.0);
  EXPECT_EQ(m.ssm->H[2 * k - 1], 8.0);
  EXPECT_EQ(m.ssm->R[1], 7.0);
}

// Rows read before the end of input are converted, not copied: only a row
// read at the end repeats the one before it, and the first row of a block
// converts the line that stands again with the block's own column count.
TEST_F(ReaderInProcess, TruncatedModelRowsBeforeTheEndAreTheirOwn) {
  // p = 2, k = 2; the file ends inside H after its first row.
  const Model m = read_model_text(
      "x\n2\t2\n\nexp\n1\n2\n\nvar\n3\t4\n5\t6\n\nH\n7\t8\t9");
  ASSERT_EQ(m.k, 2);
  EXPECT_EQ(m.ssm->exp[0], 1.0);
  EXPECT_EQ(m.ssm->exp[1], 2.0);
  EXPECT_EQ(m.ssm->var[0], 3.0);
  EXPECT_EQ(m.ssm->var[1], 5.0);
  EXPECT_EQ(m.ssm->var[2], 4.0);
  EXPECT_EQ(m.ssm->var[3], 6.0);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(m.ssm->H[i], 7.0);
    EXPECT_EQ(m.ssm->H[i + 2], 8.0);
    EXPECT_EQ(m.ssm->R[i], 7.0);
    EXPECT_EQ(m.ssm->F[i], 7.0);
    EXPECT_EQ(m.ssm->F[i + 2], 8.0);
    EXPECT_EQ(m.ssm->Q[i], 7.0);
  }
  // A line with too few cells for the next block is still refused at the end of input.
  EXPECT_THROW(read_model_text("x\n1\t2\n\nexp\n1\n2\n\nvar\n3"), FatalError);
}

// 450 replicate labels and one time label of ten million in a 3.5 kB table:
// the replicate-by-time table of columns took 18 GB, all of it written.
TEST(FuzzRegressionCli, TableOfManyReplicatesAndALargeTimeLabelIsRefused) {
  const auto table = [](int replicates, int last_time) {
    std::string time = "@time", replicate = "@replicate", row = "a";
    for (int r = 0; r < replicates; ++r) {
      time += "\t" + std::to_string(r == 0 ? last_time : 1);
      replicate += "\t" + std::to_string(r);
      row += "\t1";
    }
    return time + "\n" + replicate + "\n" + row + "\n";
  };
  const struct {
    std::string table;
    std::string message;
  } cases[] = {
      {table(450, 10000000),
       "ERROR: Too many replicates and time points: 450 x 10000000 (at most 134217728 pairs).\n"},
      {table(17, 8388608),  // 2^27 / 16 time points: one replicate over the bound
       "ERROR: Too many replicates and time points: 17 x 8388608 (at most 134217728 pairs).\n"},
  };
  for (const auto& c : cases) {
    tarn_test::ScratchDir dir;
    tarn_test::write_text(dir / "in.txt", c.table);
    const auto r = tarn_test::run_tarnssm({"-n", "0", "in.txt"}, dir.path());
    EXPECT_EQ(r.signal, 0);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(tarn_test::after_banner(r.err), "Reading input data file: in.txt\n" + c.message);
  }
}

TEST(FuzzCorpusCli, EveryTableEndsWithStatusZeroOrOneError) {
  const auto files = corpus_files("table");
  ASSERT_GE(files.size(), 8u);
  for (const auto& file : files) {
    tarn_test::ScratchDir dir;
    fs::copy_file(file, dir / "in.txt");
    expect_clean_end(tarn_test::run_tarnssm({"-n", "0", "in.txt"}, dir.path()), file);
  }
}

TEST(FuzzCorpusCli, EveryModelEndsWithStatusZeroOrOneError) {
  const auto files = corpus_files("model");
  ASSERT_GE(files.size(), 8u);
  std::size_t accepted = 0;
  for (const auto& file : files) {
    tarn_test::ScratchDir dir;
    tarn_test::write_text(dir / "in.txt",
                          "@time\t1\t2\t3\na\t0.5\t1\t1.5\nb\t-1\tNaN\t0\nc\t2\t2.5\t3\n");
    fs::copy_file(file, dir / "model.txt");
    const auto r = tarn_test::run_tarnssm({"--ssm", "model.txt", "in.txt"}, dir.path());
    expect_clean_end(r, file);
    if (r.status == 0) ++accepted;
  }
  EXPECT_GE(accepted, 3u);  // the valid, CRLF and not-a-number models at least
}
