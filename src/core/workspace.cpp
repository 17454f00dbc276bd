#include "core/workspace.h"

#include <algorithm>

#include "linalg/blas.h"

namespace tarn {

namespace {

// Optimal DGESVD workspace for the canonical rotation of a p x k matrix.
int query_gesvd_lwork(int p, int k) {
  double optimal = 0.0;
  double dummy = 0.0;
  const int lda = std::max(p, 1);
  const int ldvt = std::max(k, 1);
  const int query = -1;
  int info = 0;
  dgesvd_("O", "A", &p, &k, &dummy, &lda, &dummy, nullptr, &blas::kIncOne, &dummy, &ldvt, &optimal,
          &query, &info);
  return static_cast<int>(optimal);
}

}  // namespace

Workspace::Workspace(int p, int max_k, bool constrain_F)
    : pivots(array_size(max_k)),
      column_order(array_size(max_k)),
      inverse_scratch(max_k, max_k),
      R_inv_H(p, max_k),
      information(max_k, max_k),
      observed_information(max_k, max_k),
      innovation(p, 1),
      projected_innovation(max_k, 1),
      correction(max_k, 1),
      gain_complement(max_k, max_k),
      log_R(p, 1),
      square_a(max_k, max_k),
      square_b(max_k, max_k),
      vector_scratch(max_k, 1),
      row_scratch(max_k, 1),
      svd_lwork(query_gesvd_lwork(p, max_k)) {
  const long long svd_size =
      std::max({static_cast<long long>(svd_lwork), static_cast<long long>(p),
                static_cast<long long>(max_k), static_cast<long long>(max_k) * max_k});
  svd_work = HeapArray<double>(array_size(svd_size));
  if (constrain_F) {
    F_selection = Matrix(max_k * max_k, max_k);
    F_constraint_scratch = Matrix(max_k, max_k);
  }
}

void prepare_F_constraint(Workspace* work, int k) {
  work->F_selection.reshape(k * k, k);
  work->F_selection.set_zero();
  for (int i = 0; i < k; ++i)
    work->F_selection[static_cast<std::size_t>(i) * (k * k + k + 1)] = 1.0;
}

double workspace_bytes(int p, int k, bool constrain_F) {
  const double P = p, K = k;
  // 64 k doubles beyond the arrays, 5 (p + k) + k^2 for DGESVD beside the
  // other k x k and p x k arrays.
  const double doubles = 64.0 * K + 2.0 * P * K + 10.0 * K * K + 3.0 * P + 6.0 * K + 5.0 * (P + K) +
                         (constrain_F ? 2.0 * K * K * K : 0.0);
  return 8.0 * doubles + 4.0 * K;
}

}  // namespace tarn
