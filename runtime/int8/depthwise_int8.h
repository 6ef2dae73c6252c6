// Depthwise convolution on codes, in integers, one pass per plane.
//
// Each output channel o reads one input channel (o / multiplier). Per plane
// the input codes are copied once into a padded plane whose pads hold the
// input zero point (real zero), split by stride phases of rows and columns
// so that every tap reads a contiguous run over several output rows; the
// centred weights w - zw[o] (int32) are taken from the codes per plane.
// A run of sums
//
//   s = -zx * sum_t w_t + sum_t x_t * w_t
//
// is added up in int32 and requantized at once with the bias (in int64,
// saturated to int32 as the reference does). Exact by construction: with
// 0 <= x <= 255 and |w - zw| <= 255 every term lies within 65025, so the
// start value and every partial sum of a window of at most kMaxTaps taps lie
// within 2 * 65025 * kMaxTaps < 2^31, and s equals sum_t (x_t - zx) * w_t of
// the reference, whose padding taps add nothing (x_t = zx there).
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/int8/reference.h"
#include "runtime/kernels/conv_geometry.h"

namespace qzdl {

class DepthwiseCodesKernel {
 public:
  static constexpr int64_t kMaxTaps = 16384;
  // A convolution with one input channel per group, of at most kMaxTaps taps.
  static bool Fits(const ConvGeometry& g);
  // Sizes the per-thread buffers for `threads` threads. `intrinsics` false
  // keeps the portable loops where the CPU would take the AVX-512 ones
  // (the same bits; for tests).
  void Reshape(const ConvGeometry& g, int threads, bool intrinsics = true);
  // y = requantized bias + sum (x - x_zero) * (w - zw); w holds the weight
  // codes [out_c][kernel_h * kernel_w]. `table`, when not null, maps every
  // output code (256 entries, one table for all channels).
  void Run(const uint8_t* x, int32_t x_zero, const uint8_t* w, const ChannelQuantization& q,
           uint8_t* y, const uint8_t* table = nullptr);

 private:
  struct Slot {
    std::vector<uint8_t> plane, codes;
    std::vector<int32_t> row;
  };
  ConvGeometry g_;
  bool intrinsics_ = true;
  int padded_h_ = 0, padded_w_ = 0, sub_h_ = 0, sub_w_ = 0, rows_per_block_ = 1;
  std::vector<int64_t> taps_;  // each tap's offset in the padded plane
  // Taps whose offsets lie within four codes of each other, summed by one
  // u8 x s8 dot product (VNNI): the first offset and the tap (or -1) of
  // each of the four bytes.
  struct TapQuad {
    int64_t offset = 0;
    int tap[4] = {-1, -1, -1, -1};
  };
  std::vector<TapQuad> quads_;
  std::vector<int64_t> quad_offsets_;
  // Per channel, made at each run: centred weights [out_c][taps], split
  // quads [out_c][quads][2], start values, whether the dot products run.
  std::vector<int32_t> weights_, quad_weights_, start_;
  std::vector<uint8_t> dot_;
  std::vector<Slot> slots_;
};

}  // namespace qzdl
