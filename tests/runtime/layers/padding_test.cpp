// Padding, ZeroPadding, ReflectionPadding and ReplicationPadding.
// References: ONNX Pad node data (constant, edge, reflect) with the H and W
// pads mapped by hand, F.pad fixtures, and small hand-made cases.
// Padding only copies and fills: exact comparisons.
#include "runtime/layers/padding.h"

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

// ONNX pads for 4-d data: [n0, c0, h0, w0, n1, c1, h1, w1] (begin then end);
// ours are the H and W entries.
Json::object PadsFromOnnx(const std::vector<int>& pads) {
  EXPECT_EQ(pads.size(), 8u);
  EXPECT_EQ(pads[0] + pads[1] + pads[4] + pads[5], 0) << "pads outside H and W";
  return {
      {"pad_top", pads[2]}, {"pad_left", pads[3]}, {"pad_bottom", pads[6]}, {"pad_right", pads[7]}};
}

TEST(PaddingLayer, MatchesOnnxPad) {
  struct Case {
    const char* name;
    const char* mode;
  };
  for (const Case& c : {Case{"test_constant_pad", "constant"}, Case{"test_edge_pad", "edge"},
                        Case{"test_reflect_pad", "reflect"}}) {
    SCOPED_TRACE(c.name);
    Json::object param = PadsFromOnnx(test::shape::OnnxNodeInts(c.name, "input_1"));
    param["mode"] = c.mode;
    if (std::string(c.mode) == "constant")
      param["value"] = static_cast<double>(OnnxNode(c.name, "input_2").values.at(0));
    ExpectSame(RunLayer("Padding", param, OnnxNode(c.name, "input_0"))[0],
               OnnxNode(c.name, "output_0"));
  }
}

// Pads on axes [1, 3] and [-3, -1]: [0, 3, 0, 4] puts 3 left and 4 right.
TEST(PaddingLayer, MatchesOnnxPadOnSomeAxes) {
  for (const char* name : {"test_constant_pad_axes", "test_constant_pad_negative_axes"}) {
    SCOPED_TRACE(name);
    const Json::object param = {{"pad_left", 3}, {"pad_right", 4}, {"value", 1.2f}};
    ExpectSame(RunLayer("Padding", param, OnnxNode(name, "input_0"))[0],
               OnnxNode(name, "output_0"));
  }
}

TEST(PaddingLayer, HandCases) {
  const Tensor x{{1, 1, 2, 3}, {1, 2, 3, 4, 5, 6}};
  ExpectSame(RunLayer("Padding", {{"mode", "reflect"}, {"pad_top", 1}, {"pad_left", 2}}, x)[0],
             Tensor{{1, 1, 3, 5}, {6, 5, 4, 5, 6, 3, 2, 1, 2, 3, 6, 5, 4, 5, 6}});
  ExpectSame(RunLayer("Padding", {{"mode", "edge"}, {"pad_bottom", 2}, {"pad_right", 1}}, x)[0],
             Tensor{{1, 1, 4, 4}, {1, 2, 3, 3, 4, 5, 6, 6, 4, 5, 6, 6, 4, 5, 6, 6}});
  ExpectSame(RunLayer("Padding", {{"value", -1}, {"pad_top", 1}, {"pad_right", 1}}, x)[0],
             Tensor{{1, 1, 3, 4}, {-1, -1, -1, -1, 1, 2, 3, -1, 4, 5, 6, -1}});
  ExpectSame(RunLayer("Padding", {}, x)[0], x);
}

TEST(PaddingLayer, ZeroPaddingFillsZeros) {
  const Tensor x{{2, 1, 1, 2}, {1, 2, 3, 4}};
  ExpectSame(RunLayer("ZeroPadding", {{"pad_top", 1}, {"pad_left", 1}}, x)[0],
             Tensor{{2, 1, 2, 3}, {0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 3, 4}});
}

TEST(PaddingLayer, FollowsTheBatchOnManyPlanes) {
  test::NetBuilder b;
  b.Input("x", {1, 3, 40, 50})
      .Layer("p", "Padding", {"x"}, {"y"},
             {{"mode", "reflect"}, {"pad_top", 2}, {"pad_bottom", 3}, {"pad_left", 4}});
  auto net = b.Build();
  net->ReshapeBatchNum(4, 0);
  const Tensor x{{4, 3, 40, 50}, test::RandomVector(4 * 3 * 40 * 50, 41)};
  test::shape::Feed(net.get(), x);
  const Tensor y = test::shape::Read(net.get(), "y");
  ASSERT_EQ(y.dims, (std::vector<int>{4, 3, 45, 54}));
  // Plain reference of reflect indexing.
  auto reflect = [](int p, int n) { return p < 0 ? -p : (p >= n ? 2 * (n - 1) - p : p); };
  size_t bad = 0;
  for (int plane = 0; plane < 12; ++plane)
    for (int oy = 0; oy < 45; ++oy)
      for (int ox = 0; ox < 54; ++ox) {
        const float want = x.values[(plane * 40 + reflect(oy - 2, 40)) * 50 + reflect(ox - 4, 50)];
        bad += y.values[(plane * 45 + oy) * 54 + ox] != want;
      }
  EXPECT_EQ(bad, 0u);
}

