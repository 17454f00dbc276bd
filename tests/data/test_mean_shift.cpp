// Centring of the objects, checked against means computed here from the table
// as it was generated, not from the reader's structures.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "data/SSMData.h"
#include "log.h"
#include "run_binary.h"

namespace {

std::unique_ptr<SSMData> load_text(const std::string& text) {
  tarn_test::ScratchDir dir;
  tarn_test::write_text(dir / "in.txt", text);
  TARN_ERR = std::tmpfile();
  auto data = read_file((dir / "in.txt").c_str());
  std::fclose(TARN_ERR);
  TARN_ERR = stderr;
  return data;
}

struct Column {
  int replicate;
  int time;
  std::vector<double> values;  // NaN where missing
};

// Columns in a scrambled order over three replicates with their own time grids,
// about a fifth of the cells missing, and one (replicate, time) pair twice.
std::vector<Column> make_columns(int p) {
  std::mt19937 gen(20240611u);
  std::uniform_real_distribution<double> value(-50.0, 150.0);
  std::uniform_int_distribution<int> percent(0, 99);
  std::vector<Column> cols;
  const std::pair<int, std::vector<int>> grids[] = {
      {5, {1, 2, 3, 4, 5, 6, 7, 8}}, {2, {2, 4, 6, 8, 3}}, {9, {7, 1, 5}}};
  for (const auto& [label, times] : grids) {
    for (const int t : times) cols.push_back({label, t, {}});
  }
  cols.push_back({2, 4, {}});  // takes (2, 4) over from the earlier column
  std::shuffle(cols.begin(), cols.end() - 1, gen);
  for (auto& c : cols) {
    for (int i = 0; i < p; ++i) c.values.push_back(percent(gen) < 20 ? NAN : value(gen));
    c.values[0] = c.replicate == 9 ? NAN : c.values[0];  // row 0 never seen in replicate 9
  }
  return cols;
}

std::string table_text(const std::vector<Column>& cols, int p) {
  std::string text = "@time";
  for (const auto& c : cols) text.append("\t").append(std::to_string(c.time));
  text += "\n@replicate";
  for (const auto& c : cols) text.append("\t").append(std::to_string(c.replicate));
  for (int i = 0; i < p; ++i) {
    text.append("\nrow").append(std::to_string(i));
    for (const auto& c : cols) {
      char cell[40];
      std::snprintf(cell, sizeof cell, "\t%.17g", c.values[i]);
      text += cell;
    }
  }
  return text + "\n";
}

// Expected Y after the shift; groups[s] names the group of column s, or -1 for
// a column that no group reaches.
std::vector<double> expected_shift(const std::vector<Column>& cols, int p, const std::vector<int>& groups) {
  std::map<std::pair<int, int>, std::pair<double, int>> sums;  // (group, row) -> sum, count
  for (std::size_t s = 0; s < cols.size(); ++s) {
    for (int i = 0; i < p; ++i) {
      if (groups[s] < 0 || std::isnan(cols[s].values[i])) continue;
      auto& [sum, n] = sums[{groups[s], i}];
      sum += cols[s].values[i];
      n += 1;
    }
  }
  std::vector<double> y;
  for (std::size_t s = 0; s < cols.size(); ++s) {
    for (int i = 0; i < p; ++i) {
      const double v = cols[s].values[i];
      if (std::isnan(v)) {
        y.push_back(0.0);
      } else if (groups[s] < 0) {
        y.push_back(v);
      } else {
        const auto& [sum, n] = sums.at({groups[s], i});
        y.push_back(v - sum / n);
      }
    }
  }
  return y;
}

void expect_near_all(const std::vector<double>& got, const std::vector<double>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t k = 0; k < got.size(); ++k) EXPECT_NEAR(got[k], want[k], 1e-11) << k;
}

}  // namespace

TEST(MeanShift, PerReplicateAgainstIndependentMeans) {
  const int p = 7;
  const auto cols = make_columns(p);
  auto data = load_text(table_text(cols, p));
  std::vector<int> groups;
  for (std::size_t s = 0; s < cols.size(); ++s) {
    bool taken_over = false;
    for (std::size_t later = s + 1; later < cols.size(); ++later) {
      taken_over |= cols[later].replicate == cols[s].replicate && cols[later].time == cols[s].time;
    }
    groups.push_back(taken_over ? -1 : cols[s].replicate);
  }
  SSMData_node_mean_shift(data.get(), 1);
  expect_near_all(data->Y, expected_shift(cols, p, groups));

  // Within each replicate, through sample_at, each object's values sum to zero.
  for (int r = 0; r < data->n_replicates; ++r) {
    for (int i = 0; i < p; ++i) {
      double sum = 0.0;
      for (int t = 0; t < data->T; ++t) {
        if (data->sample_at[r][t] >= 0) sum += data->Y[i + data->sample_at[r][t] * p];
      }
      EXPECT_NEAR(sum, 0.0, 1e-10) << r << " " << i;
    }
  }
  // Row 0 was never observed in replicate 9 and stays 0.0 there.
  for (std::size_t s = 0; s < cols.size(); ++s) {
    if (cols[s].replicate == 9) {
      EXPECT_EQ(data->Y[s * p], 0.0) << s;
    }
  }
}

TEST(MeanShift, AllSamplesAgainstIndependentMeans) {
  const int p = 7;
  const auto cols = make_columns(p);
  auto data = load_text(table_text(cols, p));
  SSMData_node_mean_shift(data.get(), 0);
  expect_near_all(data->Y, expected_shift(cols, p, std::vector<int>(cols.size(), 0)));
  for (int i = 0; i < p; ++i) {
    double sum = 0.0;
    for (int s = 0; s < data->n_samples; ++s) sum += data->Y[i + s * p];
    EXPECT_NEAR(sum, 0.0, 1e-10) << i;
  }
}

TEST(MeanShift, MissingCellsSingleSamplesAndTakenOverColumns) {
  // Column 4 takes (1, 1) over from column 0. Row a has one sample in
  // replicate 2; row b is missing everywhere that replicate 1 reaches.
  const std::string text =
      "@time\t1\t2\t1\t2\t1\n"
      "@replicate\t1\t1\t2\t2\t1\n"
      "a\t1\t2\t3\tNaN\t5\n"
      "b\tNaN\tNaN\t4\t6\tNaN\n";
  auto per_replicate = load_text(text);
  SSMData_node_mean_shift(per_replicate.get(), 1);
  EXPECT_EQ(per_replicate->Y, (std::vector<double>{1, 0, -1.5, 0, 0, -1, 0, 1, 1.5, 0}));
  EXPECT_EQ(per_replicate->missing[3][0], 0);

  auto over_all = load_text(text);
  SSMData_node_mean_shift(over_all.get(), 0);
  EXPECT_EQ(over_all->Y, (std::vector<double>{-1.75, 0, -0.75, 0, 0.25, -1, 0, 1, 2.25, 0}));

  // A replicate with one sample at a row leaves exactly 0.0 there.
  auto single = load_text("@time\t1\t2\n@replicate\t1\t2\na\t0.1\t-123.456789\n");
  SSMData_node_mean_shift(single.get(), 1);
  EXPECT_EQ(single->Y, (std::vector<double>{0.0, 0.0}));
}
