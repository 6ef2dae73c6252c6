// Mish, Gelu, Softplus, Selu and HardSigmoid against the ONNX node and
// PyTorch-converted test data and the fixtures of
// scripts/fixtures/make_extra_fixtures.py (a wide input range), plus type
// details, accessors, errors, in-place use and thread-count independence.
#include "runtime/layers/activation_extra.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// Mish, Gelu, Softplus and Selu go through exp/log1p/tanh/erf of the C
// library in double, rounded once: within 1e-6 absolute + 1e-5 relative.
// HardSigmoid rounds alpha * x + beta once where the ONNX reference rounds
// the product and the sum: within 1e-7 absolute + 2e-7 relative.
constexpr double kAtol = 1e-6, kRtol = 1e-5;
constexpr double kHardAtol = 1e-7, kHardRtol = 2e-7;

struct Case {
  std::string group;
  std::string name;
  std::string type;
  Json::object param;
  bool hard;  // HardSigmoid's tighter tolerance
};

std::vector<Case> OnnxCases() {
  return {
      {"node", "test_mish", "Mish", {}, false},
      {"node", "test_gelu_default_1", "Gelu", {}, false},
      {"node", "test_gelu_default_2", "Gelu", {{"approximate", "none"}}, false},
      {"node", "test_gelu_tanh_1", "Gelu", {{"approximate", "tanh"}}, false},
      {"node", "test_gelu_tanh_2", "Gelu", {{"approximate", "tanh"}}, false},
      {"node", "test_softplus", "Softplus", {}, false},
      {"node", "test_softplus_example", "Softplus", {}, false},
      {"node", "test_selu", "Selu", {{"alpha", 2.0}, {"gamma", 3.0}}, false},
      {"node", "test_selu_default", "Selu", {}, false},
      {"node", "test_selu_example", "Selu", {{"alpha", 2.0}, {"gamma", 3.0}}, false},
      {"node", "test_hardsigmoid", "HardSigmoid", {{"alpha", 0.5}, {"beta", 0.6}}, true},
      {"node", "test_hardsigmoid_default", "HardSigmoid", {}, true},
      {"node", "test_hardsigmoid_example", "HardSigmoid", {{"alpha", 0.5}, {"beta", 0.6}}, true},
      {"pytorch-converted", "test_Softplus", "Softplus", {}, false},
      {"pytorch-converted", "test_SELU", "Selu", {}, false},
  };
}

void ExpectClose(const Tensor& got, const test::OnnxTensor& want, bool hard) {
  EXPECT_EQ(got.dims, want.IntDims());
  EXPECT_LE(test::ToleranceRatio(got.values, want.values, hard ? kHardAtol : kAtol,
                                 hard ? kHardRtol : kRtol),
            1.0);
}

TEST(ActivationExtraLayers, MatchOnnxCases) {
  for (const Case& c : OnnxCases()) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData(c.group, c.name, "input_0"));
    ExpectClose(test::RunLayer(c.type, c.param, {x}), test::OnnxData(c.group, c.name, "output_0"),
                c.hard);
  }
}

TEST(ActivationExtraLayers, MatchFixturesOverAWideRange) {
  const Tensor x = test::ToTensor(test::Fixture("activation_extra", "wide_x"));
  ExpectClose(test::RunLayer("Mish", {}, {x}), test::Fixture("activation_extra", "mish_y"), false);
  ExpectClose(test::RunLayer("Softplus", {}, {x}), test::Fixture("activation_extra", "softplus_y"),
              false);
  ExpectClose(test::RunLayer("Gelu", {}, {x}), test::Fixture("activation_extra", "gelu_y"), false);
  ExpectClose(test::RunLayer("Gelu", {{"approximate", "tanh"}}, {x}),
              test::Fixture("activation_extra", "gelu_tanh_y"), false);
}

