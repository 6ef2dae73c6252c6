// The constant evaluator behind constant folding, node by node.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>

#include <climits>

#include "importer/constant_folding.h"
#include "importer/fold_elementwise.h"

namespace qzdl::onnx_import {
namespace {

onnx::NodeProto Node(const std::string& op) {
  onnx::NodeProto n;
  n.set_op_type(op);
  return n;
}

void IntsAttr(onnx::NodeProto* n, const std::string& name, const std::vector<int64_t>& v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::INTS);
  for (int64_t x : v) a->add_ints(x);
}

void IntAttr(onnx::NodeProto* n, const std::string& name, int64_t v) {
  auto* a = n->add_attribute();
  a->set_name(name);
  a->set_type(onnx::AttributeProto::INT);
  a->set_i(v);
}

ConstTensor Floats(const std::vector<int64_t>& dims, const std::vector<double>& v) {
  ConstTensor t = ConstTensor::Make(kFloat, dims);
  for (size_t k = 0; k < v.size(); ++k) t.Set(k, v[k]);
  return t;
}

ConstTensor Eval(const onnx::NodeProto& n, const std::vector<const ConstTensor*>& in,
                 int opset = 13) {
  return EvaluateNode(n, opset, in, "").at(0);
}

TEST(OnnxFolding, GatherScalarIndexDropsTheAxis) {
  const ConstTensor shape = ConstTensor::Int64s({5, 3, 7});
  ConstTensor idx = ConstTensor::Make(kInt64, {});
  idx.i[0] = -1;
  const ConstTensor out = Eval(Node("Gather"), {&shape, &idx});
  EXPECT_TRUE(out.dims.empty());
  EXPECT_EQ(out.i, std::vector<int64_t>{7});
}

TEST(OnnxFolding, UnsqueezeConcatReshape) {
  ConstTensor batch = ConstTensor::Make(kInt64, {});
  batch.i[0] = 4;
  const ConstTensor axes = ConstTensor::Int64s({0});
  const ConstTensor b1 = Eval(Node("Unsqueeze"), {&batch, &axes});
  EXPECT_EQ(b1.dims, std::vector<int64_t>{1});
  const ConstTensor rest = ConstTensor::Int64s({-1});
  onnx::NodeProto concat = Node("Concat");
  IntAttr(&concat, "axis", 0);
  const ConstTensor target = Eval(concat, {&b1, &rest});
  EXPECT_EQ(target.i, (std::vector<int64_t>{4, -1}));
  const ConstTensor x = Floats({4, 2, 3}, std::vector<double>(24, 1.0));
  EXPECT_EQ(Eval(Node("Reshape"), {&x, &target}).dims, (std::vector<int64_t>{4, 6}));
  const ConstTensor zero = ConstTensor::Int64s({0, 3, -1});
  EXPECT_EQ(Eval(Node("Reshape"), {&x, &zero}).dims, (std::vector<int64_t>{4, 3, 2}));
}

TEST(OnnxFolding, UnsqueezeAxesAttributeBeforeOpset13) {
  onnx::NodeProto n = Node("Unsqueeze");
  IntsAttr(&n, "axes", {0, -1});
  const ConstTensor x = Floats({2}, {1, 2});
  EXPECT_EQ(Eval(n, {&x}, 11).dims, (std::vector<int64_t>{1, 2, 1}));
}

TEST(OnnxFolding, SliceWithNegativeStepAndHugeEnds) {
  const ConstTensor x = ConstTensor::Int64s({0, 1, 2, 3, 4, 5});
  const ConstTensor starts = ConstTensor::Int64s({-1});
  const ConstTensor ends = ConstTensor::Int64s({INT64_MIN});
  const ConstTensor axes = ConstTensor::Int64s({0});
  const ConstTensor steps = ConstTensor::Int64s({-2});
  EXPECT_EQ(Eval(Node("Slice"), {&x, &starts, &ends, &axes, &steps}).i,
            (std::vector<int64_t>{5, 3, 1}));
  const ConstTensor s1 = ConstTensor::Int64s({1}), e1 = ConstTensor::Int64s({INT64_MAX});
  EXPECT_EQ(Eval(Node("Slice"), {&x, &s1, &e1}).i, (std::vector<int64_t>{1, 2, 3, 4, 5}));
}

TEST(OnnxFolding, ConstantOfShapeCastAndArithmetic) {
  onnx::NodeProto cos = Node("ConstantOfShape");
  auto* a = cos.add_attribute();
  a->set_name("value");
  a->set_type(onnx::AttributeProto::TENSOR);
  a->mutable_t()->set_data_type(kFloat);
  a->mutable_t()->add_dims(1);
  a->mutable_t()->add_float_data(2.5f);
  const ConstTensor shape = ConstTensor::Int64s({2, 2});
  const ConstTensor filled = Eval(cos, {&shape});
  EXPECT_EQ(filled.dims, (std::vector<int64_t>{2, 2}));
  EXPECT_EQ(filled.Floats(), (std::vector<float>{2.5f, 2.5f, 2.5f, 2.5f}));
  onnx::NodeProto cast = Node("Cast");
  IntAttr(&cast, "to", kInt64);
  const ConstTensor neg = Floats({2}, {-2.7, 2.7});
  EXPECT_EQ(Eval(cast, {&neg}).i, (std::vector<int64_t>{-2, 2}));  // truncation
  const ConstTensor row = Floats({2}, {10, 20});
  EXPECT_EQ(Eval(Node("Mul"), {&filled, &row}).Floats(), (std::vector<float>{25, 50, 25, 50}));
  const ConstTensor seven = ConstTensor::Int64s({7, -7}), two = ConstTensor::Int64s({2});
  EXPECT_EQ(Eval(Node("Div"), {&seven, &two}).i, (std::vector<int64_t>{3, -3}));
}

TEST(OnnxFolding, RangeWhereExpandTranspose) {
  ConstTensor start = ConstTensor::Make(kInt64, {}), limit = start, delta = start;
  start.i[0] = 1, limit.i[0] = 8, delta.i[0] = 3;
  EXPECT_EQ(Eval(Node("Range"), {&start, &limit, &delta}).i, (std::vector<int64_t>{1, 4, 7}));
  const ConstTensor cond = [] {
    ConstTensor t = ConstTensor::Make(kBool, {2});
    t.i = {1, 0};
    return t;
  }();
  const ConstTensor x = ConstTensor::Int64s({1, 2}), y = ConstTensor::Int64s({9});
  EXPECT_EQ(Eval(Node("Where"), {&cond, &x, &y}).i, (std::vector<int64_t>{1, 9}));
  const ConstTensor col = Floats({2, 1}, {1, 2});
  const ConstTensor to = ConstTensor::Int64s({2, 3});
  const ConstTensor wide = Eval(Node("Expand"), {&col, &to});
  EXPECT_EQ(wide.Floats(), (std::vector<float>{1, 1, 1, 2, 2, 2}));
  const ConstTensor t = Eval(Node("Transpose"), {&wide});
  EXPECT_EQ(t.dims, (std::vector<int64_t>{3, 2}));
  EXPECT_EQ(t.Floats(), (std::vector<float>{1, 2, 1, 2, 1, 2}));
}

TEST(OnnxFolding, ErrorsNameTheProblem) {
  const ConstTensor x = Floats({2, 3}, std::vector<double>(6, 0.0));
  const ConstTensor bad = ConstTensor::Int64s({4, -1});
  try {
    Eval(Node("Reshape"), {&x, &bad});
    FAIL() << "no error";
  } catch (const FoldError& e) {
    EXPECT_STREQ(e.what(), "cannot infer the -1 of the shape");
  }
  const ConstTensor a = Floats({2}, {1, 2}), b = Floats({3}, {1, 2, 3});
  try {
    Eval(Node("Add"), {&a, &b});
    FAIL() << "no error";
  } catch (const FoldError& e) {
    EXPECT_STREQ(e.what(), "shapes [2] and [3] cannot be broadcast together");
  }
}

TEST(OnnxFolding, TileReduceTransposeSliceWalkTheirInput) {
  const ConstTensor x = Floats({2, 3}, {1, 2, 3, 4, 5, 6});
  const ConstTensor down = ConstTensor::Int64s({2, 1}), across = ConstTensor::Int64s({1, 2});
  EXPECT_EQ(Eval(Node("Tile"), {&x, &down}).Floats(),
            (std::vector<float>{1, 2, 3, 4, 5, 6, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(Eval(Node("Tile"), {&x, &across}).Floats(),
            (std::vector<float>{1, 2, 3, 1, 2, 3, 4, 5, 6, 4, 5, 6}));
  const ConstTensor axis1 = ConstTensor::Int64s({1}), axis0 = ConstTensor::Int64s({0});
  const ConstTensor sums = Eval(Node("ReduceSum"), {&x, &axis1});
  EXPECT_EQ(sums.dims, (std::vector<int64_t>{2, 1}));
  EXPECT_EQ(sums.Floats(), (std::vector<float>{6, 15}));
  onnx::NodeProto max = Node("ReduceMax");
  IntAttr(&max, "keepdims", 0);
  EXPECT_EQ(Eval(max, {&x, &axis0}, 18).Floats(), (std::vector<float>{4, 5, 6}));
  EXPECT_EQ(Eval(Node("ReduceMean"), {&x}).Floats(), (std::vector<float>{3.5f}));
  const ConstTensor cube = Floats({2, 3, 2}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  onnx::NodeProto transpose = Node("Transpose");
  IntsAttr(&transpose, "perm", {1, 0, 2});
  EXPECT_EQ(Eval(transpose, {&cube}).Floats(),
            (std::vector<float>{0, 1, 6, 7, 2, 3, 8, 9, 4, 5, 10, 11}));
  const ConstTensor start = ConstTensor::Int64s({1}), end = ConstTensor::Int64s({3});
  const ConstTensor step = ConstTensor::Int64s({-1});
  const ConstTensor back = ConstTensor::Int64s({2}), front = ConstTensor::Int64s({-4});
  EXPECT_EQ(Eval(Node("Slice"), {&cube, &start, &end, &axis1}).Floats(),
            (std::vector<float>{2, 3, 4, 5, 8, 9, 10, 11}));
  EXPECT_EQ(Eval(Node("Slice"), {&cube, &back, &front, &axis1, &step}).Floats(),
            (std::vector<float>{4, 5, 2, 3, 0, 1, 10, 11, 8, 9, 6, 7}));
}

// The offsets read, in order, for each element of `out`.
std::vector<int64_t> Walk(const std::vector<int64_t>& out, const std::vector<int64_t>& in) {
  BroadcastWalk w(out, in);
  std::vector<int64_t> offsets;
  for (int64_t k = 0, n = DimsProduct(out); k < n; ++k, w.Next()) offsets.push_back(w.offset());
  return offsets;
}

TEST(BroadcastWalk, OffsetsOfEachBroadcastKind) {
  EXPECT_EQ(Walk({2, 1, 3}, {2, 1, 3}), (std::vector<int64_t>{0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(Walk({2, 1, 3}, {3}), (std::vector<int64_t>{0, 1, 2, 0, 1, 2}));
  EXPECT_EQ(Walk({2, 1, 3}, {2, 1, 1}), (std::vector<int64_t>{0, 0, 0, 1, 1, 1}));
  EXPECT_EQ(Walk({2, 3}, {}), (std::vector<int64_t>{0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Walk({1, 1, 1, 2, 1, 1}, {2, 1, 1}), (std::vector<int64_t>{0, 1}));
  EXPECT_EQ(Walk({}, {}), (std::vector<int64_t>{0}));
  EXPECT_EQ(Walk({2, 0, 3}, {3}), (std::vector<int64_t>{}));
  // An empty tensor whose other dims have no strides within the int64 range.
  const int64_t huge = INT64_MAX;
  EXPECT_EQ(Walk({0, huge, 27487790694400}, {0, huge, 27487790694400}), (std::vector<int64_t>{}));
}

}  // namespace
}  // namespace qzdl::onnx_import
