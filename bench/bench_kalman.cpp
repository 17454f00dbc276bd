// One filter-and-smoother pass over one replicate: the heart of the E-step.
// Reports the time per time point and p * k multiply-adds per second.

#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "core/kalman.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

void BM_filter_smoother(benchmark::State& st) {
  const int p = static_cast<int>(st.range(0));
  const int k = static_cast<int>(st.range(1));
  const int T = 20;
  const auto data = tarn_bench::make_data(p, T, 1);
  const auto ssm = tarn_bench::make_model(p, k);
  Trajectory trajectory(k, T);
  Workspace work(p, k, false);
  const ReplicateView series = replicate_view(*data, 0);
  for (auto _ : st) {
    const double llh = run_filter(*ssm, series, &trajectory, &work);
    run_smoother(&trajectory, &work);
    benchmark::DoNotOptimize(llh);
  }
  const double points = static_cast<double>(st.iterations()) * T;
  st.counters["per_time_point"] =
      benchmark::Counter(points, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  st.counters["pk_madds_per_s"] = benchmark::Counter(points * p * k, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_filter_smoother)
    ->ArgsProduct({{100, 1000, 10000}, {2, 4, 8}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
