// Checks that keep malformed graphs away from ONNX shape inference. The ONNX
// library's inference functions trust the graph (names defined once, inputs
// and attributes as the operator's schema says, ranks that agree with each
// other); a damaged model could make them read out of bounds. These checks
// refuse such a model with a message naming the node instead.
#pragma once

namespace onnx {
class GraphProto;
class ModelProto;
}  // namespace onnx

namespace qzdl::onnx_import {

// Before the nodes are named: every node has an operator type, and every
// tensor name is defined once (graph inputs, initializers, node outputs;
// an initializer may also be listed as a graph input, as older models do),
// graph outputs are listed once. Throws ImportError.
void CheckNames(const onnx::GraphProto& graph);

// Every node's operator is one the importer can map or evaluate, exists in
// operator set `opset`, and the node matches its schema: input and output
// counts, required inputs present, required attributes present and every
// attribute of the type the schema gives. Throws ImportError.
void CheckNodes(const onnx::GraphProto& graph, int opset);

// onnx::shape_inference::InferShapes on `model`, whose inference functions
// first check what they rely on in the shapes they are given (for example
// that a convolution's weights have as many axes as its data). Throws
// ImportError naming the node when a check fails, or when inference itself
// throws.
void InferShapesChecked(onnx::ModelProto* model);

}  // namespace qzdl::onnx_import
