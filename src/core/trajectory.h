#pragma once
// The tables over time of one replicate that the filter and the smoother fill.

#include <vector>

#include "linalg/heap_array.h"

namespace tarn {

// A table over time: one contiguous block, entry t at t * width doubles. An
// entry holds one k-vector or one k x k matrix, packed with leading dimension k.
class StateTable {
 public:
  StateTable() = default;
  StateTable(int entries, std::size_t width);
  double* operator[](int t) const { return at_[static_cast<std::size_t>(t)]; }
  const double* const* entries() const { return at_.data(); }

 private:
  HeapArray<double> block_;
  std::vector<double*> at_;
};

// Entry t of the T + 1 tables belongs to time t (0: the initial state); entry
// t of the T tables to the step from t to t + 1. Made with room for up to
// max_k states and max_T time points; k and T are those of the last filter run.
struct Trajectory {
  Trajectory(int max_k, int max_T);

  int k = 0;
  int T = 0;
  StateTable predicted_mean;       // T: F filtered_mean[t], the prediction for t + 1
  StateTable predicted_cov;        // T: F filtered_cov[t] F' + diag(Q)
  StateTable filtered_mean;        // T + 1
  StateTable filtered_cov;         // T + 1
  StateTable smoothed_mean;        // T + 1
  StateTable smoothed_cov;         // T + 1
  StateTable smoother_gain;        // T: F_filtered_cov[t]' predicted_precision[t]
  StateTable F_filtered_cov;       // T: F filtered_cov[t]
  StateTable predicted_precision;  // T: inverse of predicted_cov[t]
  StateTable lag_cov;              // T: smoother_gain[t] smoothed_cov[t+1], by the E-step
};

// Bytes a trajectory of these dimensions takes, in double precision.
double trajectory_bytes(int k, int T);

}  // namespace tarn
