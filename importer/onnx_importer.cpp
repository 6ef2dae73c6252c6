#include "importer/onnx_importer.h"

#include <onnx/defs/schema.h>
#include <onnx/onnx_pb.h>
#include <onnx/shape_inference/implementation.h>

#include <fstream>
#include <new>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "runtime/atomic_file.h"
#include "runtime/file_read.h"
#include "runtime/serial_weights.h"
#include "importer/mapping_context.h"
#include "importer/control_flow.h"
#include "importer/graph_checks.h"
#include "importer/graph_order.h"
#include "importer/graph_passes.h"
#include "importer/integer_ops.h"

namespace qzdl {

namespace {

using onnx_import::ConstTensor;
using onnx_import::MappingContext;
using onnx_import::FoldError;
using onnx_import::Quote;
using onnx_import::Shape;

int DefaultOpset(const onnx::ModelProto& model, const std::string& source) {
  for (const auto& op : model.opset_import()) {
    if (op.domain().empty() || op.domain() == "ai.onnx") return static_cast<int>(op.version());
  }
  if (model.opset_import_size() == 0) return 1;  // IR version 1-2 models carry no opset list
  throw OnnxImportError(Quote(source) +
                        ": the model imports no version of the default operator "
                        "set (ai.onnx)");
}

// Graph inputs that the runtime must feed, with their fixed dims.
struct NetInput {
  std::string name;
  Shape dims;
};

// " (from \"<file>\")" when the value of constant input `name` came from a file.
std::string SourceOf(const OnnxImportOptions& options, const std::string& name) {
  auto it = options.constant_input_files.find(name);
  return it == options.constant_input_files.end() ? "" : " (from " + Quote(it->second) + ")";
}

std::vector<NetInput> PrepareInputs(onnx::GraphProto* graph, const OnnxImportOptions& options,
                                    const std::string& base_dir, MappingContext& c) {
  std::set<std::string> initializers;
  for (const auto& init : graph->initializer()) initializers.insert(init.name());
  std::set<std::string> declared;
  for (const auto& in : graph->input()) declared.insert(in.name());
  for (const auto& kv : options.constant_inputs) {
    if (!declared.count(kv.first)) {
      throw OnnxImportError("constant input " + Quote(kv.first) + " is not a graph input");
    }
    onnx::TensorProto t;
    if (!t.ParseFromString(kv.second)) {
      throw OnnxImportError("constant input " + Quote(kv.first) + SourceOf(options, kv.first) +
                            " is not a valid TensorProto");
    }
    if (!t.has_data_type() || t.data_type() == onnx::TensorProto::UNDEFINED) {
      throw OnnxImportError("constant input " + Quote(kv.first) + SourceOf(options, kv.first) +
                            " has no element type (an empty or damaged TensorProto)");
    }
    t.set_name(kv.first);
    if (!initializers.count(kv.first)) *graph->add_initializer() = t;
    for (auto& init : *graph->mutable_initializer()) {
      if (init.name() == kv.first) init = t;
    }
    initializers.insert(kv.first);
  }
  for (const auto& kv : options.input_shapes) {
    if (!declared.count(kv.first) || initializers.count(kv.first)) {
      throw OnnxImportError("--input-shape names " + Quote(kv.first) +
                            ", which is not a graph input");
    }
  }
  for (auto& init : *graph->mutable_initializer()) {
    try {
      const ConstTensor& t = c.consts[init.name()] = onnx_import::TensorFromProto(init, base_dir);
      // The values now live in `c.consts`; the graph keeps what shape inference needs.
      if (t.Count() > onnx_import::kInferenceDataLimit) init = onnx_import::ToProto(t, init.name());
    } catch (const FoldError& e) {
      throw OnnxImportError("initializer " + Quote(init.name()) + " " + e.what());
    } catch (const ShapeOverflow& e) {
      throw OnnxImportError("initializer " + Quote(init.name()) + ": " + e.what());
    }
  }

  std::vector<NetInput> inputs;
  google::protobuf::RepeatedPtrField<onnx::ValueInfoProto> kept;
  for (const auto& in : graph->input()) {
    if (initializers.count(in.name())) continue;  // older models list initializers as inputs
    kept.Add()->CopyFrom(in);
    onnx::ValueInfoProto& vi = *kept.rbegin();
    const std::string msg = "graph input " + Quote(in.name());
    if (!vi.type().has_tensor_type()) throw OnnxImportError(msg + " is not a tensor");
    auto* tt = vi.mutable_type()->mutable_tensor_type();
    // Half, bfloat16 and double inputs are taken as float32: the net
    // computes in float32 (docs/onnx-import.md). Shape inference keeps the
    // declared type, which the rest of the graph was typed by.
    if (!onnx_import::IsFloatType(tt->elem_type())) {
      throw OnnxImportError(msg + " has element type " + onnx_import::TypeName(tt->elem_type()) +
                            "; the runtime takes float inputs only (an input that is a constant "
                            "can be given with --constant-input " +
                            in.name() + "=TENSOR.pb)");
    }
    Shape dims;
    auto it = options.input_shapes.find(in.name());
    if (it != options.input_shapes.end()) {
      dims = it->second;
    } else {
      if (!tt->has_shape()) {
        throw OnnxImportError(msg + " has no shape; give one with --input-shape " + in.name() +
                              "=N,C,H,W");
      }
      for (int k = 0; k < tt->shape().dim_size(); ++k) {
        const auto& d = tt->shape().dim(k);
        if (d.has_dim_value() && d.dim_value() > 0) {
          dims.push_back(d.dim_value());
        } else if (k == 0) {
          dims.push_back(1);  // a symbolic batch runs at 1; Reshapes keep it open
        } else {
          throw OnnxImportError(msg + " has a symbolic dimension " + std::to_string(k) +
                                (d.has_dim_param() ? " (" + Quote(d.dim_param()) + ")" : "") +
                                "; give the shape with --input-shape " + in.name() + "=...");
        }
      }
    }
    if (dims.empty() || dims.size() > 8) {
      throw OnnxImportError(msg + " has shape " + onnx_import::DimsString(dims) +
                            "; the runtime takes 1 to 8 axes");
    }
    for (int64_t d : dims) {
      if (d < 1 || d > INT32_MAX) {
        throw OnnxImportError(msg + " has shape " + onnx_import::DimsString(dims) +
                              "; every dimension must be positive");
      }
    }
    tt->clear_shape();
    for (int64_t d : dims) tt->mutable_shape()->add_dim()->set_dim_value(d);
    c.shapes[in.name()] = dims;
    inputs.push_back({in.name(), dims});
  }
  graph->mutable_input()->Swap(&kept);
  return inputs;
}

void CheckReferences(const onnx::GraphProto& graph, const MappingContext& c,
                     const std::vector<NetInput>& inputs) {
  std::set<std::string> known;
  for (const auto& in : inputs) known.insert(in.name);
  for (const auto& kv : c.consts) known.insert(kv.first);
  std::set<std::string> node_names;
  for (const auto& node : graph.node()) {
    for (const auto& in : node.input()) {
      if (!in.empty() && !known.count(in)) {
        throw OnnxImportError("node " + Quote(node.name()) + " (" + node.op_type() + "): input " +
                              Quote(in) +
                              " is not a graph input, an initializer or an output of an earlier "
                              "node");
      }
    }
    for (const auto& out : node.output()) known.insert(out);
  }
  for (const auto& out : graph.output()) {
    if (!known.count(out.name())) {
      throw OnnxImportError("graph output " + Quote(out.name()) + " is produced by no node");
    }
  }
}

// A pretty net description: one layer per line.
std::string NetText(const std::vector<NetInput>& inputs, const std::vector<std::string>& outputs,
                    const json11::Json::array& layers) {
  std::ostringstream s;
  s << "{\n  \"inputs\": [\n";
  for (size_t k = 0; k < inputs.size(); ++k) {
    s << "    {\"name\": " << json11::Json(inputs[k].name).dump()
      << ", \"dims\": " << json11::Json(onnx_import::JsonInts(inputs[k].dims)).dump() << "}"
      << (k + 1 < inputs.size() ? ",\n" : "\n");
  }
  s << "  ],\n  \"outputs\": "
    << json11::Json(json11::Json::array(outputs.begin(), outputs.end())).dump()
    << ",\n  \"layers\": [\n";
  for (size_t k = 0; k < layers.size(); ++k) {
    // name, type, inputs, outputs, param: the order a reader expects.
    const json11::Json& l = layers[k];
    s << "    {\"name\": " << l["name"].dump() << ", \"type\": " << l["type"].dump()
      << ", \"inputs\": " << l["inputs"].dump() << ", \"outputs\": " << l["outputs"].dump();
    if (!l["param"].is_null()) s << ", \"param\": " << l["param"].dump();
    s << "}" << (k + 1 < layers.size() ? ",\n" : "\n");
  }
  s << "  ]\n}\n";
  return s.str();
}

OnnxImportResult Import(onnx::ModelProto& model, const std::string& source,
                        const std::string& base_dir, const OnnxImportOptions& options) {
  if (!model.has_graph() || model.graph().node_size() == 0) {
    throw OnnxImportError(Quote(source) + " is not a valid ONNX model: it has no graph nodes");
  }
  const int opset = DefaultOpset(model, source);
  onnx::GraphProto* graph = model.mutable_graph();
  MappingContext c(opset, base_dir);
  onnx_import::CheckNames(*graph);
  onnx_import::NameNodes(graph);
  onnx_import::SortNodes(graph);
  const std::vector<NetInput> inputs = PrepareInputs(graph, options, base_dir, c);
  CheckReferences(*graph, c, inputs);
  for (const auto& node : graph->node()) {
    if (!node.domain().empty() && node.domain() != "ai.onnx") {
      throw OnnxImportError("node " + Quote(node.name()) + " (" + node.op_type() +
                            "): operator domain " + Quote(node.domain()) + " is not supported");
    }
  }
  onnx_import::CheckNodes(*graph, opset);
  onnx_import::FoldConstants(&model, opset, &c);
  onnx_import::RefuseComputedIfs(*graph);
  onnx_import::LowerIntegerOps(graph, &c);
  onnx_import::FusePatterns(graph, &c);

  std::vector<std::string> outputs;
  for (const auto& out : graph->output()) {
    if (c.consts.count(out.name())) {
      throw OnnxImportError("graph output " + Quote(out.name()) +
                            " is a constant; the runtime computes only tensors that depend on "
                            "the inputs");
    }
    c.graph_outputs.insert(out.name());
    ++c.consumers[out.name()];
  }
  for (const auto& node : graph->node()) {
    for (const auto& in : node.input()) ++c.consumers[in];
    for (const auto& out : node.output()) c.ReserveTensorName(out);
  }
  for (const auto& in : inputs) c.ReserveTensorName(in.name);
  for (const auto& kv : c.consts) c.ReserveTensorName(kv.first);

  const auto& mappers = onnx_import::Mappers();
  int index = 0;
  for (const auto& node : graph->node()) {
    c.Begin(node, index++);
    auto it = mappers.find(node.op_type());
    if (it == mappers.end()) c.Fail("operator " + Quote(node.op_type()) + " is not supported");
    try {
      it->second(c);
    } catch (const OnnxImportError&) {
      throw;
    } catch (const std::exception& e) {
      c.Fail(e.what());  // e.g. shapes that do not broadcast
    }
    c.End();
  }
  for (const auto& out : graph->output()) {
    const std::string net_name = c.Resolve(out.name());
    if (net_name != out.name()) {
      throw OnnxImportError("graph output " + Quote(out.name()) + " is no layer's output");
    }
    outputs.push_back(out.name());
  }
  bool input_is_output = false;
  for (const auto& in : inputs) input_is_output |= c.graph_outputs.count(in.name) > 0;
  if (input_is_output) throw OnnxImportError("a graph input is also a graph output");
  if (c.Layers().empty()) throw OnnxImportError(Quote(source) + ": the model maps to no layers");

  OnnxImportResult result;
  json11::Json::array data;
  for (const auto& kv : c.preset_ranges) {
    data.push_back(json11::Json::object{{"dataName", kv.first},
                                        {"axis", 0},
                                        {"min", json11::Json::array{kv.second.first}},
                                        {"max", json11::Json::array{kv.second.second}}});
  }
  result.preset_count = static_cast<int>(data.size());
  result.preset_json =
      json11::Json(json11::Json::object{
                       {"presetConfig",
                        json11::Json::object{{"data", data}, {"weight", json11::Json::array{}}}}})
          .dump() +
      "\n";
  result.net_json = NetText(inputs, outputs, c.Layers());
  result.blobs = std::move(c.Blobs());
  result.layer_count = static_cast<int>(c.Layers().size());
  return result;
}

std::string DirOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

OnnxImportResult ImportOnnxBytes(const std::string& bytes, const std::string& source,
                                 const std::string& base_dir, const OnnxImportOptions& options) {
  onnx::ModelProto model;
  if (!model.ParseFromString(bytes)) {
    throw OnnxImportError(Quote(source) +
                          " is not a valid ONNX model: its data does not parse as an ONNX "
                          "ModelProto (truncated, or another format)");
  }
  const onnx_import::ConstantLimitScope limit(options.max_constant_bytes);
  try {
    return Import(model, source, base_dir, options);
  } catch (const onnx_import::FoldError& e) {
    throw OnnxImportError(Quote(source) + ": " + e.what());
  } catch (const ShapeOverflow& e) {
    // The passes name the node; this is the last resort of any other step.
    throw OnnxImportError(Quote(source) + ": " + e.what());
  } catch (const std::bad_alloc&) {
    throw OnnxImportError(Quote(source) + ": out of memory while importing");
  }
}

OnnxImportResult ImportOnnxFile(const std::string& path, const OnnxImportOptions& options) {
  std::string bytes, error;
  if (!ReadWholeFile(path, &bytes, &error)) {
    throw OnnxImportError("cannot read " + Quote(path) + ": " + error);
  }
  return ImportOnnxBytes(bytes, path, DirOf(path), options);
}

OnnxImportResult ConvertOnnxFile(const std::string& onnx_path, const std::string& json_path,
                                 const std::string& weights_path, const std::string& serial_path,
                                 const OnnxImportOptions& options) {
  OnnxImportResult result = ImportOnnxFile(onnx_path, options);
  std::vector<std::pair<std::string, std::string>> files;
  files.emplace_back(json_path, result.net_json);
  files.emplace_back(weights_path, SerializeWeights(result.blobs));
  if (!serial_path.empty()) files.emplace_back(serial_path, SerializeSerialWeights(result.blobs));
  if (!options.preset_path.empty()) files.emplace_back(options.preset_path, result.preset_json);
  // All files are written before any is renamed into place.
  std::string error;
  if (!WriteFilesAtomically(files, &error)) throw OnnxImportError(error);
  return result;
}

void ParseInputShapeArg(const std::string& arg, OnnxImportOptions* options) {
  const size_t eq = arg.rfind('=');
  const std::string bad = "--input-shape " + Quote(arg) + " is not NAME=D0,D1,...";
  if (eq == std::string::npos || eq == 0 || eq + 1 == arg.size()) throw OnnxImportError(bad);
  std::vector<int64_t> dims;
  std::stringstream s(arg.substr(eq + 1));
  std::string item;
  while (std::getline(s, item, ',')) {
    size_t used = 0;
    long long v = 0;
    try {
      v = std::stoll(item, &used);
    } catch (...) {
      throw OnnxImportError(bad);
    }
    if (used != item.size() || v < 1) throw OnnxImportError(bad);
    dims.push_back(v);
  }
  options->input_shapes[arg.substr(0, eq)] = dims;
}

}  // namespace qzdl
