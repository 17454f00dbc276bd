#pragma once
// A textbook Kalman filter and Rauch-Tung-Striebel smoother on small dense
// matrices, with plain loops, to check the information-form filter and the
// smoother against; random well-conditioned models and replicated data sets
// with missing time points and missing objects.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#include "core/data_set.h"
#include "core/model.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace dense_ref {

// Column-major dense matrix; a vector is a matrix of one column.
struct Mat {
  int rows = 0, cols = 0;
  std::vector<double> a;
  Mat() = default;
  Mat(int r, int c) : rows(r), cols(c), a(static_cast<std::size_t>(r) * c, 0.0) {}
  Mat(int r, int c, const double* src) : Mat(r, c) { std::copy(src, src + a.size(), a.begin()); }
  Mat(int r, int c, const Matrix& src) : Mat(r, c, src.data()) {}
  double& operator()(int i, int j) { return a[static_cast<std::size_t>(i + j * rows)]; }
  double operator()(int i, int j) const { return a[static_cast<std::size_t>(i + j * rows)]; }
};

inline Mat mul(const Mat& A, const Mat& B) {
  Mat C(A.rows, B.cols);
  for (int i = 0; i < A.rows; ++i)
    for (int j = 0; j < B.cols; ++j)
      for (int l = 0; l < A.cols; ++l) C(i, j) += A(i, l) * B(l, j);
  return C;
}

inline Mat tr(const Mat& A) {
  Mat C(A.cols, A.rows);
  for (int i = 0; i < A.rows; ++i)
    for (int j = 0; j < A.cols; ++j) C(j, i) = A(i, j);
  return C;
}

inline Mat add(Mat A, const Mat& B, double beta = 1.0) {
  for (std::size_t i = 0; i < A.a.size(); ++i) A.a[i] += beta * B.a[i];
  return A;
}

inline Mat identity(int n) {
  Mat I(n, n);
  for (int i = 0; i < n; ++i) I(i, i) = 1.0;
  return I;
}

// Lower Cholesky factor of a symmetric positive definite S.
inline Mat cholesky(const Mat& S) {
  Mat L(S.rows, S.rows);
  for (int j = 0; j < S.rows; ++j) {
    for (int i = j; i < S.rows; ++i) {
      double s = S(i, j);
      for (int l = 0; l < j; ++l) s -= L(i, l) * L(j, l);
      L(i, j) = i == j ? std::sqrt(s) : s / L(j, j);
    }
  }
  return L;
}

// Solves L L' X = B by forward and back substitution.
inline Mat chol_solve(const Mat& L, Mat B) {
  for (int c = 0; c < B.cols; ++c) {
    for (int i = 0; i < L.rows; ++i) {
      for (int l = 0; l < i; ++l) B(i, c) -= L(i, l) * B(l, c);
      B(i, c) /= L(i, i);
    }
    for (int i = L.rows - 1; i >= 0; --i) {
      for (int l = i + 1; l < L.rows; ++l) B(i, c) -= L(l, i) * B(l, c);
      B(i, c) /= L(i, i);
    }
  }
  return B;
}

inline Mat inverse(const Mat& A) {  // A symmetric positive definite
  return chol_solve(cholesky(A), identity(A.rows));
}

struct Model {
  int p = 0, k = 0;
  Mat exp, var, H, R, F, Q;  // R and Q as diagonals
};

// var = I, Q = 1, R in [0.2, 1.5]; F scaled by its Frobenius norm, which
// bounds its spectral radius, to a radius below 0.95.
inline Model random_model(int p, int k, std::mt19937_64& rng) {
  auto fill = [&rng](int r, int c, double lo, double hi) {
    Mat M(r, c);
    for (double& x : M.a) x = std::uniform_real_distribution<double>(lo, hi)(rng);
    return M;
  };
  Model m;
  m.p = p, m.k = k, m.exp = fill(k, 1, -1, 1), m.var = identity(k), m.H = fill(p, k, -1, 1);
  m.R = fill(p, 1, 0.2, 1.5), m.F = fill(k, k, -1, 1), m.Q = Mat(k, 1);
  std::fill(m.Q.a.begin(), m.Q.a.end(), 1.0);
  double fro = 0.0;
  for (double x : m.F.a) fro += x * x;
  const double scale = std::uniform_real_distribution<double>(0.3, 0.95)(rng) / std::sqrt(fro);
  for (double& x : m.F.a) x *= scale;
  return m;
}

