// A dynamically quantized convolution as quantizing exporters write it:
// DynamicQuantizeLinear, ConvInteger with constant int8 weights and zero
// points, Cast, Mul by the two scales; against the integer arithmetic ONNX
// defines, computed here. And a QDQ model: weights dequantized at import,
// activation grids written as the converter's preset ranges.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include "importer/integer_ops.h"
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
  EXPECT_EQ(types,
            "DynamicQuantizeLinear BroadcastOp ConvInteger Constant BroadcastOp BroadcastOp ")
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
              const int code =
                  iy < 0 || iy >= H || ix < 0 || ix >= W ? int(zero) : q[(c * H + iy) * W + ix];
              acc += (code - int(zero)) * (int(w[((o * C + c) * 3 + ky) * 3 + kx]) - 3);
            }
        want[(o * H + yy) * W + xx] = float(acc) * s;
      }
  auto net = BuildNet(r);
  EXPECT_EQ(RunNet(net.get(), {x})[0], want);
}

onnx::TensorProto* AddCodes(onnx::GraphProto* g, const std::string& name, int type,
                            const std::vector<int64_t>& dims, const std::vector<int>& values) {
  auto* t = g->add_initializer();
  t->set_name(name);
  t->set_data_type(type);
  for (int64_t d : dims) t->add_dims(d);
  std::string raw;
  for (int v : values) raw.push_back(static_cast<char>(v));
  t->set_raw_data(raw);
  return t;
}

void CastToFloat(onnx::ModelProto* m, const std::string& in, const std::string& out) {
  auto* to = Node(m, "Cast", out, {in}, {out})->add_attribute();
  to->set_name("to");
  to->set_type(onnx::AttributeProto::INT);
  to->set_i(onnx::TensorProto::FLOAT);
}

// DynamicQuantizeLinear's codes of x, computed as ONNX defines them.
std::vector<int> Codes(const std::vector<float>& x, int* zero_point) {
  float lo = 0, hi = 0;
  for (float v : x) lo = std::min(lo, v), hi = std::max(hi, v);
  const float scale = (hi - lo) / 255.0f;
  const float zero = std::nearbyint(std::min(255.0f, std::max(0.0f, -lo / scale)));
  *zero_point = static_cast<int>(zero);
  std::vector<int> q(x.size());
  for (size_t i = 0; i < x.size(); ++i)
    q[i] = int(std::min(255.0f, std::max(0.0f, std::nearbyint(x[i] / scale) + zero)));
  return q;
}

// Sums of 1152 products of large codes (beyond 2^24, where float sums of
// whole numbers round): the output is ONNX's integer sum, rounded to float
// once, not what a float accumulation gives.
TEST(OnnxIntegerOps, ConvIntegerSumsExactlyBeyondFloat) {
  const int C = 128, M = 3, H = 4, W = 5, OH = H - 2, OW = W - 2;
  onnx::ModelProto m = EmptyModel(13);
  onnx::GraphProto* g = m.mutable_graph();
  AddFloatInput(g, "x", {1, C, H, W});
  std::vector<int> w(size_t(M) * C * 9);
  for (size_t i = 0; i < w.size(); ++i) w[i] = 100 + int(i * 37 % 28);
  AddCodes(g, "w", onnx::TensorProto::INT8, {M, C, 3, 3}, w);
  Node(&m, "DynamicQuantizeLinear", "quant", {"x"}, {"q", "q_scale", "q_zero"});
  Node(&m, "ConvInteger", "conv", {"q", "w", "q_zero"}, {"acc"});
  CastToFloat(&m, "acc", "y");
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  std::string types;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
  EXPECT_EQ(types, "DynamicQuantizeLinear BroadcastOp ConvInteger Dropout ") << r.net_json;

  const std::vector<float> x = RandomVector(size_t(C) * H * W, 7, 0.8f, 1.0f);
  int zero = 0;
  const std::vector<int> q = Codes(x, &zero);
  std::vector<float> want(size_t(M) * OH * OW);
  int rounded = 0;  // outputs that a float accumulation in tap order gets wrong
  for (int o = 0; o < M; ++o)
    for (int yy = 0; yy < OH; ++yy)
      for (int xx = 0; xx < OW; ++xx) {
        int64_t acc = 0;
        float facc = 0.0f;
        for (int c = 0; c < C; ++c)
          for (int ky = 0; ky < 3; ++ky)
            for (int kx = 0; kx < 3; ++kx) {
              const int64_t prod = int64_t(q[(c * H + yy + ky) * W + xx + kx] - zero) *
                                   w[((o * C + c) * 3 + ky) * 3 + kx];
              acc += prod;
              facc += static_cast<float>(prod);
            }
        want[(o * OH + yy) * OW + xx] = static_cast<float>(acc);
        rounded += facc != static_cast<float>(acc);
      }
  EXPECT_GT(want[0], 16777216.0f);
  EXPECT_GT(rounded, 0);
  auto net = BuildNet(r);
  EXPECT_EQ(RunNet(net.get(), {x})[0], want);
}

