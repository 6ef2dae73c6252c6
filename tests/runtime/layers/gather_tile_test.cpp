// Gather, Tile, Crop, Squeeze and ExpandDims against the ONNX node data
// (test_gather_*, test_tile*, test_slice*, test_squeeze*, test_unsqueeze_*)
// with the constant operands of each case given as params; shapes, errors,
// in-place use and thread-count independence. Only data movement: exact.
#include "runtime/layers/gather_tile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <fstream>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// ONNX int64 operands as a JSON array of ints, clamped to the int range as
// an importer passes them.
Json::array IntArray(const std::vector<int64_t>& v) {
  Json::array a;
  for (int64_t i : v)
    a.push_back(static_cast<int>(std::min<int64_t>(std::max<int64_t>(i, INT_MIN), INT_MAX)));
  return a;
}

bool HasOnnxFile(const std::string& name, const std::string& file) {
  return std::ifstream(test::OnnxCase("node", name) + "/test_data_set_0/" + file + ".pb").good();
}

void ExpectSame(const Tensor& got, const test::OnnxTensor& want) {
  EXPECT_EQ(got.dims, want.IntDims());
  EXPECT_EQ(got.values, want.values);
}

std::string Prefix(const std::string& type) {
  return "net description: layer \"l\" (" + type + "): ";
}

// ---------------------------------------------------------------------------
// Gather

TEST(GatherLayer, MatchesOnnxCases) {
  struct Case {
    std::string name;
    int axis;
  };
  for (const Case& c :
       {Case{"test_gather_0", 0}, Case{"test_gather_1", 1}, Case{"test_gather_negative_indices", 0},
        Case{"test_gather_2d_indices", 1}}) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData("node", c.name, "input_0"));
    const test::OnnxTensor indices = test::OnnxData("node", c.name, "input_1");
    Json::object param = {{"axis", c.axis}, {"indices", IntArray(indices.ints)}};
    if (indices.dims.size() != 1) param["indices_dims"] = IntArray(indices.dims);
    ExpectSame(test::RunLayer("Gather", param, {x}), test::OnnxData("node", c.name, "output_0"));
  }
}

TEST(GatherLayer, ScalarIndexRemovesTheAxis) {
  const Tensor x = test::RandomTensor({2, 3, 4}, 91);
  const Tensor got = test::RunLayer(
      "Gather", {{"axis", -2}, {"indices", Json::array{-1}}, {"scalar_index", true}}, {x});
  EXPECT_EQ(got.dims, (std::vector<int>{2, 4}));
  for (int n = 0; n < 2; ++n)
    for (int i = 0; i < 4; ++i) EXPECT_EQ(got.values[n * 4 + i], x.values[n * 12 + 2 * 4 + i]);
  // Without scalar_index the axis stays, with length 1.
  EXPECT_EQ(test::RunLayer("Gather", {{"axis", 1}, {"indices", Json::array{2}}}, {x}).dims,
            (std::vector<int>{2, 1, 4}));
  auto net = test::OneLayerNet("Gather", {{"indices", Json::array{1, -1}}}, {{3, 2}}).Build();
  auto* l = dynamic_cast<GatherLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->Axis(), 0);
  EXPECT_EQ(l->Indices(), (std::vector<int>{1, -1}));
  EXPECT_FALSE(l->ScalarIndex());
}

TEST(GatherLayer, RejectsBadParams) {
  const std::string p = Prefix("Gather");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gather", {}, {{3, 2}})),
            p + "missing param \"indices\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gather", {{"indices", Json::array{}}}, {{3, 2}})),
            p + "param \"indices\" must not be empty");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "Gather", {{"indices", Json::array{0, 1}}, {"scalar_index", true}}, {{3, 2}})),
            p + "param \"scalar_index\" needs exactly one index, \"indices\" has 2");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet(
          "Gather", {{"indices", Json::array{0, 1}}, {"indices_dims", Json::array{3}}}, {{3, 2}})),
      p + "param \"indices_dims\" [3] must be positive sizes whose product is the number of "
          "indices, 2");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "Gather", {{"axis", 1}, {"indices", Json::array{0, -3}}}, {{3, 2}})),
            p + "index -3 is out of range for axis 1 (size 2) of input \"x0\" of shape [3, 2]");
  EXPECT_EQ(test::BuildError(
                test::OneLayerNet("Gather", {{"axis", 2}, {"indices", Json::array{0}}}, {{3, 2}})),
            p + "param \"axis\" is 2, out of range for input \"x0\" of shape [3, 2]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "Gather", {{"indices", Json::array{0}}, {"scalar_index", true}}, {{3}})),
            p + "a scalar index on the only axis of input \"x0\" of shape [3] leaves no axis");
  test::ExpectBadParamsHandled("Gather", {{"axis", 1}, {"indices", Json::array{0, 2}}},
                               {{2, 3, 4}});
}

// ---------------------------------------------------------------------------
// Tile

