// BatchNormal, Scale and L2Normalize against the ONNX node and
// PyTorch-converted test data and the fixtures of
// scripts/fixtures/make_elementwise_fixtures.py; weights go through the
// weights file.
#include "runtime/layers/normalization.h"

#include <gtest/gtest.h>

#include <cmath>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;
using test::WeightInit;

// BatchNormal folds each channel into one multiplier (computed in double)
// and evaluates (x - mean) * m + bias: within 1e-5 absolute + 1e-5 relative.
constexpr double kBnAtol = 1e-5, kBnRtol = 1e-5;
// Scale: one multiply-add per element, within 1e-6 absolute + 1e-6 relative.
constexpr double kScaleAtol = 1e-6, kScaleRtol = 1e-6;
// L2Normalize: sums of squares in double, one reciprocal square root per
// sum: within 1e-6 absolute + 1e-5 relative.
constexpr double kL2Atol = 1e-6, kL2Rtol = 1e-5;

WeightInit W(const std::string& blob, const test::OnnxTensor& t) {
  return {blob, t.IntDims(), t.values};
}

// ---------------------------------------------------------------------------
// BatchNormal

TEST(BatchNormalLayer, MatchesOnnxCases) {
  struct Case {
    std::string name;
    double eps;
  };
  for (const Case& c :
       {Case{"test_batchnorm_epsilon", 0.01}, Case{"test_batchnorm_example", 1e-5}}) {
    SCOPED_TRACE(c.name);
    auto in = [&](int i) { return test::OnnxData("node", c.name, "input_" + std::to_string(i)); };
    const Tensor x = test::ToTensor(in(0));
    // ONNX inputs: X, scale, B, input_mean, input_var.
    const std::vector<WeightInit> weights = {W("mean", in(3)), W("variance", in(4)),
                                             W("scale", in(1)), W("bias", in(2))};
    const Tensor got =
        test::RunLayer("BatchNormal", {{"affine", true}, {"eps", c.eps}}, {x}, weights);
    const test::OnnxTensor want = test::OnnxData("node", c.name, "output_0");
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kBnAtol, kBnRtol), 1.0);
  }
}

TEST(BatchNormalLayer, MatchesPyTorchCases) {
  struct Case {
    std::string name;
    double eps;
  };
  for (const Case& c : {Case{"BatchNorm2d_eval", 1e-5}, Case{"BatchNorm2d_momentum_eval", 1e-3},
                        Case{"BatchNorm1d_3d_input_eval", 1e-5}}) {
    SCOPED_TRACE(c.name);
    const std::string dir = "test_" + c.name;
    const Tensor x = test::ToTensor(test::OnnxData("pytorch-converted", dir, "input_0"));
    std::vector<WeightInit> weights;
    for (const std::string blob : {"mean", "variance", "scale", "bias"})
      weights.push_back(W(blob, test::Fixture("normalization", c.name + "_" + blob)));
    const Tensor got =
        test::RunLayer("BatchNormal", {{"affine", true}, {"eps", c.eps}}, {x}, weights);
    const test::OnnxTensor want = test::OnnxData("pytorch-converted", dir, "output_0");
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kBnAtol, kBnRtol), 1.0);
  }
}

TEST(BatchNormalLayer, WithoutAffineUsesMeanAndVarianceOnly) {
  const Tensor x{{1, 2, 1, 2}, {1, 3, 10, 14}};
  const Tensor got = test::RunLayer("BatchNormal", {{"eps", 0}}, {x},
                                    {{"mean", {2}, {2, 12}}, {"variance", {2}, {4, 16}}});
  EXPECT_EQ(got.values, (std::vector<float>{-0.5f, 0.5f, -0.5f, 0.5f}));
  // Default eps 1e-5.
  const Tensor eps = test::RunLayer("BatchNormal", {}, {Tensor{{1, 1}, {1}}},
                                    {{"mean", {1}, {0}}, {"variance", {1}, {0}}});
  EXPECT_NEAR(eps.values[0], 1.0 / std::sqrt(1e-5), 1e-2);
}

TEST(BatchNormalLayer, WeightSpecsFollowAffine) {
  auto plain = test::OneLayerNet("BatchNormal", {}, {{1, 3, 2, 2}},
                                 {{"mean", {3}, {0, 0, 0}}, {"variance", {3}, {1, 1, 1}}})
                   .Build();
  auto* layer = plain->GetLayer("l");
  EXPECT_EQ(layer->GetWeights().size(), 2u);
  EXPECT_EQ(layer->WeightIndex("mean"), 0);
  EXPECT_EQ(layer->WeightIndex("variance"), 1);
  EXPECT_EQ(layer->WeightIndex("scale"), -1);
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet(
          "BatchNormal", {{"affine", true}}, {{1, 3}},
          {{"mean", {3}, {0, 0, 0}}, {"variance", {3}, {1, 1, 1}}, {"scale", {3}, {1, 1, 1}}})),
      "weights: layer \"l\": blob \"bias\" is missing (expected shape [3])");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("BatchNormal", {{"eps", -1}}, {{1, 3}})),
            "net description: layer \"l\" (BatchNormal): param \"eps\" must be a finite number "
            ">= 0, got -1.000000");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("BatchNormal", {}, {{3}})),
            "net description: layer \"l\" (BatchNormal): input \"x0\" needs a channel axis (axis "
            "1), has shape [3]");
}

