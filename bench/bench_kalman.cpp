// One filter-and-smoother pass over one replicate: the heart of the E-step.
// Reports the time per time point and p * k multiply-adds per second.

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "kalman/Kalman.h"
#include "model/SSM.h"

namespace {

struct Problem {
  int p;
  int k;
  int T;
  std::unique_ptr<SSM> ssm;
  std::unique_ptr<SSMState> state;
  std::unique_ptr<SSMWork> work;
  std::vector<double> Y;
  std::vector<int> sample_at;
  std::vector<int> missing_block;
  std::vector<const int*> missing;
};

// A stable random model and T samples with 5% of the cells missing.
Problem make_problem(int p, int k, int T) {
  Problem pr{p, k, T, SSM_new(p, k), SSMState_new(k, T), SSMWork_new(p, k, T, 0), {}, {}, {}, {}};
  std::mt19937 gen(11);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> unif;
  SSM* m = pr.ssm.get();
  for (int j = 0; j < k; ++j) {
    m->exp[j] = 0.0;
    m->Q[j] = 1.0;
    for (int i = 0; i < k; ++i) {
      m->var[i + j * k] = i == j ? 1.0 : 0.0;
      m->F[i + j * k] = i == j ? 0.8 : 0.05 * normal(gen);
    }
  }
  for (int i = 0; i < p * k; ++i) m->H[i] = normal(gen);
  for (int i = 0; i < p; ++i) m->R[i] = 0.2 + unif(gen);
  pr.Y.resize(static_cast<std::size_t>(p) * T);
  std::vector<std::size_t> ends;
  for (int s = 0; s < T; ++s) {
    pr.sample_at.push_back(s);
    for (int i = 0; i < p; ++i) {
      if (unif(gen) < 0.05) {
        pr.missing_block.push_back(i);
      } else {
        pr.Y[i + static_cast<std::size_t>(s) * p] = normal(gen);
      }
    }
    pr.missing_block.push_back(-1);
    ends.push_back(pr.missing_block.size());
  }
  for (int s = 0; s < T; ++s) pr.missing.push_back(pr.missing_block.data() + (s ? ends[s - 1] : 0));
  return pr;
}

void BM_filter_smoother(benchmark::State& st) {
  const int p = static_cast<int>(st.range(0));
  const int k = static_cast<int>(st.range(1));
  const int T = 20;
  Problem pr = make_problem(p, k, T);
  for (auto _ : st) {
    const double llh = Kalman_filter(pr.ssm.get(), pr.state.get(), p, k, T, pr.Y.data(),
                                     pr.sample_at.data(), pr.missing.data(), pr.work.get());
    Kalman_smoother(pr.state.get(), k, T, pr.work->vec_k, pr.work->mat_k1, pr.work->mat_k2);
    benchmark::DoNotOptimize(llh);
  }
  const double points = static_cast<double>(st.iterations()) * T;
  st.counters["per_time_point"] =
      benchmark::Counter(points, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  st.counters["pk_madds_per_s"] =
      benchmark::Counter(points * p * k, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_filter_smoother)
    ->ArgsProduct({{100, 1000, 10000}, {2, 4, 8}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
