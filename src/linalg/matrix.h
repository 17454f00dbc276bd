#pragma once
// The dense matrix of the numeric code: column-major, leading dimension equal
// to its row count, as BLAS and the kernels of small_matrix.h take it. A
// diagonal matrix is kept as the column of its diagonal.

#include <algorithm>
#include <cstddef>

#include "linalg/heap_array.h"

namespace tarn {

// An owned, zero-filled matrix that carries its size. The storage made at
// construction is its room: reshape() reads the same storage with other
// sizes within that room, so that a record made for the largest state
// dimension serves every smaller one, packed from its start.
class Matrix {
 public:
  Matrix() = default;
  Matrix(int rows, int cols)
      : storage_(array_size(rows, cols)), rows_(std::max(rows, 0)), cols_(std::max(cols, 0)) {}

  int rows() const { return rows_; }
  int cols() const { return cols_; }
  std::size_t size() const { return static_cast<std::size_t>(rows_) * cols_; }
  std::size_t room() const { return storage_.size(); }

  double* data() { return storage_.get(); }
  const double* data() const { return storage_.get(); }
  double* col(int j) { return data() + static_cast<std::size_t>(j) * rows_; }
  const double* col(int j) const { return data() + static_cast<std::size_t>(j) * rows_; }
  double& operator()(int i, int j) { return col(j)[i]; }
  double operator()(int i, int j) const { return col(j)[i]; }
  // Element i in storage order.
  double& operator[](std::size_t i) { return data()[i]; }
  double operator[](std::size_t i) const { return data()[i]; }

  // Reads the storage as rows x cols; rows * cols must fit the room.
  void reshape(int rows, int cols) {
    rows_ = std::max(rows, 0);
    cols_ = std::max(cols, 0);
  }
  void set_zero() { std::fill_n(data(), size(), 0.0); }

 private:
  HeapArray<double> storage_;
  int rows_ = 0;
  int cols_ = 0;
};

// Clears the n x n matrix A and sets its diagonal to 1.0.
void set_identity(double* A, int n);

// Clears the n x n matrix A and sets A(i, i) = v[i].
void set_diagonal(double* A, int n, const double* v);

// Sum of log |A(i, i)| of an LU-factored n x n A: the log of |det A|.
double log_abs_diagonal(const double* A, int n);

}  // namespace tarn
