// Eltwise, Mean and BroadcastOp against the ONNX node and PyTorch-operator test
// data, the fixtures of scripts/fixtures/make_elementwise_fixtures.py
// (coefficients, three-input products) and plain references.
#include "runtime/layers/eltwise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// One float operation per element and input, compared with float or double
// references: within 1e-7 absolute + 1e-6 relative. Max and equal: exact.
constexpr double kAtol = 1e-7, kRtol = 1e-6;

std::vector<Tensor> OnnxInputs(const std::string& group, const std::string& name, int count) {
  std::vector<Tensor> inputs;
  for (int i = 0; i < count; ++i)
    inputs.push_back(test::ToTensor(test::OnnxData(group, name, "input_" + std::to_string(i))));
  return inputs;
}

// ---------------------------------------------------------------------------
// Eltwise

TEST(EltwiseLayer, MatchesOnnxCases) {
  struct Case {
    std::string group;
    std::string name;
    int inputs;
    std::string op;
  };
  const std::vector<Case> cases = {
      {"node", "test_sum_example", 3, "sum"}, {"node", "test_sum_two_inputs", 2, "sum"},
      {"node", "test_add", 2, "sum"},         {"node", "test_mul", 2, "prod"},
      {"node", "test_max_example", 3, "max"}, {"node", "test_max_two_inputs", 2, "max"},
      {"node", "test_max_float32", 2, "max"}, {"pytorch-operator", "test_operator_max", 2, "max"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const test::OnnxTensor want = test::OnnxData(c.group, c.name, "output_0");
    const Tensor got =
        test::RunLayer("Eltwise", {{"operation", c.op}}, OnnxInputs(c.group, c.name, c.inputs));
    EXPECT_EQ(got.dims, want.IntDims());
    if (c.op == "max") {
      EXPECT_EQ(got.values, want.values);
    } else {
      EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
    }
  }
}

TEST(EltwiseLayer, MatchesFixtures) {
  std::vector<Tensor> xs;
  for (int i = 0; i < 3; ++i)
    xs.push_back(test::ToTensor(test::Fixture("eltwise", "x" + std::to_string(i))));
  const Tensor sum = test::RunLayer(
      "Eltwise", {{"operation", "sum"}, {"coeff", Json::array{0.5, -2.0, 1.25}}}, xs);
  EXPECT_LE(test::ToleranceRatio(sum.values, test::Fixture("eltwise", "sum_coeff_y").values, kAtol,
                                 kRtol),
            1.0);
  const Tensor prod = test::RunLayer("Eltwise", {{"operation", "prod"}}, xs);
  EXPECT_LE(
      test::ToleranceRatio(prod.values, test::Fixture("eltwise", "prod3_y").values, kAtol, kRtol),
      1.0);
  const Tensor max = test::RunLayer("Eltwise", {{"operation", "max"}}, xs);
  EXPECT_EQ(max.values, test::Fixture("eltwise", "max3_y").values);
  // Default operation: sum with all coefficients 1.
  const Tensor plain = test::RunLayer("Eltwise", {}, {xs[0], xs[1]});
  for (size_t i = 0; i < plain.values.size(); ++i)
    ASSERT_EQ(plain.values[i], xs[0].values[i] + xs[1].values[i]);
}

TEST(EltwiseLayer, TypeDetail) {
  for (const std::string op : {"sum", "prod", "max"}) {
    auto net = test::OneLayerNet("Eltwise", {{"operation", op}}, {{2, 3}, {2, 3}}).Build();
    EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "Eltwise(" + op + ")");
  }
  auto net = test::OneLayerNet("Eltwise", {}, {{2, 3}, {2, 3}}).Build();
  EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "Eltwise(sum)");
}

