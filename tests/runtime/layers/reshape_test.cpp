// Reshape, Flatten, Permute and Dropout. References: ONNX node data
// (Reshape with constant shapes, Flatten, Transpose, Dropout), fixtures under
// fixtures/reshape from scripts/fixtures/make_shape_fixtures.py (Reshape at
// several batches) and a plain index-mapping reference for 4-d permutes.
// These layers only move data: every comparison is exact.
#include "runtime/layers/reshape.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "runtime/errors.h"
#include "shape_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::shape::ExpectSame;
using test::shape::LayerError;
using test::shape::OnnxNode;
using test::shape::RunLayer;
using test::shape::Tensor;

Json::array IntArray(const std::vector<int>& v) { return Json::array(v.begin(), v.end()); }

// ---------------------------------------------------------------------------
// Reshape

class ReshapeOnnx : public testing::TestWithParam<const char*> {};

TEST_P(ReshapeOnnx, MatchesNodeData) {
  const std::string name = GetParam();
  const Tensor x = OnnxNode(name, "input_0");
  const std::vector<int> shapes = test::shape::OnnxNodeInts(name, "input_1");
  const Tensor want = OnnxNode(name, "output_0");
  ExpectSame(RunLayer("Reshape", {{"shapes", IntArray(shapes)}}, x)[0], want);
}

// The cases with constant, non-empty shapes (ONNX 0 entries copy the input's
// dimension, as ours do).
INSTANTIATE_TEST_SUITE_P(Node, ReshapeOnnx,
                         testing::Values("test_reshape_extended_dims", "test_reshape_negative_dim",
                                         "test_reshape_negative_extended_dims",
                                         "test_reshape_one_dim", "test_reshape_reduced_dims",
                                         "test_reshape_reordered_all_dims",
                                         "test_reshape_reordered_last_dims",
                                         "test_reshape_zero_and_negative_dim",
                                         "test_reshape_zero_dim"));

TEST(ReshapeLayer, ZeroBatchEntryFollowsTheNetBatch) {
  test::NetBuilder b;
  b.Input("x", {1, 6, 4, 4})
      .Layer("ra", "Reshape", {"x"}, {"ya"}, {{"shapes", Json::array{0, -1, 8}}})
      .Layer("rb", "Reshape", {"x"}, {"yb"}, {{"shapes", Json::array{0, 3, 0, -1}}});
  auto net = b.Build();
  EXPECT_EQ(net->GetLayer("ra")->GetJson()["param"]["shapes"][0].int_value(), 0);
  for (int batch : {1, 3, 1}) {
    const std::string tag = "b" + std::to_string(batch);
    net->ReshapeBatchNum(batch, 0);
    test::shape::Feed(net.get(), test::shape::Fixture("reshape", tag + "_in"));
    const Tensor a = test::shape::Read(net.get(), "ya");
    const Tensor bb = test::shape::Read(net.get(), "yb");
    EXPECT_EQ(a.dims, (std::vector<int>{batch, 12, 8}));
    EXPECT_EQ(bb.dims, (std::vector<int>{batch, 3, 4, 8}));
    ExpectSame(a, test::shape::Fixture("reshape", tag + "_out_a"));
    ExpectSame(bb, test::shape::Fixture("reshape", tag + "_out_b"));
  }
}

TEST(ReshapeLayer, FixedBatchRejectsAnotherBatch) {
  test::NetBuilder b;
  b.Input("x", {1, 6, 4}).Layer("r1", "Reshape", {"x"}, {"y"}, {{"shapes", Json::array{1, 24}}});
  auto net = b.Build();
  EXPECT_EQ(net->GetLayer("r1")->GetJson()["param"]["shapes"][0].int_value(), 1);
  try {
    net->ReshapeBatchNum(2, 0);
    FAIL() << "no error";
  } catch (const NetFormatError& e) {
    EXPECT_EQ(std::string(e.what()),
              "net description: layer \"r1\" (Reshape): cannot reshape input \"x\" of shape "
              "[2, 6, 4] (48 elements) with shapes [1, 24]: that makes [1, 24] (24 elements)");
  }
}

