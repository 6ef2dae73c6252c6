// Data movers in the 8-bit net move codes with the float layer's own
// kernel: the output equals the float island's (float layer on the
// dequantized inputs, quantized with CodeOf) bit for bit, for every mover
// type, on one grid and across grids, at batch 1 and 3.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "int8_layer_support.h"

namespace qzdl {
namespace {

using namespace test_int8;
using json11::Json;

struct MoverCase {
  std::string type;
  std::vector<std::vector<int>> inputs;  // at batch 1
  Json::object param;
  int outputs = 1;
};

std::vector<MoverCase> Cases() {
  return {
      {"Reshape", {{1, 4, 3, 5}}, {{"shapes", Json::array{0, 12, 5}}}},
      {"Flatten", {{1, 4, 3, 5}}, {}},
      {"Permute", {{1, 4, 3, 5}}, {{"order", Json::array{0, 2, 3, 1}}}},
      {"Permute", {{1, 3, 7, 9}}, {{"order", Json::array{0, 1, 3, 2}}}},
      {"Concat", {{1, 2, 3, 5}, {1, 3, 3, 5}, {1, 1, 3, 5}}, {{"axis", 1}}},
      {"Concat", {{1, 2, 3, 5}, {1, 2, 3, 2}}, {{"axis", -1}}},
      {"Slice", {{1, 6, 3, 5}}, {{"axis", 1}, {"slice_point", Json::array{1, 4}}}, 3},
      {"Split", {{1, 4, 3, 5}}, {}, 2},
      {"Crop",
       {{1, 4, 7, 9}},
       {{"starts", Json::array{1, 2}},
        {"ends", Json::array{6, 9}},
        {"axes", Json::array{2, 3}},
        {"steps", Json::array{2, 3}}}},
      {"Gather", {{1, 5, 3, 4}}, {{"axis", 1}, {"indices", Json::array{4, 0, 2, 2}}}},
      {"Tile", {{1, 2, 3, 5}}, {{"repeats", Json::array{1, 2, 1, 3}}}},
      {"Squeeze", {{1, 4, 1, 5}}, {{"axes", Json::array{2}}}},
      {"ExpandDims", {{1, 4, 5}}, {{"axes", Json::array{2}}}},
      {"ShuffleChannel", {{1, 6, 3, 5}}, {{"group", 3}}},
      {"DepthToSpace", {{1, 8, 3, 5}}, {{"blocksize", 2}}},
      {"DepthToSpace", {{1, 8, 3, 5}}, {{"blocksize", 2}, {"mode", "CRD"}}},
      {"SpaceToDepth", {{1, 2, 6, 4}}, {{"blocksize", 2}}},
      {"Upsample", {{1, 3, 3, 5}}, {{"scale", 2}}},
      {"Upsample", {{1, 3, 3, 5}}, {{"out_h", 7}, {"out_w", 4}}},
      {"Padding",
       {{1, 3, 4, 5}},
       {{"pad_top", 1}, {"pad_bottom", 2}, {"pad_left", 3}, {"pad_right", 1}}},
      {"Padding",
       {{1, 3, 4, 5}},
       {{"pad_top", 1}, {"pad_left", 2}, {"pad_right", 1}, {"value", 0.7}}},
      {"Padding",
       {{1, 3, 4, 5}},
       {{"pad_top", 2}, {"pad_bottom", 1}, {"pad_left", 3}, {"mode", "reflect"}}},
      {"Padding", {{1, 3, 4, 5}}, {{"pad_bottom", 2}, {"pad_right", 3}, {"mode", "edge"}}},
      {"ZeroPadding", {{1, 2, 3, 3}}, {{"pad_top", 1}, {"pad_right", 2}}},
      {"ReflectionPadding", {{1, 3, 4, 5}}, {{"pad_top", 2}, {"pad_left", 3}, {"pad_right", 1}}},
      {"ReplicationPadding", {{1, 3, 4, 5}}, {{"pad_bottom", 2}, {"pad_left", 1}}},
      {"ShufflePixel", {{1, 8, 3, 5}}, {{"upscale_factor", 2}}},
      {"Flip", {{1, 4, 3, 5}}, {{"axes", Json::array{1, -1}}}},
      {"Flip", {{1, 4, 3, 5}}, {{"axes", Json::array{2}}}},
      {"Repeat", {{1, 4, 3, 5}}, {{"axis", 2}, {"repeats", 3}}},
      {"Repeat", {{1, 4, 3, 5}}, {{"axis", -1}, {"repeats", 2}}},
  };
}

// Grids per tensor: on one grid, or every tensor on a grid of its own.
void AddGrids(INT8Config& config, const std::vector<std::string>& names, bool same) {
  const float lo[] = {-1.0f, -0.3f, -2.5f, 0.0f}, hi[] = {2.0f, 1.1f, 0.5f, 3.0f};
  for (size_t k = 0; k < names.size(); ++k)
    config.addDataConfig(names[k], same ? lo[0] : lo[k % 4], same ? hi[0] : hi[k % 4]);
}

TEST(MoverInt8, EqualsTheIslandForEveryType) {
  for (const MoverCase& c : Cases()) {
    for (int batch : {1, 3}) {
      for (bool same : {true, false}) {
        SCOPED_TRACE(c.type + Json(c.param).dump() + " batch " + std::to_string(batch) +
                     (same ? " one grid" : " own grids"));
        test::NetBuilder nb;
        std::vector<std::string> ins, outs, names;
        for (size_t k = 0; k < c.inputs.size(); ++k) {
          std::vector<int> dims = c.inputs[k];
          dims[0] = batch;
          ins.push_back("x" + std::to_string(k));
          nb.Input(ins.back(), dims);
        }
        for (int k = 0; k < c.outputs; ++k) outs.push_back("y" + std::to_string(k));
        nb.Layer("move", c.type, ins, outs, c.param);
        names = ins;
        names.insert(names.end(), outs.begin(), outs.end());
        INT8Config config;
        AddGrids(config, names, same);
        auto net = BuildInt8(nb, &config);
        FillRandomCodes(*net, 23);
        net->ForwardAll();
        ASSERT_EQ(net->GetLayers()[0]->GetUint8AttrDatas().count("table"), 1u) << "not on codes";
        const auto want = IslandCodes(nb, config, *net);
        ASSERT_EQ(int(want.size()), c.outputs);
        for (int k = 0; k < c.outputs; ++k)
          EXPECT_EQ(Codes(net->GetOutputData(k)), want[k]) << "output " << k;
      }
    }
  }
}

TEST(MoverInt8, PaddingFillsTheZeroPoint) {
  test::NetBuilder nb;
  nb.Input("x", {1, 1, 1, 1})
      .Layer("pad", "Padding", {"x"}, {"y"}, {{"pad_left", 1}, {"pad_right", 1}});
  INT8Config config;
  config.addDataConfig("x", -1.0f, 2.0f);
  config.addDataConfig("y", -1.0f, 2.0f);
  auto net = BuildInt8(nb, &config);
  net->GetInputData(0)->GetCpuData()[0] = 200;
  net->ForwardAll();
  const uint8_t z = config.GetDataConfig("y")->getZeroPoint();
  EXPECT_EQ(z, 85);
  EXPECT_EQ(Codes(net->GetOutputData(0)), (std::vector<uint8_t>{z, 200, z}));
}

TEST(MoverInt8, BilinearUpsampleRunsAsAFloatIsland) {
  test::NetBuilder nb;
  nb.Input("x", {1, 2, 3, 3})
      .Layer("up", "Upsample", {"x"}, {"y"}, {{"scale", 2}, {"mode", "bilinear"}});
  INT8Config config;
  config.addDataConfig("x", -1.0f, 2.0f);
  config.addDataConfig("y", -1.0f, 2.0f);
  auto net = BuildInt8(nb, &config);
  FillRandomCodes(*net, 1);
  net->ForwardAll();
  EXPECT_TRUE(net->GetLayers()[0]->GetUint8AttrDatas().empty());
  EXPECT_EQ(Codes(net->GetOutputData(0)), IslandCodes(nb, config, *net)[0]);
}

TEST(MoverInt8, MaxPoolingOfTheExampleShapeMovesCodes) {
  // Max pooling is a mover too (PoolingInt8Layer): equal to the island.
  test::NetBuilder nb;
  nb.Input("x", {3, 4, 6, 6})
      .Layer("pool", "Pooling", {"x"}, {"y"}, {{"pool", "max"}, {"kernel_size", 2}, {"stride", 2}});
  INT8Config config;
  config.addDataConfig("x", -1.0f, 2.0f);
  config.addDataConfig("y", -0.5f, 2.0f);
  auto net = BuildInt8(nb, &config);
  FillRandomCodes(*net, 8);
  net->ForwardAll();
  EXPECT_EQ(Codes(net->GetOutputData(0)), IslandCodes(nb, config, *net)[0]);
}

}  // namespace
}  // namespace qzdl
