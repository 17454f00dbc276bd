// The line reader and the input table reader, called in process; the fatal
// paths run through the binary in test_reader_cli.cpp.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "data/SSMData.h"
#include "data/Str_readline.h"
#include "log.h"
#include "run_binary.h"
#include "text_stream.h"

namespace {

using tarn_test::stream_of;
const auto drain = tarn_test::text_of;

// All lines Str_readline delivers, and what the buffer holds once it reports the end.
std::vector<std::string> lines_of(const std::string& bytes, std::string* after_end = nullptr) {
  std::FILE* fp = stream_of(bytes);
  std::vector<std::string> lines;
  std::string line = "untouched";
  while (Str_readline(fp, line) == 0) lines.push_back(line);
  std::fclose(fp);
  if (after_end != nullptr) *after_end = line;
  return lines;
}

struct Loaded {
  std::unique_ptr<SSMData> data;
  std::string log;  // what the reader wrote after its "Reading input data file" line
};

Loaded load(const std::string& text) {
  tarn_test::ScratchDir dir;
  const auto path = dir / "in.txt";
  tarn_test::write_text(path, text);
  TARN_ERR = std::tmpfile();
  Loaded r;
  r.data = read_file(path.c_str());
  std::string log = drain(TARN_ERR);
  TARN_ERR = stderr;
  const std::string first = "Reading input data file: " + path.string() + "\n";
  EXPECT_EQ(log.substr(0, first.size()), first);
  r.log = log.substr(std::min(first.size(), log.size()));
  return r;
}

std::vector<int> sample_row(const SSMData& d, int r) {
  return std::vector<int>(d.sample_at[r], d.sample_at[r] + d.T);
}

std::vector<int> missing_of(const SSMData& d, int s) {
  std::vector<int> out;
  for (const int* m = d.missing[s];; ++m) {
    out.push_back(*m);
    if (*m == -1) return out;
  }
}

const std::string kTable =
    "@time\t1\t2\t3\t1\t2\t3\n"
    "@replicate\t1\t1\t1\t2\t2\t2\n"
    "obj1\t0.5\t1.2\tNaN\t0.7\t1.1\t0.9\n"
    "obj2\t-0.1\t0.0\t0.3\t0.2\tNaN\t0.1\n";

}  // namespace

