#include "core/batch_products.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "linalg/blas.h"
#include "linalg/small_matrix.h"

namespace tarn {

BatchProducts::BatchProducts(int p, int n_columns, int max_k, int max_starts)
    : H_rows_(array_size(max_k, p, max_starts)),
      R_inv_H_(p, max_k * max_starts),
      inverse_R_(p, max_starts),
      log_R_(p, max_starts),
      sum_log_R_(max_starts, 1),
      information_(array_size(max_k, max_k, max_starts)),
      downdates_(array_size(max_k, max_k, n_columns, max_starts)),
      missing_log_R_(n_columns, max_starts),
      second_moments_(array_size(max_k, max_k, n_columns, max_starts)),
      moment_scratch_(array_size(max_k, max_k)),
      projected_(max_k * max_starts, n_columns),
      states_(max_k * max_starts, n_columns) {}

double* BatchProducts::H_rows_of(int b) {
  return H_rows_.get() + static_cast<std::size_t>(b) * k_ * R_inv_H_.rows();
}

double* BatchProducts::information_of(int b) {
  return information_.get() + static_cast<std::size_t>(b) * k_ * k_;
}

double* BatchProducts::downdates_of(int b) {
  return downdates_.get() +
         static_cast<std::size_t>(b) * k_ * k_ * static_cast<std::size_t>(missing_log_R_.rows());
}

double* BatchProducts::second_moments_of(int b) {
  return second_moments_.get() +
         static_cast<std::size_t>(b) * k_ * k_ * static_cast<std::size_t>(missing_log_R_.rows());
}

StartProducts BatchProducts::start(int b) {
  return StartProducts{k_,
                       H_rows_of(b),
                       R_inv_H_.col(b * k_),
                       information_of(b),
                       log_R_.col(b),
                       sum_log_R_[static_cast<std::size_t>(b)],
                       projected_.data() + static_cast<std::size_t>(b) * k_,
                       inverse_R_.col(b),
                       downdates_of(b),
                       missing_log_R_.col(b),
                       second_moments_of(b),
                       states_.data() + static_cast<std::size_t>(b) * k_,
                       starts_ * k_,
                       moment_scratch_.get()};
}

namespace {

// H', R^-1 H, 1/R, log R and their sum of one model, in one sweep over the
// objects, then H' R^-1 H.
template <int K>
void prepare_model(const StateSpaceModel& model, double* H_rows, double* R_inv_H, double* inverse_R,
                   double* log_R, double* sum_log_R, double* information) {
  int p = model.p();
  int k = small::dim<K>(model.k());
  const double* H = model.H.data();
  const double* R = model.R.data();
  double sum = 0.0;
  for (int i = 0; i < p; ++i) {
    const double r = R[i];
    for (int j = 0; j < k; ++j) {
      const double h = H[small::at(i, j, p)];
      H_rows[static_cast<std::size_t>(i) * k + j] = h;
      R_inv_H[small::at(i, j, p)] = h / r;
    }
    inverse_R[i] = 1.0 / r;
    log_R[i] = std::log(r);
    sum += log_R[i];
  }
  *sum_log_R = sum;
  // Column by column, as the filter of the result files forms it.
  for (int j = 0; j < k; ++j) {
    dgemv_("T", &p, &k, &blas::kOne, H, &p, R_inv_H + small::at(0, j, p), &blas::kIncOne,
           &blas::kZero, information + small::at(0, j, k), &blas::kIncOne);
  }
}

// Two doubles side by side, as the vector registers of most machines hold
// them; its arithmetic is that of the two doubles on their own.
using Pair = double __attribute__((vector_size(2 * sizeof(double))));

// y += a x over K (or n) elements that do not overlap, two at a time where K
// is even.
template <int K>
inline void add_scaled(int n, double a, const double* __restrict x, double* __restrict y) {
  if constexpr (K > 0 && K % 2 == 0) {
    const Pair scale = {a, a};
    for (int i = 0; i < K; i += 2) {
      Pair xi, yi;
      std::memcpy(&xi, x + i, sizeof xi);
      std::memcpy(&yi, y + i, sizeof yi);
      yi += scale * xi;
      std::memcpy(y + i, &yi, sizeof yi);
    }
  } else {
    for (int i = 0; i < small::dim<K>(n); ++i) y[i] += a * x[i];
  }
}

// Up to this many values of H, a column's missing rows are read where they
// lie in a cache; past it, the model is read once in order.
constexpr double kScatteredReadLimit = 131072.0;

// The sums over the missing rows of each read column of h h' / R and of
// log R, column by column in registers where k is fixed.
template <int K>
void downdates_by_column(int k_, const EmData& data, const double* H_rows, const double* inverse_R,
                         const double* log_R, double* downdates, double* missing_log_R) {
  const int k = small::dim<K>(k_);
  const std::size_t kk = static_cast<std::size_t>(k) * k;
  double fixed_sum[K > 0 ? K * K : 1];
  for (int j = 0; j < data.columns(); ++j) {
    double* d = downdates + static_cast<std::size_t>(j) * kk;
    double* sum = K > 0 ? fixed_sum : d;
    std::fill_n(sum, kk, 0.0);
    double log_sum = 0.0;
    for (const int* m = data.missing_rows(j); *m != -1; ++m) {
      const double* h = H_rows + static_cast<std::size_t>(*m) * k;
      const double w = inverse_R[*m];
      for (int c = 0; c < k; ++c) add_scaled<K>(k, h[c] * w, h, sum + c * k);
      log_sum += log_R[*m];
    }
    if constexpr (K > 0) std::copy_n(fixed_sum, kk, d);
    missing_log_R[j] = log_sum;
  }
}

// The same sums, object by object, in the same order within each column.
template <int K>
void downdates_by_object(int k_, const EmData& data, const double* H_rows, const double* inverse_R,
                         const double* log_R, double* downdates, double* missing_log_R) {
  const int k = small::dim<K>(k_);
  const std::size_t kk = static_cast<std::size_t>(k) * k;
  std::fill_n(downdates, kk * data.columns(), 0.0);
  std::fill_n(missing_log_R, data.columns(), 0.0);
  for (int i = 0; i < data.p(); ++i) {
    const double* h = H_rows + static_cast<std::size_t>(i) * k;
    for (const int j : data.missing_places(i)) {
      double* d = downdates + static_cast<std::size_t>(j) * kk;
      for (int c = 0; c < k; ++c) add_scaled<K>(k, h[c] * inverse_R[i], h, d + c * k);
      missing_log_R[j] += log_R[i];
    }
  }
}

// Objects first .. first + count - 1 of one start: each object's sum of y^2,
// with its missing cells' R + h P h', into yy, and their h P added to its row
// of yx (p x k), P summed over the object's missing columns.
template <int K>
void add_missing_cells(const StateSpaceModel& model, const EmData& data, const StartProducts& s,
                       RowRange objects, double* yy, double* yx) {
  const int p = data.p();
  const int k = small::dim<K>(s.k);
  const std::size_t kk = static_cast<std::size_t>(k) * k;
  const double* squares = data.sum_squares();
  // A fixed k keeps the sum in registers.
  double fixed_moment[K > 0 ? K * K : 1];
  double* moment = K > 0 ? fixed_moment : s.moment_scratch;
  for (int i = objects.first; i < objects.first + objects.count; ++i) {
    const std::span<const int> places = data.missing_places(i);
    if (places.empty()) {
      yy[i] = squares[i];
      continue;
    }
    std::fill_n(moment, kk, 0.0);
    for (const int j : places) {
      add_scaled<K * K>(k * k, 1.0, s.second_moments + static_cast<std::size_t>(j) * kk, moment);
    }
    const double* h = s.H_rows + static_cast<std::size_t>(i) * k;
    double hSh = 0.0;
    for (int r = 0; r < k; ++r) {
      double v = 0.0;
      for (int c = 0; c < k; ++c) v += moment[r + c * k] * h[c];
      yx[small::at(i, r, p)] += v;
      hSh += h[r] * v;
    }
    yy[i] = (static_cast<double>(places.size()) * model.R[i] + hSh) + squares[i];
  }
}

}  // namespace

void BatchProducts::prepare(std::span<const StateSpaceModel* const> models, const EmData& data) {
  starts_ = static_cast<int>(models.size());
  k_ = models.front()->k();
  const int p = data.p();
  for (int b = 0; b < starts_; ++b) {
    const StateSpaceModel& model = *models[static_cast<std::size_t>(b)];
    small::with_fixed_size(k_, [&](auto fixed) {
      constexpr int K = decltype(fixed)::value;
      prepare_model<K>(model, H_rows_of(b), R_inv_H_.col(b * k_), inverse_R_.col(b), log_R_.col(b),
                       &sum_log_R_[static_cast<std::size_t>(b)], information_of(b));
      const bool in_cache = static_cast<double>(p) * k_ <= kScatteredReadLimit;
      (in_cache ? downdates_by_column<K>
                : downdates_by_object<K>)(k_, data, H_rows_of(b), inverse_R_.col(b), log_R_.col(b),
                                          downdates_of(b), missing_log_R_.col(b));
    });
  }
  if (data.columns() > 0) project_data(data);
}

// projected = R_inv_H' Y, summed over blocks of kProductRows objects: with
// few rows of R_inv_H', one product over all p objects spends most of its
// time packing Y, where a block's stays in the cache.
void BatchProducts::project_data(const EmData& data) {
  int p = data.p();
  int n = data.columns();
  int rows = starts_ * k_;
  for (int first = 0; first < p; first += kProductRows) {
    int block = std::min(kProductRows, p - first);
    const double* beta = first == 0 ? &blas::kZero : &blas::kOne;
    dgemm_("T", "N", &rows, &n, &block, &blas::kOne, R_inv_H_.data() + first, &p,
           data.Y() + first, &p, beta, projected_.data(), &rows);
  }
}

void BatchProducts::finish(std::span<const StateSpaceModel* const> models, const EmData& data,
                          std::span<SufficientStats* const> sums) {
  int p = data.p();
  int n = data.columns();
  int ld = starts_ * k_;
  for (int first = 0; first < p; first += kProductRows) {
    int block = std::min(kProductRows, p - first);
    for (int b = 0; b < starts_; ++b) {
      const std::size_t start_b = static_cast<std::size_t>(b);
      double* yx = sums[start_b]->sum_yx.data();
      if (n > 0) {
        dgemm_("N", "T", &block, &k_, &n, &blas::kOne, data.Y() + first, &p,
               states_.data() + start_b * k_, &ld, &blas::kZero, yx + first, &p);
      } else {
        for (int c = 0; c < k_; ++c) std::fill_n(yx + small::at(first, c, p), block, 0.0);
      }
      small::with_fixed_size(k_, [&](auto fixed) {
        add_missing_cells<decltype(fixed)::value>(*models[start_b], data, start(b),
                                                  RowRange{first, block},
                                                  sums[start_b]->sum_yy.data(), yx);
      });
    }
  }
}

double batch_products_bytes(int p, int n_columns, int k, int starts) {
  const double P = p, N = n_columns, K = k, B = starts;
  return 8.0 * B * (2.0 * P * K + 3.0 * P + 1.0 + K * K + 2.0 * K * N + 2.0 * K * K * N + N) +
         8.0 * K * K;
}

}  // namespace tarn
