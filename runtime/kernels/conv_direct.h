// Direct convolution for few input channels (the first layer of an image
// net): vectors of 16 output channels, one broadcast input value per tap
// and pixel. Reads NCHW; writes NCHW or 16-channel blocks (see
// conv_pointwise.h), so that the layer after an image stem can read blocks.
//
// Every output is the bias (or 0) followed by the taps in (input channel,
// ky, kx) order that fall inside the input, each added with a fused
// multiply-add where the CPU has one: the same bits in both output layouts,
// for any thread count.
#pragma once

#include <cstdint>

#include "runtime/data.h"
#include "runtime/kernels/conv_geometry.h"
#include "runtime/kernels/epilogue.h"

namespace qzdl {

class DirectConvKernel {
 public:
  // One group, at most kMaxInput input channels, sizes that fit an int.
  static constexpr int kMaxInput = 4;
  static bool Applies(const ConvGeometry& g);
  void Configure(const ConvGeometry& g, bool bias);
  // x [N, C, H, W]; w [M, C, kh, kw]; b [M] or null; y NCHW or, with
  // `y_blocked` (M % 16 == 0), in blocks; image n at n * y_image floats (0:
  // dense). `e` is applied to each output; in blocked output it must not
  // hold a per-channel affine.
  void Run(const float* x, const float* w, const float* b, bool same_weights, float* y,
           bool y_blocked, int64_t y_image, const Epilogue& e);

 private:
  ConvGeometry g_;
  bool bias_ = false;
  int band_ = 0, bands_ = 0;  // output rows per work item, and items per plane
  bool packed_valid_ = false;
  AlignedBuffer packed_;  // weights [M / 16 rounded up][C][kh][kw][16], then the bias
};

}  // namespace qzdl
