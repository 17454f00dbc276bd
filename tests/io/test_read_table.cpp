// The line reader and the table reader on text in memory. The errors through
// the binary, after the log lines before them, are in tests/cli/test_reader_cli.cpp.

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "io/log.h"
#include "io/read_line.h"
#include "io/read_table.h"
#include "run_binary.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

// read_table on text; *log gets what the reader wrote to the log.
Result<std::unique_ptr<DataSet>> read_text(std::string text, std::string* log = nullptr,
                                           const ReadBudget& budget = {}) {
  text += '\0';  // a buffer to open also for empty text; the NUL is not read
  std::FILE* in = fmemopen(text.data(), text.size() - 1, "r");
  std::FILE* log_file = std::tmpfile();
  auto table = read_table(in, log_file, budget);
  if (log != nullptr) *log = tarn_test::text_of(log_file);
  std::fclose(log_file);
  std::fclose(in);
  return table;
}

}  // namespace

TEST(ReadLine, EveryLineEndingAndLinesLongerThanItsChunk) {
  // The lines read, then what the buffer holds once the end is reported. A
  // lone CR as the last byte makes no line.
  std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"a\nb\r\nc\rd", {"a", "b", "c", "d", "d"}},
      {"x\n\n\r\n\rq\n", {"x", "", "", "", "q", "q"}},
      {"a\n\r", {"a", "a"}},
      {"\r", {"-"}},
      {"", {"-"}},
      {"\r\n", {"", ""}}};
  for (const std::size_t n : {1023u, 1024u, 1025u, 100000u}) {
    const std::string line(n, 'x');
    cases.push_back({line + "\r\nend\n" + line, {line, "end", line, line}});
  }
  for (const auto& [bytes, want] : cases) {
    std::FILE* fp = tarn_test::stream_of(bytes);
    std::vector<std::string> lines;
    std::string line = "-";
    while (read_line(fp, line)) lines.push_back(line);
    lines.push_back(line);
    std::fclose(fp);
    EXPECT_EQ(lines, want) << bytes.substr(0, 20);
  }
}

// Each table as its columns by replicate and time, Y column by column, and
// the missing (column:object) pairs in the order of the lists.
TEST(ReadTable, TablesAndTheirLayout) {
  const struct {
    std::string text, layout, log = "";
  } cases[] = {
      {"# note\t@time\t9\n@time\t1\t2\t1\t2\t\t \r\n#\n@replicate\t1\t1\t2\t2\r"
       "  a\t0.5\tNaN\t0.7\t1.1  \r\n#\tx\nb\t-0.1\t0.3\tNaN\t0.1\t\n# end",
       "at=0,1/2,3 Y=0.5,-0.1,0,0.3,0.7,0,1.1,0.1 missing=1:0 2:1 "},
      // Lenient conversion; an empty cell reads the next number of the line.
      {"@time\t1\t2\t3\t4\t5\t6\t7\t8\na\t1.5abc\tinf\t-Infinity\tNaN\tnan\tNAN\tnan(12)\t0x1p-2\n"
       "b\t\t2.0\t3.0\t  4\t-0\t1e3\t.5\t7\n",
       "at=0,1,2,3,4,5,6,7 Y=1.5,2,inf,2,-inf,3,0,4,0,-0,0,1000,0,0.5,0.25,7 "
       "missing=3:0 4:0 5:0 6:0 "},
      // Labels 7, 3, 7 give replicates 0 and 1; time 4 is carried by nobody.
      {"@time\t1\t2\t5\t5\t1\n@REPLICATE\t7\t3\t7\t3\t3\na\t1\t2\t3\t4\t5\n",
       "at=0,-1,-1,-1,2/4,1,-1,-1,3 Y=1,2,3,4,5 missing="},
      // A repeated pair: the later column wins, both stay in Y. Empty header
      // cells read the next label; a second time line appends.
      {"@Time\t\t1\n@time\t1\n@replicate\t1\t1\t1\na\t10\t20\t30\n", "at=2 Y=10,20,30 missing="},
      {"$PrimaryKeyGroupID\thour\n  $secondarykeygroupid \t  run  \n$Color\tred\n$Lonely\t\n"
       "@time\t9\t9\n@HOUR\t1\t2\n$PrimaryKeyGroupID\ttime\n@Run\t4\t4\n@replicate\t-5\t-5\n"
       "a\t1\t2\n",
       "at=0,1 Y=1,2 missing=",
       "  $PrimaryKeyGroupID: \"hour\"\n  $SecondaryPrimaryKeyGroupID: \"run\"\n"
       "WARNING: Unsupported meta data key: $Color\nWARNING: Broken meta data line found. "
       "Skip...\n"},
  };
  for (const auto& c : cases) {
    std::string log;
    const auto table = read_text(c.text, &log);
    ASSERT_TRUE(table.ok()) << table.status().message();
    const DataSet& d = *table.value();
    std::ostringstream o;
    o << "at=";
    for (int r = 0; r < d.n_replicates; ++r)
      for (int t = 0; t < d.T; ++t) o << (t > 0 ? "," : r > 0 ? "/" : "") << d.sample_at[r][t];
    o << " Y=";
    for (std::size_t k = 0; k < d.Y.size(); ++k) o << (k > 0 ? "," : "") << d.Y[k];
    o << " missing=";
    for (int s = 0; s < d.n_samples; ++s)
      for (const int* m = d.missing[s]; *m != -1; ++m) o << s << ":" << *m << " ";
    EXPECT_EQ(o.str(), c.layout) << c.text;
    EXPECT_EQ(log, c.log);
  }
}

// Errors the golden logs do not reach, after what the reader logged before.
// A time point takes an int per replicate and the budget's bytes per point.
TEST(ReadTable, MalformedTablesAndGridsBeyondTheBudgetFail) {
  const auto grid = [](const std::string& unit, int T) {
    return "ERROR: The job needs about 1.0 " + unit + " of memory (1 objects, " +
           std::to_string(T) + " time points in 1 replicates), more than the 1.0 " + unit +
           " this run may use: number the time points 1, 2, 3, ..., or use a smaller -d or "
           "fewer --threads.";
  };
  const std::tuple<std::string, ReadBudget, std::string> cases[] = {
      {"@replicate\t1\t2\n",
       {},
       "ERROR: The columns have no time labels: the input has a replicate line but neither a "
       "time line nor data rows."},
      {"@time\t250001\na\t1\n", {1e6, 0.0}, grid("MB", 250001)},
      {"@time\t1000000\n@replicate\t0\na\t1\n", {1e9, 1000.0}, grid("GB", 1000000)}};
  for (const auto& [text, budget, want] : cases) {
    std::string log;
    const auto table = read_text(text, &log, budget);
    EXPECT_EQ(log + table.status().message(), want) << text;
  }
  EXPECT_TRUE(read_text("@time\t249996\na\t1\n", nullptr, {1e6, 0.0}).ok());  // 1e6 bytes
}