TEST(ReshapeLayer, ShapeErrorsNameTheShapes) {
  const std::string head = "net description: layer \"l\" (Reshape): ";
  EXPECT_EQ(LayerError("Reshape", {{"shapes", Json::array{0, -1, -1}}}, {2, 3, 4}),
            head + "param \"shapes\" [0, -1, -1] has more than one -1");
  EXPECT_EQ(LayerError("Reshape", {{"shapes", Json::array{0, -2, 4}}}, {2, 3, 4}),
            head +
                "param \"shapes\" [0, -2, 4]: entry 1 is -2; an entry is positive, 0 (copy the "
                "input's dimension) or -1 (inferred)");
  EXPECT_EQ(LayerError("Reshape", {{"shapes", Json::array{0, 5, -1}}}, {2, 3, 4}),
            head +
                "cannot reshape input \"x\" of shape [2, 3, 4] (24 elements) with shapes "
                "[0, 5, -1]: 24 is not a multiple of 10");
  EXPECT_EQ(LayerError("Reshape", {{"shapes", Json::array{0, 0, 0, 0}}}, {2, 3, 4}),
            head +
                "shapes [0, 0, 0, 0]: entry 3 is 0 but input \"x\" of shape [2, 3, 4] (24 "
                "elements) has no axis 3");
  EXPECT_EQ(LayerError("Reshape", {{"shapes", Json::array{0, 5}}}, {2, 3, 4}),
            head +
                "cannot reshape input \"x\" of shape [2, 3, 4] (24 elements) with shapes [0, 5]: "
                "that makes [2, 5] (10 elements)");
  EXPECT_EQ(LayerError("Reshape", {}, {2, 3, 4}), head + "missing param \"shapes\"");
  EXPECT_EQ(LayerError("Reshape", {{"shapes", Json::array{}}}, {2, 3, 4}),
            head + "param \"shapes\" must not be empty");
}

TEST(ReshapeLayer, IgnoresASecondInput) {
  test::NetBuilder b;
  b.Input("x", {2, 3, 4})
      .Input("shape", {3})
      .Layer("r", "Reshape", {"x", "shape"}, {"y"}, {{"shapes", Json::array{0, 12}}});
  auto net = b.Build();
  const Tensor x{{2, 3, 4}, test::RandomVector(24, 3)};
  test::shape::Feed(net.get(), x);
  ExpectSame(test::shape::Read(net.get(), "y"), Tensor{{2, 12}, x.values});
}

TEST(ReshapeLayer, RunsInPlaceWhenTheShapeStays) {
  test::NetBuilder b;
  b.Input("x", {2, 3}).Layer("r", "Reshape", {"x"}, {"x"}, {{"shapes", Json::array{0, -1}}});
  auto net = b.Build();
  const Tensor x{{2, 3}, {1, 2, 3, 4, 5, 6}};
  test::shape::Feed(net.get(), x);
  ExpectSame(test::shape::Read(net.get(), "x"), x);
}

// ---------------------------------------------------------------------------
// Flatten

TEST(FlattenLayer, DefaultsMatchOnnxDefaultAndAxis1) {
  for (const char* name : {"test_flatten_default_axis", "test_flatten_axis1"}) {
    SCOPED_TRACE(name);
    ExpectSame(RunLayer("Flatten", {}, OnnxNode(name, "input_0"))[0], OnnxNode(name, "output_0"));
  }
}

// ONNX Flatten(axis k) gives 2-d [d0*..*d(k-1), dk*..]: two merges here, the
// first with a negative end_axis where the ONNX axis is negative.
TEST(FlattenLayer, TwoMergesMatchOnnxAxes) {
  struct Case {
    const char* name;
    int end_axis;
  };
  for (const Case& c :
       {Case{"test_flatten_axis2", 1}, Case{"test_flatten_axis3", 2},
        Case{"test_flatten_negative_axis1", -2}, Case{"test_flatten_negative_axis2", -3},
        Case{"test_flatten_negative_axis3", -4}}) {
    SCOPED_TRACE(c.name);
    const Tensor x = OnnxNode(c.name, "input_0");
    test::NetBuilder b;
    b.Input("x", x.dims)
        .Layer("f1", "Flatten", {"x"}, {"m"}, {{"axis", 0}, {"end_axis", c.end_axis}})
        .Layer("f2", "Flatten", {"m"}, {"y"}, {{"axis", 1}});
    auto net = b.Build();
    test::shape::Feed(net.get(), x);
    ExpectSame(test::shape::Read(net.get(), "y"), OnnxNode(c.name, "output_0"));
  }
}

