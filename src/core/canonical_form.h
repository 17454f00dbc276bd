#pragma once
// The canonical form of a model: the state rotated until H' R^-1 H is
// diagonal, descending; and the module matrix D = diag(L)^-1 H' R^-1/2.

#include "core/ssm.h"

namespace tarn {

// Rotates ssm by x_new = V' x, with R^-1/2 H = U S V'. On return e holds
// sqrt(R) and u the squared singular values. H, F and exp change.
void SSM_constrain(SSM* ssm, int p, int k, double* u, double* e, double* vec_k, double* mat_k1,
                   double* svd_work, int svd_lwork);

// D(j, i) = H(i, j) / (u[j] * e[i]), D of k rows.
void SSM_calc_module(int p, int k, const double* H, const double* u, const double* e, double* D);

// Canonical form of result->ssm; D and L then point at RinvH and u of work.
void SSMResult_calc_D_L(SSMResult* result, SSMWork* work);

}  // namespace tarn
