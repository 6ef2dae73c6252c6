// LayerNorm against the ONNX node data (every test_layer_normalization_*
// case: 2-d to 4-d input, every axis, positive and negative, epsilon);
// weights go through the weights file. Errors, in-place use, the layer an
// import of LayerNormalization emits, and thread-count independence.
#include "runtime/layers/layer_norm.h"

#include <gtest/gtest.h>

#include <cmath>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;
using test::WeightInit;

// Mean and variance in double, output rounded once: within 1e-5 absolute +
// 1e-5 relative (the ONNX reference itself is computed in float).
constexpr double kAtol = 1e-5, kRtol = 1e-5;

// The weights flattened to one row.
WeightInit Row(const std::string& blob, const test::OnnxTensor& t) {
  return {blob, {static_cast<int>(t.Count())}, t.values};
}

TEST(LayerNormLayer, MatchesOnnxCases) {
  struct Case {
    std::string name;
    int axis;
    double eps;
  };
  const double e = 0.10000000149011612;
  for (const Case& c :
       {Case{"2d_axis0", 0, 1e-5}, Case{"2d_axis1", 1, 1e-5}, Case{"2d_axis_negative_1", -1, 1e-5},
        Case{"2d_axis_negative_2", -2, 1e-5}, Case{"3d_axis0_epsilon", 0, e},
        Case{"3d_axis1_epsilon", 1, e}, Case{"3d_axis2_epsilon", 2, e},
        Case{"3d_axis_negative_1_epsilon", -1, e}, Case{"3d_axis_negative_2_epsilon", -2, e},
        Case{"3d_axis_negative_3_epsilon", -3, e}, Case{"4d_axis0", 0, 1e-5},
        Case{"4d_axis1", 1, 1e-5}, Case{"4d_axis2", 2, 1e-5}, Case{"4d_axis3", 3, 1e-5},
        Case{"4d_axis_negative_1", -1, 1e-5}, Case{"4d_axis_negative_2", -2, 1e-5},
        Case{"4d_axis_negative_3", -3, 1e-5}, Case{"4d_axis_negative_4", -4, 1e-5},
        Case{"default_axis", -1, 1e-5}}) {
    const std::string name = "test_layer_normalization_" + c.name;
    SCOPED_TRACE(name);
    auto in = [&](int i) { return test::OnnxData("node", name, "input_" + std::to_string(i)); };
    const Tensor got = test::RunLayer("LayerNorm", {{"axis", c.axis}, {"eps", c.eps}},
                                      {test::ToTensor(in(0))}, {Row("scale", in(1)), Row("bias", in(2))});
    const test::OnnxTensor want = test::OnnxData("node", name, "output_0");
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

TEST(LayerNormLayer, HandComputedWithoutBias) {
  // Rows [1, 2, 3] and [4, 4, 4]: mean 2, variance 2/3; a constant row has
  // variance 0 and gives 0 (times the scale).
  const Tensor x{{2, 3}, {1, 2, 3, 4, 4, 4}};
  const Tensor got = test::RunLayer("LayerNorm", {{"eps", 0.0}, {"bias_term", false}}, {x},
                                    {{"scale", {3}, {1.0f, 2.0f, -1.0f}}});
  const float s = static_cast<float>(1.0 / std::sqrt(2.0 / 3.0));
  EXPECT_EQ(got.values[0], -s);
  EXPECT_EQ(got.values[1], 0.0f);
  EXPECT_EQ(got.values[2], -s);
  EXPECT_TRUE(std::isnan(got.values[3]));  // 0 / sqrt(0 + 0)
}

TEST(LayerNormLayer, WeightsAndErrors) {
  auto net = test::OneLayerNet("LayerNorm", {{"axis", 1}}, {{2, 3, 4}},
                               {{"scale", {12}, std::vector<float>(12, 1.0f)},
                                {"bias", {12}, std::vector<float>(12, 0.0f)}})
                 .Build();
  auto* l = dynamic_cast<LayerNormLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->Eps(), 1e-5f);
  EXPECT_EQ(l->GetWeights()[0]->GetDims(), (std::vector<int>{12}));
  const std::string prefix = "net description: layer \"l\" (LayerNorm): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LayerNorm", {{"axis", 3}}, {{2, 3, 4}})),
            prefix + "param \"axis\" 3 is out of range for input \"x0\" of shape [2, 3, 4]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LayerNorm", {{"eps", -1}}, {{2, 3}})),
            prefix + "param \"eps\" must be a finite number >= 0, got -1.000000");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LayerNorm", {}, {{2, 3}}, {{"scale", {3}, {1, 1, 1}}})),
            "weights: layer \"l\": blob \"bias\" is missing (expected shape [3])");
  test::ExpectBadParamsHandled("LayerNorm", {{"axis", -2}}, {{2, 3, 4}},
                               {{"scale", {12}, std::vector<float>(12, 1.0f)},
                                {"bias", {12}, std::vector<float>(12, 0.5f)}});
}

TEST(LayerNormLayer, InPlaceAndThreadIndependent) {
  const std::vector<WeightInit> w = {{"scale", {60}, test::RandomVector(60, 81, 0.5f, 2.0f)},
                                     {"bias", {60}, test::RandomVector(60, 82)}};
  test::ExpectInPlaceSame("LayerNorm", {}, {test::RandomTensor({4, 7, 60}, 83)}, w);
  test::ExpectThreadIndependent("LayerNorm", {}, {test::RandomTensor({64, 50, 60}, 84, -4.0f, 4.0f)},
                                w);
}

}  // namespace
}  // namespace qzdl
