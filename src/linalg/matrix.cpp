#include "linalg/matrix.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "linalg/blas.h"
#include "linalg/small_matrix.h"

namespace tarn {

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

}  // namespace tarn
