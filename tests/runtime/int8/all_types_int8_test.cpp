// Every layer type of the float registry works in an 8-bit net: a one-layer
// net of each type (default params, or a small param set where a type needs
// one) is built, runs, and gives the float island's output (float layer on
// the dequantized inputs, quantized with CodeOf) within one code; the
// layers with quantized weights are only checked to run.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "int8_layer_support.h"
#include "runtime/layer_registry.h"

namespace qzdl {
namespace {

using namespace test_int8;
using json11::Json;

struct TypeCase {
  std::vector<std::vector<int>> inputs = {{2, 3, 4, 5}};
  Json::object param;
  int outputs = 1;
  bool layer_takes_inputs = true;  // false: the net's inputs are not the layer's
};

// The types that need params or inputs of their own.
std::map<std::string, TypeCase> Cases() {
  std::map<std::string, TypeCase> c;
  c["Convolution"].param = {{"num_output", 4}, {"kernel_size", 3}, {"pad", 1}};
  c["Deconvolution"].param = {{"num_output", 4}, {"kernel_size", 3}, {"stride", 2}};
  c["InnerProduct"].param = {{"num_output", 5}};
  c["ReLUX"].param = {{"threshold", 1.0}};
  c["UnaryOp"].param = {{"operation", "exp"}};
  c["Lrn"].param = {{"size", 3}};
  c["Gather"].param = {{"axis", 1}, {"indices", Json::array{2, 0}}};
  c["Tile"].param = {{"repeats", Json::array{1, 2, 1, 1}}};
  c["Crop"].param = {
      {"starts", Json::array{1}}, {"ends", Json::array{3}}, {"axes", Json::array{2}}};
  c["Squeeze"].inputs = {{2, 3, 1, 5}};
  c["Squeeze"].param = {{"axes", Json::array{2}}};
  c["ExpandDims"].param = {{"axes", Json::array{1}}};
  c["Constant"].layer_takes_inputs = false;
  c["Constant"].param = {{"dims", Json::array{2, 3}}};
  c["Eltwise"].inputs = {{2, 3, 4, 5}, {2, 3, 4, 5}};
  c["BroadcastOp"].inputs = {{2, 3, 4, 5}, {4, 1}};
  c["BroadcastOp"].param = {{"operation", "add"}};
  c["BinaryOp"].inputs = {{2, 3, 4, 5}, {4, 1}};
  c["SoftmaxMask"].inputs = {{2, 3, 4, 5}, {2, 1, 1, 5}};
  c["Conv3D"].inputs = {{1, 2, 3, 4, 5}};
  c["Conv3D"].param = {{"num_output", 3}, {"kernel_d", 2}, {"kernel_h", 2}, {"kernel_w", 2}};
  c["ConvInteger"].param = {
      {"num_output", 4}, {"kernel_size", 3}, {"pad", 1}, {"bias_term", false}};
  c["Gemm"].inputs = {{4, 6}};
  c["Gemm"].param = {{"num_output", 3}, {"transB", true}};
  c["SoftmaxMask"].param = {{"axis", 3}};
  c["BinaryOp"].param = {{"operation", "sub"}};
  // Attention-like: heads [2, 3] broadcast against one [3], b transposed.
  c["BatchMatrixMul"].inputs = {{2, 3, 4, 5}, {3, 6, 5}};
  c["BatchMatrixMul"].param = {{"transpose_b", true}};
  c["Concat"].inputs = {{2, 3, 4, 5}, {2, 1, 4, 5}};
  c["DetectionOutput"].inputs = {{2, 24}, {2, 18}, {1, 2, 24}};
  c["DetectionOutput"].param = {{"num_classes", 3}};
  c["PriorBox"].inputs = {{1, 3, 4, 5}, {1, 3, 32, 40}};
  c["PriorBox"].param = {{"min_size", 8.0}};
  c["Permute"].param = {{"order", Json::array{0, 2, 3, 1}}};
  c["Reshape"].param = {{"shapes", Json::array{0, -1}}};
  c["Slice"].param = {{"axis", 1}, {"slice_point", Json::array{1}}};
  c["Slice"].outputs = 2;
  c["Split"].outputs = 2;
  c["Upsample"].param = {{"scale", 2}};
  c["Padding"].param = {{"pad_top", 1}, {"pad_left", 2}};
  c["ZeroPadding"].param = {{"pad_bottom", 1}, {"pad_right", 1}};
  c["ShuffleChannel"].param = {{"group", 3}};
  c["DepthToSpace"].inputs = {{2, 4, 3, 5}};
  c["DepthToSpace"].param = {{"blocksize", 2}};
  c["Pooling"].param = {{"kernel_size", 2}, {"stride", 2}};
  c["Reduce"].param = {{"operation", "max"}, {"axes", Json::array{1}}};
  c["ReduceArgs"].param = {{"operation", "argmax"}, {"axis", 1}};
  c["LayerNorm"].param = {{"axis", 2}};
  c["DynamicQuantizeLinear"].outputs = 3;
  for (const char* lstm : {"LSTM", "BiLSTM", "Gru"}) {
    c[lstm].inputs = {{3, 2, 4}};
    c[lstm].param = {{"hidden_size", 3}};
  }
  c["SpaceToDepth"].inputs = {{2, 3, 4, 6}};
  c["SpaceToDepth"].param = {{"blocksize", 2}};
  c["ShufflePixel"].inputs = {{2, 8, 3, 5}};
  c["ShufflePixel"].param = {{"upscale_factor", 2}};
  c["ReflectionPadding"].param = {{"pad_top", 1}, {"pad_right", 2}};
  c["ReplicationPadding"].param = {{"pad_bottom", 2}, {"pad_left", 1}};
  c["Flip"].param = {{"axes", Json::array{1, 3}}};
  c["Repeat"].param = {{"axis", 2}, {"repeats", 2}};
  c["Arange"].layer_takes_inputs = false;
  c["Arange"].param = {{"start", -1.5}, {"end", 3.0}, {"step", 0.5}};
  c["Mean"].inputs = {{2, 3, 4, 5}, {2, 3, 4, 5}, {2, 3, 4, 5}};
  return c;
}

// Integer layers with quantized weights: not the island's arithmetic.
bool HasQuantizedWeights(const std::string& type) {
  return type == "Convolution" || type == "Deconvolution" || type == "InnerProduct";
}

TEST(Int8AllTypes, EveryRegisteredTypeRunsInAnEightBitNet) {
  const std::map<std::string, TypeCase> cases = Cases();
  int tested = 0;
  for (const std::string& type : RegisteredLayerTypes<unsigned char>()) {
    if (type.rfind("Test", 0) == 0) continue;  // registered by other tests
    SCOPED_TRACE(type);
    const auto it = cases.find(type);
    const TypeCase c = it == cases.end() ? TypeCase() : it->second;
    test::NetBuilder nb;
    std::vector<std::string> ins, outs;
    for (size_t k = 0; k < c.inputs.size(); ++k) {
      ins.push_back("x" + std::to_string(k));
      nb.Input(ins.back(), c.inputs[k]);
    }
    for (int k = 0; k < c.outputs; ++k) outs.push_back("y" + std::to_string(k));
    nb.Layer("layer", type, c.layer_takes_inputs ? ins : std::vector<std::string>{}, outs, c.param);
    INT8Config config;
    for (const std::string& name : ins) config.addDataConfig(name, -1.0f, 2.0f);
    try {
      // The weights the layer asks for, positive (variances, scales).
      {
        auto probe = BuildInt8(nb, &config);
        uint32_t seed = 1;
        for (const Data<unsigned char>* w : probe->GetLayers()[0]->GetWeights()) {
          const std::string blob = w->GetName().substr(std::string("layer/").size());
          nb.Weight("layer", blob, w->GetDims(),
                    test::RandomVector(w->Count(0), ++seed, 0.1f, 0.9f));
        }
      }
      auto net = BuildInt8(nb, &config);
      FillRandomCodes(*net, 31);
      // Output grids from the float layer on the dequantized inputs.
      {
        std::unique_ptr<Net<float>> f = nb.Build();
        for (int i = 0; i < net->GetInputCount(); ++i) {
          const Data<unsigned char>* x = net->GetInputData(i);
          std::vector<float> real;
          for (int64_t k = 0; k < x->Count(0); ++k)
            real.push_back(config.GetDataConfig(x->GetName())->invQuantization(x->GetCpuData()[k]));
          f->SetFloatInputData(real.data(), i);
        }
        f->ForwardAll();
        for (int k = 0; k < f->GetOutCount(); ++k) {
          const Data<float>* y = f->GetOutputData(k);
          config.addDataConfig(y->GetName(), y->Count(0) ? y->GetMinValue() : 0.0f,
                               y->Count(0) ? y->GetMaxValue() : 1.0f);
        }
      }
      net->ForwardAll();
      const auto want = IslandCodes(nb, config, *net);
      ASSERT_EQ(int(want.size()), net->GetOutCount());
      for (int k = 0; k < net->GetOutCount(); ++k) {
        const std::vector<uint8_t> got = Codes(net->GetOutputData(k));
        ASSERT_EQ(got.size(), want[k].size());
        if (!HasQuantizedWeights(type)) {
          EXPECT_LE(MaxCodeDifference(got, want[k]), 1);
        }
      }
      ++tested;
    } catch (const std::exception& e) {
      ADD_FAILURE() << "type " << type << ": " << e.what()
                    << " (give it a case in all_types_int8_test.cpp)";
    }
  }
  EXPECT_GE(tested, 50);
}

}  // namespace
}  // namespace qzdl
