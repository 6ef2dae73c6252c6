// Lrn against the ONNX node data (test_lrn, test_lrn_default) and the
// fixtures of scripts/fixtures/make_extra_fixtures.py (size 5, an even size,
// 3-d input); errors, staged in-place use and thread-count independence.
#include "runtime/layers/lrn.h"

#include <gtest/gtest.h>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// Window sums in double, one pow per element in double: within 1e-6
// absolute + 1e-5 relative.
constexpr double kAtol = 1e-6, kRtol = 1e-5;

void ExpectClose(const Tensor& got, const test::OnnxTensor& want) {
  EXPECT_EQ(got.dims, want.IntDims());
  EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
}

TEST(LrnLayer, MatchesOnnxCases) {
  const Tensor x = test::ToTensor(test::OnnxData("node", "test_lrn", "input_0"));
  ExpectClose(
      test::RunLayer("Lrn", {{"size", 3}, {"alpha", 0.0002}, {"beta", 0.5}, {"bias", 2.0}}, {x}),
      test::OnnxData("node", "test_lrn", "output_0"));
  const Tensor xd = test::ToTensor(test::OnnxData("node", "test_lrn_default", "input_0"));
  ExpectClose(test::RunLayer("Lrn", {{"size", 3}}, {xd}),
              test::OnnxData("node", "test_lrn_default", "output_0"));
}

TEST(LrnLayer, MatchesFixtures) {
  const Tensor x = test::ToTensor(test::Fixture("lrn", "x4d"));
  ExpectClose(
      test::RunLayer("Lrn", {{"size", 5}, {"alpha", 1e-3}, {"beta", 0.6}, {"bias", 1.5}}, {x}),
      test::Fixture("lrn", "size5_y"));
  ExpectClose(
      test::RunLayer("Lrn", {{"size", 4}, {"alpha", 0.02}, {"beta", 0.75}, {"bias", 2.0}}, {x}),
      test::Fixture("lrn", "size4_y"));
  const Tensor x3 = test::ToTensor(test::Fixture("lrn", "x3d"));
  ExpectClose(
      test::RunLayer("Lrn", {{"size", 3}, {"alpha", 0.05}, {"beta", 1.0}, {"bias", 1.0}}, {x3}),
      test::Fixture("lrn", "size3_3d_y"));
}

TEST(LrnLayer, SizeOneOnOneChannel) {
  // y = x / (1 + alpha * x^2)^beta with alpha 1, beta 1: 2 / 5.
  const Tensor x{{1, 1, 2}, {2.0f, 0.0f}};
  EXPECT_EQ(test::RunLayer("Lrn", {{"size", 1}, {"alpha", 1.0}, {"beta", 1.0}}, {x}).values,
            (std::vector<float>{0.4f, 0.0f}));
}

TEST(LrnLayer, DefaultsAndAccessors) {
  auto net = test::OneLayerNet("Lrn", {{"size", 5}}, {{1, 3, 2, 2}}).Build();
  auto* l = dynamic_cast<LrnLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->Size(), 5);
  EXPECT_EQ(l->Alpha(), 1e-4f);
  EXPECT_EQ(l->Beta(), 0.75f);
  EXPECT_EQ(l->Bias(), 1.0f);
  EXPECT_FALSE(l->InPlaceSafe());
}

TEST(LrnLayer, RejectsBadParams) {
  const std::string prefix = "net description: layer \"l\" (Lrn): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Lrn", {}, {{1, 3, 2, 2}})),
            prefix + "missing param \"size\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Lrn", {{"size", 0}}, {{1, 3, 2, 2}})),
            prefix + "param \"size\" must be at least 1, got 0");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Lrn", {{"size", 3}, {"beta", 1e100}}, {{1, 3}})),
            prefix + "param \"beta\" must be a finite number");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Lrn", {{"size", 3}}, {{6}})),
            prefix + "input \"x0\" needs a channel axis (axis 1), has shape [6]");
  test::ExpectBadParamsHandled("Lrn", {{"size", 3}, {"alpha", 0.01}, {"beta", 0.75}, {"bias", 1.0}},
                               {{2, 4, 3}});
}

TEST(LrnLayer, InPlaceIsStagedAndThreadIndependent) {
  const Json::object param = {{"size", 5}, {"alpha", 0.01}, {"beta", 0.75}, {"bias", 1.0}};
  test::ExpectInPlaceSame("Lrn", param, {test::RandomTensor({2, 9, 5, 7}, 51, -3.0f, 3.0f)});
  test::ExpectThreadIndependent("Lrn", param,
                                {test::RandomTensor({2, 16, 40, 40}, 52, -3.0f, 3.0f)});
}

}  // namespace
}  // namespace qzdl
