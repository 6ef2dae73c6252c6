// Malformed models are refused with one message naming what is wrong, before
// ONNX shape inference sees them (its inference functions trust the graph).
// Each test builds the smallest model of one class that the fuzzer found or
// that the checks guard against.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <cstdint>
#include <string>
#include <vector>

#include "importer/onnx_importer.h"
#include "importer/onnx_test_util.h"

namespace qzdl::test {
namespace {

void AddInput(onnx::ModelProto* m, const std::string& name, const std::vector<int64_t>& dims) {
  AddFloatInput(m->mutable_graph(), name, dims);
}

void AddInit(onnx::ModelProto* m, const std::string& name, const std::vector<int64_t>& dims) {
  auto* t = m->mutable_graph()->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::FLOAT);
  int64_t n = 1;
  for (int64_t d : dims) t->add_dims(d), n *= d;
  for (int64_t k = 0; k < n; ++k) t->add_float_data(0.5f);
}

void SetInt(onnx::NodeProto* n, const std::string& name, int64_t v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(v);
}

void SetInts(onnx::NodeProto* n, const std::string& name, const std::vector<int64_t>& v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::INTS);
  for (int64_t x : v) a->add_ints(x);
}

// x [1, 1, 4, 4] -> Conv with 3x3 weights -> y.
onnx::ModelProto ConvModel(const std::vector<int64_t>& w_dims = {1, 1, 3, 3}) {
  onnx::ModelProto m = EmptyModel();
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
  AddNode(&m, "Loop", "loop", {"y"}, {"z"});
  EXPECT_EQ(ImportMessage(m), "node \"loop\" (Loop): operator \"Loop\" is not supported");
}

TEST(MalformedModel, IfWithoutItsBranches) {
  onnx::ModelProto m = ConvModel();
  AddNode(&m, "If", "branch", {"y"}, {"z"});
  EXPECT_EQ(ImportMessage(m), "node \"branch\" (If): required attribute \"else_branch\" is missing");
}

TEST(MalformedModel, PrivateOperatorOfTheImporter) {
  onnx::ModelProto m = EmptyModel(20);
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
  SetInt(m.mutable_graph()->mutable_node(0), "strides", 1);
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
  onnx::ModelProto m = EmptyModel();
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
  onnx::ModelProto m = EmptyModel();
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

// A finding of the fuzzer once ConvInteger was imported: the library's
// inference of ConvInteger indexed its per-axis tables by attributes of
// another rank (SEGV); it gets the checks of Conv.
// A fuzzer timeout: a nearest Resize to millions of pixels a side made the
// importer check the mapping pixel by pixel (comparing names each time).
TEST(MalformedModel, ResizeToAHugeSizeIsRefusedAtOnce) {
  onnx::ModelProto m = EmptyModel(13);
  AddInput(&m, "x", {1, 1, 4, 4});
  auto* sizes = m.mutable_graph()->add_initializer();
  sizes->set_name("sizes");
  sizes->set_data_type(onnx::TensorProto::INT64);
  sizes->add_dims(4);
  for (int64_t d : {1, 1, 4, 2000000000}) sizes->add_int64_data(d);
  AddNode(&m, "Resize", "resize", {"x", "", "", "sizes"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"resize\" (Resize): output of H x W [4, 2000000000] is larger than 1048576 "
            "along an axis, which resizing supports");
}

TEST(MalformedModel, ConvIntegerAttributesForAnotherRank) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 1, 4, 4});
  AddInit(&m, "w", {1, 1, 3, 3});
  AddNode(&m, "ConvInteger", "conv", {"x", "w"}, {"y"});
  SetInts(m.mutable_graph()->mutable_node(0), "pads", {1, 1, 1, 1, 1, 1, 1, 1, 1, 1});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"conv\" (ConvInteger): attribute \"pads\" has 10 values; input 0 (\"x\") has "
            "2 axes after N and C, so it needs 4");
}