TEST(EltwiseLayer, RejectsBadInputsAndParams) {
  const std::string prefix = "net description: layer \"l\" (Eltwise): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Eltwise", {}, {{2, 3}, {3, 2}})),
            prefix +
                "input \"x1\" has shape [3, 2], but input \"x0\" has shape [2, 3]; all inputs "
                "must have the same shape");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Eltwise", {}, {{2, 3}})),
            prefix + "expects at least 2 input(s), has 1");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Eltwise", {{"coeff", Json::array{1.0, 2.0}}},
                                               {{2, 3}, {2, 3}, {2, 3}})),
            prefix + "param \"coeff\" has 2 value(s) for 3 inputs");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet(
          "Eltwise", {{"operation", "max"}, {"coeff", Json::array{1.0, 2.0}}}, {{2, 3}, {2, 3}})),
      prefix + "param \"coeff\" applies only to operation \"sum\", not \"max\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Eltwise", {{"operation", "sub"}}, {{2}, {2}})),
            prefix + "param \"operation\" is \"sub\", expected one of \"sum\", \"prod\", \"max\"");
}

TEST(EltwiseLayer, InPlaceAndThreadCount) {
  const std::vector<Tensor> xs = {test::RandomTensor({2, 8, 40, 40}, 31),
                                  test::RandomTensor({2, 8, 40, 40}, 32),
                                  test::RandomTensor({2, 8, 40, 40}, 33)};
  const std::vector<Json::object> params = {
      {{"operation", "sum"}},
      {{"operation", "sum"}, {"coeff", Json::array{0.5, -1.5, 3.0}}},
      {{"operation", "prod"}},
      {{"operation", "max"}}};
  for (const Json::object& p : params) {
    SCOPED_TRACE(Json(p).dump());
    test::ExpectInPlaceSame("Eltwise", p, xs);
    test::ExpectThreadIndependent("Eltwise", p, xs);
  }
  // The same tensor on both inputs and as output.
  test::NetBuilder b;
  b.Input("x", {1, 4}).Layer("l", "Eltwise", {"x", "x"}, {"x"}, {{"operation", "prod"}});
  auto net = b.Build();
  std::vector<float> x = {1, -2, 3, 0.5f};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  const float* y = net->GetFloatOutputData(0);
  EXPECT_EQ(std::vector<float>(y, y + 4), (std::vector<float>{1, 4, 9, 0.25f}));
}

// ---------------------------------------------------------------------------
// Mean

// Fixtures of make_more_layer_fixtures.py: summed in input order in float32,
// divided by the count; the layer does the same, so exact.
TEST(MeanLayer, MatchesFixtures) {
  for (int count : {1, 2, 4}) {
    const std::string name = "mean" + std::to_string(count);
    SCOPED_TRACE(name);
    std::vector<Tensor> xs;
    for (int k = 0; k < count; ++k)
      xs.push_back(test::ToTensor(test::Fixture("eltwise", name + "_in" + std::to_string(k))));
    const test::OnnxTensor want = test::Fixture("eltwise", name + "_out");
    const Tensor got = test::RunLayer("Mean", {}, xs);
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_EQ(got.values, want.values);
  }
}

TEST(MeanLayer, MatchesOnnxCases) {
  for (const auto& c : std::vector<std::pair<std::string, int>>{
           {"test_mean_example", 3}, {"test_mean_one_input", 1}, {"test_mean_two_inputs", 2}}) {
    SCOPED_TRACE(c.first);
    const Tensor got = test::RunLayer("Mean", {}, OnnxInputs("node", c.first, c.second));
    const test::OnnxTensor want = test::OnnxData("node", c.first, "output_0");
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

TEST(MeanLayer, HandCaseShapeAndErrors) {
  const Tensor got = test::RunLayer(
      "Mean", {},
      {Tensor{{1, 3}, {1, 2, 3}}, Tensor{{1, 3}, {3, 4, 6}}, Tensor{{1, 3}, {2, 0, 0}}});
  EXPECT_EQ(got.dims, (std::vector<int>{1, 3}));
  EXPECT_EQ(got.values, (std::vector<float>{2, 2, 3}));
  auto net = test::OneLayerNet("Mean", {}, {{1, 2, 3}, {1, 2, 3}}).Build();
  net->ReshapeBatchNum(5, 0);
  EXPECT_EQ(net->GetData("y")->GetDims(), (std::vector<int>{5, 2, 3}));
  EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "Mean");
  const std::string prefix = "net description: layer \"l\" (Mean): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Mean", {}, {{2, 3}, {2, 3}, {2, 1}})),
            prefix +
                "input \"x2\" has shape [2, 1], but input \"x0\" has shape [2, 3]; all inputs "
                "must have the same shape (no broadcasting)");
  test::NetBuilder none;
  none.Input("x", {2, 3}).Layer("l", "Mean", {}, {"y"}, {});
  EXPECT_EQ(test::BuildError(none), prefix + "expects at least 1 input(s), has 0");
}

