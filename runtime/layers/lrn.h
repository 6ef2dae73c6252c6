// "Lrn": local response normalization across channels (axis 1).
//   y = x / (bias + alpha / size * sum(x^2 over the window))^beta
// The window of channel c runs from c - floor((size - 1) / 2) to
// c + ceil((size - 1) / 2), clipped to the channels that exist.
#pragma once

#include <cstdint>

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
class LrnLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int Size() const { return size_; }
  float Alpha() const { return alpha_; }
  float Beta() const { return beta_; }
  float Bias() const { return bias_; }

 protected:
  void Run() override;

 private:
  int size_ = 1;
  float alpha_ = 1e-4f;
  float beta_ = 0.75f;
  float bias_ = 1.0f;
  // Resolved at Reshape: items x channels x positions.
  int64_t items_ = 1, channels_ = 1, spatial_ = 1;
};

}  // namespace qzdl
