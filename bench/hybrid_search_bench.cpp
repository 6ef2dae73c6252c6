// Time of the whole-net search (runtime/int8/hybrid_net.h) on the
// ResNet-18-shaped bench net: one timed run, not a repeated benchmark.
// The hybrid description takes the float net's own tensor ranges on the
// items, with one tensor's range 100 times too wide; every tensor gets two
// candidate ranges (its range narrowed to 0.8 and to 0.5, and the right one
// for the widened tensor). The target is chosen so that both stages run.
//
//   OMP_NUM_THREADS=2 ./hybrid_search_bench [items] [target] [bad tensor]
//
// At the end the written files are loaded back and their cosine is computed
// here, as a check of the cosine the search reports.
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_models.h"
#include "runtime/atomic_file.h"
#include "runtime/int8/hybrid_net.h"
#include "runtime/int8/quantized_model.h"

namespace {

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main(int argc, char** argv) {
  using namespace qzdl;
  const int items = argc > 1 ? std::atoi(argv[1]) : 4;
  const double target = argc > 2 ? std::atof(argv[2]) : 0.9995;
  const std::string bad = argc > 3 ? argv[3] : "layer2_0_conv1";
  const std::string dir = "/tmp/hybrid_search_bench_" + std::to_string(getpid());
  if (system(("mkdir -p " + dir).c_str()) != 0) return 1;

  const bench::BenchModel model = bench::MakeResNet18();
  const std::string json = dir + "/resnet18.json", weights = dir + "/resnet18.bin";
  WriteFileAtomically(json, model.JsonText());
  WriteFileAtomically(weights, model.WeightsBytes());
  std::unique_ptr<Net<float>> float_net = bench::CreateBenchNet(model, 1);
  const size_t per = size_t(model.InputCountPerItem());
  std::vector<std::vector<float>> inputs;
  for (int i = 0; i < items; ++i) inputs.push_back(bench::BenchInput(per, 100 + i));

  // Ranges over every writer of each tensor, on every item.
  std::map<std::string, std::pair<float, float>> ranges;
  auto see = [&](const Data<float>* t) {
    auto it = ranges.find(t->GetName());
    const float lo = t->GetMinValue(), hi = t->GetMaxValue();
    if (it == ranges.end()) {
      ranges[t->GetName()] = {lo, hi};
    } else {
      it->second = {std::min(it->second.first, lo), std::max(it->second.second, hi)};
    }
  };
  for (std::vector<float>& item : inputs) {
    float_net->SetFloatInputData(item.data(), 0);
    see(float_net->GetInputData(0));
    for (Layer<float>* layer : float_net->GetLayers()) {
      layer->Forward();
      for (Data<float>* out : layer->GetOutputs()) see(out);
    }
  }
  if (!ranges.count(bad)) {
    fprintf(stderr, "no tensor \"%s\"\n", bad.c_str());
    return 1;
  }
  INT8Config config;
  std::map<std::string, std::vector<std::pair<float, float>>> candidates;
  for (const auto& kv : ranges) {
    const float lo = kv.second.first, hi = kv.second.second;
    const float k = kv.first == bad ? 100.0f : 1.0f;
    config.addDataConfig(kv.first, lo * k, hi * k);
    candidates[kv.first] = {{lo * 0.8f, hi * 0.8f}, {lo * 0.5f, hi * 0.5f}};
    if (kv.first == bad) candidates[kv.first].push_back(kv.second);
  }
  {
    Net<unsigned char> net(model.net, "int8", nullptr);
    net.SetInt8Config(&config);
    net.LoadWeights(weights);
    net.Reshape(true, 0);
    net.SetHybridMode(true);
    net.SaveJson(dir + "/resnet18_hybrid.json");
    net.SaveWeights(dir + "/m.bin", false);
  }

  auto start = std::chrono::steady_clock::now();
  std::unique_ptr<HybridNet> hybrid(
      CreateHybridNet(dir + "/resnet18_hybrid.json", dir + "/m.bin", false, 0));
  const double load = Seconds(start);
  start = std::chrono::steady_clock::now();
  OptimizeInt8Net(hybrid.get(), float_net.get(), inputs, target, dir + "/out_hybrid.json",
                  dir + "/out.bin", &candidates);
  const double search = Seconds(start);
  printf("bench: %d items, load %.2f s, search %.1f s\n", items, load, search);

  // The written pair, run here on a batch of all items.
  std::unique_ptr<Net<unsigned char>> back(
      CreateQuantizedNet(dir + "/out_hybrid.json", dir + "/out.bin"));
  back->ReshapeBatchNum(items, 0);
  float_net->ReshapeBatchNum(items, 0);
  std::vector<float> all;
  for (const std::vector<float>& item : inputs) all.insert(all.end(), item.begin(), item.end());
  back->SetFloatInputData(all.data(), 0);
  back->ForwardAll();
  float_net->SetFloatInputData(all.data(), 0);
  float_net->ForwardAll();
  const std::vector<float> got = RealValues(*back, *back->GetOutputData(0));
  const float* want = float_net->GetFloatOutputData(0);
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < got.size(); ++i)
    ab += double(got[i]) * want[i], aa += double(got[i]) * got[i], bb += double(want[i]) * want[i];
  printf("bench: the written files give cosine %.6f\n", ab / std::sqrt(aa * bb));
  return system(("rm -rf " + dir).c_str()) == 0 ? 0 : 1;
}
