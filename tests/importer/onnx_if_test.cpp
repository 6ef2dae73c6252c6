// If nodes: a condition that is a constant (an initializer, a folded
// computation, a graph input given with --constant-input) selects a branch
// whose nodes replace the If; a condition computed from the net's inputs is
// refused naming the node.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "runtime/json11.h"

namespace qzdl::test {
namespace {

void BoolInit(onnx::GraphProto* g, const std::string& name, bool v) {
  auto* t = g->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::BOOL);
  t->add_int32_data(v ? 1 : 0);
}

onnx::NodeProto* Node(onnx::GraphProto* g, const std::string& op, const std::string& name,
                      const std::vector<std::string>& in, const std::string& out) {
  auto* n = g->add_node();
  n->set_op_type(op);
  n->set_name(name);
  for (const auto& i : in) n->add_input(i);
  n->add_output(out);
  return n;
}

// then: y = relu(x) * 2 (its own initializer); else: y = sigmoid(x).
void AddIf(onnx::ModelProto* m, const std::string& cond) {
  onnx::NodeProto* node = Node(m->mutable_graph(), "If", "if", {cond}, "y");
  auto* then_attr = node->add_attribute();
  then_attr->set_name("then_branch");
  then_attr->set_type(onnx::AttributeProto::GRAPH);
  onnx::GraphProto* then_g = then_attr->mutable_g();
  then_g->set_name("then");
  AddFloatInit(then_g, "two", {1}, {2.0f});
  Node(then_g, "Relu", "relu", {"x"}, "r");
  Node(then_g, "Mul", "", {"r", "two"}, "then_y");
  then_g->add_output()->set_name("then_y");
  auto* else_attr = node->add_attribute();
  else_attr->set_name("else_branch");
  else_attr->set_type(onnx::AttributeProto::GRAPH);
  onnx::GraphProto* else_g = else_attr->mutable_g();
  else_g->set_name("else");
  Node(else_g, "Sigmoid", "sig", {"x"}, "else_y");
  else_g->add_output()->set_name("else_y");
}

std::string NamesAndTypes(const OnnxImportResult& r) {
  std::string s;
  const json11::Json layers = Layers(r);
  for (const auto& l : layers.array_items())
    s += l["name"].string_value() + ":" + l["type"].string_value() + " ";
  return s;
}

const std::vector<float> kX = {-1.5f, 0.0f, 2.0f, 0.25f};

TEST(OnnxIf, ConstantConditionTakesItsBranch) {
  for (bool cond : {true, false}) {
    SCOPED_TRACE(cond);
    onnx::ModelProto m = EmptyModel();
    AddFloatInput(m.mutable_graph(), "x", {1, 4});
    BoolInit(m.mutable_graph(), "c", cond);
    AddIf(&m, "c");
    AddOutput(&m, "y");
    const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
    EXPECT_EQ(NamesAndTypes(r), cond ? "if/relu:ReLU if/Mul_1:Scale if/result_0:Dropout "
                                     : "if/sig:Sigmoid if/result_0:Dropout ")
        << r.net_json;
    auto net = BuildNet(r);
    const auto out = RunNet(net.get(), {kX});
    for (size_t i = 0; i < kX.size(); ++i) {
      const float want = cond ? std::max(kX[i], 0.0f) * 2.0f : 1.0f / (1.0f + std::exp(-kX[i]));
      EXPECT_FLOAT_EQ(out[0][i], want) << i;
    }
  }
}

TEST(OnnxIf, ConditionFromTheShapeOfABranchResult) {
  // The branch pads x by its own constant pads; a second If's condition
  // compares the padded width with 6, which only those pads tell.
  onnx::ModelProto m = EmptyModel();
  onnx::GraphProto* g = m.mutable_graph();
  AddFloatInput(g, "x", {1, 1, 1, 4});
  BoolInit(g, "c", true);
  onnx::NodeProto* node = Node(g, "If", "if", {"c"}, "p");
  for (const char* name : {"then_branch", "else_branch"}) {
    auto* attr = node->add_attribute();
    attr->set_name(name);
    attr->set_type(onnx::AttributeProto::GRAPH);
    onnx::GraphProto* b = attr->mutable_g();
    const std::string tag = name[0] == 't' ? "then" : "else";
    auto* pads = b->add_initializer();
    pads->set_name(tag + "_pads");
    pads->set_data_type(onnx::TensorProto::INT64);
    pads->add_dims(8);
    for (int64_t d : {0, 0, 0, 1, 0, 0, 0, 1}) pads->add_int64_data(d);
    Node(b, "Pad", tag + "_pad", {"x", tag + "_pads"}, tag + "_p");
    b->add_output()->set_name(tag + "_p");
  }
  auto* index = g->add_initializer();
  index->set_name("three");
  index->set_data_type(onnx::TensorProto::INT64);
  index->add_int64_data(3);
  auto* six = g->add_initializer();
  six->set_name("six");
  six->set_data_type(onnx::TensorProto::INT64);
  six->add_int64_data(6);
  Node(g, "Shape", "shape", {"p"}, "dims");
  Node(g, "Gather", "width", {"dims", "three"}, "w");
  Node(g, "Equal", "is6", {"w", "six"}, "c2");
  onnx::NodeProto* second = Node(g, "If", "if2", {"c2"}, "y");
  for (const char* name : {"then_branch", "else_branch"}) {
    auto* attr = second->add_attribute();
    attr->set_name(name);
    attr->set_type(onnx::AttributeProto::GRAPH);
    onnx::GraphProto* b = attr->mutable_g();
    const std::string tag = name[0] == 't' ? "then2" : "else2";
    Node(b, name[0] == 't' ? "Relu" : "Sigmoid", tag, {"p"}, tag + "_y");
    b->add_output()->set_name(tag + "_y");
  }
  AddOutput(&m, "y");
  const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  EXPECT_NE(r.net_json.find("\"if2/then2\""), std::string::npos) << r.net_json;
  auto net = BuildNet(r);
  const auto out = RunNet(net.get(), {kX});
  EXPECT_EQ(out[0], (std::vector<float>{0.0f, 0.0f, 0.0f, 2.0f, 0.25f, 0.0f}));
}

TEST(OnnxIf, ConditionFromAConstantInput) {
  // c = (sr == 16000) with sr an int64 graph input given as a constant, as a
  // voice-activity detector takes its sample rate.
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  auto* sr = m.mutable_graph()->add_input();
  sr->set_name("sr");
  sr->mutable_type()->mutable_tensor_type()->set_elem_type(onnx::TensorProto::INT64);
  sr->mutable_type()->mutable_tensor_type()->mutable_shape()->add_dim()->set_dim_value(1);
  auto* rate = m.mutable_graph()->add_initializer();
  rate->set_name("rate");
  rate->set_data_type(onnx::TensorProto::INT64);
  rate->add_dims(1);
  rate->add_int64_data(16000);
  Node(m.mutable_graph(), "Equal", "is16k", {"sr", "rate"}, "c1");
  Node(m.mutable_graph(), "Squeeze", "scalar", {"c1"}, "c");
  AddIf(&m, "c");
  AddOutput(&m, "y");
  for (int64_t value : {16000, 8000}) {
    onnx::TensorProto t;
    t.set_data_type(onnx::TensorProto::INT64);
    t.add_dims(1);
    t.add_int64_data(value);
    OnnxImportOptions options;
    options.constant_inputs["sr"] = t.SerializeAsString();
    const OnnxImportResult r = ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".", options);
    EXPECT_EQ(NamesAndTypes(r), value == 16000 ? "if/relu:ReLU if/Mul_1:Scale if/result_0:Dropout "
                                               : "if/sig:Sigmoid if/result_0:Dropout ");
  }
  // Without the constant the input is refused as before.
  EXPECT_EQ(ImportErrorOf(m),
            "graph input \"sr\" has element type int64; the runtime takes float inputs only (an "
            "input that is a constant can be given with --constant-input sr=TENSOR.pb)");
}

