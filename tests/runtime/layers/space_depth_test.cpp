// DepthToSpace and SpaceToDepth against the ONNX node data
// (test_depthtospace_*, test_spacetodepth*) and the PyTorch-converted
// test_PixelShuffle (DepthToSpace in CRD mode, block 3); ShufflePixel
// against nn.PixelShuffle fixtures; a round trip,
// errors and thread-count independence. Only data movement: exact.
#include "runtime/layers/space_depth.h"

#include <gtest/gtest.h>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

void ExpectSame(const Tensor& got, const test::OnnxTensor& want) {
  EXPECT_EQ(got.dims, want.IntDims());
  EXPECT_EQ(got.values, want.values);
}

TEST(SpaceDepthLayers, MatchOnnxCases) {
  struct Case {
    std::string group;
    std::string name;
    std::string type;
    Json::object param;
  };
  for (const Case& c : {
           Case{"node",
                "test_depthtospace_example",
                "DepthToSpace",
                {{"blocksize", 2}, {"mode", "DCR"}}},
           Case{"node",
                "test_depthtospace_crd_mode_example",
                "DepthToSpace",
                {{"blocksize", 2}, {"mode", "CRD"}}},
           Case{"pytorch-converted",
                "test_PixelShuffle",
                "DepthToSpace",
                {{"blocksize", 3}, {"mode", "CRD"}}},
           Case{"node", "test_spacetodepth", "SpaceToDepth", {{"blocksize", 2}}},
           Case{"node", "test_spacetodepth_example", "SpaceToDepth", {{"blocksize", 2}}},
       }) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData(c.group, c.name, "input_0"));
    ExpectSame(test::RunLayer(c.type, c.param, {x}), test::OnnxData(c.group, c.name, "output_0"));
  }
}

TEST(SpaceDepthLayers, DcrIsTheInverseOfSpaceToDepth) {
  const Tensor x = test::RandomTensor({2, 3, 6, 9}, 81);
  const Tensor packed = test::RunLayer("SpaceToDepth", {{"blocksize", 3}}, {x});
  EXPECT_EQ(packed.dims, (std::vector<int>{2, 27, 2, 3}));
  const Tensor back = test::RunLayer("DepthToSpace", {{"blocksize", 3}}, {packed});
  EXPECT_EQ(back.dims, x.dims);
  EXPECT_EQ(back.values, x.values);
}

TEST(SpaceDepthLayers, TypeDetailAndAccessors) {
  auto dcr = test::OneLayerNet("DepthToSpace", {{"blocksize", 2}}, {{1, 8, 2, 2}}).Build();
  auto* d = dynamic_cast<DepthToSpaceLayer<float>*>(dcr->GetLayer("l"));
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->GetTypeDetail(), "DepthToSpace(DCR)");
  EXPECT_EQ(d->BlockSize(), 2);
  EXPECT_FALSE(d->Crd());
  auto crd = test::OneLayerNet("DepthToSpace", {{"blocksize", 2}, {"mode", "CRD"}}, {{1, 8, 2, 2}})
                 .Build();
  EXPECT_EQ(crd->GetLayer("l")->GetTypeDetail(), "DepthToSpace(CRD)");
  auto s2d = test::OneLayerNet("SpaceToDepth", {{"blocksize", 2}}, {{1, 1, 2, 2}}).Build();
  EXPECT_EQ(s2d->GetLayer("l")->GetTypeDetail(), "SpaceToDepth");
}

