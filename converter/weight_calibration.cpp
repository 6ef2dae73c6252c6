// Per-channel ranges of the weights: one observer per channel and weight
// blob of the chosen layers, shown the weights once after the last round.
#include <cstdio>

#include "converter/converter.h"
#include "quantization/coverage_observer.h"
#include "quantization/entropy_observer.h"
#include "quantization/histogram_observer.h"
#include "quantization/mse_observer.h"
#include "quantization/observer.h"

namespace qzdl {
namespace modelConverter {

using namespace qzdl::staticQuantization;

namespace {

// The observer of one weight channel by the converter's mode, or null for a
// mode without one (the search modes).
Observer* MakeWeightObserver(int mode, const ConverterParam& param) {
  switch (mode) {
    case 0:
      return new PeakValueObserver();
    case 1:
      return new AverageObserver();
    case 2:
      return new EntropyObserver(8, 23205, 128);
    case 3: {
      // The ratio is taken as it is, without the setter's checks.
      return new CoverageObserver(param.coverage);
    }
    case 4:
      return new MeanSquareErrorObserver(false, 8, 500);
    case 5:
      return new HistogramObserver(2048, 256, 128);
    default:
      return nullptr;
  }
}

// Whether a layer of `type` gets weight observers at `level`. Level 1
// leaves "InnerProduct" out, whatever its message says.
bool ChosenForWeights(const std::string& type, int level) {
  if (type == "Convolution" || type == "Deconvolution") return level > 0;
  if (type == "InnerProduct") return level > 1;
  return false;
}

}  // namespace

void Converter::InitWeightObservers() {
  if (param.calibrate_weight == 0 || param.calibration_mode == 6 || param.calibration_mode == 7 ||
      param.weight_tuning)
    return;
  if (param.calibrate_weight == 1) printf("Enable calibration for FC`s weight and bias\n");
  if (param.calibrate_weight == 2)
    printf("Enable calibration for Convolution`s and FC`s weight and bias\n");
  for (Layer<float>* layer : float_net->GetLayers()) {
    if (!ChosenForWeights(layer->GetType(), param.calibrate_weight)) continue;
    const int channels = layer->GetChannelNum();
    const size_t blobs = layer->GetWeights().size();
    for (size_t b = 0; b < blobs; ++b) {
      auto* list = new PerChannelObserver();
      for (int c = 0; c < channels; ++c) {
        Observer* observer = MakeWeightObserver(param.calibration_mode, param);
        list->push_back(observer);
        if (observer != nullptr) {
          observer->name =
              layer->GetName() + "_weight" + std::to_string(b) + "_ch" + std::to_string(c);
        }
      }
      weight_observers[layer->GetName()].push_back(list);
    }
  }
}

void Converter::CalibrateWeight() {
  if (weight_observers.empty()) return;
  for (Layer<float>* layer : float_net->GetLayers()) {
    auto entry = weight_observers.find(layer->GetName());
    if (entry == weight_observers.end()) continue;
    const std::vector<Data<float>*>& weights = layer->GetWeights();
    for (size_t b = 0; b < entry->second.size(); ++b) {
      PerChannelObserver* list = entry->second[b];
      if (list == nullptr || b >= weights.size()) continue;
      const float* data = weights[b]->GetCpuData();
      const int64_t count = weights[b]->Count(0);
      const size_t channels = list->size();
      if (channels == 0) continue;
      const int64_t per = count / static_cast<int64_t>(channels);
      for (size_t c = 0; c < channels; ++c) {
        // A search mode leaves null observers; they see nothing.
        if ((*list)[c] != nullptr)
          (*list)[c]->Observe(data + c * per, static_cast<unsigned long>(per));
      }
    }
  }
}

}  // namespace modelConverter
}  // namespace qzdl
