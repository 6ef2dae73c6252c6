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

// Floats of workspace one thread needs: a zero-padded input plane.
size_t DepthwiseScratchFloats(const ConvGeometry& g);

// w is [out_c, 1, kernel_h, kernel_w]; b may be null. `scratch` holds
// `slots` per-thread buffers of DepthwiseScratchFloats(g); at most `slots`
// threads run. Planes are spread over the threads; each output element is
// summed by one thread, bias first, then the taps in (ky, kx) order; `e` is
// applied to each output plane once it is complete. Image n of y starts
// n * y_image floats in (0: out_c x the output plane, dense).
void DepthwiseConvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                          float* y, float* scratch, int slots, const Epilogue& e = {},
                          int64_t y_image = 0);

}  // namespace qzdl
