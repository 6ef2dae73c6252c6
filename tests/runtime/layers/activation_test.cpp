// Activations against the ONNX node and PyTorch-converted test data and the
// fixtures of scripts/fixtures/make_elementwise_fixtures.py (ReLUX, smooth
// Swish with beta, hard Swish), plus accessors, in-place use and thread-count
// independence.
#include "runtime/layers/activation.h"

#include <gtest/gtest.h>

#include <limits>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;
using test::WeightInit;

// ReLU, ReLUX, LeakyRelu and PReLU select or make one product: exact.
// Elu, Sigmoid, TanH and Swish go through exp/tanh of the C library:
// within 1e-6 absolute + 1e-5 relative.
constexpr double kTransAtol = 1e-6, kTransRtol = 1e-5;

struct ActCase {
  std::string group;
  std::string name;
  std::string type;
  Json::object param;
  bool exact;
};

std::vector<ActCase> OnnxActivationCases() {
  return {
      {"node", "test_relu", "ReLU", {}, true},
      {"node", "test_leakyrelu", "LeakyRelu", {{"negative_slope", 0.1}}, true},
      {"node", "test_leakyrelu_default", "LeakyRelu", {}, true},
      {"node", "test_leakyrelu_example", "LeakyRelu", {{"negative_slope", 0.1}}, true},
      {"node", "test_elu", "Elu", {{"alpha", 2.0}}, false},
      {"node", "test_elu_default", "Elu", {}, false},
      {"node", "test_elu_example", "Elu", {{"alpha", 2.0}}, false},
      {"node", "test_sigmoid", "Sigmoid", {}, false},
      {"node", "test_sigmoid_example", "Sigmoid", {}, false},
      {"node", "test_tanh", "TanH", {}, false},
      {"node", "test_tanh_example", "TanH", {}, false},
      {"node", "test_hardswish", "Swish", {{"hard", true}}, false},
      {"node", "test_swish", "Swish", {}, false},
      {"pytorch-converted", "test_ReLU", "ReLU", {}, true},
      {"pytorch-converted", "test_LeakyReLU", "LeakyRelu", {{"negative_slope", 0.01}}, true},
      {"pytorch-converted",
       "test_LeakyReLU_with_negval",
       "LeakyRelu",
       {{"negative_slope", 0.5}},
       true},
      {"pytorch-converted", "test_ELU", "Elu", {{"alpha", 2.0}}, false},
      {"pytorch-converted", "test_Sigmoid", "Sigmoid", {}, false},
      {"pytorch-converted", "test_Tanh", "TanH", {}, false},
  };
}

void ExpectClose(const Tensor& got, const test::OnnxTensor& want, bool exact) {
  EXPECT_EQ(got.dims, want.IntDims());
  if (exact) {
    EXPECT_EQ(got.values, want.values);
  } else {
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kTransAtol, kTransRtol), 1.0);
  }
}

TEST(ActivationLayers, MatchOnnxCases) {
  for (const ActCase& c : OnnxActivationCases()) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData(c.group, c.name, "input_0"));
    ExpectClose(test::RunLayer(c.type, c.param, {x}), test::OnnxData(c.group, c.name, "output_0"),
                c.exact);
  }
}

TEST(ActivationLayers, PReluMatchesOnnxCases) {
  // ONNX PRelu broadcasts the slope from the right. Seen as [12, 5] (and
  // [1, 60]) the data have the slope on axis 1, which is our channel axis.
  struct Case {
    std::string name;
    std::vector<int> as_dims;
  };
  for (const Case& c :
       {Case{"test_prelu_broadcast", {12, 5}}, Case{"test_prelu_example", {1, 60}}}) {
    SCOPED_TRACE(c.name);
    Tensor x = test::ToTensor(test::OnnxData("node", c.name, "input_0"));
    const test::OnnxTensor slope = test::OnnxData("node", c.name, "input_1");
    const test::OnnxTensor want = test::OnnxData("node", c.name, "output_0");
    x.dims = c.as_dims;
    const Tensor got = test::RunLayer("PReLU", {}, {x}, {{"slope", {c.as_dims[1]}, slope.values}});
    EXPECT_EQ(got.values, want.values);
  }
}

TEST(ActivationLayers, PReluMatchesPyTorchCases) {
  for (const std::string name : {"PReLU_1d", "PReLU_1d_multiparam", "PReLU_2d",
                                 "PReLU_2d_multiparam", "PReLU_3d", "PReLU_3d_multiparam"}) {
    SCOPED_TRACE(name);
    const Tensor x = test::ToTensor(test::OnnxData("pytorch-converted", "test_" + name, "input_0"));
    const test::OnnxTensor slope = test::Fixture("activation", name + "_slope");
    const bool shared = slope.Count() == 1;
    const Tensor got = test::RunLayer("PReLU", {{"channel_shared", shared}}, {x},
                                      {{"slope", slope.IntDims(), slope.values}});
    ExpectClose(got, test::OnnxData("pytorch-converted", "test_" + name, "output_0"), true);
  }
}

