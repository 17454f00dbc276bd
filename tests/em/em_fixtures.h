#pragma once
// Shared pieces of the EM tests: data sets as SSMData, one estimation's
// records, data drawn from a known model, a plain Gaussian elimination to
// check the M-step's solves against, and a capture of the log stream.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "data/SSMData.h"
#include "kalman/dense_reference.h"
#include "log.h"

namespace em_test {

using dense_ref::Mat;

// The data set in the reader's layout: blocks plus pointers into them.
inline std::unique_ptr<SSMData> to_data(const dense_ref::Data& d) {
  auto data = std::make_unique<SSMData>();
  data->Y = d.Y;
  data->n_samples = d.n_samples;
  data->p = d.p;
  data->T = d.T;
  data->n_replicates = static_cast<int>(d.sample_at.size());
  for (const auto& rep : d.sample_at)
    data->sample_at_block.insert(data->sample_at_block.end(), rep.begin(), rep.end());
  for (const auto& list : d.lists)
    data->missing_block.insert(data->missing_block.end(), list.begin(), list.end());
  for (std::size_t r = 0; r < d.sample_at.size(); ++r)
    data->sample_at.push_back(data->sample_at_block.data() + r * static_cast<std::size_t>(d.T));
  std::size_t at = 0;
  for (const auto& list : d.lists) {
    data->missing.push_back(data->missing_block.data() + at);
    at += list.size();
  }
  return data;
}

// The working records of one estimation.
struct Records {
  std::unique_ptr<SSMState> state;
  std::unique_ptr<SSMSuffStat> each, total;
  std::unique_ptr<SSMWork> work;
  Records(int p, int k, int T, int constrain_F)
      : state(SSMState_new(k, T)),
        each(SSMSuffStat_new(p, k)),
        total(SSMSuffStat_new(p, k)),
        work(SSMWork_new(p, k, 0, constrain_F)) {}
};

// Fills the observed cells of d (laid out by random_series) with a draw from
// the model, x(0) ~ N(exp, I); the missing cells keep 0.0.
inline void simulate_into(const dense_ref::Model& m, dense_ref::Data& d, std::mt19937_64& rng) {
  std::normal_distribution<double> z(0.0, 1.0);
  for (const auto& rep : d.sample_at) {
    Mat x = m.exp;
    for (double& v : x.a) v += z(rng);
    for (int s : rep) {
      x = dense_ref::mul(m.F, x);
      for (std::size_t j = 0; j < x.a.size(); ++j) x.a[j] += std::sqrt(m.Q.a[j]) * z(rng);
      const Mat y = dense_ref::mul(m.H, x);
      for (int i = 0; s >= 0 && i < m.p; ++i) {
        const auto& list = d.lists[static_cast<std::size_t>(s)];
        const bool missing = std::find(list.begin(), list.end(), i) != list.end();
        d.Y[static_cast<std::size_t>(i + s * m.p)] =
            missing ? 0.0 : y(i, 0) + std::sqrt(m.R.a[static_cast<std::size_t>(i)]) * z(rng);
      }
    }
  }
}

// X = A B^-1 by Gaussian elimination with partial pivoting on B' X' = A'.
inline Mat solve_right(const Mat& A, const Mat& B) {
  const int n = B.rows;
  Mat M = dense_ref::tr(B), X = dense_ref::tr(A);
  for (int c = 0; c < n; ++c) {
    int piv = c;
    for (int r = c + 1; r < n; ++r)
      if (std::fabs(M(r, c)) > std::fabs(M(piv, c))) piv = r;
    for (int j = 0; j < n; ++j) std::swap(M(c, j), M(piv, j));
    for (int j = 0; j < X.cols; ++j) std::swap(X(c, j), X(piv, j));
    for (int r = c + 1; r < n; ++r) {
      const double f = M(r, c) / M(c, c);
      for (int j = c; j < n; ++j) M(r, j) -= f * M(c, j);
      for (int j = 0; j < X.cols; ++j) X(r, j) -= f * X(c, j);
    }
  }
  for (int c = n - 1; c >= 0; --c)
    for (int j = 0; j < X.cols; ++j) {
      for (int l = c + 1; l < n; ++l) X(c, j) -= M(c, l) * X(l, j);
      X(c, j) /= M(c, c);
    }
  return dense_ref::tr(X);
}

// Points TARN_ERR at a temporary file for the object's lifetime.
class LogCapture {
 public:
  LogCapture() : fp_(std::tmpfile()) { TARN_ERR = fp_; }
  ~LogCapture() {
    TARN_ERR = stderr;
    std::fclose(fp_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> lines() const {
    std::rewind(fp_);
    std::string text, line;
    for (int c = std::fgetc(fp_); c != EOF; c = std::fgetc(fp_)) text += static_cast<char>(c);
    std::vector<std::string> out;
    for (std::istringstream in(text); std::getline(in, line);) out.push_back(line);
    return out;
  }

 private:
  std::FILE* fp_;
};

}  // namespace em_test