TEST(PaddingLayer, TypeDetail) {
  test::NetBuilder b;
  b.Input("x", {1, 1, 2, 2})
      .Layer("p", "Padding", {"x"}, {"y"}, {{"mode", "reflect"}, {"pad_top", 1}})
      .Layer("z", "ZeroPadding", {"y"}, {"w"}, {{"pad_top", 1}});
  auto net = b.Build();
  EXPECT_EQ(net->GetLayer("p")->GetTypeDetail(), "Padding(reflect)");
  EXPECT_EQ(net->GetLayer("z")->GetTypeDetail(), "ZeroPadding");
}

// ReflectionPadding and ReplicationPadding against F.pad "reflect" and
// "replicate" (fixtures/padding from make_more_layer_fixtures.py).
TEST(PaddingLayer, FixedModesMatchTorch) {
  struct Case {
    const char* type;
    const char* fixture;
    Json::object param;
  };
  for (const Case& c :
       {Case{"ReflectionPadding",
             "reflection",
             {{"pad_left", 3}, {"pad_right", 1}, {"pad_top", 2}, {"pad_bottom", 0}}},
        Case{"ReplicationPadding",
             "replication",
             {{"pad_left", 2}, {"pad_right", 4}, {"pad_top", 0}, {"pad_bottom", 3}}}}) {
    SCOPED_TRACE(c.type);
    const std::string f = c.fixture;
    const Tensor x = test::shape::Fixture("padding", f + "_in");
    const Tensor want = test::shape::Fixture("padding", f + "_out");
    ExpectSame(RunLayer(c.type, c.param, x)[0], want);
    // The mode may be given if it is the fixed one.
    Json::object with_mode = c.param;
    with_mode["mode"] = std::string(c.type) == "ReflectionPadding" ? "reflect" : "edge";
    ExpectSame(RunLayer(c.type, with_mode, x)[0], want);
  }
}

TEST(PaddingLayer, FixedModesTypeDetailAndErrors) {
  test::NetBuilder b;
  b.Input("x", {1, 1, 3, 3})
      .Layer("r", "ReflectionPadding", {"x"}, {"y"}, {{"pad_top", 1}})
      .Layer("e", "ReplicationPadding", {"y"}, {"z"}, {{"pad_left", 5}});
  auto net = b.Build();
  EXPECT_EQ(net->GetLayer("r")->GetTypeDetail(), "ReflectionPadding");
  EXPECT_EQ(net->GetLayer("e")->GetTypeDetail(), "ReplicationPadding");
  EXPECT_EQ(dynamic_cast<PaddingLayer<float>*>(net->GetLayer("r"))->Mode(), "reflect");
  EXPECT_EQ(dynamic_cast<PaddingLayer<float>*>(net->GetLayer("e"))->Mode(), "edge");
  EXPECT_EQ(net->GetData("z")->GetDims(), (std::vector<int>{1, 1, 4, 8}));
  const std::vector<int> dims = {1, 1, 2, 3};
  EXPECT_EQ(LayerError("ReflectionPadding", {{"mode", "edge"}}, dims),
            "net description: layer \"l\" (ReflectionPadding): param \"mode\" is \"edge\"; "
            "ReflectionPadding always pads with mode \"reflect\"");
  EXPECT_EQ(LayerError("ReplicationPadding", {{"mode", "constant"}}, dims),
            "net description: layer \"l\" (ReplicationPadding): param \"mode\" is "
            "\"constant\"; ReplicationPadding always pads with mode \"edge\"");
  EXPECT_EQ(LayerError("ReflectionPadding", {{"pad_left", 3}}, dims),
            "net description: layer \"l\" (ReflectionPadding): reflect pads (top 0, bottom 0, "
            "left 3, right 0) must be smaller than the height and width of input \"x\" of shape "
            "[1, 1, 2, 3]");
  EXPECT_EQ(LayerError("ReplicationPadding", {{"pad_bottom", -2}}, dims),
            "net description: layer \"l\" (ReplicationPadding): param \"pad_bottom\" must be "
            ">= 0, got -2");
}

TEST(PaddingLayer, Errors) {
  const std::vector<int> dims = {1, 1, 2, 3};
  EXPECT_EQ(LayerError("Padding", {{"mode", "reflect"}, {"pad_top", 2}}, dims),
            "net description: layer \"l\" (Padding): reflect pads (top 2, bottom 0, left 0, "
            "right 0) must be smaller than the height and width of input \"x\" of shape "
            "[1, 1, 2, 3]");
  EXPECT_EQ(LayerError("Padding", {{"pad_left", -1}}, dims),
            "net description: layer \"l\" (Padding): param \"pad_left\" must be >= 0, got -1");
  EXPECT_EQ(LayerError("Padding", {{"mode", "wrap"}}, dims),
            "net description: layer \"l\" (Padding): param \"mode\" is \"wrap\", expected one of "
            "\"constant\", \"reflect\", \"edge\"");
  EXPECT_EQ(LayerError("ZeroPadding", {{"mode", "edge"}}, dims),
            "net description: layer \"l\" (ZeroPadding): param \"mode\" is \"edge\", expected "
            "one of \"constant\"");
  EXPECT_EQ(LayerError("ZeroPadding", {{"value", 1}}, dims),
            "net description: layer \"l\" (ZeroPadding): param \"value\" must be 0; ZeroPadding "
            "pads with zeros");
  EXPECT_EQ(LayerError("Padding", {}, {1, 2, 3}),
            "net description: layer \"l\" (Padding): input \"x\" must have 4 axes, has shape "
            "[1, 2, 3]");
}

}  // namespace
}  // namespace qzdl
