// UnaryOp, Power and Clip against the ONNX node data (test_abs ... test_round,
// test_pow_bcast_scalar, test_clip*) and the fixtures of
// scripts/fixtures/make_extra_fixtures.py (rsqrt, square, Power with scale
// and shift); type details, errors, in-place use and thread-count
// independence.
#include "runtime/layers/math.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// exp, log, rsqrt, erf, sin, cos and fractional powers: evaluated in double
// and rounded once, within 1e-6 absolute + 1e-5 relative of the reference.
// The rest (abs, neg, sqrt, reciprocal, floor, ceil, square, sign, round,
// integer powers, clip) are exact.
constexpr double kAtol = 1e-6, kRtol = 1e-5;

void ExpectClose(const Tensor& got, const test::OnnxTensor& want, bool exact) {
  EXPECT_EQ(got.dims, want.IntDims());
  if (exact) {
    EXPECT_EQ(got.values, want.values);
  } else {
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

TEST(UnaryOpLayer, MatchesOnnxCases) {
  struct Case {
    std::string name;
    std::string op;
    bool exact;
  };
  for (const Case& c : {Case{"test_abs", "abs", true},
                        Case{"test_neg", "neg", true},
                        Case{"test_neg_example", "neg", true},
                        Case{"test_exp", "exp", false},
                        Case{"test_exp_example", "exp", false},
                        Case{"test_log", "log", false},
                        Case{"test_log_example", "log", false},
                        Case{"test_sqrt", "sqrt", true},
                        Case{"test_sqrt_example", "sqrt", true},
                        Case{"test_reciprocal", "reciprocal", true},
                        Case{"test_reciprocal_example", "reciprocal", true},
                        Case{"test_floor", "floor", true},
                        Case{"test_floor_example", "floor", true},
                        Case{"test_ceil", "ceil", true},
                        Case{"test_ceil_example", "ceil", true},
                        Case{"test_erf", "erf", false},
                        Case{"test_sin", "sin", false},
                        Case{"test_sin_example", "sin", false},
                        Case{"test_cos", "cos", false},
                        Case{"test_cos_example", "cos", false},
                        Case{"test_sign", "sign", true},
                        Case{"test_round", "round", true}}) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData("node", c.name, "input_0"));
    ExpectClose(test::RunLayer("UnaryOp", {{"operation", c.op}}, {x}),
                test::OnnxData("node", c.name, "output_0"), c.exact);
  }
}

TEST(UnaryOpLayer, MatchesFixtures) {
  const Tensor x = test::ToTensor(test::Fixture("math", "power_x"));
  ExpectClose(test::RunLayer("UnaryOp", {{"operation", "rsqrt"}}, {x}),
              test::Fixture("math", "rsqrt_y"), false);
  const Tensor s = test::ToTensor(test::Fixture("math", "square_x"));
  ExpectClose(test::RunLayer("UnaryOp", {{"operation", "square"}}, {s}),
              test::Fixture("math", "square_y"), true);
}

TEST(UnaryOpLayer, SpecialValues) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Tensor x{{1, 9}, {-2.5f, -1.5f, -0.5f, 0.5f, 1.5f, 2.5f, 0.0f, -7.0f, nan}};
  const Tensor round = test::RunLayer("UnaryOp", {{"operation", "round"}}, {x});
  EXPECT_EQ(std::vector<float>(round.values.begin(), round.values.begin() + 8),
            (std::vector<float>{-2, -2, -0.0f, 0, 2, 2, 0, -7}));
  EXPECT_TRUE(std::isnan(round.values[8]));
  const Tensor sign = test::RunLayer("UnaryOp", {{"operation", "sign"}}, {x});
  EXPECT_EQ(std::vector<float>(sign.values.begin(), sign.values.begin() + 8),
            (std::vector<float>{-1, -1, -1, 1, 1, 1, 0, -1}));
  EXPECT_TRUE(std::isnan(sign.values[8]));
  const Tensor r = test::RunLayer("UnaryOp", {{"operation", "rsqrt"}}, {Tensor{{2}, {4.0f, 0.0f}}});
  EXPECT_EQ(r.values, (std::vector<float>{0.5f, std::numeric_limits<float>::infinity()}));
}

TEST(UnaryOpLayer, TypeDetailAndErrors) {
  for (const std::string op : {"abs", "neg", "exp", "log", "sqrt", "rsqrt", "reciprocal", "floor",
                               "ceil", "erf", "sin", "cos", "square", "sign", "round"}) {
    auto net = test::OneLayerNet("UnaryOp", {{"operation", op}}, {{1, 3}}).Build();
    auto* l = dynamic_cast<UnaryOpLayer<float>*>(net->GetLayer("l"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->GetTypeDetail(), "UnaryOp(" + op + ")");
    EXPECT_EQ(l->OperationName(), op);
  }
  const std::string p = "net description: layer \"l\" (UnaryOp): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("UnaryOp", {}, {{1, 3}})),
            p + "missing param \"operation\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("UnaryOp", {{"operation", "tan"}}, {{1, 3}})),
            p + "param \"operation\" is \"tan\", expected one of \"abs\", \"neg\", \"exp\", "
                "\"log\", \"sqrt\", \"rsqrt\", \"reciprocal\", \"floor\", \"ceil\", \"erf\", "
                "\"sin\", \"cos\", \"square\", \"sign\", \"round\"");
  test::ExpectBadParamsHandled("UnaryOp", {{"operation", "exp"}}, {{2, 3}});
}

