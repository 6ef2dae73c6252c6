// Reads and drives the conversion driver's private state for the tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "converter/converter.h"
#include "support/net_builder.h"

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
  static Searcher* GetSearcher(const Converter& c) { return c.searcher; }
  static std::map<std::string, std::vector<std::pair<float, float>>> SearchCandidates(
      Converter& c) {
    return c.SearchCandidates();
  }
  static std::vector<std::vector<float>> SearchInputs(Converter& c) {
    return c.SearchInputs(c.param);
  }
  static size_t ObserverCount(const Converter& c) { return c.observers.size(); }
  static const std::map<std::string, Observer*>& Observers(const Converter& c) {
    return c.observers;
  }
  static const std::map<std::string, std::vector<PerChannelObserver*>>& WeightObservers(
      const Converter& c) {
    return c.weight_observers;
  }
  static void CalibrateWeight(Converter& c) { c.CalibrateWeight(); }
  static void FinishCalibration(Converter& c) { c.FinishCalibration(); }
  static void MergeInt8Config(Converter& c) { c.MergeInt8Config(); }
  static const std::map<std::string, mergeConfig::graph_node>& MergeGraph(const Converter& c) {
    return c.merge_graph;
  }
  static Net<float>* FloatNet(Converter& c) { return c.float_net; }
  static std::map<std::string, Observer*>& MutableObservers(Converter& c) { return c.observers; }
  static INT8Config* DumpQuantizationConfig(Converter& c) { return c.DumpQuantizationConfig(); }
  static bool SpareFieldsEmpty(const Converter& c) {
    return c.spare_counts.empty() && c.spare_names.empty() && c.spare_values.empty() &&
           c.weight_observers.empty();
  }
};

// Tests that make a Converter in a fresh folder of their own, which is the
// working directory meanwhile: the constructor reads "config.json" there
// and looks for the default calibration set there or below QZDL_SDK_PATH.
class ConverterInTempDir : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = test::TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    char buf[4096];
    ASSERT_NE(getcwd(buf, sizeof buf), nullptr);
    saved_cwd_ = buf;
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    unsetenv("QZDL_SDK_PATH");
  }
  void TearDown() override { ASSERT_EQ(chdir(saved_cwd_.c_str()), 0); }

  // The converter, and what its constructor printed.
  std::unique_ptr<Converter> Make(const ConverterParam& p, std::string* out) {
    std::unique_ptr<Converter> c;
    *out = test::CaptureStdout([&] { c = std::make_unique<Converter>(p); });
    return c;
  }

  std::string dir_, saved_cwd_;
};

}  // namespace qzdl::modelConverter
