#include "importer/graph_passes.h"

#include <onnx/onnx_pb.h>

#include <cmath>
#include <map>
#include <set>

#include "importer/control_flow.h"
#include "importer/mapping_context.h"
#include "importer/graph_checks.h"

namespace qzdl::onnx_import {

onnx::TensorProto ToProto(const ConstTensor& t, const std::string& name) {
  onnx::TensorProto p;
  p.set_name(name);
  for (int64_t d : t.dims) p.add_dims(d);
  // Shape inference reads the values of small constants only (shapes, axes);
  // large ones go in as type and dims, which is all it needs of them.
  const int64_t n = t.Count() <= kInferenceDataLimit ? t.Count() : 0;
  if (t.type == kDouble) {
    p.set_data_type(kDouble);
    for (int64_t k = 0; k < n; ++k) p.add_double_data(t.f[k]);
  } else if (t.IsFloat()) {
    p.set_data_type(kFloat);
    for (int64_t k = 0; k < n; ++k) p.add_float_data(static_cast<float>(t.f[k]));
  } else if (t.type == kInt64) {
    p.set_data_type(kInt64);
    for (int64_t k = 0; k < n; ++k) p.add_int64_data(t.i[k]);
  } else if (t.type == kUint32 || t.type == kUint64) {
    p.set_data_type(t.type);
    for (int64_t k = 0; k < n; ++k) p.add_uint64_data(static_cast<uint64_t>(t.i[k]));
  } else {
    p.set_data_type(t.type);
    for (int64_t k = 0; k < n; ++k) p.add_int32_data(static_cast<int32_t>(t.i[k]));
  }
  return p;
}

namespace {

// The error for `message` about `node` (named by NameNodes).
ImportError NodeError(const onnx::NodeProto& node, const std::string& message) {
  return ImportError("node " + Quote(node.name()) + " (" + node.op_type() + "): " + message);
}

bool StaticShape(const onnx::TypeProto& type, Shape* dims) {
  if (!type.has_tensor_type() || !type.tensor_type().has_shape()) return false;
  dims->clear();
  for (const auto& d : type.tensor_type().shape().dim()) {
    if (!d.has_dim_value() || d.dim_value() < 0) return false;
    dims->push_back(d.dim_value());
  }
  return true;
}

// Operators whose output 0 has the shape of input 0; used where the ONNX
// library at hand has no schema for the operator's version.
bool KeepsShape(const std::string& op) {
  static const std::set<std::string> ops = {"Relu",
                                            "LeakyRelu",
                                            "PRelu",
                                            "Elu",
                                            "Selu",
                                            "Sigmoid",
                                            "HardSigmoid",
                                            "HardSwish",
                                            "Swish",
                                            "Tanh",
                                            "Softplus",
                                            "Softsign",
                                            "Mish",
                                            "Gelu",
                                            "Erf",
                                            "Clip",
                                            "Softmax",
                                            "LogSoftmax",
                                            "Identity",
                                            "Dropout",
                                            "Abs",
                                            "Neg",
                                            "Sqrt",
                                            "Exp",
                                            "Log",
                                            "Reciprocal",
                                            "LRN",
                                            "InstanceNormalization",
                                            "RMSNormalization",
                                            "GroupNormalization",
                                            "BatchNormalization",
                                            "Celu",
                                            "ThresholdedRelu"};
  return ops.count(op) > 0;
}

void ReadShapes(const onnx::GraphProto& graph, MappingContext* c) {
  Shape dims;
  auto take = [&](const onnx::ValueInfoProto& vi) {
    if (c->consts.count(vi.name())) return;
    if (StaticShape(vi.type(), &dims)) c->shapes[vi.name()] = dims;
  };
  for (const auto& vi : graph.value_info()) take(vi);
  for (const auto& vi : graph.output()) take(vi);
}

// Folds the nodes of one pass; returns whether anything changed.
bool FoldPass(onnx::GraphProto* graph, int opset, MappingContext* c) {
  bool changed = false;
  google::protobuf::RepeatedPtrField<onnx::NodeProto> kept;
  for (const auto& node : graph->node()) {
    const std::string& op = node.op_type();
    bool all_const = true;
    for (const auto& in : node.input()) all_const &= in.empty() || c->consts.count(in) > 0;
    std::vector<ConstTensor> outs;
    try {
      if ((op == "Shape" || op == "Size") && node.input_size() >= 1 &&
          (c->shapes.count(node.input(0)) || c->consts.count(node.input(0)))) {
        const Shape s = c->shapes.count(node.input(0)) ? c->shapes[node.input(0)]
                                                       : c->consts[node.input(0)].dims;
        if (op == "Size") {
          ConstTensor t = ConstTensor::Make(kInt64, {});
          t.i[0] = CheckedProduct(s);
          outs.push_back(t);
        } else {
          const int64_t rank = s.size();
          int64_t start = 0, end = rank;
          for (const auto& a : node.attribute()) {
            if (a.name() == "start") start = a.i();
            if (a.name() == "end") end = a.i();
          }
          if (start < 0) start += rank;
          if (end < 0) end += rank;
          start = std::clamp<int64_t>(start, 0, rank);
          end = std::clamp<int64_t>(end, start, rank);
          outs.push_back(ConstTensor::Int64s(Shape(s.begin() + start, s.begin() + end)));
        }
      } else if (op == "CastLike" && node.input_size() == 2 && c->consts.count(node.input(0)) &&
                 !c->consts.count(node.input(1))) {
        // Tensors computed at run time are float, so a constant cast like one
        // becomes a float constant.
        ConstTensor f = ConstTensor::Make(kFloat, {});
        std::vector<const ConstTensor*> ins = {&c->consts[node.input(0)], &f};
        outs = EvaluateNode(node, opset, ins, c->BaseDir());
      } else if (all_const && CanEvaluate(op)) {
        std::vector<const ConstTensor*> ins;
        for (const auto& in : node.input()) ins.push_back(in.empty() ? nullptr : &c->consts[in]);
        outs = EvaluateNode(node, opset, ins, c->BaseDir());
      }
    } catch (const FoldError& e) {
      throw NodeError(node, e.what());
    } catch (const ShapeOverflow& e) {
      throw NodeError(node, e.what());
    }
    // Every output the node names must get a value (Dropout's mask does not).
    bool complete = !outs.empty();
    for (int k = static_cast<int>(outs.size()); k < node.output_size(); ++k) {
      complete &= node.output(k).empty();
    }
    if (!complete) {
      *kept.Add() = node;
      continue;
    }
    for (size_t k = 0; k < outs.size() && k < static_cast<size_t>(node.output_size()); ++k) {
      const std::string& name = node.output(k);
      if (name.empty()) continue;
      *graph->add_initializer() = ToProto(outs[k], name);
      c->shapes.erase(name);
      c->consts[name] = std::move(outs[k]);
    }
    changed = true;
  }
  graph->mutable_node()->Swap(&kept);
  return changed;
}

// Adds the shapes ONNX inference left out for shape-keeping operators.
bool FillKnownShapes(onnx::GraphProto* graph, MappingContext* c) {
  bool changed = false;
  for (const auto& node : graph->node()) {
    if (!KeepsShape(node.op_type()) || node.input_size() < 1 || node.output_size() < 1) continue;
    const std::string& in = node.input(0);
    const std::string& out = node.output(0);
    if (c->shapes.count(out) || !c->shapes.count(in)) continue;
    const Shape dims = c->shapes[in];
    c->shapes[out] = dims;
    onnx::ValueInfoProto* vi = graph->add_value_info();
    vi->set_name(out);
    auto* tt = vi->mutable_type()->mutable_tensor_type();
    tt->set_elem_type(kFloat);
    for (int64_t d : dims) tt->mutable_shape()->add_dim()->set_dim_value(d);
    changed = true;
  }
  return changed;
}

const onnx::AttributeProto* FindAttr(const onnx::NodeProto& n, const std::string& name) {
  for (const auto& a : n.attribute()) {
    if (a.name() == name) return &a;
  }
  return nullptr;
}

void RemoveAttr(onnx::NodeProto* n, const std::string& name) {
  for (int k = 0; k < n->attribute_size(); ++k) {
    if (n->attribute(k).name() == name) {
      n->mutable_attribute()->DeleteSubrange(k, 1);
      return;
    }
  }
}

const ConstTensor* ConstInput(const onnx::NodeProto& n, int k, MappingContext* c) {
  if (k >= n.input_size() || n.input(k).empty()) return nullptr;
  auto it = c->consts.find(n.input(k));
  return it == c->consts.end() ? nullptr : &it->second;
}

// Adds constant `t` under a new name derived from `base`; returns the name.
std::string AddConst(onnx::GraphProto* graph, MappingContext* c, const std::string& base,
                     ConstTensor t) {
  std::string name = base;
  for (int n = 1; c->consts.count(name) || c->shapes.count(name); ++n) {
    name = base + "_" + std::to_string(n);
  }
  *graph->add_initializer() = ToProto(t, name);
  c->consts[name] = std::move(t);
  return name;
}

// Rewrites nodes of operator set 18 and later into the form of the older
// schemas that the ONNX library at hand knows (inputs that became attributes
// and back), so that its shape inference gives the right shapes. The mappers
// accept both forms.
bool AdaptNewerForms(onnx::GraphProto* graph, int opset, MappingContext* c) {
  if (opset < 18) return false;
  bool changed = false;
  for (auto& node : *graph->mutable_node()) {
    const std::string& op = node.op_type();
    auto rank_of = [&](int k) -> int64_t {
      auto it = c->shapes.find(node.input(k));
      return it == c->shapes.end() ? -1 : static_cast<int64_t>(it->second.size());
    };
    if (op.rfind("Reduce", 0) == 0 && op != "ReduceSum" && node.input_size() == 2) {
      const ConstTensor* axes = ConstInput(node, 1, c);
      if (!axes || axes->Count() == 0) continue;
      auto* a = node.add_attribute();
      a->set_name("axes");
      a->set_type(onnx::AttributeProto::INTS);
      for (int64_t v : axes->Ints()) a->add_ints(v);
      node.mutable_input()->RemoveLast();
      changed = true;
    } else if (op == "Pad" && node.input_size() == 4 && !node.input(3).empty()) {
      const ConstTensor* pads = ConstInput(node, 1, c);
      const ConstTensor* axes = ConstInput(node, 3, c);
      const int64_t rank = rank_of(0);
      if (!pads || !axes || rank < 0 || pads->Count() != CheckedMul(2, axes->Count())) continue;
      std::vector<int64_t> full(CheckedMul(2, rank), 0);
      const int64_t n = axes->Count();
      for (int64_t k = 0; k < n; ++k) {
        int64_t ax = axes->GetInt(k);
        if (ax < 0) ax += rank;
        if (ax < 0 || ax >= rank) continue;
        full[ax] = pads->GetInt(k), full[ax + rank] = pads->GetInt(k + n);
      }
      node.set_input(1, AddConst(graph, c, node.name() + "_pads", ConstTensor::Int64s(full)));
      node.mutable_input()->RemoveLast();
      changed = true;
    } else if (op == "Resize" && FindAttr(node, "axes")) {
      const int64_t rank = rank_of(0);
      if (rank < 0) continue;
      const auto* attr = FindAttr(node, "axes");
      const std::vector<int64_t> axes(attr->ints().begin(), attr->ints().end());
      for (int k : {2, 3}) {
        const ConstTensor* t = ConstInput(node, k, c);
        if (!t) continue;
        ConstTensor full = ConstTensor::Make(t->type, {rank});
        for (int64_t d = 0; d < rank; ++d) {
          full.Set(d, k == 2 ? 1.0 : static_cast<double>(c->shapes[node.input(0)][d]));
        }
        for (size_t j = 0; j < axes.size() && static_cast<int64_t>(j) < t->Count(); ++j) {
          const int64_t ax = axes[j] < 0 ? axes[j] + rank : axes[j];
          if (ax >= 0 && ax < rank) full.Set(ax, t->Get(j));
        }
        node.set_input(
            k, AddConst(graph, c, node.name() + (k == 2 ? "_scales" : "_sizes"), std::move(full)));
      }
      RemoveAttr(&node, "axes");
      changed = true;
    } else if (op == "Split" && FindAttr(node, "num_outputs") &&
               (node.input_size() < 2 || node.input(1).empty())) {
      auto it = c->shapes.find(node.input(0));
      if (it == c->shapes.end()) continue;
      int64_t axis = FindAttr(node, "axis") ? FindAttr(node, "axis")->i() : 0;
      const int64_t rank = it->second.size();
      if (axis < 0) axis += rank;
      if (axis < 0 || axis >= rank) continue;
      std::vector<int64_t> sizes;
      try {
        sizes = EvenSplit(it->second[axis], node.output_size());
      } catch (const ShapeOverflow& e) {
        throw NodeError(node, e.what());
      }
      while (node.input_size() < 2) node.add_input("");
      node.set_input(1, AddConst(graph, c, node.name() + "_split", ConstTensor::Int64s(sizes)));
      RemoveAttr(&node, "num_outputs");
      changed = true;
    }
  }
  return changed;
}

}  // namespace

void NameNodes(onnx::GraphProto* graph) {
  int index = 0;
  for (auto& node : *graph->mutable_node()) {
    if (node.name().empty()) node.set_name(node.op_type() + "_" + std::to_string(index));
    ++index;
  }
}

void FoldConstants(onnx::ModelProto* model, int opset, MappingContext* c) {
  if (model->ir_version() < 4) model->set_ir_version(4);  // initializers need not be inputs
  onnx::GraphProto* graph = model->mutable_graph();
  graph->clear_value_info();
  for (auto& out : *graph->mutable_output()) {
    if (out.type().has_tensor_type()) out.mutable_type()->mutable_tensor_type()->clear_shape();
  }
  // Each pass folds, adapts or inlines at least one node or stops; inlined
  // branches add nodes, so the bound grows with them.
  for (int pass = 0; pass < graph->node_size() + 2; ++pass) {
    InferShapesChecked(model);
    ReadShapes(*graph, c);
    const bool filled = FillKnownShapes(graph, c);
    const bool folded = FoldPass(graph, opset, c);
    const bool adapted = AdaptNewerForms(graph, opset, c);
    const bool inlined = InlineConstantIfs(graph, c);
    if (!filled && !folded && !adapted && !inlined) break;
  }
}

namespace {

struct GraphIndex {
  std::map<std::string, int> producer;
  std::map<std::string, std::vector<int>> users;
  std::set<std::string> outputs;

