#pragma once
// The records of the estimation: the model, the per-replicate tables over
// time, the scratch of the numeric code, the EM sums and an estimated model
// with its figures. None stores its dimensions: a record made for a larger k
// serves every smaller k, since a call uses only the first k or k * k doubles
// of each array and packs its matrices with leading dimension k.

#include <memory>
#include <vector>

#include "linalg/heap_array.h"

namespace tarn {

// x(0) ~ N(exp, var); x(t+1) = F x(t) + w, w ~ N(0, diag Q);
// y(t) = H x(t) + v, v ~ N(0, diag R).
struct SSM {
  HeapArray<double> exp;  // k
  HeapArray<double> var;  // k x k
  HeapArray<double> H;    // p x k
  HeapArray<double> R;    // p, the diagonal
  HeapArray<double> F;    // k x k
  HeapArray<double> Q;    // k, the diagonal
};

// A table over time: one contiguous block, entry t at t * width doubles.
class StateTable {
 public:
  StateTable() = default;
  StateTable(int entries, std::size_t width);
  double* operator[](int t) const { return at_[static_cast<std::size_t>(t)]; }
  double* const* entries() const { return at_.data(); }

 private:
  HeapArray<double> block_;
  std::vector<double*> at_;
};

// Entry t of the T + 1 tables belongs to time t (0: the initial state); entry
// t of the T tables to the step from t to t + 1.
struct SSMState {
  StateTable Xp;      // T: F Xf[t], the prediction for time t + 1
  StateTable Vp;      // T: F Vf[t] F' + diag(Q)
  StateTable Xf;      // T + 1: filtered mean
  StateTable Vf;      // T + 1: filtered covariance
  StateTable Xs;      // T + 1: smoothed mean
  StateTable Vs;      // T + 1: smoothed covariance
  StateTable J;       // T: smoother gain FV[t]' Vp_inv[t]
  StateTable FV;      // T: F Vf[t]
  StateTable Vp_inv;  // T: inverse of Vp[t]
  StateTable Vlag;    // T: J[t] Vs[t+1], formed by the E-step
};

// Every temporary of the filter, smoother, E-step, M-step and canonical form.
struct SSMWork {
  HeapArray<double> work;  // DGETRI workspace
  int lwork = 0;
  HeapArray<int> ipiv;            // k
  HeapArray<double> RinvH;        // p x k: R^-1 H; also the module matrix D
  HeapArray<double> b;            // k
  HeapArray<double> HtRinvH;      // k x k
  HeapArray<double> HtRinvH_obs;  // k x k
  HeapArray<double> e;            // p: innovation; also sqrt(R) in the canonical form
  HeapArray<double> u;            // k: state correction; also the vector L
  HeapArray<double> B;            // k x k: I - G^-1 A
  HeapArray<double> vec_k;        // k
  HeapArray<double> mat_k1;       // k x k
  HeapArray<double> mat_k2;       // k x k
  HeapArray<double> vec_p;        // p
  HeapArray<double> mat_pk;       // p x k
  HeapArray<double> mat_k3;       // k x k
  HeapArray<double> svd_work;     // max(svd_lwork, p, k, k * k)
  int svd_lwork = 0;
  HeapArray<double> Fc_C;   // k x (k * k), selection of diag(F); null without the constraint
  HeapArray<double> Fc_G;   // unused: the Lagrangian terms feed no result
  HeapArray<double> Fc_CW;  // k * k * k: inverse of xx_prev, then the multipliers
  HeapArray<double> Fc_W;   // unused: the Lagrangian terms feed no result
};

// EM sums of one replicate (each) or of all replicates (total).
struct SSMSuffStat {
  HeapArray<double> x0;       // k
  HeapArray<double> yy;       // p
  HeapArray<double> yx;       // p x k
  HeapArray<double> xx_obs;   // k x k
  HeapArray<double> xx_lag;   // k x k
  HeapArray<double> xx_prev;  // k x k
};

// An estimated model and its figures. D and L point into an SSMWork.
struct SSMResult {
  int p;
  int k;
  double llh;
  double BIC;
  int monotone;
  int converged;
  int loops;
  SSM* ssm;
  double* D;  // k x p
  double* L;  // k
};

std::unique_ptr<SSM> SSM_new(int p, int k);
std::unique_ptr<SSMState> SSMState_new(int k, int T);
std::unique_ptr<SSMWork> SSMWork_new(int p, int k, int n_samples, int constrain_F);
std::unique_ptr<SSMSuffStat> SSMSuffStat_new(int p, int k);

// Bytes the constructors above take for these dimensions, computed in double
// precision so that no size overflows: for refusing a job before allocating.
double SSM_bytes(int p, int k);
double SSMState_bytes(int k, int T);
double SSMWork_bytes(int p, int k, int constrain_F);
double SSMSuffStat_bytes(int p, int k);

void SSMSuffStat_set_zero(SSMSuffStat* s, int p, int k);
void SSM_copy(SSM* dst, const SSM* src, int p, int k);

}  // namespace tarn