TEST(MalformedModel, LayerNormalizationAxisOutOfRange) {
  onnx::ModelProto m = EmptyModel(17);
  AddInput(&m, "x", {1, 4});
  AddInit(&m, "scale", {4});
  SetInt(AddNode(&m, "LayerNormalization", "ln", {"x", "scale"}, {"y", "mean"}), "axis", -3);
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"ln\" (LayerNormalization): attribute \"axis\" value -3 is outside [-2, 1] "
            "for input 0 (\"x\") of 2 axes");
}

// Found by a generator of one-node models: Gemm of operator set 6 on a
// scalar operand; the library's inference indexed its axes unchecked.
TEST(MalformedModel, GemmOnAScalar) {
  onnx::ModelProto m = EmptyModel(6);
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
  onnx::ModelProto m = EmptyModel(15);
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
  onnx::ModelProto m = EmptyModel(12);
  AddInput(&m, "x", {2, 1, 4});
  SetInt(AddNode(&m, "ReduceL1", "reduce", {"x"}, {"r"}), "keepdims", 4);
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
  onnx::ModelProto m = EmptyModel(17);
  AddInput(&m, "x", {2, 3});
  SetInt(AddNode(&m, "ReduceMean", "mean", {"x"}, {"r"}), "keepdims", 0);
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
            "node \"fill\" (ConstantOfShape): would have shape [100000, 100000] of float, "
            "40000000000 bytes, beyond the limit of 1073741824 bytes for a constant computed "
            "while importing (qzdl_onnx2net --max-constant-mib raises it)");
}

// The classes below were found by the onnx_graph fuzz target (structured
// models). A constant: FLOAT and BOOL values as given, other types as int64.
void AddConst(onnx::ModelProto* m, const std::string& name, int32_t type,
              const std::vector<int64_t>& dims, const std::vector<double>& values) {
  auto* t = m->mutable_graph()->add_initializer();
  t->set_name(name);
  t->set_data_type(type);
  for (int64_t d : dims) t->add_dims(d);
  for (double v : values) {
    if (type == onnx::TensorProto::FLOAT) {
      t->add_float_data(static_cast<float>(v));
    } else if (type == onnx::TensorProto::BOOL) {
      t->add_int32_data(v != 0);
    } else {
      t->add_int64_data(static_cast<int64_t>(v));
    }
  }
}

void AddInt64Const(onnx::ModelProto* m, const std::string& name,
                   const std::vector<int64_t>& values) {
  auto* t = m->mutable_graph()->add_initializer();
  t->set_name(name);
  t->set_data_type(onnx::TensorProto::INT64);
  t->add_dims(static_cast<int64_t>(values.size()));
  for (int64_t v : values) t->add_int64_data(v);
}

constexpr int32_t kF = onnx::TensorProto::FLOAT;

TEST(MalformedModel, FloatConditionBeyondInt64IsTrue) {
  // Reading 1e30 as an integer was undefined; it saturates (true).
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {2, 3});
  AddConst(&m, "cond", kF, {}, {1e30});
  AddInt64Const(&m, "a", {3, 2});
  AddInt64Const(&m, "b", {5, 5});
  AddNode(&m, "Where", "where", {"cond", "a", "b"}, {"shape"});
  AddNode(&m, "Reshape", "reshape", {"x", "shape"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m), "(imported)");
}

TEST(MalformedModel, NegOfInt64MinSaturates) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {2, 3}, {1, 2, 3, 4, 5, 6});
  AddInt64Const(&m, "s", {INT64_MIN, 3});
  AddNode(&m, "Neg", "neg", {"s"}, {"shape"});
  AddNode(&m, "Reshape", "reshape", {"c", "shape"}, {"r"});
  AddNode(&m, "Add", "add", {"y", "r"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"reshape\" (Reshape): shape [9223372036854775807, -3] has a negative entry "
            "other than -1");
}

TEST(MalformedModel, ClipMinWithoutValue) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 4});
  AddConst(&m, "min", kF, {0}, {});
  AddNode(&m, "Clip", "clip", {"x", "min"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m), "node \"clip\" (Clip): min holds 0 values; it must hold one");
}

