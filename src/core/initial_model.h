#pragma once

#include "core/options.h"
#include "core/ssm.h"

namespace tarn {

// Fills ssm with one random starting point of the EM algorithm: exp = mu,
// var = SD^2 I, H Gaussian (mean H_mean, deviation k), R the variance of each
// row of Y over all columns, F uniform in [F_min, F_max], Q = 1. Draws k * p
// then k * k numbers from the run's stream.
void SSM_init(SSM* ssm, const SSMInit* init, int p, int k, const double* Y, int n_samples);

// R[i]: the variance of row i of Y over all n_samples columns, missing cells
// counting as the 0.0 they hold; the R of every initial model.
void SSM_initial_R(double* R, int p, const double* Y, int n_samples);

}  // namespace tarn
