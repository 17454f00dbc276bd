// Tables and model files that stop the real binary: each run ends with status
// 1 and an exact log, never a signal. Includes the inputs the fuzz targets in
// fuzz/ turned up.

#include <gtest/gtest.h>

#include <string>

#include "run_binary.h"

namespace {

std::string columns(int line, int previous, int now) {
  return "ERROR: Inconsistent number of columns: line " + std::to_string(line) +
         "\n     :   " + std::to_string(previous) + " (previous) vs " + std::to_string(now) +
         " (now).\n";
}

const std::string kShift = "Applying mean shift for the input data set.\n";

// The summary block of a table without objects or samples, and its error.
std::string empty_data(int samples, int objects, int T, int replicates) {
  return kShift +
         "*******************************\n**   Single Execution Mode   **\n"
         "*******************************\n--- INPUT DATA ---------\n observed samples = " +
         std::to_string(samples) + "\n objects = " + std::to_string(objects) +
         "\n time points = " + std::to_string(T) + "\n replicates = " + std::to_string(replicates) +
         "\n------------------------\nERROR: The input data has no objects or no samples.\n";
}

}  // namespace

TEST(ReaderCli, InputsThatStopTheRun) {
  enum Via { kFile, kStdin, kModel };
  std::string row4096 = "1.5";
  for (int j = 1; j < 4096; ++j) row4096 += j % 2 == 0 ? "\t1.5" : "\t-2";
  const struct {
    Via via;
    std::string bytes;
    std::string log;  // after the line that names the input (and, for a model, its line)
  } cases[] = {
      {kFile, "@time\t1\t2\na\t1\t\n", columns(2, 2, 1)},
      {kFile, "@time\t1\t2\n\t1\t2\n", columns(2, 2, 1)},
      {kFile, "@time\t1\t2\na\t1\t2\nb\t1\t2\t3\nc\t1\n", columns(3, 2, 3)},
      {kFile, "# c\n@time\t1\t2\na\t1\t2\n\n", columns(4, 2, 0)},
      {kFile, "@time\t1\t2\na\t1\t2\n \t \nb\t3\t4\n", columns(3, 2, 0)},
      {kFile, "\n@time\t1\t2\na\t1\t2\n", columns(2, 0, 2)},
      {kFile, " # note\n@time\t1\t2\t3\na\t1\t2\t3\n", columns(2, 0, 3)},
      {kFile, "@time\t1\t2\na\t1\t2\n@replicate\t1\n", columns(3, 2, 1)},
      {kFile, "@time\t1\t2\t3\n@replicate\t1\t1\na\t1\t2\t3\n",
       "ERROR: Inconsistent number of columns: line 2\n"},
      {kFile, "#\n@replicate\t1\t1\n@time\t1\na\t1\n",
       "ERROR: Inconsistent number of columns: line 3\n"},
      {kFile, "# one\n@time\t1\t2\n#three\na\t1\t2\n# five\nb\tNA\t2\n",
       "ERROR: Unrecognizable character found at line 6\n"},
      {kFile, "@time\t1\na\tabc\n", "ERROR: Unrecognizable character found at line 2\n"},
      {kFile, "@time\t1\t2\n@replicate\na\t1\t2\n", "ERROR: Header line without a tab: line 2\n"},
      {kFile, "@time\t1\n$PrimaryKeyGroupID\na\t1\n", "ERROR: Header line without a tab: line 2\n"},
      {kFile, "@time\t1\t0\na\t1\t2\n",
       "ERROR: Time label out of range: 0 (time labels count from 1).\n"},
      {kFile, "@time\t-4\t1\na\t1\t2\n",
       "ERROR: Time label out of range: -4 (time labels count from 1).\n"},
      {kFile, "@time\t1\t2\n@replicate\t1\t-3\na\t1\t2\n",
       "ERROR: Negative replicate label: -3.\n"},
      {kFile, "@time\t1\t2\n",
       "ERROR: The columns have no replicate labels: the input has a time line but neither a "
       "replicate line nor data rows.\n"},
      {kFile, "", empty_data(0, 0, -2147483647, 0)},
      {kFile, "a\nb\n", empty_data(0, 2, -2147483647, 1)},
      // Meta-data lines are reported; a "$" line among the headers changes nothing.
      {kStdin,
       "$PrimaryKeyGroupID\thour\n$Unknown\tx\n$broken\n@hour\t1\t2\t3\t1\t2\t3\n"
       "$SecondaryKeyGroupID\tignored\n@replicate\t1\t1\t1\t2\t2\t2\r\n",
       "  $PrimaryKeyGroupID: \"hour\"\nWARNING: Unsupported meta data key: $Unknown\n"
       "WARNING: Broken meta data line found. Skip...\n" +
           empty_data(6, 0, 3, 2)},
      // A model of p = 0 and k = 23222 in 14 bytes: applying it needs 82 GB,
      // which is refused before anything is allocated (the message gives
      // the machine's memory; see the preflight tests). Truncated files stop
      // at once, also one whose last line is 3000 tabs long.
      {kModel, "x\n0\t4096\n\nexp\n" + row4096,
       "ERROR: SSM model file, line 6: the file ends before block SSM::exp is complete.\n"},
      {kModel, "x\n2\t3000\n\nexp\n" + std::string(2998, '\t') + "7\t8",
       "ERROR: SSM model file, line 5: not a number in block SSM::exp, column 1: \"\".\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes.substr(0, 40));
    tarn_test::ScratchDir dir;
    std::string log;
    tarn_test::RunResult r;
    if (c.via == kModel) {
      tarn_test::write_text(dir / "in.txt", "@time\t1\t2\na\t0.5\t1\nb\t-1\tNaN\nc\t2\t2.5\n");
      tarn_test::write_text(dir / "model.txt", c.bytes);
      r = tarn_test::run_tarnssm({"--ssm", "model.txt", "in.txt"}, dir.path());
      log = "Reading input data file: in.txt\n" + kShift +
            "Reading the SSM model parameters from the file: model.txt\n";
    } else if (c.via == kStdin) {
      r = tarn_test::run_tarnssm({"-n", "0"}, dir.path(), c.bytes);
      log = "Reading input data from the standard input.\n";
    } else {
      tarn_test::write_text(dir / "in.txt", c.bytes);
      r = tarn_test::run_tarnssm({"-n", "0", "in.txt"}, dir.path());
      log = "Reading input data file: in.txt\n";
    }
    EXPECT_EQ(r.signal, 0);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(tarn_test::after_banner(r.err), log + c.log);
  }
}
