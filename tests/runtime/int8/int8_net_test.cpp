// The 8-bit net, built from the same description as the float net and
// sharing one configuration: the example net, with a configuration made from
// the float net's own tensor ranges, computes outputs close to the float
// net's, and sees a change of the configuration at its next forward.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/create_net.h"
#include "runtime/int8/float_island_layer.h"
#include "runtime/int8/grid.h"
#include "runtime/json11.h"
#include "runtime/net.h"
#include "example_int8_net.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

using namespace test_int8;

TEST_F(Int8NetTest, SameLayersAndTensorsAsTheFloatNet) {
  ASSERT_EQ(int8_net_->GetLayers().size(), float_net_->GetLayers().size());
  for (size_t i = 0; i < float_net_->GetLayers().size(); ++i) {
    Layer<float>* f = float_net_->GetLayers()[i];
    Layer<unsigned char>* q = int8_net_->GetLayers()[i];
    EXPECT_EQ(q->GetName(), f->GetName());
    EXPECT_EQ(q->GetType(), f->GetType());
    EXPECT_EQ(q->GetTypeDetail(), f->GetTypeDetail());
    ASSERT_EQ(q->GetOutputs().size(), f->GetOutputs().size());
    for (size_t k = 0; k < f->GetOutputs().size(); ++k) {
      EXPECT_EQ(q->GetOutputs()[k]->GetName(), f->GetOutputs()[k]->GetName());
      EXPECT_EQ(q->GetOutputs()[k]->GetDims(), f->GetOutputs()[k]->GetDims());
      EXPECT_EQ(q->GetOutputs()[k]->GetDataType(), "int8");
    }
  }
  EXPECT_EQ(int8_net_->GetInputData(0)->GetDataType(), "int8");
}

TEST_F(Int8NetTest, OutputCloseToTheFloatNet) {
  const std::vector<float> got = Run8();
  ASSERT_EQ(got.size(), want_.size());
  const double cosine = Cosine(got, want_);
  RecordProperty("cosine", std::to_string(cosine));
  std::printf("8-bit net against float on the example net: cosine %.6f\n", cosine);
  EXPECT_GE(cosine, 0.99);
}

TEST_F(Int8NetTest, InputsAreCodesOnTheirGrid) {
  int8_net_->SetFloatInputData(input_.data(), 0);
  const Data<unsigned char>* x = int8_net_->GetInputData(0);
  const QuantizationConfig* grid = config_.GetDataConfig(x->GetName());
  for (int64_t i = 0; i < x->Count(0); ++i) {
    ASSERT_EQ(x->GetCpuData()[i], CodeOf(input_[i], grid->getScale(), grid->getZeroPoint())) << i;
  }
}

TEST_F(Int8NetTest, AConfigurationChangeIsSeenAtTheNextForward) {
  const std::vector<float> before = Run8();
  // A grid four times coarser for the first convolution's output.
  QuantizationConfig* conv1 = config_.GetDataConfig("conv1");
  conv1->update(conv1->getMin() * 4, conv1->getMax() * 4);
  const std::vector<float> after = Run8();
  EXPECT_NE(before, after);
  EXPECT_LT(Cosine(after, want_), Cosine(before, want_));
}

TEST_F(Int8NetTest, FloatTensorsKeepFloats) {
  // A "float" input holds the values themselves, four bytes an element.
  Data<unsigned char>* x = int8_net_->GetInputData(0);
  x->ChangeDataType("float");
  x->Reallocate();
  int8_net_->SetFloatInputData(input_.data(), 0);
  EXPECT_EQ(x->GetSize(), static_cast<int64_t>(input_.size() * sizeof(float)));
  EXPECT_EQ(reinterpret_cast<const float*>(x->GetCpuData())[5], input_[5]);
  // The first layer reads the floats as they are, so the result is at least
  // as close to the float net as with codes.
  const std::vector<float> from_floats = Run8();
  x->ChangeDataType("int8");
  x->Reallocate();
  const std::vector<float> from_codes = Run8();
  EXPECT_GE(Cosine(from_floats, want_), 0.99);
  EXPECT_NE(from_floats, from_codes);
}

// The first convolution's own output codes after ForwardFromTo(0, 1).
std::vector<unsigned char> Conv1Codes(Net<unsigned char>* net, const std::vector<float>& input) {
  net->SetFloatInputData(const_cast<float*>(input.data()), 0);
  net->ForwardFromTo(0, 1, false);
  const Data<unsigned char>* y = net->GetLayers()[0]->GetOutputs()[0];
  return std::vector<unsigned char>(y->GetCpuData(), y->GetCpuData() + y->Count(0));
}

void ClearAttributes(Layer<unsigned char>* layer) { layer->DeleteAttrDatas(); }

