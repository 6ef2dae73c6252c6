// Bias correction of convolutions: per output channel, the constant that,
// added to the channel's quantized outputs, brings them closest to the float
// activations, found by Sbplx (NLopt) and added to the channel's bias.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "runtime/net.h"

namespace dataLoader {
class DataLoader;
}

namespace qzdl {
namespace staticQuantization {

class Observer;

// The data of biastuning_func. The output is laid out batch, channel, then
// spatial positions.
struct BiasTuningContext {
  std::vector<int> dims;
  int channel = 0;
  float* reference = nullptr;
  float* output = nullptr;
};

// The error of adding delta = x[0] to one channel of the output: the sum over
// the batch of the mean squared error per batch element. The buffer is
// restored by subtraction. `grad` is unused.
double biastuning_func(unsigned int n, const double* x, double* grad, void* data);

class WeightsTuner {
 public:
  WeightsTuner(Net<float>* net, dataLoader::DataLoader* data_loader)
      : net(net), data_loader(data_loader) {}

  // One layer-by-layer float pass over the calibration set; each tensor is
  // cached right after its own layer has run.
  void Init();
  void ImportCachedData(std::map<std::string, std::vector<float>>& cache) {
    float_activations = cache;
  }
  // 0, then pairs center + i * step and center - i * step for i below count / 2.
  static std::vector<float> GenerateCandidate(float step, int count, float center);
  // Corrects the bias of a "Convolution" layer; other layers are left alone.
  void SearchOneLayer(const std::string& layer_name, std::map<std::string, Observer*> observers);

  Net<float>* net;
  dataLoader::DataLoader* data_loader;
  std::map<std::string, std::vector<float>> float_activations;
};

}  // namespace staticQuantization
}  // namespace qzdl
