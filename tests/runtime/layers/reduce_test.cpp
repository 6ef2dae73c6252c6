// ReduceMean, Reduce and ReduceArgs against the ONNX node data
// (test_reduce_{mean,max,min,prod}_*, the cases with constant axes;
// test_arg{max,min}_*) and the fixtures of
// scripts/fixtures/make_extra_fixtures.py (several and non-neighbouring
// axes); shapes, errors and thread-count independence.
#include "runtime/layers/reduce.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

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

TEST(ReduceLayer, MatchesOnnxCases) {
  // Max and min select values: exact; products in double, rounded once.
  for (const std::string op : {"max", "min", "prod"}) {
    for (const std::string form : {"do_not_keepdims_example", "do_not_keepdims_random",
                                   "keepdims_example", "keepdims_random",
                                   "negative_axes_keepdims_example",
                                   "negative_axes_keepdims_random"}) {
      const std::string name = "test_reduce_" + op + "_" + form;
      SCOPED_TRACE(name);
      const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
      const test::OnnxTensor axes = test::OnnxData("node", name, "input_1");
      const bool keep = form.find("do_not_keepdims") == std::string::npos;
      const Tensor got = test::RunLayer(
          "Reduce", {{"operation", op}, {"axes", IntArray(axes.ints)}, {"keepdims", keep}}, {x});
      const test::OnnxTensor want = test::OnnxData("node", name, "output_0");
      EXPECT_EQ(got.dims, want.IntDims());
      if (op == "prod") {
        EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
      } else {
        EXPECT_EQ(got.values, want.values);
      }
    }
  }
}

TEST(ReduceLayer, SumMeanAndNaN) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Tensor x{{2, 3}, {1, 2, 4, -1, nan, 0.5f}};
  const Json::array axis1{1};
  EXPECT_EQ(test::RunLayer("Reduce", {{"operation", "sum"}, {"axes", axis1}}, {x}).values[0], 7.0f);
  EXPECT_EQ(test::RunLayer("Reduce", {{"operation", "mean"}, {"axes", axis1}}, {x}).values[0],
            7.0f / 3.0f);
  EXPECT_EQ(test::RunLayer("Reduce", {{"operation", "prod"}, {"axes", axis1}}, {x}).values[0],
            8.0f);
  for (const std::string op : {"max", "min"}) {
    const Tensor got = test::RunLayer("Reduce", {{"operation", op}, {"axes", axis1}}, {x});
    EXPECT_EQ(got.values[0], op == "max" ? 4.0f : 1.0f);
    EXPECT_TRUE(std::isnan(got.values[1])) << op;  // a NaN among the values
  }
  // The innermost axis kept: blocks of outputs gather rows.
  const Tensor got = test::RunLayer("Reduce", {{"operation", "max"}, {"axes", Json::array{0}}}, {x});
  EXPECT_EQ(got.dims, (std::vector<int>{1, 3}));
  EXPECT_EQ(got.values[0], 1.0f);
  EXPECT_TRUE(std::isnan(got.values[1]));
  EXPECT_EQ(got.values[2], 4.0f);
}

TEST(ReduceLayer, TypeDetailAndErrors) {
  for (const std::string op : {"sum", "mean", "max", "min", "prod"}) {
    auto net = test::OneLayerNet("Reduce", {{"operation", op}}, {{2, 3}}).Build();
    EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "Reduce(" + op + ")");
  }
  auto net = test::OneLayerNet("ReduceMean", {}, {{2, 3}}).Build();
  EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "ReduceMean");
  const std::string prefix = "net description: layer \"l\" (Reduce): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Reduce", {}, {{2, 3}})),
            prefix + "missing param \"operation\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Reduce", {{"operation", "any"}}, {{2, 3}})),
            prefix +
                "param \"operation\" is \"any\", expected one of \"sum\", \"mean\", \"max\", "
                "\"min\", \"prod\"");
  test::ExpectBadParamsHandled("Reduce", {{"operation", "max"}, {"axes", Json::array{1}}},
                               {{2, 3, 4}});
}

