#pragma once
// The data as the products of an E-step read it: the columns of Y that some
// time point reads, and the sums of squares that stay the same over a run.

#include <span>
#include <vector>

#include "core/data_set.h"
#include "linalg/matrix.h"

namespace tarn {

class EmData {
 public:
  explicit EmData(const DataSet& table);

  const DataSet& table() const { return table_; }
  int p() const { return table_.p; }
  // The number of read columns.
  int columns() const { return static_cast<int>(read_.size()); }
  // p x columns(), column-major; missing cells hold 0.0.
  const double* Y() const;
  // p: the sum of squares of each object over the read columns of replicate r.
  const double* replicate_squares(int r) const { return replicate_squares_.col(r); }
  // p: the same over every read column.
  const double* sum_squares() const { return sum_squares_.data(); }
  // The place of table column s among the read columns, or -1 when no time
  // point reads it (the earlier column of a repeated replicate and time).
  int column_of(int s) const { return column_of_[static_cast<std::size_t>(s)]; }
  const int* column_places() const { return column_of_.data(); }
  // The read columns in which object i is missing, ascending.
  std::span<const int> missing_places(int i) const {
    const auto from = static_cast<std::size_t>(missing_from_[static_cast<std::size_t>(i)]);
    const auto to = static_cast<std::size_t>(missing_from_[static_cast<std::size_t>(i) + 1]);
    return std::span<const int>(missing_places_).subspan(from, to - from);
  }
  // The objects missing in read column j, ascending, ended by -1.
  const int* missing_rows(int j) const {
    return table_.missing[static_cast<std::size_t>(read_[static_cast<std::size_t>(j)])];
  }
  // How many objects read column j misses.
  int missing_count(int j) const { return missing_counts_[static_cast<std::size_t>(j)]; }
  const int* missing_counts() const { return missing_counts_.data(); }

 private:
  const DataSet& table_;
  std::vector<int> column_of_;
  std::vector<int> read_;            // the table columns read, in table order
  std::vector<int> missing_from_;    // p + 1 offsets into missing_places_
  std::vector<int> missing_places_;  // per object, its missing read columns
  std::vector<int> missing_counts_;  // per read column
  Matrix compact_;                   // the read columns, when some column is not read
  Matrix replicate_squares_;         // p x replicates
  Matrix sum_squares_;
};

// Bytes an EmData of the table takes beyond the table, in double precision.
double em_data_bytes(const DataSet& table);

}  // namespace tarn
