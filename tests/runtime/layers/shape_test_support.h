// Helpers shared by the tests of the data-movement layers (reshape,
// split_slice, upsample, padding, shuffle_channel): one-layer nets, reading
// ONNX node data and fixtures, and the message of a failing build.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <vector>

#include "runtime/json11.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl::test::shape {

struct Tensor {
  std::vector<int> dims;
  std::vector<float> values;
};

inline Tensor FromOnnx(const OnnxTensor& t) { return {t.IntDims(), t.values}; }

// input_0.pb, output_1.pb, ... of the first data set of an ONNX node test.
inline Tensor OnnxNode(const std::string& test_case, const std::string& file) {
  return FromOnnx(ReadOnnxTensor(OnnxCase("node", test_case) + "/test_data_set_0/" + file + ".pb"));
}

// Integer contents of an ONNX node tensor (shapes, pads, split sizes).
inline std::vector<int> OnnxNodeInts(const std::string& test_case, const std::string& file) {
  const OnnxTensor t =
      ReadOnnxTensor(OnnxCase("node", test_case) + "/test_data_set_0/" + file + ".pb");
  return std::vector<int>(t.ints.begin(), t.ints.end());
}

// tests/fixtures/<family>/<name>.pb
inline Tensor Fixture(const std::string& family, const std::string& name) {
  return FromOnnx(
      ReadOnnxTensor(std::string(QZDL_TEST_DATA_DIR) + "/" + family + "/" + name + ".pb"));
}

// Current shape and contents of a tensor of the net.
inline Tensor Read(Net<float>* net, const std::string& name) {
  Data<float>* d = net->GetData(name);
  if (d == nullptr) {
    ADD_FAILURE() << "no tensor " << name;
    return {};
  }
  const float* p = d->GetCpuData();
  return {d->GetDims(), std::vector<float>(p, p + d->Count(0))};
}

// Feeds `x` to net input 0 and runs the whole net.
inline void Feed(Net<float>* net, const Tensor& x) {
  std::vector<float> v = x.values;
  net->SetFloatInputData(v.data(), 0);
  net->ForwardAll();
}

// Output names y0, y1, ... (or "y" for a single output).
inline std::vector<std::string> OutputNames(int outputs) {
  if (outputs == 1) return {"y"};
  std::vector<std::string> names;
  for (int i = 0; i < outputs; ++i) names.push_back("y" + std::to_string(i));
  return names;
}

// Builds input "x" -> one layer "l" -> `outputs` outputs, runs it on `x`.
inline std::vector<Tensor> RunLayer(const std::string& type, const json11::Json::object& param,
                                    const Tensor& x, int outputs = 1) {
  NetBuilder b;
  b.Input("x", x.dims).Layer("l", type, {"x"}, OutputNames(outputs), param);
  auto net = b.Build();
  Feed(net.get(), x);
  std::vector<Tensor> result;
  for (const std::string& name : OutputNames(outputs)) result.push_back(Read(net.get(), name));
  return result;
}

using test::BuildError;

// The build error of input "x" of `dims` -> one layer "l" of `type`.
inline std::string LayerError(const std::string& type, const json11::Json::object& param,
                              const std::vector<int>& dims, int outputs = 1) {
  NetBuilder b;
  b.Input("x", dims).Layer("l", type, {"x"}, OutputNames(outputs), param);
  return BuildError(b);
}

// Expects equal shapes and bit-equal values.
inline void ExpectSame(const Tensor& got, const Tensor& want) {
  EXPECT_EQ(got.dims, want.dims);
  ASSERT_EQ(got.values.size(), want.values.size());
  size_t bad = 0;
  for (size_t i = 0; i < got.values.size(); ++i)
    if (!(got.values[i] == want.values[i]) && bad++ < 5)
      ADD_FAILURE() << "element " << i << ": got " << got.values[i] << ", want " << want.values[i];
  EXPECT_EQ(bad, 0u) << "elements differ";
}

}  // namespace qzdl::test::shape
