#include "core/trajectory.h"

namespace tarn {

StateTable::StateTable(int entries, std::size_t width)
    : block_(array_size(entries) * width), at_(array_size(entries)) {
  for (std::size_t t = 0; t < at_.size(); ++t) at_[t] = block_.get() + t * width;
}

Trajectory::Trajectory(int max_k, int max_T) {
  const std::size_t vec = array_size(max_k);
  const std::size_t mat = array_size(max_k, max_k);
  filtered_mean = StateTable(max_T + 1, vec);
  filtered_cov = StateTable(max_T + 1, mat);
  predicted_mean = StateTable(max_T, vec);
  predicted_cov = StateTable(max_T, mat);
  smoothed_mean = StateTable(max_T + 1, vec);
  smoothed_cov = StateTable(max_T + 1, mat);
  smoother_gain = StateTable(max_T, mat);
  F_filtered_cov = StateTable(max_T, mat);
  predicted_precision = StateTable(max_T, mat);
  lag_cov = StateTable(max_T, mat);
}

double trajectory_bytes(int k, int T) {
  const double K = k, n = T + 1.0;
  const double per_entry = 3.0 * K + 7.0 * K * K;  // vectors and matrices of the ten tables
  return 8.0 * (n * per_entry + 10.0 * n);         // and the pointer of each entry
}

}  // namespace tarn
