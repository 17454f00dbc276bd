// One EM pass (E-step and M-step) for k = 4, T = 20, 3 replicates, and where
// its time goes: filter, smoother, the E-step sums, the M-step. BM_em_pass_T60
// is the pass in the shape of the speed targets: T = 60, one replicate.

#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "core/em.h"
#include "core/kalman.h"
#include "linalg/blas.h"
#include "linalg/matrix.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

constexpr int kK = 4;
constexpr int kT = 20;
constexpr int kReplicates = 3;

struct EmFixture {
  explicit EmFixture(int p, int T = kT, int replicates = kReplicates)
      : data(tarn_bench::make_data(p, T, replicates)),
        ssm(tarn_bench::make_model(p, kK)),
        state(SSMState_new(kK, T)),
        each(SSMSuffStat_new(p, kK)),
        total(SSMSuffStat_new(p, kK)),
        work(SSMWork_new(p, kK, data->n_samples, 1)) {
    SSM_EM_prepare_constraint(work.get(), kK);
  }
  void filter(int r) {
    Kalman_filter(ssm.get(), state.get(), data->p, kK, kT, data->Y.data(), data->sample_at[r],
                  data->missing.data(), work.get());
  }
  void smoother() { Kalman_smoother(state.get(), kK, kT, work->vec_k, work->mat_k1, work->mat_k2); }
  void sums(int r) {
    const int k = kK;
    for (int t = 0; t < kT; ++t) {
      dgemm_("N", "N", &k, &k, &k, &Matrix_DOUBLE_ONE, state->J[t], &k, state->Vs[t + 1], &k,
             &Matrix_DOUBLE_ZERO, state->Vlag[t], &k);
    }
    SSMSuffStat_calc(each.get(), state.get(), ssm.get(), data->p, kK, kT, data->sample_at[r],
                     data->Y.data(), data->missing.data(), work->vec_p, work->mat_pk, work->mat_k3,
                     work->vec_k);
  }

  std::unique_ptr<SSMData> data;
  std::unique_ptr<SSM> ssm;
  std::unique_ptr<SSMState> state;
  std::unique_ptr<SSMSuffStat> each;
  std::unique_ptr<SSMSuffStat> total;
  std::unique_ptr<SSMWork> work;
  SSMEMParam em;
};

void run_em_pass(benchmark::State& st, EmFixture& f) {
  const auto start = tarn_bench::make_model(f.data->p, kK);
  for (auto _ : st) {
    st.PauseTiming();
    SSM_copy(f.ssm.get(), start.get(), f.data->p, kK);
    st.ResumeTiming();
    const double llh = SSM_EM_estimate(f.ssm.get(), f.state.get(), f.each.get(), f.total.get(),
                                       f.data.get(), kK, f.work.get(), 0.0);
    SSM_EM_m_step(&f.em, f.ssm.get(), f.total.get(), f.data.get(), kK, f.work.get());
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
  SSM_EM_estimate(f.ssm.get(), f.state.get(), f.each.get(), f.total.get(), f.data.get(), kK,
                  f.work.get(), 0.0);
  const auto start = tarn_bench::make_model(f.data->p, kK);
  for (auto _ : st) {
    SSM_EM_m_step(&f.em, f.ssm.get(), f.total.get(), f.data.get(), kK, f.work.get());
    st.PauseTiming();
    SSM_copy(f.ssm.get(), start.get(), f.data->p, kK);
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
