// Weight observers: which layers get them at each level, one per channel and
// blob with its name, what each channel sees, and the weight entries of a
// preset file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "converter_test_access.h"
#include "runtime/layer_registry.h"
#include "runtime/layers/convolution.h"
#include "runtime/layers/softmax.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::modelConverter {
namespace {

using test::HasLine;

class WeightCalibrationTest : public ConverterInTempDir {
 protected:
  // x [1, 1, 1, 1] -> conv (64 channels, bias 0.5 c - 7 for channel c)
  // -> flatten -> fc (transposed: weight [64, 100], bias of 100 values).
  ConverterParam Param(int mode, int level) {
    test::NetBuilder b;
    std::vector<float> conv_bias, fc_bias;
    for (int c = 0; c < 64; ++c) conv_bias.push_back(0.5f * c - 7.0f);
    for (int k = 0; k < 100; ++k) fc_bias.push_back(1000.0f + k);
    b.Input("x", {1, 1, 1, 1})
        .Layer("conv", "Convolution", {"x"}, {"c"}, {{"num_output", 64}, {"kernel_size", 1}})
        .Weight("conv", "weight", {64, 1, 1, 1}, test::RandomVector(64, 1))
        .Weight("conv", "bias", {64}, conv_bias)
        .Layer("flat", "Flatten", {"c"}, {"f"})
        .Layer("fc", "InnerProduct", {"f"}, {"y"}, {{"num_output", 100}, {"transpose", true}})
        .Weight("fc", "weight", {64, 100}, test::RandomVector(6400, 2))
        .Weight("fc", "bias", {100}, fc_bias);
    const auto files = b.WriteFiles(dir_);
    ConverterParam p;
    p.json_file = files.first;
    p.model_file = files.second;
    p.output_name = dir_ + "/out.bin";
    p.calibration_mode = static_cast<CalibrationMethod>(mode);
    p.calibrate_weight = level;
    return p;
  }
};

constexpr char kLevel1[] = "Enable calibration for FC`s weight and bias";
constexpr char kLevel2[] = "Enable calibration for Convolution`s and FC`s weight and bias";

TEST_F(WeightCalibrationTest, LevelOneLeavesInnerProductOut) {
  std::string out;
  auto c = Make(Param(0, 1), &out);
  EXPECT_TRUE(HasLine(out, kLevel1)) << out;
  EXPECT_FALSE(HasLine(out, kLevel2)) << out;
  const auto& w = ConverterTestAccess::WeightObservers(*c);
  ASSERT_EQ(w.size(), 1u);
  ASSERT_EQ(w.at("conv").size(), 2u);  // weight and bias
  for (const PerChannelObserver* list : w.at("conv")) ASSERT_EQ(list->size(), 64u);
  EXPECT_EQ((*w.at("conv")[0])[3]->name, "conv_weight0_ch3");
  EXPECT_EQ((*w.at("conv")[1])[63]->name, "conv_weight1_ch63");
  EXPECT_EQ((*w.at("conv")[0])[3]->GetObserverTypeString(), "Naive");
}

TEST_F(WeightCalibrationTest, LevelTwoAddsInnerProduct) {
  std::string out;
  auto c = Make(Param(1, 2), &out);
  EXPECT_TRUE(HasLine(out, kLevel2)) << out;
  const auto& w = ConverterTestAccess::WeightObservers(*c);
  ASSERT_EQ(w.size(), 2u);
  // The transposed weight's first axis: 64 channels.
  // An inner product's channels are its outputs, also when transposed.
  ASSERT_EQ(w.at("fc").size(), 2u);
  EXPECT_EQ(w.at("fc")[0]->size(), 100u);
  EXPECT_EQ(w.at("fc")[1]->size(), 100u);
  EXPECT_EQ((*w.at("fc")[1])[0]->GetObserverTypeString(), "Average");
}

TEST_F(WeightCalibrationTest, NoObserversWhenTuningOrLevelZero) {
  for (auto [mode, level, tuning] : {std::tuple{0, 1, true}, std::tuple{6, 2, false},
                                     std::tuple{7, 1, false}, std::tuple{0, 0, false}}) {
    ConverterParam p = Param(mode, level);
    p.weight_tuning = tuning;
    std::string out;
    auto c = Make(p, &out);
    EXPECT_TRUE(ConverterTestAccess::WeightObservers(*c).empty()) << mode << " " << level;
    EXPECT_FALSE(HasLine(out, kLevel1)) << out;
    EXPECT_FALSE(HasLine(out, kLevel2)) << out;
  }
}

TEST_F(WeightCalibrationTest, EachChannelSeesItsRunOfTheBlob) {
  std::string out;
  auto c = Make(Param(0, 2), &out);
  ConverterTestAccess::CalibrateWeight(*c);
  const auto& w = ConverterTestAccess::WeightObservers(*c);
  // A bias of 64 values over 64 channels: runs of 1.
  for (int ch = 0; ch < 64; ++ch) {
    float min = 0, max = 0;
    (*w.at("conv")[1])[ch]->Extract(min, max);
    EXPECT_EQ(min, 0.5f * ch - 7.0f) << ch;
    EXPECT_EQ(max, 0.5f * ch - 7.0f) << ch;
  }
  // The transposed inner product's weight [64, 100] over its 100 channels:
  // runs of 64 consecutive values.
  float min = 0, max = 0;
  (*w.at("fc")[1])[99]->Extract(min, max);
  EXPECT_EQ(min, 1099.0f);
  EXPECT_EQ(max, 1099.0f);
}

// A layer of type "Deconvolution" whose second blob holds 100 values while
// its weight says 64 channels (no layer of the runtime has such blobs: this
// stands in for one).
class OddBlobLayer : public Layer<float> {
 public:
  void LoadParam(const ParamReader&) override {}
  void Reshape() override { this->out()->Resize(this->in()->GetDims()); }
  std::vector<WeightSpec> WeightSpecs() override { return {{"weight", {64, 1}}, {"bias", {100}}}; }

