// "Deconvolution" in the 8-bit net, in integers: within one code of the
// float layer on the dequantized input, weights and bias, over pads,
// strides, dilation, groups, output pads and batches, in both multiplier
// modes; a hand-computed case exactly; and saved and loaded as codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "int8_layer_support.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/int8/weighted_int8.h"

namespace qzdl {
namespace {

using namespace test_int8;
using json11::Json;

struct DeconvCase {
  std::vector<int> input;
  Json::object param;
};

// The float net with the 8-bit layer's dequantized weights and bias.
void UseDequantized(Net<float>& f, Layer<unsigned char>* q, float x_scale) {
  Layer<float>* layer = f.GetLayers()[0];
  const Data<unsigned char>* w = q->GetUint8AttrDatas().at("weight");
  const int out = w->GetDim(0);
  const int64_t per = w->Count(1);
  float* wf = layer->GetWeights()[0]->GetCpuData();
  for (int o = 0; o < out; ++o) {
    const float s = q->GetFloatAttrDatas().at("weight_scale")->GetCpuData()[o];
    const int z = q->GetInt32AttrDatas().at("weight_zero")->GetCpuData()[o];
    for (int64_t k = 0; k < per; ++k) wf[o * per + k] = RealOf(w->GetCpuData()[o * per + k], s, z);
    if (layer->GetWeights().size() > 1) {
      layer->GetWeights()[1]->GetCpuData()[o] = static_cast<float>(
          q->GetInt32AttrDatas().at("bias")->GetCpuData()[o] * double(x_scale) * s);
    }
  }
}

TEST(DeconvolutionInt8, WithinOneCodeOfFloatOnDequantizedValues) {
  const std::vector<DeconvCase> cases = {
      {{1, 4, 5, 7},
       {{"num_output", 6},
        {"kernel_size", 3},
        {"stride", 2},
        {"pad", 1},
        {"group", 2},
        {"output_pad", 1}}},
      {{3, 3, 4, 4},
       {{"num_output", 3},
        {"kernel_h", 2},
        {"kernel_w", 3},
        {"stride_h", 1},
        {"stride_w", 2},
        {"dilation", 2},
        {"group", 3}}},
      {{1, 2, 3, 3},
       {{"num_output", 4}, {"kernel_size", 4}, {"stride", 3}, {"pad", 2}, {"bias_term", false}}},
      {{3, 5, 1, 6},
       {{"num_output", 2},
        {"kernel_size", 1},
        {"pad_top", 0},
        {"pad_left", 0},
        {"pad_right", 2},
        {"pad_bottom", 0}}},
      {{1, 2, 3, 4},
       {{"num_output", 3},
        {"kernel_size", 3},
        {"stride", 2},
        {"dilation", 3},
        {"output_pad", 2},
        {"pad_top", 2},
        {"pad_left", 1},
        {"pad_bottom", 0},
        {"pad_right", 3}}},
  };
  uint32_t seed = 40;
  for (const DeconvCase& c : cases) {
    SCOPED_TRACE(Json(c.param).dump() + " on " + DimsToString(c.input));
    const int in_c = c.input[1];
    const int out = c.param.at("num_output").int_value();
    const int group = c.param.count("group") ? c.param.at("group").int_value() : 1;
    const int kh = c.param.count("kernel_h") ? c.param.at("kernel_h").int_value()
                                             : c.param.at("kernel_size").int_value();
    const int kw = c.param.count("kernel_w") ? c.param.at("kernel_w").int_value()
                                             : c.param.at("kernel_size").int_value();
    const bool bias = !c.param.count("bias_term");
    test::NetBuilder nb;
    nb.Input("x", c.input).Layer("deconv", "Deconvolution", {"x"}, {"y"}, c.param);
    const std::vector<int> wdims = {out, in_c / group, kh, kw};
    nb.Weight("deconv", "weight", wdims,
              test::RandomVector(out * in_c / group * kh * kw, ++seed, -0.7f, 0.5f));
    if (bias) nb.Weight("deconv", "bias", {out}, test::RandomVector(out, ++seed, -0.3f, 0.4f));

    // The output grid from the float layer's range on inputs in [-1, 2].
    std::unique_ptr<Net<float>> f = nb.Build();
    std::vector<float> x = test::RandomVector(f->GetInputData(0)->Count(0), ++seed, -1.0f, 2.0f);
    f->SetFloatInputData(x.data(), 0);
    f->ForwardAll();
    INT8Config config;
    config.addDataConfig("x", -1.0f, 2.0f);
    config.addDataConfig("y", f->GetOutputData(0)->GetMinValue(),
                         f->GetOutputData(0)->GetMaxValue());

    for (bool high_accuracy : {false, true}) {
      SCOPED_TRACE(high_accuracy ? "double" : "fixed point");
      auto net = BuildInt8(nb, &config, high_accuracy);
      FillRandomCodes(*net, ++seed);
      net->ForwardAll();
      Layer<unsigned char>* layer = net->GetLayers()[0];
      ASSERT_EQ(layer->GetUint8AttrDatas().count("weight"), 1u);
      const float x_scale = config.GetDataConfig("x")->getScale();
      const auto want = IslandCodes(nb, config, *net,
                                    [&](Net<float>& fn) { UseDequantized(fn, layer, x_scale); });
      EXPECT_LE(MaxCodeDifference(Codes(net->GetOutputData(0)), want[0]), 1);
    }
  }
}

TEST(DeconvolutionInt8, HandComputed) {
  // Weights 0, 1, 2, 3 are the codes 0, 85, 170, 255 on the grid of [0, 3];
  // the input and output have scale 1, so every output is x * w, an integer.
  test::NetBuilder nb;
  nb.Input("x", {1, 1, 2, 2})
      .Layer("deconv", "Deconvolution", {"x"}, {"y"},
             {{"num_output", 1}, {"kernel_size", 2}, {"stride", 2}, {"bias_term", false}})
      .Weight("deconv", "weight", {1, 1, 2, 2}, {0, 1, 2, 3});
  INT8Config config;
  config.addDataConfig("x", 0.0f, 255.0f);
  config.addDataConfig("y", 0.0f, 255.0f);
  auto net = BuildInt8(nb, &config);
  const uint8_t x[] = {1, 2, 3, 4};
  std::copy(x, x + 4, net->GetInputData(0)->GetCpuData());
  net->ForwardAll();
  EXPECT_EQ(Codes(net->GetOutputData(0)),
            (std::vector<uint8_t>{0, 1, 0, 2, 2, 3, 4, 6, 0, 3, 0, 4, 6, 9, 8, 12}));
}

TEST(DeconvolutionInt8, SavesAndLoadsCodes) {
  test::NetBuilder nb;
  nb.Input("x", {1, 2, 3, 3})
      .Layer("deconv", "Deconvolution", {"x"}, {"y"},
             {{"num_output", 4}, {"kernel_size", 3}, {"stride", 2}, {"pad", 1}})
      .Weight("deconv", "weight", {4, 2, 3, 3}, test::RandomVector(72, 3, -0.5f, 0.6f))
      .Weight("deconv", "bias", {4}, test::RandomVector(4, 4, -0.2f, 0.2f));
  INT8Config config;
  config.addDataConfig("x", -1.0f, 2.0f);
  config.addDataConfig("y", -2.0f, 2.0f);
  auto net = BuildInt8(nb, &config);
  FillRandomCodes(*net, 9);
  net->ForwardAll();
  const std::vector<uint8_t> first = Codes(net->GetOutputData(0));
  const std::string dir = test::TempDir("deconv_int8_io");
  net->SaveJson(dir + "/q.json");
  net->SaveWeights(dir + "/q.bin", false);
  std::unique_ptr<Net<unsigned char>> back(CreateQuantizedNet(dir + "/q.json", dir + "/q.bin"));
  ASSERT_NE(dynamic_cast<DeconvolutionInt8Layer*>(back->GetLayers()[0]), nullptr);
  std::copy(net->GetInputData(0)->GetCpuData(),
            net->GetInputData(0)->GetCpuData() + net->GetInputData(0)->Count(0),
            back->GetInputData(0)->GetCpuData());
  back->ForwardAll();
  EXPECT_EQ(Codes(back->GetOutputData(0)), first);
  EXPECT_EQ(Codes(back->GetLayers()[0]->GetUint8AttrDatas().at("weight")),
            Codes(net->GetLayers()[0]->GetUint8AttrDatas().at("weight")));
}

}  // namespace
}  // namespace qzdl
