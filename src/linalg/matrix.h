#pragma once
// Shared constants and the few small matrix operations written by hand.
// A matrix is a bare column-major array with leading dimension equal to its
// row count; a diagonal matrix is the vector of its diagonal.

#include <cstdio>

namespace tarn {

extern const double Matrix_DOUBLE_ONE;
extern const double Matrix_DOUBLE_MINUS_ONE;
extern const double Matrix_DOUBLE_ZERO;
extern const int Matrix_INT_ONE;
extern const int Matrix_INT_ZERO;

// Clears the n x n matrix A and sets its diagonal to 1.0.
void Matrix_set_identity(double* A, int n);

// Clears the n x n matrix A and sets A(i, i) = alpha * v[i].
void Matrix_set_diag(double* A, int n, const double* v, double alpha);

// Replaces A by its inverse through its LU factors; work holds at least n * n
// doubles. A singular A gives infinities or NaNs and no message.
void Matrix_inverse(double* A, int n, int* ipiv, double* work, int lwork);

// Sum of log |A(i, i)| of an LU-factored A: the log of |det A|.
double Matrix_log_abs_diag(const double* A, int n);

// Byte copy and clear of rows * cols doubles.
void Matrix_copy(double* dst, const double* src, int rows, int cols);
void Matrix_clear(double* A, int rows, int cols);

// Labelled text form: "label\trows\tcols\n", one line per matrix row with the
// elements in "%.18f" separated by tabs, then one empty line.
void Matrix_write_labelled(std::FILE* fp, const char* label, const double* A, int rows, int cols);

}  // namespace tarn
