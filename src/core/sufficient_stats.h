#pragma once
// The EM sums of the E-step, over one replicate or over all of them.

#include "linalg/matrix.h"

namespace tarn {

struct SufficientStats {
  // Room for p objects and up to max_k states.
  SufficientStats(int p, int max_k);

  int p() const { return sum_yy.rows(); }
  int k() const { return sum_x0.rows(); }
  // Repacks for k states and clears every sum.
  void reset(int k);
  // Repacks for k states and clears the sums of the states only; sum_yy and
  // sum_yx are for the caller to write whole.
  void reset_states(int k);
  // this += other, sum by sum in declaration order.
  void add(const SufficientStats& other);

  Matrix sum_x0;           // k: smoothed initial states
  Matrix sum_yy;           // p: y^2, missing rows by their expectation
  Matrix sum_yx;           // p x k: y E[x]', missing rows by their expectation
  Matrix sum_xx_observed;  // k x k: E[x x'] over the observed time points
  Matrix sum_xx_lag;       // k x k: E[x(t+1) x(t)']
  Matrix sum_xx_previous;  // k x k: E[x(t) x(t)'], t = 0 .. T - 1
};

// Bytes the sums of these dimensions take, in double precision.
double sufficient_stats_bytes(int p, int k);

}  // namespace tarn
