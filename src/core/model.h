#pragma once
// The linear-Gaussian state space model:
//   x(0) ~ N(initial_mean, initial_cov); x(t+1) = F x(t) + w, w ~ N(0, diag Q);
//   y(t) = H x(t) + v, v ~ N(0, diag R).

#include "linalg/matrix.h"

namespace tarn {

struct StateSpaceModel {
  StateSpaceModel() = default;
  // Zero-filled, with room for up to k states.
  StateSpaceModel(int p, int k);

  int p() const { return H.rows(); }
  int k() const { return F.rows(); }
  // Repacks every matrix for k states, k within the room made.
  void set_state_dimension(int k);

  Matrix initial_mean;  // k x 1
  Matrix initial_cov;   // k x k
  Matrix H;             // p x k
  Matrix R;             // p x 1, the diagonal
  Matrix F;             // k x k
  Matrix Q;             // k x 1, the diagonal
};

// dst = src; dst has room for src's state dimension.
void copy_model(const StateSpaceModel& src, StateSpaceModel* dst);

// Bytes a model of these dimensions takes, computed in double precision so
// that no size overflows: for refusing a job before allocating.
double model_bytes(int p, int k);

}  // namespace tarn
