// Patch gathering for GEMM convolution and its transpose for deconvolution.
#pragma once

#include <cstdint>

#include "runtime/kernels/conv_geometry.h"

namespace qzdl {

// Gathers the patches of output positions [p0, p0 + np) (row-major over
// out_h x out_w) of one group: col is [in_c/group * kernel_h * kernel_w][np],
// row (c, ky, kx), with zeros where a tap falls into the padding. x points at
// the group's first input channel plane.
void Im2colTile(const ConvGeometry& g, const float* x, int64_t p0, int np, float* col);
// The same for any element type (float, uint8_t and int8_t are instantiated), with
// `pad` where a tap falls into the padding: an 8-bit convolution pads with
// the input's zero point, the code of real zero.
template <typename T>
void Im2colTileOf(const ConvGeometry& g, const T* x, int64_t p0, int np, T pad, T* col);

// Deconvolution: for one output channel plane y (out_h x out_w), adds the
// kernel_h * kernel_w rows of col, which hold that channel's products for
// input positions [p0, p0 + np) (row-major over in_h x in_w), at their output
// positions. Taps that land outside the output are dropped. Rows are added in
// (ky, kx) order and positions in increasing order.
void Col2imAdd(const ConvGeometry& g, const float* col, int64_t p0, int np, float* y);

}  // namespace qzdl