TEST(MeanLayer, InPlaceAndThreadCount) {
  const std::vector<Tensor> xs = {test::RandomTensor({2, 8, 40, 40}, 34),
                                  test::RandomTensor({2, 8, 40, 40}, 35),
                                  test::RandomTensor({2, 8, 40, 40}, 36)};
  test::ExpectInPlaceSame("Mean", {}, xs);
  test::ExpectThreadIndependent("Mean", {}, xs);
}

// ---------------------------------------------------------------------------
// BroadcastOp

TEST(BroadcastOpLayer, MatchesOnnxCases) {
  struct Case {
    std::string group;
    std::string name;
    std::string op;
  };
  const std::vector<Case> cases = {
      {"node", "test_add_bcast", "add"},
      {"node", "test_sub_bcast", "sub"},
      {"node", "test_mul_bcast", "mul"},
      {"node", "test_div_bcast", "div"},
      {"node", "test_equal_bcast", "equal"},
      {"node", "test_max_two_inputs", "max"},
      {"node", "test_min_two_inputs", "min"},
      {"node", "test_pow", "pow"},
      {"node", "test_pow_bcast_array", "pow"},
      {"node", "test_greater_bcast", "greater"},
      {"node", "test_less_bcast", "less"},
      {"node", "test_greater_equal_bcast", "greater_equal"},
      {"node", "test_less_equal_bcast", "less_equal"},
      {"pytorch-operator", "test_operator_add_broadcast", "add"},
      {"pytorch-operator", "test_operator_add_size1_broadcast", "add"},
      {"pytorch-operator", "test_operator_add_size1_right_broadcast", "add"},
      {"pytorch-operator", "test_operator_add_size1_singleton_broadcast", "add"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const test::OnnxTensor want = test::OnnxData(c.group, c.name, "output_0");
    const Tensor got =
        test::RunLayer("BroadcastOp", {{"operation", c.op}}, OnnxInputs(c.group, c.name, 2));
    EXPECT_EQ(got.dims, want.IntDims());
    if (c.op == "equal" || c.op == "max" || c.op == "min" || c.op.find("greater") == 0 ||
        c.op.find("less") == 0) {
      EXPECT_EQ(got.values, want.values);
    } else {
      EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
    }
  }
}

// Plain reference: index arithmetic per output element.
Tensor ReferenceBroadcast(const Tensor& a, const Tensor& b, const std::string& op) {
  const size_t rank = std::max(a.dims.size(), b.dims.size());
  std::vector<int> da(rank, 1), db(rank, 1), dy(rank);
  std::copy(a.dims.begin(), a.dims.end(), da.end() - a.dims.size());
  std::copy(b.dims.begin(), b.dims.end(), db.end() - b.dims.size());
  for (size_t k = 0; k < rank; ++k) dy[k] = std::max(da[k], db[k]);
  Tensor y{dy, std::vector<float>(test::Count(dy))};
  for (int64_t i = 0; i < test::Count(dy); ++i) {
    int64_t rest = i, ia = 0, ib = 0, sa = 1, sb = 1;
    for (size_t k = rank; k-- > 0;) {
      const int64_t idx = rest % dy[k];
      rest /= dy[k];
      ia += (da[k] == 1 ? 0 : idx) * sa;
      ib += (db[k] == 1 ? 0 : idx) * sb;
      sa *= da[k];
      sb *= db[k];
    }
    const float p = a.values[ia], q = b.values[ib];
    y.values[i] = op == "add"             ? p + q
                  : op == "sub"           ? p - q
                  : op == "mul"           ? p * q
                  : op == "div"           ? p / q
                  : op == "max"           ? std::max(p, q)
                  : op == "min"           ? std::min(p, q)
                  : op == "pow"           ? std::pow(p, q)
                  : op == "greater"       ? float(p > q)
                  : op == "less"          ? float(p < q)
                  : op == "greater_equal" ? float(p >= q)
                  : op == "less_equal"    ? float(p <= q)
                                          : (p == q ? 1.0f : 0.0f);
  }
  return y;
}

TEST(BroadcastOpLayer, MatchesReferenceOnRandomShapes) {
  std::mt19937 gen(17);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); };
  const std::vector<std::string> ops = {"add", "sub", "mul", "div", "equal", "max",
                                        "min", "pow", "greater", "less", "greater_equal",
                                        "less_equal"};
  for (int trial = 0; trial < 120; ++trial) {
    const int rank = pick(1, 5);
    std::vector<int> full, da, db;
    for (int k = 0; k < rank; ++k) full.push_back(pick(1, 6));
    for (int k = 0; k < rank; ++k) {
      da.push_back(pick(0, 2) == 0 ? 1 : full[k]);
      db.push_back(pick(0, 2) == 0 ? 1 : full[k]);
    }
    // Drop some leading axes of one side.
    const int drop = pick(0, rank - 1);
    if (trial % 2) {
      da.erase(da.begin(), da.begin() + drop);
    } else {
      db.erase(db.begin(), db.begin() + drop);
    }
    const std::string op = ops[trial % ops.size()];
    SCOPED_TRACE(op + " " + DimsToString(da) + " " + DimsToString(db));
    Tensor a = test::RandomTensor(da, 200 + trial, 0.5f, 2.0f);
    Tensor b = test::RandomTensor(db, 300 + trial, 0.5f, 2.0f);
    if (op != "add" && op != "sub" && op != "mul" && op != "div" && op != "pow")
      // make some elements equal
      for (size_t i = 0; i < b.values.size(); i += 2) b.values[i] = a.values[i % a.values.size()];
    const Tensor got = test::RunLayer("BroadcastOp", {{"operation", op}}, {a, b});
    const Tensor want = ReferenceBroadcast(a, b, op);
    EXPECT_EQ(got.dims, want.dims);
    EXPECT_EQ(got.values, want.values);
  }
}

