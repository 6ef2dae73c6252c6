// Whole-net forward speed on the bench nets: ForwardAll at batch 1 and 8,
// reported in images per second of wall time.
//
//   OMP_NUM_THREADS=2 OPENBLAS_NUM_THREADS=2 ./forward_bench
//
// bench/run_forward_bench.sh runs it together with a PyTorch peer.
#include <benchmark/benchmark.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_models.h"

namespace {

using qzdl::bench::BenchModel;

void BM_Forward(benchmark::State& state, const std::string& model_name) {
  const int batch = static_cast<int>(state.range(0));
  const BenchModel model = qzdl::bench::MakeBenchModel(model_name);
  const std::vector<std::string> missing = model.MissingLayerTypes();
  if (!missing.empty()) {
    std::string list;
    for (const std::string& type : missing) list += (list.empty() ? "" : ", ") + type;
    state.SkipWithError(("layer types not registered: " + list).c_str());
    return;
  }
  std::unique_ptr<qzdl::Net<float>> net;
  try {
    net = qzdl::bench::CreateBenchNet(model, batch);
  } catch (const std::exception& e) {
    state.SkipWithError((std::string("net creation failed: ") + e.what()).c_str());
    return;
  }
  std::vector<float> input =
      qzdl::bench::BenchInput(static_cast<size_t>(model.InputCountPerItem()) * batch, 1);
  net->SetFloatInputData(input.data(), 0);
  net->ForwardAll();  // warm-up: first touch of every buffer
  for (auto _ : state) {
    net->ForwardAll();
    benchmark::DoNotOptimize(net->GetFloatOutputData(0));
    benchmark::ClobberMemory();
  }
  state.counters["img/s"] =
      benchmark::Counter(static_cast<double>(batch), benchmark::Counter::kIsIterationInvariantRate);
}

// Work is spread over OpenMP threads, so only wall time is meaningful.
BENCHMARK_CAPTURE(BM_Forward, resnet18, std::string("resnet18"))
    ->Arg(1)
    ->Arg(8)
    ->ArgName("batch")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Forward, mobilenetv2, std::string("mobilenetv2"))
    ->Arg(1)
    ->Arg(8)
    ->ArgName("batch")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