// The model in a record made for max(alloc_k, k) states, packed for k.
inline std::unique_ptr<StateSpaceModel> to_ssm(const Model& m, int alloc_k = 0) {
  auto ssm = std::make_unique<StateSpaceModel>(m.p, std::max(alloc_k, m.k));
  ssm->set_state_dimension(m.k);
  const std::pair<const Mat*, Matrix*> fields[] = {{&m.exp, &ssm->initial_mean},
                                                   {&m.var, &ssm->initial_cov},
                                                   {&m.H, &ssm->H},
                                                   {&m.R, &ssm->R},
                                                   {&m.F, &ssm->F},
                                                   {&m.Q, &ssm->Q}};
  for (const auto& [src, dst] : fields) std::copy(src->a.begin(), src->a.end(), dst->data());
  return ssm;
}

// Replicated samples: Y is p x n_samples with 0.0 at missing cells.
struct Data {
  int p = 0, T = 0, n_samples = 0;
  std::vector<double> Y;
  std::vector<std::vector<int>> sample_at;  // per replicate, T entries
  std::vector<std::vector<int>> lists;      // per sample, ended by -1
  std::vector<const int*> missing;          // points into lists: no copies
  Data() = default;
  Data(const Data&) = delete;
  Data(Data&&) = default;
};

// Four in five (replicate, time) slots get a sample, in shuffled column order.
// Column 0 misses no object, column 1 (of three or more) misses every object,
// the others miss each object with chance 1/4.
inline Data random_series(int p, int T, int n_rep, std::mt19937_64& rng) {
  std::uniform_real_distribution<double> u01(0.0, 1.0);
  Data d;
  d.p = p;
  d.T = T;
  d.sample_at.assign(static_cast<std::size_t>(n_rep), std::vector<int>(T, -1));
  std::vector<int*> slots;
  for (auto& rep : d.sample_at)
    for (int& slot : rep)
      if (u01(rng) < 0.8) slots.push_back(&slot);
  d.n_samples = static_cast<int>(slots.size());
  std::shuffle(slots.begin(), slots.end(), rng);
  for (std::size_t c = 0; c < slots.size(); ++c) *slots[c] = static_cast<int>(c);
  d.Y.assign(static_cast<std::size_t>(p) * d.n_samples, 0.0);
  d.lists.resize(static_cast<std::size_t>(d.n_samples));
  for (int s = 0; s < d.n_samples; ++s) {
    auto& list = d.lists[static_cast<std::size_t>(s)];
    for (int i = 0; i < p; ++i) {
      if ((s == 1 && d.n_samples >= 3) || (s != 0 && u01(rng) < 0.25))
        list.push_back(i);
      else
        d.Y[static_cast<std::size_t>(i + s * p)] = 6.0 * u01(rng) - 3.0;
    }
    list.push_back(-1);
    d.missing.push_back(list.data());
  }
  return d;
}

// The data set in the reader's layout, pointing into d.
inline std::unique_ptr<DataSet> to_data(const Data& d) {
  auto data = std::make_unique<DataSet>();
  data->Y = d.Y;
  data->n_samples = d.n_samples;
  data->p = d.p;
  data->T = d.T;
  data->n_replicates = static_cast<int>(d.sample_at.size());
  for (const auto& rep : d.sample_at) data->sample_at.push_back(const_cast<int*>(rep.data()));
  for (const int* list : d.missing) data->missing.push_back(const_cast<int*>(list));
  return data;
}

inline bool is_missing(const Data& d, int s, int i) {
  const auto& list = d.lists[static_cast<std::size_t>(s)];
  return std::find(list.begin(), list.end(), i) != list.end();
}

struct Filtered {
  double llh = 0.0;
  std::vector<Mat> Xp, Vp, Xf, Vf;
};

