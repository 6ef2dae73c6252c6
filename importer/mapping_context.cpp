#include "importer/mapping_context.h"

#include <onnx/onnx_pb.h>

#include <algorithm>

#include "importer/control_flow.h"
#include "importer/integer_ops.h"
#include "runtime/layer_registry.h"

namespace qzdl::onnx_import {

namespace {

// The layer type that outputs a weight blob "value" as a tensor.
constexpr const char* kConstantLayer = "Constant";

}  // namespace

std::string Quote(const std::string& s) { return "\"" + s + "\""; }

std::string NodeName(const onnx::NodeProto& node, int index) {
  return node.name().empty() ? node.op_type() + "_" + std::to_string(index) : node.name();
}

std::string NodeTitle(const onnx::NodeProto& node, int index) {
  return "node " + Quote(NodeName(node, index)) + " (" + node.op_type() + ")";
}

void MappingContext::Begin(const onnx::NodeProto& node, int index) {
  node_ = &node;
  node_name_ = onnx_import::NodeName(node, index);
  read_attrs_.clear();
  produced_.clear();
  // Names of the node's outputs are taken: later layers must not reuse them.
  for (const auto& out : node.output()) tensor_names_.insert(out);
}

void MappingContext::End() {
  for (const auto& a : node_->attribute()) {
    if (!read_attrs_.count(a.name())) Fail("attribute " + Quote(a.name()) + " is not supported");
  }
  for (int k = 0; k < NumOutputs(); ++k) {
    const std::string& name = node_->output(k);
    if (name.empty() || produced_.count(k)) continue;
    if (OutputUsed(k)) {
      Fail("output " + std::to_string(k) + " (" + Quote(name) +
           ") is not supported; only unused extra outputs can be dropped");
    }
  }
  for (const auto& in : node_->input()) {
    auto it = consumers.find(in);
    if (it != consumers.end()) --it->second;
  }
}

const std::string& MappingContext::Op() const { return node_->op_type(); }

void MappingContext::Fail(const std::string& message) const {
  throw ImportError("node " + Quote(node_name_) + " (" + node_->op_type() + "): " + message);
}

const onnx::AttributeProto* MappingContext::Attr(const std::string& name) {
  read_attrs_.insert(name);
  for (const auto& a : node_->attribute()) {
    if (a.name() == name) return &a;
  }
  return nullptr;
}

bool MappingContext::HasAttr(const std::string& name) const {
  for (const auto& a : node_->attribute()) {
    if (a.name() == name) return true;
  }
  return false;
}

int64_t MappingContext::Int(const std::string& name, int64_t def) {
  const auto* a = Attr(name);
  if (!a) return def;
  if (a->type() != onnx::AttributeProto::INT) Fail("attribute " + Quote(name) + " must be an int");
  return a->i();
}

float MappingContext::Float(const std::string& name, float def) {
  const auto* a = Attr(name);
  if (!a) return def;
  if (a->type() != onnx::AttributeProto::FLOAT) {
    Fail("attribute " + Quote(name) + " must be a float");
  }
  return a->f();
}

std::string MappingContext::Str(const std::string& name, const std::string& def) {
  const auto* a = Attr(name);
  if (!a) return def;
  if (a->type() != onnx::AttributeProto::STRING) {
    Fail("attribute " + Quote(name) + " must be a string");
  }
  return a->s();
}

std::vector<int64_t> MappingContext::Ints(const std::string& name) {
  const auto* a = Attr(name);
  if (!a) return {};
  return {a->ints().begin(), a->ints().end()};
}

std::vector<float> MappingContext::Floats(const std::string& name) {
  const auto* a = Attr(name);
  if (!a) return {};
  return {a->floats().begin(), a->floats().end()};
}

std::vector<std::string> MappingContext::Strs(const std::string& name) {
  const auto* a = Attr(name);
  if (!a) return {};
  return {a->strings().begin(), a->strings().end()};
}

void MappingContext::Ignore(const std::string& name) { read_attrs_.insert(name); }

void MappingContext::BadAttr(const std::string& name, const std::string& value,
                        const std::string& why) const {
  Fail("attribute " + Quote(name) + " value " + value + " is not supported" +
       (why.empty() ? "" : " (" + why + ")"));
}

int MappingContext::NumInputs() const { return node_->input_size(); }

bool MappingContext::HasInput(int k) const { return k < NumInputs() && !node_->input(k).empty(); }

const std::string& MappingContext::InputName(int k) const {
  if (!HasInput(k)) Fail("input " + std::to_string(k) + " is missing");
  return node_->input(k);
}

bool MappingContext::IsConst(int k) const { return HasInput(k) && consts.count(node_->input(k)) > 0; }

const ConstTensor& MappingContext::Const(int k, const std::string& what) {
  const std::string& name = InputName(k);
  auto it = consts.find(name);
  if (it == consts.end()) {
    Fail("input " + std::to_string(k) + " (" + Quote(name) + ", " + what +
         ") must be a constant (an initializer or computable from initializers)");
  }
  return it->second;
}

std::string MappingContext::Resolve(const std::string& name) const {
  auto it = alias_.find(name);
  return it == alias_.end() ? name : it->second;
}

std::string MappingContext::In(int k) {
  const std::string& name = InputName(k);
  auto cit = consts.find(name);
  if (cit == consts.end()) return Resolve(name);
  auto mit = materialized_.find(name);
  if (mit != materialized_.end()) return mit->second;
  if (!HasLayerType(kConstantLayer)) {
    Fail("input " + Quote(name) + " is a constant, and this runtime has no \"" + kConstantLayer +
         "\" layer to feed constants into the net");
  }
  const ConstTensor& t = cit->second;
  // A scalar becomes a one-element tensor, which broadcasts the same way.
  const Shape dims = t.dims.empty() ? Shape{1} : t.dims;
  // ONNX names are unique in a graph, so the constant keeps its own.
  const std::string& tensor = name;
  const std::string layer =
      Emit(kConstantLayer, {}, {tensor}, {{"dims", JsonInts(dims)}}, NewLayerName("const"));
  Weight(layer, "value", IntDims(dims), t.Floats());
  materialized_[name] = tensor;
  shapes[tensor] = dims;
  return tensor;
}

const Shape& MappingContext::ShapeOf(const std::string& tensor) const {
  auto it = shapes.find(tensor);
  if (it == shapes.end()) {
    auto cit = consts.find(tensor);
    if (cit != consts.end()) return cit->second.dims;
    Fail("the shape of tensor " + Quote(tensor) + " is not known (shape inference gave none)");
  }
  return it->second;
}

const Shape& MappingContext::InShape(int k) const { return ShapeOf(InputName(k)); }

int MappingContext::NumOutputs() const { return node_->output_size(); }

const std::string& MappingContext::Out(int k) {
  if (k >= NumOutputs() || node_->output(k).empty()) {
    Fail("output " + std::to_string(k) + " is missing");
  }
  produced_.insert(k);
  return node_->output(k);
}

const Shape& MappingContext::OutShape(int k) const {
  if (k >= NumOutputs()) Fail("output " + std::to_string(k) + " is missing");
  return ShapeOf(node_->output(k));
}

bool MappingContext::OutputUsed(int k) const {
  if (k >= NumOutputs() || node_->output(k).empty()) return false;
  auto it = consumers.find(node_->output(k));
  return it != consumers.end() && it->second > 0;
}

std::string MappingContext::NewLayerName(const std::string& suffix) {
  const std::string base = suffix.empty() ? node_name_ : node_name_ + "_" + suffix;
  std::string name = base;
  for (int n = 1; layer_names_.count(name); ++n) name = base + "_" + std::to_string(n);
  layer_names_.insert(name);
  return name;
}

std::string MappingContext::NewTensor(const std::string& suffix) {
  const std::string base = node_name_ + "_" + suffix;
  std::string name = base;
  for (int n = 1; tensor_names_.count(name) || consts.count(name) || shapes.count(name); ++n) {
    name = base + "_" + std::to_string(n);
  }
  tensor_names_.insert(name);
  return name;
}

std::string MappingContext::Emit(const std::string& type, const std::vector<std::string>& inputs,
                            const std::vector<std::string>& outputs,
                            const json11::Json::object& param, const std::string& name) {
  NeedLayerType(type);
  const std::string layer = name.empty() ? NewLayerName() : name;
  layer_names_.insert(layer);
  json11::Json::object obj = {{"name", layer},
                              {"type", type},
                              {"inputs", json11::Json::array(inputs.begin(), inputs.end())},
                              {"outputs", json11::Json::array(outputs.begin(), outputs.end())}};
  if (!param.empty()) obj["param"] = param;
  layers_.push_back(obj);
  for (int k = 0; k < NumOutputs(); ++k) {
    if (std::find(outputs.begin(), outputs.end(), node_->output(k)) != outputs.end()) {
      produced_.insert(k);
    }
  }
  return layer;
}

void MappingContext::Weight(const std::string& layer, const std::string& blob,
                       const std::vector<int>& dims, std::vector<float> values) {
  blobs_.push_back(WeightBlob{layer, blob, dims, std::move(values)});
}

void MappingContext::Alias(int k, const std::string& tensor) {
  const std::string& out = Out(k);
  if (graph_outputs.count(out)) {
    // A graph output needs its own tensor: copy.
    Emit("Dropout", {tensor}, {out});
    return;
  }
  alias_[out] = tensor;
  auto it = shapes.find(tensor);
  if (it != shapes.end() && !shapes.count(out)) shapes[out] = it->second;
}

bool MappingContext::HasLayerType(const std::string& type) {
  static const std::vector<std::string> types = RegisteredLayerTypes<float>();
  return std::find(types.begin(), types.end(), type) != types.end();
}

void MappingContext::NeedLayerType(const std::string& type) const {
  if (!HasLayerType(type)) {
    Fail("needs layer type " + Quote(type) + ", which this runtime does not register");
  }
}

json11::Json::array JsonInts(const std::vector<int64_t>& v) {
  json11::Json::array out;
  for (int64_t x : v) out.push_back(static_cast<int>(x));
  return out;
}

std::vector<int64_t> EvenSplit(int64_t total, int64_t parts) {
  const int64_t piece = CheckedAdd(total, parts - 1) / parts;
  std::vector<int64_t> sizes;
  for (int64_t k = 0; k < parts; ++k) {
    sizes.push_back(std::min(piece, total - CheckedMul(piece, k)));
  }
  return sizes;
}

std::vector<int> IntDims(const Shape& s) { return std::vector<int>(s.begin(), s.end()); }

int64_t NormalizeAxis(MappingContext& c, int64_t axis, int64_t rank, const std::string& attr) {
  if (axis < -rank || axis >= rank) {
    c.Fail("attribute " + Quote(attr) + " value " + std::to_string(axis) +
           " is outside the input's " + std::to_string(rank) + " axes");
  }
  return axis < 0 ? axis + rank : axis;
}

void EmitReshape(MappingContext& c, const std::string& in, const Shape& in_shape, const std::string& out,
                 const Shape& out_shape, const std::string& name) {
  std::vector<int64_t> shapes = out_shape;
  if (!in_shape.empty() && !out_shape.empty() && in_shape[0] == out_shape[0]) {
    if (CheckedProduct(in_shape, 1) == CheckedProduct(out_shape, 1)) shapes[0] = 0;
  }
  c.Emit("Reshape", {in}, {out}, {{"shapes", JsonInts(shapes)}}, name);
}

const MapperTable& Mappers() {
  static const MapperTable table = [] {
    MapperTable t;
    AddConvMappers(t);
    AddActivationMappers(t);
    AddMathMappers(t);
    AddShapeMappers(t);
    AddControlFlowMappers(t);
    AddRecurrentMappers(t);
    AddIntegerMappers(t);
    return t;
  }();
  return table;
}

}  // namespace qzdl::onnx_import
