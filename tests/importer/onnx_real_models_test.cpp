// Small variants of real architectures (ResNet, MobileNetV2, SqueezeNet,
// ShuffleNetV2, GoogLeNet, VGG, DenseNet and a YOLO-style detector) exported
// from PyTorch with random weights, imported and run at batch 2, compared
// with ONNX Runtime's outputs stored beside them. Fixtures from
// scripts/fixtures/make_real_model_fixtures.py; the full-size models are
// checked by scripts/check_real_models.sh.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

std::string RealFixture(const std::string& name) { return Fixture("real/" + name); }

class OnnxRealModelTest : public testing::TestWithParam<const char*> {};

TEST_P(OnnxRealModelTest, MatchesOnnxRuntime) {
  const std::string name = GetParam();
  OnnxImportResult result;
  try {
    result = ImportOnnxFile(RealFixture(name + ".onnx"));
  } catch (const OnnxImportError& e) {
    FAIL() << e.what();
  }
  const OnnxTensor x = ReadOnnxTensor(RealFixture("input.pb"));
  const OnnxTensor want = ReadOnnxTensor(RealFixture(name + "_output.pb"));
  auto net = BuildNet(result);
  ASSERT_TRUE(net);
  // Exported with a dynamic batch, imported at batch 1, run at batch 2.
  net->ReshapeBatchNum(static_cast<int>(x.dims[0]), 0);
  const auto outs = RunNet(net.get(), {x.values});
  ASSERT_EQ(outs.size(), 1u);
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), want.IntDims());
  ASSERT_EQ(outs[0].size(), want.values.size());
  EXPECT_GE(Cosine(outs[0], want.values), 0.99999);
  EXPECT_LE(MaxRelError(outs[0], want.values), 1e-4);
}

INSTANTIATE_TEST_SUITE_P(
    Real, OnnxRealModelTest,
    testing::Values("tiny_resnet_op13", "tiny_mobilenet_v2_op13", "tiny_squeezenet_op13",
                    "tiny_squeezenet_op17", "tiny_shufflenet_v2_op13", "tiny_shufflenet_v2_op17",
                    "tiny_googlenet_op13", "tiny_vgg_op13", "tiny_densenet_op13", "tiny_yolo_op13"),
    [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

}  // namespace
}  // namespace qzdl::test