TEST(ActivationExtraLayers, ValuesAtTheEdges) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Tensor x{{1, 6}, {-inf, -200.0f, 0.0f, 200.0f, inf, nan}};
  const Tensor softplus = test::RunLayer("Softplus", {}, {x});
  EXPECT_EQ(softplus.values[0], 0.0f);
  EXPECT_EQ(softplus.values[1], 0.0f);
  EXPECT_EQ(softplus.values[2], std::log(2.0f));
  EXPECT_EQ(softplus.values[3], 200.0f);
  EXPECT_EQ(softplus.values[4], inf);
  EXPECT_TRUE(std::isnan(softplus.values[5]));
  const Tensor mish = test::RunLayer("Mish", {}, {x});
  EXPECT_EQ(mish.values[2], 0.0f);
  EXPECT_EQ(mish.values[3], 200.0f);
  EXPECT_TRUE(std::isnan(mish.values[5]));
  const Tensor hs = test::RunLayer("HardSigmoid", {}, {x});
  EXPECT_EQ(std::vector<float>(hs.values.begin(), hs.values.begin() + 5),
            (std::vector<float>{0.0f, 0.0f, 0.5f, 1.0f, 1.0f}));
  EXPECT_TRUE(std::isnan(hs.values[5]));
  const Tensor selu = test::RunLayer("Selu", {{"alpha", 1.5}, {"gamma", 2.0}}, {x});
  EXPECT_EQ(selu.values[0], -3.0f);
  EXPECT_EQ(selu.values[2], 0.0f);
  EXPECT_EQ(selu.values[3], 400.0f);
  const Tensor gelu = test::RunLayer("Gelu", {}, {x});
  EXPECT_EQ(gelu.values[1], -0.0f);
  EXPECT_EQ(gelu.values[3], 200.0f);
}

TEST(ActivationExtraLayers, TypeDetailAndAccessors) {
  auto exact = test::OneLayerNet("Gelu", {}, {{1, 4}}).Build();
  auto* g = dynamic_cast<GeluLayer<float>*>(exact->GetLayer("l"));
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->GetTypeDetail(), "Gelu(none)");
  EXPECT_FALSE(g->TanhApproximation());
  auto tanh = test::OneLayerNet("Gelu", {{"approximate", "tanh"}}, {{1, 4}}).Build();
  EXPECT_EQ(tanh->GetLayer("l")->GetTypeDetail(), "Gelu(tanh)");
  EXPECT_EQ(test::OneLayerNet("Mish", {}, {{1, 4}}).Build()->GetLayer("l")->GetTypeDetail(),
            "Mish");

  auto selu = test::OneLayerNet("Selu", {}, {{1, 4}}).Build();
  auto* s = dynamic_cast<SeluLayer<float>*>(selu->GetLayer("l"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->Alpha(), 1.67326319217681884765625f);
  EXPECT_EQ(s->Gamma(), 1.05070102214813232421875f);
  auto hs = test::OneLayerNet("HardSigmoid", {}, {{1, 4}}).Build();
  auto* h = dynamic_cast<HardSigmoidLayer<float>*>(hs->GetLayer("l"));
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->Alpha(), 0.2f);
  EXPECT_EQ(h->Beta(), 0.5f);
}

TEST(ActivationExtraLayers, RejectsBadParams) {
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gelu", {{"approximate", "erf"}}, {{1, 4}})),
            "net description: layer \"l\" (Gelu): param \"approximate\" is \"erf\", expected one "
            "of \"none\", \"tanh\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Selu", {{"gamma", "big"}}, {{1, 4}})),
            "net description: layer \"l\" (Selu): param \"gamma\" must be a number");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("HardSigmoid", {{"alpha", 1e300}}, {{1, 4}})),
            "net description: layer \"l\" (HardSigmoid): param \"alpha\" must be a finite number");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Mish", {}, {{1, 4}, {1, 4}})),
            "net description: layer \"l\" (Mish): expects 1 input(s), has 2");
}

struct TypeAndParam {
  std::string type;
  Json::object param;
};

std::vector<TypeAndParam> AllTypes() {
  return {
      {"Mish", {}},
      {"Gelu", {}},
      {"Gelu", {{"approximate", "tanh"}}},
      {"Softplus", {}},
      {"Selu", {}},
      {"Selu", {{"alpha", 2.0}, {"gamma", 3.0}}},
      {"HardSigmoid", {{"alpha", 0.3}, {"beta", 0.4}}},
  };
}

TEST(ActivationExtraLayers, SurviveBadParamValues) {
  for (const TypeAndParam& a : AllTypes()) test::ExpectBadParamsHandled(a.type, a.param, {{2, 6}});
}

TEST(ActivationExtraLayers, InPlaceGivesSameResult) {
  const Tensor x = test::RandomTensor({2, 6, 5, 7}, 31, -6.0f, 6.0f);
  for (const TypeAndParam& a : AllTypes()) {
    SCOPED_TRACE(a.type);
    test::ExpectInPlaceSame(a.type, a.param, {x});
  }
}

TEST(ActivationExtraLayers, SameBitsWithOneOrTwoThreads) {
  const Tensor x = test::RandomTensor({2, 6, 64, 60}, 32, -6.0f, 6.0f);
  for (const TypeAndParam& a : AllTypes()) {
    SCOPED_TRACE(a.type);
    test::ExpectThreadIndependent(a.type, a.param, {x});
  }
}

}  // namespace
}  // namespace qzdl
