// "Conv3D": convolution over depth, height and width of [N, C, D, H, W]
// data, with groups, strides, dilations and zero padding on each side.
#pragma once

#include <array>
#include <cstdint>

#include "runtime/layer.h"

namespace qzdl {

// Weights: "weight" [num_output, C / group, kernel_d, kernel_h, kernel_w],
// with bias_term "bias" [num_output].
template <typename T>
class Conv3DLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;

 protected:
  void Run() override;

 private:
  int num_output_ = 0, group_ = 1;
  bool bias_term_ = true;
  // Per axis d, h, w.
  std::array<int, 3> kernel_{}, stride_{}, dilation_{}, pad_begin_{}, pad_end_{};
  // Set at Reshape.
  int channels_ = 0;
  std::array<int, 3> in_{}, out_{};
};

}  // namespace qzdl
