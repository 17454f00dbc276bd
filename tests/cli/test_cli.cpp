// The real binary's command line: the help, rejected words and their messages,
// the word taken as input, the checks after parsing, the mode chosen and
// where the log goes.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "cli/args.h"
#include "run_binary.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace fs = std::filesystem;
using tarn_test::run_tarnssm;
using tarn_test::RunResult;
using tarn_test::ScratchDir;

namespace {

const std::string kData = TARN_EXAMPLES_DIR "/data/sim-expression.txt";

// The help text after its version line, rights line and empty line.
const char* const kHelp =
    "Usage:\n"
    "  [mpirun [mpi options]] tarnssm [options] file\n"
    "\n"
    "Options: (default values)\n"
    "  -d X[-Y:[Z]]  Region of dimensions. X, Y, and Z are integer values. (4)\n"
    "  -h            Show this help.\n"
    "  -i N          ID to distinguish concurrent executions. (N=1)\n"
    "  -l N          Loop limit in the EM algorithm. (N=40000)\n"
    "  -L {0|1|2}    Log mode. 0: auto, 1: all, 2: stderr. (0)\n"
    "  -r N          Random seed. (N=38)\n"
    "  --shift {0|1|2}\n"
    "                Mean shift mode. \n"
    "                  0: do nothing, 1: shift for replicates, 2: shift for all. (1)\n"
    "  --sge         SGE mode. (not specified)\n"
    "  --ssm file\n"
    "                Read SSM model file to calculate state variables.\n"
    "  -s N          Number of models (sets) for one size of dimensions. (N=1)\n"
    "  --threads N   Number of threads. (1)\n"
    "  -e STR        Output file name suffix. (STR=\"dat\")\n"
    "  --each {on|off}\n"
    "                Output resultant matrices/vectors in separate files. (off)\n"
    "  -o STR        Output file name prefix. (STR=\"result\")\n"
    "  --proc-file | -P\n"
    "                Insert the number of processes to the output file prefix. (not\n"
    "                 specified)\n"
    "  --state {on|off}\n"
    "                Output the estimated state variables. (on)\n"
    "  -n N          Iterations (num. of inital values) for EM. (N=100)\n"
    "  -l N | --em-loop N\n"
    "                Maximum limit of EM loops to converge. (N=20000)\n"
    "  --constrain-F {on|off} | -F {on|off}\n"
    "                Constrain F. (on)\n"
    "  --constrain-Fg X | -g X\n"
    "                Strength of contraining F. 0 < X < 1. (X=1.0)\n"
    "  --update-mu {on|off}\n"
    "                Update mu_0 or not. (on)\n"
    "  -c X | --converge X\n"
    "                Condition of convergence. (X=1.0E-5)\n"
    "  -R {on|off} | --RrI {on|off}\n"
    "                Assume R=rI or diagonal. R: system noise. (off)\n"
    "  --retry N     Maximum retry count. -1 for unlimited retry. (-1)\n"
    "  --abs-converge {on|off}\n"
    "                Use absolute convergence condition. (on)\n"
    "  --ridge X     Ridge. (X=0.0)\n"
    "  --H-mean X    Mean of H (elementwise Gaussian) (X=0.0)\n"
    "  --H-SD X      S.D. of H (elementwise Gaussian) (X=1.0)\n"
    "  --F-max X     Upper bound of F (uniform distribution) (X=1.5)\n"
    "  --F-min X     Lower bound of F (uniform distribution) (X=-1.5)\n"
    "  --mu X        Mean mu_0 (diagonal-elementwise Gaussian) (X=0.0)\n"
    "  --SD X        S.D sd_0 (diagonal-elementwise Gaussian) (X=1.0)\n";

// The closing lines of every run that reaches its end.
const std::regex kEnd(
    R"([\s\S]*\nAll time: \d+ day \d\d hour \d\d min \d\d sec\nX-ALL-TIME:\t\d+\.\d{6}\n)");

// Text with the build time stamps of the version lines replaced by "(T)".
std::string clean(const std::string& text) {
  static const std::regex stamp(R"(\(\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d UTC \d{4}\))");
  return std::regex_replace(text, stamp, "(T)");
}

const std::string kBanner = "Tarn-SSM  version 1.0.2 (T)\n" + std::string(TARN_RIGHTS_LINE) +
                            "\n\nThis program comes with ABSOLUTELY NO WARRANTY.\n\n"
                            "Single process mode.\n";
std::string help(const std::string& before) {
  return before + "Tarn SSM  version 1.0.2 (T)\n" + TARN_RIGHTS_LINE + "\n\n" + kHelp;
}
std::string cannot_open(const std::string& input) {
  return kBanner + "Reading input data file: " + input + "\nERROR: Cannot open file: " + input +
         "\n";
}

const std::string kUnknown = "ERROR: Unknown argument specified: ";
const std::string kTakes = "\" takes its argument.\n";
const std::string kFailed = "ERROR: Arugment parsing failed.\n";
const std::string kSingle = "**   Single Execution Mode   **\n";
const std::string kSge = "**   Single SGE Execution Mode   **\n";
const std::string kThread = "**   Thread Execution Mode   **\n";
const std::string kShiftLine = "Applying mean shift for the input data set.\n";

}  // namespace

