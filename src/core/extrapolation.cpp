#include "core/extrapolation.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace tarn {

namespace {

// The parameters the M-step updates.
constexpr Matrix StateSpaceModel::*kUpdated[] = {
    &StateSpaceModel::initial_mean, &StateSpaceModel::H, &StateSpaceModel::R, &StateSpaceModel::F};

constexpr double kBoundFactor = 4.0;

// Sums of squares of r = x1 - x0 and v = x2 - 2 x1 + x0 over one parameter.
struct StepSizes {
  double r = 0.0;
  double v = 0.0;
  double ratio() const { return std::sqrt(r / v); }
};

StepSizes step_sizes(const Matrix& x0, const Matrix& x1, const Matrix& x2) {
  StepSizes s;
  for (std::size_t e = 0; e < x0.size(); ++e) {
    const double r = x1[e] - x0[e];
    const double v = (x2[e] - x1[e]) - r;
    s.r += r * r;
    s.v += v * v;
  }
  return s;
}

// x = x0 + 2a r + a^2 v, in place of x2.
void step(double a, const Matrix& x0, const Matrix& x1, Matrix* x) {
  for (std::size_t e = 0; e < x0.size(); ++e) {
    const double r = x1[e] - x0[e];
    const double v = ((*x)[e] - x1[e]) - r;
    (*x)[e] = x0[e] + 2.0 * a * r + a * a * v;
  }
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
  StepSizes sizes[std::size(kUpdated)];
  StepSizes all;
  for (std::size_t f = 0; f < std::size(kUpdated); ++f) {
    const auto field = kUpdated[f];
    sizes[f] = step_sizes(first_.*field, second_.*field, (*model).*field);
    all.r += sizes[f].r;
    all.v += sizes[f].v;
  }
  const double ratio = all.ratio();
  if (!(all.v > 0.0) || !std::isfinite(ratio)) return false;
  const double a = std::clamp(ratio, 1.0, bound_);
  at_bound_ = ratio >= bound_;
  if (a == 1.0) {
    accept();
    return false;
  }
  copy_model(*model, &plain_);
  for (std::size_t f = 0; f < std::size(kUpdated); ++f) {
    const auto field = kUpdated[f];
    // The initial mean, k values whose pace can differ from that of the
    // p-sized H and R that set a, steps no further than its own ratio.
    const double own = sizes[f].ratio();
    const bool mean = field == &StateSpaceModel::initial_mean;
    const double a_field = mean && std::isfinite(own) ? std::clamp(own, 1.0, a) : a;
    step(a_field, first_.*field, second_.*field, &((*model).*field));
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
