#include "runtime/quant_config.h"

#include <cmath>

#include "runtime/int8/grid.h"

namespace qzdl {

void QuantizationConfig::ScaleAndZero(float min, float max, float& scale, int& zero) {
  GridOfRangeWithZero(min, max, 255.0f, scale, zero);
}

void QuantizationConfig::Recompute() {
  int zero = 0;
  ScaleAndZero(min_, max_, scale_, zero);
  zero_ = static_cast<unsigned char>(zero);
}

void QuantizationConfig::update(const float& value) {
  if (value < min_) min_ = value;
  if (value > max_) max_ = value;
  Recompute();
}

void QuantizationConfig::update(const float& min, const float& max) {
  min_ = min;
  max_ = max;
  Recompute();
}

float QuantizationConfig::invQuantization(const unsigned char& code) const {
  return static_cast<float>(static_cast<int>(code) - static_cast<int>(zero_)) * scale_;
}

QuantizationConfig* INT8Config::GetDataConfig(const std::string& dataName) {
  return &data_[dataName];
}

bool INT8Config::HasDataConfig(const std::string& dataName) const {
  return data_.count(dataName) != 0;
}

void INT8Config::addDataConfig(const std::string& dataName, const float& min, const float& max) {
  data_[dataName] = QuantizationConfig(min, max);
}

void INT8Config::addWeightConfig(const std::string& layerName, int weightId, int channel,
                                 const float& min, const float& max) {
  if (channel < 0) return;
  auto& channels = weights_[{layerName, weightId}];
  if (channels.size() <= static_cast<size_t>(channel)) channels.resize(channel + 1);
  channels[channel] = QuantizationConfig(min, max);
}

std::vector<QuantizationConfig>* INT8Config::GetWeightConfig(const std::string& layerName,
                                                             int weightId) {
  auto it = weights_.find({layerName, weightId});
  return it == weights_.end() ? nullptr : &it->second;
}

}  // namespace qzdl
