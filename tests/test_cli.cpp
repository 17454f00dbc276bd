// Runs of the real binary: the banner, the mode chosen, the log's destination,
// the help text and the rejected command lines.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "Args.h"
#include "run_binary.h"

namespace fs = std::filesystem;
using tarn_test::run_tarnssm;
using tarn_test::RunResult;
using tarn_test::ScratchDir;

namespace {

const std::string kData = TARN_EXAMPLES_DIR "/data/sim-expression.txt";

// Small enough that a run stays quick once estimation does real work.
const std::vector<std::string> kQuick = {"-n", "1", "-l", "3", "--state", "off"};

std::vector<std::string> quick(std::vector<std::string> words) {
  words.insert(words.begin(), kQuick.begin(), kQuick.end());
  return words;
}

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

// Checks that text is exactly `before` followed by the whole help.
void expect_help_after(const std::string& text, const std::string& before) {
  ASSERT_EQ(text.substr(0, before.size()), before);
  const std::string help = text.substr(before.size());
  const auto eol1 = help.find('\n');
  ASSERT_NE(eol1, std::string::npos);
  EXPECT_TRUE(
      std::regex_match(help.substr(0, eol1), std::regex(R"(Tarn SSM  version 1\.0\.2 \(.+\))")));
  const std::string rights = std::string(TARN_RIGHTS_LINE) + "\n\n";
  EXPECT_EQ(rights.rfind("  ", 0), 0u);
  EXPECT_EQ(help.substr(eol1 + 1, rights.size()), rights);
  EXPECT_EQ(help.substr(eol1 + 1 + rights.size()), kHelp);
}

// The closing lines of every run that reaches its end.
const std::regex kEnd(
    R"([\s\S]*\nAll time: \d+ day \d\d hour \d\d min \d\d sec\nX-ALL-TIME:\t\d+\.\d{6}\n)");

// The banner: version, rights line, empty, no-warranty line, empty, process line.
void expect_banner(const std::string& log) {
  static const std::regex banner(
      "Tarn-SSM  version 1\\.0\\.2 \\(.+\\)\n  .+\n\n.+\n\nSingle process mode\\.\n[\\s\\S]*");
  EXPECT_TRUE(std::regex_match(log, banner)) << log.substr(0, 300);
  EXPECT_NE(log.find(std::string(TARN_RIGHTS_LINE) + "\n\n"), std::string::npos);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

TEST(Cli, HelpIsPrintedOnStderrWithStatusZero) {
  ScratchDir dir;
  for (const auto& words : std::vector<std::vector<std::string>>{
           {"-h"}, {"-h", "anything"}, {"-L", "7", "-h"}, {"--sge", "-h"}}) {
    const RunResult r = run_tarnssm(words, dir.path());
    EXPECT_EQ(r.status, 0) << words.back();
    EXPECT_EQ(r.out, "");
    expect_help_after(r.err, "");
  }
  EXPECT_TRUE(fs::is_empty(dir.path()));  // no log was opened
}

TEST(Cli, RejectedCommandLinesPrintErrorThenHelp) {
  const std::string unknown = "ERROR: Unknown argument specified: ";
  const struct {
    std::vector<std::string> words;
    std::string before;
  } cases[] = {
      {{"--threads=4", kData}, unknown + "--threads=4\n"},
      {{"--foo", "--bar", kData}, unknown + "--bar\n"},
      {{kData, "--foo", "x"}, unknown + "--foo\n"},
      {{kData, "--foo"}, unknown + "--foo\n"},
      {{"--F-min", "-.5", kData}, "ERROR: \"--F-min\" takes its argument.\n" + unknown + "-.5\n"},
      {{kData, "--each"}, "ERROR: \"--each\" takes its argument.\n" + unknown + "--each\n"},
      {{"--each", "2", kData}, "ERROR: Arugment parsing failed.\n" + unknown + "2\n"},
      {{"--state", "maybe", kData}, "ERROR: Arugment parsing failed.\n" + unknown + "maybe\n"},
      {{"-", kData}, unknown + kData + "\n"},
      {{"-L", "7", "--sge", "--gsl", "x", "--foo", "y"}, unknown + "--foo\n"},
  };
  ScratchDir dir;
  for (const auto& c : cases) {
    const RunResult r = run_tarnssm(c.words, dir.path());
    EXPECT_EQ(r.status, 0) << c.before;
    EXPECT_EQ(r.out, "");
    expect_help_after(r.err, c.before);
  }
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(Cli, ChecksAfterParsingStopWithStatusOne) {
  const std::string too_long = "ERROR: Output file name too long.\n";
  const std::string bad_g = "ERROR: Value for -g option neends to be from 0 to 1.\n";
  const struct {
    std::vector<std::string> words;
    std::string err;
  } cases[] = {
      {{"-o", std::string(972, 'a'), kData}, too_long},
      {{"-e", std::string(969, 'e'), kData}, too_long},
      {{"-o", std::string(966, 'a'), "-P", kData}, too_long},
      {{"-o", std::string(972, 'a'), "-g", "2", kData}, too_long},  // names come first
      {{"-g", "1.0001", kData}, bad_g},
      {{"-g", "-0.1", kData}, bad_g},
      {{"--constrain-Fg", "5", "-L", "1", kData}, bad_g},  // before any log is opened
  };
  ScratchDir dir;
  for (const auto& c : cases) {
    const RunResult r = run_tarnssm(c.words, dir.path());
    EXPECT_EQ(r.status, 1) << c.err;
    EXPECT_EQ(r.err, c.err);
  }
  EXPECT_TRUE(fs::is_empty(dir.path()));

  // At the bound the run goes ahead. With no starts the sets fail and no
  // file is written: names this long exceed what a file system takes.
  for (auto words :
       std::vector<std::vector<std::string>>{{"-o", std::string(971, 'a'), kData},
                                             {"-o", std::string(965, 'a'), "-P", kData},
                                             {"-g", "1", kData},
                                             {"-g", "0", kData}}) {
    words.insert(words.begin(), {"-n", "0"});
    const RunResult r = run_tarnssm(quick(words), dir.path());
    EXPECT_EQ(r.status, 0);
    expect_banner(r.err);
  }
}

TEST(Cli, RunFromFileOrStandardInput) {
  const auto head = [](const std::string& reading, const std::string& counts) {
    return reading +
           "Applying mean shift for the input data set.\n"
           "*******************************\n**   Single Execution Mode   **\n"
           "*******************************\n--- INPUT DATA ---------\n" +
           counts + "------------------------\n";
  };
  const std::string table =
      "@time\t1\t2\t3\t1\t2\t3\n@replicate\t1\t1\t1\t2\t2\t2\n"
      "obj1\t0.5\t1.2\tNaN\t0.7\t1.1\t0.9\nobj2\t-0.1\t0.0\t0.3\t0.2\tNaN\t0.1\n";
  const struct {
    std::vector<std::string> words;
    std::string stdin_text, head;
  } cases[] = {
      {quick({kData}), "",
       head("Reading input data file: " + kData + "\n",
            " observed samples = 34\n objects = 200\n time points = 12\n replicates = 3\n")},
      // No input word: the table comes from standard input.
      {quick({"-d", "1"}), table,
       head("Reading input data from the standard input.\n",
            " observed samples = 6\n objects = 2\n time points = 3\n replicates = 2\n")},
  };
  for (const auto& c : cases) {
    ScratchDir dir;
    const RunResult r = run_tarnssm(c.words, dir.path(), c.stdin_text);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    expect_banner(r.err);
    EXPECT_EQ(tarn_test::after_banner(r.err).rfind(c.head, 0), 0u) << r.err;
    EXPECT_TRUE(std::regex_match(r.err, kEnd)) << r.err;
  }
}

TEST(Cli, MissingInputDiesAfterBanner) {
  ScratchDir dir;
  const RunResult r = run_tarnssm({"nope.txt"}, dir.path());
  EXPECT_EQ(r.status, 1);
  expect_banner(r.err);
  EXPECT_EQ(tarn_test::after_banner(r.err),
            "Reading input data file: nope.txt\nERROR: Cannot open file: nope.txt\n");

  // Two positional words: the last one is the input.
  const RunResult last = run_tarnssm(quick({"nope.txt", kData}), dir.path());
  EXPECT_EQ(last.status, 0);
  EXPECT_TRUE(contains(last.err, "Reading input data file: " + kData + "\n"));
}

TEST(Cli, ModeSelection) {
  ScratchDir dir;
  const std::string thread_mode = "**   Thread Execution Mode   **\n";
  const std::string single_mode = "**   Single Execution Mode   **\n";
  for (const char* n : {"0", "2"}) {
    const RunResult r = run_tarnssm(quick({"--threads", n, kData}), dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.err, thread_mode)) << n;
    EXPECT_FALSE(contains(r.err, single_mode)) << n;
  }
  const RunResult one = run_tarnssm(quick({"--threads", "1", kData}), dir.path());
  EXPECT_TRUE(contains(one.err, single_mode));

  // The mean shift line comes only with a positive --shift.
  const std::string shift_line = "Applying mean shift for the input data set.\n";
  for (const char* shift : {"0", "-1"}) {
    const RunResult r = run_tarnssm(quick({"--shift", shift, kData}), dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_FALSE(contains(r.err, shift_line)) << shift;
  }
  EXPECT_TRUE(contains(run_tarnssm(quick({"--shift", "2", kData}), dir.path()).err, shift_line));

  // --ssm wins over --sge and --threads; --sge still names the log.
  const RunResult apply =
      run_tarnssm(quick({"--ssm", "x", "--sge", "--threads", "4", kData}), dir.path());
  EXPECT_EQ(apply.err, "");
  const std::string log = tarn_test::read_text(dir / "result.log.000001");
  expect_banner(log);
  EXPECT_TRUE(contains(log, "Reading the SSM model parameters from the file: x\n")) << log;
  EXPECT_FALSE(contains(log, "Execution Mode"));
}

TEST(Cli, LogDestinations) {
  const std::string sge_mode = "**   Single SGE Execution Mode   **\n";
  const struct {
    std::vector<std::string> words;
    std::string log_file;  // empty: the log is on stderr
    std::string mode;
  } cases[] = {
      {{"--sge", kData}, "result.log.000001", sge_mode},
      {{"--sge", "-i", "5", kData}, "result.log.000005", sge_mode},
      {{"-o", "a", "-o", "b", "--sge", kData}, "b.log.000001", sge_mode},
      {{"-P", "--sge", kData}, "result.P0001.log.000001", sge_mode},
      {{"-L", "1", kData}, "result.log.000000", "**   Single Execution Mode   **\n"},
      {{"-L", "1", "-i", "5", "--sge", kData}, "result.log.000000", sge_mode},
      {{"-L", "2", "--sge", kData}, "", sge_mode},
      {{"--gsl", "--debug", "3", kData}, "", "**   Single Execution Mode   **\n"},
  };
  for (const auto& c : cases) {
    ScratchDir dir;
    const RunResult r = run_tarnssm(quick(c.words), dir.path());
    EXPECT_EQ(r.status, 0) << c.log_file;
    EXPECT_EQ(r.out, "");
    const std::string log = c.log_file.empty() ? r.err : tarn_test::read_text(dir / c.log_file);
    if (!c.log_file.empty()) {
      EXPECT_EQ(r.err, "") << c.log_file;
      EXPECT_TRUE(fs::exists(dir / c.log_file)) << c.log_file;
    }
    expect_banner(log);
    EXPECT_TRUE(contains(log, c.mode)) << log;
    EXPECT_TRUE(std::regex_match(log, kEnd)) << log;
  }

  // Log mode 7: the whole log goes to the null device.
  ScratchDir dir;
  const RunResult quiet = run_tarnssm(quick({"-L", "7", "--sge", kData}), dir.path());
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, "");
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    EXPECT_FALSE(contains(entry.path().filename().string(), ".log")) << entry.path();
  }

  // A log that cannot be opened is reported on stderr and the run goes no further.
  const RunResult bad = run_tarnssm(quick({"-o", "no/such/dir", "--sge", kData}), dir.path());
  EXPECT_NE(bad.status, 0);
  EXPECT_EQ(bad.err.rfind("ERROR: Cannot open log file: no/such/dir.log.000001\n", 0), 0u)
      << bad.err;
  EXPECT_FALSE(contains(bad.err, "Tarn-SSM"));
}
