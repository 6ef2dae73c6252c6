// Malformed models are refused with one message naming what is wrong, before
// ONNX shape inference sees them (its inference functions trust the graph).
// Each test builds the smallest model of one class that the fuzzer found or
// that the checks guard against.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <string>
#include <vector>

#include "tools/onnx/onnx_importer.h"

namespace qzdl::test {
namespace {

onnx::ModelProto Model(int opset = 13) {
  onnx::ModelProto m;
  m.set_ir_version(7);
  auto* op = m.add_opset_import();
  op->set_domain("");
  op->set_version(opset);
  m.mutable_graph()->set_name("g");
  return m;
}

void AddInput(onnx::ModelProto* m, const std::string& name, const std::vector<int64_t>& dims) {
  auto* in = m->mutable_graph()->add_input();
  in->set_name(name);
  auto* tt = in->mutable_type()->mutable_tensor_type();
  tt->set_elem_type(onnx::TensorProto::FLOAT);
  for (int64_t d : dims) tt->mutable_shape()->add_dim()->set_dim_value(d);
}

void AddInit(onnx::ModelProto* m, const std::string& name, const std::vector<int64_t>& dims) {
  auto* t = m->mutable_graph()->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::FLOAT);
  int64_t n = 1;
  for (int64_t d : dims) t->add_dims(d), n *= d;
  for (int64_t k = 0; k < n; ++k) t->add_float_data(0.5f);
}

void AddOutput(onnx::ModelProto* m, const std::string& name) {
  auto* out = m->mutable_graph()->add_output();
  out->set_name(name);
  out->mutable_type()->mutable_tensor_type()->set_elem_type(onnx::TensorProto::FLOAT);
}

onnx::NodeProto* AddNode(onnx::ModelProto* m, const std::string& op, const std::string& name,
                         const std::vector<std::string>& inputs,
                         const std::vector<std::string>& outputs) {
  auto* n = m->mutable_graph()->add_node();
  n->set_op_type(op);
  n->set_name(name);
  for (const auto& in : inputs) n->add_input(in);
  for (const auto& out : outputs) n->add_output(out);
  return n;
}

void SetInts(onnx::NodeProto* n, const std::string& name, const std::vector<int64_t>& v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::INTS);
  for (int64_t x : v) a->add_ints(x);
}

// x [1, 1, 4, 4] -> Conv with 3x3 weights -> y.
onnx::ModelProto ConvModel(const std::vector<int64_t>& w_dims = {1, 1, 3, 3}) {
  onnx::ModelProto m = Model();
  AddInput(&m, "x", {1, 1, 4, 4});
  AddInit(&m, "w", w_dims);
  AddNode(&m, "Conv", "conv", {"x", "w"}, {"y"});
  AddOutput(&m, "y");
  return m;
}

std::string ImportMessage(const onnx::ModelProto& m) {
  try {
    ImportOnnxBytes(m.SerializeAsString(), "m.onnx", ".");
  } catch (const OnnxImportError& e) {
    return e.what();
  }
  return "(imported)";
}

TEST(MalformedModel, ValidConvStillImports) { EXPECT_EQ(ImportMessage(ConvModel()), "(imported)"); }

TEST(MalformedModel, GraphInputDeclaredTwice) {
  onnx::ModelProto m = ConvModel();
  AddInput(&m, "x", {1, 1, 4, 4});
  EXPECT_EQ(ImportMessage(m), "graph input \"x\" is declared twice");
}

TEST(MalformedModel, GraphInputWithoutName) {
  onnx::ModelProto m = ConvModel();
  AddInput(&m, "", {1});
  EXPECT_EQ(ImportMessage(m), "graph input 1 has no name");
}

TEST(MalformedModel, InitializerGivenTwice) {
  onnx::ModelProto m = ConvModel();
  AddInit(&m, "w", {1, 1, 3, 3});
  EXPECT_EQ(ImportMessage(m), "initializer \"w\" is given twice");
}

TEST(MalformedModel, InitializerListedAsInputIsFine) {
  onnx::ModelProto m = ConvModel();
  AddInput(&m, "w", {1, 1, 3, 3});  // as IR version 3 models do
  EXPECT_EQ(ImportMessage(m), "(imported)");
}