// Runs that stop before any log is opened or any input is read.
TEST(Cli, CommandLinesThatStopEarly) {
  const std::string too_long = "ERROR: Output file name too long.\n";
  const std::string bad_g = "ERROR: Value for -g option neends to be from 0 to 1.\n";
  const std::string a971(971, 'a'), a972(972, 'a');
  const struct {
    std::vector<std::string> words;
    int status;
    std::string err;
  } cases[] = {
      {{"-h", "anything"}, 0, help("")},
      {{"-L", "7", "-h"}, 0, help("")},
      {{"--threads=4", "in"}, 0, help(kUnknown + "--threads=4\n")},
      {{"--RETRY", "1", "in"}, 0, help(kUnknown + "--RETRY\n")},  // exact, case-sensitive keys
      {{"--foo", "--bar", "in"}, 0, help(kUnknown + "--bar\n")},  // the word after the unknown key
      {{"in", "--foo", "x"}, 0, help(kUnknown + "--foo\n")},
      {{"--F-min", "-.5", "in"}, 0, help("ERROR: \"--F-min" + kTakes + kUnknown + "-.5\n")},
      {{"--retry", "--sge", "in"}, 0, help("ERROR: \"--retry" + kTakes + kUnknown + "--sge\n")},
      {{"in", "--each"}, 0, help("ERROR: \"--each" + kTakes + kUnknown + "--each\n")},
      {{"--each", "-"}, 0, help("ERROR: \"--each" + kTakes + kUnknown + "-\n")},
      {{"--each", "2", "in"}, 0, help(kFailed + kUnknown + "2\n")},
      {{"--each", "-1", "in"}, 0, help(kFailed + kUnknown + "-1\n")},
      {{"--state", "maybe", "in"}, 0, help(kFailed + kUnknown + "maybe\n")},
      // A lone dash takes the next word as input and stops there; a pending
      // key before it is dropped unseen.
      {{"-", "in"}, 0, help(kUnknown + "in\n")},
      {{"--each", "-", "x"}, 0, help(kUnknown + "x\n")},
      {{"--retry", "3", "-", "--sge", "y"}, 0, help(kUnknown + "--sge\n")},
      {{"-L", "7", "--sge", "--gsl", "x", "--foo", "y"}, 0, help(kUnknown + "--foo\n")},
      // The word taken as input, and the checks after parsing with their bounds.
      {{"first", "-5", "second"}, 1, cannot_open("second")},  // "-5" is no key
      {{"-o", "out", "-0"}, 1, cannot_open("-0")},
      {{"-P", "in"}, 1, cannot_open("in")},  // a flag passes its word on
      {{"in", "-"}, 1, cannot_open("in")},   // a closing lone dash does nothing
      {{"-o", a972, "in"}, 1, too_long},
      {{"-o", a971, "in"}, 1, cannot_open("in")},
      {{"-e", std::string(969, 'e'), "in"}, 1, too_long},
      {{"-o", std::string(966, 'a'), "-P", "in"}, 1, too_long},
      {{"-o", std::string(965, 'a'), "-P", "in"}, 1, cannot_open("in")},
      {{"-o", a972, "-g", "2", "in"}, 1, too_long},  // names come first
      {{"-g", "1.0001", "in"}, 1, bad_g},
      {{"--constrain-Fg", "-0.1", "-L", "1", "in"}, 1, bad_g},  // before any log is opened
      {{"-g", "1", "in"}, 1, cannot_open("in")},
      {{"-g", "0", "in"}, 1, cannot_open("in")},
      {{"-o", "no/such/dir", "--sge", "in"},
       1,
       "ERROR: Cannot open log file: no/such/dir.log.000001\n"},
  };
  ScratchDir dir;
  for (const auto& c : cases) {
    const RunResult r = run_tarnssm(c.words, dir.path());
    EXPECT_EQ(r.status, c.status) << c.words[0];
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(clean(r.err), c.err);
  }
  EXPECT_TRUE(fs::is_empty(dir.path()));  // no log was opened, no file written
}

