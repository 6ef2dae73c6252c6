// The "light" models of the ONNX test data (AlexNet, DenseNet-121, Inception
// v1 and v2, ResNet-50, ShuffleNet, SqueezeNet, VGG-19, ZFNet-512), whose
// weights are ConstantOfShape nodes that the importer folds into full-size
// constants (VGG-19's first fully connected layer: [4096, 25088], 411 MB).
// Each is imported by the qzdl_onnx2net executable, loaded from the files it
// wrote and run on the input the ONNX test runner feeds these models
// (arange(n) / n in the input's shape); the output is compared with the
// stored one.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/create_net.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

std::string LightModel(const std::string& name, const std::string& suffix) {
  return std::string(QZDL_ONNX_TESTS_DIR) + "/light/light_" + name + suffix;
}

class OnnxLightModelTest : public testing::TestWithParam<const char*> {};

TEST_P(OnnxLightModelTest, ImportsAndMatchesStoredOutput) {
  const std::string name = GetParam();
  const std::string dir = TempDir("light_" + name);
  const std::string json = dir + "/net.json", bin = dir + "/net.bin";
  const ToolRun run =
      RunOnnx2Net("'" + LightModel(name, ".onnx") + "' '" + json + "' '" + bin + "'");
  ASSERT_EQ(run.status, 0) << run.err;
  std::unique_ptr<Net<float>> net;
  try {
    net.reset(CreateNet<float>(json, bin, false, false, 0, 1));
  } catch (std::exception* e) {
    delete e;
  }
  ASSERT_TRUE(net) << "the imported net of " << name << " does not load";
  ASSERT_EQ(net->GetInputCount(), 1);
  const int64_t n = net->GetInputData(0)->Count(0);
  std::vector<float> x(n);
  for (int64_t k = 0; k < n; ++k) {
    x[k] = static_cast<float>(static_cast<double>(k) / static_cast<double>(n));
  }
  const std::vector<std::vector<float>> outs = RunNet(net.get(), {x});
  const OnnxTensor want = ReadOnnxTensor(LightModel(name, "_output_0.pb"));
  ASSERT_EQ(outs.size(), 1u);
  EXPECT_EQ(net->GetOutputData(0)->Count(0), static_cast<int64_t>(want.values.size()));
  ASSERT_EQ(outs[0].size(), want.values.size());
  EXPECT_GE(Cosine(outs[0], want.values), 0.99999);
  EXPECT_LE(MaxRelError(outs[0], want.values), 1e-4);
  std::filesystem::remove_all(dir);  // VGG-19 leaves 548 MB of weights
}

INSTANTIATE_TEST_SUITE_P(Light, OnnxLightModelTest,
                         testing::Values("bvlc_alexnet", "densenet121", "inception_v1",
                                         "inception_v2", "resnet50", "shufflenet", "squeezenet",
                                         "vgg19", "zfnet512"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           return std::string(info.param);
                         });

}  // namespace
}  // namespace qzdl::test
