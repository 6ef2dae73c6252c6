// Small net descriptions for the targets that fuzz weights or data.
#pragma once

namespace qzdl_fuzz {

// The example net's layers on an 8x8 input, so a run stays cheap; its
// weights are examples/small_cnn/net.bin.
inline const char* kSmallNet = R"({"inputs": [{"name": "data", "dims": [1, 3, 8, 8]}], "layers": [
{"name": "conv1", "type": "Convolution", "inputs": ["data"], "outputs": ["conv1"],
 "param": {"num_output": 16, "kernel_size": 3, "stride": 1, "pad": 1, "group": 1, "bias_term": true}},
{"name": "bn1", "type": "BatchNormal", "inputs": ["conv1"], "outputs": ["conv1"],
 "param": {"affine": true, "eps": 1e-05}},
{"name": "relu1", "type": "ReLU", "inputs": ["conv1"], "outputs": ["conv1"], "param": {}},
{"name": "pool1", "type": "Pooling", "inputs": ["conv1"], "outputs": ["pool1"],
 "param": {"pool": "max", "kernel_size": 2, "stride": 2}},
{"name": "conv2_dw", "type": "Convolution", "inputs": ["pool1"], "outputs": ["conv2_dw"],
 "param": {"num_output": 16, "kernel_size": 3, "stride": 1, "pad": 1, "group": 16, "bias_term": true}},
{"name": "relu2", "type": "ReLUX", "inputs": ["conv2_dw"], "outputs": ["conv2_dw"], "param": {"threshold": 6.0}},
{"name": "conv2", "type": "Convolution", "inputs": ["conv2_dw"], "outputs": ["conv2"],
 "param": {"num_output": 32, "kernel_size": 1, "stride": 1, "pad": 0, "group": 1, "bias_term": true}},
{"name": "relu3", "type": "ReLU", "inputs": ["conv2"], "outputs": ["conv2"], "param": {}},
{"name": "pool2", "type": "Pooling", "inputs": ["conv2"], "outputs": ["pool2"],
 "param": {"pool": "ave", "global_pooling": true}},
{"name": "fc", "type": "InnerProduct", "inputs": ["pool2"], "outputs": ["fc"], "param": {"num_output": 10}},
{"name": "prob", "type": "Softmax", "inputs": ["fc"], "outputs": ["prob"], "param": {"axis": 1}}]})";

// The small net with a quantization section (every tensor on [-4, 4],
// "conv2" kept in float), for the targets that load quantized models.
inline const char* kSmallQuantizedSection = R"("quantization": {"version": 1, "hybrid": true,
 "tensors": [{"name": "data", "data_type": "int8", "min": -4, "max": 4},
 {"name": "conv1", "data_type": "int8", "min": -4, "max": 4},
 {"name": "pool1", "data_type": "int8", "min": -4, "max": 4},
 {"name": "conv2_dw", "data_type": "int8", "min": -4, "max": 4},
 {"name": "conv2", "data_type": "float", "min": -4, "max": 4},
 {"name": "pool2", "data_type": "int8", "min": -4, "max": 4},
 {"name": "fc", "data_type": "int8", "min": -4, "max": 4},
 {"name": "prob", "data_type": "int8", "min": 0, "max": 1}]})";

// Two inputs of 4 and 2 floats, for the data-set readers.
inline const char* kTwoInputs = R"({"inputs": [{"name": "a", "dims": [1, 1, 2, 2]},
  {"name": "b", "dims": [1, 2]}], "layers": [
  {"name": "fa", "type": "Flatten", "inputs": ["a"], "outputs": ["fa"], "param": {}},
  {"name": "cat", "type": "Concat", "inputs": ["fa", "b"], "outputs": ["out"], "param": {"axis": 1}}]})";

}  // namespace qzdl_fuzz
