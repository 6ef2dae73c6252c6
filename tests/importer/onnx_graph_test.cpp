// Constant folding, pattern fusion and the batch of imported nets.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <map>
#include <string>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"
#include "runtime/serial_weights.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

TEST(OnnxGraph, ShapeChainFoldsIntoOneReshape) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("reshape_chain.onnx"));
  const json11::Json layers = Layers(r);
  ASSERT_EQ(layers.array_items().size(), 1u) << r.net_json;
  EXPECT_EQ(layers[0]["type"].string_value(), "Reshape");
  EXPECT_EQ(layers[0]["name"].string_value(), "reshape");
  EXPECT_EQ(layers[0]["inputs"].dump(), "[\"x\"]");
  EXPECT_EQ(layers[0]["param"]["shapes"].dump(), "[0, 48]");
  EXPECT_TRUE(r.blobs.empty());
  // The symbolic batch imports as 1, and the net runs at any batch.
  auto net = BuildNet(r);
  EXPECT_EQ(net->GetInputData(0)->GetDims(), (std::vector<int>{1, 3, 4, 4}));
  net->ReshapeBatchNum(3, 0);
  const std::vector<float> x = RandomVector(3 * 48, 11);
  const auto out = RunNet(net.get(), {x});
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{3, 48}));
  EXPECT_EQ(out[0], x);
}

TEST(OnnxGraph, InputShapeOverridesTheBatch) {
  OnnxImportOptions options;
  ParseInputShapeArg("x=4,3,4,4", &options);
  const OnnxImportResult r = ImportOnnxFile(Fixture("reshape_chain.onnx"), options);
  EXPECT_NE(r.net_json.find("{\"name\": \"x\", \"dims\": [4, 3, 4, 4]}"), std::string::npos)
      << r.net_json;
  EXPECT_EQ(Layers(r)[0]["param"]["shapes"].dump(), "[0, 48]");
}

TEST(OnnxGraph, GeluAndSiluPatternsFuse) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("patterns.onnx"));
  const json11::Json layers = Layers(r);
  ASSERT_EQ(layers.array_items().size(), 2u) << r.net_json;
  EXPECT_EQ(layers[0]["type"].string_value(), "Gelu");
  EXPECT_EQ(layers[0]["name"].string_value(), "gelu");
  EXPECT_EQ(layers[0]["param"]["approximate"].string_value(), "none");
  EXPECT_EQ(layers[1]["type"].string_value(), "Swish");
  EXPECT_EQ(layers[1]["name"].string_value(), "silu");
  EXPECT_FALSE(layers[1]["param"]["hard"].bool_value());
  auto net = BuildNet(r);
  const OnnxTensor x = ReadOnnxTensor(Fixture("patterns_input.pb"));
  const OnnxTensor y = ReadOnnxTensor(Fixture("patterns_output.pb"));
  const auto out = RunNet(net.get(), {x.values});
  EXPECT_LE(ToleranceRatio(out[0], y.values, 1e-6, 1e-5), 1.0);
}

void AddNode(onnx::GraphProto* g, const std::string& op, const std::vector<std::string>& in,
             const std::string& out) {
  auto* n = g->add_node();
  n->set_op_type(op);
  n->set_name(out);
  for (const auto& i : in) n->add_input(i);
  n->add_output(out);
}

// Arithmetic with a constant operand: per channel it becomes a Scale layer,
// otherwise the constant enters the net through a Constant layer.
TEST(OnnxGraph, ConstantOperands) {
  onnx::ModelProto m = EmptyModel();
  onnx::GraphProto* g = m.mutable_graph();
  AddFloatInput(g, "x", {2, 3, 2, 2});
  g->add_output()->set_name("y");
  AddFloatInit(g, "c3", {3, 1, 1}, {2, -1, 0.5f});
  AddFloatInit(g, "d3", {1, 3, 1, 1}, {1, 2, 3});
  AddFloatInit(g, "four", {}, {4});
  AddFloatInit(g, "w2", {2}, {10, 20});
  AddNode(g, "Mul", {"x", "c3"}, "mul");
  AddNode(g, "Sub", {"d3", "mul"}, "sub");
  AddNode(g, "Div", {"sub", "four"}, "div");
  AddNode(g, "Add", {"w2", "div"}, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "mem.onnx", ".");
  const json11::Json layers = Layers(r);
  std::string types;
  for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
  EXPECT_EQ(types, "Scale Scale Scale Constant BroadcastOp ") << r.net_json;
  const std::vector<float> x = RandomVector(24, 5);
  auto net = BuildNet(r);
  const auto out = RunNet(net.get(), {x});
  const float c[3] = {2, -1, 0.5f}, d[3] = {1, 2, 3}, w[2] = {10, 20};
  std::vector<float> want(24);
  for (int k = 0; k < 24; ++k) {
    const int ch = (k / 4) % 3;
    want[k] = w[k % 2] + (d[ch] - x[k] * c[ch]) / 4;
  }
  EXPECT_LE(ToleranceRatio(out[0], want, 1e-6, 1e-6), 1.0);
}

