#pragma once
// Shared pieces of the EM tests: data sets as SSMData, one estimation's
// records, data drawn from a known model, and a capture of the log stream.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "core/data_set.h"
#include "core/dense_reference.h"
#include "core/em.h"
#include "io/log.h"
#include "text_stream.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

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
        work(SSMWork_new(p, k, 0, constrain_F)) {
    if (constrain_F != 0) SSM_EM_prepare_constraint(work.get(), k);
  }
  double estimate(const SSM* ssm, const SSMData& data, int k, double ridge = 0.0) {
    return SSM_EM_estimate(ssm, state.get(), each.get(), total.get(), &data, k, work.get(), ridge);
  }
  SSMResult run(const SSMEMParam& em, SSM* ssm, const SSMData& data, int k) {
    return SSM_EM_algo(&em, ssm, state.get(), each.get(), total.get(), &data, k, work.get());
  }
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
        d.Y[static_cast<std::size_t>(i + s * m.p)] =
            dense_ref::is_missing(d, s, i)
                ? 0.0
                : y(i, 0) + std::sqrt(m.R.a[static_cast<std::size_t>(i)]) * z(rng);
      }
    }
  }
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
    std::vector<std::string> out;
    std::istringstream in(tarn_test::text_of(fp_));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }

 private:
  std::FILE* fp_;
};

}  // namespace em_test