TEST(ActivationLayers, MatchFixtures) {
  const Tensor relux_x = test::ToTensor(test::Fixture("activation", "relux_x"));
  ExpectClose(test::RunLayer("ReLUX", {{"threshold", 6.0}}, {relux_x}),
              test::Fixture("activation", "relux_t6_y"), true);
  ExpectClose(test::RunLayer("ReLUX", {{"threshold", 0.75}}, {relux_x}),
              test::Fixture("activation", "relux_t0p75_y"), true);

  const Tensor swish_x = test::ToTensor(test::Fixture("activation", "swish_x"));
  ExpectClose(test::RunLayer("Swish", {}, {swish_x}), test::Fixture("activation", "swish_beta1_y"),
              false);
  ExpectClose(test::RunLayer("Swish", {{"beta", 1.7}}, {swish_x}),
              test::Fixture("activation", "swish_beta1p7_y"), false);
  ExpectClose(test::RunLayer("Swish", {{"hard", true}}, {swish_x}),
              test::Fixture("activation", "hardswish_y"), false);
}

TEST(ActivationLayers, ExactValuesAtTheBends) {
  const Tensor x{{1, 7}, {-4.0f, -3.0f, -1.5f, 0.0f, 1.5f, 3.0f, 4.0f}};
  EXPECT_EQ(test::RunLayer("ReLUX", {{"threshold", 1.5}}, {x}).values,
            (std::vector<float>{0, 0, 0, 0, 1.5f, 1.5f, 1.5f}));
  EXPECT_EQ(test::RunLayer("Swish", {{"hard", true}}, {x}).values,
            (std::vector<float>{-0.0f, -0.0f, -0.375f, 0.0f, 1.125f, 3.0f, 4.0f}));
  EXPECT_EQ(test::RunLayer("LeakyRelu", {}, {x}).values,
            (std::vector<float>{-4.0f * 0.01f, -3.0f * 0.01f, -1.5f * 0.01f, 0, 1.5f, 3, 4}));
  EXPECT_EQ(test::RunLayer("Elu", {{"alpha", 0.5}}, {x}).values[3], 0.0f);
  EXPECT_EQ(test::RunLayer("Sigmoid", {}, {x}).values[3], 0.5f);
}

// The select kernels of ReLU, LeakyRelu, PReLU and ReLUX against the plain
// element formulas, bit for bit, on special values: signed zeros, infinities,
// NaN, subnormals and the threshold itself, over a tensor long enough for the
// vector loops and their remainders.
TEST(ActivationLayers, SelectKernelsKeepEveryBit) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float sub = std::numeric_limits<float>::denorm_min();
  const std::vector<float> special = {0.0f, -0.0f, inf,  -inf, nan,   -nan,   sub,  -sub,
                                      6.0f, -6.0f, 5.9f, 6.1f, 1e38f, -1e38f, 1.0f, -1.0f};
  Tensor x{{3, 37}, {}};
  for (int k = 0; k < 3 * 37; ++k) x.values.push_back(special[k % special.size()] * (k % 3 + 1));
  for (float slope : {0.0f, 0.01f, -0.5f}) {
    std::vector<float> want;
    for (float v : x.values) want.push_back(v > 0.0f ? v : v * slope);
    const char* type = slope == 0.0f ? "ReLU" : "LeakyRelu";
    EXPECT_EQ(test::Bits(test::RunLayer(type, {{"negative_slope", slope}}, {x}).values),
              test::Bits(want))
        << type << " " << slope;
    EXPECT_EQ(test::Bits(test::RunLayer("PReLU", {{"channel_shared", true}}, {x},
                                        {{"slope", {1}, {slope}}})
                             .values),
              test::Bits(want))
        << "PReLU " << slope;
  }
  std::vector<float> want;
  for (float v : x.values)
    want.push_back(v > 0.0f ? (v < 6.0f ? v : 6.0f) : (v <= 0.0f ? 0.0f : v));
  EXPECT_EQ(test::Bits(test::RunLayer("ReLUX", {{"threshold", 6.0}}, {x}).values),
            test::Bits(want));
}

TEST(ActivationLayers, Accessors) {
  auto relux = test::OneLayerNet("ReLUX", {{"threshold", 6.5}}, {{1, 4}}).Build();
  auto* rx = dynamic_cast<ReluXLayer<float>*>(relux->GetLayer("l"));
  ASSERT_NE(rx, nullptr);
  EXPECT_EQ(rx->getThreshold(), 6.5f);

  auto hard = test::OneLayerNet("Swish", {{"hard", true}}, {{1, 4}}).Build();
  auto* hs = dynamic_cast<SwishLayer<float>*>(hard->GetLayer("l"));
  ASSERT_NE(hs, nullptr);
  EXPECT_TRUE(hs->Hard());

  auto smooth = test::OneLayerNet("Swish", {}, {{1, 4}}).Build();
  auto* ss = dynamic_cast<SwishLayer<float>*>(smooth->GetLayer("l"));
  ASSERT_NE(ss, nullptr);
  EXPECT_FALSE(ss->Hard());
  EXPECT_EQ(ss->Beta(), 1.0f);

  auto leaky = test::OneLayerNet("LeakyRelu", {}, {{1, 4}}).Build();
  EXPECT_EQ(dynamic_cast<LeakyReluLayer<float>*>(leaky->GetLayer("l"))->NegativeSlope(), 0.01f);
}

