// Per-tensor and per-channel quantization records of a net.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qzdl {

// A range [min, max] and the unsigned 8-bit grid that covers it. The grid is
// derived from the range widened to contain 0: scale = range / 255 and the
// zero point is -lo / scale rounded half away from zero, clamped to 0..255.
class QuantizationConfig {
 public:
  QuantizationConfig() { Recompute(); }
  QuantizationConfig(float min, float max) : min_(min), max_(max) { Recompute(); }

  float getMin() const { return min_; }
  float getMax() const { return max_; }
  float getScale() const { return scale_; }
  unsigned char getZeroPoint() const { return zero_; }

  // Widens the range so that it holds `value`; never narrows it.
  void update(const float& value);
  // Sets the range to exactly these bounds.
  void update(const float& min, const float& max);
  // The real value that `code` stands for: (code - zero) * scale.
  float invQuantization(const unsigned char& code) const;

  // The grid rule on its own, for 8 bits.
  static void ScaleAndZero(float min, float max, float& scale, int& zero);

 private:
  void Recompute();

  float min_ = 0.0f;
  float max_ = 0.0f;
  float scale_ = 0.0f;
  unsigned char zero_ = 0;
};

class INT8Config {
 public:
  // Live record of one tensor; a name that was never added gets an empty
  // record (range 0..0) so that the pointer is always valid.
  QuantizationConfig* GetDataConfig(const std::string& dataName);
  bool HasDataConfig(const std::string& dataName) const;
  void addDataConfig(const std::string& dataName, const float& min, const float& max);
  void addWeightConfig(const std::string& layerName, int weightId, int channel, const float& min,
                       const float& max);
  // Per-channel records of one weight of a layer; null if none were added.
  std::vector<QuantizationConfig>* GetWeightConfig(const std::string& layerName, int weightId);

  const std::map<std::string, QuantizationConfig>& DataConfigs() const { return data_; }
  const std::map<std::pair<std::string, int>, std::vector<QuantizationConfig>>& WeightConfigs()
      const {
    return weights_;
  }

 private:
  std::map<std::string, QuantizationConfig> data_;
  std::map<std::pair<std::string, int>, std::vector<QuantizationConfig>> weights_;
};

}  // namespace qzdl
