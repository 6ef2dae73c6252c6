#include "runtime/int8/reference.h"

#include <algorithm>
#include <cmath>

namespace qzdl {

namespace {

int32_t SaturateToInt32(int64_t v) {
  return static_cast<int32_t>(v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v);
}

}  // namespace

void ReferenceConvolutionU8(const ConvGeometry& g, const uint8_t* x, int32_t x_zero,
                            const uint8_t* w, const ChannelQuantization& q, uint8_t* y) {
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  for (int n = 0; n < g.batch; ++n) {
    for (int o = 0; o < g.out_c; ++o) {
      const int group = o / cout_g;
      const int32_t wz = q.weight_zero[o];
      for (int oy = 0; oy < g.out_h; ++oy) {
        for (int ox = 0; ox < g.out_w; ++ox) {
          int64_t acc = q.bias[o];
          for (int c = 0; c < cin_g; ++c) {
            const int ic = group * cin_g + c;
            for (int ky = 0; ky < g.kernel_h; ++ky) {
              const int iy = oy * g.stride_h - g.pad_top + ky * g.dilation_h;
              for (int kx = 0; kx < g.kernel_w; ++kx) {
                const int ix = ox * g.stride_w - g.pad_left + kx * g.dilation_w;
                if (iy < 0 || iy >= g.in_h || ix < 0 || ix >= g.in_w) continue;  // real zero
                const int32_t xv =
                    x[((int64_t(n) * g.in_c + ic) * g.in_h + iy) * g.in_w + ix] - x_zero;
                const int32_t wv =
                    w[((int64_t(o) * cin_g + c) * g.kernel_h + ky) * g.kernel_w + kx] - wz;
                acc += xv * wv;
              }
            }
          }
          y[((int64_t(n) * g.out_c + o) * g.out_h + oy) * g.out_w + ox] =
              Requantize(SaturateToInt32(acc), q.requantizer[o], q.output_zero);
        }
      }
    }
  }
}

void ReferenceInnerProductU8(int batch, int k_dim, int out, bool transpose, const uint8_t* x,
                             int32_t x_zero, const uint8_t* w, const ChannelQuantization& q,
                             uint8_t* y) {
  for (int n = 0; n < batch; ++n) {
    for (int o = 0; o < out; ++o) {
      int64_t acc = q.bias[o];
      for (int k = 0; k < k_dim; ++k) {
        const uint8_t wc = transpose ? w[int64_t(k) * out + o] : w[int64_t(o) * k_dim + k];
        acc += (x[int64_t(n) * k_dim + k] - x_zero) * (wc - q.weight_zero[o]);
      }
      y[int64_t(n) * out + o] = Requantize(SaturateToInt32(acc), q.requantizer[o], q.output_zero);
    }
  }
}

SumQuantization MakeSumQuantization(const std::vector<CodeGrid>& inputs,
                                    const std::vector<float>& coeff, CodeGrid output) {
  SumQuantization q;
  q.output_zero = output.zero;
  std::vector<double> real(inputs.size(), 0.0);
  double largest = 0;
  for (size_t k = 0; k < inputs.size(); ++k) {
    if (output.scale > 0) {
      real[k] = double(coeff.empty() ? 1.0f : coeff[k]) * inputs[k].scale / output.scale;
    }
    if (!(std::fabs(real[k]) <= 1e30)) real[k] = 0;  // NaN or beyond any code
    largest = std::max(largest, std::fabs(real[k]));
  }
  // 2^30 <= largest * 2^shift < 2^31, within 1 .. 62; a term then takes at
  // most 31 + 8 bits, so even 2^20 of them fit the 64-bit sum.
  int exponent = 0;
  std::frexp(largest, &exponent);
  q.shift = largest > 0 ? std::min(62, std::max(1, 31 - exponent)) : 31;
  for (double r : real) q.multiplier.push_back(std::llround(std::ldexp(r, q.shift)));
  return q;
}

void ReferenceEltwiseSumU8(const std::vector<const uint8_t*>& x,
                           const std::vector<CodeGrid>& inputs, const SumQuantization& q,
                           int64_t count, uint8_t* y) {
  const int64_t half = int64_t{1} << (q.shift - 1);
  for (int64_t i = 0; i < count; ++i) {
    int64_t acc = 0;
    for (size_t k = 0; k < x.size(); ++k) acc += (x[k][i] - inputs[k].zero) * q.multiplier[k];
    const int64_t v = q.output_zero + ((acc + half) >> q.shift);
    y[i] = static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
  }
}

int32_t QuantizeBias(float b, float x_scale, float w_scale) {
  const double scale = static_cast<double>(x_scale) * static_cast<double>(w_scale);
  if (!(scale > 0.0)) return 0;
  const double v = std::round(static_cast<double>(b) / scale);
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(v);
}

}  // namespace qzdl
