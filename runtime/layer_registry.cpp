#include "runtime/layer_registry.h"

#include <map>

#include "runtime/layers/activation.h"

namespace qzdl {

namespace {

template <class L>
std::unique_ptr<Layer<float>> Make() {
  return std::make_unique<L>();
}

// Edited by hand: one row per type name, grouped by layer family.
std::map<std::string, LayerFactory<float>>& FloatTable() {
  static std::map<std::string, LayerFactory<float>> table = {
      // activation
      {"ReLU", &Make<ReluLayer<float>>},
  };
  return table;
}

}  // namespace

template <>
std::unique_ptr<Layer<float>> CreateLayer<float>(const std::string& type) {
  auto it = FloatTable().find(type);
  return it == FloatTable().end() ? nullptr : it->second();
}

template <>
std::vector<std::string> RegisteredLayerTypes<float>() {
  std::vector<std::string> names;
  for (const auto& kv : FloatTable()) names.push_back(kv.first);
  return names;
}

template <>
void RegisterLayerTypeForTesting<float>(const std::string& type, LayerFactory<float> factory) {
  FloatTable()[type] = factory;
}

}  // namespace qzdl
