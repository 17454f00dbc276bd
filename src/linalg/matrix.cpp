#include "linalg/matrix.h"

#include <cmath>

namespace tarn {

void set_identity(double* A, int n) {
  std::fill_n(A, static_cast<std::size_t>(n) * n, 0.0);
  for (int i = 0; i < n; ++i) A[i + i * n] = 1.0;
}

void set_diagonal(double* A, int n, const double* v) {
  std::fill_n(A, static_cast<std::size_t>(n) * n, 0.0);
  for (int i = 0; i < n; ++i) A[i + i * n] = v[i];
}

double log_abs_diagonal(const double* A, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += std::log(std::fabs(A[i + i * n]));
  return sum;
}

}  // namespace tarn
