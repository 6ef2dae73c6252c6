// Structured ONNX models into the importer. The bytes are read as a small
// program that builds a model: an opset, 1-2 graph inputs of rank 0-5 with
// small (sometimes symbolic) dims, and 1-4 nodes of the operators the
// importer maps or folds, whose inputs are earlier tensors or new small
// initializers and whose attributes have the types the operator's schema
// declares. Import errors are expected; an imported net must load in the
// runtime (or be refused there with a message) and run.
//
// Seeds (tests/fuzz/corpus/onnx_graph) were made with
//   python3 -c 'import random; r = random.Random(20261121)
//   for i in range(10): open("tests/fuzz/corpus/onnx_graph/seed-%02d" % i, "wb").write(
//       bytes(r.randrange(256) for _ in range(r.randrange(64, 257))))'
#include <onnx/defs/schema.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "runtime/weights_file.h"
#include "importer/mapping_context.h"
#include "importer/onnx_importer.h"

namespace {

// Reads the fuzz bytes; past their end every read gives 0.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  int Below(int n) { return n <= 1 ? 0 : Byte() % n; }
  bool Chance(int percent) { return Below(100) < percent; }
  template <typename T>
  const T& Pick(const std::vector<T>& v) {
    return v[Below(static_cast<int>(v.size()))];
  }
  int64_t SmallInt() {
    static const std::vector<int64_t> kInts = {
        -3, -2, -1, 0, 1, 2, 3, 4, 5, 6, 8, 16, 1 << 20, INT64_MAX, INT64_MIN, -(1LL << 40)};
    return Pick(kInts);
  }
  float SmallFloat() {
    static const std::vector<float> kFloats = {0.0f,  0.5f,  1.0f,  -1.0f, 2.0f,  1e-5f,
                                               -0.0f, 1e30f, -3.5f, 6.0f,  1e-38f};
    return Pick(kFloats);
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// The operators of the default domain that the importer maps or folds.
const std::vector<std::string>& Ops() {
  static const std::vector<std::string> ops = [] {
    std::vector<std::string> v;
    for (const auto& kv : qzdl::onnx_import::Mappers()) {
      if (kv.first.find('.') == std::string::npos) v.push_back(kv.first);
    }
    for (const char* op :
         {"Constant", "ConstantOfShape", "Range", "Where", "Equal", "Less", "Greater", "Not", "And",
          "Or", "ReduceProd", "ArgMax", "ArgMin", "NonZero", "Mod", "Neg", "Trilu", "Einsum"}) {
      if (qzdl::onnx_import::CanEvaluate(op) && !qzdl::onnx_import::Mappers().count(op)) {
        v.push_back(op);
      }
    }
    return v;
  }();
  return ops;
}

bool Allows(const onnx::OpSchema::FormalParameter& p, const char* type) {
  for (const auto* t : p.GetTypes()) {
    if (*t == type) return true;
  }
  return false;
}

void FillTensor(Bytes& in, onnx::TensorProto* t, bool int64) {
  t->set_data_type(int64 ? onnx::TensorProto::INT64 : onnx::TensorProto::FLOAT);
  const int rank = in.Below(4);
  int64_t n = 1;
  for (int k = 0; k < rank; ++k) {
    const int64_t d = in.Below(5);
    t->add_dims(d);
    n *= d;
  }
  for (int64_t k = 0; k < n; ++k) {
    if (int64) {
      t->add_int64_data(in.Chance(70) ? in.Below(8) - 2 : in.SmallInt());
    } else {
      t->add_float_data(in.SmallFloat());
    }
  }
}

void AddAttribute(Bytes& in, onnx::NodeProto* node, const std::string& name,
                  onnx::AttributeProto::AttributeType type) {
  static const std::vector<std::string> kStrings = {"NOTSET",
                                                    "SAME_UPPER",
                                                    "SAME_LOWER",
                                                    "VALID",
                                                    "nearest",
                                                    "linear",
                                                    "cubic",
                                                    "constant",
                                                    "reflect",
                                                    "edge",
                                                    "DCR",
                                                    "CRD",
                                                    "half_pixel",
                                                    "asymmetric",
                                                    "align_corners",
                                                    "tanh",
                                                    "none",
                                                    "floor",
                                                    "round_prefer_floor",
                                                    ""};
  auto* a = node->add_attribute();
  a->set_name(name);
  a->set_type(type);
  switch (type) {
    case onnx::AttributeProto::INT:
      a->set_i(in.SmallInt());
      break;
    case onnx::AttributeProto::FLOAT:
      a->set_f(in.SmallFloat());
      break;
    case onnx::AttributeProto::STRING:
      a->set_s(in.Pick(kStrings));
      break;
    case onnx::AttributeProto::INTS:
      for (int k = in.Below(7); k > 0; --k)
        a->add_ints(in.Chance(80) ? in.Below(6) - 1 : in.SmallInt());
      break;
    case onnx::AttributeProto::FLOATS:
      for (int k = in.Below(5); k > 0; --k) a->add_floats(in.SmallFloat());
      break;
    case onnx::AttributeProto::TENSOR:
      FillTensor(in, a->mutable_t(), in.Chance(40));
      break;
    default:
      node->mutable_attribute()->RemoveLast();
      break;
  }
}

// Builds the model described by the bytes.
onnx::ModelProto BuildModel(Bytes& in) {
  static const std::vector<int> kOpsets = {11, 13, 17, 7, 9, 12, 14, 15, 16};
  onnx::ModelProto model;
  model.set_ir_version(in.Chance(90) ? 8 : 3);
  auto* opset = model.add_opset_import();
  opset->set_domain("");
  const int version = in.Chance(80) ? in.Pick(std::vector<int>{11, 13, 17}) : in.Pick(kOpsets);
  opset->set_version(version);
  auto* graph = model.mutable_graph();
  graph->set_name("g");

  std::vector<std::string> tensors;
  for (int i = 0, n = 1 + in.Below(2); i < n; ++i) {
    auto* vi = graph->add_input();
    vi->set_name("in" + std::to_string(i));
    auto* tt = vi->mutable_type()->mutable_tensor_type();
    tt->set_elem_type(in.Chance(90) ? onnx::TensorProto::FLOAT : onnx::TensorProto::INT64);
    auto* shape = tt->mutable_shape();
    for (int k = 0, rank = in.Below(6); k < rank; ++k) {
      if (in.Chance(10)) {
        shape->add_dim()->set_dim_param(in.Chance(50) ? "N" : "M");
      } else {
        shape->add_dim()->set_dim_value(in.Chance(85) ? 1 + in.Below(6) : 0);
      }
    }
    tensors.push_back(vi->name());
  }

  int inits = 0;
  for (int i = 0, n = 1 + in.Below(4); i < n; ++i) {
    const std::string& op = in.Pick(Ops());
    const onnx::OpSchema* schema = onnx::OpSchemaRegistry::Schema(op, version, "");
    auto* node = graph->add_node();
    node->set_op_type(op);
    node->set_name("n" + std::to_string(i));
    if (schema == nullptr) {  // not in this opset: the importer must say so
      node->add_input(in.Pick(tensors));
      node->add_output("t" + std::to_string(i) + "_0");
      tensors.push_back(node->output(0));
      continue;
    }
    const auto& formals = schema->inputs();
    for (size_t k = 0; k < formals.size(); ++k) {
      const auto& p = formals[k];
      const auto option = p.GetOption();
      if (option == onnx::OpSchema::Optional && in.Chance(40)) {
        if (k + 1 == formals.size() || in.Chance(50)) break;
        node->add_input("");
        continue;
      }
      const int count = option == onnx::OpSchema::Variadic ? 1 + in.Below(3) : 1;
      for (int j = 0; j < count; ++j) {
        if (in.Chance(55)) {
          node->add_input(in.Pick(tensors));
          continue;
        }
        auto* t = graph->add_initializer();
        t->set_name("c" + std::to_string(inits++));
        const bool int64 = !Allows(p, "tensor(float)") ? Allows(p, "tensor(int64)") : in.Chance(10);
        FillTensor(in, t, int64);
        node->add_input(t->name());
      }
    }
    for (const auto& kv : schema->attributes()) {
      if (in.Chance(45)) AddAttribute(in, node, kv.first, kv.second.type);
    }
    if (in.Chance(3)) AddAttribute(in, node, "bogus", onnx::AttributeProto::INT);
    const int max_out = std::min(schema->max_output(), 3);
    const int outs = schema->min_output() + in.Below(max_out - schema->min_output() + 1);
    for (int k = 0; k < std::max(outs, 1); ++k) {
      node->add_output("t" + std::to_string(i) + "_" + std::to_string(k));
      tensors.push_back(node->output(k));
    }
  }

  // The last node's outputs, and sometimes other tensors, are graph outputs.
  const auto& last = graph->node(graph->node_size() - 1);
  std::vector<std::string> outs(last.output().begin(), last.output().end());
  if (in.Chance(30)) outs.push_back(in.Pick(tensors));
  for (const auto& name : outs) {
    auto* vi = graph->add_output();
    vi->set_name(name);
    vi->mutable_type()->mutable_tensor_type()->set_elem_type(
        in.Chance(90) ? onnx::TensorProto::FLOAT : onnx::TensorProto::INT64);
  }
  return model;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  static const std::string base_dir = qzdl_fuzz::ScratchFolder();
  Bytes in(data, size);
  const onnx::ModelProto model = BuildModel(in);
  std::string bytes;
  if (!model.SerializeToString(&bytes)) return 0;
  // To look at a finding's model: QZDL_FUZZ_DUMP=model.onnx <target> <input>.
  if (const char* dump = std::getenv("QZDL_FUZZ_DUMP")) std::ofstream(dump) << bytes;
  qzdl::OnnxImportOptions options;
  options.max_constant_bytes = qzdl_fuzz::kFuzzMaxConstantBytes;
  qzdl::OnnxImportResult result;
  try {
    result = qzdl::ImportOnnxBytes(bytes, "fuzz.onnx", base_dir, options);
  } catch (const qzdl::OnnxImportError&) {
    return 0;
  }
  std::unique_ptr<qzdl::Net<float>> net(
      qzdl_fuzz::TryCreateNet(result.net_json, qzdl::SerializeWeights(result.blobs), false));
  if (net) net->ForwardAll();
  return 0;
}
