// The line reader, the table reader and the mean shift on text in memory. The
// errors seen through the binary, after the log lines before them, are in
// tests/cli/test_reader_cli.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "io/log.h"
#include "io/read_line.h"
#include "io/read_table.h"
#include "text_stream.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

// read_table on text; *log gets what the reader wrote to the log.
Result<std::unique_ptr<SSMData>> read_text(std::string text, std::string* log = nullptr,
                                           const ReadBudget& budget = {}) {
  text += '\0';  // a buffer to open also for empty text; the NUL is not read
  std::FILE* in = fmemopen(text.data(), text.size() - 1, "r");
  TARN_ERR = std::tmpfile();
  auto table = read_table(in, budget);
  if (log != nullptr) *log = tarn_test::text_of(TARN_ERR);
  std::fclose(TARN_ERR);
  std::fclose(in);
  TARN_ERR = stderr;
  return table;
}

}  // namespace

TEST(ReadLine, EveryLineEndingAndLinesLongerThanItsChunk) {
  // The lines read, then the buffer once the end is reported.
  std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"a\nb\r\nc\rd", {"a", "b", "c", "d", "d"}},
      {"x\n\n\r\n\rq\n", {"x", "", "", "", "q", "q"}},
      {"a\n\r", {"a", "a"}},  // a lone CR as the last byte makes no line
      {"\r", {"untouched"}},
      {"", {"untouched"}},
      {"\r\n", {"", ""}}};
  for (const std::size_t n : {1023u, 1024u, 1025u, 2048u, 100000u}) {
    std::string line;
    for (std::size_t i = 0; i < n; ++i) line += static_cast<char>('a' + i % 26);
    cases.push_back({line + "\r\nend\n" + line, {line, "end", line, line}});
  }
  for (const auto& [bytes, want] : cases) {
    std::FILE* fp = tarn_test::stream_of(bytes);
    std::vector<std::string> lines;
    std::string line = "untouched";
    while (read_line(fp, line)) lines.push_back(line);
    lines.push_back(line);
    std::fclose(fp);
    EXPECT_EQ(lines, want) << bytes.substr(0, 20);
  }
}

