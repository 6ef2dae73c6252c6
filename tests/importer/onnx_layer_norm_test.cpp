// LayerNormalization with constant weights and only its result used
// imports as one LayerNorm layer (weights broadcast to the row); with the
// Mean or InvStdDev outputs used it stays a chain of layers.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <cmath>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

onnx::ModelProto Model(bool mean_output) {
  // x [2, 3, 4] normalized over the last two axes; scale [4] and bias [1, 4]
  // broadcast over the 3 rows of each item.
  onnx::ModelProto m = EmptyModel(17);
  AddFloatInput(m.mutable_graph(), "x", {2, 3, 4});
  AddFloatInit(m.mutable_graph(), "w", {4}, {1.0f, -2.0f, 0.5f, 3.0f});
  AddFloatInit(m.mutable_graph(), "b", {1, 4}, {0.0f, 0.25f, -1.0f, 2.0f});
  std::vector<std::string> outs = {"y"};
  if (mean_output) outs.push_back("mean");
  onnx::NodeProto* n = AddNode(&m, "LayerNormalization", "ln", {"x", "w", "b"}, outs);
  auto* axis = n->add_attribute();
  axis->set_name("axis");
  axis->set_type(onnx::AttributeProto::INT);
  axis->set_i(-2);
  AddOutput(&m, "y");
  if (mean_output) AddOutput(&m, "mean");
  return m;
}

TEST(OnnxLayerNorm, OneLayerWhenOnlyTheResultIsUsed) {
  const std::vector<float> x = RandomVector(24, 91, -2.0f, 2.0f);
  std::vector<float> want(24);
  const float w[4] = {1.0f, -2.0f, 0.5f, 3.0f}, b[4] = {0.0f, 0.25f, -1.0f, 2.0f};
  for (int n = 0; n < 2; ++n) {
    double sum = 0, sq = 0;
    for (int i = 0; i < 12; ++i) sum += x[n * 12 + i];
    const double mean = sum / 12;
    for (int i = 0; i < 12; ++i) sq += (x[n * 12 + i] - mean) * (x[n * 12 + i] - mean);
    const double inv = 1.0 / std::sqrt(sq / 12 + 1e-5);
    for (int i = 0; i < 12; ++i)
      want[n * 12 + i] = static_cast<float>((x[n * 12 + i] - mean) * inv * w[i % 4] + b[i % 4]);
  }
  for (bool mean_output : {false, true}) {
    SCOPED_TRACE(mean_output);
    const onnx::ModelProto m = Model(mean_output);
    const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
    const json11::Json layers = Layers(r);
    if (mean_output) {
      EXPECT_GT(layers.array_items().size(), 1u);
    } else {
      ASSERT_EQ(layers.array_items().size(), 1u) << r.net_json;
      EXPECT_EQ(layers[0]["type"].string_value(), "LayerNorm");
      EXPECT_EQ(layers[0]["param"].dump(), "{\"axis\": 1, \"bias_term\": true, \"eps\": 9.9999997473787516e-06}");
    }
    auto net = BuildNet(r);
    const auto out = RunNet(net.get(), {x});
    EXPECT_LE(ToleranceRatio(out[0], want, 1e-5, 1e-5), 1.0);
  }
}

}  // namespace
}  // namespace qzdl::test
