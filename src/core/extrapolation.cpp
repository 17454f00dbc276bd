#include "core/extrapolation.h"

#include <algorithm>
#include <cmath>

namespace tarn {

namespace {

// The parameters the M-step updates.
constexpr Matrix StateSpaceModel::*kUpdated[] = {
    &StateSpaceModel::initial_mean, &StateSpaceModel::H, &StateSpaceModel::R, &StateSpaceModel::F};

constexpr double kBoundFactor = 4.0;

// Sums of squares of r = x1 - x0 and v = x2 - 2 x1 + x0.
struct StepSizes {
  double r = 0.0;
  double v = 0.0;
};

StepSizes step_sizes(const StateSpaceModel& x0, const StateSpaceModel& x1,
                     const StateSpaceModel& x2) {
  StepSizes s;
  for (const auto field : kUpdated) {
    const Matrix &a = x0.*field, &b = x1.*field, &c = x2.*field;
    for (std::size_t e = 0; e < a.size(); ++e) {
      const double r = b[e] - a[e];
      const double v = (c[e] - b[e]) - r;
      s.r += r * r;
      s.v += v * v;
    }
  }
  return s;
}

// Every value finite and every variance positive.
bool in_parameter_space(const StateSpaceModel& model) {
  for (const auto field : kUpdated) {
    const Matrix& m = model.*field;
    if (!std::all_of(m.data(), m.data() + m.size(), [](double x) { return std::isfinite(x); }))
      return false;
  }
  const Matrix& R = model.R;
  return std::all_of(R.data(), R.data() + R.size(), [](double x) { return x > 0.0; });
}

}  // namespace

Extrapolation::Extrapolation(int p, int max_k)
    : first_(p, max_k), second_(p, max_k), plain_(p, max_k), best_(p, max_k) {}

bool Extrapolation::extrapolate(bool constrain_F, StateSpaceModel* model) {
  const StepSizes sizes = step_sizes(first_, second_, *model);
  const double ratio = std::sqrt(sizes.r / sizes.v);
  if (!(sizes.v > 0.0) || !std::isfinite(ratio)) return false;
  const double a = std::clamp(ratio, 1.0, bound_);
  at_bound_ = ratio >= bound_;
  if (a == 1.0) {
    accept();
    return false;
  }
  copy_model(*model, &plain_);
  for (const auto field : kUpdated) {
    const Matrix &x0 = first_.*field, &x1 = second_.*field;
    Matrix& x = (*model).*field;
    for (std::size_t e = 0; e < x.size(); ++e) {
      const double r = x1[e] - x0[e];
      const double v = (x[e] - x1[e]) - r;
      x[e] = x0[e] + 2.0 * a * r + a * a * v;
    }
  }
  if (constrain_F) {
    for (int i = 0; i < model->k(); ++i) model->F(i, i) = plain_.F(i, i);
  }
  if (in_parameter_space(*model)) return true;
  reject(model);
  return false;
}

void Extrapolation::accept() {
  if (at_bound_) bound_ *= kBoundFactor;
}

void Extrapolation::reject(StateSpaceModel* model) {
  if (at_bound_) bound_ = std::max(1.0, bound_ / kBoundFactor);
  copy_model(plain_, model);
}

}  // namespace tarn
