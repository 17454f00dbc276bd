// One EM pass (E-step and M-step) for k = 4, T = 20, 3 replicates, and parts
// of it: the filter in its direct form, the smoother, the M-step.
// BM_em_pass_T60 is the pass in the shape of the speed targets: T = 60, one
// replicate, with its time as a multiple of the two products with the data
// that bound a pass from below (counter x_products); BM_two_products_T60
// times those alone; BM_em_pass_batch_T60 is one pass of 8 starts side by
// side (counter starts).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>

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
        em_data(*data),
        ssm(tarn_bench::make_model(p, kK)),
        buffers(p, kK, T, true),
        products(p, em_data.columns(), kK, 1) {
    prepare_F_constraint(&buffers.workspace, kK);
  }
  // The filter in the direct form, as the result files take it.
  void filter(int r) {
    run_filter(*ssm, replicate_view(*data, r), &buffers.trajectory, &buffers.workspace);
  }
  void smoother() { run_smoother(&buffers.trajectory, &buffers.workspace); }
  void e_step() { tarn::e_step(*ssm, em_data, &buffers, &products); }
  void m_step() { tarn::m_step(em, *data, buffers.total_sums, ssm.get(), &buffers.workspace); }

  std::unique_ptr<DataSet> data;
  EmData em_data;
  std::unique_ptr<StateSpaceModel> ssm;
  EmBuffers buffers;
  BatchProducts products;
  EmSettings em;
};

void run_em_pass(benchmark::State& st, EmFixture& f) {
  const auto start = tarn_bench::make_model(f.data->p, kK);
  for (auto _ : st) {
    st.PauseTiming();
    copy_model(*start, f.ssm.get());
    st.ResumeTiming();
    const double llh = e_step(*f.ssm, f.em_data, &f.buffers, &f.products);
    f.m_step();
    benchmark::DoNotOptimize(llh);
  }
}

void BM_em_pass(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)));
  run_em_pass(st, f);
}

// The O(p k) floor of a pass: H' R^-1 Y (k x samples) and Y X' (p x k), as
// two calls of dgemm on the data matrix.
struct TwoProducts {
  explicit TwoProducts(const DataSet& data)
      : p(data.p), n(data.n_samples), Y(data.Y), RinvH(p, kK), X(kK, n), HtY(kK, n), YX(p, kK) {
    const auto model = tarn_bench::make_model(p, kK);
    for (int j = 0; j < kK; ++j)
      for (int i = 0; i < p; ++i) RinvH(i, j) = model->H(i, j) / model->R[i];
    for (int t = 0; t < n; ++t)
      for (int j = 0; j < kK; ++j) X(j, t) = 0.01 * (j + 1) * t;
  }
  void run() {
    dgemm_("T", "N", &kK, &n, &p, &blas::kOne, RinvH.data(), &p, Y.data(), &p, &blas::kZero,
           HtY.data(), &kK);
    dgemm_("N", "T", &p, &kK, &n, &blas::kOne, Y.data(), &p, X.data(), &kK, &blas::kZero, YX.data(),
           &p);
  }
  // The best time of one run() in seconds, over enough runs to take 20 ms.
  double best_seconds() {
    double best = 1e300;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    do {
      const auto start = std::chrono::steady_clock::now();
      run();
      best = std::min(
          best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    } while (std::chrono::steady_clock::now() < until);
    return best;
  }
  int p;
  int n;
  std::vector<double> Y;
  Matrix RinvH, X, HtY, YX;
};

void BM_em_pass_T60(benchmark::State& st) {
  EmFixture f(static_cast<int>(st.range(0)), 60, 1);
  const double products = TwoProducts(*f.data).best_seconds();
  run_em_pass(st, f);
  // Elapsed time over (iterations x products): the pass as a multiple of them.
  st.counters["x_products"] =
      benchmark::Counter(products * static_cast<double>(st.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// One pass of kBatch starts side by side at T = 60: the E-step of all of
// them, then each start's M-step. Counter starts: the batch size.
constexpr int kBatch = 8;

void BM_em_pass_batch_T60(benchmark::State& st) {
  const int p = static_cast<int>(st.range(0));
  const auto data = tarn_bench::make_data(p, 60, 1);
  const EmData em_data(*data);
  const auto start = tarn_bench::make_model(p, kK);
  std::vector<std::unique_ptr<StateSpaceModel>> models;
  std::vector<std::unique_ptr<EmBuffers>> buffers;
  std::vector<const StateSpaceModel*> model_view;
  std::vector<EmBuffers*> buffer_view;
  for (int b = 0; b < kBatch; ++b) {
    models.push_back(tarn_bench::make_model(p, kK, 11 + b));
    buffers.push_back(std::make_unique<EmBuffers>(p, kK, 60, true));
    prepare_F_constraint(&buffers.back()->workspace, kK);
    model_view.push_back(models.back().get());
    buffer_view.push_back(buffers.back().get());
  }
  BatchProducts products(p, em_data.columns(), kK, kBatch);
  std::vector<double> llh(kBatch);
  const EmSettings em;
  for (auto _ : st) {
    st.PauseTiming();
    for (int b = 0; b < kBatch; ++b) copy_model(*start, models[static_cast<std::size_t>(b)].get());
    st.ResumeTiming();
    e_step_batch(model_view, em_data, buffer_view, &products, llh);
    for (int b = 0; b < kBatch; ++b) {
      const std::size_t i = static_cast<std::size_t>(b);
      m_step(em, *data, buffers[i]->total_sums, models[i].get(), &buffers[i]->workspace);
    }
    benchmark::DoNotOptimize(llh.data());
  }
  st.counters["starts"] = kBatch;
}

void BM_two_products_T60(benchmark::State& st) {
  const auto data = tarn_bench::make_data(static_cast<int>(st.range(0)), 60, 1);
  TwoProducts products(*data);
  for (auto _ : st) {
    products.run();
    benchmark::DoNotOptimize(products.YX.data());
  }
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
BENCHMARK(BM_em_pass_batch_T60)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_two_products_T60)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_filter)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_smoother)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_em_m_step)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
