// ReduceMean against the ONNX node data (test_reduce_mean_*, the cases with
// constant axes) and the fixtures of scripts/fixtures/make_extra_fixtures.py
// (several and non-neighbouring axes); shapes, errors and thread-count
// independence.
#include "runtime/layers/reduce.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// Sums in double, one division: within 1e-6 absolute + 1e-6 relative.
constexpr double kAtol = 1e-6, kRtol = 1e-6;

// ONNX int64 operands as a JSON array of ints, clamped to the int range as
// an importer passes them.
Json::array IntArray(const std::vector<int64_t>& v) {
  Json::array a;
  for (int64_t i : v)
    a.push_back(static_cast<int>(std::min<int64_t>(std::max<int64_t>(i, INT_MIN), INT_MAX)));
  return a;
}

void ExpectClose(const Tensor& got, const test::OnnxTensor& want) {
  EXPECT_EQ(got.dims, want.IntDims());
  EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
}

TEST(ReduceMeanLayer, MatchesOnnxCases) {
  for (const std::string name :
       {"test_reduce_mean_default_axes_keepdims_example",
        "test_reduce_mean_default_axes_keepdims_random", "test_reduce_mean_do_not_keepdims_example",
        "test_reduce_mean_do_not_keepdims_random", "test_reduce_mean_keepdims_example",
        "test_reduce_mean_keepdims_random", "test_reduce_mean_negative_axes_keepdims_example",
        "test_reduce_mean_negative_axes_keepdims_random"}) {
    SCOPED_TRACE(name);
    const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
    const test::OnnxTensor axes = test::OnnxData("node", name, "input_1");
    const bool keep = name.find("do_not_keepdims") == std::string::npos;
    ExpectClose(
        test::RunLayer("ReduceMean", {{"axes", IntArray(axes.ints)}, {"keepdims", keep}}, {x}),
        test::OnnxData("node", name, "output_0"));
  }
}

TEST(ReduceMeanLayer, MatchesFixtures) {
  const Tensor x = test::ToTensor(test::Fixture("reduce", "x"));
  struct Case {
    Json::object param;
    std::string want;
  };
  for (const Case& c : {
           Case{{{"axes", Json::array{2, 3}}, {"keepdims", false}}, "axes23_y"},
           Case{{{"axes", Json::array{0, -2}}}, "axes02_keep_y"},
           Case{{{"axes", Json::array{3, 1}}, {"keepdims", false}}, "axes13_y"},
           Case{{{"axes", Json::array{1}}, {"keepdims", true}}, "axis1_keep_y"},
           Case{{}, "all_keep_y"},
           Case{{{"axes", Json::array{}}}, "all_keep_y"},
       }) {
    SCOPED_TRACE(c.want);
    ExpectClose(test::RunLayer("ReduceMean", c.param, {x}), test::Fixture("reduce", c.want));
  }
}

TEST(ReduceMeanLayer, SizeOneAxesAndAccessors) {
  const Tensor x = test::RandomTensor({2, 1, 3}, 71);
  const Tensor got =
      test::RunLayer("ReduceMean", {{"axes", Json::array{1}}, {"keepdims", false}}, {x});
  EXPECT_EQ(got.dims, (std::vector<int>{2, 3}));
  EXPECT_EQ(got.values, x.values);
  auto net = test::OneLayerNet("ReduceMean", {{"axes", Json::array{-1}}}, {{2, 3}}).Build();
  auto* l = dynamic_cast<ReduceMeanLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(l, nullptr);
  EXPECT_TRUE(l->KeepDims());
  EXPECT_EQ(l->Axes(), (std::vector<int>{-1}));
}

TEST(ReduceMeanLayer, RejectsBadParams) {
  const std::string prefix = "net description: layer \"l\" (ReduceMean): ";
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("ReduceMean", {{"axes", Json::array{3}}}, {{2, 3, 4}})),
      prefix + "param \"axes\" [3]: axis 3 is out of range for input \"x0\" of shape [2, 3, 4]");
  EXPECT_EQ(test::BuildError(
                test::OneLayerNet("ReduceMean", {{"axes", Json::array{1, -2}}}, {{2, 3, 4}})),
            prefix + "param \"axes\" [1, -2] names axis 1 twice");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ReduceMean", {{"keepdims", false}}, {{2, 3}})),
            prefix +
                "reducing every axis of input \"x0\" of shape [2, 3] without keepdims leaves "
                "no axis; set keepdims or keep an axis");
  test::ExpectBadParamsHandled("ReduceMean", {{"axes", Json::array{1}}, {"keepdims", false}},
                               {{2, 3, 4}});
}

TEST(ReduceMeanLayer, SameBitsWithOneOrTwoThreads) {
  const Tensor x = test::RandomTensor({4, 16, 48, 40}, 72, -3.0f, 3.0f);
  for (const Json::array& axes :
       {Json::array{2, 3}, Json::array{1}, Json::array{0, 2}, Json::array{}}) {
    SCOPED_TRACE(Json(axes).dump());
    test::ExpectThreadIndependent("ReduceMean", {{"axes", axes}}, {x});
  }
}

}  // namespace
}  // namespace qzdl
