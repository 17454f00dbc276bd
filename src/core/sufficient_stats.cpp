#include "core/sufficient_stats.h"

#include "linalg/blas.h"

namespace tarn {

SufficientStats::SufficientStats(int p, int max_k)
    : sum_x0(max_k, 1),
      sum_yy(p, 1),
      sum_yx(p, max_k),
      sum_xx_observed(max_k, max_k),
      sum_xx_lag(max_k, max_k),
      sum_xx_previous(max_k, max_k) {}

void SufficientStats::reset(int k) {
  reset_states(k);
  sum_yy.set_zero();
  sum_yx.set_zero();
}

void SufficientStats::reset_states(int k) {
  sum_x0.reshape(k, 1);
  sum_yx.reshape(p(), k);
  sum_xx_observed.reshape(k, k);
  sum_xx_lag.reshape(k, k);
  sum_xx_previous.reshape(k, k);
  for (Matrix* m : {&sum_x0, &sum_xx_observed, &sum_xx_lag, &sum_xx_previous}) m->set_zero();
}

void SufficientStats::add(const SufficientStats& other) {
  const Matrix* from[] = {&other.sum_x0,          &other.sum_yy,     &other.sum_yx,
                          &other.sum_xx_observed, &other.sum_xx_lag, &other.sum_xx_previous};
  Matrix* to[] = {&sum_x0, &sum_yy, &sum_yx, &sum_xx_observed, &sum_xx_lag, &sum_xx_previous};
  for (int f = 0; f < 6; ++f) {
    const int n = static_cast<int>(from[f]->size());
    daxpy_(&n, &blas::kOne, from[f]->data(), &blas::kIncOne, to[f]->data(), &blas::kIncOne);
  }
}

double sufficient_stats_bytes(int p, int k) {
  const double P = p, K = k;
  return 8.0 * (K + P + P * K + 3.0 * K * K);
}

}  // namespace tarn
