#pragma once
// The settings of an estimation: the EM loop and the random initial models.

#include <memory>

#include "linalg/random_stream.h"

namespace tarn {

struct EmSettings {
  double converge = 1.0E-5;  // stop when the change of the log-likelihood is below this
  int em_loop = 40000;       // the most passes; 0: no limit
  int common_R = 0;          // one R for every object: the mean of the row estimates
  int update_mu = 1;         // estimate the initial mean
  int abs_converge = 1;      // compare the absolute change with converge
  // Also stop when the change is below this times |log-likelihood|; 0: off.
  double converge_relative = 0.0;
  int accelerate = 0;   // extrapolated EM steps between plain ones
  double ridge = 0.0;   // accepted and stored, read by nothing
  int constrain_F = 1;  // hold the diagonal of F at constrain_Fg
  double constrain_Fg = 0.8;
  int retry = -1;  // attempts per estimation before one is let through; -1: no limit
  int verbose = 0;
};

struct InitialModelSettings {
  double H_mean = 0.0;
  double H_SD = 1.0;  // accepted and stored, read by nothing
  double F_min = -1.5;
  double F_max = 1.5;
  double mu = 0.0;
  double SD = 1.0;
  // The run's one random stream; empty until main creates it.
  std::unique_ptr<RandomStream> stream;
};

}  // namespace tarn