TEST(MalformedModel, ConstantReshapeBeyondInt64) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {2, 3}, {1, 2, 3, 4, 5, 6});
  AddInt64Const(&m, "shape", {int64_t{1} << 40, int64_t{1} << 40});
  AddNode(&m, "Reshape", "reshape", {"c", "shape"}, {"r"});
  AddNode(&m, "Add", "add", {"y", "r"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"reshape\" (Reshape): shape [1099511627776, 1099511627776] does not fit "
            "input [2, 3]");
}

TEST(MalformedModel, ConstantReshapeNegativeEntry) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {2, 3}, {1, 2, 3, 4, 5, 6});
  AddInt64Const(&m, "shape", {-2, -3});
  AddNode(&m, "Reshape", "reshape", {"c", "shape"}, {"r"});
  AddNode(&m, "Add", "add", {"y", "r"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"reshape\" (Reshape): shape [-2, -3] has a negative entry other than -1");
}

TEST(MalformedModel, UnsqueezeAxisTwice) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {2, 3});
  AddInt64Const(&m, "axes", {1, 1, 3});
  AddNode(&m, "Unsqueeze", "unsqueeze", {"x", "axes"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"unsqueeze\" (Unsqueeze): axes [1, 1, 3] name an axis more than once");
}

TEST(MalformedModel, ConstantWhereOfTwoTypes) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "cond", onnx::TensorProto::BOOL, {}, {1});
  AddConst(&m, "a", kF, {1}, {2});
  AddInt64Const(&m, "b", {3});
  AddNode(&m, "Where", "where", {"cond", "a", "b"}, {"sel"});
  AddNode(&m, "Add", "add", {"y", "sel"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"where\" (Where): X and Y differ in element type (float and int64)");
}

TEST(MalformedModel, ConstantConcatOfTwoTypes) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "a", kF, {1}, {2});
  AddInt64Const(&m, "b", {3});
  SetInt(AddNode(&m, "Concat", "concat", {"a", "b"}, {"c"}), "axis", 0);
  AddNode(&m, "Add", "add", {"y", "c"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"concat\" (Concat): inputs differ in element type (float and int64)");
}

TEST(MalformedModel, ConstantTransposeNotAPermutation) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {0, 1, 1}, {});
  SetInts(AddNode(&m, "Transpose", "transpose", {"c"}, {"t"}), "perm", {2, 2, 2});
  AddNode(&m, "Add", "add", {"y", "t"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"transpose\" (Transpose): perm [2, 2, 2] is not a permutation of the "
            "input's axes");
}

TEST(MalformedModel, ConstantTileBeyondTheLimit) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {3}, {1, 2, 3});
  AddInt64Const(&m, "reps", {INT64_MAX});
  AddNode(&m, "Tile", "tile", {"c", "reps"}, {"t"});
  AddNode(&m, "Add", "add", {"y", "t"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"tile\" (Tile): would hold more than 268435456 float values, beyond the "
            "limit of 1073741824 bytes for a constant computed while importing "
            "(qzdl_onnx2net --max-constant-mib raises it)");
}

TEST(MalformedModel, GemmWithEmptyCStillImports) {
  // C of shape [0, 2] was read as one bias per output past its end.
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {2, 2});
  AddInit(&m, "b", {2, 2});
  AddConst(&m, "c", kF, {0, 2}, {});
  AddNode(&m, "Gemm", "gemm", {"x", "b", "c"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m), "(imported)");
}

