#include "linalg/small_matrix.h"

namespace tarn {

void gemm_small(char trans_a, char trans_b, int n, double alpha, const double* A, const double* B,
                double beta, double* C) {
  const bool ta = trans_a == 'T';
  const bool tb = trans_b == 'T';
  small::with_fixed_size(n, [&](auto fixed) {
    constexpr int N = decltype(fixed)::value;
    if (!ta && !tb) small::gemm<N, false, false>(n, alpha, A, B, beta, C);
    if (!ta && tb) small::gemm<N, false, true>(n, alpha, A, B, beta, C);
    if (ta && !tb) small::gemm<N, true, false>(n, alpha, A, B, beta, C);
    if (ta && tb) small::gemm<N, true, true>(n, alpha, A, B, beta, C);
  });
}

void invert_small(double* A, int n, int* ipiv, double* work) {
  small::with_fixed_size(
      n, [&](auto fixed) { small::inverse<decltype(fixed)::value>(n, A, ipiv, work); });
}

}  // namespace tarn
