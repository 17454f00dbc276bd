#pragma once
// The settings of an estimation: the EM loop and the random initial models.

#include <memory>

#include "linalg/random_stream.h"

namespace tarn {

struct SSMEMParam {
  double converge = 1.0E-5;
  int em_loop = 40000;
  int RrI = 0;
  int update_mu = 1;
  int abs_converge = 1;
  double ridge = 0.0;
  int constrain_F = 1;
  double constrain_Fg = 0.8;
  int retry = -1;
  int verbose = 0;
};

struct SSMInit {
  double H_mean = 0.0;
  double H_SD = 1.0;  // accepted and stored, read by nothing
  double F_min = -1.5;
  double F_max = 1.5;
  double mu = 0.0;
  double SD = 1.0;
  // The cell of the run's one random stream; empty until main creates it.
  std::unique_ptr<std::unique_ptr<RandomStream>> stream;
};

inline std::unique_ptr<SSMInit> SSMInit_new() {
  auto init = std::make_unique<SSMInit>();
  init->stream = std::make_unique<std::unique_ptr<RandomStream>>();
  return init;
}

}  // namespace tarn
