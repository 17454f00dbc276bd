#include "math/Matrix.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "data/Str_readline.h"
#include "math/SmallMatrix.h"
#include "math/blas.h"

const double Matrix_DOUBLE_ONE = 1.0;
const double Matrix_DOUBLE_MINUS_ONE = -1.0;
const double Matrix_DOUBLE_ZERO = 0.0;
const int Matrix_INT_ONE = 1;
const int Matrix_INT_ZERO = 0;

void Matrix_set_identity(double* A, int n) {
  Matrix_clear(A, n, n);
  for (int i = 0; i < n; ++i) A[i + i * n] = 1.0;
}

void Matrix_set_diag(double* A, int n, const double* v, double alpha) {
  Matrix_clear(A, n, n);
  for (int i = 0; i < n; ++i) A[i + i * n] = alpha * v[i];
}

void Matrix_inverse(double* A, int n, int* ipiv, double* work, int /*lwork*/) {
  Small_inverse(A, n, ipiv, work);
}

double Matrix_log_abs_diag(const double* A, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += std::log(std::fabs(A[i + i * n]));
  return sum;
}

void Matrix_copy(double* dst, const double* src, int rows, int cols) {
  if (rows > 0 && cols > 0)
    std::memcpy(dst, src, sizeof(double) * static_cast<std::size_t>(rows) * cols);
}

void Matrix_clear(double* A, int rows, int cols) {
  if (rows > 0 && cols > 0)
    std::memset(A, 0, sizeof(double) * static_cast<std::size_t>(rows) * cols);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void Matrix_write_labelled(std::FILE* fp, const char* label, const double* A, int rows, int cols) {
  char fmt[16];
  std::snprintf(fmt, sizeof fmt, "%%.%df", 18);
  std::fprintf(fp, "%s\t%d\t%d\n", label, rows, cols);
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < cols; ++j) {
      if (j > 0) std::fputc('\t', fp);
      std::fprintf(fp, fmt, A[i + static_cast<std::size_t>(j) * rows]);
    }
    std::fputc('\n', fp);
  }
  std::fputc('\n', fp);
}
#pragma GCC diagnostic pop

int Matrix_read_rows(std::FILE* fp, std::string& line, double* A, int rows, int cols) {
  for (int i = 0; i < rows; ++i) {
    if (Str_readline(fp, line) != 0 && i > 0) {
      // End of input: row i - 1 came from the line that stands again, and so
      // does every row left. Copied rather than converted again, which for a
      // long line of blanks costs the square of its length per row.
      for (int j = 0; j < cols; ++j) {
        double* column = A + static_cast<std::size_t>(j) * rows;
        std::fill(column + i, column + rows, column[i - 1]);
      }
      return 0;
    }
    const char* cell = line.c_str();
    for (int j = 0; j < cols; ++j) {
      if (j > 0) {
        cell = std::strchr(cell, '\t');
        if (cell == nullptr) return -1;
        ++cell;
      }
      A[i + static_cast<std::size_t>(j) * rows] = std::strtod(cell, nullptr);
    }
  }
  return 0;
}
