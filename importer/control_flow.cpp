#include "importer/control_flow.h"

#include <onnx/onnx_pb.h>

#include <set>
#include <string>

#include "importer/const_tensor.h"
#include "importer/graph_passes.h"

namespace qzdl::onnx_import {

namespace {

const onnx::GraphProto* Branch(const onnx::NodeProto& node, const std::string& name) {
  for (const auto& attr : node.attribute())
    if (attr.name() == name && attr.has_g()) return &attr.g();
  return nullptr;
}

// Names the graph defines: inputs, initializers, node outputs.
std::set<std::string> DefinedNames(const onnx::GraphProto& g) {
  std::set<std::string> names;
  for (const auto& in : g.input()) names.insert(in.name());
  for (const auto& init : g.initializer()) names.insert(init.name());
  for (const auto& node : g.node())
    for (const auto& out : node.output())
      if (!out.empty()) names.insert(out);
  return names;
}

}  // namespace

bool InlineConstantIfs(onnx::GraphProto* graph, MappingContext* c) {
  bool changed = false;
  for (int k = 0; k < graph->node_size(); ++k) {
    const onnx::NodeProto& node = graph->node(k);
    if (node.op_type() != "If" || node.input_size() < 1) continue;
    auto cond = c->consts.find(node.input(0));
    if (cond == c->consts.end()) continue;
    const std::string title = NodeTitle(node, k);
    if (cond->second.Count() != 1) {
      throw OnnxImportError(title + ": the condition " + Quote(node.input(0)) + " has " +
                            std::to_string(cond->second.Count()) +
                            " elements; an If condition holds one");
    }
    const bool take_then = cond->second.Get(0) != 0.0;
    const char* which = take_then ? "then_branch" : "else_branch";
    const onnx::GraphProto* branch = Branch(node, which);
    if (branch == nullptr) throw OnnxImportError(title + ": attribute " + Quote(which) + " is missing");
    if (branch->output_size() != node.output_size()) {
      throw OnnxImportError(title + ": " + which + " has " + std::to_string(branch->output_size()) +
                            " outputs for the node's " + std::to_string(node.output_size()));
    }
    // The branch's names must not clash with the enclosing graph's.
    std::set<std::string> outer = DefinedNames(*graph);
    for (const auto& kv : c->consts) outer.insert(kv.first);
    for (const std::string& name : DefinedNames(*branch)) {
      if (outer.count(name)) {
        throw OnnxImportError(title + ": " + which + " defines " + Quote(name) +
                              ", which the enclosing graph defines too");
      }
    }
    for (const auto& init : branch->initializer()) {
      try {
        c->consts[init.name()] = TensorFromProto(init, c->BaseDir());
        // Shape inference reads constants from the graph's initializers.
        graph->add_initializer()->CopyFrom(ToProto(c->consts[init.name()], init.name()));
      } catch (const std::exception& e) {
        throw OnnxImportError(title + ": initializer " + Quote(init.name()) + " of " + which +
                              " " + e.what());
      }
    }
    // The If's place: the branch's nodes, then an Identity per result.
    const std::string prefix = NodeName(node, k) + "/";
    google::protobuf::RepeatedPtrField<onnx::NodeProto> nodes;
    for (int j = 0; j < k; ++j) nodes.Add()->CopyFrom(graph->node(j));
    for (int j = 0; j < branch->node_size(); ++j) {
      onnx::NodeProto* inner = nodes.Add();
      inner->CopyFrom(branch->node(j));
      inner->set_name(prefix + (inner->name().empty()
                                    ? inner->op_type() + "_" + std::to_string(j)
                                    : inner->name()));
    }
    for (int j = 0; j < node.output_size(); ++j) {
      if (node.output(j).empty()) continue;
      onnx::NodeProto* id = nodes.Add();
      id->set_op_type("Identity");
      id->set_name(prefix + "result_" + std::to_string(j));
      id->add_input(branch->output(j).name());
      id->add_output(node.output(j));
    }
    for (int j = k + 1; j < graph->node_size(); ++j) nodes.Add()->CopyFrom(graph->node(j));
    graph->mutable_node()->Swap(&nodes);
    changed = true;
    --k;  // look at the first inlined node again (a nested If)
  }
  return changed;
}

namespace {

std::string ComputedCondition(const std::string& cond) {
  return "the condition " + Quote(cond) +
         " is computed from the net's inputs; only an If whose condition is a constant (after "
         "constant folding, or given with --constant-input) is supported";
}

}  // namespace

void RefuseComputedIfs(const onnx::GraphProto& graph) {
  for (int k = 0; k < graph.node_size(); ++k) {
    const onnx::NodeProto& node = graph.node(k);
    if (node.op_type() == "If" && node.input_size() > 0)
      throw OnnxImportError(NodeTitle(node, k) + ": " + ComputedCondition(node.input(0)));
  }
}

void AddControlFlowMappers(MapperTable& t) {
  t["If"] = [](MappingContext& c) { c.Fail(ComputedCondition(c.InputName(0))); };
}

}  // namespace qzdl::onnx_import