TEST(Cli, ModeShiftAndLogDestination) {
  const struct {
    std::vector<std::string> words;
    std::string log_file;  // empty: the log is on stderr
    std::string present, absent;
  } cases[] = {
      {{"--sge"}, "result.log.000001", kSge, kSingle},
      {{"--sge", "-i", "5"}, "result.log.000005", kSge, kSingle},
      {{"-o", "a", "-o", "b", "--sge"}, "b.log.000001", kSge, kSingle},
      {{"-P", "--sge"}, "result.P0001.log.000001", kSge, kSingle},
      {{"-L", "1"}, "result.log.000000", kSingle, kSge},
      {{"-L", "1", "-i", "5", "--sge"}, "result.log.000000", kSge, kSingle},
      {{"-L", "2", "--sge"}, "", kSge, kSingle},
      {{"--gsl", "--debug", "3"}, "", kSingle, kThread},
      {{"--threads", "0"}, "", kThread, kSingle},
      {{"--threads", "2"}, "", kThread, kSingle},
      {{"--shift", "0"}, "", kSingle, kShiftLine},
      {{"--shift", "-1"}, "", kSingle, kShiftLine},
      {{"--shift", "3"}, "", kShiftLine, kThread},
  };
  for (const auto& c : cases) {
    ScratchDir dir;
    auto words = c.words;
    words.insert(words.end(), {"-n", "1", "-l", "3", "--state", "off", kData});
    const RunResult r = run_tarnssm(words, dir.path());
    EXPECT_EQ(r.out, "");
    const std::string log = c.log_file.empty() ? r.err : tarn_test::read_text(dir / c.log_file);
    if (!c.log_file.empty()) {
      EXPECT_EQ(r.err, "") << c.log_file;
    }
    EXPECT_EQ(clean(log).rfind(kBanner, 0), 0u) << log;
    EXPECT_NE(log.find(c.present), std::string::npos) << log;
    EXPECT_EQ(log.find(c.absent), std::string::npos) << log;
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(std::regex_match(log, kEnd)) << log;
  }

  ScratchDir dir;
  // --ssm wins over --sge and --threads; --sge still names the log.
  const RunResult apply = run_tarnssm({"--ssm", "x", "--sge", "--threads", "4", kData}, dir.path());
  EXPECT_EQ(apply.err, "");
  EXPECT_EQ(clean(tarn_test::read_text(dir / "result.log.000001")),
            kBanner + "Reading input data file: " + kData + "\n" + kShiftLine +
                "Reading the SSM model parameters from the file: x\nERROR: Cannot open file: x\n");
}