TEST(SpaceDepthLayers, RejectBadParamsAndShapes) {
  const std::string d2s = "net description: layer \"l\" (DepthToSpace): ";
  const std::string s2d = "net description: layer \"l\" (SpaceToDepth): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("DepthToSpace", {}, {{1, 8, 2, 2}})),
            d2s + "missing param \"blocksize\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("DepthToSpace", {{"blocksize", 0}}, {{1, 8, 2, 2}})),
            d2s + "param \"blocksize\" must be at least 1, got 0");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("DepthToSpace", {{"blocksize", 2}, {"mode", "DRC"}},
                                               {{1, 8, 2, 2}})),
            d2s + "param \"mode\" is \"DRC\", expected one of \"DCR\", \"CRD\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("DepthToSpace", {{"blocksize", 2}}, {{1, 6, 2, 2}})),
            d2s +
                "input \"x0\" of shape [1, 6, 2, 2] has 6 channels, not a multiple of "
                "blocksize^2 = 4");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("DepthToSpace", {{"blocksize", 2}}, {{8, 2, 2}})),
            d2s + "input \"x0\" must have 4 axes, has shape [8, 2, 2]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("SpaceToDepth", {{"blocksize", 2}}, {{1, 1, 4, 5}})),
            s2d +
                "input \"x0\" of shape [1, 1, 4, 5]: height and width must be multiples of "
                "blocksize 2");
  test::ExpectBadParamsHandled("DepthToSpace", {{"blocksize", 2}, {"mode", "CRD"}}, {{1, 8, 2, 2}});
  test::ExpectBadParamsHandled("SpaceToDepth", {{"blocksize", 2}}, {{1, 2, 4, 4}});
}

// ShufflePixel: nn.PixelShuffle fixtures (make_more_layer_fixtures.py).
TEST(SpaceDepthLayers, ShufflePixelMatchesTorch) {
  for (int r : {2, 3}) {
    const std::string f = "ps_r" + std::to_string(r);
    SCOPED_TRACE(f);
    const Tensor x = test::ToTensor(test::Fixture("space_depth", f + "_in"));
    ExpectSame(test::RunLayer("ShufflePixel", {{"upscale_factor", r}}, {x}),
               test::Fixture("space_depth", f + "_out"));
    // The same arithmetic as DepthToSpace in CRD mode.
    const Tensor crd = test::RunLayer("DepthToSpace", {{"blocksize", r}, {"mode", "CRD"}}, {x});
    EXPECT_EQ(crd.values, test::Fixture("space_depth", f + "_out").values);
  }
}

TEST(SpaceDepthLayers, ShufflePixelShapeDetailAndErrors) {
  auto net = test::OneLayerNet("ShufflePixel", {{"upscale_factor", 3}}, {{2, 18, 4, 5}}).Build();
  EXPECT_EQ(net->GetData("y")->GetDims(), (std::vector<int>{2, 2, 12, 15}));
  auto* d = dynamic_cast<DepthToSpaceLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->GetTypeDetail(), "ShufflePixel");
  EXPECT_EQ(d->BlockSize(), 3);
  EXPECT_TRUE(d->Crd());
  const std::string p = "net description: layer \"l\" (ShufflePixel): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ShufflePixel", {}, {{1, 8, 2, 2}})),
            p + "missing param \"upscale_factor\"");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("ShufflePixel", {{"upscale_factor", 0}}, {{1, 8, 2, 2}})),
      p + "param \"upscale_factor\" must be at least 1, got 0");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("ShufflePixel", {{"upscale_factor", 2}}, {{1, 6, 2, 2}})),
      p + "input \"x0\" of shape [1, 6, 2, 2] has 6 channels, not a multiple of "
          "upscale_factor^2 = 4");
  test::ExpectBadParamsHandled("ShufflePixel", {{"upscale_factor", 2}}, {{1, 8, 2, 2}});
}

TEST(SpaceDepthLayers, SameBitsWithOneOrTwoThreads) {
  const Tensor x = test::RandomTensor({2, 16, 60, 40}, 82);
  test::ExpectThreadIndependent("DepthToSpace", {{"blocksize", 2}}, {x});
  test::ExpectThreadIndependent("DepthToSpace", {{"blocksize", 4}, {"mode", "CRD"}}, {x});
  test::ExpectThreadIndependent("SpaceToDepth", {{"blocksize", 4}}, {x});
  test::ExpectThreadIndependent("ShufflePixel", {{"upscale_factor", 2}}, {x});
}

}  // namespace
}  // namespace qzdl
