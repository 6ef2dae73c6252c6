// Upsample. References: ONNX Upsample/Resize node data where the coordinate
// mapping is the same as ours (nearest at the sizes listed, linear with
// half-pixel or align_corners at integer factors), and fixtures under
// fixtures/upsample from scripts/fixtures/make_shape_fixtures.py
// (F.interpolate with an output size) for other sizes.
// Nearest only copies: exact. Bilinear results are compared exactly too where
// the expected values are exact; against PyTorch they may differ in the last
// bit (PyTorch sums the four products in another order for small outputs),
// so those comparisons allow 1e-6 absolute + 1e-6 relative.
#include "runtime/layers/upsample.h"

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

void ExpectClose(const Tensor& got, const Tensor& want) {
  EXPECT_EQ(got.dims, want.dims);
  EXPECT_LE(test::ToleranceRatio(got.values, want.values, 1e-6, 1e-6), 1.0);
}

TEST(UpsampleLayer, MatchesOnnxNearest) {
  struct Case {
    const char* name;
    Json::object param;
  };
  const std::vector<Case> cases = {
      {"test_upsample_nearest", {{"scale_h", 2}, {"scale_w", 3}}},
      {"test_resize_upsample_scales_nearest", {{"scale_h", 2}, {"scale_w", 3}}},
      {"test_resize_upsample_scales_nearest_axes_2_3", {{"scale_h", 2}, {"scale_w", 3}}},
      {"test_resize_downsample_scales_nearest", {{"scale", 0.6}}},
      {"test_resize_upsample_sizes_nearest", {{"out_h", 7}, {"out_w", 8}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectSame(RunLayer("Upsample", c.param, OnnxNode(c.name, "input_0"))[0],
               OnnxNode(c.name, "output_0"));
  }
}

TEST(UpsampleLayer, MatchesOnnxLinear) {
  struct Case {
    const char* name;
    Json::object param;
  };
  const std::vector<Case> cases = {
      {"test_resize_upsample_scales_linear", {{"mode", "bilinear"}, {"scale", 2}}},
      {"test_resize_upsample_scales_linear_align_corners",
       {{"mode", "bilinear"}, {"scale", 2}, {"align_corners", true}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectClose(RunLayer("Upsample", c.param, OnnxNode(c.name, "input_0"))[0],
                OnnxNode(c.name, "output_0"));
  }
  // Half-pixel at factor 2 gives quarter steps: exact.
  ExpectSame(RunLayer("Upsample", cases[0].param, OnnxNode(cases[0].name, "input_0"))[0],
             OnnxNode(cases[0].name, "output_0"));
}

// weight_products: ONNX Runtime's Resize (linear, half_pixel) on the same
// input, by sizes 3x4 -> 7x9 and by scales 2 and 3: bit for bit (values
// written by onnxruntime-node 1.30.0, printed with 9 digits, which round-trip).
TEST(UpsampleLayer, WeightProductsMatchOnnxRuntime) {
  const Tensor x = {
      {1, 1, 3, 4},
      {0.0100000007f, 0.220899999f, 0.705600083f, 1.46410012f, 2.49640012f, 3.80250025f,
       5.38239956f, 7.2361002f, 9.36359978f, 11.7648993f, 14.4399996f, 17.3889008f}};
  const Tensor by_size = {
      {1, 1, 7, 9},
      {0.0100000007f, 0.0451500043f, 0.138883352f, 0.247827798f, 0.463250041f, 0.678672314f,
       1.0005722f,    1.33768344f,   1.46410012f,  0.365200132f, 0.426426351f, 0.589696288f,
       0.768177271f,  1.05313599f,   1.33809471f,  1.72953129f,  2.13617897f,  2.28867197f,
       1.4308002f,    1.57025504f,   1.9421345f,   2.32922506f,  2.82279301f,  3.31636143f,
       3.91640759f,   4.53166485f,   4.76238632f,  2.49640012f,  2.71408367f,  3.29457235f,
       3.89027262f,   4.59245014f,   5.29462767f,  6.10328293f,  6.92714977f,  7.2361002f,
       5.43948603f,   5.73539782f,   6.52449608f,  7.32880545f,  8.23959255f,  9.15038013f,
       10.1676445f,   11.2001228f,   11.5873013f,  8.38257217f,  8.75671196f,  9.75442028f,
       10.7673388f,   11.8867359f,   13.0061331f,  14.232007f,   15.4730949f,  15.9385014f,
       9.36359978f,   9.76381588f,   10.8310604f,  11.913517f,   13.1024494f,  14.2913828f,
       15.5867949f,   16.8974171f,   17.3889008f}};
  const Tensor by_scale = {
      {1, 1, 6, 12},
      {0.0100000007f, 0.0100000007f, 0.0802999958f, 0.150599986f, 0.220899999f, 0.382466733f,
       0.544033408f,  0.705600083f,  0.95843339f,   1.21126688f,  1.46410012f,  1.46410012f,
       0.631600022f,  0.631600022f,  0.793166757f,  0.954733372f, 1.11630011f,  1.36913347f,
       1.62196672f,   1.87479997f,   2.21889997f,   2.5630002f,   2.9071002f,   2.9071002f,
       1.87480021f,   1.87480021f,   2.21889997f,   2.5630002f,   2.9071002f,   3.34246683f,
       3.77783322f,   4.21319962f,   4.73983288f,   5.26646709f,  5.79310036f,  5.79310036f,
       4.21320009f,   4.21320009f,   4.73983335f,   5.26646662f,  5.79310036f,  6.41099977f,
       7.02890015f,   7.64679909f,   8.35596657f,   9.06513405f,  9.77430058f,  9.77430058f,
       7.64680004f,   7.64680004f,   8.35596657f,   9.06513214f,  9.77429962f,  10.5747328f,
       11.3751659f,   12.1756001f,   13.0672998f,   13.9590006f,  14.8507004f,  14.8507004f,
       9.36359978f,   9.36359978f,   10.1640329f,   10.9644661f,  11.7648993f,  12.656599f,
       13.5482998f,   14.4399996f,   15.422967f,    16.4059334f,  17.3889008f,  17.3889008f}};
  ExpectSame(
      RunLayer("Upsample",
               {{"mode", "bilinear"}, {"out_h", 7}, {"out_w", 9}, {"weight_products", true}}, x)[0],
      by_size);
  ExpectSame(
      RunLayer("Upsample",
               {{"mode", "bilinear"}, {"scale_h", 2}, {"scale_w", 3}, {"weight_products", true}},
               x)[0],
      by_scale);
}

TEST(UpsampleLayer, MatchesTorchInterpolate) {
  struct Case {
    const char* fixture;
    Json::object param;
    bool exact;
  };
  const std::vector<Case> cases = {
      {"bilinear_x3", {{"mode", "bilinear"}, {"scale", 3}}, false},
      {"bilinear_odd", {{"mode", "bilinear"}, {"out_h", 7}, {"out_w", 10}}, false},
      {"bilinear_down", {{"mode", "bilinear"}, {"out_h", 3}, {"out_w", 4}}, false},
      {"bilinear_ac_odd",
       {{"mode", "bilinear"}, {"align_corners", true}, {"out_h", 7}, {"out_w", 10}},
       false},
      {"bilinear_ac_down",
       {{"mode", "bilinear"}, {"align_corners", true}, {"out_h", 3}, {"out_w", 4}},
       false},
      // 26 -> 22 rows and 14 -> 46 columns: the single-precision ratio puts
      // row 11 on source row 12 (not 13) and column 23 on column 6 (not 7).
      {"nearest_odd", {{"out_h", 22}, {"out_w", 46}}, true},
      {"nearest_down", {{"mode", "nearest"}, {"out_h", 5}, {"out_w", 3}}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fixture);
    const std::string f = c.fixture;
    const Tensor got =
        RunLayer("Upsample", c.param, test::shape::Fixture("upsample", f + "_in"))[0];
    const Tensor want = test::shape::Fixture("upsample", f + "_out");
    if (c.exact)
      ExpectSame(got, want);
    else
      ExpectClose(got, want);
  }
}

// floor(11 * 26 / 22) is 13, but in single precision as PyTorch computes it
// (11 * float(26 / 22)) the position lands just below 13.
TEST(UpsampleLayer, NearestUsesTheSinglePrecisionRatio) {
  Tensor x{{1, 1, 26, 1}, {}};
  for (int i = 0; i < 26; ++i) x.values.push_back(static_cast<float>(i));
  const Tensor y = RunLayer("Upsample", {{"out_h", 22}, {"out_w", 1}}, x)[0];
  ASSERT_EQ(y.values.size(), 22u);
  EXPECT_EQ(y.values[10], 11.0f);
  EXPECT_EQ(y.values[11], 12.0f);
  EXPECT_EQ(y.values[12], 14.0f);
  EXPECT_EQ(y.values[21], 24.0f);
}

TEST(UpsampleLayer, FactorsGiveTheSameResultAsTheSize) {
  const Tensor x{{2, 3, 5, 7}, test::RandomVector(210, 31)};
  for (const char* mode : {"nearest", "bilinear"}) {
    SCOPED_TRACE(mode);
    const Tensor by_factor = RunLayer("Upsample", {{"mode", mode}, {"scale", 1.5}}, x)[0];
    const Tensor by_size =
        RunLayer("Upsample", {{"mode", mode}, {"out_h", 7}, {"out_w", 10}}, x)[0];
    EXPECT_EQ(by_factor.dims, (std::vector<int>{2, 3, 7, 10}));
    ExpectSame(by_factor, by_size);
  }
}

// floor(10 * 0.7) is 7 in double precision; 0.7f would give 6.
TEST(UpsampleLayer, SizeFromFactorUsesDoublePrecision) {
  const Tensor x{{1, 1, 10, 10}, test::RandomVector(100, 32)};
  EXPECT_EQ(RunLayer("Upsample", {{"scale_h", 0.7}, {"scale_w", 2}}, x)[0].dims,
            (std::vector<int>{1, 1, 7, 20}));
}

TEST(UpsampleLayer, SameSizeIsACopy) {
  const Tensor x{{1, 2, 3, 4}, test::RandomVector(24, 33)};
  ExpectSame(RunLayer("Upsample", {{"mode", "bilinear"}, {"scale", 1}}, x)[0], x);
  ExpectSame(RunLayer("Upsample", {{"scale", 1}}, x)[0], x);
}

TEST(UpsampleLayer, FollowsTheBatch) {
  test::NetBuilder b;
  b.Input("x", {1, 1, 2, 2}).Layer("u", "Upsample", {"x"}, {"y"}, {{"scale", 2}});
  auto net = b.Build();
  net->ReshapeBatchNum(2, 0);
  test::shape::Feed(net.get(), Tensor{{2, 1, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}});
  ExpectSame(test::shape::Read(net.get(), "y"),
             Tensor{{2, 1, 4, 4}, {1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4,
                                   5, 5, 6, 6, 5, 5, 6, 6, 7, 7, 8, 8, 7, 7, 8, 8}});
  EXPECT_EQ(net->GetLayer("u")->GetTypeDetail(), "Upsample(nearest)");
}

TEST(UpsampleLayer, TypeDetailNamesTheMode) {
  test::NetBuilder b;
  b.Input("x", {1, 1, 2, 2})
      .Layer("u", "Upsample", {"x"}, {"y"}, {{"mode", "bilinear"}, {"scale", 2}});
  EXPECT_EQ(b.Build()->GetLayer("u")->GetTypeDetail(), "Upsample(bilinear)");
}

TEST(UpsampleLayer, Errors) {
  const std::string head = "net description: layer \"l\" (Upsample): ";
  const std::vector<int> dims = {1, 2, 3, 4};
  EXPECT_EQ(LayerError("Upsample", {}, dims),
            head + "needs \"scale\", \"scale_h\" and \"scale_w\", or \"out_h\" and \"out_w\"");
  EXPECT_EQ(LayerError("Upsample", {{"scale", 2}, {"out_h", 4}, {"out_w", 4}}, dims),
            head + "give either scale factors or \"out_h\" and \"out_w\", not both");
  EXPECT_EQ(LayerError("Upsample", {{"scale", 2}, {"scale_h", 2}}, dims),
            head + "give either \"scale\" or \"scale_h\" and \"scale_w\", not both");
  EXPECT_EQ(LayerError("Upsample", {{"scale_h", 2}}, dims),
            head + "params \"scale_h\" and \"scale_w\" go together");
  EXPECT_EQ(LayerError("Upsample", {{"out_w", 2}}, dims),
            head + "params \"out_h\" and \"out_w\" go together");
  EXPECT_EQ(LayerError("Upsample", {{"scale", -2}}, dims),
            head + "param \"scale\" must be a positive number, got -2");
  EXPECT_EQ(LayerError("Upsample", {{"out_h", 0}, {"out_w", 2}}, dims),
            head + "param \"out_h\" must be >= 1, got 0");
  EXPECT_EQ(LayerError("Upsample", {{"scale", 2}, {"align_corners", true}}, dims),
            head + "param \"align_corners\" applies to bilinear mode only");
  EXPECT_EQ(LayerError("Upsample", {{"scale", 2}, {"weight_products", true}}, dims),
            head + "param \"weight_products\" applies to bilinear mode without align_corners only");
  EXPECT_EQ(LayerError("Upsample", {{"scale", 2}, {"mode", "cubic"}}, dims),
            head + "param \"mode\" is \"cubic\", expected one of \"nearest\", \"bilinear\"");
  EXPECT_EQ(LayerError("Upsample", {{"scale_h", 0.2}, {"scale_w", 1}}, dims),
            head + "scale 0.2 makes height 0 from input \"x\" of shape [1, 2, 3, 4]");
  EXPECT_EQ(LayerError("Upsample", {{"scale", 2}}, {1, 2, 3}),
            head + "input \"x\" must have 4 axes, has shape [1, 2, 3]");
}

}  // namespace
}  // namespace qzdl
