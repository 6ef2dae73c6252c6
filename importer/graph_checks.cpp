#include "importer/graph_checks.h"

#include <onnx/defs/schema.h>
#include <onnx/onnx_pb.h>
#include <onnx/shape_inference/implementation.h>

#include <climits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "importer/constant_folding.h"
#include "importer/mapping_context.h"

namespace qzdl::onnx_import {

namespace {

std::string Count(int64_t n, const std::string& what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// "takes 2", "takes 2 to 3", "takes at least 1".
std::string Range(int lo, int hi, bool know_max) {
  if (!know_max || hi == INT_MAX) return "at least " + std::to_string(lo);
  if (lo == hi) return std::to_string(lo);
  return std::to_string(lo) + " to " + std::to_string(hi);
}

// The newest version of the default operator set that the ONNX library knows.
int LibraryOpset() {
  const auto& map = onnx::OpSchemaRegistry::DomainToVersionRange::Instance().Map();
  auto it = map.find(onnx::ONNX_DOMAIN);
  return it == map.end() ? 0 : it->second.second;
}

// Operators the importer handles. The "qzdl." ones only come from fusion.
bool Known(const std::string& op) {
  if (op.rfind("qzdl.", 0) == 0) return false;
  return Mappers().count(op) || CanEvaluate(op) || op == "Shape" || op == "Size";
}

std::string AttrTypeName(int type) {
  return onnx::AttributeProto_AttributeType_IsValid(type)
             ? onnx::AttributeProto_AttributeType_Name(
                   static_cast<onnx::AttributeProto_AttributeType>(type))
             : std::to_string(type);
}

void CheckSchema(const onnx::NodeProto& node, int index, const onnx::OpSchema& schema,
                 bool newer_opset) {
  const std::string title = NodeTitle(node, index);
  // Newer versions of an operator than the library's may take more inputs,
  // outputs and attributes; what the library's version needs still holds.
  const bool know_max = !newer_opset;
  if (node.input_size() < schema.min_input() ||
      (know_max && node.input_size() > schema.max_input())) {
    throw ImportError(title + ": " + Count(node.input_size(), "input") +
                      " given; the operator takes " +
                      Range(schema.min_input(), schema.max_input(), know_max));
  }
  if (node.output_size() < schema.min_output() ||
      (know_max && node.output_size() > schema.max_output())) {
    throw ImportError(title + ": " + Count(node.output_size(), "output") +
                      " given; the operator has " +
                      Range(schema.min_output(), schema.max_output(), know_max));
  }
  const auto& formal = schema.inputs();
  for (int k = 0; k < node.input_size() && k < static_cast<int>(formal.size()); ++k) {
    if (node.input(k).empty() && formal[k].GetOption() == onnx::OpSchema::Single) {
      throw ImportError(title + ": required input " + std::to_string(k) + " (" +
                        formal[k].GetName() + ") is empty");
    }
  }
  std::set<std::string> seen;
  for (const auto& a : node.attribute()) {
    if (!seen.insert(a.name()).second) {
      throw ImportError(title + ": attribute " + Quote(a.name()) + " is given twice");
    }
    auto it = schema.attributes().find(a.name());
    if (it == schema.attributes().end() || a.type() == onnx::AttributeProto::UNDEFINED) continue;
    if (a.type() != it->second.type) {
      throw ImportError(title + ": attribute " + Quote(a.name()) + " has type " +
                        AttrTypeName(a.type()) + "; the operator takes " +
                        AttrTypeName(it->second.type));
    }
  }
  if (newer_opset) return;
  for (const auto& kv : schema.attributes()) {
    if (kv.second.required && !seen.count(kv.first)) {
      throw ImportError(title + ": required attribute " + Quote(kv.first) + " is missing");
    }
  }
}

// Shape inference with checks. Each node carries its index in an extra
// attribute while inference runs, so that a check can name the node.
constexpr const char* kNodeTag = "qzdl.node";
thread_local const onnx::GraphProto* g_inferred_graph = nullptr;

std::string Axes(int64_t n) { return std::to_string(n) + (n == 1 ? " axis" : " axes"); }

// What one check sees of the node under inference.
class InferenceView {
 public:
  InferenceView(const std::string& op, onnx::InferenceContext& ctx) : op_(op), ctx_(ctx) {
    const onnx::AttributeProto* tag = ctx.getAttribute(kNodeTag);
    if (tag && g_inferred_graph && tag->i() >= 0 && tag->i() < g_inferred_graph->node_size() &&
        g_inferred_graph->node(static_cast<int>(tag->i())).op_type() == op) {
      index_ = static_cast<int>(tag->i());
      node_ = &g_inferred_graph->node(index_);
    }
  }
  // The shape of input k when inference knows it.
  const onnx::TensorShapeProto* Shape(size_t k) const {
    if (k >= ctx_.getNumInputs()) return nullptr;
    const onnx::TypeProto* t = ctx_.getInputType(k);
    if (!t || !t->has_tensor_type() || !t->tensor_type().has_shape()) return nullptr;
    return &t->tensor_type().shape();
  }
  const onnx::AttributeProto* Attr(const std::string& name) const {
    return ctx_.getAttribute(name);
  }
  // "input 1 ("W")"
  std::string In(int k) const {
    std::string s = "input " + std::to_string(k);
    if (node_ && k < node_->input_size()) s += " (" + Quote(node_->input(k)) + ")";
    return s;
  }
  [[noreturn]] void Fail(const std::string& message) const {
    const std::string title = node_ ? NodeTitle(*node_, index_) : "a node (" + op_ + ")";
    throw ImportError(title + ": " + message);
  }

 private:
  const std::string& op_;
  onnx::InferenceContext& ctx_;
  const onnx::NodeProto* node_ = nullptr;
  int index_ = 0;
};

// Convolutions and pooling: the library sizes its per-axis tables from the
// data's rank and indexes them by the weights' rank and the attributes.
void CheckConvLike(const InferenceView& v, bool has_weights) {
  const onnx::TensorShapeProto* x = v.Shape(0);
  if (!x) return;
  const int rank = x->dim_size();
  if (rank < 3) {
    v.Fail(v.In(0) + " has " + Axes(rank) + "; the operator needs at least 3 (N, C and a spatial " +
           "axis)");
  }
  const onnx::TensorShapeProto* w = has_weights ? v.Shape(1) : nullptr;
  if (w && w->dim_size() != rank) {
    v.Fail(v.In(1) + " has " + Axes(w->dim_size()) + " and " + v.In(0) + " " + Axes(rank) +
           "; they must have the same number");
  }
  const int spatial = rank - 2;
  for (const char* name : {"kernel_shape", "strides", "dilations", "pads", "output_padding"}) {
    const onnx::AttributeProto* a = v.Attr(name);
    if (!a) continue;
    const int want = std::string(name) == "pads" ? 2 * spatial : spatial;
    if (a->ints_size() != want) {
      v.Fail("attribute " + Quote(name) + " has " + Count(a->ints_size(), "value") + "; " +
             v.In(0) + " has " + Axes(spatial) + " after N and C, so it needs " +
             std::to_string(want));
    }
    if (std::string(name) == "strides" || std::string(name) == "dilations") {
      for (int64_t s : a->ints()) {
        if (s < 1)
          v.Fail("attribute " + Quote(name) + " has value " + std::to_string(s) +
                 "; it must be positive");
      }
    }
  }
}

// Input k, when its shape is known, has `lo` to `hi` axes.
void CheckRank(const InferenceView& v, size_t k, int lo, int hi) {
  const onnx::TensorShapeProto* x = v.Shape(k);
  if (!x || (x->dim_size() >= lo && x->dim_size() <= hi)) return;
  v.Fail(v.In(static_cast<int>(k)) + " has " + Axes(x->dim_size()) + "; the operator takes " +
         (hi == INT_MAX ? "at least " + std::to_string(lo)
          : lo == hi    ? std::to_string(lo)
                        : std::to_string(lo) + " to " + std::to_string(hi)));
}

// An axis attribute (default `def`) that the inference function uses as an
// index into the axes of input 0.
void CheckAxis(const InferenceView& v, const std::string& name, int64_t def) {
  CheckRank(v, 0, 1, INT_MAX);
  const onnx::TensorShapeProto* x = v.Shape(0);
  if (!x) return;
  const onnx::AttributeProto* a = v.Attr(name);
  const int64_t axis = a ? a->i() : def;
  const int64_t rank = x->dim_size();
  if (axis < -rank || axis >= rank) {
    v.Fail("attribute " + Quote(name) + " value " + std::to_string(axis) + " is outside [" +
           std::to_string(-rank) + ", " + std::to_string(rank - 1) + "] for " + v.In(0) + " of " +
           Axes(rank));
  }
}

using Check = void (*)(const InferenceView&);

const std::map<std::string, Check>& Checks() {
  static const std::map<std::string, Check> checks = {
      {"Conv", [](const InferenceView& v) { CheckConvLike(v, true); }},
      {"ConvInteger", [](const InferenceView& v) { CheckConvLike(v, true); }},
      {"ConvTranspose", [](const InferenceView& v) { CheckConvLike(v, true); }},
      {"MaxPool", [](const InferenceView& v) { CheckConvLike(v, false); }},
      {"AveragePool", [](const InferenceView& v) { CheckConvLike(v, false); }},
      {"LayerNormalization", [](const InferenceView& v) { CheckAxis(v, "axis", -1); }},
      {"Gemm",
       [](const InferenceView& v) {
         CheckRank(v, 0, 2, 2);
         CheckRank(v, 1, 2, 2);
       }},
  };
  return checks;
}

// The library's schemas, those with checks wrapped around their inference.
class CheckedSchemas final : public onnx::ISchemaRegistry {
 public:
  const onnx::OpSchema* GetSchema(const std::string& key, const int version,
                                  const std::string& domain) const override {
    const onnx::OpSchema* schema = onnx::OpSchemaRegistry::Schema(key, version, domain);
    if (!schema || !schema->has_type_and_shape_inference_function() || !domain.empty()) {
      return schema;
    }
    auto check = Checks().find(key);
    if (check == Checks().end()) return schema;
    std::lock_guard<std::mutex> lock(mutex_);
    std::unique_ptr<onnx::OpSchema>& copy = copies_[schema];
    if (!copy) {
      copy = std::make_unique<onnx::OpSchema>(*schema);
      const onnx::InferenceFunction infer = schema->GetTypeAndShapeInferenceFunction();
      const std::string op = key;
      const Check run = check->second;
      copy->TypeAndShapeInferenceFunction([infer, op, run](onnx::InferenceContext& ctx) {
        run(InferenceView(op, ctx));
        infer(ctx);
      });
    }
    return copy.get();
  }

 private:
  mutable std::mutex mutex_;
  mutable std::map<const onnx::OpSchema*, std::unique_ptr<onnx::OpSchema>> copies_;
};

// Tags the nodes of `graph` for the time of one inference.
class NodeTags {
 public:
  explicit NodeTags(onnx::GraphProto* graph) : graph_(graph) {
    for (int k = 0; k < graph->node_size(); ++k) {
      onnx::AttributeProto* a = graph->mutable_node(k)->add_attribute();
      a->set_name(kNodeTag);
      a->set_type(onnx::AttributeProto::INT);
      a->set_i(k);
    }
    g_inferred_graph = graph;
  }
  ~NodeTags() {
    g_inferred_graph = nullptr;
    for (auto& node : *graph_->mutable_node()) {
      if (node.attribute_size() > 0 &&
          node.attribute(node.attribute_size() - 1).name() == kNodeTag) {
        node.mutable_attribute()->RemoveLast();
      }
    }
  }
  NodeTags(const NodeTags&) = delete;
  NodeTags& operator=(const NodeTags&) = delete;

 private:
  onnx::GraphProto* graph_;
};

}  // namespace

void CheckNames(const onnx::GraphProto& graph) {
  std::set<std::string> inputs, inits, outputs;
  for (int k = 0; k < graph.input_size(); ++k) {
    const std::string& name = graph.input(k).name();
    if (name.empty()) throw ImportError("graph input " + std::to_string(k) + " has no name");
    if (!inputs.insert(name).second) {
      throw ImportError("graph input " + Quote(name) + " is declared twice");
    }
  }
  for (int k = 0; k < graph.initializer_size(); ++k) {
    const std::string& name = graph.initializer(k).name();
    if (name.empty()) throw ImportError("initializer " + std::to_string(k) + " has no name");
    if (!inits.insert(name).second) {
      throw ImportError("initializer " + Quote(name) + " is given twice");
    }
  }
  std::map<std::string, int> producer;
  for (int k = 0; k < graph.node_size(); ++k) {
    const onnx::NodeProto& node = graph.node(k);
    if (node.op_type().empty()) {
      throw ImportError("node " + (node.name().empty() ? std::to_string(k) : Quote(node.name())) +
                        " has no operator type (op_type is empty)");
    }
    for (const auto& out : node.output()) {
      if (out.empty()) continue;  // an optional output left out
      std::string before;
      if (inputs.count(out)) {
        before = "a graph input";
      } else if (inits.count(out)) {
        before = "an initializer";
      } else if (producer.count(out)) {
        before = "an output of " + NodeTitle(graph.node(producer[out]), producer[out]);
      }
      if (!before.empty()) {
        throw ImportError(NodeTitle(node, k) + ": output " + Quote(out) + " is already " + before +
                          "; every tensor name must be defined once");
      }
      producer[out] = k;
    }
  }
  for (const auto& out : graph.output()) {
    if (!outputs.insert(out.name()).second) {
      throw ImportError("graph output " + Quote(out.name()) + " is listed twice");
    }
  }
}

void CheckNodes(const onnx::GraphProto& graph, int opset) {
  const int library_opset = LibraryOpset();
  for (int k = 0; k < graph.node_size(); ++k) {
    const onnx::NodeProto& node = graph.node(k);
    const std::string& op = node.op_type();
    // The message the mapping would give for this node later on.
    if (!Known(op))
      throw ImportError(NodeTitle(node, k) + ": operator " + Quote(op) + " is not supported");
    const onnx::OpSchema* schema = onnx::OpSchemaRegistry::Schema(op, opset, onnx::ONNX_DOMAIN);
    if (!schema) {
      // Operators newer than the library are mapped without its help.
      if (opset > library_opset) continue;
      throw ImportError(NodeTitle(node, k) + ": operator set " + std::to_string(opset) +
                        " has no operator " + Quote(op));
    }
    CheckSchema(node, k, *schema, opset > library_opset);
  }
}

void InferShapesChecked(onnx::ModelProto* model) {
  static const CheckedSchemas schemas;
  try {
    NodeTags tags(model->mutable_graph());
    onnx::ShapeInferenceOptions options(false, 0, false);
    onnx::shape_inference::InferShapes(*model, &schemas, options);
  } catch (const ImportError&) {
    throw;
  } catch (const std::exception& e) {
    throw ImportError(std::string("ONNX shape inference failed: ") + e.what());
  }
}

}  // namespace qzdl::onnx_import
