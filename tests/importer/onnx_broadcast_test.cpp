// Element-wise operators with NumPy broadcasting beyond Add, Sub, Mul and
// Div: Max, Min and Mean of inputs of different shapes (a one-element
// constant among them, as real exports have), and Pow with a computed or
// per-element exponent.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

TEST(OnnxBroadcast, MaxWithAOneElementConstant) {
  // y = max(x, 0.25) for x [1, 2, 3]: the constant broadcasts.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 2, 3});
  AddFloatInit(m.mutable_graph(), "c", {1}, {0.25f});
  AddNode(&m, "Max", "max", {"x", "c"}, {"y"});
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(Types(r), "Constant BroadcastOp ") << r.net_json;
  auto net = BuildNet(r);
  const std::vector<float> x = {-1.0f, 0.0f, 0.25f, 0.5f, 2.0f, -0.75f};
  const auto out = RunNet(net.get(), {x});
  EXPECT_EQ(out[0], (std::vector<float>{0.25f, 0.25f, 0.25f, 0.5f, 2.0f, 0.25f}));
}

TEST(OnnxBroadcast, MinAndMeanOfThreeShapes) {
  // min(a, b, c) and mean(a, b, c) for a [2, 3], b [3], c [2, 1].
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "a", {2, 3});
  AddFloatInput(m.mutable_graph(), "b", {3});
  AddFloatInput(m.mutable_graph(), "c", {2, 1});
  AddNode(&m, "Min", "min", {"a", "b", "c"}, {"lo"});
  AddNode(&m, "Mean", "mean", {"a", "b", "c"}, {"avg"});
  AddOutput(&m, "lo");
  AddOutput(&m, "avg");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(Types(r), "BroadcastOp BroadcastOp BroadcastOp BroadcastOp Power ") << r.net_json;
  auto net = BuildNet(r);
  const std::vector<float> a = {1, -2, 3, 4, 5, -6}, b = {0.5f, 0, 7}, c = {2, -1};
  const auto out = RunNet(net.get(), {a, b, c});
  std::vector<float> lo(6), avg(6);
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 3; ++j) {
      const float p = a[i * 3 + j], q = b[j], s = c[i];
      lo[i * 3 + j] = std::min({p, q, s});
      avg[i * 3 + j] = (p + q + s) / 3;
    }
  }
  EXPECT_EQ(out[0], lo);
  EXPECT_LE(ToleranceRatio(out[1], avg, 1e-6, 1e-6), 1.0);
}

TEST(OnnxBroadcast, PowWithAComputedExponent) {
  // y = x ^ relu(e), e computed from an input, and z = 2 ^ x (a constant
  // base) both run element by element.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {4});
  AddFloatInput(m.mutable_graph(), "e", {4});
  AddFloatInit(m.mutable_graph(), "two", {}, {2.0f});
  AddNode(&m, "Relu", "relu", {"e"}, {"re"});
  AddNode(&m, "Pow", "pow", {"x", "re"}, {"y"});
  AddNode(&m, "Pow", "exp2", {"two", "x"}, {"z"});
  AddOutput(&m, "y");
  AddOutput(&m, "z");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(Types(r), "ReLU BroadcastOp Constant BroadcastOp ") << r.net_json;
  auto net = BuildNet(r);
  const std::vector<float> x = {1.5f, 2.0f, 0.5f, 3.0f}, e = {2.0f, -1.0f, 0.5f, 3.0f};
  const auto out = RunNet(net.get(), {x, e});
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(out[0][i], std::pow(x[i], std::max(e[i], 0.0f))) << i;
    EXPECT_EQ(out[1][i], std::pow(2.0f, x[i])) << i;
  }
}

TEST(OnnxBroadcast, ScalarReductionAndComputedClipBound) {
  // y = clip(x, max(x) - 1, 0.5), as a log-mel front end limits its range:
  // ReduceMax of every axis without keepdims gives a scalar (held as [1]),
  // and Clip's lower bound is computed.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {2, 3});
  AddFloatInit(m.mutable_graph(), "one", {}, {1.0f});
  AddFloatInit(m.mutable_graph(), "half", {}, {0.5f});
  onnx::NodeProto* reduce = AddNode(&m, "ReduceMax", "top", {"x"}, {"top"});
  auto* keep = reduce->add_attribute();
  keep->set_name("keepdims");
  keep->set_type(onnx::AttributeProto::INT);
  keep->set_i(0);
  AddNode(&m, "Sub", "floor", {"top", "one"}, {"floor"});
  AddNode(&m, "Clip", "clip", {"x", "floor", "half"}, {"y"});
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(Types(r), "Reduce Reshape Constant BroadcastOp BroadcastOp Constant BroadcastOp ")
      << r.net_json;
  auto net = BuildNet(r);
  const std::vector<float> x = {-2.0f, 0.25f, 1.5f, 0.75f, 0.0f, 1.0f};
  const auto out = RunNet(net.get(), {x});
  EXPECT_EQ(out[0], (std::vector<float>{0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f}));
  const std::vector<float> x2 = {-2.0f, 0.25f, 0.3f, 0.45f, 0.0f, -0.25f};
  EXPECT_EQ(RunNet(net.get(), {x2})[0],
            (std::vector<float>{-0.55f, 0.25f, 0.3f, 0.45f, 0.0f, -0.25f}));
}

}  // namespace
}  // namespace qzdl::test