TEST(MalformedModel, EmptyConstantWithHugeDims) {
  // The element count of [2^62, 100, 0] overflowed before reaching the 0.
  onnx::ModelProto m = ConvModel();
  AddInt64Const(&m, "shape", {int64_t{1} << 62, 100, 0});
  AddNode(&m, "ConstantOfShape", "fill", {"shape"}, {"c"});
  AddNode(&m, "Add", "add", {"y", "c"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"add\" (Add): shapes [1, 1, 2, 2] and [4611686018427387904, 100, 0] cannot "
            "be broadcast together");
}

TEST(MalformedModel, SplitSizesBeyondInt64) {
  // Summing the sizes overflowed before they were compared with the axis.
  onnx::ModelProto m = EmptyModel();
  AddConst(&m, "c", kF, {4, 0}, {});
  AddInt64Const(&m, "split", {4, INT64_MAX});
  AddNode(&m, "Split", "split", {"c", "split"}, {"a", "b"});
  AddOutput(&m, "a");
  EXPECT_EQ(ImportMessage(m),
            "node \"split\" (Split): split [4, 9223372036854775807] does not cut axis 0 of "
            "size 4 into 2 outputs");
}

TEST(MalformedModel, ExpandOfAnEmptyTensorImports) {
  // The repeats were divided by the tensor's axis of size 0.
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {2, 1});
  AddConst(&m, "e", kF, {2, 0}, {});
  AddNode(&m, "Add", "add", {"x", "e"}, {"t"});
  AddInt64Const(&m, "shape", {3, 2, 0});
  AddNode(&m, "Expand", "expand", {"t", "shape"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m), "(imported)");
}

TEST(MalformedModel, ConstantConcatOfMismatchedShapes) {
  // The output was sized from the first input only and written past its end.
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "a", kF, {0, 0, 0}, {});
  AddConst(&m, "b", kF, {4, 1, 4}, std::vector<double>(16, 1.0));
  SetInt(AddNode(&m, "Concat", "concat", {"a", "b"}, {"c"}), "axis", -3);
  AddNode(&m, "Add", "add", {"y", "c"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"concat\" (Concat): inputs of shapes [0, 0, 0] and [4, 1, 4] differ "
            "outside axis 0");
}

TEST(MalformedModel, ConstantSliceWithHugeStepImports) {
  // The output length overflowed for a step of 2^63 - 1; it takes one element.
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {4}, {1, 2, 3, 4});
  AddInt64Const(&m, "starts", {0});
  AddInt64Const(&m, "ends", {4});
  AddInt64Const(&m, "axes", {0});
  AddInt64Const(&m, "steps", {INT64_MAX});
  AddNode(&m, "Slice", "slice", {"c", "starts", "ends", "axes", "steps"}, {"s"});
  AddNode(&m, "Add", "add", {"y", "s"}, {"z"});
  AddOutput(&m, "z");
  EXPECT_EQ(ImportMessage(m), "(imported)");
}

TEST(MalformedModel, ConvTransposeGroupZero) {
  // The group divided the weights' input channels before it was checked.
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 2, 4, 4});
  AddConst(&m, "w", kF, {2, 1, 1, 1}, {1, 1});
  SetInt(AddNode(&m, "ConvTranspose", "deconv", {"x", "w"}, {"y"}), "group", 0);
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): attribute \"group\" value 0 is not supported "
            "(must be positive)");
}

// The conv model plus a [2, 3] constant reshaped to `op`(a, b) of two
// one-element int64 constants, folded while importing.
onnx::ModelProto ReshapeToFolded(const std::string& op, int64_t a, int64_t b) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {2, 3}, {1, 2, 3, 4, 5, 6});
  AddInt64Const(&m, "a", {a});
  AddInt64Const(&m, "b", {b});
  AddNode(&m, op, "fold", {"a", "b"}, {"shape"});
  AddNode(&m, "Reshape", "reshape", {"c", "shape"}, {"r"});
  AddNode(&m, "Add", "add", {"y", "r"}, {"z"});
  return m;
}

TEST(MalformedModel, ConstantIntegerSumWrapsAround) {
  // Integer tensors wrap around (the overflow was undefined before).
  EXPECT_EQ(ImportMessage(ReshapeToFolded("Add", INT64_MIN, -2)),
            "node \"reshape\" (Reshape): shape [9223372036854775806] does not fit input [2, 3]");
}

TEST(MalformedModel, ConstantInt64MinDividedByMinusOne) {
  EXPECT_EQ(ImportMessage(ReshapeToFolded("Div", INT64_MIN, -1)),
            "node \"reshape\" (Reshape): shape [-9223372036854775808] has a negative entry "
            "other than -1");
}

