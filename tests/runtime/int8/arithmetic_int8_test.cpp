// "Eltwise", "BroadcastOp" and "Pooling" on codes: on random codes the
// output is within one code of the float layer on the dequantized inputs,
// quantized to the output grid (max pooling: equal to it), in both
// multiplier modes; and a few hand-computed cases exactly.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "int8_layer_support.h"
#include "runtime/int8/eltwise_int8.h"
#include "runtime/int8/reference.h"

namespace qzdl {
namespace {

using namespace test_int8;
using json11::Json;

const char* Mode(bool high_accuracy) { return high_accuracy ? "double" : "fixed point"; }

// Runs the one-layer net of `nb` on random codes and compares it with the
// island; `exact` asks for equality. `attr` is an attribute the integer
// layer makes.
void ExpectNearIsland(const test::NetBuilder& nb, INT8Config& config, bool exact,
                      const std::string& attr, uint32_t seed = 7) {
  for (bool high_accuracy : {false, true}) {
    SCOPED_TRACE(Mode(high_accuracy));
    auto net = BuildInt8(nb, &config, high_accuracy);
    FillRandomCodes(*net, seed);
    net->ForwardAll();
    Layer<unsigned char>* layer = net->GetLayers()[0];
    EXPECT_TRUE(layer->GetInt32AttrDatas().count(attr) || layer->GetUint8AttrDatas().count(attr))
        << "not computed on codes";
    const std::vector<std::vector<uint8_t>> want = IslandCodes(nb, config, *net);
    const int worst = MaxCodeDifference(Codes(net->GetOutputData(0)), want[0]);
    if (exact) {
      EXPECT_EQ(worst, 0);
    } else {
      EXPECT_LE(worst, 1);
    }
  }
}

// ---- Eltwise --------------------------------------------------------------

struct EltwiseCase {
  std::string op;
  int inputs;
  Json::array coeff;
  float out_lo, out_hi;
};

TEST(EltwiseInt8, WithinOneCodeOfFloat) {
  const std::vector<std::vector<int>> shapes = {{1, 3, 5, 7}, {3, 2, 4, 4}, {3, 17}, {1, 1}};
  const std::vector<EltwiseCase> cases = {
      {"sum", 2, {}, -2.0f, 3.0f},  {"sum", 3, {0.5, -1.5, 2.0}, -5.0f, 7.0f},
      {"prod", 2, {}, -1.0f, 1.5f}, {"prod", 3, {}, -3.0f, 2.0f},
      {"max", 2, {}, -0.5f, 2.0f},  {"max", 3, {}, -1.0f, 3.0f},
  };
  const char* names[] = {"a", "b", "c"};
  for (const auto& shape : shapes) {
    for (const EltwiseCase& c : cases) {
      SCOPED_TRACE(c.op + " of " + std::to_string(c.inputs) + " on " + DimsToString(shape));
      test::NetBuilder nb;
      std::vector<std::string> ins;
      for (int k = 0; k < c.inputs; ++k) {
        nb.Input(names[k], shape);
        ins.push_back(names[k]);
      }
      Json::object param{{"operation", c.op}};
      if (!c.coeff.empty()) param["coeff"] = c.coeff;
      nb.Layer("e", "Eltwise", ins, {"y"}, param);
      INT8Config config;
      config.addDataConfig("a", -1.0f, 2.0f);
      config.addDataConfig("b", -0.5f, 0.7f);
      config.addDataConfig("c", 0.0f, 3.0f);
      config.addDataConfig("y", c.out_lo, c.out_hi);
      ExpectNearIsland(nb, config, false, c.op == "max" ? "table" : "multiplier");
    }
  }
}

TEST(EltwiseInt8, FastSumGivesTheReferenceBitsOnEveryPairOfCodes) {
  // All 65536 pairs, large enough to be split over threads, on random grids
  // and coefficients, both multiplier modes, and three inputs.
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> zero(0, 255);
  std::uniform_real_distribution<float> scale(0.001f, 0.5f), coeff(-3.0f, 3.0f);
  std::vector<uint8_t> a(65536 * 2), b(a.size()), c(a.size());
  for (size_t i = 0; i < a.size(); ++i) {
    a[i] = static_cast<uint8_t>(i % 256);
    b[i] = static_cast<uint8_t>(i / 256 % 256);
    c[i] = static_cast<uint8_t>(i * 7 % 251);
  }
  for (int round = 0; round < 8; ++round) {
    const std::vector<CodeGrid> grids = {{scale(rng), zero(rng)}, {scale(rng), zero(rng)},
                                         {scale(rng), zero(rng)}};
    const CodeGrid out{scale(rng), zero(rng)};
    for (bool use_double : {false, true}) {
      for (size_t n : {size_t(2), size_t(3)}) {
        const std::vector<CodeGrid> in(grids.begin(), grids.begin() + n);
        std::vector<float> coeffs;
        if (round % 2 == 1) {
          for (size_t k = 0; k < n; ++k) coeffs.push_back(coeff(rng));
        }
        const SumQuantization q = MakeSumQuantization(in, coeffs, out, use_double);
        std::vector<const uint8_t*> x = {a.data(), b.data(), c.data()};
        x.resize(n);
        std::vector<uint8_t> want(a.size()), got(a.size(), 0);
        ReferenceEltwiseSumU8(x, in, q, static_cast<int64_t>(a.size()), want.data());
        EltwiseSumU8(x, in, q, static_cast<int64_t>(a.size()), got.data());
        ASSERT_EQ(got, want) << "round " << round << ", " << n << " inputs"
                             << (use_double ? ", double" : "");
      }
    }
  }
}

TEST(EltwiseInt8, MaxOnOneGridIsExact) {
  test::NetBuilder nb;
  nb.Input("a", {3, 4, 5}).Input("b", {3, 4, 5});
  nb.Layer("e", "Eltwise", {"a", "b"}, {"y"}, {{"operation", "max"}});
  INT8Config config;
  for (const char* name : {"a", "b", "y"}) config.addDataConfig(name, -0.8f, 1.9f);
  ExpectNearIsland(nb, config, true, "table");
}

// Grids of scale 1: [0, 255] has zero 0, [-128, 127] zero 128; [-255, 255]
// has scale 2 and zero 128 (127.5 rounded away from zero).
INT8Config HandGrids() {
  INT8Config config;
  config.addDataConfig("a", 0.0f, 255.0f);
  config.addDataConfig("b", -128.0f, 127.0f);
  config.addDataConfig("y", -255.0f, 255.0f);
  return config;
}

std::vector<uint8_t> RunHand(const test::NetBuilder& nb, INT8Config& config,
                             const std::vector<std::vector<uint8_t>>& inputs) {
  auto net = BuildInt8(nb, &config);
  for (size_t i = 0; i < inputs.size(); ++i)
    std::copy(inputs[i].begin(), inputs[i].end(), net->GetInputData(int(i))->GetCpuData());
  net->ForwardAll();
  return Codes(net->GetOutputData(0));
}

TEST(EltwiseInt8, HandComputed) {
  INT8Config config = HandGrids();
  ASSERT_EQ(config.GetDataConfig("y")->getZeroPoint(), 128);
  ASSERT_EQ(config.GetDataConfig("y")->getScale(), 2.0f);
  const std::vector<std::vector<uint8_t>> in = {{10, 11, 3, 5, 7}, {120, 128, 131, 121, 125}};
  auto net_of = [](const std::string& op) {
    test::NetBuilder nb;
    nb.Input("a", {5}).Input("b", {5}).Layer("e", "Eltwise", {"a", "b"}, {"y"},
                                             {{"operation", op}});
    return nb;
  };
  // Real values: a = 10, 11, 3, 5, 7; b = -8, 0, 3, -7, -3.
  // sum: 2, 11, 6, -2, 4 -> halves 1, 5.5, 3, -1, 2 -> ties up: 1, 6, 3, -1, 2.
  EXPECT_EQ(RunHand(net_of("sum"), config, in), (std::vector<uint8_t>{129, 134, 131, 127, 130}));
  // prod: -80, 0, 9, -35, -21 -> -40, 0, 4.5, -17.5, -10.5 -> -40, 0, 5, -17, -10.
  EXPECT_EQ(RunHand(net_of("prod"), config, in), (std::vector<uint8_t>{88, 128, 133, 111, 118}));
  // max: 10, 11, 3, 5, 7 -> 5, 5.5, 1.5, 2.5, 3.5 -> 5, 6, 2, 3, 4.
  EXPECT_EQ(RunHand(net_of("max"), config, in), (std::vector<uint8_t>{133, 134, 130, 131, 132}));
}

TEST(EltwiseInt8, ProductSaturatesInSixtyFourBits) {
  // Ten factors of 127: 127^10 is beyond 2^63, so the product saturates and
  // the output is the largest code; with one factor -128 the least.
  test::NetBuilder nb;
  std::vector<std::string> ins;
  for (int k = 0; k < 10; ++k) {
    ins.push_back("x" + std::to_string(k));
    nb.Input(ins.back(), {2});
  }
  nb.Layer("e", "Eltwise", ins, {"y"}, {{"operation", "prod"}});
  INT8Config config;
  for (const std::string& name : ins) config.addDataConfig(name, -128.0f, 127.0f);
  config.addDataConfig("y", -1.0f, 1.0f);
  auto net = BuildInt8(nb, &config);
  for (int k = 0; k < 10; ++k) {
    net->GetInputData(k)->GetCpuData()[0] = 255;
    net->GetInputData(k)->GetCpuData()[1] = k == 4 ? 0 : 255;
  }
  net->ForwardAll();
  EXPECT_EQ(Codes(net->GetOutputData(0)), (std::vector<uint8_t>{255, 0}));
}

// ---- BroadcastOp ----------------------------------------------------------

TEST(BroadcastOpInt8, WithinOneCodeOfFloat) {
  const std::vector<std::pair<std::vector<int>, std::vector<int>>> shapes = {
      {{3, 4, 5, 6}, {4, 1, 1}},
      {{1, 4, 1, 6}, {3, 1, 5, 1}},
      {{2, 3}, {3}},
      {{3, 1, 5}, {3, 1, 5}},
      {{5}, {2, 3, 5}},
      {{1, 7, 3}, {1}}};
  for (const auto& s : shapes) {
    for (const char* op : {"add", "sub", "mul"}) {
      SCOPED_TRACE(std::string(op) + " of " + DimsToString(s.first) + " and " +
                   DimsToString(s.second));
      test::NetBuilder nb;
      nb.Input("a", s.first).Input("b", s.second);
      nb.Layer("op", "BroadcastOp", {"a", "b"}, {"y"}, {{"operation", op}});
      INT8Config config;
      config.addDataConfig("a", -1.0f, 2.0f);
      config.addDataConfig("b", -0.6f, 0.9f);
      config.addDataConfig("y", std::string(op) == "mul" ? -1.2f : -2.0f, 2.5f);
      ExpectNearIsland(nb, config, false, "multiplier");
    }
  }
}

TEST(BroadcastOpInt8, HandComputed) {
  INT8Config config = HandGrids();
  auto net_of = [](const std::string& op) {
    test::NetBuilder nb;
    nb.Input("a", {2, 3})
        .Input("b", {3})
        .Layer("op", "BroadcastOp", {"a", "b"}, {"y"}, {{"operation", op}});
    return nb;
  };
  // a = [[10, 11, 3], [5, 7, 0]], b = [-8, 0, 3] repeated on each row.
  const std::vector<std::vector<uint8_t>> in = {{10, 11, 3, 5, 7, 0}, {120, 128, 131}};
  // add: 2, 11, 6, -3, 7, 3 -> 1, 5.5, 3, -1.5, 3.5, 1.5 -> 1, 6, 3, -1, 4, 2.
  EXPECT_EQ(RunHand(net_of("add"), config, in),
            (std::vector<uint8_t>{129, 134, 131, 127, 132, 130}));
  // sub: 18, 11, 0, 13, 7, -3 -> 9, 5.5, 0, 6.5, 3.5, -1.5 -> 9, 6, 0, 7, 4, -1.
  EXPECT_EQ(RunHand(net_of("sub"), config, in),
            (std::vector<uint8_t>{137, 134, 128, 135, 132, 127}));
  // mul: -80, 0, 9, -40, 0, 0 -> -40, 0, 4.5, -20, 0, 0 -> -40, 0, 5, -20, 0, 0.
  EXPECT_EQ(RunHand(net_of("mul"), config, in),
            (std::vector<uint8_t>{88, 128, 133, 108, 128, 128}));
}

TEST(BroadcastOpInt8, DivisionAndEqualityRunAsFloatIslands) {
  for (const char* op : {"div", "equal"}) {
    test::NetBuilder nb;
    nb.Input("a", {2, 3}).Input("b", {3});
    nb.Layer("op", "BroadcastOp", {"a", "b"}, {"y"}, {{"operation", op}});
    INT8Config config;
    config.addDataConfig("a", -1.0f, 2.0f);
    config.addDataConfig("b", 0.5f, 1.0f);
    config.addDataConfig("y", -2.0f, 4.0f);
    auto net = BuildInt8(nb, &config);
    FillRandomCodes(*net, 3);
    net->ForwardAll();
    EXPECT_TRUE(net->GetLayers()[0]->GetInt32AttrDatas().empty()) << op;
    EXPECT_EQ(Codes(net->GetOutputData(0)), IslandCodes(nb, config, *net)[0]) << op;
  }
}

// ---- Pooling --------------------------------------------------------------

TEST(PoolingInt8, AverageWithinOneCodeOfFloat) {
  const std::vector<std::pair<std::vector<int>, Json::object>> cases = {
      {{1, 3, 7, 9}, {{"pool", "ave"}, {"kernel_size", 3}, {"stride", 2}, {"pad", 1}}},
      {{3, 2, 7, 9},
       {{"pool", "ave"},
        {"kernel_size", 3},
        {"stride", 2},
        {"pad", 1},
        {"count_include_pad", false}}},
      {{1, 2, 6, 7}, {{"pool", "ave"}, {"kernel_size", 3}, {"stride", 2}, {"ceil_mode", true}}},
      {{3, 2, 8, 5},
       {{"pool", "ave"},
        {"kernel_h", 2},
        {"kernel_w", 3},
        {"stride_h", 1},
        {"stride_w", 2},
        {"pad_top", 1},
        {"pad_bottom", 0},
        {"pad_left", 2},
        {"pad_right", 1}}},
      {{3, 4, 5, 5}, {{"pool", "ave"}, {"global_pooling", true}}},
      {{1, 3, 1, 13}, {{"pool", "ave"}, {"global_pooling", true}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Json(c.second).dump() + " on " + DimsToString(c.first));
    test::NetBuilder nb;
    nb.Input("x", c.first).Layer("pool", "Pooling", {"x"}, {"y"}, c.second);
    INT8Config config;
    config.addDataConfig("x", -1.0f, 2.0f);
    config.addDataConfig("y", -0.7f, 1.3f);
    ExpectNearIsland(nb, config, false, "count");
  }
}

TEST(PoolingInt8, MaxEqualsTheIsland) {
  for (bool same_grid : {true, false}) {
    test::NetBuilder nb;
    nb.Input("x", {3, 2, 7, 9})
        .Layer("pool", "Pooling", {"x"}, {"y"},
               {{"pool", "max"}, {"kernel_size", 3}, {"stride", 2}, {"pad", 1}});
    INT8Config config;
    config.addDataConfig("x", -1.0f, 2.0f);
    config.addDataConfig("y", same_grid ? -1.0f : -0.3f, same_grid ? 2.0f : 1.1f);
    ExpectNearIsland(nb, config, true, "table");
  }
}

TEST(PoolingInt8, AverageHandComputed) {
  INT8Config config;
  config.addDataConfig("x", 0.0f, 255.0f);
  config.addDataConfig("y", 0.0f, 255.0f);
  const std::vector<std::vector<uint8_t>> in = {{1, 2, 6, 10}};
  for (bool include_pad : {true, false}) {
    test::NetBuilder nb;
    nb.Input("x", {1, 1, 2, 2})
        .Layer("pool", "Pooling", {"x"}, {"y"},
               {{"pool", "ave"},
                {"kernel_size", 2},
                {"stride", 2},
                {"pad", 1},
                {"count_include_pad", include_pad}});
    // Each window holds one input element: x / 4 with the padding counted
    // (0.25, 0.5, 1.5, 2.5 -> ties up), x without.
    const std::vector<uint8_t> want =
        include_pad ? std::vector<uint8_t>{0, 1, 2, 3} : std::vector<uint8_t>{1, 2, 6, 10};
    EXPECT_EQ(RunHand(nb, config, in), want);
  }
  test::NetBuilder global;
  global.Input("x", {1, 1, 2, 2})
      .Layer("pool", "Pooling", {"x"}, {"y"}, {{"pool", "ave"}, {"global_pooling", true}});
  EXPECT_EQ(RunHand(global, config, {{1, 2, 3, 5}}), (std::vector<uint8_t>{3}));  // 2.75
}

TEST(PoolingInt8, ReshapeKeepsTheCountsOfTheNewShape) {
  test::NetBuilder nb;
  nb.Input("x", {1, 2, 4, 4})
      .Layer("pool", "Pooling", {"x"}, {"y"}, {{"pool", "ave"}, {"global_pooling", true}});
  INT8Config config;
  config.addDataConfig("x", -1.0f, 2.0f);
  config.addDataConfig("y", -1.0f, 2.0f);
  auto net = BuildInt8(nb, &config);
  FillRandomCodes(*net, 5);
  net->ForwardAll();
  Layer<unsigned char>* pool = net->GetLayers()[0];
  EXPECT_EQ(pool->GetInt32AttrDatas().at("count")->GetCpuData()[0], 16);
  net->GetInputData(0)->Resize({1, 2, 3, 5});
  net->Reshape(true, 0);
  FillRandomCodes(*net, 6);
  net->ForwardAll();
  EXPECT_EQ(pool->GetInt32AttrDatas().at("count")->GetCpuData()[0], 15);
  EXPECT_LE(MaxCodeDifference(Codes(net->GetOutputData(0)), IslandCodes(nb, config, *net)[0]), 1);
}

}  // namespace
}  // namespace qzdl
