#pragma once
// Random problems for the benchmarks: a stable model and a data set of
// replicates with 5% of the cells missing.

#include <memory>
#include <random>
#include <vector>

#include "core/data_set.h"
#include "core/model.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace tarn_bench {

// p objects, n_replicates replicates of T time points each.
inline std::unique_ptr<DataSet> make_data(int p, int T, int n_replicates, unsigned seed = 5) {
  auto d = std::make_unique<DataSet>();
  d->p = p;
  d->T = T;
  d->n_replicates = n_replicates;
  d->n_samples = T * n_replicates;
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> unif;
  d->Y.assign(static_cast<std::size_t>(p) * d->n_samples, 0.0);
  std::vector<std::size_t> ends;
  for (int s = 0; s < d->n_samples; ++s) {
    for (int i = 0; i < p; ++i) {
      if (unif(gen) < 0.05) {
        d->missing_block.push_back(i);
      } else {
        d->Y[i + static_cast<std::size_t>(s) * p] = normal(gen);
      }
    }
    d->missing_block.push_back(-1);
    ends.push_back(d->missing_block.size());
  }
  for (int s = 0; s < d->n_samples; ++s) {
    d->missing.push_back(d->missing_block.data() + (s ? ends[static_cast<std::size_t>(s) - 1] : 0));
  }
  d->sample_at_block.resize(static_cast<std::size_t>(T) * n_replicates);
  for (int r = 0; r < n_replicates; ++r) {
    for (int t = 0; t < T; ++t) d->sample_at_block[static_cast<std::size_t>(r) * T + t] = r * T + t;
    d->sample_at.push_back(d->sample_at_block.data() + static_cast<std::size_t>(r) * T);
  }
  return d;
}

// F = 0.8 I plus small off-diagonal terms, H Gaussian, R in [0.2, 1.2], Q = 1, var = I.
inline std::unique_ptr<StateSpaceModel> make_model(int p, int k, unsigned seed = 11) {
  auto m = std::make_unique<StateSpaceModel>(p, k);
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> unif;
  for (int j = 0; j < k; ++j) {
    m->initial_mean[j] = 0.0;
    m->Q[j] = 1.0;
    for (int i = 0; i < k; ++i) {
      m->initial_cov(i, j) = i == j ? 1.0 : 0.0;
      m->F(i, j) = i == j ? 0.8 : 0.05 * normal(gen);
    }
  }
  for (int i = 0; i < p * k; ++i) m->H[i] = normal(gen);
  for (int i = 0; i < p; ++i) m->R[i] = 0.2 + unif(gen);
  return m;
}

}  // namespace tarn_bench

#include "linalg/blas.h"

namespace tarn_bench {
// BLAS on one thread, as in the program.
inline const bool kBlasSingleThreaded = (openblas_set_num_threads(1), true);
}  // namespace tarn_bench
