// InstanceNormalization against the ONNX node data (test_instancenorm_*) and
// the fixtures of scripts/fixtures/make_extra_fixtures.py (3-d and 5-d
// input); weights go through the weights file. Errors, in-place use and
// thread-count independence.
#include "runtime/layers/instance_norm.h"

#include <gtest/gtest.h>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;
using test::WeightInit;

// Mean and variance in double, output rounded once: within 1e-5 absolute +
// 1e-5 relative (the ONNX reference itself is computed in float).
constexpr double kAtol = 1e-5, kRtol = 1e-5;

WeightInit W(const std::string& blob, const test::OnnxTensor& t) {
  return {blob, t.IntDims(), t.values};
}

TEST(InstanceNormalizationLayer, MatchesOnnxCases) {
  struct Case {
    std::string name;
    double eps;
  };
  for (const Case& c : {Case{"test_instancenorm_epsilon", 0.009999999776482582},
                        Case{"test_instancenorm_example", 1e-5}}) {
    SCOPED_TRACE(c.name);
    auto in = [&](int i) { return test::OnnxData("node", c.name, "input_" + std::to_string(i)); };
    const Tensor got =
        test::RunLayer("InstanceNormalization", {{"eps", c.eps}}, {test::ToTensor(in(0))},
                       {W("scale", in(1)), W("bias", in(2))});
    const test::OnnxTensor want = test::OnnxData("node", c.name, "output_0");
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

TEST(InstanceNormalizationLayer, MatchesFixtures) {
  for (const auto& [tag, eps] : {std::pair<std::string, double>{"3d", 1e-3}, {"5d", 1e-5}}) {
    SCOPED_TRACE(tag);
    auto f = [&](const std::string& name) { return test::Fixture("instance_norm", tag + name); };
    const Tensor got =
        test::RunLayer("InstanceNormalization", {{"eps", eps}}, {test::ToTensor(f("_x"))},
                       {W("scale", f("_scale")), W("bias", f("_bias"))});
    const test::OnnxTensor want = f("_y");
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

TEST(InstanceNormalizationLayer, TwoDimensionalInputGivesTheBias) {
  // A plane of one element has variance 0: y = bias.
  const Tensor x{{2, 2}, {3.0f, -1.0f, 7.0f, 0.5f}};
  EXPECT_EQ(test::RunLayer("InstanceNormalization", {}, {x},
                           {{"scale", {2}, {2.0f, 3.0f}}, {"bias", {2}, {0.25f, -0.5f}}})
                .values,
            (std::vector<float>{0.25f, -0.5f, 0.25f, -0.5f}));
}

TEST(InstanceNormalizationLayer, WeightsAndErrors) {
  auto net = test::OneLayerNet("InstanceNormalization", {}, {{1, 3, 4}},
                               {{"scale", {3}, {1, 1, 1}}, {"bias", {3}, {0, 0, 0}}})
                 .Build();
  auto* l = dynamic_cast<InstanceNormalizationLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->Eps(), 1e-5f);
  ASSERT_EQ(l->GetWeights().size(), 2u);
  EXPECT_EQ(l->GetWeights()[1]->GetDims(), (std::vector<int>{3}));
  EXPECT_EQ(test::BuildError(test::OneLayerNet("InstanceNormalization", {}, {{1, 3, 4}},
                                               {{"scale", {3}, {1, 1, 1}}})),
            "weights: layer \"l\": blob \"bias\" is missing (expected shape [3])");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("InstanceNormalization", {{"eps", -1}}, {{1, 3, 4}})),
      "net description: layer \"l\" (InstanceNormalization): param \"eps\" must be a finite "
      "number >= 0, got -1.000000");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("InstanceNormalization", {}, {{5}})),
            "net description: layer \"l\" (InstanceNormalization): input \"x0\" needs a channel "
            "axis (axis 1), has shape [5]");
  test::ExpectBadParamsHandled("InstanceNormalization", {{"eps", 0.001}}, {{2, 3, 4}},
                               {{"scale", {3}, {1, 2, 3}}, {"bias", {3}, {0, 1, 0}}});
}

TEST(InstanceNormalizationLayer, InPlaceAndThreadIndependent) {
  const std::vector<WeightInit> w = {{"scale", {6}, test::RandomVector(6, 61, 0.5f, 2.0f)},
                                     {"bias", {6}, test::RandomVector(6, 62)}};
  test::ExpectInPlaceSame("InstanceNormalization", {}, {test::RandomTensor({2, 6, 5, 7}, 63)}, w);
  test::ExpectThreadIndependent("InstanceNormalization", {{"eps", 1e-3}},
                                {test::RandomTensor({2, 6, 64, 60}, 64, -4.0f, 4.0f)}, w);
}

}  // namespace
}  // namespace qzdl
