// Helpers shared by the Convolution, Deconvolution and InnerProduct tests:
// blobs read from ONNX node data and fixtures, one-layer nets with weights,
// running them and comparing within tolerances.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "runtime/json11.h"
#include "runtime/net.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

// Own namespace: other layer tests have helpers of the same names and
// parameters (OnnxData, Fixture) that return other types.
namespace qzdl::test::weighted {

struct Blob {
  std::vector<int> dims;
  std::vector<float> values;
};

inline Blob FromOnnx(const OnnxTensor& t) { return {t.IntDims(), t.values}; }

// input_0.pb, output_0.pb, ... of the first data set of an ONNX test case.
inline Blob OnnxData(const std::string& group, const std::string& name, const std::string& file) {
  return FromOnnx(ReadOnnxTensor(OnnxCase(group, name) + "/test_data_set_0/" + file + ".pb"));
}

// tests/fixtures/convolution/<name>.pb
inline Blob Fixture(const std::string& name) {
  return FromOnnx(
      ReadOnnxTensor(std::string(QZDL_TEST_DATA_DIR) + "/convolution/" + name + ".pb"));
}

// A net of the input "data" and one layer `layer` of `type` writing "out",
// with the blobs "weight" and "bias" where given.
inline NetBuilder OneLayer(const std::string& layer, const std::string& type,
                           const json11::Json::object& param, const std::vector<int>& in_dims,
                           const Blob* w, const Blob* b) {
  NetBuilder nb;
  nb.Input("data", in_dims).Layer(layer, type, {"data"}, {"out"}, param);
  if (w != nullptr) nb.Weight(layer, "weight", w->dims, w->values);
  if (b != nullptr) nb.Weight(layer, "bias", b->dims, b->values);
  return nb;
}

// Builds that one-layer net, runs it on x and returns the output.
inline Blob RunOneLayer(const std::string& layer, const std::string& type,
                        const json11::Json::object& param, const Blob& x, const Blob& w,
                        const Blob* b, bool frugal = false) {
  std::unique_ptr<Net<float>> net;
  try {
    net = OneLayer(layer, type, param, x.dims, &w, b).Build(frugal);
  } catch (std::exception* e) {
    delete e;
    ADD_FAILURE() << "building the " << type << " net failed";
    return {};
  }
  std::vector<float> input = x.values;
  net->SetFloatInputData(input.data(), 0);
  net->ForwardAll();
  const Data<float>* y = net->GetOutputData(0);
  return {y->GetDims(), std::vector<float>(y->GetCpuData(), y->GetCpuData() + y->Count(0))};
}

// |got - want| <= atol + rtol * |want| everywhere, and the same dims.
inline void ExpectBlobsClose(const Blob& got, const Blob& want, double atol, double rtol) {
  ASSERT_EQ(got.dims, want.dims);
  EXPECT_LE(ToleranceRatio(got.values, want.values, atol, rtol), 1.0);
}

}  // namespace qzdl::test::weighted