TEST(BatchNormalLayer, KeepsWorkingAfterBatchReshape) {
  auto net = test::OneLayerNet("BatchNormal", {{"eps", 0}}, {{1, 2, 1, 1}},
                               {{"mean", {2}, {1, 2}}, {"variance", {2}, {4, 1}}})
                 .Build();
  net->ReshapeBatchNum(3, 0);
  std::vector<float> x = {3, 3, 5, 5, 7, 7};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  const float* y = net->GetFloatOutputData(0);
  EXPECT_EQ(std::vector<float>(y, y + 6), (std::vector<float>{1, 1, 2, 3, 3, 5}));
}

// ---------------------------------------------------------------------------
// Scale

TEST(ScaleLayer, MatchesFixtures) {
  const Tensor x = test::ToTensor(test::Fixture("normalization", "scale_x"));
  const WeightInit s = W("scale", test::Fixture("normalization", "scale_scale"));
  const WeightInit b = W("bias", test::Fixture("normalization", "scale_bias"));
  const Tensor plain = test::RunLayer("Scale", {}, {x}, {s});
  EXPECT_LE(test::ToleranceRatio(plain.values, test::Fixture("normalization", "scale_y").values,
                                 kScaleAtol, kScaleRtol),
            1.0);
  const Tensor biased = test::RunLayer("Scale", {{"bias_term", true}}, {x}, {s, b});
  EXPECT_LE(
      test::ToleranceRatio(biased.values, test::Fixture("normalization", "scale_bias_y").values,
                           kScaleAtol, kScaleRtol),
      1.0);
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Scale", {}, {{2, 3}}, {s, b})),
            "weights: layer \"l\": blob \"bias\" is not a weight of a Scale layer with these "
            "params");
}

// ---------------------------------------------------------------------------
// L2Normalize

TEST(L2NormalizeLayer, MatchesFixtures) {
  const Tensor x = test::ToTensor(test::Fixture("normalization", "l2n_x"));
  const WeightInit scale = W("scale", test::Fixture("normalization", "l2n_scale"));
  auto check = [&](const Tensor& got, const std::string& fixture) {
    SCOPED_TRACE(fixture);
    const test::OnnxTensor want = test::Fixture("normalization", fixture);
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kL2Atol, kL2Rtol), 1.0);
  };
  check(test::RunLayer("L2Normalize", {}, {x}), "l2n_channel_y");
  check(test::RunLayer("L2Normalize", {{"has_scale", true}}, {x}, {scale}), "l2n_channel_scale_y");
  check(
      test::RunLayer(
          "L2Normalize",
          {{"across_spatial", true}, {"has_scale", true}, {"channel_shared", true}, {"eps", 1e-3}},
          {x}, {{"scale", {1}, {2.5f}}}),
      "l2n_spatial_shared_y");
}

TEST(L2NormalizeLayer, UnitNormsAndScaleShapes) {
  // Across channels: each position of a 2-d input [N, C] becomes a unit vector.
  const Tensor got = test::RunLayer("L2Normalize", {}, {Tensor{{2, 2}, {3, 4, 0, 5}}});
  EXPECT_EQ(got.values, (std::vector<float>{0.6f, 0.8f, 0.0f, 1.0f}));
  auto net = test::OneLayerNet("L2Normalize", {{"has_scale", true}}, {{1, 4, 2, 2}},
                               {{"scale", {4}, {1, 2, 3, 4}}})
                 .Build();
  EXPECT_EQ(net->GetLayer("l")->GetWeights()[0]->GetDims(), (std::vector<int>{4}));
  EXPECT_EQ(test::BuildError(test::OneLayerNet("L2Normalize", {{"has_scale", true}}, {{1, 4, 2, 2}},
                                               {{"scale", {1}, {2}}})),
            "weights: layer \"l\": blob \"scale\" has shape [1], expected [4]");
  auto none = test::OneLayerNet("L2Normalize", {}, {{1, 4, 2, 2}}).Build();
  EXPECT_TRUE(none->GetLayer("l")->GetWeights().empty());
}