TEST(OnnxIntegerOps, ConvIntegerOf3dDataIsRefused) {
  onnx::ModelProto m = EmptyModel(13);
  onnx::GraphProto* g = m.mutable_graph();
  AddFloatInput(g, "x", {1, 1, 2, 2, 2});
  AddCodes(g, "w", onnx::TensorProto::UINT8, {1, 1, 1, 1, 1}, {3});
  Node(&m, "DynamicQuantizeLinear", "quant", {"x"}, {"q", "q_scale", "q_zero"});
  Node(&m, "ConvInteger", "conv", {"q", "w", "q_zero"}, {"acc"});
  CastToFloat(&m, "acc", "y");
  AddOutput(&m, "y");
  std::string message;
  try {
    ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  } catch (const OnnxImportError& e) {
    message = e.what();
  }
  EXPECT_EQ(message, "node \"conv\" (Conv): ConvInteger of 3-d data is not supported");
}

// MatMulInteger as ONNX defines it: (A - a_zero) x (B - b_zero) in
// integers; zero points per tensor, per row of A and per column of B; and
// sums of 1200 products of large codes (beyond 2^24), exact where a float
// accumulation rounds.
TEST(OnnxIntegerOps, MatMulIntegerWithZeroPointsPerRowAndColumn) {
  const int M = 3, N = 4;
  enum Case { kPerTensor, kPerRow, kLargeSums };
  for (Case tc : {kPerTensor, kPerRow, kLargeSums}) {
    SCOPED_TRACE(tc == kPerTensor ? "per tensor" : tc == kPerRow ? "per row" : "large sums");
    const bool per_row = tc == kPerRow, large = tc == kLargeSums;
    const int K = large ? 1200 : 200;
    onnx::ModelProto m = EmptyModel(13);
    onnx::GraphProto* g = m.mutable_graph();
    AddFloatInput(g, "x", {M, K});
    std::vector<int> b(size_t(K) * N);
    for (size_t i = 0; i < b.size(); ++i) b[i] = large ? 200 + int(i * 53 % 56) : int(i * 53 % 256);
    AddCodes(g, "b", onnx::TensorProto::UINT8, {K, N}, b);
    const std::vector<int> b_zero = large ? std::vector<int>{0, 0, 0, 0}
                                          : std::vector<int>{3, 128, 255, 0},
                           a_rows = {7, 130, 250};
    AddCodes(g, "b_zero", onnx::TensorProto::UINT8, {N}, b_zero);
    AddCodes(g, "a_rows", onnx::TensorProto::UINT8, {M}, a_rows);
    Node(&m, "DynamicQuantizeLinear", "quant", {"x"}, {"q", "q_scale", "q_zero"});
    Node(&m, "MatMulInteger", "mm", {"q", "b", per_row ? "a_rows" : "q_zero", "b_zero"}, {"acc"});
    CastToFloat(&m, "acc", "y");
    AddOutput(&m, "y");
    const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
    std::string types;
    const json11::Json layers = Layers(r);
    for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
    EXPECT_EQ(types, std::string("DynamicQuantizeLinear ") + (per_row ? "Constant " : "") +
                         "BroadcastOp Reshape ConvInteger Reshape Dropout ")
        << r.net_json;
    const std::vector<float> x = large ? RandomVector(size_t(M) * K, 9, 0.8f, 1.0f)
                                       : RandomVector(size_t(M) * K, 9, -1.0f, 2.0f);
    int zero = 0;
    const std::vector<int> q = Codes(x, &zero);
    std::vector<float> want(size_t(M) * N);
    int rounded = 0;  // outputs that a float accumulation in K order gets wrong
    for (int i = 0; i < M; ++i)
      for (int j = 0; j < N; ++j) {
        int64_t acc = 0;
        float facc = 0.0f;
        for (int k = 0; k < K; ++k) {
          const int64_t p =
              int64_t(q[i * K + k] - (per_row ? a_rows[i] : zero)) * (b[k * N + j] - b_zero[j]);
          acc += p;
          facc += static_cast<float>(p);
        }
        want[i * N + j] = static_cast<float>(acc);
        rounded += facc != want[i * N + j];
      }
    if (large) {
      EXPECT_GT(rounded, 0);
    }
    auto net = BuildNet(r);
    EXPECT_EQ(RunNet(net.get(), {x})[0], want);
  }
}