TEST(MalformedModel, NodeOutputRedefinesGraphInput) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "Relu", "relu", {"y"}, {"x"});
  EXPECT_EQ(ImportMessage(m),
            "node \"relu\" (Relu): output \"x\" is already a graph input; every tensor name "
            "must be defined once");
}

TEST(MalformedModel, NodeOutputRedefinesInitializer) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "Relu", "relu", {"y"}, {"w"});
  EXPECT_EQ(ImportMessage(m),
            "node \"relu\" (Relu): output \"w\" is already an initializer; every tensor name "
            "must be defined once");
}

TEST(MalformedModel, TwoNodesDefineOneTensor) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "Relu", "", {"x"}, {"y"});
  EXPECT_EQ(ImportMessage(m),
            "node \"Relu_1\" (Relu): output \"y\" is already an output of node \"conv\" (Conv); "
            "every tensor name must be defined once");
}

TEST(MalformedModel, GraphOutputListedTwice) {
  onnx::ModelProto m = ConvModel();
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m), "graph output \"y\" is listed twice");
}

TEST(MalformedModel, NodeWithoutOperatorType) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "", "", {"y"}, {"z"});
  EXPECT_EQ(ImportMessage(m), "node 1 has no operator type (op_type is empty)");
}

TEST(MalformedModel, UnknownOperatorIsRefusedBeforeInference) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "If", "branch", {"y"}, {"z"});
  EXPECT_EQ(ImportMessage(m), "node \"branch\" (If): operator \"If\" is not supported");
}

TEST(MalformedModel, PrivateOperatorOfTheImporter) {
  onnx::ModelProto m = Model(20);
  AddInput(&m, "x", {1, 4});
  AddNode(&m, "qzdl.Swish", "swish", {"x"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"swish\" (qzdl.Swish): operator \"qzdl.Swish\" is not supported");
}

TEST(MalformedModel, OperatorNotInTheOperatorSet) {
  onnx::ModelProto m = ConvModel();
  AddInit(&m, "scale", {4});
  AddNode(&m, "LayerNormalization", "ln", {"y", "scale"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"ln\" (LayerNormalization): operator set 13 has no operator "
            "\"LayerNormalization\"");
}

TEST(MalformedModel, TooFewInputs) {
  onnx::ModelProto m = ConvModel();
  m.mutable_graph()->mutable_node(0)->mutable_input()->RemoveLast();
  EXPECT_EQ(ImportMessage(m), "node \"conv\" (Conv): 1 input given; the operator takes 2 to 3");
}

TEST(MalformedModel, TooManyOutputs) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "Relu", "relu", {"y"}, {"z", "z2"});
  EXPECT_EQ(ImportMessage(m), "node \"relu\" (Relu): 2 outputs given; the operator has 1");
}

TEST(MalformedModel, RequiredInputEmpty) {
  onnx::ModelProto m = ConvModel();
  m.mutable_graph()->mutable_node(0)->set_input(1, "");
  EXPECT_EQ(ImportMessage(m), "node \"conv\" (Conv): required input 1 (W) is empty");
}

TEST(MalformedModel, AttributeOfTheWrongType) {
  onnx::ModelProto m = ConvModel();
  auto* a = m.mutable_graph()->mutable_node(0)->add_attribute();
  a->set_name("strides");
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(1);
  EXPECT_EQ(ImportMessage(m),
            "node \"conv\" (Conv): attribute \"strides\" has type INT; the operator takes INTS");
}

TEST(MalformedModel, AttributeGivenTwice) {
  onnx::ModelProto m = ConvModel();
  SetInts(m.mutable_graph()->mutable_node(0), "strides", {1, 1});
  SetInts(m.mutable_graph()->mutable_node(0), "strides", {2, 2});
  EXPECT_EQ(ImportMessage(m), "node \"conv\" (Conv): attribute \"strides\" is given twice");
}

TEST(MalformedModel, RequiredAttributeMissing) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "MaxPool", "pool", {"y"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"pool\" (MaxPool): required attribute \"kernel_shape\" is missing");
}