 protected:
  void Run() override {}
};

TEST_F(WeightCalibrationTest, ARemainderOfABlobIsUnseen) {
  RegisterLayerTypeForTesting<float>("Deconvolution", [] {
    return std::unique_ptr<Layer<float>>(std::make_unique<OddBlobLayer>());
  });
  test::NetBuilder b;
  std::vector<float> bias;
  for (int k = 0; k < 100; ++k) bias.push_back(1000.0f + k);
  b.Input("x", {1, 1, 1, 1})
      .Layer("odd", "Deconvolution", {"x"}, {"y"})
      .Weight("odd", "weight", {64, 1}, test::RandomVector(64, 3))
      .Weight("odd", "bias", {100}, bias);
  ConverterParam p = Param(0, 1);
  const auto files = b.WriteFiles(dir_, "odd");
  p.json_file = files.first;
  p.model_file = files.second;
  std::string out;
  auto c = Make(p, &out);
  RegisterLayerTypeForTesting<float>("Deconvolution", [] {
    return std::unique_ptr<Layer<float>>(std::make_unique<DeconvolutionLayer<float>>());
  });
  ConverterTestAccess::CalibrateWeight(*c);
  const auto& w = ConverterTestAccess::WeightObservers(*c);
  ASSERT_EQ(w.count("odd"), 1u) << out;
  ASSERT_EQ(w.at("odd")[1]->size(), 64u);
  // 100 values over 64 channels: runs of 1, the last 36 values unseen.
  INT8Config* config = ConverterTestAccess::DumpQuantizationConfig(*c);
  const std::vector<QuantizationConfig>* records = config->GetWeightConfig("odd", 1);
  ASSERT_NE(records, nullptr);
  ASSERT_EQ(records->size(), 64u);
  for (int ch = 0; ch < 64; ++ch) {
    EXPECT_EQ((*records)[ch].getMin(), 1000.0f + ch) << ch;
    EXPECT_EQ((*records)[ch].getMax(), 1000.0f + ch) << ch;
  }
}

TEST_F(WeightCalibrationTest, TheSearchModeLeavesNullObservers) {
  std::string out;
  auto c = Make(Param(8, 1), &out);
  const auto& w = ConverterTestAccess::WeightObservers(*c);
  ASSERT_EQ(w.at("conv")[0]->size(), 64u);
  EXPECT_EQ((*w.at("conv")[0])[0], nullptr);
  ConverterTestAccess::CalibrateWeight(*c);
  INT8Config* config = ConverterTestAccess::DumpQuantizationConfig(*c);
  const std::vector<QuantizationConfig>* records = config->GetWeightConfig("conv", 0);
  ASSERT_NE(records, nullptr);
  EXPECT_EQ((*records)[5].getMin(), 0.0f);
  EXPECT_EQ((*records)[5].getMax(), 0.0f);
}

TEST_F(WeightCalibrationTest, PresetWeightEntries) {
  ConverterParam p = Param(0, 1);
  p.calibration_loader = dir_ + "/preset.json";
  test::WriteFile(p.calibration_loader, R"({"presetConfig": {"weight": [
    {"layerName": "conv", "axis": 0, "weightId": 0, "min": [-1, -2, -3], "max": [1, 2, 3]},
    {"layerName": "fc", "weightId": 1, "min": [-9, -8], "max": [9, 8]},
    {"layerName": "fc", "weightId": 1, "min": [-5], "max": [5]},
    {"layerName": "nosuch", "weightId": 0, "min": [0], "max": [1]}]}})");
  std::string out;
  auto c = Make(p, &out);
  const auto& w = ConverterTestAccess::WeightObservers(*c);
  EXPECT_EQ(w.count("nosuch"), 0u);
  // Three channels' presets on a layer of 64 channels.
  ASSERT_EQ(w.at("conv")[0]->size(), 3u);
  EXPECT_EQ(w.at("conv")[1]->size(), 64u);
  // The later entry of fc / 1 wins as a whole; fc had no observers before.
  ASSERT_EQ(w.at("fc").size(), 2u);
  EXPECT_EQ(w.at("fc")[0], nullptr);
  ASSERT_EQ(w.at("fc")[1]->size(), 1u);
  ConverterTestAccess::CalibrateWeight(*c);
  INT8Config* config = ConverterTestAccess::DumpQuantizationConfig(*c);
  ASSERT_EQ(config->GetWeightConfig("conv", 0)->size(), 3u);
  EXPECT_EQ((*config->GetWeightConfig("conv", 0))[2].getMin(), -3.0f);
  EXPECT_EQ((*config->GetWeightConfig("conv", 0))[2].getMax(), 3.0f);
  ASSERT_EQ(config->GetWeightConfig("fc", 1)->size(), 1u);
  EXPECT_EQ((*config->GetWeightConfig("fc", 1))[0].getMax(), 5.0f);
  EXPECT_EQ(config->GetWeightConfig("fc", 0), nullptr);
}

