// A dynamically quantized convolution as quantizing exporters write it:
// DynamicQuantizeLinear, ConvInteger with constant int8 weights and zero
// points, Cast, Mul by the two scales; against the integer arithmetic ONNX
// defines, computed here.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"
#include "support/net_builder.h"

namespace qzdl::test {
namespace {

onnx::NodeProto* Node(onnx::ModelProto* m, const std::string& op, const std::string& name,
                      const std::vector<std::string>& in, const std::vector<std::string>& out) {
  return AddNode(m, op, name, in, out);
}

TEST(OnnxIntegerOps, DynamicallyQuantizedConvolution) {
  const int C = 2, M = 3, H = 4, W = 4;
  onnx::ModelProto m = EmptyModel(13);
  onnx::GraphProto* g = m.mutable_graph();
  AddFloatInput(g, "x", {1, C, H, W});
  std::vector<int8_t> w(size_t(M) * C * 9);
  for (size_t i = 0; i < w.size(); ++i) w[i] = static_cast<int8_t>(int(i * 37 % 255) - 127);
  auto* wt = g->add_initializer();
  wt->set_name("w");
  wt->set_data_type(onnx::TensorProto::INT8);
  for (int64_t d : {M, C, 3, 3}) wt->add_dims(d);
  wt->set_raw_data(std::string(reinterpret_cast<const char*>(w.data()), w.size()));
  auto* wz = g->add_initializer();
  wz->set_name("w_zero");
  wz->set_data_type(onnx::TensorProto::INT8);
  wz->set_raw_data(std::string(1, static_cast<char>(3)));
  auto* ws = g->add_initializer();
  ws->set_name("w_scale");
  ws->set_data_type(onnx::TensorProto::FLOAT);
  ws->add_float_data(0.02f);
  Node(&m, "DynamicQuantizeLinear", "quant", {"x"}, {"q", "q_scale", "q_zero"});
  onnx::NodeProto* conv = Node(&m, "ConvInteger", "conv", {"q", "w", "q_zero", "w_zero"}, {"acc"});
  auto* pads = conv->add_attribute();
  pads->set_name("pads");
  pads->set_type(onnx::AttributeProto::INTS);
  for (int p : {1, 1, 1, 1}) pads->add_ints(p);
  auto* cast = Node(&m, "Cast", "cast", {"acc"}, {"accf"});
  auto* to = cast->add_attribute();
  to->set_name("to");
  to->set_type(onnx::AttributeProto::INT);
  to->set_i(onnx::TensorProto::FLOAT);
  Node(&m, "Mul", "scales", {"q_scale", "w_scale"}, {"s"});
  Node(&m, "Mul", "dequant", {"accf", "s"}, {"y"});
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  std::string types;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
  EXPECT_EQ(types, "DynamicQuantizeLinear BroadcastOp Convolution Constant BroadcastOp BroadcastOp ")
      << r.net_json;

  const std::vector<float> x = RandomVector(size_t(C) * H * W, 5, -1.0f, 3.0f);
  // ONNX's arithmetic: codes, then int32 sums over padded windows (padding
  // holds the zero point), times the scales.
  float lo = 0, hi = 0;
  for (float v : x) lo = std::min(lo, v), hi = std::max(hi, v);
  const float scale = (hi - lo) / 255.0f;
  const float zero = std::nearbyint(std::min(255.0f, std::max(0.0f, -lo / scale)));
  std::vector<int> q(x.size());
  for (size_t i = 0; i < x.size(); ++i)
    q[i] = int(std::min(255.0f, std::max(0.0f, std::nearbyint(x[i] / scale) + zero)));
  std::vector<float> want(size_t(M) * H * W);
  const float s = scale * 0.02f;
  for (int o = 0; o < M; ++o)
    for (int yy = 0; yy < H; ++yy)
      for (int xx = 0; xx < W; ++xx) {
        int acc = 0;
        for (int c = 0; c < C; ++c)
          for (int ky = 0; ky < 3; ++ky)
            for (int kx = 0; kx < 3; ++kx) {
              const int iy = yy + ky - 1, ix = xx + kx - 1;
              const int code = iy < 0 || iy >= H || ix < 0 || ix >= W ? int(zero) : q[(c * H + iy) * W + ix];
              acc += (code - int(zero)) * (int(w[((o * C + c) * 3 + ky) * 3 + kx]) - 3);
            }
        want[(o * H + yy) * W + xx] = float(acc) * s;
      }
  auto net = BuildNet(r);
  EXPECT_EQ(RunNet(net.get(), {x})[0], want);
}

}  // namespace
}  // namespace qzdl::test