// The first fuzzer finding: ConvTranspose on data of 2 axes with weights of
// 4 made the library's inference read past its per-axis tables.
TEST(MalformedModel, ConvTransposeOnDataOfTwoAxes) {
  onnx::ModelProto m = Model();
  AddInput(&m, "X", {3, 4});
  AddInit(&m, "W", {4, 2, 3, 3});
  AddNode(&m, "ConvTranspose", "deconv", {"X", "W"}, {"Y"});
  AddOutput(&m, "Y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): input 0 (\"X\") has 2 axes; the operator needs at "
            "least 3 (N, C and a spatial axis)");
}

TEST(MalformedModel, ConvWeightsOfAnotherRank) {
  EXPECT_EQ(ImportMessage(ConvModel({1, 1, 3})),
            "node \"conv\" (Conv): input 1 (\"w\") has 3 axes and input 0 (\"x\") 4 axes; they "
            "must have the same number");
}

TEST(MalformedModel, RanksFromShapeInferenceAreChecked) {
  // The data of the convolution is an inferred tensor, not a graph input.
  onnx::ModelProto m = Model();
  AddInput(&m, "x", {1, 1, 4, 4});
  AddInit(&m, "w", {1, 1, 3, 3, 3});
  AddNode(&m, "Relu", "relu", {"x"}, {"r"});
  AddNode(&m, "ConvTranspose", "deconv", {"r", "w"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): input 1 (\"w\") has 5 axes and input 0 (\"r\") 4 "
            "axes; they must have the same number");
}

TEST(MalformedModel, ZeroStride) {
  onnx::ModelProto m = ConvModel();
  SetInts(m.mutable_graph()->mutable_node(0), "strides", {1, 0});
  EXPECT_EQ(ImportMessage(m),
            "node \"conv\" (Conv): attribute \"strides\" has value 0; it must be positive");
}

TEST(MalformedModel, DilationsForAnotherRank) {
  onnx::ModelProto m = ConvModel();
  SetInts(m.mutable_graph()->mutable_node(0), "dilations", {1, 1, 1});
  EXPECT_EQ(ImportMessage(m),
            "node \"conv\" (Conv): attribute \"dilations\" has 3 values; input 0 (\"x\") has 2 "
            "axes after N and C, so it needs 2");
}

TEST(MalformedModel, LayerNormalizationAxisOutOfRange) {
  onnx::ModelProto m = Model(17);
  AddInput(&m, "x", {1, 4});
  AddInit(&m, "scale", {4});
  onnx::NodeProto* n = AddNode(&m, "LayerNormalization", "ln", {"x", "scale"}, {"y", "mean"});
  auto* a = n->add_attribute();
  a->set_name("axis");
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(-3);
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"ln\" (LayerNormalization): attribute \"axis\" value -3 is outside [-2, 1] "
            "for input 0 (\"x\") of 2 axes");
}

