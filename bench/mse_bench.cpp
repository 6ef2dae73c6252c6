// Range search on one large activation: the mean-square-error observer (SIMD
// kernels, candidates shared over the OpenMP threads) against the plain scalar
// loop of the same arithmetic, and the coverage observer against the literal
// copy-and-partial-sort merge.
//
// The tensor is 1 x 64 x 256 x 256 = 4,194,304 floats, post-ReLU (about half
// exact zeros, which the search leaves out) or signed. Run with
// OMP_NUM_THREADS=2 for the figures of docs/performance.md.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "quantization/coverage_observer.h"
#include "quantization/functional_search.h"
#include "quantization/kernels/mse_kernels.h"
#include "quantization/mse_observer.h"
#include "quantization/utils.h"

namespace {

using qzdl::staticQuantization::CoverageObserver;
using qzdl::staticQuantization::MeanSquareErrorObserver;
using qzdl::staticQuantization::RoundClip;
namespace kernels = qzdl::staticQuantization::kernels;

constexpr size_t kElements = 64 * 256 * 256;
constexpr int kSteps = 500;

// A mostly Gaussian body with a few per cent of wide outliers.
std::vector<float> MakeActivation(bool relu) {
  std::mt19937 rng(relu ? 1235 : 1234);
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
  std::vector<float> out(kElements);
  for (float& x : out) {
    x = normal(rng) * (uniform(rng) < 0.02f ? 6.0f : 1.0f);
    if (relu) x = std::max(0.0f, x + 0.2f);
  }
  return out;
}

const std::vector<float>& Activation(bool relu) {
  static const std::vector<float> signed_data = MakeActivation(false);
  static const std::vector<float> relu_data = MakeActivation(true);
  return relu ? relu_data : signed_data;
}

// ---- mean-square error ----

// The search as a plain loop: one candidate after another, one element after
// another, in the same single-precision steps, fused where the search fuses.
// `parallel` shares the candidates over the OpenMP threads as the observer
// does; otherwise it runs on one thread.
void ScalarSearch(const std::vector<float>& data, bool symmetric, bool parallel, float& min,
                  float& max) {
  std::vector<float> nz;
  for (const float x : data) {
    if (std::isnan(x)) std::exit(-1);
    if (!(std::fabs(static_cast<double>(x)) < 1e-06)) nz.push_back(x);
  }
  const float vmin = *std::min_element(nz.begin(), nz.end());
  const float vmax = *std::max_element(nz.begin(), nz.end());
  const float max_scale = symmetric ? (2.0f * std::max(std::fabs(vmin), std::fabs(vmax))) / 255.0f
                                    : (vmax - vmin) / 255.0f;
  const float delta = max_scale / static_cast<float>(kSteps);
  double best_error = DBL_MAX;
  float best_scale = 0.0f;
  float best_zero = 0.0f;
  const unsigned long steps = kSteps;
#pragma omp parallel for schedule(dynamic, 1) if (parallel)
  for (unsigned long i = 0; i < steps; ++i) {
    const float scale = std::fma(-delta, static_cast<float>(i), max_scale);
    const float zero = symmetric ? 0.0f : -RoundClip<float>((vmin + vmax) / (scale + scale));
    double error = 0.0;
    for (const float x : nz) {
      float v = x / scale;
      v = v + zero;
      const float q = RoundClip<float>(v) - zero;
      const float d = std::fma(-scale, q, x);
      error = std::fma(static_cast<double>(d), static_cast<double>(d), error);
    }
#pragma omp critical
    {
      if (best_error >= error) {
        best_error = error;
        best_scale = scale;
        best_zero = zero;
      }
    }
  }
  const double lo = (-128.0 - best_zero) * best_scale;
  const double hi = (127.0 - best_zero) * best_scale;
  min = static_cast<float>(lo > vmin ? lo : vmin);
  max = static_cast<float>(hi < vmax ? hi : vmax);
}

void SetMseCounters(benchmark::State& state, const std::vector<float>& data) {
  size_t nz = 0;
  for (const float x : data) nz += !(std::fabs(static_cast<double>(x)) < 1e-06);
  state.counters["nonzero"] = static_cast<double>(nz);
  // Element-candidate evaluations per second.
  state.counters["evals"] = benchmark::Counter(static_cast<double>(nz) * kSteps,
                                               benchmark::Counter::kIsIterationInvariantRate);
}

// Observe + Extract of a fresh observer: the whole search on the first data.
void BM_MseObserver(benchmark::State& state) {
  const std::vector<float>& data = Activation(state.range(0) != 0);
  float min = 0.0f, max = 0.0f;
  for (auto _ : state) {
    MeanSquareErrorObserver observer(false);
    observer.Observe(data.data(), data.size());
    observer.Extract(min, max);
    benchmark::DoNotOptimize(min);
    benchmark::DoNotOptimize(max);
  }
  state.SetLabel(std::string(state.range(0) ? "relu" : "signed") + " kernel " +
                 kernels::BestSquaredErrorKernel().name);
  SetMseCounters(state, data);
}
BENCHMARK(BM_MseObserver)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// The search with each kernel this machine can run.
void BM_MseSearchKernel(benchmark::State& state) {
  int n = 0;
  const kernels::SquaredErrorKernel* table = kernels::AvailableSquaredErrorKernels(&n);
  if (state.range(1) >= n) {
    state.SkipWithError("kernel not available on this CPU");
    return;
  }
  const kernels::SquaredErrorKernel& kernel = table[state.range(1)];
  const std::vector<float>& data = Activation(state.range(0) != 0);
  float min = 0.0f, max = 0.0f;
  for (auto _ : state) {
    qzdl::staticQuantization::CalibrationWithMeanSquareError(kernel, data.data(), data.size(), min,
                                                             max, kSteps, false);
    benchmark::DoNotOptimize(min);
  }
  state.SetLabel(std::string(state.range(0) ? "relu" : "signed") + " kernel " + kernel.name);
  SetMseCounters(state, data);
}
BENCHMARK(BM_MseSearchKernel)
    ->ArgsProduct({{1}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The plain scalar loop on one thread, and shared over the threads.
void BM_MseScalarLoop(benchmark::State& state) {
  const std::vector<float>& data = Activation(state.range(0) != 0);
  const bool parallel = state.range(1) != 0;
  float min = 0.0f, max = 0.0f;
  for (auto _ : state) {
    ScalarSearch(data, false, parallel, min, max);
    benchmark::DoNotOptimize(min);
    benchmark::DoNotOptimize(max);
  }
  // The observer must find the same range, bit for bit.
  float omin, omax;
  MeanSquareErrorObserver observer(false);
  observer.Observe(data.data(), data.size());
  observer.Extract(omin, omax);
  if (omin != min || omax != max) state.SkipWithError("observer and scalar loop disagree");
  state.SetLabel(std::string(state.range(0) ? "relu" : "signed") +
                 (parallel ? " omp threads" : " one thread"));
  SetMseCounters(state, data);
}
BENCHMARK(BM_MseScalarLoop)
    ->ArgsProduct({{1, 0}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

// ---- coverage ----

void BM_CoverageObserver(benchmark::State& state) {
  const std::vector<float>& data = Activation(state.range(0) != 0);
  float min = 0.0f, max = 0.0f;
  for (auto _ : state) {
    CoverageObserver observer;
    observer.Observe(data.data(), data.size());
    observer.Extract(min, max);
    benchmark::DoNotOptimize(min);
    benchmark::DoNotOptimize(max);
  }
  state.SetLabel(state.range(0) ? "relu" : "signed");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.size()));
}
BENCHMARK(BM_CoverageObserver)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// The merge as literally stated: store followed by the data in a new list,
// partial sort, cut, copy back; once for each side.
void BM_CoverageCopyPartialSort(benchmark::State& state) {
  const std::vector<float>& data = Activation(state.range(0) != 0);
  unsigned long nth_min, nth_max, margin;
  qzdl::staticQuantization::ConfigureNth(data.size(), 0.9995f, nth_min, nth_max, margin);
  const size_t min_size = nth_min + margin, max_size = nth_max + margin;
  float min = 0.0f, max = 0.0f;
  for (auto _ : state) {
    std::vector<float> min_store(min_size, FLT_MAX), max_store(max_size, -FLT_MAX);
    std::vector<float> list(min_store);
    list.insert(list.end(), data.begin(), data.end());
    std::partial_sort(list.begin(), list.begin() + min_size, list.end());
    min = list[min_size - margin];
    std::copy(list.begin(), list.begin() + min_size, min_store.begin());
    list.assign(max_store.begin(), max_store.end());
    list.insert(list.end(), data.begin(), data.end());
    std::partial_sort(list.begin(), list.begin() + max_size, list.end(), std::greater<float>());
    max = list[max_size - margin];
    std::copy(list.begin(), list.begin() + max_size, max_store.begin());
    benchmark::DoNotOptimize(min);
    benchmark::DoNotOptimize(max);
  }
  CoverageObserver observer;
  observer.Observe(data.data(), data.size());
  if (observer.opt_min != min || observer.opt_max != max) {
    state.SkipWithError("observer and partial sort disagree");
  }
  state.SetLabel(state.range(0) ? "relu" : "signed");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(data.size()));
}
BENCHMARK(BM_CoverageCopyPartialSort)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
