#pragma once
// The labelled text form of a matrix, as the model and result files hold it.

#include <cstdio>

namespace tarn {

// "label\trows\tcols\n", one line per row of the column-major rows x cols
// matrix A with the elements in "%.18f" separated by tabs, then an empty line.
void write_labelled_matrix(std::FILE* fp, const char* label, const double* A, int rows, int cols);

}  // namespace tarn
