// Unary activations in the 8-bit net run on a table of 256 codes made with
// the float layer's own kernel: the output equals the float island's output
// (float layer on the dequantized input, quantized with CodeOf) exactly,
// for every activation type, per channel for PReLU, in place too, and the
// table is made again after the attributes are cleared.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "int8_layer_support.h"

namespace qzdl {
namespace {

using namespace test_int8;
using json11::Json;

struct TableCase {
  std::string type;
  Json::object param;
  float out_lo, out_hi;
};

std::vector<TableCase> Cases() {
  std::vector<TableCase> cases = {
      {"ReLU", {}, 0.0f, 3.0f},
      {"ReLU", {{"negative_slope", 0.1}}, -0.2f, 3.0f},
      {"ReLUX", {{"threshold", 1.5}}, 0.0f, 1.5f},
      {"LeakyRelu", {}, -0.1f, 3.0f},
      {"Elu", {{"alpha", 0.7}}, -0.7f, 3.0f},
      {"Sigmoid", {}, 0.0f, 1.0f},
      {"TanH", {}, -1.0f, 1.0f},
      {"Swish", {}, -0.3f, 3.0f},
      {"Swish", {{"beta", 1.7}}, -0.3f, 3.0f},
      {"Swish", {{"hard", true}}, -0.4f, 3.0f},
      {"Mish", {}, -0.4f, 3.0f},
      {"Gelu", {}, -0.2f, 3.0f},
      {"Gelu", {{"approximate", "tanh"}}, -0.2f, 3.0f},
      {"Softplus", {}, 0.0f, 3.1f},
      {"Selu", {}, -1.6f, 3.2f},
      {"HardSigmoid", {}, 0.0f, 1.0f},
      {"Clip", {{"min", -0.5}, {"max", 1.2}}, -0.5f, 1.2f},
      {"Power", {{"power", 2.0}, {"scale", 0.5}, {"shift", 0.25}}, 0.0f, 3.1f},
      {"Dropout", {}, -2.0f, 3.0f},
  };
  for (const char* op : {"abs", "neg", "exp", "sqrt", "floor", "ceil", "erf", "sin", "cos",
                         "square", "sign", "round"}) {
    cases.push_back({"UnaryOp", {{"operation", op}}, -3.0f, 9.0f});
  }
  return cases;
}

// The 8-bit layer on random codes against the island, both as a layer with
// its own output and in place.
void ExpectTableEqualsIsland(const std::string& type, const Json::object& param, float out_lo,
                             float out_hi, const std::vector<float>& slope = {}) {
  const std::vector<int> dims = {3, 4, 5, 7};
  for (bool in_place : {false, true}) {
    SCOPED_TRACE(type + Json(param).dump() + (in_place ? " in place" : ""));
    test::NetBuilder nb;
    const std::string y = in_place ? "x" : "y";
    nb.Input("x", dims).Layer("act", type, {"x"}, {y}, param);
    if (!slope.empty()) nb.Weight("act", "slope", {int(slope.size())}, slope);
    INT8Config config;
    config.addDataConfig("x", -2.0f, 3.0f);
    if (!in_place) config.addDataConfig("y", out_lo, out_hi);
    auto net = BuildInt8(nb, &config);
    FillRandomCodes(*net, 17);
    const std::vector<uint8_t> input = Codes(net->GetInputData(0));
    net->ForwardAll();
    Layer<unsigned char>* layer = net->GetLayers()[0];
    ASSERT_EQ(layer->GetUint8AttrDatas().count("table"), 1u) << "no table";
    EXPECT_EQ(layer->GetUint8AttrDatas()["table"]->GetDim(0), slope.size() > 1 ? dims[1] : 1);
    const std::vector<uint8_t> got = Codes(net->GetOutputData(0));
    std::copy(input.begin(), input.end(), net->GetInputData(0)->GetCpuData());
    EXPECT_EQ(got, IslandCodes(nb, config, *net)[0]);
  }
}

TEST(ActivationInt8, TableEqualsTheIslandForEveryType) {
  for (const TableCase& c : Cases()) ExpectTableEqualsIsland(c.type, c.param, c.out_lo, c.out_hi);
}

TEST(ActivationInt8, PReluHasOneTablePerChannel) {
  ExpectTableEqualsIsland("PReLU", {}, -1.0f, 3.0f, {0.1f, -0.5f, 0.25f, 1.5f});
  ExpectTableEqualsIsland("PReLU", {{"channel_shared", true}}, -1.0f, 3.0f, {0.3f});
}

TEST(ActivationInt8, TableIsMadeAgainAfterClearing) {
  test::NetBuilder nb;
  nb.Input("x", {2, 3, 4}).Layer("act", "Sigmoid", {"x"}, {"y"});
  INT8Config config;
  config.addDataConfig("x", -4.0f, 4.0f);
  config.addDataConfig("y", 0.0f, 1.0f);
  auto net = BuildInt8(nb, &config);
  FillRandomCodes(*net, 2);
  net->ForwardAll();
  Layer<unsigned char>* layer = net->GetLayers()[0];
  const Data<unsigned char>* table = layer->GetUint8AttrDatas()["table"];
  const std::vector<uint8_t> before = Codes(table);
  // A changed grid is not seen while the table is present.
  config.GetDataConfig("x")->update(-8.0f, 8.0f);
  net->ForwardAll();
  EXPECT_EQ(layer->GetUint8AttrDatas()["table"], table);
  EXPECT_EQ(Codes(table), before);
  for (auto& kv : layer->GetUint8AttrDatas()) delete kv.second;
  layer->GetUint8AttrDatas().clear();
  net->ForwardAll();
  ASSERT_EQ(layer->GetUint8AttrDatas().count("table"), 1u);
  EXPECT_NE(Codes(layer->GetUint8AttrDatas()["table"]), before);
  EXPECT_EQ(Codes(net->GetOutputData(0)), IslandCodes(nb, config, *net)[0]);
}

TEST(ActivationInt8, FloatTensorsRunTheIsland) {
  test::NetBuilder nb;
  nb.Input("x", {2, 3, 4}).Layer("act", "TanH", {"x"}, {"y"});
  INT8Config config;
  config.addDataConfig("x", -4.0f, 4.0f);
  config.addDataConfig("y", -1.0f, 1.0f);
  auto net = BuildInt8(nb, &config);
  Data<unsigned char>* y = net->GetOutputData(0);
  y->ChangeDataType("float");
  y->Reallocate();
  FillRandomCodes(*net, 4);
  net->ForwardAll();
  EXPECT_TRUE(net->GetLayers()[0]->GetUint8AttrDatas().empty());
  const float* got = reinterpret_cast<const float*>(y->GetCpuData());
  const QuantizationConfig* g = config.GetDataConfig("x");
  for (int i = 0; i < 24; ++i) {
    EXPECT_FLOAT_EQ(got[i], std::tanh(RealOf(net->GetInputData(0)->GetCpuData()[i], g->getScale(),
                                             g->getZeroPoint())));
  }
}

}  // namespace
}  // namespace qzdl
