// Ranges fixed by hand (the preset file of -l) and the configuration made
// from every observer's range at the end of calibration.
#include "converter/converter.h"
#include "quantization/observer.h"
#include "runtime/file_read.h"

namespace qzdl {
namespace modelConverter {

using namespace qzdl::staticQuantization;

namespace {

// A tensor entry whose "min" or "max" holds no number, or a weight entry
// whose "max" is shorter than its "min", makes the whole file malformed:
// like a file that does not parse, it changes nothing.
bool Malformed(const json11::Json& preset) {
  for (const json11::Json& entry : preset["data"].array_items()) {
    if (entry["min"].is_null() || entry["max"].is_null()) continue;
    if (entry["min"].array_items().empty() || entry["max"].array_items().empty()) return true;
  }
  for (const json11::Json& entry : preset["weight"].array_items()) {
    if (entry["min"].is_null() || entry["max"].is_null()) continue;
    if (entry["max"].array_items().size() < entry["min"].array_items().size()) return true;
  }
  return false;
}

}  // namespace

void Converter::LoadPresetConfig() {
  if (param.calibration_loader.empty()) return;
  // A broken or unreadable file reads as null: two empty lists, no change.
  std::string error;
  const json11::Json file =
      json11::Json::parse(ReadFileOrEmpty(param.calibration_loader), error, json11::STANDARD);
  const json11::Json& preset = file["presetConfig"];
  if (Malformed(preset)) return;

  for (const json11::Json& entry : preset["data"].array_items()) {
    const std::string name = entry["dataName"].string_value();
    (void)entry["axis"].int_value();
    if (entry["min"].is_null() || entry["max"].is_null()) continue;
    const float min = static_cast<float>(entry["min"][0].number_value());
    const float max = static_cast<float>(entry["max"][0].number_value());
    // The replaced observer is dropped, not deleted: observers are never
    // destroyed through the base (observer.h), and no data reaches it again.
    observers[name] = new PresetObserver(min, max);
  }

  for (const json11::Json& entry : preset["weight"].array_items()) {
    const std::string layer_name = entry["layerName"].string_value();
    (void)entry["axis"].int_value();
    const int weight_id = entry["weightId"].int_value();
    if (entry["min"].is_null() || entry["max"].is_null()) continue;
    Layer<float>* layer = float_net->GetLayer(layer_name);
    if (layer == nullptr) continue;
    const size_t blobs = layer->GetWeights().size();
    // A weight index the layer does not have names no slot.
    if (weight_id < 0 || static_cast<size_t>(weight_id) >= blobs) continue;
    auto it = weight_observers.find(layer_name);
    if (it == weight_observers.end()) {
      it = weight_observers.emplace(layer_name, std::vector<PerChannelObserver*>(blobs, nullptr))
               .first;
    } else if (it->second.size() < blobs) {
      it->second.resize(blobs, nullptr);
    }
    PerChannelObserver*& slot = it->second[weight_id];
    // The observers a replaced list held are not used again.
    delete slot;
    slot = new PerChannelObserver();
    const auto& mins = entry["min"].array_items();
    const auto& maxs = entry["max"].array_items();
    for (size_t k = 0; k < mins.size(); ++k) {
      slot->push_back(new PresetObserver(static_cast<float>(mins[k].number_value()),
                                         static_cast<float>(maxs[k].number_value())));
    }
  }
}

INT8Config* Converter::DumpQuantizationConfig() {
  auto* config = new INT8Config();
  for (const auto& entry : observers) {
    float min = 0, max = 0;
    entry.second->Extract(min, max);
    config->addDataConfig(entry.first, min, max);
  }
  for (const auto& entry : weight_observers) {
    for (size_t w = 0; w < entry.second.size(); ++w) {
      const PerChannelObserver* list = entry.second[w];
      if (list == nullptr) continue;
      std::vector<std::pair<float, float>> ranges;
      for (Observer* observer : *list) {
        float min = 0, max = 0;
        // A search mode leaves null observers behind: their channels get
        // the empty range.
        if (observer != nullptr) observer->Extract(min, max);
        ranges.push_back({min, max});
      }
      for (size_t c = 0; c < ranges.size(); ++c) {
        config->addWeightConfig(entry.first, static_cast<int>(w), static_cast<int>(c),
                                ranges[c].first, ranges[c].second);
      }
    }
  }
  return config;
}

}  // namespace modelConverter
}  // namespace qzdl
