// Spatial resizing of NCHW data.
#pragma once

#include <string>
#include <vector>

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// "Upsample": resizes H and W, by factors (`scale`, or `scale_h` and
// `scale_w`: out = floor(in * factor)) or to a size (`out_h` and `out_w`).
// Despite the name the output may also be smaller.
//
// Source coordinates always use the ratio in/out of the actual sizes, in
// single precision, as PyTorch's F.interpolate does when given a size:
//   nearest:  src = min(floor(dst * (in / out)), in - 1)
//   bilinear, align_corners false (half-pixel):
//             src = max((dst + 0.5) * (in / out) - 0.5, 0)
//   bilinear, align_corners true:
//             src = dst * (in - 1) / (out - 1)   (0 when out is 1)
// Bilinear weights use i0 = floor(src), i1 = min(i0 + 1, in - 1),
// l1 = src - i0, l0 = 1 - l1, and the value
//   l0_h * (l0_w * x[i0h][i0w] + l1_w * x[i0h][i1w]) +
//   l1_h * (l0_w * x[i1h][i0w] + l1_w * x[i1h][i1w]).
// With `weight_products` (bilinear, half-pixel) the arithmetic is ONNX
// Runtime's Resize instead: src = (dst + 0.5) / scale - 0.5 clamped to
// [0, in - 1], l0 = |src - i1|, l1 = |src - i0| (1/2 each where i0 == i1),
// and the four pixels times the products of their weights, summed in the
// order i0h i0w, i0h i1w, i1h i0w, i1h i1w. Nets that quantize right after a
// resize (dynamically quantized ones) then see the same codes.
template <typename T>
class UpsampleLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::string GetTypeDetail() override;
  const std::string& Mode() const { return mode_; }
  // Only the nearest mode moves elements; bilinear computes.
  bool MovesElements() const override { return mode_ == "nearest"; }
  bool AlignCorners() const { return align_corners_; }

 protected:
  void Run() override;

 private:
  // The nearest mode's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  template <bool kProducts>
  void RunLinear(const float* x, float* y) const;
  std::string mode_ = "nearest";
  bool align_corners_ = false;
  bool weight_products_ = false;
  // Either factors (> 0) or a fixed output size (> 0).
  double scale_h_ = 0.0;
  double scale_w_ = 0.0;
  int out_h_ = 0;
  int out_w_ = 0;
  // Per output row / column: the two source positions and their weights
  // (nearest uses only the first position).
  std::vector<int> y0_, y1_, x0_, x1_;
  std::vector<float> wy0_, wy1_, wx0_, wx1_;
};

}  // namespace qzdl
