#pragma once
// The products with the data of the models of a batch of starts: B starts
// of dimension k that advance together over the same data. What an E-step
// would otherwise sweep the p objects for at every time point is formed for
// all time points and all starts at once, as matrix products:
//
//   projected = [R1^-1 H1 ... RB^-1 HB]' Y    (B k x n): H'R^-1 y of every read column
//   [sum_yx of each start] = Y [X1 ... XB]'   (p x B k): the sums of y x', once
//                                              the smoothed states X are in
//
// With one start it is the batch of one.

#include <span>

#include "core/em_data.h"
#include "core/model.h"
#include "core/sufficient_stats.h"
#include "linalg/heap_array.h"
#include "linalg/log_sum.h"
#include "linalg/matrix.h"

namespace tarn {

// The most starts of a set that advance together.
constexpr int kMaxBatchStarts = 8;

// Objects per block of the products with Y.
constexpr int kProductRows = 2048;

// Start b's share of the batch, as the filter reads it and the E-step sums
// write it.
struct StartProducts {
  int k;
  const double* H_rows;       // k x p: H', row i of H at H_rows + i * k
  const double* R_inv_H;      // p x k: R^-1 H
  const double* information;  // k x k: H' R^-1 H
  double sum_log_R;
  const double* projected;  // read column j: k values at projected + j * ld
  const double* inverse_R;  // p: 1 / R
  // Read column j: the sum of h h' / R over its missing rows (k x k at
  // downdates + j * k * k) and of their log R.
  const double* downdates;
  const double* missing_log_R;
  // Read column j: E[x x'] of its time point, k x k at second_moments + j * k * k.
  double* second_moments;
  double* states;          // read column j: the smoothed state, k values at states + j * ld
  int ld;                  // B k
  double* moment_scratch;  // k x k, then k
};

// Objects first .. first + count - 1.
struct RowRange {
  int first;
  int count;
};

class BatchProducts {
 public:
  // Room for up to max_starts starts of up to max_k states.
  BatchProducts(int p, int n_columns, int max_k, int max_starts);

  int starts() const { return starts_; }
  int k() const { return k_; }
  StartProducts start(int b);

  // Everything before the filters: R^-1 H, H' R^-1 H and log R of each model,
  // the downdates of the missing cells, then the product projected. The
  // models share p and k, and data the p and columns of the room.
  void prepare(std::span<const StateSpaceModel* const> models, const EmData& data);
  // After every start has written its states and second moments: the
  // product of one block of at most kProductRows objects of Y with the
  // states of every start, as one product; a batch of one start forms its
  // own in finish().
  void multiply_states(const EmData& data, RowRange objects);
  // Then start b's sums of y x' and of y^2 over the objects of that block,
  // with the missing cells' terms, written whole into sums.
  void finish(int b, const StateSpaceModel& model, const EmData& data, RowRange objects,
              SufficientStats* sums);

 private:
  // projected = R_inv_H' Y, block by block of objects.
  void project_data(const EmData& data);
  // Start b's block of each array packed by the current k.
  double* H_rows_of(int b);
  double* information_of(int b);
  double* downdates_of(int b);
  double* second_moments_of(int b);

  int starts_ = 0;
  int k_ = 0;
  // Blocks of k x k or k x p per start, packed by the current k; their room
  // counted in 64 bits.
  HeapArray<double> H_rows_;            // (k p) x B
  Matrix R_inv_H_;                      // p x (B k)
  Matrix inverse_R_;                    // p x B
  Matrix sum_log_R_;                    // B
  HeapArray<double> information_;       // k x k x B
  HeapArray<double> downdates_;         // (k k n) x B
  Matrix missing_log_R_;                // n x B
  HeapArray<double> second_moments_;    // (k k n) x B
  HeapArray<double> moment_scratch_;    // k x k + k: scratch of finish()
  Matrix projected_;                    // (B k) x n
  Matrix states_;                       // (B k) x n
  Matrix block_yx_;                     // min(p, kProductRows) x (B k): Y X' of a block; B > 1
  HeapArray<const int*> next_missing_;  // n: scratch of prepare()
  HeapArray<LogSum> missing_log_sums_;  // n: scratch of prepare()
};

// Bytes a BatchProducts of these dimensions takes, in double precision.
double batch_products_bytes(int p, int n_columns, int k, int starts);

}  // namespace tarn
