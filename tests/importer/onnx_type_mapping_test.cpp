// ONNX operators that mean exactly a layer type of the tool's tables import
// as that type: DepthToSpace in mode CRD as ShufflePixel (DCR stays
// DepthToSpace), a Slice that reverses whole axes as Flip, a Gemm with A
// transposed as Gemm, the comparisons as BinaryOp. Each case checks the
// exact layer types and runs the net against ONNX's stored outputs (or hand
// values).
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "importer/onnx_importer.h"
#include "importer/onnx_test_util.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test {
namespace {

struct TypeCase {
  const char* name;
  int dynamic;  // the first `dynamic` inputs are fed at run time, the rest become constants
  const char* types;
  double atol, rtol;
};

void PrintTo(const TypeCase& c, std::ostream* os) { *os << c.name; }

class OnnxTypeMappingTest : public testing::TestWithParam<TypeCase> {};

TEST_P(OnnxTypeMappingTest, WritesTheTypeAndMatchesStoredOutputs) {
  const TypeCase& tc = GetParam();
  const std::string dir = OnnxCase("node", tc.name);
  const std::string data = dir + "/test_data_set_0";
  OnnxImportOptions options;
  std::vector<std::vector<float>> feeds;
  for (int k = 0; FileExists(data + "/input_" + std::to_string(k) + ".pb"); ++k) {
    const std::string file = data + "/input_" + std::to_string(k) + ".pb";
    const OnnxTensor t = ReadOnnxTensor(file);
    if (k < tc.dynamic) {
      feeds.push_back(t.values);
    } else {
      options.constant_inputs[t.name] = ReadFile(file);
    }
  }
  OnnxImportResult result;
  try {
    result = ImportOnnxFile(dir + "/model.onnx", options);
  } catch (const OnnxImportError& e) {
    FAIL() << e.what();
  }
  EXPECT_EQ(Types(result), tc.types) << result.net_json;
  auto net = BuildNet(result);
  ASSERT_TRUE(net);
  const auto outs = RunNet(net.get(), feeds);
  const OnnxTensor want = ReadOnnxTensor(data + "/output_0.pb");
  std::vector<float> values = want.values;
  if (values.empty()) values.assign(want.ints.begin(), want.ints.end());  // bool outputs
  ASSERT_EQ(outs.size(), 1u);
  ASSERT_EQ(outs[0].size(), values.size());
  EXPECT_LE(ToleranceRatio(outs[0], values, tc.atol, tc.rtol), 1.0) << result.net_json;
}

const TypeCase kCases[] = {
    {"test_depthtospace_crd_mode_example", 1, "ShufflePixel ", 0, 0},
    {"test_depthtospace_example", 1, "DepthToSpace ", 0, 0},
    {"test_gemm_transposeA", 1, "Gemm ", 1e-5, 1e-5},
    {"test_greater", 2, "BinaryOp ", 0, 0},
    {"test_greater_equal_bcast", 2, "BinaryOp ", 0, 0},
    {"test_less", 2, "BinaryOp ", 0, 0},
    {"test_less_equal_bcast", 2, "BinaryOp ", 0, 0},
};

INSTANTIATE_TEST_SUITE_P(Node, OnnxTypeMappingTest, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<TypeCase>& info) {
                           return std::string(info.param.name).substr(5);
                         });

void AddInt64Init(onnx::ModelProto* m, const std::string& name, const std::vector<int64_t>& v) {
  auto* t = m->mutable_graph()->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::INT64);
  t->add_dims(static_cast<int64_t>(v.size()));
  for (int64_t x : v) t->add_int64_data(x);
}

// x [1, 2, 2, 3] sliced with steps -1 from -1 to INT64_MIN on `axes`.
onnx::ModelProto ReverseModel(const std::vector<int64_t>& axes, int64_t start) {
  onnx::ModelProto m = EmptyModel(13);
  AddFloatInput(m.mutable_graph(), "x", {1, 2, 2, 3});
  AddInt64Init(&m, "starts", std::vector<int64_t>(axes.size(), start));
  AddInt64Init(&m, "ends", std::vector<int64_t>(axes.size(), INT64_MIN));
  AddInt64Init(&m, "axes", axes);
  AddInt64Init(&m, "steps", std::vector<int64_t>(axes.size(), -1));
  AddNode(&m, "Slice", "rev", {"x", "starts", "ends", "axes", "steps"}, {"y"});
  AddOutput(&m, "y");
  return m;
}

TEST(OnnxTypeMapping, SliceReversingWholeAxesIsFlip) {
  std::vector<float> x(12);
  for (int i = 0; i < 12; ++i) x[i] = static_cast<float>(i);
  const OnnxImportResult r =
      ImportOnnxBytes(ReverseModel({1, -1}, -1).SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(Types(r), "Flip ") << r.net_json;
  EXPECT_NE(r.net_json.find("\"axes\": [1, 3]"), std::string::npos) << r.net_json;
  auto net = BuildNet(r);
  // Channels swapped, each row reversed.
  EXPECT_EQ(RunNet(net.get(), {x})[0], (std::vector<float>{8, 7, 6, 11, 10, 9, 2, 1, 0, 5, 4, 3}));
  // Starting one before the end keeps Crop (the last element is dropped).
  const OnnxImportResult part =
      ImportOnnxBytes(ReverseModel({3}, -2).SerializeAsString(), "m.onnx", ".");
  EXPECT_EQ(Types(part), "Crop ") << part.net_json;
}

}  // namespace
}  // namespace qzdl::test
