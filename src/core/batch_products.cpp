#include "core/batch_products.h"

#include <algorithm>
#include <cmath>

#include "linalg/blas.h"
#include "linalg/log_sum.h"
#include "linalg/pair.h"
#include "linalg/small_matrix.h"

namespace tarn {

BatchProducts::BatchProducts(int p, int n_columns, int max_k, int max_starts)
    : H_rows_(array_size(max_k, p, max_starts)),
      R_inv_H_(p, max_k * max_starts),
      inverse_R_(p, max_starts),
      sum_log_R_(max_starts, 1),
      information_(array_size(max_k, max_k, max_starts)),
      downdates_(array_size(max_k, max_k, n_columns, max_starts)),
      missing_log_R_(n_columns, max_starts),
      second_moments_(array_size(max_k, max_k, n_columns, max_starts)),
      moment_scratch_(array_size(max_k + 1, max_k)),
      projected_(max_k * max_starts, n_columns),
      states_(max_k * max_starts, n_columns),
      block_yx_(max_starts > 1 ? std::min(p, kProductRows) : 0, max_k * max_starts),
      next_missing_(array_size(n_columns)),
      missing_log_sums_(array_size(n_columns)) {}

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

// y += a x over K (or n) elements that do not overlap, two at a time where K
// is even.
template <int K>
inline void add_scaled(int n, double a, const double* __restrict x, double* __restrict y) {
  if constexpr (K > 0 && K % 2 == 0) {
    const Pair scale = {a, a};
    for (int i = 0; i < K; i += 2) {
      store_pair(y + i, load_pair(y + i) + scale * load_pair(x + i));
    }
  } else {
    for (int i = 0; i < small::dim<K>(n); ++i) y[i] += a * x[i];
  }
}

// Where one model's terms go: H' (k x p, row i of H at H_rows + i k),
// R^-1 H (p x k) and 1/R (p), and the downdates of the missing cells with
// their sums of log R (k x k and one value per read column).
struct ModelTerms {
  double* H_rows;
  double* R_inv_H;
  double* inverse_R;
  double* downdates;
  double* missing_log_R;
};

// Per read column, scratch of the sweep over the objects: its next missing
// row and the sum of log R over its missing rows so far.
struct ProductScratch {
  std::span<const int*> next;
  std::span<LogSum> missing_log_R;
};

// Objects per block of the sweep that forms a model's terms: their rows of
// H', 1/R and R split for its logarithm stay in the first-level cache while
// the missing cells of the block are taken out.
constexpr int kTermRows = 512;
static_assert(kTermRows <= LogSum::kMaxFactors);

// The terms of the objects of one block, and their log R added to log_R;
// R_factors[i - objects.first] is R[i] split for the sums of its logarithm.
template <int K>
void form_block_terms(const StateSpaceModel& model, RowRange objects, const ModelTerms& to,
                      std::span<LogFactor> R_factors, LogSum* log_R) {
  const int p = model.p();
  const int k = small::dim<K>(model.k());
  const int end = objects.first + objects.count;
  const double* __restrict R = model.R.data();
  for (int j = 0; j < k; ++j) {
    const double* __restrict h = model.H.data() + small::at(0, j, p);
    double* __restrict r_inv_h = to.R_inv_H + small::at(0, j, p);
    for (int i = objects.first; i < end; ++i) r_inv_h[i] = h[i] / R[i];
  }
  for (int i = objects.first; i < end; ++i) {
    for (int j = 0; j < k; ++j) {
      to.H_rows[static_cast<std::size_t>(i) * k + j] = model.H[small::at(i, j, p)];
    }
  }
  double* __restrict inverse_R = to.inverse_R;
  for (int i = objects.first; i < end; ++i) inverse_R[i] = 1.0 / R[i];
  for (int i = objects.first; i < end; ++i) R_factors[i - objects.first] = log_factor(R[i]);
  // Four products side by side, so that their multiplications overlap.
  LogSum lanes[4];
  int i = 0;
  for (; i + 4 <= objects.count; i += 4) {
    for (int l = 0; l < 4; ++l) lanes[l].add(R_factors[i + l]);
  }
  for (; i < objects.count; ++i) lanes[0].add(R_factors[i]);
  for (const LogSum& lane : lanes) log_R->add(lane);
}

// The missing cells of one block taken into each read column's sums of
// h h' / R and of log R: next[j] is the first missing row of column j not yet
// taken, and moves past the block. Within a column the objects come in
// ascending order, block after block, and the sums stay in registers where k
// is fixed.
template <int K>
void downdate_block(int k_, RowRange objects, std::span<const LogFactor> R_factors,
                    const ProductScratch& scratch, const ModelTerms& terms) {
  const int k = small::dim<K>(k_);
  const int end = objects.first + objects.count;
  const std::size_t kk = static_cast<std::size_t>(k) * k;
  double fixed_sum[K > 0 ? K * K : 1];
  for (std::size_t j = 0; j < scratch.next.size(); ++j) {
    const int* m = scratch.next[j];
    if (*m == -1 || *m >= end) continue;
    double* d = terms.downdates + j * kk;
    double* sum = K > 0 ? fixed_sum : d;
    if constexpr (K > 0) std::copy_n(d, kk, sum);
    LogSum log_sum = scratch.missing_log_R[j];
    for (; *m != -1 && *m < end; ++m) {
      const double* h = terms.H_rows + static_cast<std::size_t>(*m) * k;
      const double w = terms.inverse_R[*m];
      for (int c = 0; c < k; ++c) add_scaled<K>(k, h[c] * w, h, sum + c * k);
      log_sum.add(R_factors[static_cast<std::size_t>(*m - objects.first)]);
    }
    log_sum.renormalise();
    scratch.missing_log_R[j] = log_sum;
    if constexpr (K > 0) std::copy_n(fixed_sum, kk, d);
    scratch.next[j] = m;
  }
}

// Every term of one model in one sweep over the objects, then
// information = H' R^-1 H column by column, as the filter of the result files
// forms it.
template <int K>
void form_model_terms(const StateSpaceModel& model, const EmData& data, const ModelTerms& terms,
                      const ProductScratch& scratch, double* sum_log_R, double* information) {
  int p = model.p();
  int k = model.k();
  const std::size_t n = scratch.next.size();
  std::fill_n(terms.downdates, n * k * k, 0.0);
  std::fill(scratch.missing_log_R.begin(), scratch.missing_log_R.end(), LogSum());
  for (std::size_t j = 0; j < n; ++j) scratch.next[j] = data.missing_rows(static_cast<int>(j));
  LogSum log_R;
  LogFactor R_factors[kTermRows];
  for (int first = 0; first < p; first += kTermRows) {
    const RowRange objects{first, std::min(kTermRows, p - first)};
    form_block_terms<K>(model, objects, terms, R_factors, &log_R);
    downdate_block<K>(k, objects, R_factors, scratch, terms);
  }
  *sum_log_R = log_R.value();
  for (std::size_t j = 0; j < n; ++j) terms.missing_log_R[j] = scratch.missing_log_R[j].value();
  for (int j = 0; j < k; ++j) {
    dgemv_("T", &p, &k, &blas::kOne, model.H.data(), &p, terms.R_inv_H + small::at(0, j, p),
           &blas::kIncOne, &blas::kZero, information + small::at(0, j, k), &blas::kIncOne);
  }
}

// v = M h for a k x k M, each element summed over the columns in order; two
// rows of M at a time where k is even.
template <int K>
void moment_times(int k_, const double* __restrict M, const double* __restrict h,
                  double* __restrict v) {
  const int k = small::dim<K>(k_);
  int r = 0;
  if constexpr (K > 0 && K % 2 == 0) {
    for (; r < K; r += 2) {
      Pair sum{};
      for (int c = 0; c < K; ++c) sum += load_pair(M + r + c * K) * h[c];
      store_pair(v + r, sum);
    }
  }
  for (; r < k; ++r) {
    double sum = 0.0;
    for (int c = 0; c < k; ++c) sum += M[r + c * k] * h[c];
    v[r] = sum;
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
    double fixed_v[K > 0 ? K : 1];
    double* v = K > 0 ? fixed_v : s.moment_scratch + kk;
    moment_times<K>(k, moment, h, v);
    double hSh = 0.0;
    for (int r = 0; r < k; ++r) {
      yx[small::at(i, r, p)] += v[r];
      hSh += h[r] * v[r];
    }
    yy[i] = (static_cast<double>(places.size()) * model.R[i] + hSh) + squares[i];
  }
}

}  // namespace

