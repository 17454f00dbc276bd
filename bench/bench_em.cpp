// One EM pass (E-step and M-step) for k = 4, T = 20, 3 replicates, and where
// its time goes: filter, smoother, the E-step sums, the M-step. BM_em_pass_T60
// is the pass in the shape of the speed targets: T = 60, one replicate.

#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "core/em.h"
#include "core/kalman.h"
#include "linalg/blas.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

constexpr int kK = 4;
constexpr int kT = 20;
constexpr int kReplicates = 3;

struct EmFixture {
  explicit EmFixture(int p, int T = kT, int replicates = kReplicates)
      : data(tarn_bench::make_data(p, T, replicates)),
        ssm(tarn_bench::make_model(p, kK)),
        buffers(p, kK, T, true) {
    prepare_F_constraint(&buffers.workspace, kK);
  }
  void filter(int r) {
    run_filter(*ssm, replicate_view(*data, r), &buffers.trajectory, &buffers.workspace);
  }
  void smoother() { run_smoother(&buffers.trajectory, &buffers.workspace); }
  void sums(int r) {
    const int k = kK;
    Trajectory& s = buffers.trajectory;
    for (int t = 0; t < kT; ++t) {
      dgemm_("N", "N", &k, &k, &k, &blas::kOne, s.smoother_gain[t], &k, s.smoothed_cov[t + 1], &k,
             &blas::kZero, s.lag_cov[t], &k);
    }
    sum_replicate(*ssm, replicate_view(*data, r), s, &buffers.replicate_sums, &buffers.workspace);
  }
  void e_step() { tarn::e_step(*ssm, *data, &buffers); }
  void m_step() { tarn::m_step(em, *data, buffers.total_sums, ssm.get(), &buffers.workspace); }

  std::unique_ptr<DataSet> data;
  std::unique_ptr<StateSpaceModel> ssm;
  EmBuffers buffers;
  EmSettings em;
};

void run_em_pass(benchmark::State& st, EmFixture& f) {
  const auto start = tarn_bench::make_model(f.data->p, kK);
  for (auto _ : st) {
    st.PauseTiming();
    copy_model(*start, f.ssm.get());
    st.ResumeTiming();
    const double llh = e_step(*f.ssm, *f.data, &f.buffers);
    f.m_step();
    benchmark::DoNotOptimize(llh);
  }
}

void BM_em_pass(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)));
  run_em_pass(st, f);
}

void BM_em_pass_T60(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)), 60, 1);
  run_em_pass(st, f);
}

void BM_em_filter(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)));
  for (auto _ : st) {
    for (int r = 0; r < kReplicates; ++r) f.filter(r);
  }
}

void BM_em_smoother(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)));
  f.filter(0);
  for (auto _ : st) {
    for (int r = 0; r < kReplicates; ++r) f.smoother();
  }
}

void BM_em_sums(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)));
  f.filter(0);
  f.smoother();
  for (auto _ : st) {
    for (int r = 0; r < kReplicates; ++r) f.sums(r);
  }
}

void BM_em_m_step(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)));
  f.e_step();
  const auto start = tarn_bench::make_model(f.data->p, kK);
  for (auto _ : st) {
    f.m_step();
    st.PauseTiming();
    copy_model(*start, f.ssm.get());
    st.ResumeTiming();
  }
}

BENCHMARK(BM_em_pass)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_pass_T60)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_filter)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_smoother)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_sums)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_m_step)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
