#include "importer/integer_ops.h"

#include <onnx/onnx_pb.h>

#include <string>
#include <vector>

#include "importer/graph_passes.h"

namespace qzdl::onnx_import {

namespace {

// Replaces node k of the graph by `nodes`.
void ReplaceNode(onnx::GraphProto* graph, int k, const std::vector<onnx::NodeProto>& nodes) {
  google::protobuf::RepeatedPtrField<onnx::NodeProto> all;
  for (int j = 0; j < graph->node_size(); ++j) {
    if (j != k) {
      all.Add()->CopyFrom(graph->node(j));
      continue;
    }
    for (const auto& n : nodes) all.Add()->CopyFrom(n);
  }
  graph->mutable_node()->Swap(&all);
}

onnx::NodeProto MakeNode(const std::string& op, const std::string& name,
                         const std::vector<std::string>& in, const std::string& out) {
  onnx::NodeProto n;
  n.set_op_type(op);
  n.set_name(name);
  for (const auto& i : in) n.add_input(i);
  n.add_output(out);
  return n;
}

// a - b with numpy broadcasting, as floats.
ConstTensor BroadcastSub(const ConstTensor& a, const ConstTensor& b) {
  const std::vector<int64_t> dims = BroadcastShapes(a.dims, b.dims);
  ConstTensor r = ConstTensor::Make(kFloat, dims);
  const size_t rank = dims.size();
  auto index = [&](const ConstTensor& t, int64_t flat) {
    int64_t at = 0, stride = 1;
    for (size_t d = 0; d < rank; ++d) {
      const size_t axis = rank - 1 - d;
      const int64_t coord = flat % dims[axis];
      flat /= dims[axis];
      if (d < t.dims.size()) {
        const int64_t size = t.dims[t.dims.size() - 1 - d];
        if (size != 1) at += coord * stride;
        stride *= size;
      }
    }
    return at;
  };
  for (int64_t k = 0; k < r.Count(); ++k) r.f[k] = a.Get(index(a, k)) - b.Get(index(b, k));
  return r;
}

// MatMulInteger(A, B, a_zero, b_zero) as MatMul((A - a_zero), (B - b_zero))
// on floats. A zero point of A with one value per row ([M] for a 2-d A)
// becomes [M, 1] so that it broadcasts along the rows; B's ([N], or
// [..., 1, N]) broadcasts as it is. A constant B is centred here (the
// MatMul's mapping then writes a ConvInteger of 1 x 1 pixels, whose sums
// are exact), a computed one by a Sub (BatchMatrixMul, float sums).
void LowerMatMulInteger(onnx::GraphProto* graph, int k, MappingContext* c) {
  const onnx::NodeProto node = graph->node(k);
  const std::string title = NodeTitle(node, k), name = NodeName(node, k);
  const std::string& out = node.output(0);
  auto has = [&](int i) { return node.input_size() > i && !node.input(i).empty(); };
  std::vector<onnx::NodeProto> nodes;
  std::string a = node.input(0), b = node.input(1);
  if (has(2)) {
    std::string zero = node.input(2);
    auto z = c->consts.find(zero);
    auto shape = c->shapes.find(a);
    if (z != c->consts.end() && z->second.dims.size() == 1 && shape != c->shapes.end() &&
        shape->second.size() == 2) {
      ConstTensor rows = z->second;
      rows.dims = {rows.Count(), 1};
      zero = out + "/a_zero";
      c->consts[zero] = rows;
    }
    const std::string centred = out + "/a_centred";
    nodes.push_back(MakeNode("Sub", name + "/centre_a", {a, zero}, centred));
    if (shape != c->shapes.end()) {
      const Shape dims = shape->second;
      c->shapes[centred] = dims;
    }
    a = centred;
  }
  auto bc = c->consts.find(b);
  if (bc != c->consts.end()) {
    ConstTensor centred = bc->second;
    if (has(3)) {
      auto z = c->consts.find(node.input(3));
      if (z == c->consts.end())
        throw OnnxImportError(title + ": the zero point " + Quote(node.input(3)) +
                              " of constant weights must be a constant");
      try {
        centred = BroadcastSub(bc->second, z->second);
      } catch (const FoldError& e) {
        throw OnnxImportError(title + ": the zero point " + Quote(node.input(3)) + " of shape " +
                              DimsString(z->second.dims) + " does not fit B of shape " +
                              DimsString(bc->second.dims));
      }
    } else {
      centred = BroadcastSub(bc->second, ConstTensor::Make(kFloat, {}));
    }
    b = out + "/weight";
    c->consts[b] = centred;
  } else if (has(3)) {
    const std::string centred = out + "/b_centred";
    nodes.push_back(MakeNode("Sub", name + "/centre_b", {b, node.input(3)}, centred));
    auto shape = c->shapes.find(b);
    if (shape != c->shapes.end()) {
      const Shape dims = shape->second;
      c->shapes[centred] = dims;
    }
    b = centred;
  }
  nodes.push_back(MakeNode("MatMul", name, {a, b}, out));
  // A constant B: MatMul's mapping writes a "ConvInteger" (exact sums).
  onnx::AttributeProto* exact = nodes.back().add_attribute();
  exact->set_name(kIntegerSumsAttr);
  exact->set_type(onnx::AttributeProto::INT);
  exact->set_i(1);
  ReplaceNode(graph, k, nodes);
}

}  // namespace

void LowerIntegerOps(onnx::GraphProto* graph, MappingContext* c) {
  for (int k = 0; k < graph->node_size(); ++k) {
    onnx::NodeProto* node = graph->mutable_node(k);
    if (node->op_type() == "MatMulInteger" && node->input_size() >= 2 && node->output_size() == 1) {
      const int added =
          (node->input_size() > 2 && !node->input(2).empty()) +
          (node->input_size() > 3 && !node->input(3).empty() && !c->consts.count(node->input(1)));
      LowerMatMulInteger(graph, k, c);
      k += added;
      continue;
    }
    if (node->op_type() != "ConvInteger" || node->input_size() < 2 || node->output_size() < 1)
      continue;
    auto w = c->consts.find(node->input(1));
    if (w == c->consts.end()) continue;  // the mapping refuses it, naming the input
    const std::string title = NodeTitle(*node, k);
    const ConstTensor& weights = w->second;
    if (weights.dims.empty() || weights.dims[0] < 1)
      throw OnnxImportError(title + ": weights " + Quote(node->input(1)) + " have shape " +
                            DimsString(weights.dims));
    const int64_t out = weights.dims[0], per = weights.Count() / out;
    std::vector<double> zero(static_cast<size_t>(out), 0.0);
    if (node->input_size() > 3 && !node->input(3).empty()) {
      auto z = c->consts.find(node->input(3));
      if (z == c->consts.end())
        throw OnnxImportError(title + ": the weights' zero point " + Quote(node->input(3)) +
                              " must be a constant");
      const ConstTensor& zt = z->second;
      if (zt.Count() != 1 && zt.Count() != out)
        throw OnnxImportError(title + ": the weights' zero point has " + std::to_string(zt.Count()) +
                              " values for " + std::to_string(out) + " output channels");
      for (int64_t o = 0; o < out; ++o) zero[o] = zt.Get(zt.Count() == 1 ? 0 : o);
    }
    ConstTensor centred = ConstTensor::Sized(kFloat, weights.dims);
    for (int64_t o = 0; o < out; ++o)
      for (int64_t j = 0; j < per; ++j) centred.f[o * per + j] = weights.Get(o * per + j) - zero[o];
    const std::string weight_name = node->output(0) + "/weight";
    c->consts[weight_name] = centred;
    std::string x = node->input(0);
    onnx::NodeProto sub;
    const bool has_zero = node->input_size() > 2 && !node->input(2).empty();
    if (has_zero) {
      const std::string centred_x = node->output(0) + "/centred";
      sub.set_op_type("Sub");
      sub.set_name(NodeName(*node, k) + "/centre");
      sub.add_input(x);
      sub.add_input(node->input(2));
      sub.add_output(centred_x);
      // Unknown shapes stay unknown: the Conv's mapping then says so, naming
      // the node.
      auto shape = c->shapes.find(x);
      if (shape != c->shapes.end()) {
        const Shape dims = shape->second;
        c->shapes[centred_x] = dims;
      }
      x = centred_x;
    }
    onnx::NodeProto conv;
    conv.set_op_type("Conv");
    conv.set_name(NodeName(*node, k));
    conv.add_input(x);
    conv.add_input(weight_name);
    conv.add_output(node->output(0));
    for (const auto& attr : node->attribute()) conv.add_attribute()->CopyFrom(attr);
    // Conv's mapping writes "ConvInteger", whose sums are exact.
    onnx::AttributeProto* exact = conv.add_attribute();
    exact->set_name(kIntegerSumsAttr);
    exact->set_type(onnx::AttributeProto::INT);
    exact->set_i(1);
    google::protobuf::RepeatedPtrField<onnx::NodeProto> nodes;
    for (int j = 0; j < graph->node_size(); ++j) {
      if (j != k) {
        nodes.Add()->CopyFrom(graph->node(j));
        continue;
      }
      if (has_zero) nodes.Add()->CopyFrom(sub);
      nodes.Add()->CopyFrom(conv);
    }
    graph->mutable_node()->Swap(&nodes);
    if (has_zero) ++k;
  }
}

namespace {

// QuantizeLinear and DequantizeLinear of values the net computes (the
// activations of a QDQ model): the net computes in float, so both pass
// values through; the grid they describe becomes a preset range of the
// tensor (OnnxImportResult::preset_json). Constant ones were folded.
void MapQdq(MappingContext& c) {
  const ConstTensor& scale = c.Const(1, "scale");
  if (scale.Count() != 1) c.Fail("a scale per axis of a computed tensor is not supported");
  int32_t type = kUint8;
  double zero = 0.0;
  if (c.HasInput(2)) {
    const ConstTensor& z = c.Const(2, "zero point");
    if (z.Count() != 1) c.Fail("a zero point per axis of a computed tensor is not supported");
    type = z.type;
    zero = z.Get(0);
  }
  c.Int("axis", 1);
  c.Int("saturate", 1);
  if (type != kInt8 && type != kUint8)
    c.Fail("a zero point of type " + TypeName(type) + " is not supported (int8 or uint8)");
  const double qmin = type == kInt8 ? -128 : 0, qmax = type == kInt8 ? 127 : 255;
  const std::string x = c.In(0);
  const double s = static_cast<float>(scale.Get(0));
  c.preset_ranges[x] = {(qmin - zero) * s, (qmax - zero) * s};
  c.Alias(0, x);
}

}  // namespace

void AddIntegerMappers(MapperTable& t) {
  t["QuantizeLinear"] = MapQdq;
  t["DequantizeLinear"] = MapQdq;
  t["DynamicQuantizeLinear"] = [](MappingContext& c) {
    std::vector<std::string> outs;
    int last = 0;
    for (int k = 0; k < 3 && k < c.NumOutputs(); ++k)
      if (c.OutputUsed(k)) last = k;
    for (int k = 0; k <= last; ++k)
      outs.push_back(c.OutputUsed(k) ? c.Out(k) : c.NewTensor(k == 0 ? "y" : k == 1 ? "scale" : "zero"));
    c.Emit("DynamicQuantizeLinear", {c.In(0)}, outs);
  };
  // Reached only when LowerIntegerOps could not rewrite the node.
  t["MatMulInteger"] = [](MappingContext& c) { c.Fail("takes 2 to 4 inputs and gives 1 output"); };
  t["ConvInteger"] = [](MappingContext& c) {
    c.Fail("the weights " + Quote(c.InputName(1)) + " must be a constant");
  };
}

}  // namespace qzdl::onnx_import