TEST(TileLayer, MatchesOnnxCases) {
  for (const std::string name : {"test_tile", "test_tile_precomputed"}) {
    SCOPED_TRACE(name);
    const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
    const test::OnnxTensor repeats = test::OnnxData("node", name, "input_1");
    ExpectSame(test::RunLayer("Tile", {{"repeats", IntArray(repeats.ints)}}, {x}),
               test::OnnxData("node", name, "output_0"));
  }
}

TEST(TileLayer, RejectsBadParams) {
  const std::string p = Prefix("Tile");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Tile", {}, {{3, 2}})),
            p + "missing param \"repeats\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Tile", {{"repeats", Json::array{2, 0}}}, {{3, 2}})),
            p + "param \"repeats\" [2, 0] must be positive counts");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Tile", {{"repeats", Json::array{2}}}, {{3, 2}})),
            p + "param \"repeats\" [2] has 1 entries but input \"x0\" of shape [3, 2] has 2 axes");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("Tile", {{"repeats", Json::array{1, 1 << 30}}}, {{3, 2}})),
      p + "param \"repeats\" [1, 1073741824] makes axis 1 of input \"x0\" of shape [3, 2] too "
          "large");
  test::ExpectBadParamsHandled("Tile", {{"repeats", Json::array{1, 2, 3}}}, {{2, 3, 4}});
}

// ---------------------------------------------------------------------------
// Crop

TEST(CropLayer, MatchesOnnxSliceCases) {
  for (const std::string name :
       {"test_slice", "test_slice_default_axes", "test_slice_default_steps",
        "test_slice_end_out_of_bounds", "test_slice_neg", "test_slice_neg_steps",
        "test_slice_negative_axes"}) {
    SCOPED_TRACE(name);
    const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
    auto ints = [&](const std::string& file) {
      return IntArray(test::OnnxData("node", name, file).ints);
    };
    Json::object param = {{"starts", ints("input_1")}, {"ends", ints("input_2")}};
    if (HasOnnxFile(name, "input_3")) param["axes"] = ints("input_3");
    if (HasOnnxFile(name, "input_4")) param["steps"] = ints("input_4");
    ExpectSame(test::RunLayer("Crop", param, {x}), test::OnnxData("node", name, "output_0"));
  }
}

TEST(CropLayer, ClampsHugeBoundsAndReverses) {
  const Tensor x{{2, 4}, {0, 1, 2, 3, 4, 5, 6, 7}};
  // The whole of axis 1 backwards: start past the end, end far below 0.
  const Tensor rev = test::RunLayer("Crop",
                                    {{"starts", Json::array{INT_MAX}},
                                     {"ends", Json::array{INT_MIN}},
                                     {"axes", Json::array{-1}},
                                     {"steps", Json::array{-1}}},
                                    {x});
  EXPECT_EQ(rev.dims, (std::vector<int>{2, 4}));
  EXPECT_EQ(rev.values, (std::vector<float>{3, 2, 1, 0, 7, 6, 5, 4}));
  const Tensor tail = test::RunLayer("Crop",
                                     {{"starts", Json::array{1, -3}},
                                      {"ends", Json::array{INT_MAX, INT_MAX}},
                                      {"steps", Json::array{1, 2}}},
                                     {x});
  EXPECT_EQ(tail.dims, (std::vector<int>{1, 2}));
  EXPECT_EQ(tail.values, (std::vector<float>{5, 7}));
}

TEST(CropLayer, RejectsBadParams) {
  const std::string p = Prefix("Crop");
  const Json::array s = {0}, e = {2};
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Crop", {{"ends", e}}, {{3, 2}})),
            p + "missing param \"starts\"");
  EXPECT_EQ(test::BuildError(
                test::OneLayerNet("Crop", {{"starts", s}, {"ends", Json::array{2, 2}}}, {{3, 2}})),
            p + "param \"ends\" has 2 entries, \"starts\" 1");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "Crop", {{"starts", s}, {"ends", e}, {"axes", Json::array{0, 1}}}, {{3, 2}})),
            p + "param \"axes\" has 2 entries, \"starts\" 1");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "Crop", {{"starts", s}, {"ends", e}, {"steps", Json::array{0}}}, {{3, 2}})),
            p + "param \"steps\" [0] must not contain 0");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "Crop", {{"starts", s}, {"ends", e}, {"axes", Json::array{2}}}, {{3, 2}})),
            p + "param \"axes\" [2]: axis 2 is out of range for input \"x0\" of shape [3, 2]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Crop",
                                               {{"starts", Json::array{0, 0}},
                                                {"ends", Json::array{1, 1}},
                                                {"axes", Json::array{1, -1}}},
                                               {{3, 2}})),
            p + "param \"axes\" [1, -1] names axis 1 twice");
  // ONNX test_slice_start_out_of_bounds: an empty result is not a tensor here.
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Crop",
                                               {{"starts", Json::array{1000}},
                                                {"ends", Json::array{1000}},
                                                {"axes", Json::array{1}},
                                                {"steps", Json::array{1}}},
                                               {{20, 10, 5}})),
            p + "start 1000, end 1000 and step 1 select nothing on axis 1 of input \"x0\" of shape "
                "[20, 10, 5]");
  test::ExpectBadParamsHandled("Crop",
                               {{"starts", Json::array{1}},
                                {"ends", Json::array{3}},
                                {"axes", Json::array{2}},
                                {"steps", Json::array{1}}},
                               {{2, 3, 4}});
}

