// Split and Slice. References: ONNX Split and Slice node data mapped by hand
// to slice points, and fixtures under fixtures/split_slice from
// scripts/fixtures/make_shape_fixtures.py (torch.split). Exact comparisons.
#include "runtime/layers/split_slice.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "shape_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::shape::ExpectSame;
using test::shape::LayerError;
using test::shape::OnnxNode;
using test::shape::RunLayer;
using test::shape::Tensor;

// ---------------------------------------------------------------------------
// Split

TEST(SplitLayer, CopiesTheInputToEveryOutput) {
  const Tensor x{{2, 3, 4, 5}, test::RandomVector(120, 21)};
  for (int outputs : {1, 2, 3}) {
    SCOPED_TRACE(outputs);
    const std::vector<Tensor> ys = RunLayer("Split", {}, x, outputs);
    ASSERT_EQ(ys.size(), static_cast<size_t>(outputs));
    for (const Tensor& y : ys) ExpectSame(y, x);
  }
}

TEST(SplitLayer, OneOutputMayBeTheInput) {
  test::NetBuilder b;
  b.Input("x", {2, 3}).Layer("s", "Split", {"x"}, {"x", "y"});
  auto net = b.Build();
  const Tensor x{{2, 3}, {1, -2, 3, -4, 5, -6}};
  test::shape::Feed(net.get(), x);
  ExpectSame(test::shape::Read(net.get(), "x"), x);
  ExpectSame(test::shape::Read(net.get(), "y"), x);
}

TEST(SplitLayer, FollowsTheBatch) {
  test::NetBuilder b;
  b.Input("x", {1, 4}).Layer("s", "Split", {"x"}, {"y0", "y1"});
  auto net = b.Build();
  net->ReshapeBatchNum(3, 0);
  const Tensor x{{3, 4}, test::RandomVector(12, 22)};
  test::shape::Feed(net.get(), x);
  ExpectSame(test::shape::Read(net.get(), "y0"), x);
  ExpectSame(test::shape::Read(net.get(), "y1"), x);
}

TEST(SplitLayer, NeedsOneInput) {
  test::NetBuilder b;
  b.Input("x", {2, 3}).Input("z", {2, 3}).Layer("l", "Split", {"x", "z"}, {"y"});
  EXPECT_EQ(test::shape::BuildError(b),
            "net description: layer \"l\" (Split): expects 1 input(s), has 2");
}

// ---------------------------------------------------------------------------
// Slice

struct OnnxSplit {
  const char* name;
  Json::object param;
  int outputs;
};

// ONNX Split node data; uneven "num_outputs" splits become slice points.
TEST(SliceLayer, MatchesOnnxSplit) {
  const std::vector<OnnxSplit> cases = {
      {"test_split_equal_parts_1d_opset13", {{"axis", 0}}, 3},
      {"test_split_equal_parts_1d_opset18", {{"axis", 0}}, 3},
      {"test_split_equal_parts_2d", {{"axis", 1}}, 2},
      {"test_split_equal_parts_2d_opset13", {{"axis", -1}}, 2},
      {"test_split_equal_parts_default_axis_opset13", {{"axis", 0}}, 3},
      {"test_split_equal_parts_default_axis_opset18", {{"axis", 0}}, 3},
      {"test_split_variable_parts_1d_opset13", {{"axis", 0}, {"slice_point", Json::array{2}}}, 2},
      {"test_split_variable_parts_2d_opset18", {{"axis", 1}, {"slice_point", Json::array{2}}}, 2},
      {"test_split_variable_parts_default_axis_opset18",
       {{"axis", 0}, {"slice_point", Json::array{2}}},
       2},
      {"test_split_1d_uneven_split_opset18",
       {{"axis", 0}, {"slice_point", Json::array{2, 4, 6}}},
       4},
      {"test_split_2d_uneven_split_opset18", {{"axis", 1}, {"slice_point", Json::array{3, 6}}}, 3},
  };
  for (const OnnxSplit& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<Tensor> ys =
        RunLayer("Slice", c.param, OnnxNode(c.name, "input_0"), c.outputs);
    for (int k = 0; k < c.outputs; ++k)
      ExpectSame(ys[k], OnnxNode(c.name, "output_" + std::to_string(k)));
  }
}

