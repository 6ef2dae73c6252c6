// Models stored in half or bfloat16 precision: their weights are read into
// float32, half and bfloat16 inputs are taken as float32, and casts to those
// types pass values through, so the net computes them in float32.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"
#include "support/net_builder.h"

namespace qzdl::test {
namespace {

// Half and bfloat16 bit patterns of values they hold exactly.
uint16_t HalfBits(float v) {
  uint32_t f;
  std::memcpy(&f, &v, 4);
  const uint32_t sign = (f >> 16) & 0x8000u;
  if (v == 0.0f) return static_cast<uint16_t>(sign);
  const int exponent = int((f >> 23) & 0xff) - 127 + 15;
  return static_cast<uint16_t>(sign | (uint32_t(exponent) << 10) | ((f >> 13) & 0x3ffu));
}
uint16_t BfloatBits(float v) {
  uint32_t f;
  std::memcpy(&f, &v, 4);
  return static_cast<uint16_t>(f >> 16);
}

void InitBits(onnx::GraphProto* g, const std::string& name, int type,
              const std::vector<int64_t>& dims, const std::vector<float>& v) {
  auto* t = g->add_initializer();
  t->set_name(name);
  t->set_data_type(type);
  for (int64_t d : dims) t->add_dims(d);
  std::string raw;
  for (float x : v) {
    const uint16_t b = type == onnx::TensorProto::FLOAT16 ? HalfBits(x) : BfloatBits(x);
    raw.push_back(static_cast<char>(b & 0xff));
    raw.push_back(static_cast<char>(b >> 8));
  }
  t->set_raw_data(raw);
}

// y = relu(x * w + b) by a 1x1 convolution of 2 channels into 2, with
// weights of `type`, the input declared as `input_type`, and casts to half
// around the convolution.
onnx::ModelProto HalfModel(int type, int input_type) {
  onnx::ModelProto m = EmptyModel();
  onnx::GraphProto* g = m.mutable_graph();
  auto* in = g->add_input();
  in->set_name("x");
  auto* tt = in->mutable_type()->mutable_tensor_type();
  tt->set_elem_type(input_type);
  for (int64_t d : {1, 2, 2, 2}) tt->mutable_shape()->add_dim()->set_dim_value(d);
  // Values with few mantissa bits: exact in half and bfloat16.
  InitBits(g, "w", type, {2, 2, 1, 1}, {0.5f, -1.25f, 2.0f, 0.75f});
  InitBits(g, "b", type, {2}, {0.25f, -3.0f});
  auto* cast = g->add_node();
  cast->set_op_type("Cast");
  cast->set_name("to_half");
  cast->add_input("x");
  cast->add_output("xh");
  auto* to = cast->add_attribute();
  to->set_name("to");
  to->set_type(onnx::AttributeProto::INT);
  to->set_i(type);
  AddNode(&m, "Conv", "conv", {"xh", "w", "b"}, {"c"});
  AddNode(&m, "Relu", "relu", {"c"}, {"y"});
  auto* out = g->add_output();
  out->set_name("y");
  out->mutable_type()->mutable_tensor_type()->set_elem_type(type);
  return m;
}

TEST(OnnxHalf, HalfAndBfloat16ModelsComputeInFloat32) {
  const std::vector<float> x = {1, -2, 0.5f, 3, -1, 4, 2, -0.5f};
  std::vector<float> want(8);
  const float w[2][2] = {{0.5f, -1.25f}, {2.0f, 0.75f}}, b[2] = {0.25f, -3.0f};
  for (int o = 0; o < 2; ++o)
    for (int p = 0; p < 4; ++p)
      want[o * 4 + p] = std::max(0.0f, w[o][0] * x[p] + w[o][1] * x[4 + p] + b[o]);
  for (int type : {int(onnx::TensorProto::FLOAT16), int(onnx::TensorProto::BFLOAT16)}) {
    for (int input_type : {int(onnx::TensorProto::FLOAT), type}) {
      SCOPED_TRACE(std::to_string(type) + " " + std::to_string(input_type));
      const onnx::ModelProto m = HalfModel(type, input_type);
      const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
      std::string types;
      const json11::Json layers = Layers(r);
      for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
      EXPECT_EQ(types, "Convolution ReLU ") << r.net_json;
      auto net = BuildNet(r);
      EXPECT_EQ(RunNet(net.get(), {x})[0], want);
    }
  }
}

TEST(OnnxHalf, CastsToIntegersAreStillRefused) {
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  auto* cast = AddNode(&m, "Cast", "to_int", {"x"}, {"y"});
  auto* to = cast->add_attribute();
  to->set_name("to");
  to->set_type(onnx::AttributeProto::INT);
  to->set_i(onnx::TensorProto::INT32);
  m.mutable_graph()->add_output()->set_name("y");
  try {
    ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
    FAIL() << "imported";
  } catch (const OnnxImportError& e) {
    EXPECT_STREQ(e.what(),
                 "node \"to_int\" (Cast): attribute \"to\" value int32 is not supported (tensors "
                 "computed by the net are float)");
  }
}

}  // namespace
}  // namespace qzdl::test
