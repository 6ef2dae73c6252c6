// Control flow of ONNX graphs: an If whose condition is a constant is
// replaced by the nodes of the branch it takes.
#pragma once

#include "importer/mapping_context.h"

namespace onnx {
class GraphProto;
}  // namespace onnx

namespace qzdl::onnx_import {

// Replaces every If of `graph` whose condition is among `c->consts` by the
// nodes of the branch the condition selects: the branch's initializers
// join the constants, its nodes take the If's place (named
// "<If node>/<node>"), and Identity nodes give its results the If's output
// names. Returns whether anything changed. A branch that defines a name the
// enclosing graph defines too is refused naming the If node.
bool InlineConstantIfs(onnx::GraphProto* graph, MappingContext* c);

// After constant folding: an If left in `graph` has a condition computed
// from the net's inputs, which the runtime cannot take. The first one is
// refused naming the node and its condition, before any node is mapped.
void RefuseComputedIfs(const onnx::GraphProto& graph);

// "If", so that the checks before folding know the operator (the mapping
// itself is never reached: see RefuseComputedIfs).
void AddControlFlowMappers(MapperTable& table);

}  // namespace qzdl::onnx_import