TEST(ReadTable, TablesAndTheirLayout) {
  const std::string two_replicates =
      "p=2 at=0,1,2/3,4,5 Y=0.5,-0.1,1.2,0,0,0.3,0.7,0.2,1.1,0,0.9,0.1 missing=2:0 4:1 ";
  const struct {
    std::string text, layout;
    std::string log = "";
  } cases[] = {
      {"@time\t1\t2\t3\t1\t2\t3\r\n@replicate\t1\t1\t1\t2\t2\t2\r"
       "obj1\t0.5\t1.2\tNaN\t0.7\t1.1\t0.9\nobj2\t-0.1\t0.0\t0.3\t0.2\tNaN\t0.1",
       two_replicates},
      {"# leading comment\t@time\t9\n@time\t1\t2\t3\t1\t2\t3\t\t \n#\n"
       "@replicate\t1\t1\t1\t2\t2\t2\n#between\tdata\n"
       "  obj1\t0.5\t1.2\tNaN\t0.7\t1.1\t0.9  \r\n#\n"
       "obj2\t-0.1\t0.0\t0.3\t0.2\tNaN\t0.1\t\n# trailing comment\n",
       two_replicates},
      // Lenient conversion; an empty cell reads the next number of the line.
      {"@time\t1\t2\t3\t4\t5\t6\t7\t8\n"
       "a\t1.5abc\tinf\t-Infinity\tNaN\tnan\tNAN\tnan(12)\t0x1p-2\n"
       "b\t\t2.0\t3.0\t  4\t-0\t1e3\t.5\t7\n",
       "p=2 at=0,1,2,3,4,5,6,7 Y=1.5,2,inf,2,-inf,3,0,4,0,-0,0,1000,0,0.5,0.25,7 "
       "missing=3:0 4:0 5:0 6:0 "},
      {"@time\t2\t1\t3\na\tNaN\t2\t3\nb\tNaN\tNaN\t4\n",
       "p=2 at=1,0,2 Y=0,0,2,0,3,4 missing=0:0 0:1 1:1 "},
      // Labels 7, 3, 7 give replicates 0 and 1; time 4 is carried by nobody.
      {"@time\t1\t2\t5\t5\t1\n@REPLICATE\t7\t3\t7\t3\t3\na\t1\t2\t3\t4\t5\n",
       "p=1 at=0,-1,-1,-1,2/4,1,-1,-1,3 Y=1,2,3,4,5 missing="},
      // A repeated (replicate, time) pair: the later column wins, both stay in Y.
      {"@Time\t1\t2\t1\n@replicate\t1\t1\t1\na\t10\t20\t30\n", "p=1 at=2,1 Y=10,20,30 missing="},
      // Empty header cells read the next label; a second time line appends.
      {"@time\t\t2\n@time\t3\n@replicate\t1\t1\t2\na\t1\t2\t3\n",
       "p=1 at=-1,1,-1/-1,-1,2 Y=1,2,3 missing="},
      {"$PrimaryKeyGroupID\thour\n  $secondarykeygroupid \t  run  \n$Color\tred\n$Lonely\t\n"
       "@time\t9\t9\n@HOUR\t1\t2\n$PrimaryKeyGroupID\ttime\n@Run\t4\t4\n@replicate\t-5\t-5\n"
       "a\t1\t2\n",
       "p=1 at=0,1 Y=1,2 missing=",
       "  $PrimaryKeyGroupID: \"hour\"\n  $SecondaryPrimaryKeyGroupID: \"run\"\n"
       "WARNING: Unsupported meta data key: $Color\n"
       "WARNING: Broken meta data line found. Skip...\n"},
  };
  for (const auto& c : cases) {
    std::string log;
    const auto table = read_text(c.text, &log);
    ASSERT_TRUE(table.ok()) << table.status().message();
    const SSMData& d = *table.value();
    EXPECT_EQ(log, c.log);
    // Columns by replicate and time, Y column by column, then the missing
    // (column:object) pairs in the order of the lists.
    std::ostringstream o;
    o << "p=" << d.p << " at=";
    for (int r = 0; r < d.n_replicates; ++r) {
      for (int t = 0; t < d.T; ++t) o << (t > 0 ? "," : r > 0 ? "/" : "") << d.sample_at[r][t];
    }
    o << " Y=";
    for (std::size_t k = 0; k < d.Y.size(); ++k) o << (k > 0 ? "," : "") << d.Y[k];
    o << " missing=";
    for (int s = 0; s < d.n_samples; ++s) {
      for (const int* m = d.missing[s]; *m != -1; ++m) o << s << ":" << *m << " ";
    }
    EXPECT_EQ(o.str(), c.layout) << c.text;
  }
}

