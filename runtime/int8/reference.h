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

#include "runtime/int8/lookup_table.h"
#include "runtime/int8/requantize.h"
#include "runtime/kernels/broadcast.h"
#include "runtime/kernels/conv_geometry.h"
#include "runtime/layers/pooling.h"

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

// The transpose of ReferenceConvolutionU8 with the same weight layout
// ([out_c, in_c / group, kernel_h, kernel_w], per output channel grids):
// y[n][o][oy][ox] = requantize_o(bias[o] + sum (x - zx) * (w[o] - zw[o])) over
// the input positions and taps with iy * stride_h - pad_top + ky * dilation_h
// == oy (and the same across), gathered per output so that no workspace is
// needed.
void ReferenceDeconvolutionU8(const ConvGeometry& g, const uint8_t* x, int32_t x_zero,
                              const uint8_t* w, const ChannelQuantization& q, uint8_t* y);

// A code grid: the real value of code q is (q - zero) * scale.
struct CodeGrid {
  float scale = 0;
  int32_t zero = 0;
};

// table[c] = clamp(to.zero + round((c - from.zero) * from.scale / to.scale))
// with one rounding (requantize.h): codes of one grid moved to another.
CodeTable RequantizeTable(CodeGrid from, CodeGrid to, bool use_double);

// An element-wise sum of N inputs with coefficients, on codes:
// y = zy + round(sum_k c_k * s_k / s_y * (x_k - z_k)), one rounding (ties up).
// Each term's multiplier is a fixed-point integer at one shared shift, chosen
// so that the largest |c_k * s_k / s_y| takes 30 bits, and the terms are
// summed in 64 bits before the one rounding shift.
// With `use_double` the sum is sum_k real_k * (x_k - z_k) in double
// precision (in input order), then floor(sum + 0.5).
struct SumQuantization {
  std::vector<int64_t> multiplier;  // per input
  int shift = 0;                    // 1 .. 62
  int32_t output_zero = 0;
  bool use_double = false;
  std::vector<double> real;  // c_k * s_k / s_y per input
};
SumQuantization MakeSumQuantization(const std::vector<CodeGrid>& inputs,
                                    const std::vector<float>& coeff, CodeGrid output,
                                    bool use_double = false);
void ReferenceEltwiseSumU8(const std::vector<const uint8_t*>& x,
                           const std::vector<CodeGrid>& inputs, const SumQuantization& q,
                           int64_t count, uint8_t* y);

// An element-wise product: y = zy + round(M * prod_k (x_k - z_k)) with
// M = prod_k s_k / s_y, one rounding. The product is taken in int64 and
// saturates at +-(2^63 - 1) (beyond 7 full-range factors), then requantized
// as a 64-bit accumulator (RequantizeRaw64).
Requantizer MakeProductRequantizer(const std::vector<CodeGrid>& inputs, CodeGrid output,
                                   bool use_double);
void ReferenceEltwiseProdU8(const std::vector<const uint8_t*>& x,
                            const std::vector<CodeGrid>& inputs, const Requantizer& r,
                            int32_t output_zero, int64_t count, uint8_t* y);

// An element-wise maximum of the inputs' real values: each input moved to
// the output grid by its table (RequantizeTable), then the largest code.
void ReferenceEltwiseMaxU8(const std::vector<const uint8_t*>& x,
                           const std::vector<CodeTable>& to_output, int64_t count, uint8_t* y);

// y = a + c_b * b (c_b = 1 or -1) as an element-wise sum of two inputs,
// `inputs` being the grids of a and b.
void ReferenceBroadcastSumU8(const BroadcastShape& g, const uint8_t* a, const uint8_t* b,
                             const std::vector<CodeGrid>& inputs, const SumQuantization& q,
                             uint8_t* y);
// y = a * b as an element-wise product of two inputs.
void ReferenceBroadcastMulU8(const BroadcastShape& g, const uint8_t* a, const uint8_t* b,
                             const std::vector<CodeGrid>& inputs, const Requantizer& r,
                             int32_t output_zero, uint8_t* y);

// Average pooling: acc = sum (x - zx) over the window's input elements, in
// int64; y = zy + round(acc * M[count]) with M[count] = s_x / (s_y * count)
// and count the window count of the float layer (PoolWindowCount).
struct AveragePoolQuantization {
  std::vector<int64_t> counts;           // distinct window counts, ascending
  std::vector<Requantizer> requantizer;  // one per count
  int32_t input_zero = 0, output_zero = 0;
};
// The distinct window counts of `s`, ascending.
std::vector<int64_t> AveragePoolCounts(const PoolShape& s);
AveragePoolQuantization MakeAveragePoolQuantization(const std::vector<int64_t>& counts,
                                                    CodeGrid input, CodeGrid output,
                                                    bool use_double);
void ReferenceAveragePoolU8(const PoolShape& s, const uint8_t* x, const AveragePoolQuantization& q,
                            uint8_t* y);

// The int32 bias of real bias b at scale s_x * s_w: b / (s_x * s_w) rounded
// to nearest (ties away from zero) in double precision, saturating at the
// int32 range; 0 when the scale is 0.
int32_t QuantizeBias(float b, float x_scale, float w_scale);

}  // namespace qzdl
