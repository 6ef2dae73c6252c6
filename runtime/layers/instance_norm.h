// "InstanceNormalization": every (item, channel) plane is normalized by its
// own mean and variance, then scaled and shifted per channel:
//   y = (x - mean[n, c]) / sqrt(var[n, c] + eps) * scale[c] + bias[c]
// Channels are axis 1; the plane is all the axes after it (a single element
// for 2-d input).
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
class InstanceNormalizationLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  bool InPlaceSafe() const override { return true; }
  float Eps() const { return eps_; }

 protected:
  void Run() override;

 private:
  float eps_ = 1e-5f;
  int channels_ = 0;
};

}  // namespace qzdl
