// Direct depthwise convolution on NCHW data: every output channel reads one
// input channel (group == in_c; out_c is a multiple of in_c).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/kernels/conv_geometry.h"
#include "runtime/kernels/epilogue.h"

namespace qzdl {

// True when g is depthwise in the sense above (and not an ordinary
// single-group convolution).
bool IsDepthwise(const ConvGeometry& g);

// Floats of workspace one thread needs: a zero-padded input plane (and
// rows of outputs), for either function below.
size_t DepthwiseScratchFloats(const ConvGeometry& g);

// Whether DepthwiseBlocked applies: one output channel per input channel,
// in whole 16-channel blocks.
bool DepthwiseBlockable(const ConvGeometry& g);

// w is [out_c, 1, kernel_h, kernel_w]; b may be null. `scratch` holds
// `slots` per-thread buffers of DepthwiseScratchFloats(g); at most `slots`
// threads run. Planes are spread over the threads; each output element is
// summed by one thread, bias first, then the taps in (ky, kx) order; `e` is
// applied to each output plane once it is complete. Image n of y starts
// n * y_image floats in (0: out_c x the output plane, dense). With
// `y_blocked` y is written in 16-channel blocks (see conv_pointwise.h)
// when DepthwiseBlockable(g).
void DepthwiseConvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                          float* y, float* scratch, int slots, const Epilogue& e = {},
                          int64_t y_image = 0, bool y_blocked = false);

// The weights [C, 1, kh, kw] as [C / 16][kh x kw][16], for DepthwiseBlocked.
void PackDepthwiseWeights(const ConvGeometry& g, const float* w, float* packed);

// The same convolution with x in 16-channel blocks (DepthwiseBlockable(g)),
// w packed by PackDepthwiseWeights, y blocked or NCHW: every output is the
// bias followed by the taps in (ky, kx) order, those over the padding
// adding w x 0 as the padded plane above does, so the bits are those of
// DepthwiseConvolution on the same CPU.
void DepthwiseBlocked(const ConvGeometry& g, const float* x, const float* packed, const float* b,
                      float* y, bool y_blocked, float* scratch, int slots, const Epilogue& e = {},
                      int64_t y_image = 0);

}  // namespace qzdl