// The errors that the binary's tests do not reach: they come back with their
// message, after what the reader logged before.
TEST(ReadTable, MalformedTablesAndGridsBeyondTheBudgetFail) {
  const ReadBudget mb{1e6, 0.0}, gb{1e9, 1000.0};
  const struct {
    std::string text;
    ReadBudget budget;
    std::string message, log = "";
  } cases[] = {
      {"$PrimaryKeyGroupID\tday\n@day\t1\t\t4294967296\n",
       {},
       "ERROR: Label too large for an integer at line 2, column 4: \"4294967296\".",
       "  $PrimaryKeyGroupID: \"day\"\n"},
      {"@replicate\t1\t2\n",
       {},
       "ERROR: The columns have no time labels: the input has a "
       "replicate line but neither a time line nor data rows."},
      {"@time\t1\t2\na\t1\tx\n", {}, "ERROR: Unrecognizable character found at line 2"},
      {"@time\t1\t2\na\t1\nb\t1\t2\t3\n",
       {},
       "ERROR: Inconsistent number of columns: line 2\n     :   2 (previous) vs 1 (now)."},
      // Each time point takes an int per replicate and the bytes of the budget.
      {"@time\t250001\na\t1\n", mb,
       "ERROR: The job needs about 1.0 MB of memory (1 objects, 250001 time points in 1 "
       "replicates), more than the 1.0 MB this run may use: number the time points 1, 2, 3, "
       "..., or use a smaller -d or fewer --threads."},
      {"@time\t1000000\n@replicate\t0\na\t1\n", gb,
       "ERROR: The job needs about 1.0 GB of memory (1 objects, 1000000 time points in 1 "
       "replicates), more than the 1.0 GB this run may use: number the time points 1, 2, 3, "
       "..., or use a smaller -d or fewer --threads."},
  };
  for (const auto& c : cases) {
    std::string log;
    const auto table = read_text(c.text, &log, c.budget);
    EXPECT_FALSE(table.ok()) << c.text;
    EXPECT_EQ(table.status().message(), c.message);
    EXPECT_EQ(log, c.log);
  }
  EXPECT_TRUE(read_text("@time\t249996\na\t1\n", nullptr, mb).ok());  // 1e6 bytes
}

// Columns in a scrambled order over three replicates with their own time
// grids, a fifth of the cells missing, row 0 never seen in replicate 9, and
// the pair (2, 4) twice: the later column takes it over, and the earlier one,
// reached by no replicate, keeps its values when shifting per replicate. The
// expected means are computed from the generated columns.
TEST(MeanShift, PerReplicateAndOverAllAgainstIndependentMeans) {
  const int p = 7;
  const std::pair<int, int> columns[] = {{5, 3}, {2, 4}, {9, 7}, {5, 8}, {2, 2}, {5, 1},
                                         {9, 1}, {2, 6}, {5, 5}, {5, 2}, {2, 8}, {9, 5},
                                         {5, 7}, {2, 3}, {5, 4}, {5, 6}, {2, 4}};
  const std::size_t n = std::size(columns);
  std::mt19937 gen(20240611u);
  std::uniform_real_distribution<double> value(-50.0, 150.0);
  std::vector<double> y(n * p);  // column-major; NaN where missing
  std::string text = "@time", replicates = "\n@replicate";
  for (const auto& [replicate, time] : columns) {
    text.append("\t").append(std::to_string(time));
    replicates.append("\t").append(std::to_string(replicate));
  }
  text += replicates;
  for (int i = 0; i < p; ++i) {
    text.append("\nrow").append(std::to_string(i));
    for (std::size_t s = 0; s < n; ++s) {
      const bool missing = gen() % 5 == 0 || (i == 0 && columns[s].first == 9);
      y[i + s * p] = missing ? NAN : value(gen);
      char cell[40];
      std::snprintf(cell, sizeof cell, "\t%.17g", y[i + s * p]);
      text += cell;
    }
  }
  for (const int each_replicate : {1, 0}) {
    auto table = read_text(text + "\n");
    SSMData& data = *table.value();
    SSMData_node_mean_shift(&data, each_replicate);
    // The group of column s, or -1 for the column taken over.
    const auto group = [&](std::size_t s) {
      return each_replicate == 0 ? 0 : s == 1 ? -1 : columns[s].first;
    };
    for (std::size_t s = 0; s < n; ++s) {
      for (int i = 0; i < p; ++i) {
        double sum = 0.0, count = 0.0, v = y[i + s * p];
        for (std::size_t o = 0; o < n; ++o) {
          if (group(o) == group(s) && !std::isnan(y[i + o * p])) sum += y[i + o * p], ++count;
        }
        const double want = std::isnan(v) ? 0.0 : group(s) < 0 ? v : v - sum / count;
        EXPECT_NEAR(data.Y[i + s * p], want, 1e-11) << each_replicate << " " << s << " " << i;
      }
    }
  }
}