TEST_F(Int8NetTest, ConvolutionAttributesAreRebuiltOnlyAfterClearing) {
  Layer<unsigned char>* conv1 = int8_net_->GetLayers()[0];
  ASSERT_EQ(conv1->GetType(), "Convolution");
  EXPECT_TRUE(conv1->GetUint8AttrDatas().empty());
  const std::vector<unsigned char> first = Conv1Codes(int8_net_.get(), input_);
  ASSERT_EQ(conv1->GetUint8AttrDatas().count("weight"), 1u);
  for (const char* name : {"weight_zero", "bias", "multiplier", "shift"}) {
    EXPECT_EQ(conv1->GetInt32AttrDatas().count(name), 1u) << name;
    EXPECT_EQ(conv1->GetInt32AttrDatas()[name]->Count(0), 16) << name;
  }
  const Data<unsigned char>* weight = conv1->GetUint8AttrDatas()["weight"];
  const unsigned char* weight_codes = weight->GetCpuData();

  // Present attributes are used as they are: no rebuild, same storage.
  QuantizationConfig* grid = config_.GetDataConfig("conv1");
  grid->update(grid->getMin() * 2, grid->getMax() * 2);
  EXPECT_EQ(Conv1Codes(int8_net_.get(), input_), first);
  EXPECT_EQ(conv1->GetUint8AttrDatas()["weight"], weight);
  EXPECT_EQ(conv1->GetUint8AttrDatas()["weight"]->GetCpuData(), weight_codes);

  // Cleared, they are made again from the changed configuration.
  ClearAttributes(conv1);
  const std::vector<unsigned char> again = Conv1Codes(int8_net_.get(), input_);
  EXPECT_NE(again, first);
  EXPECT_EQ(conv1->GetUint8AttrDatas().count("weight"), 1u);
}

TEST_F(Int8NetTest, ConvolutionWithinOneCodeOfFloatOnDequantizedValues) {
  for (bool high_accuracy : {false, true}) {
    if (high_accuracy) {
      int8_net_->SetHighAccuracyDoubleMultiplier();
      ClearAttributes(int8_net_->GetLayers()[0]);
    }
    const std::vector<unsigned char> codes = Conv1Codes(int8_net_.get(), input_);
    Layer<unsigned char>* conv1 = int8_net_->GetLayers()[0];
    const QuantizationConfig* xg = config_.GetDataConfig("data");
    const QuantizationConfig* yg = config_.GetDataConfig("conv1");
    // Dequantized input, dequantized weights and bias, the float kernel.
    const Data<unsigned char>* x = int8_net_->GetInputData(0);
    std::vector<float> xr;
    for (int64_t i = 0; i < x->Count(0); ++i)
      xr.push_back(RealOf(x->GetCpuData()[i], xg->getScale(), xg->getZeroPoint()));
    const Data<unsigned char>* w = conv1->GetUint8AttrDatas()["weight"];
    const int per = static_cast<int>(w->Count(1));
    std::vector<float> wr, br;
    for (int o = 0; o < 16; ++o) {
      const float s = conv1->GetFloatAttrDatas()["weight_scale"]->GetCpuData()[o];
      const int z = conv1->GetInt32AttrDatas()["weight_zero"]->GetCpuData()[o];
      for (int k = 0; k < per; ++k) wr.push_back(RealOf(w->GetCpuData()[o * per + k], s, z));
      br.push_back(static_cast<float>(conv1->GetInt32AttrDatas()["bias"]->GetCpuData()[o] *
                                      double(xg->getScale()) * s));
    }
    auto* twin = static_cast<FloatIslandLayer*>(conv1)->Twin();
    ASSERT_NE(twin, nullptr);
    const Data<float>* out = float_net_->GetLayers()[0]->GetOutputs()[0];
    std::vector<float> want(out->Count(0));
    float_net_->GetLayers()[0]->GetWeights()[0]->ShareData(wr.data());
    float_net_->GetLayers()[0]->GetWeights()[1]->ShareData(br.data());
    float_net_->SetFloatInputData(xr.data(), 0);
    float_net_->ForwardFromTo(0, 1, false);
    int worst = 0;
    for (size_t i = 0; i < codes.size(); ++i) {
      const int want_code = CodeOf(out->GetCpuData()[i], yg->getScale(), yg->getZeroPoint());
      worst = std::max(worst, std::abs(int(codes[i]) - want_code));
    }
    EXPECT_LE(worst, 1) << (high_accuracy ? "double" : "fixed point");
  }
}

TEST(Int8Net, WeightsFileErrorsNameTheFile) {
  std::string error;
  const json11::Json desc = json11::Json::parse(test::ReadFile(kJson), error);
  Net<unsigned char> net(desc, "int8", nullptr);
  try {
    net.LoadWeights("/no/such/weights.bin");
    FAIL() << "no error";
  } catch (const NetFormatError& e) {
    EXPECT_EQ(std::string(e.what()),
              "Model file \"/no/such/weights.bin\": cannot be read: No such file or directory");
  }
}

}  // namespace
}  // namespace qzdl
