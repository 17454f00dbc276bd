#pragma once
// The EM estimation of one model: the E-step sums, the EM loop with its
// M-step, and the restarts of one set.

#include "core/data_set.h"
#include "core/options.h"
#include "core/ssm.h"

namespace tarn {

// One E-step: filter and smoother over every replicate, summed into total
// (each holds one replicate at a time). Returns the log-likelihood.
double SSM_EM_estimate(const SSM* ssm, SSMState* state, SSMSuffStat* each, SSMSuffStat* total,
                       const SSMData* data, int k, SSMWork* work, double ridge);

// The sums of one replicate from its smoothed state, with the conditional
// expectations of the missing rows.
void SSMSuffStat_calc(SSMSuffStat* each, const SSMState* state, const SSM* ssm, int p, int k, int T,
                      const int* sample_at_r, const double* Y, const int* const* missing,
                      double* vec_p, double* mat_pk, double* mat_k3, double* vec_k);

// Runs EM on ssm from the model it holds until the likelihood settles, the
// loop limit is reached or the likelihood turns NaN.
SSMResult SSM_EM_algo(const SSMEMParam* em, SSM* ssm, SSMState* state, SSMSuffStat* each,
                      SSMSuffStat* total, const SSMData* data, int k, SSMWork* work);

// The M-step on the sums of total: exp (with update_mu), H, F, then R.
void SSM_EM_m_step(const SSMEMParam* em, SSM* ssm, const SSMSuffStat* total, const SSMData* data,
                   int k, SSMWork* work);

// X = A B^-1 (A, X rows x k; B k x k) through one LU factorisation of B.
void SSM_EM_calc_ABinv(const double* A, const double* B, double* X, int rows, int k, double* tmp,
                       int* ipiv, double* At);

// The update of F with its diagonal held at g.
void SSM_EM_update_constraint_F(const double* xx_lag, const double* xx_prev, const double* Q,
                                const double* Fc_C, double* F, int k, double* Fc_G, double* Fc_CW,
                                double* Fc_W, int* ipiv, double* work, int lwork, double g);

// Fills the selection matrix of the constraint on F for k: ones at
// i * (k * k + k + 1).
void SSM_EM_prepare_constraint(SSMWork* work, int k);

// Finite, not zero and not subnormal.
bool SSM_EM_is_normal(double value);

}  // namespace tarn
