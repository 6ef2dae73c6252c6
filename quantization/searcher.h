// Searchers: they refine the ranges that calibration produced, layer by
// layer, by running candidate ranges through the real nets and scoring them
// against the float activations of one forward pass (docs/quantization-search.md).
//
// Searchers are made once per conversion and live until the process ends;
// they hold the nets and the data loader without owning them, and change the
// nets' buffers in place, so nothing else may run on the nets meanwhile.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "runtime/layer.h"
#include "runtime/net.h"
#include "runtime/quant_config.h"

namespace dataLoader {
class DataLoader;
}

namespace qzdl {
namespace staticQuantization {

class Observer;

class Searcher {
 public:
  Searcher(Net<float>* float_net, Net<unsigned char>* int8_net,
           dataLoader::DataLoader* data_loader);

  // Installs the range of net input `input_name` from its observer and feeds
  // the input to the 8-bit net.
  virtual void SearchOneInput(const std::string& input_name, Observer* observer) = 0;
  // Chooses the ranges of one layer's tensors.
  virtual void SearchOneLayer(const std::string& layer_name,
                              std::map<std::string, Observer*> observers) = 0;

  // Placeholder ranges for every tensor, then one float forward pass over the
  // whole calibration set, whose tensors become the reference of the scores.
  void Init();
  // Drops what an 8-bit layer derived from the configuration, so that its
  // next forward derives it again from the current grids.
  static void ClearInt8Layer(Layer<unsigned char>* layer);
  std::map<std::string, std::vector<float>>& ExportCachedData() { return float_activations; }

  Net<float>* float_net;
  Net<unsigned char>* int8_net;
  INT8Config* int8_config;
  dataLoader::DataLoader* data_loader;
  std::map<std::string, std::vector<float>> float_activations;
  // Layer types whose outputs keep their inputs' value range: the cosine
  // search tries the inputs' ranges on their outputs too.
  std::vector<std::string> range_preserving_types;

 protected:
  // Searchers are never deleted through the base.
  ~Searcher() = default;
  // The shared steps of SearchOneInput; returns the range installed.
  std::pair<float, float> InstallInputRange(const std::string& input_name, Observer* observer);
};

// Chooses each output's range among its observer's candidates by the cosine
// distance at the net's outputs, with the rest of the float net run on the
// dequantized 8-bit result.
class CosineSearcher final : public Searcher {
 public:
  using Searcher::Searcher;
  void SearchOneInput(const std::string& input_name, Observer* observer) override;
  void SearchOneLayer(const std::string& layer_name,
                      std::map<std::string, Observer*> observers) override;
  // A grid of ranges around `scale` and `zero`: 25 step sizes, then four zero
  // points when `zero` is not 0. Appends to `out`.
  static void GenerateCandidates(std::vector<std::pair<float, float>>& out, float scale,
                                 unsigned char zero);
  // Sum over the net's outputs of 1 - cosine(cached float, current).
  double Score();
};

// Chooses each output's range from a ladder that shrinks its observer's range,
// by the cosine between the layer's own dequantized output and its float one.
class CosineSimSearcher final : public Searcher {
 public:
  using Searcher::Searcher;
  void SearchOneInput(const std::string& input_name, Observer* observer) override;
  void SearchOneLayer(const std::string& layer_name,
                      std::map<std::string, Observer*> observers) override;
};

// Factors on a layer's input and weight ranges, found by Nelder-Mead on the
// squared error at the net's outputs.
class AdaQuantSearcher final : public Searcher {
 public:
  using Searcher::Searcher;
  void SearchOneInput(const std::string& input_name, Observer* observer) override;
  void SearchOneLayer(const std::string& layer_name,
                      std::map<std::string, Observer*> observers) override;
};

// The same at the layer's own outputs, running this layer alone.
class AdaQuantSeqSearcher final : public Searcher {
 public:
  using Searcher::Searcher;
  void SearchOneInput(const std::string& input_name, Observer* observer) override;
  void SearchOneLayer(const std::string& layer_name,
                      std::map<std::string, Observer*> observers) override;
};

// Feeds every net input the whole calibration set and caches what the input
// then holds, by name.
void FeedAndCacheInputs(Net<float>* net, dataLoader::DataLoader* data_loader,
                        std::map<std::string, std::vector<float>>& cache);

// The data of adaquant_func.
struct AdaQuantContext {
  int layer_index = 0;
  Net<float>* net = nullptr;
  std::vector<float> input_min;
  std::vector<float> input_max;
  std::vector<float> weight_min;
  std::vector<float> weight_max;
  std::map<std::string, std::vector<float>>* activations = nullptr;
};

// The data of adaquantseq_func.
struct AdaQuantSeqContext {
  std::string layer_name;  // not read
  Layer<float>* layer = nullptr;
  std::vector<float> input_min;
  std::vector<float> input_max;
  std::vector<float> weight_min;
  std::vector<float> weight_max;
  std::map<std::string, std::vector<float>>* activations = nullptr;
  double best_error = 1.7976931348623157e308;
  std::vector<float*> best_outputs;
};

// NLopt objectives: the error of the factors `x` (n of them); `grad` unused.
double adaquant_func(unsigned int n, const double* x, double* grad, void* data);
double adaquantseq_func(unsigned int n, const double* x, double* grad, void* data);

// "[v0, v1, ...]" with each value as "%f".
template <typename T>
std::string list_string(const T* values, unsigned long count);
extern template std::string list_string<double>(const double* values, unsigned long count);

}  // namespace staticQuantization
}  // namespace qzdl
