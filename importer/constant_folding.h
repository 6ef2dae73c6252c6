// A small evaluator for the nodes of an ONNX graph whose inputs are all
// constant (the shape arithmetic that exporters emit: Shape -> Gather ->
// Unsqueeze -> Concat -> Reshape and the like).
#pragma once

#include <string>
#include <vector>

#include "importer/const_tensor.h"

namespace onnx {
class NodeProto;
}  // namespace onnx

namespace qzdl::onnx_import {

// True when EvaluateNode knows `op_type` (domain "").
bool CanEvaluate(const std::string& op_type);

// Evaluates `node` on constant inputs (`inputs[k]` is null for an absent
// optional input). Shape and Size are not handled here (they need only the
// input's shape). Throws FoldError.
std::vector<ConstTensor> EvaluateNode(const onnx::NodeProto& node, int opset,
                                      const std::vector<const ConstTensor*>& inputs,
                                      const std::string& base_dir);

}  // namespace qzdl::onnx_import
