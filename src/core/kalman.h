#pragma once
// Forward and backward passes of the state space model over one replicate.

#include "core/ssm.h"

namespace tarn {

// Fills Xp, Vp, Xf, Vf, FV and Vp_inv of state for one replicate and returns
// its log-likelihood. sample_at gives the column of Y for each time point, or
// -1; missing[s] lists the rows missing in column s, ended by -1. Nothing of
// size p x p is formed: the update runs in information form on k x k systems.
double Kalman_filter(const SSM* ssm, SSMState* state, int p, int k, int T, const double* Y,
                     const int* sample_at, const int* const* missing, SSMWork* work);

// Measurement update of one observed time point; see Kalman_filter.
void Kalman_filter_observed(const double* H, const double* R, const double* Xp, const double* Vp,
                            const double* Vp_inv, const double* HtRinvH, const double* RinvH,
                            double* e, double* b, double* u, double* Xf, double* Vf, double* B,
                            const double* y, const int* missing, int p, int k, double* HtRinvH_obs,
                            double* mat_k1, double* mat_k2, int* ipiv);

// Rauch-Tung-Striebel pass after Kalman_filter on the same state: fills J, Xs
// and Vs. With T >= 1, vec_k is left holding Xs[1] - Xp[0].
void Kalman_smoother(SSMState* state, int k, int T, double* vec_k, double* mat_k1, double* mat_k2);

}  // namespace tarn