// Covariance-form filter over the observed rows of each sample, with the
// innovation covariance S formed explicitly and factorised by Cholesky.
inline Filtered filter(const Model& m, const Data& d, int r) {
  Filtered f{0.0, {}, {}, {m.exp}, {m.var}};
  for (int i = 0; i < d.T; ++i) {
    const Mat xp = mul(m.F, f.Xf.back());
    Mat vp = mul(mul(m.F, f.Vf.back()), tr(m.F));
    for (int j = 0; j < m.k; ++j) vp(j, j) += m.Q.a[static_cast<std::size_t>(j)];
    f.Xp.push_back(xp);
    f.Vp.push_back(vp);
    const int s = d.sample_at[static_cast<std::size_t>(r)][static_cast<std::size_t>(i)];
    std::vector<int> obs;
    for (int o = 0; s >= 0 && o < m.p; ++o)
      if (!is_missing(d, s, o)) obs.push_back(o);
    const int n = static_cast<int>(obs.size());
    Mat Ho(n, m.k), e(n, 1), Ro(n, n);
    for (int a = 0; a < n; ++a) {
      const int o = obs[static_cast<std::size_t>(a)];
      for (int j = 0; j < m.k; ++j) Ho(a, j) = m.H(o, j);
      e(a, 0) = d.Y[static_cast<std::size_t>(o + s * m.p)];
      Ro(a, a) = m.R.a[static_cast<std::size_t>(o)];
    }
    e = add(e, mul(Ho, xp), -1.0);
    const Mat L = cholesky(add(mul(mul(Ho, vp), tr(Ho)), Ro));
    double log_det = 0.0;
    for (int a = 0; a < n; ++a) log_det += 2.0 * std::log(L(a, a));
    const double quad = n == 0 ? 0.0 : mul(tr(e), chol_solve(L, e))(0, 0);
    f.llh += -0.5 * (quad + log_det + n * std::log(2.0 * std::numbers::pi));
    const Mat K = tr(chol_solve(L, mul(Ho, tr(vp))));  // Vp Ho' S^-1
    f.Xf.push_back(add(xp, mul(K, e)));
    f.Vf.push_back(mul(add(identity(m.k), mul(K, Ho), -1.0), vp));
  }
  return f;
}

struct Smoothed {
  std::vector<Mat> Xs, Vs, J;
};

// J = Vf F' Vp^-1, Xs = Xf + J (Xs+ - Xp), Vs = Vf + J (Vs+ - Vp) J'.
inline Smoothed smooth(const Model& m, const Filtered& f) {
  const std::size_t T = f.Xp.size();
  Smoothed s{std::vector<Mat>(T + 1), std::vector<Mat>(T + 1), std::vector<Mat>(T)};
  s.Xs[T] = f.Xf[T];
  s.Vs[T] = f.Vf[T];
  for (std::size_t t = T; t-- > 0;) {
    s.J[t] = tr(chol_solve(cholesky(f.Vp[t]), mul(m.F, tr(f.Vf[t]))));
    s.Xs[t] = add(f.Xf[t], mul(s.J[t], add(s.Xs[t + 1], f.Xp[t], -1.0)));
    s.Vs[t] = add(f.Vf[t], mul(mul(s.J[t], add(s.Vs[t + 1], f.Vp[t], -1.0)), tr(s.J[t])));
  }
  return s;
}

// Agreement to 1e-9 of the larger of 1 and the reference's largest magnitude.
inline void expect_close(const double* got, const Mat& want, const char* what, std::size_t t) {
  double scale = 1.0;
  for (double x : want.a) scale = std::max(scale, std::fabs(x));
  for (std::size_t i = 0; i < want.a.size(); ++i)
    EXPECT_NEAR(got[i], want.a[i], 1e-9 * scale) << what << "[" << t << "] element " << i;
}

inline bool same_bits(const double* a, const double* b, int n) {
  return n <= 0 || std::memcmp(a, b, sizeof(double) * static_cast<std::size_t>(n)) == 0;
}

}  // namespace dense_ref