void BatchProducts::prepare(std::span<const StateSpaceModel* const> models, const EmData& data) {
  starts_ = static_cast<int>(models.size());
  k_ = models.front()->k();
  const auto n = static_cast<std::size_t>(data.columns());
  const ProductScratch scratch{{next_missing_.get(), n}, {missing_log_sums_.get(), n}};
  for (int b = 0; b < starts_; ++b) {
    const StateSpaceModel& model = *models[static_cast<std::size_t>(b)];
    const ModelTerms terms{H_rows_of(b), R_inv_H_.col(b * k_), inverse_R_.col(b), downdates_of(b),
                           missing_log_R_.col(b)};
    small::with_fixed_size(k_, [&](auto fixed) {
      form_model_terms<decltype(fixed)::value>(
          model, data, terms, scratch, &sum_log_R_[static_cast<std::size_t>(b)], information_of(b));
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
    dgemm_("T", "N", &rows, &n, &block, &blas::kOne, R_inv_H_.data() + first, &p, data.Y() + first,
           &p, beta, projected_.data(), &rows);
  }
}

void BatchProducts::multiply_states(const EmData& data, RowRange objects) {
  int p = data.p();
  int n = data.columns();
  int ld = starts_ * k_;
  // One start's product goes straight into its sums in finish().
  if (n == 0 || starts_ == 1) return;
  dgemm_("N", "T", &objects.count, &ld, &n, &blas::kOne, data.Y() + objects.first, &p,
         states_.data(), &ld, &blas::kZero, block_yx_.data(), &objects.count);
}

void BatchProducts::finish(int b, const StateSpaceModel& model, const EmData& data,
                           RowRange objects, SufficientStats* sums) {
  int p = data.p();
  int n = data.columns();
  double* yx = sums->sum_yx.data();
  if (n > 0 && starts_ == 1) {
    dgemm_("N", "T", &objects.count, &k_, &n, &blas::kOne, data.Y() + objects.first, &p,
           states_.data(), &k_, &blas::kZero, yx + objects.first, &p);
  } else {
    for (int c = 0; c < k_; ++c) {
      double* to = yx + small::at(objects.first, c, p);
      if (n > 0) {
        std::copy_n(block_yx_.data() + small::at(0, b * k_ + c, objects.count), objects.count, to);
      } else {
        std::fill_n(to, objects.count, 0.0);
      }
    }
  }
  small::with_fixed_size(k_, [&](auto fixed) {
    add_missing_cells<decltype(fixed)::value>(model, data, start(b), objects, sums->sum_yy.data(),
                                              yx);
  });
}

double batch_products_bytes(int p, int n_columns, int k, int starts) {
  const double P = p, N = n_columns, K = k, B = starts;
  return 8.0 * B * (2.0 * P * K + 2.0 * P + 1.0 + K * K + 2.0 * K * N + 2.0 * K * K * N + N) +
         (B > 1 ? 8.0 * std::min(P, static_cast<double>(kProductRows)) * B * K : 0.0) +
         8.0 * (K * K + K) + (8.0 + sizeof(LogSum)) * N;
}

}  // namespace tarn
