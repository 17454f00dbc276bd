// Reading and centring the input table: the one-off cost before estimation.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <utility>

#include "core/data_set.h"
#include "io/log.h"
#include "io/read_table.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

// Writes a table of p objects x (T * reps) samples with 5% missing cells.
std::string make_table(int p, int T, int reps) {
  const std::string path = "/tmp/tarn_bench_table_" + std::to_string(p) + ".txt";
  std::FILE* fp = std::fopen(path.c_str(), "w");
  std::mt19937 gen(7);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> unif;
  std::fputs("@time", fp);
  for (int r = 0; r < reps; ++r)
    for (int t = 1; t <= T; ++t) std::fprintf(fp, "\t%d", t);
  std::fputs("\n@replicate", fp);
  for (int r = 0; r < reps; ++r)
    for (int t = 1; t <= T; ++t) std::fprintf(fp, "\t%d", r + 1);
  std::fputc('\n', fp);
  for (int i = 0; i < p; ++i) {
    std::fprintf(fp, "obj%d", i);
    for (int s = 0; s < T * reps; ++s) {
      if (unif(gen) < 0.05) {
        std::fputs("\tNaN", fp);
      } else {
        std::fprintf(fp, "\t%.6f", normal(gen));
      }
    }
    std::fputc('\n', fp);
  }
  std::fclose(fp);
  return path;
}

void BM_read_file(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  const std::string path = make_table(p, 12, 3);
  std::FILE* log = std::fopen("/dev/null", "w");
  for (auto _ : state) {
    auto data = std::move(read_table_file(path.c_str(), log).value());
    benchmark::DoNotOptimize(data->Y.data());
  }
  state.SetItemsProcessed(state.iterations() * p * 36);
  std::fclose(log);
  std::remove(path.c_str());
}
BENCHMARK(BM_read_file)->Arg(1000)->Arg(20000)->Unit(benchmark::kMillisecond);

void BM_mean_shift(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  const std::string path = make_table(p, 12, 3);
  std::FILE* log = std::fopen("/dev/null", "w");
  auto data = std::move(read_table_file(path.c_str(), log).value());
  for (auto _ : state) {
    shift_means(data.get(), 1);
    benchmark::DoNotOptimize(data->Y.data());
  }
  state.SetItemsProcessed(state.iterations() * p * 36);
  std::fclose(log);
  std::remove(path.c_str());
}
BENCHMARK(BM_mean_shift)->Arg(1000)->Arg(20000)->Unit(benchmark::kMicrosecond);

}  // namespace