TEST(ActivationLayers, PReluWeightShapes) {
  auto per_channel =
      test::OneLayerNet("PReLU", {}, {{2, 3, 4}}, {{"slope", {3}, {0.1f, 0.2f, 0.3f}}}).Build();
  ASSERT_EQ(per_channel->GetLayer("l")->GetWeights().size(), 1u);
  EXPECT_EQ(per_channel->GetLayer("l")->GetWeights()[0]->GetDims(), (std::vector<int>{3}));
  auto shared =
      test::OneLayerNet("PReLU", {{"channel_shared", true}}, {{2, 3, 4}}, {{"slope", {1}, {0.25f}}})
          .Build();
  EXPECT_EQ(shared->GetLayer("l")->GetWeights()[0]->GetDims(), (std::vector<int>{1}));
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("PReLU", {}, {{2, 3, 4}}, {{"slope", {1}, {0.25f}}})),
      "weights: layer \"l\": blob \"slope\" has shape [1], expected [3]");
}

TEST(ActivationLayers, RejectsBadParams) {
  const std::string prefix = "net description: layer \"l\" (ReLUX): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ReLUX", {}, {{1, 4}})),
            prefix + "missing param \"threshold\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ReLUX", {{"threshold", 0}}, {{1, 4}})),
            prefix + "param \"threshold\" must be a finite number > 0, got 0.000000");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ReLUX", {{"threshold", -1}}, {{1, 4}})),
            prefix + "param \"threshold\" must be a finite number > 0, got -1.000000");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Swish", {{"hard", "yes"}}, {{1, 4}})),
            "net description: layer \"l\" (Swish): param \"hard\" must be true or false");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("PReLU", {}, {{6}}, {{"slope", {1}, {0.5f}}})),
            "net description: layer \"l\" (PReLU): input \"x0\" needs a channel axis (axis 1) for "
            "per-channel slopes, has shape [6]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Sigmoid", {}, {{1, 4}, {1, 4}})),
            "net description: layer \"l\" (Sigmoid): expects 1 input(s), has 2");
}

struct TypeAndParam {
  std::string type;
  Json::object param;
  std::vector<WeightInit> weights;
};

std::vector<TypeAndParam> AllActivations() {
  std::vector<float> slopes;
  for (int c = 0; c < 6; ++c) slopes.push_back(0.05f * (c + 1));
  return {
      {"ReLU", {}, {}},
      {"ReLU", {{"negative_slope", 0.2}}, {}},
      {"ReLUX", {{"threshold", 0.5}}, {}},
      {"LeakyRelu", {}, {}},
      {"PReLU", {}, {{"slope", {6}, slopes}}},
      {"PReLU", {{"channel_shared", true}}, {{"slope", {1}, {0.3f}}}},
      {"Elu", {{"alpha", 1.5}}, {}},
      {"Sigmoid", {}, {}},
      {"TanH", {}, {}},
      {"Swish", {}, {}},
      {"Swish", {{"beta", 0.8}}, {}},
      {"Swish", {{"hard", true}}, {}},
  };
}

TEST(ActivationLayers, SurviveBadParamValues) {
  for (const TypeAndParam& a : AllActivations())
    test::ExpectBadParamsHandled(a.type, a.param, {{2, 6, 3}}, a.weights);
  test::ExpectBadParamsHandled("Swish", {{"hard", false}, {"beta", 2.0}}, {{2, 6, 3}});
}

TEST(ActivationLayers, InPlaceGivesSameResult) {
  const Tensor x = test::RandomTensor({2, 6, 5, 7}, 21, -5.0f, 5.0f);
  for (const TypeAndParam& a : AllActivations()) {
    SCOPED_TRACE(a.type);
    test::ExpectInPlaceSame(a.type, a.param, {x}, a.weights);
  }
}

TEST(ActivationLayers, SameBitsWithOneOrTwoThreads) {
  // Large enough to be split over threads.
  const Tensor x = test::RandomTensor({2, 6, 64, 60}, 22, -6.0f, 6.0f);
  for (const TypeAndParam& a : AllActivations()) {
    SCOPED_TRACE(a.type);
    test::ExpectThreadIndependent(a.type, a.param, {x}, a.weights);
  }
}

}  // namespace
}  // namespace qzdl