TEST(FlattenLayer, AxisZeroMergesEverything) {
  for (const char* name : {"test_flatten_axis0", "test_flatten_negative_axis4"}) {
    SCOPED_TRACE(name);
    const Tensor want = OnnxNode(name, "output_0");  // [1, 120] in ONNX
    const Tensor got = RunLayer("Flatten", {{"axis", 0}}, OnnxNode(name, "input_0"))[0];
    EXPECT_EQ(got.dims, (std::vector<int>{120}));
    EXPECT_EQ(got.values, want.values);
  }
}

TEST(FlattenLayer, MergesAMiddleRange) {
  const Tensor x{{2, 3, 4, 5}, test::RandomVector(120, 7)};
  ExpectSame(RunLayer("Flatten", {{"axis", 1}, {"end_axis", 2}}, x)[0],
             Tensor{{2, 12, 5}, x.values});
  ExpectSame(RunLayer("Flatten", {{"axis", -2}}, x)[0], Tensor{{2, 3, 20}, x.values});
}

TEST(FlattenLayer, RejectsAxesOutsideTheInput) {
  EXPECT_EQ(LayerError("Flatten", {{"axis", 4}}, {2, 3, 4, 5}),
            "net description: layer \"l\" (Flatten): axis 4 and end_axis -1 do not select a "
            "range of axes of input \"x\" of shape [2, 3, 4, 5]");
  EXPECT_EQ(LayerError("Flatten", {{"axis", 2}, {"end_axis", 1}}, {2, 3, 4, 5}),
            "net description: layer \"l\" (Flatten): axis 2 and end_axis 1 do not select a "
            "range of axes of input \"x\" of shape [2, 3, 4, 5]");
}

// ---------------------------------------------------------------------------
// Permute

TEST(PermuteLayer, MatchesOnnxTranspose) {
  struct Case {
    const char* name;
    std::vector<int> order;
  };
  for (const Case& c : {Case{"test_transpose_all_permutations_0", {0, 1, 2}},
                        Case{"test_transpose_all_permutations_1", {0, 2, 1}},
                        Case{"test_transpose_all_permutations_2", {1, 0, 2}},
                        Case{"test_transpose_all_permutations_3", {1, 2, 0}},
                        Case{"test_transpose_all_permutations_4", {2, 0, 1}},
                        Case{"test_transpose_all_permutations_5", {2, 1, 0}},
                        Case{"test_transpose_default", {2, 1, 0}}}) {
    SCOPED_TRACE(c.name);
    ExpectSame(RunLayer("Permute", {{"order", IntArray(c.order)}}, OnnxNode(c.name, "input_0"))[0],
               OnnxNode(c.name, "output_0"));
  }
}

// Plain reference: output element at index i (multi-index o) reads the input
// at the index whose axis order[k] is o[k].
Tensor ReferencePermute(const Tensor& x, const std::vector<int>& order) {
  const int r = static_cast<int>(x.dims.size());
  std::vector<int64_t> in_strides(r, 1);
  for (int i = r - 2; i >= 0; --i) in_strides[i] = in_strides[i + 1] * x.dims[i + 1];
  Tensor y;
  for (int k = 0; k < r; ++k) y.dims.push_back(x.dims[order[k]]);
  y.values.resize(x.values.size());
  for (size_t i = 0; i < y.values.size(); ++i) {
    int64_t rest = static_cast<int64_t>(i), src = 0;
    for (int k = r - 1; k >= 0; --k) {
      src += (rest % y.dims[k]) * in_strides[order[k]];
      rest /= y.dims[k];
    }
    y.values[i] = x.values[src];
  }
  return y;
}