TEST(StrReadline, SplitsOnEveryEndingAndKeepsTheBufferAtTheEnd) {
  std::string rest;
  EXPECT_EQ(lines_of("a\nb\r\nc\rd", &rest), (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_EQ(rest, "d");
  // Empty lines of every ending; a CR followed by text pushes that text back.
  EXPECT_EQ(lines_of("x\n\n\r\n\rq\n"), (std::vector<std::string>{"x", "", "", "", "q"}));
  // A lone CR as the very last byte makes no line, also right after another line.
  EXPECT_EQ(lines_of("a\n\r", &rest), std::vector<std::string>{"a"});
  EXPECT_EQ(rest, "a");
  EXPECT_EQ(lines_of("\r", &rest), std::vector<std::string>{});
  EXPECT_EQ(rest, "untouched");
  EXPECT_EQ(lines_of("", &rest), std::vector<std::string>{});
  EXPECT_EQ(rest, "untouched");
  // A CRLF at the very end is an ordinary line ending.
  EXPECT_EQ(lines_of("\r\n"), std::vector<std::string>{""});
}

TEST(StrReadline, DeliversLinesLongerThanItsChunk) {
  for (const std::size_t n : {1022u, 1023u, 1024u, 1025u, 2046u, 2047u, 2048u, 100000u}) {
    std::string longline;
    for (std::size_t i = 0; i < n; ++i) longline += static_cast<char>('a' + i % 26);
    const auto got = lines_of(longline + "\r\nend\n" + longline);
    ASSERT_EQ(got.size(), 3u) << n;
    EXPECT_EQ(got[0], longline) << n;
    EXPECT_EQ(got[1], "end") << n;
    EXPECT_EQ(got[2], longline) << n;
  }
}

TEST(ReadFile, ReadsTheTwoReplicateTable) {
  const Loaded r = load(kTable);
  const SSMData& d = *r.data;
  EXPECT_EQ(r.log, "");
  EXPECT_EQ(d.p, 2);
  EXPECT_EQ(d.n_samples, 6);
  EXPECT_EQ(d.T, 3);
  EXPECT_EQ(d.n_replicates, 2);
  EXPECT_EQ(sample_row(d, 0), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(sample_row(d, 1), (std::vector<int>{3, 4, 5}));
  // Element (i, s) at i + s * p; missing cells hold 0.0.
  EXPECT_EQ(d.Y, (std::vector<double>{0.5, -0.1, 1.2, 0.0, 0.0, 0.3, 0.7, 0.2, 1.1, 0.0, 0.9, 0.1}));
  const std::vector<std::vector<int>> missing{{-1}, {-1}, {0, -1}, {-1}, {1, -1}, {-1}};
  for (int s = 0; s < 6; ++s) EXPECT_EQ(missing_of(d, s), missing[s]) << s;
}

TEST(ReadFile, LineEndingsCommentsAndBlanksDoNotChangeTheTable) {
  const Loaded plain = load(kTable);
  const std::string variants[] = {
      "@time\t1\t2\t3\t1\t2\t3\r\n@replicate\t1\t1\t1\t2\t2\t2\r"
      "obj1\t0.5\t1.2\tNaN\t0.7\t1.1\t0.9\n"
      "obj2\t-0.1\t0.0\t0.3\t0.2\tNaN\t0.1",
      "# leading comment\t@time\t9\n@time\t1\t2\t3\t1\t2\t3\t\t \n#\n"
      "@replicate\t1\t1\t1\t2\t2\t2\n#between\tdata\n"
      "  obj1\t0.5\t1.2\tNaN\t0.7\t1.1\t0.9  \r\n#\n"
      "obj2\t-0.1\t0.0\t0.3\t0.2\tNaN\t0.1\t\n# trailing comment\n",
  };
  for (const auto& text : variants) {
    const Loaded other = load(text);
    EXPECT_EQ(other.data->p, 2);
    EXPECT_EQ(other.data->T, 3);
    EXPECT_EQ(other.data->Y, plain.data->Y);
    EXPECT_EQ(sample_row(*other.data, 1), sample_row(*plain.data, 1));
    for (int s = 0; s < 6; ++s) EXPECT_EQ(missing_of(*other.data, s), missing_of(*plain.data, s));
  }
}

TEST(ReadFile, CellConversion) {
  const Loaded r = load(
      "@time\t1\t2\t3\t4\t5\t6\t7\t8\n"
      "a\t1.5abc\tinf\t-Infinity\tNaN\tnan\tNAN\tnan(12)\t0x1p-2\n"
      "b\t\t2.0\t3.0\t  4\t-0\t1e3\t.5\t7\n");
  const SSMData& d = *r.data;
  ASSERT_EQ(d.n_samples, 8);
  const double inf = INFINITY;
  const std::vector<double> row_a{1.5, inf, -inf, 0.0, 0.0, 0.0, 0.0, 0.25};
  const std::vector<double> row_b{2.0, 2.0, 3.0, 4.0, -0.0, 1000.0, 0.5, 7.0};
  for (int s = 0; s < 8; ++s) {
    EXPECT_EQ(d.Y[0 + s * 2], row_a[s]) << s;
    EXPECT_EQ(d.Y[1 + s * 2], row_b[s]) << s;
    EXPECT_EQ(missing_of(d, s), (s >= 3 && s <= 6 ? std::vector<int>{0, -1} : std::vector<int>{-1}));
  }
}

TEST(ReadFile, MissingListsAscendAndEndInMinusOne) {
  const Loaded r = load("@time\t1\t2\na\tNaN\t1\nb\t2\tNaN\nc\tNaN\tNaN\nd\tNaN\t4\n");
  EXPECT_EQ(missing_of(*r.data, 0), (std::vector<int>{0, 2, 3, -1}));
  EXPECT_EQ(missing_of(*r.data, 1), (std::vector<int>{1, 2, -1}));
  EXPECT_EQ(r.data->Y, (std::vector<double>{0, 2, 0, 0, 1, 0, 0, 4}));
}

TEST(ReadFile, ReplicatesAndTimeGrids) {
  // Without a replicate line all columns are replicate 1.
  const Loaded single = load("@time\t2\t1\t3\na\t1\t2\t3\n");
  EXPECT_EQ(single.data->n_replicates, 1);
  EXPECT_EQ(sample_row(*single.data, 0), (std::vector<int>{1, 0, 2}));

  // Own time grids; labels 7, 3, 7 give replicate 0 to 7; time 4 is carried by nobody.
  const Loaded grids = load("@time\t1\t2\t5\t5\t1\n@REPLICATE\t7\t3\t7\t3\t3\na\t1\t2\t3\t4\t5\n");
  const SSMData& g = *grids.data;
  EXPECT_EQ(g.n_replicates, 2);
  EXPECT_EQ(g.T, 5);
  EXPECT_EQ(sample_row(g, 0), (std::vector<int>{0, -1, -1, -1, 2}));
  EXPECT_EQ(sample_row(g, 1), (std::vector<int>{4, 1, -1, -1, 3}));

  // A repeated (replicate, time) pair: the later column wins, both stay in Y.
  const Loaded dup = load("@Time\t1\t2\t1\n@replicate\t1\t1\t1\na\t10\t20\t30\n");
  EXPECT_EQ(dup.data->n_samples, 3);
  EXPECT_EQ(sample_row(*dup.data, 0), (std::vector<int>{2, 1}));
  EXPECT_EQ(dup.data->Y, (std::vector<double>{10, 20, 30}));

  // Empty header cells read the next label; a second time line appends.
  const Loaded header = load("@time\t\t2\n@time\t3\n@replicate\t1\t1\t2\na\t1\t2\t3\n");
  EXPECT_EQ(sample_row(*header.data, 0), (std::vector<int>{-1, 1, -1}));
  EXPECT_EQ(sample_row(*header.data, 1), (std::vector<int>{-1, -1, 2}));
}

TEST(ReadFile, MetaDataKeysAndTheirMessages) {
  const Loaded r = load(
      "$PrimaryKeyGroupID\thour\n"
      "  $secondarykeygroupid \t  run  \n"
      "$Color\tred\n"
      "$Lonely\t\n"
      "@time\t9\t9\n"
      "@HOUR\t1\t2\n"
      "$PrimaryKeyGroupID\ttime\n"
      "@Run\t4\t4\n"
      "@replicate\t-5\t-5\n"
      "a\t1\t2\n");
  EXPECT_EQ(r.log,
            "  $PrimaryKeyGroupID: \"hour\"\n"
            "  $SecondaryPrimaryKeyGroupID: \"run\"\n"
            "WARNING: Unsupported meta data key: $Color\n"
            "WARNING: Broken meta data line found. Skip...\n");
  EXPECT_EQ(r.data->T, 2);
  EXPECT_EQ(r.data->n_replicates, 1);
  EXPECT_EQ(sample_row(*r.data, 0), (std::vector<int>{0, 1}));
}

TEST(ReadFile, ExampleDataSets) {
  const struct {
    const char* name;
    int p, n_samples, T, n_replicates;
  } cases[] = {
      {"sim-expression.txt", 200, 34, 12, 3},
      {"grunfeld-11firms.txt", 3, 220, 20, 11},
      {"us-macro-growth-4rep.txt", 12, 200, 50, 4},
      {"us-macro-quarterly.txt", 12, 203, 203, 1},
  };
  for (const auto& c : cases) {
    TARN_ERR = std::tmpfile();
    const auto d = read_file((std::string(TARN_EXAMPLES_DIR "/data/") + c.name).c_str());
    const std::string log = drain(TARN_ERR);
    TARN_ERR = stderr;
    EXPECT_EQ(log, std::string("Reading input data file: " TARN_EXAMPLES_DIR "/data/") + c.name + "\n");
    EXPECT_EQ(d->p, c.p) << c.name;
    EXPECT_EQ(d->n_samples, c.n_samples) << c.name;
    EXPECT_EQ(d->T, c.T) << c.name;
    EXPECT_EQ(d->n_replicates, c.n_replicates) << c.name;
    EXPECT_EQ(d->Y.size(), static_cast<std::size_t>(c.p) * c.n_samples) << c.name;
    if (std::string(c.name) == "sim-expression.txt") {
      EXPECT_EQ(sample_row(*d, 2), (std::vector<int>{24, 25, 26, 27, -1, 28, 29, 30, -1, 31, 32, 33}));
      for (int s = 0; s < d->n_samples; ++s) {
        for (const int* m = d->missing[s]; *m != -1; ++m) EXPECT_EQ(d->Y[*m + s * d->p], 0.0);
      }
    }
  }
}