TEST(MalformedModel, ConvTransposeGroupBeyondEmptyWeights) {
  // Empty weights are divided by any group; the output count overflowed.
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 2, 4, 4});
  AddConst(&m, "w", kF, {0, 4, 1, 1}, {});
  SetInt(AddNode(&m, "ConvTranspose", "deconv", {"x", "w"}, {"y"}), "group", INT64_MAX);
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): attribute \"group\" value 9223372036854775807 is "
            "not supported (does not divide the weights)");
}

TEST(MalformedModel, ConvInputChannelsDoNotMatchTheWeights) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 2, 4, 4});
  AddConst(&m, "w", kF, {1, 1, 3, 3}, std::vector<double>(9, 1.0));
  AddNode(&m, "Conv", "conv", {"x", "w"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"conv\" (Conv): input x has 2 channels; weights w of shape [1, 1, 3, 3] take 1");
}

TEST(MalformedModel, ConvGroupThatDoesNotDivideTheOutputChannels) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 2, 4, 4});
  AddConst(&m, "w", kF, {3, 1, 1, 1}, {1.0f, 2.0f, 3.0f});
  SetInt(AddNode(&m, "Conv", "conv", {"x", "w"}, {"y"}), "group", 2);
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"conv\" (Conv): attribute \"group\" value 2 is not supported (does not divide "
            "the 3 output channels)");
}

TEST(MalformedModel, ConvTransposeInputChannelsDoNotMatchTheWeights) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 2, 4, 4});
  AddConst(&m, "w", kF, {3, 1, 1, 1}, {1.0f, 2.0f, 3.0f});
  AddNode(&m, "ConvTranspose", "deconv", {"x", "w"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): input x has 2 channels; weights w of shape "
            "[3, 1, 1, 1] take 3");
}

TEST(MalformedModel, ConvTransposeOutputShapeBeyondIntPadding) {
  // A huge stride with a small output_shape asks for pads of about 3.2e9,
  // which the layer would take as an int.
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 1, 4, 4});
  AddConst(&m, "w", kF, {1, 1, 1, 1}, {1.0f});
  onnx::NodeProto* n = AddNode(&m, "ConvTranspose", "deconv", {"x", "w"}, {"y"});
  SetInts(n, "strides", {1, INT_MAX});
  SetInts(n, "output_shape", {4, 4});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): attribute \"output_shape\" value [4, 4] is not "
            "supported (gives a padding beyond 2147483647)");
}

TEST(MalformedModel, ConvTransposeWithEmptyKernel) {
  // Reordering empty weights indexed into an empty vector; an empty kernel
  // is refused.
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 2, 4, 4});
  AddConst(&m, "w", kF, {2, 1, 0, 1}, {});
  AddNode(&m, "ConvTranspose", "deconv", {"x", "w"}, {"y"});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): weights w have shape [2, 1, 0, 1]: the kernel is "
            "empty");
}

TEST(MalformedModel, ConstantRangeOfMoreThanInt64Steps) {
  // The count, -1.8e19, was converted to int64 before it was clamped to 0.
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "c", kF, {2, 3}, {1, 2, 3, 4, 5, 6});
  AddConst(&m, "start", onnx::TensorProto::INT64, {}, {});
  m.mutable_graph()->mutable_initializer()->rbegin()->add_int64_data(INT64_MAX);
  AddConst(&m, "limit", onnx::TensorProto::INT64, {}, {});
  m.mutable_graph()->mutable_initializer()->rbegin()->add_int64_data(INT64_MIN);
  AddConst(&m, "delta", onnx::TensorProto::INT64, {}, {1});
  AddNode(&m, "Range", "range", {"start", "limit", "delta"}, {"shape"});
  AddNode(&m, "Reshape", "reshape", {"c", "shape"}, {"r"});
  AddNode(&m, "Add", "add", {"y", "r"}, {"z"});
  EXPECT_EQ(ImportMessage(m), "node \"reshape\" (Reshape): shape [] does not fit input [2, 3]");
}