TEST_F(WeightCalibrationTest, NoPresetFileChangesNothing) {
  std::string out;
  auto c = Make(Param(0, 0), &out);
  EXPECT_TRUE(ConverterTestAccess::WeightObservers(*c).empty());
  for (const auto& kv : ConverterTestAccess::Observers(*c))
    EXPECT_EQ(kv.second->GetObserverTypeString(), "Naive") << kv.first;
}

}  // namespace
}  // namespace qzdl::modelConverter

namespace qzdl::modelConverter {
namespace {

// A "Softmax" with two outputs (the runtime's has one): the fixed range of
// the type goes to the first output alone.
class TwoOutputSoftmax : public Layer<float> {
 public:
  void LoadParam(const ParamReader&) override {}
  void Reshape() override {
    for (Data<float>* out : this->GetOutputs()) out->Resize(this->in()->GetDims());
  }

 protected:
  void Run() override {}
};

TEST_F(WeightCalibrationTest, ASecondSoftmaxOutputKeepsItsRange) {
  RegisterLayerTypeForTesting<float>("Softmax", [] {
    return std::unique_ptr<Layer<float>>(std::make_unique<TwoOutputSoftmax>());
  });
  test::NetBuilder b;
  b.Input("x", {1, 4}).Layer("sm", "Softmax", {"x"}, {"p", "q"});
  ConverterParam p = Param(0, 0);
  const auto files = b.WriteFiles(dir_, "two");
  p.json_file = files.first;
  p.model_file = files.second;
  std::string out;
  auto c = Make(p, &out);
  RegisterLayerTypeForTesting<float>("Softmax", [] {
    return std::unique_ptr<Layer<float>>(std::make_unique<SoftmaxLayer<float>>());
  });
  std::map<std::string, Observer*>& observers = ConverterTestAccess::MutableObservers(*c);
  observers.at("x")->SetOptMinMax(-1.0f, 1.0f);
  observers.at("p")->SetOptMinMax(-2.0f, 3.0f);
  observers.at("q")->SetOptMinMax(-2.0f, 3.0f);
  ConverterTestAccess::FinishCalibration(*c);
  INT8Config* config = ConverterTestAccess::FloatNet(*c)->GetInt8Config();
  EXPECT_EQ(config->GetDataConfig("p")->getMin(), 0.0f);
  EXPECT_EQ(config->GetDataConfig("p")->getMax(), 1.0f);
  EXPECT_EQ(config->GetDataConfig("q")->getMin(), -2.0f);
  EXPECT_EQ(config->GetDataConfig("q")->getMax(), 3.0f);
}

}  // namespace
}  // namespace qzdl::modelConverter

namespace qzdl::modelConverter {
namespace {

// The share-config graph of the example net, as the merge builds it.
TEST_F(WeightCalibrationTest, TheGraphOfTheExampleNet) {
  ConverterParam p = Param(0, 0);
  p.json_file = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn/net.json";
  p.model_file = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn/net.bin";
  std::string out;
  auto c = Make(p, &out);
  ConverterTestAccess::MergeInt8Config(*c);
  const auto& graph = ConverterTestAccess::MergeGraph(*c);
  ASSERT_EQ(graph.size(), 11u);
  // Every name a node lists is a layer of the net.
  for (const auto& kv : graph) {
    for (const std::string& name : kv.second.inputs) EXPECT_EQ(graph.count(name), 1u) << name;
    for (const std::string& name : kv.second.outputs) EXPECT_EQ(graph.count(name), 1u) << name;
  }
  // "conv1" is written by conv1, bn1 and relu1 in place: each reader of it
  // lists every earlier writer, nearest first.
  const mergeConfig::graph_node& relu1 = graph.at("relu1");
  EXPECT_EQ(relu1.index, 2);
  EXPECT_EQ(relu1.type, "ReLU");
  EXPECT_EQ(relu1.inputs, (std::vector<std::string>{"bn1", "conv1"}));
  EXPECT_EQ(relu1.outputs, (std::vector<std::string>{"pool1"}));
  EXPECT_EQ(graph.at("conv1").outputs, (std::vector<std::string>{"bn1", "relu1", "pool1"}));
  EXPECT_EQ(graph.at("fc").inputs, (std::vector<std::string>{"pool2"}));
  EXPECT_EQ(graph.at("prob").outputs, (std::vector<std::string>{}));
}

}  // namespace
}  // namespace qzdl::modelConverter
