// ONNX's integer operators of dynamically quantized models, emulated on the
// float runtime as ONNX defines them.
#pragma once

#include "importer/mapping_context.h"

namespace onnx {
class GraphProto;
}  // namespace onnx

namespace qzdl::onnx_import {

inline constexpr const char* kIntegerSumsAttr = "qzdl.integer_sums";

// Rewrites every ConvInteger with constant weights (and weight zero points)
// into a Conv on float values: the input minus its zero point (a Sub, when
// the node has one) convolved with the weights minus theirs, as float
// weights "<output>/weight". The Conv carries the attribute
// kIntegerSumsAttr, so that its mapping writes "ConvInteger" (exact integer
// sums, as ONNX's int32 ones) instead of "Convolution". Call after constant
// folding: the new tensors get their shapes here.
void LowerIntegerOps(onnx::GraphProto* graph, MappingContext* c);

// "DynamicQuantizeLinear" onto the runtime layer of that name.
void AddIntegerMappers(MapperTable& table);

}  // namespace qzdl::onnx_import
