// Direct 1x1 convolution (stride 1, no padding, one group) on NCHW data or
// on 16-channel blocks.
//
// The blocked layout of an image is [C / 16][H][W][16]: channel c of pixel
// p at (c / 16) * H * W * 16 + p * 16 + c % 16, the same size as NCHW when
// C is a multiple of 16. Convolutions that agree on it hand tensors to one
// another without reordering (Layer::InputBlock / OutputBlock), as oneDNN's
// nChw16c, which is the same layout.
//
// Every output element is the bias (or 0) followed by the products of its
// input channels in channel order, each added with a fused multiply-add
// where the CPU has one: the same bits for every input and output layout,
// thread count and tiling. The weights are packed per 16 output channels at
// a run unless the caller promises they are unchanged.
#pragma once

#include <cstdint>

#include "runtime/data.h"
#include "runtime/kernels/conv_geometry.h"
#include "runtime/kernels/epilogue.h"

namespace qzdl {

constexpr int kChannelBlock = 16;

class PointwiseKernel {
 public:
  // 1x1, stride 1, unpadded, one group, with a plane and channel counts
  // that fit an int.
  static bool Applies(const ConvGeometry& g);
  // Sizes the tiles and the workspace (at most omp_get_max_threads()
  // threads run).
  void Configure(const ConvGeometry& g, bool bias);

  // x [N, C, H, W] (or blocked, `x_blocked`, when C % 16 == 0); w [M, C];
  // b [M] or null; y [N, M, H, W] (or blocked, `y_blocked`, when M % 16 ==
  // 0), image n at n * y_image floats (0: dense). `e` is applied to each
  // output; in blocked output it must not hold a per-channel affine.
  void Run(const float* x, bool x_blocked, const float* w, const float* b, bool same_weights,
           float* y, bool y_blocked, int64_t y_image, const Epilogue& e);

 private:
  ConvGeometry g_;
  bool bias_ = false;
  int chunk_ = 0;         // pixels per work item (a multiple of the tile width)
  int chunks_ = 0;        // per image
  int block_groups_ = 0;  // output-channel blocks are split into this many
  int per_group_ = 0;     // blocks of each (an even number)
  int packed_rows_ = -1;  // how the weights in packed_ are laid out (-1: not yet)
  int slots_ = 0;
  AlignedBuffer packed_;   // weights [M / R][C][R], then the bias (M rounded up to 16)
  AlignedBuffer scratch_;  // per thread: the last pixels of x, as [C][16]
};

}  // namespace qzdl
