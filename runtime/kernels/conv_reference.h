// Plain loop implementations of convolution, deconvolution and inner
// product: slow, obviously correct, and the yardstick of the fast kernels.
// Sums run in double precision.
#pragma once

#include "runtime/kernels/conv_geometry.h"

namespace qzdl {

// y[n][o][oy][ox] = b[o] + sum over the group's input channels c and the
// kernel taps of x[n][c][iy][ix] * w[o][c - group base][ky][kx], with
// iy = oy * stride_h - pad_top + ky * dilation_h (taps in the padding read 0).
// w is [out_c, in_c / group, kernel_h, kernel_w]; b may be null.
void ReferenceConvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                          float* y);

// The transpose: each input pixel x[n][c][iy][ix] adds x * w[o][c - group
// base][ky][kx] to y[n][o][iy * stride_h - pad_top + ky * dilation_h][...] for
// every output channel o of its group; positions outside the output are
// dropped. w is [out_c, in_c / group, kernel_h, kernel_w]; b may be null.
void ReferenceDeconvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                            float* y);

// y[n][o] = b[o] + sum_k x[n][k] * W(o, k), where W(o, k) is w[o * k_dim + k]
// ([out, k_dim]) or, with `transpose`, w[k * out + o] ([k_dim, out]).
void ReferenceInnerProduct(int batch, int k_dim, int out, bool transpose, const float* x,
                           const float* w, const float* b, float* y);

}  // namespace qzdl
