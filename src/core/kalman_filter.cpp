#include <algorithm>
#include <cmath>

#include "core/kalman.h"
#include "linalg/blas.h"
#include "linalg/matrix.h"
#include "linalg/pair.h"
#include "linalg/small_matrix.h"

namespace tarn {

// Every step on k x k matrices runs in the kernels of small_matrix.h with k
// fixed at compile time where it can be; the sweeps over the p objects are
// written out so that one pass does what several library calls would.

namespace {

using small::at;
using small::dim;

constexpr double kTwoPi = 6.283185307179586;

// What the update reads of the model beyond H and R.
struct FilterTerms {
  // Row i of H: k values at H_rows + i * row_step, element j at j * element_step.
  const double* H_rows;
  std::size_t row_step;
  std::size_t element_step;
  const double* R_inv_H;      // p x k
  const double* information;  // k x k: H' R^-1 H
  const double* log_R;        // p, or null where the products give the missing rows' sum
  double sum_log_R;
};

// R_inv_H = R^-1 H, row i of H divided by R[i]; information = H' R_inv_H;
// log R and its sum.
FilterTerms prepare_terms(const StateSpaceModel& model, int p, int k, Workspace* w) {
  for (int j = 0; j < k; ++j) {
    const double* h = model.H.data() + at(0, j, p);
    double* rh = w->R_inv_H.data() + at(0, j, p);
    for (int i = 0; i < p; ++i) rh[i] = h[i] / model.R[i];
  }
  for (int j = 0; j < k; ++j) {
    dgemv_("T", &p, &k, &blas::kOne, model.H.data(), &p, w->R_inv_H.data() + at(0, j, p),
           &blas::kIncOne, &blas::kZero, w->information.data() + at(0, j, k), &blas::kIncOne);
  }
  double* log_R = w->log_R.data();
  double sum_log_R = 0.0;
  for (int i = 0; i < p; ++i) {
    log_R[i] = std::log(model.R[i]);
    sum_log_R += log_R[i];
  }
  return FilterTerms{model.H.data(),
                     1,
                     static_cast<std::size_t>(p),
                     w->R_inv_H.data(),
                     w->information.data(),
                     log_R,
                     sum_log_R};
}

// predicted_mean[t] = F filtered_mean[t], predicted_cov[t] = (F filtered_cov[t]) F' + diag(Q),
// and its explicit inverse.
template <int K>
void predict(const StateSpaceModel& model, int k_, int t, Trajectory* s, Workspace* w) {
  const int k = dim<K>(k_);
  const double* F = model.F.data();
  small::gemm<K, false, false>(k, 1.0, F, s->filtered_cov[t], 0.0, s->F_filtered_cov[t]);
  small::gemv<K>(k, 1.0, F, s->filtered_mean[t], 1, 0.0, s->predicted_mean[t]);
  set_diagonal(s->predicted_cov[t], k, model.Q.data());
  small::gemm<K, false, true>(k, 1.0, s->F_filtered_cov[t], F, 1.0, s->predicted_cov[t]);
  small::copy(k * k, s->predicted_cov[t], s->predicted_precision[t]);
  small::inverse<K>(k, s->predicted_precision[t], w->pivots.get(), w->inverse_scratch.data());
}

// e = y - H xp, then 0.0 at the missing rows.
template <int K>
void innovation(int p, int k_, const double* __restrict H, const double* __restrict xp,
                const double* __restrict y, const int* missing, double* __restrict e) {
  const int k = dim<K>(k_);
  for (int i = 0; i < p; ++i) {
    double v = y[i];
    for (int j = 0; j < k; ++j) v -= H[at(i, j, p)] * xp[j];
    e[i] = v;
  }
  for (const int* m = missing; *m != -1; ++m) e[*m] = 0.0;
}

// b = R_inv_H' e, and returns the sum of e[i]^2 / R[i]. Both sums run in four
// interleaved partial sums (two pairs of lanes), added pairwise at the end.
template <int K>
double project_innovation(int p, int k_, const double* __restrict R_inv_H,
                          const double* __restrict R, const double* __restrict e,
                          double* __restrict b) {
  const int k = dim<K>(k_);
  Pair q[2] = {};
  int i = 0;
  if constexpr (K == 0) {
    dgemv_("T", &p, &k, &blas::kOne, R_inv_H, &p, e, &blas::kIncOne, &blas::kZero, b,
           &blas::kIncOne);
  } else {
    Pair lanes[K][2] = {};
    for (; i + 4 <= p; i += 4) {
      const Pair e0 = load_pair(e + i);
      const Pair e1 = load_pair(e + i + 2);
      for (int j = 0; j < K; ++j) {
        lanes[j][0] += load_pair(R_inv_H + at(i, j, p)) * e0;
        lanes[j][1] += load_pair(R_inv_H + at(i + 2, j, p)) * e1;
      }
      q[0] += e0 * e0 / load_pair(R + i);
      q[1] += e1 * e1 / load_pair(R + i + 2);
    }
    for (int l = 0; i + l < p; ++l) {
      for (int j = 0; j < K; ++j) lanes[j][l / 2][l % 2] += R_inv_H[at(i + l, j, p)] * e[i + l];
    }
    for (int j = 0; j < K; ++j) {
      b[j] = (lanes[j][0][0] + lanes[j][0][1]) + (lanes[j][1][0] + lanes[j][1][1]);
    }
  }
  for (int l = 0; i < p; ++i, l = (l + 1) % 4) q[l / 2][l % 2] += e[i] * e[i] / R[i];
  return (q[0][0] + q[0][1]) + (q[1][0] + q[1][1]);
}

// The expanded form of the sum of e'R^-1 e over a replicate may take terms
// this many times the size of its result: it then keeps all but the last 4
// bits the direct form keeps. Past that, the sum is taken in the direct form.
constexpr double kCancellationLimit = 16.0;

// The sum of e'R^-1 e over the observed time points of a replicate, where
// e = y - H xp over the observed rows, in its expanded form: with g = H'R^-1 y
// and the observed information A of each time point,
//   sum of y'R^-1 y  +  sum of (-2 xp'g + xp'A xp).
// The first sum is the replicate's sums of squares over R; the time points
// add to the second, and to the size of its terms.
// A time point whose b comes from the direct form makes the sum direct too.
struct ExpandedSum {
  double time_terms = 0.0;
  double size = 0.0;
  bool direct = false;
};

// The largest magnitude among the n values of x.
double largest(int n, const double* x) {
  double m = 0.0;
  for (int i = 0; i < n; ++i) m = std::max(m, std::fabs(x[i]));
  return m;
}

// b = g - A xp for the update, and the time point's terms of the expanded sum.
// A is H'R^-1 H less the missing rows, so that b carries the rounding of
// g and of information xp: false, with b overwritten, where that is too large
// against b and against G xp, the scale of the state it corrects.
template <int K>
bool expanded_innovation(int k_, const double* g, const double* information, const double* A,
                         const double* G, const double* xp, double* b, ExpandedSum* sum) {
  const int k = dim<K>(k_);
  double rounding = 0.0;  // the largest |information| |xp|, row by row
  for (int j = 0; j < k; ++j) {
    double row = 0.0;
    for (int l = 0; l < k; ++l) row += std::fabs(information[j + l * k]) * std::fabs(xp[l]);
    rounding = std::max(rounding, row);
  }
  small::gemv<K>(k, 1.0, A, xp, 1, 0.0, b);
  const double xAx = small::dot(k, xp, 1, b);
  const double xg = small::dot(k, xp, 1, g);
  for (int j = 0; j < k; ++j) b[j] = g[j] - b[j];
  const double size = largest(k, g) + rounding;
  const double scale = largest(k, b) + largest(k * k, G) * largest(k, xp);
  if (!(size <= kCancellationLimit * scale)) return false;
  sum->time_terms += xAx - xg - xg;
  sum->size += 2.0 * std::fabs(xg) + std::fabs(xAx);
  return true;
}

// What the likelihood of a time point takes of its missing rows.
struct ObservedRows {
  double log_det_R;
  int n_missing;
};

// log det R over the observed rows of a column: the sum of log R less the
// missing rows', one by one.
ObservedRows observed_rows(const FilterTerms& terms, const int* missing) {
  ObservedRows rows{terms.sum_log_R, 0};
  for (const int* m = missing; *m != -1; ++m) {
    rows.log_det_R -= terms.log_R[*m];
    ++rows.n_missing;
  }
  return rows;
}

// -0.5 (e' S^-1 e + log det S + n log 2 pi), evaluated without S from the
// update's b, u and B. e_Rinv_e is the sum of e[i]^2 / R[i].
// observed.log_det_R is the sum of log R over the observed rows.
template <int K>
double likelihood_term(int p, int k_, double e_Rinv_e, const ObservedRows& observed, Workspace* w) {
  const int k = dim<K>(k_);
  const double q =
      e_Rinv_e - small::dot(k, w->projected_innovation.data(), 1, w->correction.data());
  const double r = observed.log_det_R;
  const double c = static_cast<double>(p - observed.n_missing) * std::log(kTwoPi);

  double* lu = w->square_b.data();
  small::copy(k * k, w->gain_complement.data(), lu);
  small::getrf<K>(k, lu, w->pivots.get());
  const double d = log_abs_diagonal(lu, k);
  return -0.5 * (q + r + c - d);
}

// A = H' R^-1 H over the observed rows: each missing row taken out again, in
// a copy the compiler can keep in registers where k is fixed.
template <int K>
void observed_information(int k_, const FilterTerms& terms, const double* R, const int* missing,
                          double* A) {
  const int k = dim<K>(k_);
  double local[K > 0 ? K * K : 1];
  double* a = K > 0 ? local : A;
  small::copy(k * k, terms.information, a);
  for (const int* m = missing; *m != -1; ++m) {
    const double* h = terms.H_rows + *m * terms.row_step;
    small::ger<K>(k, -1.0 / R[*m], h, h, a, terms.element_step);
  }
  if constexpr (K > 0) small::copy(k * k, local, A);
}

// One observed time point: its column of Y with its missing rows, and, where
// the products with the data were formed, their values for the column.
struct Observation {
  const double* y;
  const int* missing;
  const double* projected;  // H'R^-1 y, or null
  const double* downdate;   // with projected: the sum of h h' / R over the missing rows
  ObservedRows rows;
};

// The measurement update of time point t; returns the sum of e[i]^2 / R[i],
// or 0.0 with the products, whose terms of it go to expanded. Writes
// filtered_mean[t + 1] and filtered_cov[t + 1].
template <int K>
double update(const StateSpaceModel& model, const FilterTerms& terms, const Observation& obs, int t,
              Trajectory* s, Workspace* w, ExpandedSum* expanded) {
  const int p = model.p();
  const int k = dim<K>(model.k());
  const int kk = k * k;
  const double* H = model.H.data();
  const double* R = model.R.data();
  const double* xp = s->predicted_mean[t];
  double* b = w->projected_innovation.data();
  double* u = w->correction.data();
  double* A = w->observed_information.data();
  double* G = w->square_a.data();
  double* lu = w->square_b.data();
  int* ipiv = w->pivots.get();
  if (obs.downdate != nullptr) {
    for (int e = 0; e < kk; ++e) A[e] = terms.information[e] - obs.downdate[e];
  } else {
    observed_information<K>(k, terms, R, obs.missing, A);
  }
  // G = Vp^-1 + A.
  small::copy(kk, s->predicted_precision[t], G);
  small::axpy(kk, 1.0, A, G);
  double e_Rinv_e = 0.0;
  if (obs.projected == nullptr ||
      !expanded_innovation<K>(k, obs.projected, terms.information, A, G, xp, b, expanded)) {
    // b = H' R^-1 e with e = y - H xp; the zeros in e remove the missing rows.
    double* e = w->innovation.data();
    innovation<K>(p, k, H, xp, obs.y, obs.missing, e);
    e_Rinv_e = project_innovation<K>(p, k, terms.R_inv_H, R, e, b);
    if (obs.projected != nullptr) {
      expanded->direct = true;
      e_Rinv_e = 0.0;
    }
  }
  // Solve G u = b.
  small::copy(kk, G, lu);
  small::copy(k, b, u);
  small::getrf<K>(k, lu, ipiv);
  small::getrs1<K, false>(k, lu, ipiv, u);
  // Xf = Xp + u.
  small::copy(k, xp, s->filtered_mean[t + 1]);
  small::axpy(k, 1.0, u, s->filtered_mean[t + 1]);
  // B = I - G^-1 A; Vf = B Vp.
  double* G_inv_A = G;
  small::copy(kk, A, G_inv_A);
  small::getrs<K, false>(k, k, lu, ipiv, G_inv_A, k);
  double* B = w->gain_complement.data();
  set_identity(B, k);
  small::axpy(kk, -1.0, G_inv_A, B);
  small::gemm<K, false, false>(k, 1.0, B, s->predicted_cov[t], 0.0, s->filtered_cov[t + 1]);
  return e_Rinv_e;
}

// The observation of table column col: with products, their values at its
// place among the read columns.
Observation observe(const ReplicateView& series, const FilterTerms& terms,
                    const StartProducts* products, int p, int col) {
  Observation obs{series.Y + static_cast<std::size_t>(col) * static_cast<std::size_t>(p),
                  series.missing[col],
                  nullptr,
                  nullptr,
                  {}};
  if (products == nullptr) {
    obs.rows = observed_rows(terms, obs.missing);
    return obs;
  }
  const int j = series.column_of[col];
  const std::size_t kk = static_cast<std::size_t>(products->k) * products->k;
  obs.projected = products->projected + static_cast<std::size_t>(j) * products->ld;
  obs.downdate = products->downdates + static_cast<std::size_t>(j) * kk;
  obs.rows = {terms.sum_log_R - products->missing_log_R[j], series.missing_counts[j]};
  return obs;
}

// The sum of e'R^-1 e over the observed time points of the replicate, in the
// direct form, from the predicted means of the trajectory.
template <int K>
double direct_sum(const StateSpaceModel& model, const ReplicateView& series,
                  const FilterTerms& terms, const Trajectory& s, Workspace* w) {
  const int p = model.p();
  const int k = dim<K>(model.k());
  double sum = 0.0;
  for (int t = 0; t < s.T; ++t) {
    const int col = series.sample_at[static_cast<std::size_t>(t)];
    if (col == -1) continue;
    const double* y = series.Y + static_cast<std::size_t>(col) * static_cast<std::size_t>(p);
    double* e = w->innovation.data();
    innovation<K>(p, k, model.H.data(), s.predicted_mean[t], y, series.missing[col], e);
    sum += project_innovation<K>(p, k, terms.R_inv_H, model.R.data(), e, w->square_a.data());
  }
  return sum;
}

// The replicate's sum of e'R^-1 e: the expanded form, or the direct form
// where the terms of the expanded one are too large against it.
template <int K>
double e_Rinv_e_sum(const StateSpaceModel& model, const ReplicateView& series,
                    const FilterTerms& terms, const StartProducts& products,
                    const ExpandedSum& expanded, const Trajectory& s, Workspace* w) {
  const int p = model.p();
  double y_Rinv_y = 0.0;
  for (int i = 0; i < p; ++i) y_Rinv_y += series.squares[i] * products.inverse_R[i];
  const double sum = y_Rinv_y + expanded.time_terms;
  if (!expanded.direct && y_Rinv_y + expanded.size <= kCancellationLimit * sum) return sum;
  return direct_sum<K>(model, series, terms, s, w);
}

template <int K>
double filter(const StateSpaceModel& model, const ReplicateView& series, const FilterTerms& terms,
              const StartProducts* products, Trajectory* s, Workspace* work) {
  const int p = model.p();
  const int k = dim<K>(model.k());
  const int T = static_cast<int>(series.sample_at.size());
  s->k = k;
  s->T = T;
  small::copy(k, model.initial_mean.data(), s->filtered_mean[0]);
  small::copy(k * k, model.initial_cov.data(), s->filtered_cov[0]);
  double llh = 0.0;
  ExpandedSum expanded;
  for (int t = 0; t < T; ++t) {
    predict<K>(model, k, t, s, work);
    const int col = series.sample_at[static_cast<std::size_t>(t)];
    if (col == -1) {
      small::copy(k, s->predicted_mean[t], s->filtered_mean[t + 1]);
      small::copy(k * k, s->predicted_cov[t], s->filtered_cov[t + 1]);
      continue;
    }
    const Observation obs = observe(series, terms, products, p, col);
    const double e_Rinv_e = update<K>(model, terms, obs, t, s, work, &expanded);
    llh += likelihood_term<K>(p, k, e_Rinv_e, obs.rows, work);
  }
  if (products == nullptr) return llh;
  return llh - 0.5 * e_Rinv_e_sum<K>(model, series, terms, *products, expanded, *s, work);
}

}  // namespace

ReplicateView replicate_view(const DataSet& data, int r) {
  return ReplicateView{data.Y.data(),
                       std::span<const int>(data.sample_at[static_cast<std::size_t>(r)],
                                            static_cast<std::size_t>(data.T)),
                       data.missing.data(),
                       nullptr,
                       nullptr,
                       nullptr};
}

ReplicateView replicate_view(const EmData& data, int r) {
  ReplicateView view = replicate_view(data.table(), r);
  view.column_of = data.column_places();
  view.squares = data.replicate_squares(r);
  view.missing_counts = data.missing_counts();
  return view;
}

double run_filter(const StateSpaceModel& model, const ReplicateView& series, Trajectory* trajectory,
                  Workspace* work) {
  return small::with_fixed_size(model.k(), [&](auto fixed) {
    const FilterTerms terms = prepare_terms(model, model.p(), model.k(), work);
    return filter<decltype(fixed)::value>(model, series, terms, nullptr, trajectory, work);
  });
}

double run_filter(const StateSpaceModel& model, const ReplicateView& series,
                  const StartProducts& products, Trajectory* trajectory, Workspace* work) {
  const FilterTerms terms{products.H_rows,
                          static_cast<std::size_t>(model.k()),
                          1,
                          products.R_inv_H,
                          products.information,
                          nullptr,
                          products.sum_log_R};
  return small::with_fixed_size(model.k(), [&](auto fixed) {
    return filter<decltype(fixed)::value>(model, series, terms, &products, trajectory, work);
  });
}

}  // namespace tarn
