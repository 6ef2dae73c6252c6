// 8-bit forward speed beside our float runtime, on the bench nets (ResNet-18
// and MobileNetV2 shapes, batch 1 and 8), and the cost of rebuilding the
// attribute tensors of every convolution after a configuration change (what
// a search pays per candidate). The 8-bit net shares a configuration made
// from the float net's own tensor ranges on the bench input.
//
//   OMP_NUM_THREADS=2 ./int8_forward_bench
//
// bench/run_int8_bench.sh runs it and prints the ratios with the CPU's
// instruction sets.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_models.h"
#include "runtime/int8/weighted_int8.h"

namespace {

using qzdl::bench::BenchModel;

struct Nets {
  std::unique_ptr<qzdl::Net<float>> float_net;
  std::unique_ptr<qzdl::Net<unsigned char>> int8_net;
  qzdl::INT8Config config;
  std::vector<float> input;
};

// The float net at `batch`, the ranges of every tensor on the bench input,
// and the 8-bit net on them.
std::unique_ptr<Nets> MakeNets(const std::string& name, int batch) {
  auto nets = std::make_unique<Nets>();
  const BenchModel model = qzdl::bench::MakeBenchModel(name);
  nets->float_net = qzdl::bench::CreateBenchNet(model, batch);
  nets->input = qzdl::bench::BenchInput(size_t(model.InputCountPerItem()) * batch, 1);
  qzdl::Net<float>& f = *nets->float_net;
  f.SetFloatInputData(nets->input.data(), 0);
  std::map<std::string, std::pair<float, float>> ranges;
  const qzdl::Data<float>* x = f.GetInputData(0);
  ranges[x->GetName()] = {x->GetMinValue(), x->GetMaxValue()};
  for (qzdl::Layer<float>* layer : f.GetLayers()) {
    layer->Forward();
    for (qzdl::Data<float>* out : layer->GetOutputs()) {
      auto& r = ranges.emplace(out->GetName(), std::make_pair(out->GetMinValue(), out->GetMaxValue()))
                    .first->second;
      r = {std::min(r.first, out->GetMinValue()), std::max(r.second, out->GetMaxValue())};
    }
  }
  for (const auto& kv : ranges) nets->config.addDataConfig(kv.first, kv.second.first, kv.second.second);
  nets->int8_net = std::make_unique<qzdl::Net<unsigned char>>(model.net, "int8", nullptr);
  nets->int8_net->SetInt8Config(&nets->config);
  const std::string weights = model.WeightsBytes();
  nets->int8_net->LoadWeights(const_cast<char*>(weights.data()), static_cast<int>(weights.size()));
  nets->int8_net->ReshapeBatchNum(batch, 0);
  nets->int8_net->SetFloatInputData(nets->input.data(), 0);
  nets->int8_net->ForwardAll();  // builds the attributes, touches every buffer
  return nets;
}

template <typename T>
void Forward(benchmark::State& state, qzdl::Net<T>* net, int batch) {
  for (auto _ : state) {
    net->ForwardAll();
    benchmark::DoNotOptimize(net->GetOutputData(0)->GetCpuData());
    benchmark::ClobberMemory();
  }
  state.counters["img/s"] =
      benchmark::Counter(double(batch), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Int8(benchmark::State& state, const std::string& name) {
  const int batch = static_cast<int>(state.range(0));
  auto nets = MakeNets(name, batch);
  Forward(state, nets->int8_net.get(), batch);
}

void BM_Float(benchmark::State& state, const std::string& name) {
  const int batch = static_cast<int>(state.range(0));
  const BenchModel model = qzdl::bench::MakeBenchModel(name);
  auto net = qzdl::bench::CreateBenchNet(model, batch);
  std::vector<float> input = qzdl::bench::BenchInput(size_t(model.InputCountPerItem()) * batch, 1);
  net->SetFloatInputData(input.data(), 0);
  net->ForwardAll();
  Forward(state, net.get(), batch);
}

// Clearing and rebuilding the attributes of every convolution of ResNet-18.
void BM_Int8ConvRebuild(benchmark::State& state) {
  auto nets = MakeNets("resnet18", 1);
  std::vector<qzdl::WeightedInt8Layer*> convs;
  for (qzdl::Layer<unsigned char>* layer : nets->int8_net->GetLayers())
    if (layer->GetType() == "Convolution") convs.push_back(dynamic_cast<qzdl::WeightedInt8Layer*>(layer));
  for (auto _ : state) {
    for (qzdl::WeightedInt8Layer* layer : convs) {
      layer->DeleteAttrDatas();
      layer->EnsurePrepared();
    }
  }
  state.counters["layers"] = double(convs.size());
}

#define QZDL_NET_BENCH(fn, name)                                              \
  BENCHMARK_CAPTURE(fn, name, std::string(#name))                             \
      ->Arg(1)                                                                \
      ->Arg(8)                                                                \
      ->ArgName("batch")                                                      \
      ->Unit(benchmark::kMillisecond)                                         \
      ->UseRealTime()

QZDL_NET_BENCH(BM_Float, resnet18);
QZDL_NET_BENCH(BM_Int8, resnet18);
QZDL_NET_BENCH(BM_Float, mobilenetv2);
QZDL_NET_BENCH(BM_Int8, mobilenetv2);
BENCHMARK(BM_Int8ConvRebuild)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
