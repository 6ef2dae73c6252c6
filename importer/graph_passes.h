// Passes over the ONNX graph before its nodes are mapped onto layers.
#pragma once

#include <cstdint>
#include <string>

namespace onnx {
class GraphProto;
class ModelProto;
class TensorProto;
}  // namespace onnx

namespace qzdl::onnx_import {

class MappingContext;
struct ConstTensor;

// Constants with more elements enter shape inference without their values.
constexpr int64_t kInferenceDataLimit = 256;

// The initializer form of `t`; values only up to kInferenceDataLimit elements.
onnx::TensorProto ToProto(const ConstTensor& t, const std::string& name);

// Gives every unnamed node the name "<op_type>_<index>".
void NameNodes(onnx::GraphProto* graph);

// Alternates ONNX shape inference and constant folding until neither learns
// anything new. Folded nodes leave the graph; their outputs join
// `c->consts` (and the graph's initializers), the shapes of the remaining
// tensors go to `c->shapes`.
void FoldConstants(onnx::ModelProto* model, int opset, MappingContext* c);

// Replaces node groups that compute one activation by a single node of a
// private operator: x * 0.5 * (1 + erf(x / sqrt(2))) -> "qzdl.Gelu",
// x * sigmoid(x) -> "qzdl.Swish", x * hardsigmoid(x) -> "qzdl.HardSwish",
// MatMul(x, W) + b with constant W and b -> "qzdl.MatMulAdd".
void FusePatterns(onnx::GraphProto* graph, MappingContext* c);

}  // namespace qzdl::onnx_import