// ONNX Slice node data where one piece of ours is the ONNX result.
TEST(SliceLayer, MatchesOnnxSlice) {
  struct Case {
    const char* name;
    Json::object param;
    int outputs;
    int piece;
  };
  const std::vector<Case> cases = {
      // starts [0, 0], ends [3, 10] on axes [0, 1]: rows 0..2.
      {"test_slice", {{"axis", 0}, {"slice_point", Json::array{3}}}, 2, 0},
      // axis 1 from 1 to the end.
      {"test_slice_end_out_of_bounds", {{"axis", 1}, {"slice_point", Json::array{1}}}, 2, 1},
      // axis 1 from 0 to -1.
      {"test_slice_neg", {{"axis", 1}, {"slice_point", Json::array{9}}}, 2, 0},
      // axis 2 from 3 to 4.
      {"test_slice_default_axes", {{"axis", 2}, {"slice_point", Json::array{3, 4}}}, 3, 1},
      {"test_slice_negative_axes", {{"axis", -1}, {"slice_point", Json::array{3, 4}}}, 3, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<Tensor> ys =
        RunLayer("Slice", c.param, OnnxNode(c.name, "input_0"), c.outputs);
    ExpectSame(ys[c.piece], OnnxNode(c.name, "output_0"));
  }
}

TEST(SliceLayer, SlicePointsMatchTorchSplit) {
  struct Case {
    const char* fixture;
    Json::object param;
  };
  for (const Case& c : {Case{"axis1", {{"slice_point", Json::array{2, 5}}}},
                        Case{"axis3", {{"axis", -1}, {"slice_point", Json::array{1, 3}}}}}) {
    SCOPED_TRACE(c.fixture);
    const std::string f = c.fixture;
    const std::vector<Tensor> ys =
        RunLayer("Slice", c.param, test::shape::Fixture("split_slice", f + "_in"), 3);
    for (int k = 0; k < 3; ++k)
      ExpectSame(ys[k], test::shape::Fixture("split_slice", f + "_out" + std::to_string(k)));
  }
}

TEST(SliceLayer, EvenDivisionFollowsTheBatch) {
  test::NetBuilder b;
  b.Input("x", {1, 6, 2}).Layer("s", "Slice", {"x"}, {"y0", "y1", "y2"});
  auto net = b.Build();
  net->ReshapeBatchNum(2, 0);
  Tensor x{{2, 6, 2}, {}};
  for (int i = 0; i < 24; ++i) x.values.push_back(static_cast<float>(i));
  test::shape::Feed(net.get(), x);
  ExpectSame(test::shape::Read(net.get(), "y0"), Tensor{{2, 2, 2}, {0, 1, 2, 3, 12, 13, 14, 15}});
  ExpectSame(test::shape::Read(net.get(), "y1"), Tensor{{2, 2, 2}, {4, 5, 6, 7, 16, 17, 18, 19}});
  ExpectSame(test::shape::Read(net.get(), "y2"), Tensor{{2, 2, 2}, {8, 9, 10, 11, 20, 21, 22, 23}});
}

// A chain of data-movement layers gives the same results when the net frees
// intermediate tensors after their last reader.
TEST(SliceLayer, ChainGivesTheSameResultInFrugalMode) {
  test::NetBuilder b;
  b.Input("x", {2, 4, 3, 5})
      .Layer("p", "Permute", {"x"}, {"t"}, {{"order", Json::array{0, 2, 3, 1}}})
      .Layer("r", "Reshape", {"t"}, {"u"}, {{"shapes", Json::array{0, -1, 4}}})
      .Layer("s", "Slice", {"u"}, {"y0", "y1"}, {{"slice_point", Json::array{5}}});
  const Tensor x{{2, 4, 3, 5}, test::RandomVector(120, 23)};
  auto plain = b.Build(false);
  auto frugal = b.Build(true);
  test::shape::Feed(plain.get(), x);
  test::shape::Feed(frugal.get(), x);
  for (const char* name : {"y0", "y1"}) {
    SCOPED_TRACE(name);
    ExpectSame(test::shape::Read(frugal.get(), name), test::shape::Read(plain.get(), name));
  }
  EXPECT_EQ(test::shape::Read(plain.get(), "y1").dims, (std::vector<int>{2, 10, 4}));
}

TEST(SliceLayer, Errors) {
  const std::string head = "net description: layer \"l\" (Slice): ";
  EXPECT_EQ(LayerError("Slice", {}, {2, 7, 3}, 3),
            head +
                "axis 1 of input \"x\" of shape [2, 7, 3] has size 7, which does not divide "
                "evenly into 3 outputs");
  EXPECT_EQ(LayerError("Slice", {{"slice_point", Json::array{2}}}, {2, 7, 3}, 3),
            head + "param \"slice_point\" [2] makes 2 pieces but the layer has 3 output(s)");
  EXPECT_EQ(LayerError("Slice", {{"slice_point", Json::array{4, 2}}}, {2, 7, 3}, 3),
            head + "param \"slice_point\" [4, 2] must be ascending positive positions");
  EXPECT_EQ(LayerError("Slice", {{"slice_point", Json::array{0, 2}}}, {2, 7, 3}, 3),
            head + "param \"slice_point\" [0, 2] must be ascending positive positions");
  EXPECT_EQ(LayerError("Slice", {{"slice_point", Json::array{2, 7}}}, {2, 7, 3}, 3),
            head +
                "slice_point [2, 7] does not fit axis 1 of input \"x\" of shape [2, 7, 3] "
                "(size 7)");
  EXPECT_EQ(LayerError("Slice", {{"axis", 3}}, {2, 7, 3}, 1),
            head + "axis 3 is not an axis of input \"x\" of shape [2, 7, 3]");
}

}  // namespace
}  // namespace qzdl
