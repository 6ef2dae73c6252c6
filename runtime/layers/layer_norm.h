// "LayerNorm": every row of the trailing axes from `axis` on is normalized
// by its own mean and variance, then scaled and shifted element-wise:
//   y = (x - mean) / sqrt(var + eps) * scale[i] + bias[i]
// with i the position within the row (the weights have the row's shape,
// flattened).
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
class LayerNormLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  bool InPlaceSafe() const override { return true; }
  float Eps() const { return eps_; }

 protected:
  void Run() override;

 private:
  int axis_param_ = -1;
  float eps_ = 1e-5f;
  bool bias_term_ = true;
  // Set at Reshape: rows of `inner_` elements.
  int64_t inner_ = 0;
};

}  // namespace qzdl