// ---------------------------------------------------------------------------
// Squeeze and ExpandDims

TEST(SqueezeLayer, MatchesOnnxCases) {
  for (const std::string name : {"test_squeeze", "test_squeeze_negative_axes"}) {
    SCOPED_TRACE(name);
    const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
    const test::OnnxTensor axes = test::OnnxData("node", name, "input_1");
    ExpectSame(test::RunLayer("Squeeze", {{"axes", IntArray(axes.ints)}}, {x}),
               test::OnnxData("node", name, "output_0"));
  }
  const Tensor x = test::RandomTensor({1, 3, 1, 5}, 92);
  const Tensor all = test::RunLayer("Squeeze", {}, {x});
  EXPECT_EQ(all.dims, (std::vector<int>{3, 5}));
  EXPECT_EQ(all.values, x.values);
}

TEST(SqueezeLayer, RejectsBadParams) {
  const std::string p = Prefix("Squeeze");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Squeeze", {{"axes", Json::array{1}}}, {{1, 3}})),
            p + "axis 1 of input \"x0\" of shape [1, 3] has size 3; only size-1 axes can be "
                "removed");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Squeeze", {}, {{1, 1}})),
            p + "removing the axes would leave no axis of input \"x0\" of shape [1, 1]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Squeeze", {{"axes", Json::array{-3}}}, {{1, 3}})),
            p + "param \"axes\" [-3]: axis -3 is out of range for input \"x0\" of shape [1, 3]");
  test::ExpectBadParamsHandled("Squeeze", {{"axes", Json::array{0}}}, {{1, 3, 4}});
}

TEST(ExpandDimsLayer, MatchesOnnxUnsqueezeCases) {
  for (const std::string name :
       {"test_unsqueeze_axis_0", "test_unsqueeze_axis_1", "test_unsqueeze_axis_2",
        "test_unsqueeze_negative_axes", "test_unsqueeze_three_axes", "test_unsqueeze_two_axes",
        "test_unsqueeze_unsorted_axes"}) {
    SCOPED_TRACE(name);
    const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
    const test::OnnxTensor axes = test::OnnxData("node", name, "input_1");
    ExpectSame(test::RunLayer("ExpandDims", {{"axes", IntArray(axes.ints)}}, {x}),
               test::OnnxData("node", name, "output_0"));
  }
}

TEST(ExpandDimsLayer, RejectsBadParams) {
  const std::string p = Prefix("ExpandDims");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ExpandDims", {}, {{2, 3}})),
            p + "missing param \"axes\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ExpandDims", {{"axes", Json::array{3}}}, {{2, 3}})),
            p + "param \"axes\" [3]: axis 3 is out of range for an output of 3 axes");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("ExpandDims", {{"axes", Json::array{0, -4}}}, {{2, 3}})),
      p + "param \"axes\" [0, -4] names axis 0 twice");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "ExpandDims", {{"axes", Json::array{0, 1, 2, 3, 4, 5, 6}}}, {{2, 3}})),
            p + "param \"axes\" [0, 1, 2, 3, 4, 5, 6] would give input \"x0\" of shape [2, 3] 9 "
                "axes, at most 8 are supported");
  test::ExpectBadParamsHandled("ExpandDims", {{"axes", Json::array{1}}}, {{2, 3}});
}

TEST(SqueezeAndExpandDims, InPlaceWhenTheShapeStays) {
  // Nothing to squeeze: the shape stays and the net lets the layer run in place.
  const Tensor x = test::RandomTensor({2, 3}, 93);
  const Tensor same = test::RunLayer("Squeeze", {}, {x}, {}, true);
  EXPECT_EQ(same.dims, x.dims);
  EXPECT_EQ(same.values, x.values);
  EXPECT_EQ(test::BuildError(
                test::OneLayerNet("ExpandDims", {{"axes", Json::array{0}}}, {{2, 3}}, {}, true)),
            "net description: layer \"l\" (ExpandDims): writes \"x0\" in place but changes its "
            "shape from [2, 3] to [1, 2, 3]");
}

// ---------------------------------------------------------------------------

TEST(GatherTileLayers, SameBitsWithOneOrTwoThreads) {
  const Tensor x = test::RandomTensor({2, 8, 64, 60}, 94);
  test::ExpectThreadIndependent("Gather", {{"axis", 2}, {"indices", Json::array{5, -1, 0, 5}}},
                                {x});
  test::ExpectThreadIndependent("Tile", {{"repeats", Json::array{1, 2, 2, 3}}}, {x});
  test::ExpectThreadIndependent("Crop",
                                {{"starts", Json::array{60, 1}},
                                 {"ends", Json::array{0, 58}},
                                 {"axes", Json::array{2, 3}},
                                 {"steps", Json::array{-2, 3}}},
                                {x});
  test::ExpectThreadIndependent("ExpandDims", {{"axes", Json::array{4}}}, {x});
}

}  // namespace
}  // namespace qzdl