TEST(PowerLayer, MatchesOnnxAndFixtures) {
  const Tensor b = test::ToTensor(test::OnnxData("node", "test_pow_bcast_scalar", "input_0"));
  const test::OnnxTensor e = test::OnnxData("node", "test_pow_bcast_scalar", "input_1");
  ExpectClose(test::RunLayer("Power", {{"power", e.values.at(0)}}, {b}),
              test::OnnxData("node", "test_pow_bcast_scalar", "output_0"), true);

  const Tensor x = test::ToTensor(test::Fixture("math", "power_x"));
  struct Case {
    Json::object param;
    std::string want;
    bool exact;
  };
  for (const Case& c : {
           Case{{{"power", 0.5}, {"scale", 2.0}, {"shift", 0.5}}, "power_p0p5_s2_t0p5_y", false},
           Case{{{"power", -1.5}, {"shift", 1.0}}, "power_pm1p5_s1_t1_y", false},
           Case{
               {{"power", 3.0}, {"scale", -0.5}, {"shift", 0.25}}, "power_p3_sm0p5_t0p25_y", false},
           Case{{{"power", 2.0}, {"scale", 1.5}, {"shift", -1.0}}, "power_p2_s1p5_tm1_y", true},
           Case{{{"scale", 3.0}, {"shift", 2.0}}, "power_p1_s3_t2_y", true},
       }) {
    SCOPED_TRACE(c.want);
    ExpectClose(test::RunLayer("Power", c.param, {x}), test::Fixture("math", c.want), c.exact);
  }
}

TEST(PowerLayer, DefaultsAreTheIdentity) {
  auto net = test::OneLayerNet("Power", {}, {{1, 3}}).Build();
  auto* l = dynamic_cast<PowerLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->Power(), 1.0f);
  EXPECT_EQ(l->Scale(), 1.0f);
  EXPECT_EQ(l->Shift(), 0.0f);
  const Tensor x = test::RandomTensor({2, 5}, 101);
  EXPECT_EQ(test::RunLayer("Power", {}, {x}).values, x.values);
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Power", {{"power", "2"}}, {{1, 3}})),
            "net description: layer \"l\" (Power): param \"power\" must be a number");
}

TEST(ClipLayer, MatchesOnnxCases) {
  for (const std::string name :
       {"test_clip", "test_clip_default_inbounds", "test_clip_default_max", "test_clip_default_min",
        "test_clip_example", "test_clip_inbounds", "test_clip_min_greater_than_max",
        "test_clip_outbounds", "test_clip_splitbounds"}) {
    SCOPED_TRACE(name);
    const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
    // The bounds are the inputs 1 (min) and 2 (max); test_clip_default_max
    // gives only max, through an empty name for min, so its one operand is max.
    Json::object param;
    std::vector<std::string> bounds = {"min", "max"};
    if (name == "test_clip_default_max") bounds = {"max"};
    for (size_t i = 0; i < bounds.size(); ++i) {
      const std::string file = "input_" + std::to_string(i + 1);
      if (!std::ifstream(test::OnnxCase("node", name) + "/test_data_set_0/" + file + ".pb").good())
        continue;
      param[bounds[i]] = test::OnnxData("node", name, file).values.at(0);
    }
    ExpectClose(test::RunLayer("Clip", param, {x}), test::OnnxData("node", name, "output_0"), true);
  }
}

TEST(ClipLayer, BoundsAndNaN) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Tensor x{{1, 4}, {-3.0f, 0.5f, 9.0f, nan}};
  const Tensor both = test::RunLayer("Clip", {{"min", -1.0}, {"max", 1.0}}, {x});
  EXPECT_EQ(std::vector<float>(both.values.begin(), both.values.begin() + 3),
            (std::vector<float>{-1.0f, 0.5f, 1.0f}));
  EXPECT_TRUE(std::isnan(both.values[3]));
  EXPECT_EQ(test::RunLayer("Clip", {{"max", 0.0}}, {x}).values[0], -3.0f);
  EXPECT_EQ(test::RunLayer("Clip", {{"min", 0.0}}, {x}).values[2], 9.0f);
  auto net = test::OneLayerNet("Clip", {{"max", 6.0}}, {{1, 3}}).Build();
  auto* l = dynamic_cast<ClipLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(l, nullptr);
  EXPECT_FALSE(l->HasMin());
  EXPECT_TRUE(l->HasMax());
  EXPECT_EQ(l->Max(), 6.0f);
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Clip", {{"min", true}}, {{1, 3}})),
            "net description: layer \"l\" (Clip): param \"min\" must be a number");
}

struct TypeAndParam {
  std::string type;
  Json::object param;
};

TEST(MathLayers, BadValuesInPlaceAndThreads) {
  const std::vector<TypeAndParam> all = {
      {"UnaryOp", {{"operation", "exp"}}},
      {"UnaryOp", {{"operation", "round"}}},
      {"UnaryOp", {{"operation", "erf"}}},
      {"Power", {{"power", 2.5}, {"scale", 0.5}, {"shift", 4.0}}},
      {"Power", {{"power", 2.0}, {"scale", -1.0}}},
      {"Clip", {{"min", -0.5}, {"max", 0.75}}},
  };
  const Tensor small = test::RandomTensor({2, 6, 5, 7}, 102, -3.0f, 3.0f);
  const Tensor big = test::RandomTensor({2, 6, 64, 60}, 103, -3.0f, 3.0f);
  for (const TypeAndParam& a : all) {
    SCOPED_TRACE(a.type + " " + Json(a.param).dump());
    test::ExpectBadParamsHandled(a.type, a.param, {{2, 3}});
    test::ExpectInPlaceSame(a.type, a.param, {small});
    test::ExpectThreadIndependent(a.type, a.param, {big});
  }
}

}  // namespace
}  // namespace qzdl
