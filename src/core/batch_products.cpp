#include "core/batch_products.h"

#include <cmath>

#include "linalg/blas.h"

namespace tarn {

BatchProducts::BatchProducts(int p, int n_columns, int max_k, int max_starts)
    : H_rows_(max_k * p, max_starts),
      R_inv_H_(p, max_k * max_starts),
      inverse_R_(p, max_starts),
      log_R_(p, max_starts),
      sum_log_R_(max_starts, 1),
      information_(max_k * max_k, max_starts),
      projected_(max_k * max_starts, n_columns),
      states_(max_k * max_starts, n_columns),
      state_data_(max_k * max_starts, p) {}

StartProducts BatchProducts::start(int b) {
  const int kk = k_ * k_;
  const std::size_t k_by_p = static_cast<std::size_t>(k_) * R_inv_H_.rows();
  return StartProducts{H_rows_.data() + b * k_by_p,
                       R_inv_H_.col(b * k_),
                       information_.data() + static_cast<std::size_t>(b) * kk,
                       log_R_.col(b),
                       sum_log_R_[static_cast<std::size_t>(b)],
                       projected_.data() + static_cast<std::size_t>(b) * k_,
                       inverse_R_.col(b),
                       states_.data() + static_cast<std::size_t>(b) * k_,
                       starts_ * k_,
                       state_data_.data() + static_cast<std::size_t>(b) * k_};
}

namespace {

// H', R^-1 H, 1/R, log R and their sum, and H' R^-1 H of one model.
void prepare_model(const StateSpaceModel& model, double* H_rows, double* R_inv_H, double* inverse_R,
                   double* log_R, double* sum_log_R, double* information) {
  int p = model.p();
  int k = model.k();
  for (int j = 0; j < k; ++j) {
    const double* h = model.H.col(j);
    for (int i = 0; i < p; ++i) H_rows[static_cast<std::size_t>(i) * k + j] = h[i];
  }
  for (int j = 0; j < k; ++j) {
    const double* h = model.H.col(j);
    double* rh = R_inv_H + static_cast<std::size_t>(j) * p;
    for (int i = 0; i < p; ++i) rh[i] = h[i] / model.R[i];
  }
  for (int j = 0; j < k; ++j) {
    dgemv_("T", &p, &k, &blas::kOne, model.H.data(), &p, R_inv_H + static_cast<std::size_t>(j) * p,
           &blas::kIncOne, &blas::kZero, information + static_cast<std::size_t>(j) * k,
           &blas::kIncOne);
  }
  double sum = 0.0;
  for (int i = 0; i < p; ++i) {
    inverse_R[i] = 1.0 / model.R[i];
    log_R[i] = std::log(model.R[i]);
    sum += log_R[i];
  }
  *sum_log_R = sum;
}

}  // namespace

void BatchProducts::prepare(std::span<const StateSpaceModel* const> models, const EmData& data) {
  starts_ = static_cast<int>(models.size());
  k_ = models.front()->k();
  int p = data.p();
  int n = data.columns();
  int rows = starts_ * k_;
  for (int b = 0; b < starts_; ++b) {
    prepare_model(*models[static_cast<std::size_t>(b)],
                  H_rows_.data() + static_cast<std::size_t>(b) * k_ * p, R_inv_H_.col(b * k_),
                  inverse_R_.col(b), log_R_.col(b), &sum_log_R_[static_cast<std::size_t>(b)],
                  information_.data() + static_cast<std::size_t>(b) * k_ * k_);
  }
  std::fill_n(state_data_.data(), static_cast<std::size_t>(p) * rows, 0.0);
  if (n == 0) return;
  dgemm_("T", "N", &rows, &n, &p, &blas::kOne, R_inv_H_.data(), &p, data.Y(), &p, &blas::kZero,
         projected_.data(), &rows);
}

void BatchProducts::finish(const EmData& data) {
  int p = data.p();
  int n = data.columns();
  int rows = starts_ * k_;
  if (n == 0) return;
  dgemm_("N", "T", &rows, &p, &n, &blas::kOne, states_.data(), &rows, data.Y(), &p, &blas::kOne,
         state_data_.data(), &rows);
}

void BatchProducts::copy_sums(int b, Matrix* sum_yx) const {
  const int p = sum_yx->rows();
  const std::size_t ld = static_cast<std::size_t>(starts_) * k_;
  const double* from = state_data_.data() + static_cast<std::size_t>(b) * k_;
  for (int j = 0; j < k_; ++j) {
    double* to = sum_yx->col(j);
    for (int i = 0; i < p; ++i) to[i] = from[j + i * ld];
  }
}

double batch_products_bytes(int p, int n_columns, int k, int starts) {
  const double P = p, N = n_columns, K = k, B = starts;
  return 8.0 * B * (3.0 * P * K + 3.0 * P + 1.0 + K * K + 2.0 * K * N);
}

}  // namespace tarn