TEST(OnnxIf, ConditionFromTheDataIsRefused) {
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {4});
  AddFloatInit(m.mutable_graph(), "zero", {}, {0.0f});
  auto* mean = Node(m.mutable_graph(), "ReduceMean", "mean", {"x"}, "mx");
  auto* keep = mean->add_attribute();
  keep->set_name("keepdims");
  keep->set_type(onnx::AttributeProto::INT);
  keep->set_i(0);
  Node(m.mutable_graph(), "Greater", "positive", {"mx", "zero"}, "c");
  AddIf(&m, "c");
  AddOutput(&m, "y");
  EXPECT_EQ(ImportErrorOf(m),
            "node \"if\" (If): the condition \"c\" is computed from the net's inputs; only an If "
            "whose condition is a constant (after constant folding, or given with "
            "--constant-input) is supported");
}

TEST(OnnxIf, BranchNamesMustNotClashWithTheGraph) {
  onnx::ModelProto m = EmptyModel();
  AddFloatInput(m.mutable_graph(), "x", {1, 4});
  BoolInit(m.mutable_graph(), "c", true);
  Node(m.mutable_graph(), "Relu", "outer", {"x"}, "r");  // the then branch defines "r" too
  AddIf(&m, "c");
  AddNode(&m, "Add", "sum", {"y", "r"}, {"z"});
  AddOutput(&m, "z");
  EXPECT_EQ(ImportErrorOf(m),
            "node \"if\" (If): then_branch defines \"r\", which the enclosing graph defines too");
}

}  // namespace
}  // namespace qzdl::test