TEST(BroadcastOpLayer, MaxAndMinPropagateNaN) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Tensor a{{4}, {nan, 1.0f, nan, -2.0f}};
  const Tensor b{{4}, {3.0f, nan, nan, -5.0f}};
  for (const std::string op : {"max", "min"}) {
    const Tensor got = test::RunLayer("BroadcastOp", {{"operation", op}}, {a, b});
    ASSERT_EQ(got.values.size(), 4u);
    EXPECT_TRUE(std::isnan(got.values[0])) << op;
    EXPECT_TRUE(std::isnan(got.values[1])) << op;
    EXPECT_TRUE(std::isnan(got.values[2])) << op;
    EXPECT_EQ(got.values[3], op == "max" ? -2.0f : -5.0f);
  }
}

TEST(BroadcastOpLayer, BinaryOpIsTheSameLayer) {
  // "BinaryOp" serves the same operations under its own type name.
  const Tensor a = test::RandomTensor({2, 3, 4}, 41), b = test::RandomTensor({3, 1}, 42);
  for (const std::string op : {"add", "sub", "mul", "div", "max", "min", "greater"}) {
    SCOPED_TRACE(op);
    EXPECT_EQ(test::RunLayer("BinaryOp", {{"operation", op}}, {a, b}).values,
              test::RunLayer("BroadcastOp", {{"operation", op}}, {a, b}).values);
  }
  auto net = test::OneLayerNet("BinaryOp", {{"operation", "mul"}}, {{2, 3}, {3}}).Build();
  EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "BinaryOp(mul)");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("BinaryOp", {}, {{3}, {3}})),
            "net description: layer \"l\" (BinaryOp): missing param \"operation\"");
}

