// Plain integer reference kernels of the 8-bit runtime: slow, obviously
// exact, and the yardstick of every optimized 8-bit kernel (which must match
// them bit for bit). Codes are unsigned 8-bit with a zero point; weights have
// a zero point per output channel; products of zero-point-subtracted codes
// are summed with the int32 bias, and each output channel is requantized
// once (requantize.h). The sum is the accumulator of an int32 machine: it
// saturates at the int32 range instead of wrapping (reached only by sums of
// more than about 33000 full-range products). Taps in the padding read the input's
// zero point, that is the real value 0, and so add nothing.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/int8/requantize.h"
#include "runtime/kernels/conv_geometry.h"

namespace qzdl {

// Per output channel: weight zero point, int32 bias (0 without one) and
// requantizer; the output's zero point.
struct ChannelQuantization {
  std::vector<int32_t> weight_zero;
  std::vector<int32_t> bias;
  std::vector<Requantizer> requantizer;
  int32_t output_zero = 0;
};

// y[n][o][oy][ox] = requantize_o(bias[o] + sum (x - zx) * (w[o] - zw[o])) over
// the group's input channels and the kernel taps, as ReferenceConvolution
// walks them. w is [out_c, in_c / group, kernel_h, kernel_w].
void ReferenceConvolutionU8(const ConvGeometry& g, const uint8_t* x, int32_t x_zero,
                            const uint8_t* w, const ChannelQuantization& q, uint8_t* y);

// y[n][o] = requantize_o(bias[o] + sum_k (x[n][k] - zx) * (W(o, k) - zw[o])),
// W as in ReferenceInnerProduct ([out, k_dim], or [k_dim, out] transposed).
void ReferenceInnerProductU8(int batch, int k_dim, int out, bool transpose, const uint8_t* x,
                             int32_t x_zero, const uint8_t* w, const ChannelQuantization& q,
                             uint8_t* y);

// A code grid: the real value of code q is (q - zero) * scale.
struct CodeGrid {
  float scale = 0;
  int32_t zero = 0;
};

// An element-wise sum of N inputs with coefficients, on codes:
// y = zy + round(sum_k c_k * s_k / s_y * (x_k - z_k)), one rounding (ties up).
// Each term's multiplier is a fixed-point integer at one shared shift, chosen
// so that the largest |c_k * s_k / s_y| takes 30 bits, and the terms are
// summed in 64 bits before the one rounding shift.
struct SumQuantization {
  std::vector<int64_t> multiplier;  // per input
  int shift = 0;                     // 1 .. 62
  int32_t output_zero = 0;
};
SumQuantization MakeSumQuantization(const std::vector<CodeGrid>& inputs,
                                    const std::vector<float>& coeff, CodeGrid output);
void ReferenceEltwiseSumU8(const std::vector<const uint8_t*>& x,
                           const std::vector<CodeGrid>& inputs, const SumQuantization& q,
                           int64_t count, uint8_t* y);

// The int32 bias of real bias b at scale s_x * s_w: b / (s_x * s_w) rounded
// to nearest (ties away from zero) in double precision, saturating at the
// int32 range; 0 when the scale is 0.
int32_t QuantizeBias(float b, float x_scale, float w_scale);

}  // namespace qzdl
