#include "core/em_data.h"

#include <algorithm>

namespace tarn {

namespace {

// For each table column, whether a time point of some replicate reads it.
std::vector<bool> read_columns(const DataSet& table) {
  std::vector<bool> read(static_cast<std::size_t>(table.n_samples), false);
  for (int r = 0; r < table.n_replicates; ++r) {
    for (int t = 0; t < table.T; ++t) {
      const int s = table.sample_at[static_cast<std::size_t>(r)][t];
      if (s >= 0) read[static_cast<std::size_t>(s)] = true;
    }
  }
  return read;
}

std::size_t cell(int i, int s, int p) {
  return static_cast<std::size_t>(i) + static_cast<std::size_t>(s) * static_cast<std::size_t>(p);
}

}  // namespace

EmData::EmData(const DataSet& table)
    : table_(table), column_of_(static_cast<std::size_t>(table.n_samples), -1) {
  const std::vector<bool> read = read_columns(table);
  for (int s = 0; s < table.n_samples; ++s) {
    if (!read[static_cast<std::size_t>(s)]) continue;
    column_of_[static_cast<std::size_t>(s)] = columns();
    read_.push_back(s);
  }
  const int p = table.p;
  const int n = columns();
  if (n < table.n_samples) {
    compact_ = Matrix(p, n);
    for (int j = 0; j < n; ++j) {
      std::copy_n(table.Y.data() + cell(0, read_[static_cast<std::size_t>(j)], p), p,
                  compact_.col(j));
    }
  }
  // The missing cells of the read columns, object by object.
  missing_counts_.assign(static_cast<std::size_t>(n), 0);
  missing_from_.assign(static_cast<std::size_t>(p) + 1, 0);
  for (int j = 0; j < n; ++j) {
    for (const int* m = table.missing[static_cast<std::size_t>(read_[static_cast<std::size_t>(j)])];
         *m != -1; ++m) {
      ++missing_from_[static_cast<std::size_t>(*m) + 1];
      ++missing_counts_[static_cast<std::size_t>(j)];
    }
  }
  for (int i = 0; i < p; ++i) {
    missing_from_[static_cast<std::size_t>(i) + 1] += missing_from_[static_cast<std::size_t>(i)];
  }
  missing_places_.resize(static_cast<std::size_t>(missing_from_.back()));
  std::vector<int> next(missing_from_.begin(), missing_from_.end() - 1);
  for (int j = 0; j < n; ++j) {
    for (const int* m = table.missing[static_cast<std::size_t>(read_[static_cast<std::size_t>(j)])];
         *m != -1; ++m) {
      missing_places_[static_cast<std::size_t>(next[static_cast<std::size_t>(*m)]++)] = j;
    }
  }
  replicate_squares_ = Matrix(p, table.n_replicates);
  sum_squares_ = Matrix(p, 1);
  for (int r = 0; r < table.n_replicates; ++r) {
    for (int t = 0; t < table.T; ++t) {
      const int s = table.sample_at[static_cast<std::size_t>(r)][t];
      if (s < 0) continue;
      const double* y = table.Y.data() + cell(0, s, p);
      double* sum = replicate_squares_.col(r);
      for (int i = 0; i < p; ++i) sum[i] += y[i] * y[i];
    }
  }
  const double* y = Y();
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < p; ++i) {
      const double v = y[cell(i, j, p)];
      sum_squares_[static_cast<std::size_t>(i)] += v * v;
    }
  }
}

const double* EmData::Y() const {
  return compact_.size() > 0 || columns() == 0 ? compact_.data() : table_.Y.data();
}

double em_data_bytes(const DataSet& table) {
  const std::vector<bool> read = read_columns(table);
  const double n = static_cast<double>(std::count(read.begin(), read.end(), true));
  const double copy = n < table.n_samples ? n : 0.0;
  return 8.0 * static_cast<double>(table.p) * (copy + table.n_replicates + 1.0) +
         4.0 * (table.n_samples + table.p + 1.0 + static_cast<double>(table.missing_block.size()));
}

}  // namespace tarn