TEST(BroadcastOpLayer, TypeDetail) {
  for (const std::string op : {"add", "sub", "mul", "div", "equal", "max", "min", "pow",
                               "greater", "less", "greater_equal", "less_equal"}) {
    auto net = test::OneLayerNet("BroadcastOp", {{"operation", op}}, {{2, 3}, {3}}).Build();
    EXPECT_EQ(net->GetLayer("l")->GetTypeDetail(), "BroadcastOp(" + op + ")");
    EXPECT_EQ(net->GetLayer("l")->GetType(), "BroadcastOp");
  }
}

TEST(BroadcastOpLayer, RejectsIncompatibleShapes) {
  const std::string prefix = "net description: layer \"l\" (BroadcastOp): ";
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("BroadcastOp", {{"operation", "add"}}, {{3, 4, 5}, {4}})),
      prefix +
          "inputs \"x0\" of shape [3, 4, 5] and \"x1\" of shape [4] cannot be broadcast "
          "together");
  EXPECT_EQ(test::BuildError(
                test::OneLayerNet("BroadcastOp", {{"operation", "mul"}}, {{2, 1, 3}, {4, 2, 1}})),
            prefix +
                "inputs \"x0\" of shape [2, 1, 3] and \"x1\" of shape [4, 2, 1] cannot be "
                "broadcast together");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("BroadcastOp", {}, {{3}, {3}})),
            prefix + "missing param \"operation\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("BroadcastOp", {{"operation", "xor"}}, {{3}, {3}})),
            prefix +
                "param \"operation\" is \"xor\", expected one of \"add\", \"sub\", \"mul\", "
                "\"div\", \"equal\", \"max\", \"min\", \"pow\", \"greater\", \"less\", "
                "\"greater_equal\", \"less_equal\"");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("BroadcastOp", {{"operation", "add"}}, {{3}, {3}, {3}})),
      prefix + "expects 2 input(s), has 3");
}

TEST(BroadcastOpLayer, BroadcastsBothSides) {
  const Tensor a{{3, 1}, {1, 2, 3}};
  const Tensor b{{1, 2}, {10, 20}};
  const Tensor got = test::RunLayer("BroadcastOp", {{"operation", "sub"}}, {a, b});
  EXPECT_EQ(got.dims, (std::vector<int>{3, 2}));
  EXPECT_EQ(got.values, (std::vector<float>{-9, -19, -8, -18, -7, -17}));
}

TEST(EltwiseAndBroadcastOp, SurviveBadParamValues) {
  test::ExpectBadParamsHandled("Eltwise", {{"operation", "sum"}, {"coeff", Json::array{1.0, 2.0}}},
                               {{2, 3}, {2, 3}});
  test::ExpectBadParamsHandled("BroadcastOp", {{"operation", "div"}}, {{2, 3}, {3}});
}

TEST(BroadcastOpLayer, InPlaceAndThreadCount) {
  const Tensor a = test::RandomTensor({2, 16, 32, 40}, 41, 0.5f, 2.0f);
  const Tensor b = test::RandomTensor({16, 1, 40}, 42, 0.5f, 2.0f);
  const Tensor same = test::RandomTensor({2, 16, 32, 40}, 43, 0.5f, 2.0f);
  for (const std::string op : {"add", "sub", "mul", "div", "equal"}) {
    SCOPED_TRACE(op);
    test::ExpectInPlaceSame("BroadcastOp", {{"operation", op}}, {a, b});
    test::ExpectThreadIndependent("BroadcastOp", {{"operation", op}}, {a, b});
    test::ExpectThreadIndependent("BroadcastOp", {{"operation", op}}, {a, same});
  }
}

}  // namespace
}  // namespace qzdl
