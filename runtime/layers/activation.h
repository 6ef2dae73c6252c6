// Element-wise activations.
#pragma once

#include "runtime/layer.h"

namespace qzdl {

// "ReLU": y = x > 0 ? x : negative_slope * x.
template <typename T>
class ReluLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
  float NegativeSlope() const { return negative_slope_; }

 protected:
  void Run() override;

 private:
  float negative_slope_ = 0.0f;
};

}  // namespace qzdl
