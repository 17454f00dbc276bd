#include "math/SmallMatrix.h"

void Small_gemm(char trans_a, char trans_b, int n, double alpha, const double* A, const double* B,
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

void Small_getrf(int n, double* A, int* ipiv) {
  small::with_fixed_size(n, [&](auto fixed) { small::getrf<decltype(fixed)::value>(n, A, ipiv); });
}

void Small_getrs(char trans, int n, int nrhs, const double* LU, const int* ipiv, double* B,
                 int ldb) {
  small::with_fixed_size(n, [&](auto fixed) {
    constexpr int N = decltype(fixed)::value;
    if (trans == 'T') {
      small::getrs<N, true>(n, nrhs, LU, ipiv, B, ldb);
    } else {
      small::getrs<N, false>(n, nrhs, LU, ipiv, B, ldb);
    }
  });
}

void Small_inverse(double* A, int n, int* ipiv, double* work) {
  small::with_fixed_size(n, [&](auto fixed) { small::inverse<decltype(fixed)::value>(n, A, ipiv, work); });
}
