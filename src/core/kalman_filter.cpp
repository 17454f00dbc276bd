#include <cmath>
#include <cstring>

#include "core/kalman.h"
#include "linalg/blas.h"
#include "linalg/matrix.h"
#include "linalg/small_matrix.h"

namespace tarn {

// Every step on k x k matrices runs in the kernels of small_matrix.h with k
// fixed at compile time where it can be; the sweeps over the p objects are
// written out so that one pass does what several library calls would.

namespace {

using small::at;
using small::dim;

constexpr double kTwoPi = 6.283185307179586;

// Two doubles side by side, as the vector registers of most machines hold
// them; its arithmetic is that of the two doubles on their own.
using Pair = double __attribute__((vector_size(2 * sizeof(double))));

inline Pair load_pair(const double* x) {
  Pair v;
  std::memcpy(&v, x, sizeof v);
  return v;
}

// R_inv_H = R^-1 H, row i of H divided by R[i]; information = H' R_inv_H.
void prepare_information(const StateSpaceModel& model, int p, int k, Workspace* w) {
  for (int j = 0; j < k; ++j) {
    const double* h = model.H.data() + at(0, j, p);
    double* rh = w->R_inv_H.data() + at(0, j, p);
    for (int i = 0; i < p; ++i) rh[i] = h[i] / model.R[i];
  }
  for (int j = 0; j < k; ++j) {
    dgemv_("T", &p, &k, &blas::kOne, model.H.data(), &p, w->R_inv_H.data() + at(0, j, p),
           &blas::kIncOne, &blas::kZero, w->information.data() + at(0, j, k), &blas::kIncOne);
  }
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

// What stays fixed over one filter run: log R of every object and their sum.
struct LogTerms {
  const double* log_R;
  double sum_log_R;
  double log_2pi;
};

// -0.5 (e' S^-1 e + log det S + n log 2 pi), evaluated without S from the
// update's b, u and B. e_Rinv_e is the sum of e[i]^2 / R[i].
template <int K>
double likelihood_term(int p, int k_, double e_Rinv_e, const int* missing, const LogTerms& logs,
                       Workspace* w) {
  const int k = dim<K>(k_);
  const double q =
      e_Rinv_e - small::dot(k, w->projected_innovation.data(), 1, w->correction.data());

  double r = logs.sum_log_R;
  int n_missing = 0;
  for (const int* m = missing; *m != -1; ++m) {
    r -= logs.log_R[*m];
    ++n_missing;
  }
  const double c = static_cast<double>(p - n_missing) * logs.log_2pi;

  double* lu = w->square_b.data();
  small::copy(k * k, w->gain_complement.data(), lu);
  small::getrf<K>(k, lu, w->pivots.get());
  const double d = log_abs_diagonal(lu, k);
  return -0.5 * (q + r + c - d);
}

// The measurement update of time point t with observation y; returns the sum
// of e[i]^2 / R[i]. Writes filtered_mean[t + 1] and filtered_cov[t + 1].
template <int K>
double update(const StateSpaceModel& model, const double* y, const int* missing, int t,
              Trajectory* s, Workspace* w) {
  const int p = model.p();
  const int k = dim<K>(model.k());
  const int kk = k * k;
  const double* H = model.H.data();
  const double* R = model.R.data();
  const double* xp = s->predicted_mean[t];
  double* e = w->innovation.data();
  double* b = w->projected_innovation.data();
  double* u = w->correction.data();
  double* A = w->observed_information.data();
  double* G = w->square_a.data();
  double* lu = w->square_b.data();
  int* ipiv = w->pivots.get();
  innovation<K>(p, k, H, xp, y, missing, e);
  // A = H' R^-1 H over the observed rows: take each missing row out again.
  small::copy(kk, w->information.data(), A);
  for (const int* m = missing; *m != -1; ++m) {
    small::ger<K>(k, -1.0 / R[*m], H + *m, H + *m, A, static_cast<std::size_t>(p));
  }
  // b = H' R^-1 e; the zeros in e remove the missing rows.
  const double e_Rinv_e = project_innovation<K>(p, k, w->R_inv_H.data(), R, e, b);
  // G = Vp^-1 + A; solve G u = b.
  small::copy(kk, s->predicted_precision[t], G);
  small::axpy(kk, 1.0, A, G);
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

template <int K>
double filter(const StateSpaceModel& model, const ReplicateView& series, Trajectory* s,
              Workspace* work) {
  const int p = model.p();
  const int k = dim<K>(model.k());
  const int T = static_cast<int>(series.sample_at.size());
  s->k = k;
  s->T = T;
  prepare_information(model, p, k, work);
  small::copy(k, model.initial_mean.data(), s->filtered_mean[0]);
  small::copy(k * k, model.initial_cov.data(), s->filtered_cov[0]);
  double llh = 0.0;

  // Formed once per call; each observed time point subtracts its missing rows.
  double* log_R = work->log_R.data();
  double sum_log_R = 0.0;
  for (int i = 0; i < p; ++i) {
    log_R[i] = std::log(model.R[i]);
    sum_log_R += log_R[i];
  }
  const LogTerms logs{log_R, sum_log_R, std::log(kTwoPi)};

  for (int t = 0; t < T; ++t) {
    predict<K>(model, k, t, s, work);
    const int col = series.sample_at[static_cast<std::size_t>(t)];
    if (col == -1) {
      small::copy(k, s->predicted_mean[t], s->filtered_mean[t + 1]);
      small::copy(k * k, s->predicted_cov[t], s->filtered_cov[t + 1]);
      continue;
    }
    const double* y = series.Y + static_cast<std::size_t>(col) * static_cast<std::size_t>(p);
    const int* missing = series.missing[col];
    const double e_Rinv_e = update<K>(model, y, missing, t, s, work);
    llh += likelihood_term<K>(p, k, e_Rinv_e, missing, logs, work);
  }
  return llh;
}

}  // namespace

ReplicateView replicate_view(const DataSet& data, int r) {
  return ReplicateView{data.Y.data(),
                       std::span<const int>(data.sample_at[static_cast<std::size_t>(r)],
                                            static_cast<std::size_t>(data.T)),
                       data.missing.data()};
}

double run_filter(const StateSpaceModel& model, const ReplicateView& series, Trajectory* trajectory,
                  Workspace* work) {
  return small::with_fixed_size(model.k(), [&](auto fixed) {
    return filter<decltype(fixed)::value>(model, series, trajectory, work);
  });
}

}  // namespace tarn
