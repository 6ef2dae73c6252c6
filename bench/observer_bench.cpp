// Speed of the range observers on one activation-sized tensor
// ([1, 64, 256, 256], 4 Mi floats): Observe + Extract of a fresh observer,
// on a post-ReLU tensor and on a signed one.
//
//   observer_bench [benchmark flags]
//   observer_bench --write_data=DIR   writes DIR/relu.f32 and DIR/signed.f32
//                                     (raw little-endian float32) and exits,
//                                     for the PyTorch side of
//                                     run_observer_bench.sh.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "quantization/observer.h"

namespace {

using namespace qzdl::staticQuantization;

constexpr int kChannels = 64;
constexpr int kPlane = 256 * 256;
constexpr size_t kCount = static_cast<size_t>(kChannels) * kPlane;

// Channels with different spreads and offsets, as a convolution output has.
std::vector<float> MakeActivation(bool relu) {
  std::vector<float> data(kCount);
  std::mt19937 rng(relu ? 1234 : 5678);
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::student_t_distribution<float> heavy(3.0f);
  for (int c = 0; c < kChannels; ++c) {
    const float spread = 0.3f + 0.05f * static_cast<float>(c % 23);
    const float offset = 0.1f * static_cast<float>(c % 7) - 0.3f;
    float* plane = data.data() + static_cast<size_t>(c) * kPlane;
    for (int i = 0; i < kPlane; ++i) {
      if (relu) {
        plane[i] = std::max(0.0f, normal(rng) * spread + offset);
      } else {
        plane[i] = heavy(rng) * spread + offset;
      }
    }
  }
  return data;
}

const std::vector<float>& Data(int kind) {
  static const std::vector<float> relu = MakeActivation(true);
  static const std::vector<float> signed_data = MakeActivation(false);
  return kind == 0 ? relu : signed_data;
}

// The histogram observer prints a line at every Extract; keep it off the
// report while timing.
class QuietStdout {
 public:
  QuietStdout() {
    std::fflush(stdout);
    saved_ = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~QuietStdout() {
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }

 private:
  int saved_;
};

template <typename ObserverType>
void BM_ObserveExtract(benchmark::State& state) {
  const std::vector<float>& data = Data(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    ObserverType observer;
    observer.Observe(data.data(), data.size());
    float min, max;
    observer.Extract(min, max);
    benchmark::DoNotOptimize(min);
    benchmark::DoNotOptimize(max);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kCount);
}

void BM_HistogramObserve(benchmark::State& state) {
  const std::vector<float>& data = Data(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    HistogramObserver observer;
    observer.Observe(data.data(), data.size());
    benchmark::DoNotOptimize(observer.histogram.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kCount);
}

void BM_HistogramExtract(benchmark::State& state) {
  const std::vector<float>& data = Data(static_cast<int>(state.range(0)));
  HistogramObserver observed;
  observed.Observe(data.data(), data.size());
  QuietStdout quiet;
  for (auto _ : state) {
    HistogramObserver observer = observed;
    float min, max;
    observer.Extract(min, max);
    benchmark::DoNotOptimize(min);
  }
}

// Frugal mode: 16 batches of 256 Ki elements each, with merges.
template <typename ObserverType>
void BM_ObserveFrugal(benchmark::State& state) {
  const std::vector<float>& data = Data(static_cast<int>(state.range(0)));
  const size_t part = kCount / 16;
  QuietStdout quiet;
  for (auto _ : state) {
    ObserverType observer;
    for (size_t i = 0; i < kCount; i += part) observer.Observe(data.data() + i, part);
    float min, max;
    observer.Extract(min, max);
    benchmark::DoNotOptimize(min);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kCount);
}

void DataArgs(benchmark::internal::Benchmark* b) {
  b->ArgName("signed")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
}

BENCHMARK_TEMPLATE(BM_ObserveExtract, PeakValueObserver)->Apply(DataArgs);
BENCHMARK_TEMPLATE(BM_ObserveExtract, AverageObserver)->Apply(DataArgs);
BENCHMARK_TEMPLATE(BM_ObserveExtract, EntropyObserver)->Apply(DataArgs);
BENCHMARK_TEMPLATE(BM_ObserveExtract, HistogramObserver)->Apply(DataArgs);
BENCHMARK(BM_HistogramObserve)->Apply(DataArgs);
BENCHMARK(BM_HistogramExtract)->Apply(DataArgs);
BENCHMARK_TEMPLATE(BM_ObserveFrugal, EntropyObserver)->Apply(DataArgs);
BENCHMARK_TEMPLATE(BM_ObserveFrugal, HistogramObserver)->Apply(DataArgs);

int WriteData(const std::string& dir) {
  for (int kind = 0; kind < 2; ++kind) {
    const std::string path = dir + (kind == 0 ? "/relu.f32" : "/signed.f32");
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
      std::fprintf(stderr, "cannot write %s\n", path.c_str());
      return 1;
    }
    const std::vector<float>& data = Data(kind);
    const size_t written = std::fwrite(data.data(), sizeof(float), data.size(), f);
    std::fclose(f);
    if (written != data.size()) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* flag = "--write_data=";
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], flag, std::strlen(flag)) == 0) {
      return WriteData(argv[i] + std::strlen(flag));
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
