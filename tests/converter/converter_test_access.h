// Reads and drives the conversion driver's private state for the tests.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "converter/converter.h"

namespace qzdl::modelConverter {

// Reads the driver's private state for the tests.
class ConverterTestAccess {
 public:
  static const std::map<std::string, CalibrationMethod>& Methods(const Converter& c) {
    return c.calibration_methods;
  }
  static const ConverterParam& Param(const Converter& c) { return c.param; }
  static bool HasDataLoader(const Converter& c) { return c.data_loader != nullptr; }
  static bool HasFloatNet(const Converter& c) { return c.float_net != nullptr; }
  static bool HasInt8Net(const Converter& c) { return c.int8_net != nullptr; }
  static bool HasSearcher(const Converter& c) { return c.searcher != nullptr; }
  static bool HasTuner(const Converter& c) { return c.weights_tuner != nullptr; }
  static size_t ObserverCount(const Converter& c) { return c.observers.size(); }
  static const std::map<std::string, Observer*>& Observers(const Converter& c) {
    return c.observers;
  }
  static const std::map<std::string, std::vector<PerChannelObserver*>>& WeightObservers(
      const Converter& c) {
    return c.weight_observers;
  }
  static void CalibrateWeight(Converter& c) { c.CalibrateWeight(); }
  static INT8Config* DumpQuantizationConfig(Converter& c) { return c.DumpQuantizationConfig(); }
  static bool SpareFieldsEmpty(const Converter& c) {
    return c.spare_counts.empty() && c.spare_names.empty() && c.spare_values.empty() &&
           c.weight_observers.empty();
  }
};

}  // namespace qzdl::modelConverter
