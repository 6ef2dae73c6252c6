// The state of one ONNX import while its nodes are mapped onto layers: the
// constants and shapes of the graph's tensors, the node being mapped (with
// checked access to its attributes and inputs), and the layers and weight
// blobs produced so far.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/json11.h"
#include "runtime/weights_file.h"
#include "importer/constant_folding.h"
#include "importer/onnx_importer.h"

namespace onnx {
class AttributeProto;
class NodeProto;
}  // namespace onnx

namespace qzdl::onnx_import {

using ImportError = OnnxImportError;

using Shape = std::vector<int64_t>;

// `s` in double quotes, as names stand in messages.
std::string Quote(const std::string& s);

// The name a node goes by: its own, or "<op_type>_<index>" when it has none.
std::string NodeName(const onnx::NodeProto& node, int index);

// `node "<name>" (<op_type>)`, the start of a message about a node.
std::string NodeTitle(const onnx::NodeProto& node, int index);

class MappingContext {
 public:
  MappingContext(int opset, std::string base_dir) : opset_(opset), base_dir_(std::move(base_dir)) {}

  int Opset() const { return opset_; }
  const std::string& BaseDir() const { return base_dir_; }

  // Graph-wide tables, filled by the importer before mapping.
  std::map<std::string, ConstTensor> consts;
  // Grids of tensors that a QDQ model quantizes (QuantizeLinear and
  // DequantizeLinear of computed values), by net tensor: [min, max].
  std::map<std::string, std::pair<double, double>> preset_ranges;
  std::map<std::string, Shape> shapes;
  std::map<std::string, int> consumers;  // uses by nodes still to map, +1 for graph outputs
  std::set<std::string> graph_outputs;

  // Node under conversion. `index` is its position, used for unnamed nodes.
  void Begin(const onnx::NodeProto& node, int index);
  // Checks that every attribute was read and every used output was produced.
  void End();
  const onnx::NodeProto& Node() const { return *node_; }
  const std::string& NodeName() const { return node_name_; }
  const std::string& Op() const;
  [[noreturn]] void Fail(const std::string& message) const;

  // Attributes. Each read marks the attribute as handled.
  bool HasAttr(const std::string& name) const;
  int64_t Int(const std::string& name, int64_t def);
  float Float(const std::string& name, float def);
  std::string Str(const std::string& name, const std::string& def);
  std::vector<int64_t> Ints(const std::string& name);
  std::vector<float> Floats(const std::string& name);
  std::vector<std::string> Strs(const std::string& name);
  // Marks attributes that do not change inference (training-only ones).
  void Ignore(const std::string& name);
  // The error for an attribute value the mapping cannot express.
  [[noreturn]] void BadAttr(const std::string& name, const std::string& value,
                            const std::string& why = "") const;

  // Inputs of the node; an empty name is an absent optional input.
  int NumInputs() const;
  bool HasInput(int k) const;
  const std::string& InputName(int k) const;
  bool IsConst(int k) const;
  // The constant value of input k; fails naming `what` when it is not one.
  const ConstTensor& Const(int k, const std::string& what);
  // The tensor of input k in the net; a constant input becomes a "Constant"
  // layer when the runtime has that layer type.
  std::string In(int k);
  const Shape& InShape(int k) const;
  int InRank(int k) const { return static_cast<int>(InShape(k).size()); }

  int NumOutputs() const;
  const std::string& Out(int k);  // marks output k as produced
  const Shape& OutShape(int k) const;
  bool OutputUsed(int k) const;

  // Shape of any tensor; fails naming it when shape inference did not give one.
  const Shape& ShapeOf(const std::string& tensor) const;

  // A new layer name derived from the node name ("" for the node name itself).
  std::string NewLayerName(const std::string& suffix = "");
  // Keeps `name` from being chosen by NewTensor (every ONNX tensor name).
  void ReserveTensorName(const std::string& name) { tensor_names_.insert(name); }
  // A new tensor name for values between the layers of one node.
  std::string NewTensor(const std::string& suffix);
  // Appends a layer; returns its name (`name` empty: a new name from the node).
  std::string Emit(const std::string& type, const std::vector<std::string>& inputs,
                   const std::vector<std::string>& outputs, const json11::Json::object& param = {},
                   const std::string& name = "");
  void Weight(const std::string& layer, const std::string& blob, const std::vector<int>& dims,
              std::vector<float> values);
  // Output k of the node is the net tensor `tensor` (Identity, Dropout...).
  void Alias(int k, const std::string& tensor);
  // The net tensor holding ONNX tensor `name`.
  std::string Resolve(const std::string& name) const;
  // True when the runtime registers `type`.
  static bool HasLayerType(const std::string& type);
  // Fails unless the runtime registers `type`.
  void NeedLayerType(const std::string& type) const;

  const json11::Json::array& Layers() const { return layers_; }
  std::vector<WeightBlob>& Blobs() { return blobs_; }

 private:
  const onnx::AttributeProto* Attr(const std::string& name);

  int opset_;
  std::string base_dir_;
  const onnx::NodeProto* node_ = nullptr;
  std::string node_name_;
  std::set<std::string> read_attrs_;
  std::set<int> produced_;
  std::map<std::string, std::string> alias_;
  std::set<std::string> layer_names_;
  std::set<std::string> tensor_names_;
  std::map<std::string, std::string> materialized_;
  json11::Json::array layers_;
  std::vector<WeightBlob> blobs_;
};

using OpMapper = std::function<void(MappingContext&)>;
using MapperTable = std::map<std::string, OpMapper>;

// Each family file adds its operators.
void AddConvMappers(MapperTable& table);
void AddActivationMappers(MapperTable& table);
void AddMathMappers(MapperTable& table);
void AddShapeMappers(MapperTable& table);
void AddRecurrentMappers(MapperTable& table);
const MapperTable& Mappers();

// Shared emitters.
// A Reshape from `in` (shape `in_shape`) to `out` of `out_shape`: the batch
// entry becomes 0 when the first dim is unchanged and the rest holds the
// same number of elements, so the net can run at any batch.
void EmitReshape(MappingContext& c, const std::string& in, const Shape& in_shape, const std::string& out,
                 const Shape& out_shape, const std::string& name = "");
json11::Json::array JsonInts(const std::vector<int64_t>& v);
// The sizes of ONNX Split's `parts` pieces of an axis of `total` when no
// sizes are given: each piece rounded up, the last one taking the rest (it is
// negative when `total` is too short for the pieces; callers refuse that).
// Throws ShapeOverflow.
std::vector<int64_t> EvenSplit(int64_t total, int64_t parts);
std::vector<int> IntDims(const Shape& s);
int64_t NormalizeAxis(MappingContext& c, int64_t axis, int64_t rank, const std::string& attr);

}  // namespace qzdl::onnx_import
