// The end of calibration: the observers' ranges become the net's
// configuration, layers whose output range is known by nature get it, and
// ranges are tied across layers that must share them.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <set>

#include "converter/converter.h"
#include "quantization/observer.h"
#include "runtime/layers/activation.h"
#include "runtime/layers/detection.h"

namespace qzdl {
namespace modelConverter {

using namespace qzdl::staticQuantization;
using mergeConfig::graph_node;
using mergeConfig::MergeConfigIndicator;

namespace {

// The minimum of the smooth swish x * sigmoid(x), as a float (0xBE8E92F7).
float SmoothSwishMinimum() {
  const uint32_t bits = 0xBE8E92F7u;
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

bool IsPreset(const std::map<std::string, Observer*>& observers, const std::string& name) {
  auto it = observers.find(name);
  return it != observers.end() && it->second != nullptr && it->second->GetObserverType() == Preset;
}

}  // namespace

void Converter::FinishCalibration() {
  for (Layer<float>* layer : float_net->GetLayers()) {
    if (layer->GetType() == "Convolution" && !param.radical && !layer->GetOutputs().empty()) {
      Observer* observer = observers[layer->GetOutputs()[0]->GetName()];
      if (observer != nullptr) observer->OverloadProtection();
    }
  }
  for (auto& entry : observers) {
    if (entry.second != nullptr) entry.second->Restrain();
  }
  float_net->SetInt8Config(DumpQuantizationConfig());
  INT8Config* config = float_net->GetInt8Config();

  for (Layer<float>* layer : float_net->GetLayers()) {
    if (layer->GetOutputs().empty()) continue;
    QuantizationConfig* out = config->GetDataConfig(layer->GetOutputs()[0]->GetName());
    const std::string type = layer->GetType();
    if (type == "Softmax" || type == "Sigmoid") {
      out->update(0.0f, 1.0f);
    } else if (type == "TanH" || type == "L2Normalize") {
      out->update(-1.0f, 1.0f);
    } else if (type == "Elu") {
      out->update(-1.0f, out->getMax());
    } else if (type == "ReLUX") {
      out->update(0.0f, static_cast<ReluXLayer<float>*>(layer)->getThreshold());
    } else if (type == "DetectionOutput") {
      const int classes = static_cast<DetectionOutputLayer<float>*>(layer)->GetNumClasses();
      out->update(0.0f, static_cast<float>(classes - 1));
    } else if (type == "Swish") {
      const bool hard = static_cast<SwishLayer<float>*>(layer)->Hard();
      out->update(hard ? -0.375f : SmoothSwishMinimum(), out->getMax());
    } else if (type == "BroadcastOp" && layer->GetTypeDetail() == "BroadcastOp(equal)") {
      out->update(0.0f, 1.0f);
    }
  }
  MergeInt8Config();
}

void Converter::MergeInt8Config() {
  MergeConfigIndicator indicator;
  if (param.quant_calibrate) {
    indicator.merge.erase("Concat");
    indicator.independent.insert("Concat");
  }
  if (param.same_config) {
    indicator.independent.erase("Eltwise");
    indicator.merge.insert("Eltwise");
  }

  // The graph: producers nearest first, readers in layer order. A "Reshape"
  // is tied through its first input only (a second one is a shape).
  std::vector<Layer<float>*>& layers = float_net->GetLayers();
  const int count = static_cast<int>(layers.size());
  auto feeds = [](Layer<float>* producer, Layer<float>* reader, std::vector<std::string>& list,
                  const std::string& name) {
    const std::vector<Data<float>*>& ins = reader->GetInputs();
    for (Data<float>* out : producer->GetOutputs()) {
      if (reader->GetType() == "Reshape") {
        if (!ins.empty() && ins[0]->GetName() == out->GetName()) list.push_back(name);
        continue;
      }
      for (Data<float>* in : ins)
        if (in->GetName() == out->GetName()) list.push_back(name);
    }
  };
  for (int i = 0; i < count; ++i) {
    graph_node node;
    node.index = i;
    node.type = layers[i]->GetType();
    for (int j = i - 1; j >= 0; --j) feeds(layers[j], layers[i], node.inputs, layers[j]->GetName());
    for (int j = i + 1; j < count; ++j)
      feeds(layers[i], layers[j], node.outputs, layers[j]->GetName());
    merge_graph[layers[i]->GetName()] = node;
  }

  INT8Config* config = float_net->GetInt8Config();
  for (Layer<float>* layer : layers) {
    bool preset = false;
    for (Data<float>* out : layer->GetOutputs()) preset |= IsPreset(observers, out->GetName());
    if (!preset && (indicator.merge.empty() || indicator.merge.count(layer->GetType()) == 0))
      continue;
    std::set<int> region;
    mergeConfig::FindAllShareConfigLayer(&indicator, merge_graph, layer->GetName(), region);
    std::set<std::string> names;
    for (int index : region) {
      Layer<float>* member = layers[index];
      if (member->GetType() == "Reshape") {
        if (!member->GetInputs().empty()) names.insert(member->GetInputs()[0]->GetName());
        if (!member->GetOutputs().empty()) names.insert(member->GetOutputs()[0]->GetName());
        continue;
      }
      for (Data<float>* t : member->GetInputs()) names.insert(t->GetName());
      for (Data<float>* t : member->GetOutputs()) names.insert(t->GetName());
    }
    float min = std::numeric_limits<float>::infinity();
    float max = -std::numeric_limits<float>::infinity();
    for (const std::string& name : names) {
      if (name.empty()) continue;
      const QuantizationConfig* record = config->GetDataConfig(name);
      if (IsPreset(observers, name)) {
        // The first preset tensor in name order decides the range alone.
        min = record->getMin();
        max = record->getMax();
        break;
      }
      min = std::min(min, record->getMin());
      max = std::max(max, record->getMax());
    }
    for (const std::string& name : names) {
      if (name.empty()) continue;
      QuantizationConfig* record = config->GetDataConfig(name);
      if (preset) {
        record->update(min, max);
      } else {
        record->update(min);
        record->update(max);
      }
    }
  }

  for (Layer<float>* layer : layers) {
    if (indicator.follow.count(layer->GetType()) == 0 || layer->GetInputs().empty()) continue;
    const QuantizationConfig* in = config->GetDataConfig(layer->GetInputs()[0]->GetName());
    const float min = in->getMin(), max = in->getMax();
    for (Data<float>* out : layer->GetOutputs())
      config->GetDataConfig(out->GetName())->update(min, max);
  }
}

}  // namespace modelConverter
}  // namespace qzdl