TEST(ReduceLayer, SameBitsWithOneOrTwoThreads) {
  const Tensor x = test::RandomTensor({4, 16, 48, 40}, 73, -3.0f, 3.0f);
  for (const std::string op : {"max", "prod"}) {
    for (const Json::array& axes : {Json::array{2, 3}, Json::array{1}, Json::array{0, 2}}) {
      SCOPED_TRACE(op + " " + Json(axes).dump());
      test::ExpectThreadIndependent("Reduce", {{"operation", op}, {"axes", axes}}, {x});
    }
  }
}

TEST(ReduceArgsLayer, MatchesOnnxCases) {
  struct Form {
    std::string name;
    int axis;
    bool keepdims;
  };
  for (const std::string op : {"argmax", "argmin"}) {
    for (const Form& f : {Form{"default_axis", 0, true}, Form{"keepdims", 1, true},
                          Form{"negative_axis_keepdims", -1, true},
                          Form{"no_keepdims", 1, false}}) {
      for (const std::string kind : {"example", "random"}) {
        for (bool last : {false, true}) {
          const std::string name = "test_" + op + "_" + f.name + "_" + kind +
                                   (last ? "_select_last_index" : "");
          SCOPED_TRACE(name);
          const Tensor x = test::ToTensor(test::OnnxData("node", name, "input_0"));
          const Tensor got = test::RunLayer("ReduceArgs",
                                            {{"operation", op},
                                             {"axis", f.axis},
                                             {"keepdims", f.keepdims},
                                             {"select_last_index", last}},
                                            {x});
          const test::OnnxTensor want = test::OnnxData("node", name, "output_0");
          EXPECT_EQ(got.dims, want.IntDims());
          EXPECT_EQ(got.values, want.values);
        }
      }
    }
  }
}

TEST(ReduceArgsLayer, TiesNaNAndErrors) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Tensor x{{3, 4}, {3, 1, 3, 1, nan, 5, 2, 5, 4, nan, 0, nan}};
  auto run = [&](const std::string& op, bool last) {
    return test::RunLayer(
               "ReduceArgs",
               {{"operation", op}, {"axis", 1}, {"keepdims", false}, {"select_last_index", last}},
               {x})
        .values;
  };
  // Ties pick the first or the last index; a NaN wins, the first one.
  EXPECT_EQ(run("argmax", false), (std::vector<float>{0, 0, 1}));
  EXPECT_EQ(run("argmax", true), (std::vector<float>{2, 0, 1}));
  EXPECT_EQ(run("argmin", false), (std::vector<float>{1, 0, 1}));
  EXPECT_EQ(run("argmin", true), (std::vector<float>{3, 0, 1}));
  auto net = test::OneLayerNet("ReduceArgs", {{"operation", "argmin"}}, {{2, 3}}).Build();
  EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "ReduceArgs(argmin)");
  const std::string prefix = "net description: layer \"l\" (ReduceArgs): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ReduceArgs", {{"axis", 1}}, {{2, 3}})),
            prefix + "missing param \"operation\"");
  EXPECT_EQ(test::BuildError(
                test::OneLayerNet("ReduceArgs", {{"operation", "argmax"}, {"axis", 2}}, {{2, 3}})),
            prefix + "param \"axis\" 2 is out of range for input \"x0\" of shape [2, 3]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet(
                "ReduceArgs", {{"operation", "argmax"}, {"keepdims", false}}, {{5}})),
            prefix +
                "reducing the only axis of input \"x0\" of shape [5] without keepdims leaves no "
                "axis; set keepdims");
  test::ExpectBadParamsHandled("ReduceArgs", {{"operation", "argmax"}, {"axis", 1}}, {{2, 3, 4}});
}

}  // namespace
}  // namespace qzdl
