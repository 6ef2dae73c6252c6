// Reads the serialized tensors of the ONNX test data (TensorProto files,
// "input_0.pb", "output_0.pb") without a protobuf library: the wire format
// of that one message is small.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qzdl::test {

struct OnnxTensor {
  std::string name;
  int data_type = 0;  // ONNX element type code: 1 float, 6 int32, 7 int64, 11 double, ...
  std::vector<int64_t> dims;
  std::vector<float> values;  // every element type converted to float
  std::vector<int64_t> ints;  // integer element types, unconverted
  int64_t Count() const;
  std::vector<int> IntDims() const { return std::vector<int>(dims.begin(), dims.end()); }
};

// Fails the current test (and returns an empty tensor) on unreadable input.
OnnxTensor ReadOnnxTensor(const std::string& path);

// Directory of one ONNX test case, e.g. OnnxCase("node", "test_conv_with_strides_padding").
std::string OnnxCase(const std::string& group, const std::string& name);

// Largest |a-b| / (atol + rtol*|b|) over both vectors: <= 1 means within tolerance.
double ToleranceRatio(const std::vector<float>& got, const std::vector<float>& want, double atol,
                      double rtol);

}  // namespace qzdl::test