  explicit GraphIndex(const onnx::GraphProto& g) {
    for (int k = 0; k < g.node_size(); ++k) {
      for (const auto& out : g.node(k).output()) producer[out] = k;
      for (const auto& in : g.node(k).input()) users[in].push_back(k);
    }
    for (const auto& out : g.output()) outputs.insert(out.name());
  }
  // The one node reading `name`, or -1 (also when it is a graph output).
  int SoleUser(const std::string& name) const {
    auto it = users.find(name);
    if (outputs.count(name) || it == users.end() || it->second.size() != 1) return -1;
    return it->second[0];
  }
  int Producer(const std::string& name) const {
    auto it = producer.find(name);
    return it == producer.end() ? -1 : it->second;
  }
};

bool ConstNear(const MappingContext& c, const std::string& name, double value) {
  auto it = c.consts.find(name);
  if (it == c.consts.end() || it->second.Count() != 1) return false;
  return std::fabs(it->second.Get(0) - value) <= 1e-4 * std::fabs(value);
}

// For a binary node with one constant operand near `value`, the other one.
bool OtherOperand(const MappingContext& c, const onnx::NodeProto& n, double value, std::string* other) {
  if (n.input_size() != 2) return false;
  if (ConstNear(c, n.input(1), value)) {
    *other = n.input(0);
    return true;
  }
  if (n.op_type() != "Div" && ConstNear(c, n.input(0), value)) {
    *other = n.input(1);
    return true;
  }
  return false;
}

// The operand of Mul node `n` that is not `known`, or "" when neither is.
std::string MulPartner(const onnx::NodeProto& n, const std::string& known) {
  if (n.op_type() != "Mul" || n.input_size() != 2) return "";
  if (n.input(0) == known) return n.input(1);
  if (n.input(1) == known) return n.input(0);
  return "";
}

float AttrF(const onnx::NodeProto& n, const std::string& name, float def) {
  for (const auto& a : n.attribute()) {
    if (a.name() == name) return a.f();
  }
  return def;
}

// Matches the erf form of GELU ending anywhere after Erf node `e`. Fills the
// nodes to drop and returns the final node, or -1.
int MatchGelu(const onnx::GraphProto& g, const GraphIndex& ix, const MappingContext& c, int e,
              std::string* x, std::vector<int>* group) {
  const onnx::NodeProto& erf = g.node(e);
  const int p = ix.Producer(erf.input(0));
  if (p < 0 || ix.SoleUser(erf.input(0)) != e) return -1;
  const onnx::NodeProto& scale = g.node(p);
  const bool div = scale.op_type() == "Div" && OtherOperand(c, scale, std::sqrt(2.0), x);
  const bool mul = scale.op_type() == "Mul" && OtherOperand(c, scale, std::sqrt(0.5), x);
  if (!div && !mul) return -1;
  const int a = ix.SoleUser(erf.output(0));
  std::string unused;
  if (a < 0 || g.node(a).op_type() != "Add" || !OtherOperand(c, g.node(a), 1.0, &unused)) {
    return -1;
  }
  const std::string& sum = g.node(a).output(0);
  const int m1 = ix.SoleUser(sum);
  if (m1 < 0 || g.node(m1).op_type() != "Mul") return -1;
  const std::string partner = MulPartner(g.node(m1), sum);
  *group = {p, e, a, m1};
  const std::string& prod = g.node(m1).output(0);
  if (partner == *x) {
    // (x * (1 + erf)) * 0.5
    const int m2 = ix.SoleUser(prod);
    if (m2 < 0 || g.node(m2).op_type() != "Mul" || !OtherOperand(c, g.node(m2), 0.5, &unused)) {
      return -1;
    }
    group->push_back(m2);
    return m2;
  }
  if (ConstNear(c, partner, 0.5)) {
    // ((1 + erf) * 0.5) * x
    const int m2 = ix.SoleUser(prod);
    if (m2 < 0 || MulPartner(g.node(m2), prod) != *x) return -1;
    group->push_back(m2);
    return m2;
  }
  // (x * 0.5) * (1 + erf)
  const int h = ix.Producer(partner);
  std::string hx;
  if (h < 0 || ix.SoleUser(partner) != m1 || g.node(h).op_type() != "Mul" ||
      !OtherOperand(c, g.node(h), 0.5, &hx) || hx != *x) {
    return -1;
  }
  group->push_back(h);
  return m1;
}

// MatMul `mm` with constant 2-d weights [K, M] whose output only `add` reads,
// adding a constant of M values along the last axis; fills the bias name.
bool MatchMatMulBias(const onnx::GraphProto& g, const MappingContext& c, const onnx::NodeProto& mm,
                     const onnx::NodeProto& add, std::string* bias) {
  if (mm.input_size() != 2 || add.op_type() != "Add" || add.input_size() != 2) return false;
  auto w = c.consts.find(mm.input(1));
  auto out = c.shapes.find(mm.output(0));
  if (c.consts.count(mm.input(0)) || w == c.consts.end() || w->second.dims.size() != 2 ||
      out == c.shapes.end()) {
    return false;
  }
  *bias = add.input(0) == mm.output(0) ? add.input(1) : add.input(0);
  auto b = c.consts.find(*bias);
  if (b == c.consts.end() || b->second.dims.size() > out->second.size()) return false;
  const int64_t m = w->second.dims[1];
  for (size_t k = 0; k < b->second.dims.size(); ++k) {
    if (b->second.dims[k] != (k + 1 == b->second.dims.size() ? m : 1)) return false;
  }
  return b->second.Count() == m;
}

onnx::NodeProto FusedNode(const std::string& op, const onnx::NodeProto& last,
                          const std::string& x) {
  onnx::NodeProto n;
  n.set_op_type(op);
  n.set_name(last.name());
  n.add_input(x);
  n.add_output(last.output(0));
  return n;
}

}  // namespace

void FusePatterns(onnx::GraphProto* graph, MappingContext* c) {
  const GraphIndex ix(*graph);
  std::map<int, onnx::NodeProto> replace;  // final node -> fused node
  std::set<int> drop;
  for (int k = 0; k < graph->node_size(); ++k) {
    const onnx::NodeProto& n = graph->node(k);
    std::string x;
    std::vector<int> group;
    int last = -1;
    std::string op;
    if (n.op_type() == "Erf") {
      last = MatchGelu(*graph, ix, *c, k, &x, &group);
      op = "qzdl.Gelu";
    } else if ((n.op_type() == "Sigmoid" && n.attribute_size() == 0) ||
               (n.op_type() == "HardSigmoid" &&
                std::fabs(AttrF(n, "alpha", 0.2f) - 1.0f / 6) < 1e-6f &&
                std::fabs(AttrF(n, "beta", 0.5f) - 0.5f) < 1e-6f)) {
      x = n.input(0);
      const int m = ix.SoleUser(n.output(0));
      if (m >= 0 && MulPartner(graph->node(m), n.output(0)) == x) {
        last = m;
        group = {k, m};
        op = n.op_type() == "Sigmoid" ? "qzdl.Swish" : "qzdl.HardSwish";
      }
    } else if (n.op_type() == "MatMul") {
      // MatMul with constant weights followed by the addition of a constant
      // bias (a linear layer on data of more than 2 axes) is one InnerProduct.
      std::string bias;
      const int a = ix.SoleUser(n.output(0));
      if (a >= 0 && MatchMatMulBias(*graph, *c, n, graph->node(a), &bias)) {
        if (drop.count(k) || drop.count(a)) continue;
        drop.insert(k);
        drop.insert(a);
        onnx::NodeProto fused = FusedNode("qzdl.MatMulAdd", graph->node(a), n.input(0));
        fused.set_name(n.name());
        fused.add_input(n.input(1));
        fused.add_input(bias);
        replace[a] = fused;
      }
      continue;
    }
    if (last < 0) continue;
    bool clash = false;
    for (int g : group) clash |= drop.count(g) > 0;
    if (clash) continue;
    for (int g : group) drop.insert(g);
    replace[last] = FusedNode(op, graph->node(last), x);
  }
  if (replace.empty()) return;
  google::protobuf::RepeatedPtrField<onnx::NodeProto> kept;
  for (int k = 0; k < graph->node_size(); ++k) {
    auto it = replace.find(k);
    if (it != replace.end()) {
      *kept.Add() = it->second;
    } else if (!drop.count(k)) {
      *kept.Add() = graph->node(k);
    }
  }
  graph->mutable_node()->Swap(&kept);
}

}  // namespace qzdl::onnx_import