TEST(MalformedModel, ConvStrideBeyondInt) {
  // SAME padding added the stride to the input size in int64.
  onnx::ModelProto m = ConvModel();
  onnx::NodeProto* conv = m.mutable_graph()->mutable_node(0);
  SetInts(conv, "strides", {INT64_MAX, 1});
  auto* pad = conv->add_attribute();
  pad->set_name("auto_pad");
  pad->set_type(onnx::AttributeProto::STRING);
  pad->set_s("SAME_UPPER");
  EXPECT_EQ(ImportMessage(m),
            "node \"conv\" (Conv): attribute \"strides\" value [9223372036854775807, 1] is not "
            "supported (entries must lie in 1..2147483647)");
}

// Found by the fuzzer: folding an Add of an empty constant computed the
// strides of its other dims, whose product passes the int64 range. Nothing
// is walked in an empty tensor: the sum folds, and the Add using it is then
// refused for its shapes.
TEST(MalformedModel, ConstantSumOfAnEmptyTensorWithHugeDims) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "e", kF, {0, INT64_MAX, 27487790694400}, {});
  AddConst(&m, "one", kF, {1}, {1});
  AddNode(&m, "Add", "sum", {"e", "one"}, {"s"});
  AddNode(&m, "Add", "add", {"y", "s"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"add\" (Add): shapes [1, 1, 2, 2] and [0, 9223372036854775807, "
            "27487790694400] cannot be broadcast together");
}

// Found by the fuzzer: for an output_shape of 0, shape inference gave the
// output of a 1-d ConvTranspose 2 axes, and the mapping read the third.
TEST(MalformedModel, ConvTransposeOutputOfTwoAxes) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {1, 2, 4});
  AddConst(&m, "w", kF, {2, 1, 1}, {1, 1});
  SetInts(AddNode(&m, "ConvTranspose", "deconv", {"x", "w"}, {"y"}), "output_shape", {0});
  AddOutput(&m, "y");
  EXPECT_EQ(ImportMessage(m),
            "node \"deconv\" (ConvTranspose): shape inference gave output \"y\" the shape "
            "[1, 1]; 1-d data needs [N, C, L]");
}

// Products and sums of dims beyond the int64 range name the node.
TEST(MalformedModel, ConstantFlattenBeyondInt64) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "e", kF, {int64_t{1} << 62, 4, 0}, {});
  SetInt(AddNode(&m, "Flatten", "flatten", {"e"}, {"f"}), "axis", 2);
  AddNode(&m, "Add", "add", {"y", "f"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"flatten\" (Flatten): the product of dims [4611686018427387904, 4, 0] is "
            "beyond the int64 range");
}

TEST(MalformedModel, ConstantConcatBeyondInt64) {
  onnx::ModelProto m = ConvModel();
  AddConst(&m, "a", kF, {0, INT64_MAX}, {});
  SetInt(AddNode(&m, "Concat", "concat", {"a", "a"}, {"c"}), "axis", 1);
  AddNode(&m, "Add", "add", {"y", "c"}, {"z"});
  EXPECT_EQ(ImportMessage(m),
            "node \"concat\" (Concat): 9223372036854775807 + 9223372036854775807 is beyond "
            "the int64 range");
}

TEST(MalformedModel, SizeBeyondInt64) {
  onnx::ModelProto m = EmptyModel();
  AddInput(&m, "x", {INT32_MAX, INT32_MAX, INT32_MAX});
  AddNode(&m, "Size", "size", {"x"}, {"n"});
  AddOutput(&m, "n");
  m.mutable_graph()->mutable_output(0)->mutable_type()->mutable_tensor_type()->set_elem_type(
      onnx::TensorProto::INT64);
  EXPECT_EQ(ImportMessage(m),
            "node \"size\" (Size): the product of dims [2147483647, 2147483647, 2147483647] is "
            "beyond the int64 range");
}

}  // namespace
}  // namespace qzdl::test
