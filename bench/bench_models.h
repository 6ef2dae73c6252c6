// Image-classification nets of realistic shape, built in memory for the
// benchmarks: a net description and random weights from a fixed seed.
//
// The weights are uniform with He-style scaling (variance 2 / fan-in), so
// activations stay finite through the whole net; they are not trained and the
// outputs carry no meaning. Batch norms are taken as folded into the
// convolutions before them, which therefore have a bias.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "runtime/json11.h"
#include "runtime/net.h"
#include "runtime/weights_file.h"

namespace qzdl::bench {

struct BenchModel {
  std::string name;
  json11::Json net;
  std::vector<WeightBlob> blobs;

  std::string JsonText() const { return net.dump(); }
  std::string WeightsBytes() const { return SerializeWeights(blobs); }
  // Layer types the net uses that the runtime does not know, sorted.
  std::vector<std::string> MissingLayerTypes() const;
  // Element count of the input for a batch of one.
  int64_t InputCountPerItem() const;
};

// A ResNet-18-shaped net on a 1x3x224x224 input "data", ending in a 1000-way
// Softmax "prob".
BenchModel MakeResNet18(uint32_t seed = 18);
// A MobileNetV2-shaped net (width 1.0) on a 1x3x224x224 input "data", ending
// in the 1000 logits "fc".
BenchModel MakeMobileNetV2(uint32_t seed = 2);

// The names MakeBenchModel accepts: "resnet18", "mobilenetv2".
std::vector<std::string> BenchModelNames();
// Throws std::invalid_argument for an unknown name.
BenchModel MakeBenchModel(const std::string& name);

// Creates the net through CreateNetFromContent (not frugal, no optimize) and
// reshapes it to `batch`.
std::unique_ptr<Net<float>> CreateBenchNet(const BenchModel& model, int batch);

// Deterministic values in [-1, 1): the same on every platform and compiler.
std::vector<float> BenchInput(size_t n, uint32_t seed);

}  // namespace qzdl::bench