// Nets written before the importer named the type "L2Normalization" say
// "L2Normalize": both load the same layer, which keeps the name it was given.
TEST(L2NormalizeLayer, LoadsUnderBothNames) {
  const Tensor x = test::ToTensor(test::Fixture("normalization", "l2n_x"));
  const Json::object param = {{"has_scale", true}, {"eps", 1e-6}};
  const std::vector<WeightInit> scale = {W("scale", test::Fixture("normalization", "l2n_scale"))};
  const Tensor old_name = test::RunLayer("L2Normalize", param, {x}, scale);
  const Tensor new_name = test::RunLayer("L2Normalization", param, {x}, scale);
  EXPECT_EQ(new_name.dims, old_name.dims);
  EXPECT_EQ(test::Bits(new_name.values), test::Bits(old_name.values));
  for (const std::string type : {"L2Normalize", "L2Normalization"}) {
    auto net = test::OneLayerNet(type, {}, {{1, 4, 2, 2}}).Build();
    auto* l = dynamic_cast<L2NormalizeLayer<float>*>(net->GetLayer("l"));
    ASSERT_NE(l, nullptr) << type;
    EXPECT_EQ(l->GetType(), type);
    EXPECT_EQ(l->GetTypeDetail(), type);
  }
  EXPECT_EQ(test::BuildError(test::OneLayerNet("L2Normalization", {{"eps", -1}}, {{1, 4}})),
            "net description: layer \"l\" (L2Normalization): param \"eps\" must be a finite "
            "number >= 0, got -1.000000");
}

// ---------------------------------------------------------------------------
// In place and thread count, for all three.

struct Config {
  std::string type;
  Json::object param;
  std::vector<WeightInit> weights;
};

std::vector<Config> Configs(int channels) {
  auto vec = [&](uint32_t seed, float lo, float hi) {
    return test::RandomVector(channels, seed, lo, hi);
  };
  return {
      {"BatchNormal",
       {{"affine", true}},
       {{"mean", {channels}, vec(1, -1, 1)},
        {"variance", {channels}, vec(2, 0.1f, 2)},
        {"scale", {channels}, vec(3, -2, 2)},
        {"bias", {channels}, vec(4, -1, 1)}}},
      {"BatchNormal",
       {},
       {{"mean", {channels}, vec(5, -1, 1)}, {"variance", {channels}, vec(6, 0.1f, 2)}}},
      {"Scale",
       {{"bias_term", true}},
       {{"scale", {channels}, vec(7, -2, 2)}, {"bias", {channels}, vec(8, -1, 1)}}},
      {"Scale", {}, {{"scale", {channels}, vec(9, -2, 2)}}},
      {"L2Normalize", {}, {}},
      {"L2Normalize", {{"has_scale", true}}, {{"scale", {channels}, vec(10, 0.5f, 2)}}},
      {"L2Normalize", {{"across_spatial", true}}, {}},
      {"L2Normalization", {}, {}},
      {"L2Normalize",
       {{"across_spatial", true}, {"has_scale", true}, {"channel_shared", true}},
       {{"scale", {1}, {1.5f}}}},
  };
}

TEST(NormalizationLayers, SurviveBadParamValues) {
  for (const Config& c : Configs(5))
    test::ExpectBadParamsHandled(c.type, c.param, {{2, 5, 3}}, c.weights);
  test::ExpectBadParamsHandled(
      "L2Normalize",
      {{"across_spatial", false}, {"has_scale", true}, {"channel_shared", false}, {"eps", 1e-6}},
      {{2, 5, 3}}, {{"scale", {5}, {1, 2, 3, 4, 5}}});
  test::ExpectBadParamsHandled(
      "BatchNormal", {{"affine", false}, {"eps", 1e-3}}, {{2, 5, 3}},
      {{"mean", {5}, {0, 0, 0, 0, 0}}, {"variance", {5}, {1, 1, 1, 1, 1}}});
}

TEST(NormalizationLayers, InPlaceGivesSameResult) {
  const Tensor x = test::RandomTensor({2, 5, 9, 11}, 61, -3.0f, 3.0f);
  for (const Config& c : Configs(5)) {
    SCOPED_TRACE(c.type + " " + Json(c.param).dump());
    test::ExpectInPlaceSame(c.type, c.param, {x}, c.weights);
  }
}

TEST(NormalizationLayers, SameBitsWithOneOrTwoThreads) {
  const Tensor x = test::RandomTensor({3, 12, 40, 36}, 62, -3.0f, 3.0f);
  for (const Config& c : Configs(12)) {
    SCOPED_TRACE(c.type + " " + Json(c.param).dump());
    test::ExpectThreadIndependent(c.type, c.param, {x}, c.weights);
  }
}

}  // namespace
}  // namespace qzdl
