#include "core/model.h"

#include <algorithm>

namespace tarn {

StateSpaceModel::StateSpaceModel(int p, int k)
    : initial_mean(k, 1), initial_cov(k, k), H(p, k), R(p, 1), F(k, k), Q(k, 1) {}

void StateSpaceModel::set_state_dimension(int k) {
  initial_mean.reshape(k, 1);
  initial_cov.reshape(k, k);
  H.reshape(p(), k);
  F.reshape(k, k);
  Q.reshape(k, 1);
}

void copy_model(const StateSpaceModel& src, StateSpaceModel* dst) {
  dst->set_state_dimension(src.k());
  Matrix StateSpaceModel::*const fields[] = {&StateSpaceModel::initial_mean,
                                             &StateSpaceModel::initial_cov,
                                             &StateSpaceModel::H,
                                             &StateSpaceModel::R,
                                             &StateSpaceModel::F,
                                             &StateSpaceModel::Q};
  for (const auto field : fields) {
    const Matrix& from = src.*field;
    std::copy_n(from.data(), from.size(), (dst->*field).data());
  }
}

double model_bytes(int p, int k) {
  const double P = p, K = k;
  return 8.0 * (2.0 * K + 2.0 * K * K + P * K + P);
}

}  // namespace tarn