// Found by a generator of one-node models: Gemm of operator set 6 on a
// scalar operand; the library's inference indexed its axes unchecked.
TEST(MalformedModel, GemmOnAScalar) {
  onnx::ModelProto m = Model(6);
  AddInput(&m, "a", {2, 3});
  AddInit(&m, "b", {});
  AddInit(&m, "c", {2});
  AddNode(&m, "Gemm", "gemm", {"a", "b", "c"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"gemm\" (Gemm): input 1 (\"b\") has 0 axes; the operator takes 2");
}

// Found by the same generator, in the importer's own constant folding: an
// Unsqueeze naming one axis twice read past its input's dims.
TEST(MalformedModel, UnsqueezeOfAConstantNamingAnAxisTwice) {
  onnx::ModelProto m = Model(15);
  AddInput(&m, "x", {2, 3});
  AddNode(&m, "Size", "size", {"x"}, {"n"});
  auto* axes = m.mutable_graph()->add_initializer();
  axes->set_name("axes");
  axes->set_data_type(onnx::TensorProto::INT64);
  axes->add_dims(2);
  axes->add_int64_data(0);
  axes->add_int64_data(-2);
  AddNode(&m, "Unsqueeze", "unsqueeze", {"n", "axes"}, {"y"});
  AddOutput(&m, "y");
  m.mutable_graph()->mutable_output(0)->mutable_type()->mutable_tensor_type()->set_elem_type(
      onnx::TensorProto::INT64);
  EXPECT_EQ(ImportMessage(m), "node \"unsqueeze\" (Unsqueeze): axes name axis 0 twice");
}

// Found by the generator: ReduceL1 with keepdims 4 (ONNX keeps axes for 1
// only) gave a scalar to a MatMul, whose mapping took the last axis of it.
TEST(MalformedModel, ReduceWithKeepdimsOtherThanZeroOrOne) {
  onnx::ModelProto m = Model(12);
  AddInput(&m, "x", {2, 1, 4});
  onnx::NodeProto* n = AddNode(&m, "ReduceL1", "reduce", {"x"}, {"r"});
  auto* a = n->add_attribute();
  a->set_name("keepdims");
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(4);
  AddInit(&m, "b", {2});
  AddNode(&m, "MatMul", "matmul", {"r", "b"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"reduce\" (ReduceL1): attribute \"keepdims\" value 4 is not supported (it "
            "must be 0 or 1)");
}

// Found by the generator: LayerNormalization of a scalar; the library's
// inference took the default axis -1 as an index.
TEST(MalformedModel, LayerNormalizationOfAScalar) {
  onnx::ModelProto m = Model(17);
  AddInput(&m, "x", {2, 3});
  onnx::NodeProto* n = AddNode(&m, "ReduceMean", "mean", {"x"}, {"r"});
  auto* a = n->add_attribute();
  a->set_name("keepdims");
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(0);
  AddInit(&m, "scale", {1});
  AddNode(&m, "LayerNormalization", "ln", {"r", "scale"}, {"y", "mean_out", "inv_std"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"ln\" (LayerNormalization): input 0 (\"r\") has 0 axes; the operator takes "
            "at least 1");
}

// Found by the fuzzer: an initializer claiming dims of a billion elements
// with 13 values; the importer allocated for the dims before counting the
// values.
TEST(MalformedModel, InitializerWithFarFewerValuesThanItsDims) {
  onnx::ModelProto m = ConvModel();
  auto* t = m.mutable_graph()->add_initializer();
  t->set_name("big");
  t->set_data_type(onnx::TensorProto::INT64);
  t->add_dims(522157053);
  t->add_dims(2);
  for (int k = 0; k < 13; ++k) t->add_int64_data(k);
  EXPECT_EQ(ImportMessage(m),
            "initializer \"big\" holds 13 values, expected 1044314106 for shape [522157053, 2]");
}

TEST(MalformedModel, InitializerWithDimsWhoseProductOverflows) {
  onnx::ModelProto m = ConvModel();
  auto* t = m.mutable_graph()->add_initializer();
  t->set_name("big");
  t->set_data_type(onnx::TensorProto::FLOAT);
  for (int k = 0; k < 4; ++k) t->add_dims(int64_t{1} << 20);
  t->set_raw_data("1234");
  EXPECT_EQ(ImportMessage(m),
            "initializer \"big\" has shape [1048576, 1048576, 1048576, 1048576], too many "
            "elements");
}

TEST(MalformedModel, ExternalDataOffsetThatIsNoNumber) {
  onnx::ModelProto m = ConvModel();
  auto* t = m.mutable_graph()->add_initializer();
  t->set_name("ext");
  t->set_data_type(onnx::TensorProto::FLOAT);
  t->add_dims(1);
  t->set_data_location(onnx::TensorProto::EXTERNAL);
  auto* kv = t->add_external_data();
  kv->set_key("location");
  kv->set_value("weights.bin");
  kv = t->add_external_data();
  kv->set_key("offset");
  kv->set_value("12x");
  EXPECT_EQ(ImportMessage(m),
            "initializer \"ext\" has external data offset \"12x\", not a number of bytes");
}

TEST(MalformedModel, ConstantOfShapeBeyondTheLimit) {
  onnx::ModelProto m = ConvModel();
  auto* shape = m.mutable_graph()->add_initializer();
  shape->set_name("shape");
  shape->set_data_type(onnx::TensorProto::INT64);
  shape->add_dims(2);
  shape->add_int64_data(100000);
  shape->add_int64_data(100000);
  AddNode(&m, "ConstantOfShape", "fill", {"shape"}, {"c"});
  AddNode(&m, "Add", "add", {"y", "c"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"fill\" (ConstantOfShape): would have shape [100000, 100000], more than "
            "67108864 elements (the limit for constants computed while importing)");
}

}  // namespace
}  // namespace qzdl::test
