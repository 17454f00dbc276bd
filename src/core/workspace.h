#pragma once
// The scratch of the numeric code: the filter's measurement update, the
// smoother, the E-step and M-step and the canonical form. Made once, with room
// for up to max_k states; a call uses the first k or k * k doubles of each
// array, packed with leading dimension k, so that nothing is allocated in the
// passes.

#include "linalg/heap_array.h"
#include "linalg/matrix.h"

namespace tarn {

struct Workspace {
  Workspace(int p, int max_k, bool constrain_F);

  HeapArray<int> pivots;        // k
  HeapArray<int> column_order;  // k: the columns of the M-step's solved rows
  Matrix inverse_scratch;       // k x k: the right-hand sides of an explicit inverse
  Matrix R_inv_H;               // p x k: R^-1 H
  Matrix information;           // k x k: H' R^-1 H
  Matrix observed_information;  // k x k: H' R^-1 H over the observed rows
  Matrix innovation;            // p: y - H x; sqrt(R) in the canonical form
  Matrix projected_innovation;  // k: H' R^-1 innovation
  Matrix correction;            // k: the state correction of the last measurement update
  Matrix gain_complement;       // k x k: I - G^-1 A of the last update
  Matrix log_R;                 // p
  Matrix square_a;              // k x k
  Matrix square_b;              // k x k
  // k: shared by the smoother (smoothed_mean[t+1] - predicted_mean[t]), the
  // E-step's missing rows, the M-step's R and the canonical form's singular
  // values. With p < k the canonical form reads its entries past p as the
  // passes before left them, and the result files hold what follows from that.
  Matrix vector_scratch;
  Matrix row_scratch;          // k: a row of the M-step's H
  HeapArray<double> svd_work;  // max(svd_lwork, p, k, k * k)
  int svd_lwork = 0;           // DGESVD workspace queried for p x max_k
  Matrix F_selection;  // (k * k) x k: the selection of diag(F); empty without the constraint
  Matrix F_constraint_scratch;  // k x k: inverse of the lagged sums, then the multipliers
};

// Fills the selection matrix of the constraint on F for k states: ones at
// i * (k * k + k + 1).
void prepare_F_constraint(Workspace* work, int k);

// Bytes a workspace of these dimensions takes, in double precision, bounded
// generously; the figure the memory checks use.
double workspace_bytes(int p, int k, bool constrain_F);

}  // namespace tarn