TEST(OnnxGraph, WeightsAndSerialFilesAgree) {
  const std::string dir = TempDir("onnx_serial");
  const OnnxImportResult r = ConvertOnnxFile(Fixture("torch_cnn.onnx"), dir + "/net.json",
                                             dir + "/net.bin", dir + "/net.fb");
  EXPECT_EQ(ReadFile(dir + "/net.json"), r.net_json);
  EXPECT_EQ(ReadFile(dir + "/net.bin"), SerializeWeights(r.blobs));
  const std::vector<WeightBlob> serial = ReadSerialWeights(dir + "/net.fb");
  ASSERT_EQ(serial.size(), r.blobs.size());
  for (size_t k = 0; k < serial.size(); ++k) {
    EXPECT_EQ(serial[k].layer, r.blobs[k].layer);
    EXPECT_EQ(serial[k].name, r.blobs[k].name);
    EXPECT_EQ(serial[k].dims, r.blobs[k].dims);
    EXPECT_EQ(serial[k].values, r.blobs[k].values);
  }
}

// The small PyTorch net (conv-bn-relu-pool-conv-bn-relu-gap-fc, flattened
// with x.view(x.size(0), -1)) against PyTorch's own output at batch 2. The
// relative error is the largest absolute difference over the largest |y|.
TEST(OnnxGraph, PyTorchCnnMatchesPyTorch) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("torch_cnn.onnx"));
  const json11::Json layers = Layers(r);
  std::string types;
  for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
  EXPECT_EQ(types,
            "Convolution BatchNormal ReLU Pooling Convolution BatchNormal ReLU Pooling Reshape "
            "InnerProduct ");
  EXPECT_EQ(layers[8]["param"]["shapes"].dump(), "[0, 16]");
  const OnnxTensor x = ReadOnnxTensor(Fixture("torch_cnn_input.pb"));
  const OnnxTensor y = ReadOnnxTensor(Fixture("torch_cnn_output.pb"));
  auto net = BuildNet(r);
  net->ReshapeBatchNum(2, 0);
  const auto out = RunNet(net.get(), {x.values});
  ASSERT_EQ(out[0].size(), y.values.size());
  EXPECT_GE(Cosine(out[0], y.values), 0.99999);
  EXPECT_LE(MaxRelError(out[0], y.values), 1e-4);
}

// A net that mixes most mappings (see make_onnx_fixtures.py), exported with
// a dynamic batch, run at batch 2.
TEST(OnnxGraph, PyTorchMixedNetMatchesPyTorch) {
  const OnnxImportResult r = ImportOnnxFile(Fixture("torch_mix.onnx"));
  const json11::Json layers = Layers(r);
  std::map<std::string, int> count;
  for (const auto& l : layers.array_items()) {
    ++count[l["type"].string_value()];
    if (l["type"].string_value() == "Reshape") {
      const int batch = l["param"]["shapes"][0].int_value();
      EXPECT_TRUE(batch == 0 || batch == -1) << l.dump();
    }
    if (l["type"].string_value() == "InnerProduct") {
      EXPECT_TRUE(l["param"]["bias_term"].bool_value()) << l.dump();
    }
  }
  EXPECT_EQ(count["Swish"], 2) << r.net_json;  // hardswish and SiLU
  EXPECT_EQ(count["Gelu"], 1);
  EXPECT_EQ(count["InnerProduct"], 2);
  EXPECT_EQ(count["Crop"], 4);  // chunk in two, the two slices after the pad
  EXPECT_EQ(count["Deconvolution"], 1);
  EXPECT_EQ(count["Upsample"], 1);
  EXPECT_EQ(count["ReflectionPadding"], 1);  // F.pad in mode reflect
  EXPECT_EQ(count["Padding"], 0);
  EXPECT_EQ(count["Constant"], 0);
  const OnnxTensor x = ReadOnnxTensor(Fixture("torch_mix_input.pb"));
  const OnnxTensor y = ReadOnnxTensor(Fixture("torch_mix_output.pb"));
  auto net = BuildNet(r);
  net->ReshapeBatchNum(2, 0);
  const auto out = RunNet(net.get(), {x.values});
  ASSERT_EQ(out[0].size(), y.values.size());
  EXPECT_GE(Cosine(out[0], y.values), 0.99999);
  EXPECT_LE(MaxRelError(out[0], y.values), 1e-4);
}

}  // namespace
}  // namespace qzdl::test
