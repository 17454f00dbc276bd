#pragma once
// The random starting points of the EM algorithm.

#include <span>

#include "core/data_set.h"
#include "core/model.h"
#include "core/options.h"

namespace tarn {

// Repacks model for k states and fills it with one random starting point:
// initial mean mu, initial covariance SD^2 I, H Gaussian (mean H_mean,
// deviation k), R the variance of each row of the data, F uniform in
// [F_min, F_max], Q = 1. Draws k * p then k * k numbers from the run's stream;
// an empty F range draws nothing and leaves F as it was.
void draw_initial_model(const InitialModelSettings& settings, const DataSet& data, int k,
                        StateSpaceModel* model);

// R[i]: the variance of row i of the data over all columns, missing cells
// counting as the 0.0 they hold; the R of every initial model.
void compute_initial_R(const DataSet& data, std::span<double> R);

}  // namespace tarn