// Every permutation of a 4-d tensor whose H and W exceed a tile, so that
// tiles at the edges are partial.
TEST(PermuteLayer, AllFourAxisOrdersMatchTheReference) {
  const Tensor x{{2, 5, 37, 41}, test::RandomVector(2 * 5 * 37 * 41, 11)};
  std::vector<int> order = {0, 1, 2, 3};
  int cases = 0;
  do {
    SCOPED_TRACE(::testing::PrintToString(order));
    ExpectSame(RunLayer("Permute", {{"order", IntArray(order)}}, x)[0], ReferencePermute(x, order));
    ++cases;
  } while (std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(cases, 24);
}

TEST(PermuteLayer, SizeOneAxesAndHigherRanks) {
  const Tensor a{{1, 3, 1, 40}, test::RandomVector(120, 12)};
  for (const std::vector<int>& order : {std::vector<int>{2, 3, 0, 1}, {0, 3, 1, 2}, {3, 1, 2, 0}}) {
    SCOPED_TRACE(::testing::PrintToString(order));
    ExpectSame(RunLayer("Permute", {{"order", IntArray(order)}}, a)[0], ReferencePermute(a, order));
  }
  const Tensor b{{2, 3, 4, 5, 6}, test::RandomVector(720, 13)};
  for (const std::vector<int>& order :
       {std::vector<int>{0, 3, 4, 1, 2}, {4, 3, 2, 1, 0}, {1, 0, 2, 4, 3}}) {
    SCOPED_TRACE(::testing::PrintToString(order));
    ExpectSame(RunLayer("Permute", {{"order", IntArray(order)}}, b)[0], ReferencePermute(b, order));
  }
}

TEST(PermuteLayer, InverseOrderRoundTrips) {
  const Tensor x{{3, 16, 33, 35}, test::RandomVector(3 * 16 * 33 * 35, 14)};
  for (const std::vector<int>& order :
       {std::vector<int>{0, 2, 3, 1}, {0, 3, 1, 2}, {3, 2, 1, 0}, {1, 3, 0, 2}}) {
    SCOPED_TRACE(::testing::PrintToString(order));
    std::vector<int> inverse(order.size());
    for (size_t k = 0; k < order.size(); ++k) inverse[order[k]] = static_cast<int>(k);
    test::NetBuilder b;
    b.Input("x", x.dims)
        .Layer("p", "Permute", {"x"}, {"t"}, {{"order", IntArray(order)}})
        .Layer("q", "Permute", {"t"}, {"y"}, {{"order", IntArray(inverse)}});
    auto net = b.Build();
    test::shape::Feed(net.get(), x);
    ExpectSame(test::shape::Read(net.get(), "y"), x);
  }
}

TEST(PermuteLayer, RejectsBadOrders) {
  const std::string head = "net description: layer \"l\" (Permute): ";
  EXPECT_EQ(LayerError("Permute", {{"order", Json::array{0, 1, 1, 2}}}, {1, 2, 3, 4}),
            head + "param \"order\" [0, 1, 1, 2] is not a permutation of 0..3 (1 to 8 axes)");
  EXPECT_EQ(LayerError("Permute", {{"order", Json::array{0, 2, 1}}}, {1, 2, 3, 4}),
            head +
                "param \"order\" [0, 2, 1] has 3 entries but input \"x\" of shape [1, 2, 3, 4] "
                "has 4 axes");
  EXPECT_EQ(LayerError("Permute", {}, {1, 2, 3, 4}), head + "missing param \"order\"");
}

// ---------------------------------------------------------------------------
// Dropout

TEST(DropoutLayer, IsIdentityAtInference) {
  for (const char* name : {"test_dropout_default", "test_dropout_default_ratio"}) {
    SCOPED_TRACE(name);
    ExpectSame(RunLayer("Dropout", {{"ratio", 0.1}}, OnnxNode(name, "input_0"))[0],
               OnnxNode(name, "output_0"));
  }
}

TEST(DropoutLayer, RunsInPlace) {
  test::NetBuilder b;
  b.Input("x", {2, 3, 4})
      .Layer("d", "Dropout", {"x"}, {"x"}, {{"ratio", 0.5}})
      .Layer("r", "ReLU", {"x"}, {"x"});
  auto net = b.Build();
  EXPECT_TRUE(net->GetLayer("d")->InPlaceSafe());
  const Tensor x{{2, 3, 4}, test::RandomVector(24, 15)};
  test::shape::Feed(net.get(), x);
  Tensor want = x;
  for (float& v : want.values) v = std::max(v, 0.0f);
  ExpectSame(test::shape::Read(net.get(), "x"), want);
}

TEST(DropoutLayer, RejectsANonNumericRatio) {
  EXPECT_EQ(LayerError("Dropout", {{"ratio", "half"}}, {2, 3}),
            "net description: layer \"l\" (Dropout): param \"ratio\" must be a number");
}

}  // namespace
}  // namespace qzdl
