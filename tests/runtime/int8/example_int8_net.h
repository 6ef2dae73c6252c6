// The example net as a float net and as an 8-bit net sharing a
// configuration made from the float net's own tensor ranges on a fixed
// input: the fixture of the 8-bit net tests.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/create_net.h"
#include "runtime/int8/grid.h"
#include "runtime/json11.h"
#include "runtime/net.h"
#include "support/net_builder.h"
#include "support/tensor_ranges.h"

namespace qzdl {
namespace test_int8 {

inline const std::string kJson = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn/net.json";
inline const std::string kWeights = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn/net.bin";
constexpr int kBatch = 4;

inline double Cosine(const std::vector<float>& a, const std::vector<float>& b) {
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < a.size(); ++i) ab += a[i] * b[i], aa += a[i] * a[i], bb += b[i] * b[i];
  return ab / std::sqrt(aa * bb);
}

class Int8NetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    float_net_.reset(CreateNet<float>(kJson, kWeights, false, false, 0, 1));
    float_net_->ReshapeBatchNum(kBatch, 0);
    input_.resize(float_net_->GetInputData(0)->Count(0));
    for (size_t i = 0; i < input_.size(); ++i) input_[i] = 1.5f * std::sin(0.013f * i) + 0.2f;
    // Ranges of every tensor over every layer that writes it (in place too).
    float_net_->SetFloatInputData(input_.data(), 0);
    test::TensorRanges seen;
    seen.Run(*float_net_);
    const auto& ranges = seen.Ranges();
    for (const auto& kv : ranges)
      config_.addDataConfig(kv.first, kv.second.first, kv.second.second);
    const float* y = float_net_->GetFloatOutputData(0);
    want_.assign(y, y + float_net_->GetOutputData(0)->Count(0));

    std::string error;
    const json11::Json desc = json11::Json::parse(test::ReadFile(kJson), error);
    ASSERT_EQ(error, "");
    int8_net_ = std::make_unique<Net<unsigned char>>(desc, "int8", nullptr);
    int8_net_->SetInt8Config(&config_);
    int8_net_->LoadWeights(kWeights);
    int8_net_->ReshapeBatchNum(kBatch, 0);
  }

  // The 8-bit net's output on the input, dequantized on its grid.
  std::vector<float> Run8() {
    int8_net_->SetFloatInputData(input_.data(), 0);
    int8_net_->ForwardAll();
    const Data<unsigned char>* y = int8_net_->GetOutputData(0);
    const QuantizationConfig* grid = config_.GetDataConfig(y->GetName());
    std::vector<float> got;
    for (int64_t i = 0; i < y->Count(0); ++i) {
      got.push_back(RealOf(y->GetCpuData()[i], grid->getScale(), grid->getZeroPoint()));
    }
    return got;
  }

  std::unique_ptr<Net<float>> float_net_;
  std::unique_ptr<Net<unsigned char>> int8_net_;
  INT8Config config_;
  std::vector<float> input_, want_;
};

}  // namespace test_int8
}  // namespace qzdl
