// The type names the importer writes where the runtime has a layer under the
// name the converter's type tables use: Pad in modes reflect and edge as
// ReflectionPadding and ReplicationPadding, LpNormalization (p = 2) as
// L2Normalization. Each model is a few nodes built here; the imported net
// runs and is compared with hand values or a plain reference.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "importer/onnx_importer.h"
#include "importer/onnx_test_util.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

void AddInt64Init(onnx::ModelProto* m, const std::string& name, const std::vector<int64_t>& v) {
  auto* t = m->mutable_graph()->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::INT64);
  t->add_dims(static_cast<int64_t>(v.size()));
  for (int64_t x : v) t->add_int64_data(x);
}

void SetInt(onnx::NodeProto* n, const std::string& name, int64_t v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(v);
}

void SetStr(onnx::NodeProto* n, const std::string& name, const std::string& v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::STRING);
  a->set_s(v);
}

OnnxImportResult Import(const onnx::ModelProto& m) {
  return ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
}

std::string ImportMessage(const onnx::ModelProto& m) {
  try {
    Import(m);
  } catch (const OnnxImportError& e) {
    return e.what();
  }
  return "";
}

// x [1, 1, 2, 3] -> Pad (operator set 13, constant pads) -> y.
onnx::ModelProto PadModel(const std::string& mode, const std::vector<int64_t>& pads) {
  onnx::ModelProto m = EmptyModel(13);
  AddFloatInput(m.mutable_graph(), "x", {1, 1, 2, 3});
  AddInt64Init(&m, "pads", pads);
  SetStr(AddNode(&m, "Pad", "pad", {"x", "pads"}, {"y"}), "mode", mode);
  AddOutput(&m, "y");
  return m;
}

TEST(OnnxLayerTypes, PadModesHaveTheirOwnTypes) {
  struct Case {
    std::string mode, type;
    std::vector<int64_t> pads;  // [n0, c0, h0, w0, n1, c1, h1, w1]
    std::vector<float> want;
  };
  const std::vector<float> x = {1, 2, 3, 4, 5, 6};
  for (const Case& c : {
           Case{"reflect",
                "ReflectionPadding",
                {0, 0, 1, 2, 0, 0, 0, 0},
                {6, 5, 4, 5, 6, 3, 2, 1, 2, 3, 6, 5, 4, 5, 6}},
           Case{"edge",
                "ReplicationPadding",
                {0, 0, 0, 0, 0, 0, 2, 1},
                {1, 2, 3, 3, 4, 5, 6, 6, 4, 5, 6, 6, 4, 5, 6, 6}},
           Case{"constant",
                "Padding",
                {0, 0, 1, 0, 0, 0, 0, 1},
                {0, 0, 0, 0, 1, 2, 3, 0, 4, 5, 6, 0}},
       }) {
    SCOPED_TRACE(c.mode);
    const OnnxImportResult r = Import(PadModel(c.mode, c.pads));
    const json11::Json layers = Layers(r);
    ASSERT_EQ(layers.array_items().size(), 1u) << r.net_json;
    EXPECT_EQ(layers[0]["type"].string_value(), c.type);
    // The fixed modes carry no mode or fill value.
    EXPECT_EQ(layers[0]["param"]["mode"].is_null(), c.mode != "constant") << r.net_json;
    auto net = BuildNet(r);
    EXPECT_EQ(RunNet(net.get(), {x})[0], c.want);
  }
}

// x of `dims` -> LpNormalization -> y.
onnx::ModelProto LpModel(const std::vector<int64_t>& dims, int64_t axis, int64_t p = 2) {
  onnx::ModelProto m = EmptyModel(13);
  AddFloatInput(m.mutable_graph(), "x", dims);
  onnx::NodeProto* n = AddNode(&m, "LpNormalization", "lp", {"x"}, {"y"});
  SetInt(n, "axis", axis);
  SetInt(n, "p", p);
  AddOutput(&m, "y");
  return m;
}

// Plain reference: x / sqrt(sum of squares along `axis`), 0 for a zero vector.
std::vector<float> L2Reference(const std::vector<float>& x, const std::vector<int>& dims,
                               int axis) {
  int64_t outer = 1, inner = 1;
  for (int k = 0; k < axis; ++k) outer *= dims[k];
  for (size_t k = axis + 1; k < dims.size(); ++k) inner *= dims[k];
  const int64_t n = dims[axis];
  std::vector<float> y(x.size());
  for (int64_t o = 0; o < outer; ++o)
    for (int64_t i = 0; i < inner; ++i) {
      double sum = 0;
      for (int64_t k = 0; k < n; ++k)
        sum += double(x[(o * n + k) * inner + i]) * x[(o * n + k) * inner + i];
      for (int64_t k = 0; k < n; ++k) {
        const int64_t at = (o * n + k) * inner + i;
        y[at] = sum == 0 ? 0.0f : static_cast<float>(x[at] / std::sqrt(sum));
      }
    }
  return y;
}

TEST(OnnxLayerTypes, LpNormalizationBecomesL2Normalization) {
  struct Case {
    std::vector<int> dims;
    int64_t axis;
    std::vector<std::string> types;
  };
  for (const Case& c : {
           Case{{2, 5, 3, 4}, 1, {"L2Normalization"}},
           Case{{2, 5}, -1, {"L2Normalization"}},
           Case{{2, 3, 6}, -1, {"Permute", "L2Normalization", "Permute"}},
           Case{{4, 3, 2}, 0, {"Permute", "L2Normalization", "Permute"}},
       }) {
    SCOPED_TRACE(std::to_string(c.dims.size()) + "-d, axis " + std::to_string(c.axis));
    const OnnxImportResult r =
        Import(LpModel(std::vector<int64_t>(c.dims.begin(), c.dims.end()), c.axis));
    const json11::Json layers = Layers(r);
    std::vector<std::string> types;
    for (const json11::Json& l : layers.array_items()) types.push_back(l["type"].string_value());
    EXPECT_EQ(types, c.types) << r.net_json;
    int64_t count = 1;
    for (int d : c.dims) count *= d;
    std::vector<float> x = RandomVector(count, 71, -2.0f, 2.0f);
    // One vector of zeros along the axis gives zeros, as in ONNX.
    const int axis = static_cast<int>(c.axis < 0 ? c.axis + c.dims.size() : c.axis);
    int64_t inner = 1;
    for (size_t k = axis + 1; k < c.dims.size(); ++k) inner *= c.dims[k];
    for (int k = 0; k < c.dims[axis]; ++k) x[k * inner] = 0.0f;
    auto net = BuildNet(r);
    const std::vector<float> got = RunNet(net.get(), {x})[0];
    EXPECT_LE(ToleranceRatio(got, L2Reference(x, c.dims, axis), 1e-6, 1e-5), 1.0);
  }
}

TEST(OnnxLayerTypes, LpNormalizationRefusals) {
  EXPECT_EQ(ImportMessage(LpModel({2, 3}, 1, 1)),
            "node \"lp\" (LpNormalization): attribute \"p\" value 1 is not supported (only p = 2 "
            "maps to L2Normalization)");
  EXPECT_EQ(ImportMessage(LpModel({3}, 0)),
            "node \"lp\" (LpNormalization): input of rank 1; L2Normalization needs 2 axes");
}

}  // namespace
}  // namespace qzdl::test