TEST(OnnxIntegerOps, QdqModelDequantizesWeightsAndPresetsRanges) {
  // x -> QuantizeLinear(0.05, 128) -> DequantizeLinear -> Conv 1x1 with
  // weights DequantizeLinear(int8 codes, per-channel scales 0.5 and 0.25)
  // -> Relu.
  onnx::ModelProto m = EmptyModel(13);
  onnx::GraphProto* g = m.mutable_graph();
  AddFloatInput(g, "x", {1, 2, 2, 2});
  auto add = [g](const std::string& name, int type, const std::vector<int64_t>& dims,
                 const std::string& raw) {
    auto* t = g->add_initializer();
    t->set_name(name);
    t->set_data_type(type);
    for (int64_t d : dims) t->add_dims(d);
    t->set_raw_data(raw);
  };
  const float s_x = 0.05f, s_w[2] = {0.5f, 0.25f};
  add("s_x", onnx::TensorProto::FLOAT, {}, std::string(reinterpret_cast<const char*>(&s_x), 4));
  add("z_x", onnx::TensorProto::UINT8, {}, std::string(1, static_cast<char>(128)));
  const int8_t w[4] = {2, -4, 8, 1};
  add("w_q", onnx::TensorProto::INT8, {2, 2, 1, 1},
      std::string(reinterpret_cast<const char*>(w), 4));
  add("s_w", onnx::TensorProto::FLOAT, {2}, std::string(reinterpret_cast<const char*>(s_w), 8));
  add("z_w", onnx::TensorProto::INT8, {2}, std::string(2, '\0'));
  AddNode(&m, "QuantizeLinear", "q", {"x", "s_x", "z_x"}, {"xq"});
  AddNode(&m, "DequantizeLinear", "dq", {"xq", "s_x", "z_x"}, {"xd"});
  auto* wdq = AddNode(&m, "DequantizeLinear", "wdq", {"w_q", "s_w", "z_w"}, {"w"});
  auto* axis = wdq->add_attribute();
  axis->set_name("axis");
  axis->set_type(onnx::AttributeProto::INT);
  axis->set_i(0);
  AddNode(&m, "Conv", "conv", {"xd", "w"}, {"c"});
  AddNode(&m, "Relu", "relu", {"c"}, {"y"});
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  std::string types;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items()) types += l["type"].string_value() + " ";
  EXPECT_EQ(types, "Convolution ReLU ") << r.net_json;
  ASSERT_EQ(r.blobs.size(), 1u);
  EXPECT_EQ(r.blobs[0].values, (std::vector<float>{1.0f, -2.0f, 2.0f, 0.25f}));
  // The grid of x: codes 0..255 around 128 at 0.05.
  EXPECT_EQ(r.preset_count, 1);
  EXPECT_EQ(r.preset_json,
            "{\"presetConfig\": {\"data\": [{\"axis\": 0, \"dataName\": \"x\", \"max\": "
            "[6.3500000946223736], \"min\": [-6.4000000953674316]}], \"weight\": []}}\n");
  // The tool writes the same ranges with the net, for the converter's -l.
  const std::string dir = TempDir("qdq");
  {
    std::ofstream f(dir + "/qdq.onnx", std::ios::binary);
    f << m.SerializeAsString();
  }
  const ToolRun run = RunOnnx2Net("'" + dir + "/qdq.onnx' '" + dir + "/net.json' '" + dir +
                                  "/net.bin' --preset-ranges '" + dir + "/preset.json'");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find(", " + dir + "/preset.json (1 ranges)"), std::string::npos) << run.out;
  EXPECT_EQ(ReadFile(dir + "/preset.json"), r.preset_json);
  auto net = BuildNet(r);
  const std::vector<float> x = {1, -1, 2, 0.5f, 0.25f, 3, -2, 1};
  const auto out = RunNet(net.get(), {x});
  for (int p = 0; p < 4; ++p) {
    EXPECT_EQ(out[0][p], std::max(0.0f, 1.0f * x[p] - 2.0f * x[4 + p])) << p;
    EXPECT_EQ(out[0][4 + p], std::max(0.0f, 2.0f * x[p] + 0.25f * x[4 + p])) << p;
  }
}

// A fuzzer finding: LowerIntegerOps asked for the shape of an input that
// shape inference did not give, outside any node's mapping (a null node in
// the error path). The shape now stays unknown for the mapping to report.
TEST(OnnxIntegerOps, LoweringLeavesUnknownShapesToTheMapping) {
  onnx::ModelProto m = EmptyModel(13);
  onnx::GraphProto* g = m.mutable_graph();
  Node(&m, "ConvInteger", "conv", {"q", "w", "q_zero"}, {"acc"});
  onnx_import::MappingContext c(13, ".");
  onnx_import::ConstTensor w = onnx_import::ConstTensor::Sized(onnx_import::kInt8, {1, 1, 1, 1});
  w.i = {2};
  c.consts["w"] = w;
  onnx_import::LowerIntegerOps(g, &c);
  ASSERT_EQ(g->node_size(), 2);
  EXPECT_EQ(g->node(0).op_type(), "Sub");
  EXPECT_EQ(g->node(1).op_type(), "Conv");
  EXPECT_EQ(c.shapes.count("acc/centred"), 0u);
  EXPECT_EQ(c.consts.at("acc/weight").Floats(), (std::vector<float>{2.0f}));
}

}  // namespace
}  // namespace qzdl::test
