#include "runtime/int8/reference.h"

#include <algorithm>
#include <cmath>

namespace qzdl {

namespace {

int32_t SaturateToInt32(int64_t v) {
  return static_cast<int32_t>(v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v);
}

uint8_t ClampCode(int64_t v) { return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v); }

// The code of sum_k multiplier_k * diff(k), one rounding (see SumQuantization).
template <typename Diff>
uint8_t SumToCode(const SumQuantization& q, size_t n, Diff diff) {
  if (q.use_double) {
    double acc = 0;
    for (size_t k = 0; k < n; ++k) acc += q.real[k] * diff(k);
    // Beyond +-2^30 every result is clamped anyway; the bound keeps the
    // conversion defined.
    const double v = std::floor(std::min(std::max(acc + 0.5, -1073741824.0), 1073741824.0));
    return ClampCode(q.output_zero + static_cast<int64_t>(v));
  }
  int64_t acc = 0;
  for (size_t k = 0; k < n; ++k) acc += diff(k) * q.multiplier[k];
  return ClampCode(q.output_zero + ((acc + (int64_t{1} << (q.shift - 1))) >> q.shift));
}

// p * d, saturating at +-(2^63 - 1); |p| <= 2^63 - 1 and |d| <= 255.
int64_t SaturatingProduct(int64_t p, int32_t d) {
  constexpr int64_t kMax = INT64_MAX;
  if (d == 0 || p == 0) return 0;
  const int64_t ad = d < 0 ? -int64_t(d) : d;
  const int64_t ap = p < 0 ? -p : p;
  if (ap > kMax / ad) return (p < 0) == (d < 0) ? kMax : -kMax;
  return p * d;
}

// Calls fn(i, offset_a, offset_b) for every output element in order.
template <typename Fn>
void ForEachBroadcast(const BroadcastShape& g, Fn fn) {
  const int64_t inner = g.dims[g.axes - 1];
  const int64_t ia = g.stride_a[g.axes - 1], ib = g.stride_b[g.axes - 1];
  const int64_t rows = inner > 0 ? g.count / inner : 0;
  for (int64_t row = 0; row < rows; ++row) {
    int64_t oa = 0, ob = 0;
    g.RowOffsets(row, &oa, &ob);
    for (int64_t i = 0; i < inner; ++i) fn(row * inner + i, oa + i * ia, ob + i * ib);
  }
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
                                    const std::vector<float>& coeff, CodeGrid output,
                                    bool use_double) {
  SumQuantization q;
  q.output_zero = output.zero;
  q.use_double = use_double;
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
  q.real = real;
  return q;
}

void ReferenceEltwiseSumU8(const std::vector<const uint8_t*>& x,
                           const std::vector<CodeGrid>& inputs, const SumQuantization& q,
                           int64_t count, uint8_t* y) {
  for (int64_t i = 0; i < count; ++i) {
    y[i] = SumToCode(q, x.size(), [&](size_t k) { return x[k][i] - inputs[k].zero; });
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

void ReferenceDeconvolutionU8(const ConvGeometry& g, const uint8_t* x, int32_t x_zero,
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
              // The input row iy reaches oy through tap ky when
              // iy * stride_h = oy + pad_top - ky * dilation_h.
              const int ty = oy + g.pad_top - ky * g.dilation_h;
              if (ty < 0 || ty % g.stride_h != 0 || ty / g.stride_h >= g.in_h) continue;
              const int iy = ty / g.stride_h;
              for (int kx = 0; kx < g.kernel_w; ++kx) {
                const int tx = ox + g.pad_left - kx * g.dilation_w;
                if (tx < 0 || tx % g.stride_w != 0 || tx / g.stride_w >= g.in_w) continue;
                const int ix = tx / g.stride_w;
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

CodeTable RequantizeTable(CodeGrid from, CodeGrid to, bool use_double) {
  const Requantizer r =
      MakeRequantizer(static_cast<double>(from.scale) / static_cast<double>(to.scale), use_double);
  CodeTable table;
  for (int c = 0; c < 256; ++c) table[c] = Requantize(c - from.zero, r, to.zero);
  return table;
}

Requantizer MakeProductRequantizer(const std::vector<CodeGrid>& inputs, CodeGrid output,
                                   bool use_double) {
  double real = 1.0;
  for (const CodeGrid& g : inputs) real *= g.scale;
  return MakeRequantizer(real / static_cast<double>(output.scale), use_double);
}

void ReferenceEltwiseProdU8(const std::vector<const uint8_t*>& x,
                            const std::vector<CodeGrid>& inputs, const Requantizer& r,
                            int32_t output_zero, int64_t count, uint8_t* y) {
  for (int64_t i = 0; i < count; ++i) {
    int64_t p = 1;
    for (size_t k = 0; k < x.size(); ++k) p = SaturatingProduct(p, x[k][i] - inputs[k].zero);
    y[i] = Requantize64(p, r, output_zero);
  }
}

void ReferenceEltwiseMaxU8(const std::vector<const uint8_t*>& x,
                           const std::vector<CodeTable>& to_output, int64_t count, uint8_t* y) {
  for (int64_t i = 0; i < count; ++i) {
    uint8_t m = to_output[0][x[0][i]];
    for (size_t k = 1; k < x.size(); ++k) m = std::max(m, to_output[k][x[k][i]]);
    y[i] = m;
  }
}

void ReferenceBroadcastSumU8(const BroadcastShape& g, const uint8_t* a, const uint8_t* b,
                             const std::vector<CodeGrid>& inputs, const SumQuantization& q,
                             uint8_t* y) {
  const int32_t za = inputs[0].zero, zb = inputs[1].zero;
  ForEachBroadcast(g, [&](int64_t i, int64_t oa, int64_t ob) {
    const int32_t d[2] = {a[oa] - za, b[ob] - zb};
    y[i] = SumToCode(q, 2, [&](size_t k) { return d[k]; });
  });
}

void ReferenceBroadcastMulU8(const BroadcastShape& g, const uint8_t* a, const uint8_t* b,
                             const std::vector<CodeGrid>& inputs, const Requantizer& r,
                             int32_t output_zero, uint8_t* y) {
  const int32_t za = inputs[0].zero, zb = inputs[1].zero;
  ForEachBroadcast(g, [&](int64_t i, int64_t oa, int64_t ob) {
    y[i] = Requantize((a[oa] - za) * (b[ob] - zb), r, output_zero);
  });
}

std::vector<int64_t> AveragePoolCounts(const PoolShape& s) {
  std::vector<int64_t> counts;
  for (int64_t row = 0; row < s.out_h; ++row) {
    const PoolSpan hs =
        PoolWindowSpan(row, s.stride_h, s.pad_top, s.kernel_h, s.in_h, s.pad_bottom);
    for (int64_t col = 0; col < s.out_w; ++col) {
      const PoolSpan ws =
          PoolWindowSpan(col, s.stride_w, s.pad_left, s.kernel_w, s.in_w, s.pad_right);
      const int64_t c = PoolWindowCount(hs, ws, s.count_include_pad);
      if (std::find(counts.begin(), counts.end(), c) == counts.end()) counts.push_back(c);
    }
  }
  std::sort(counts.begin(), counts.end());
  return counts;
}

AveragePoolQuantization MakeAveragePoolQuantization(const std::vector<int64_t>& counts,
                                                    CodeGrid input, CodeGrid output,
                                                    bool use_double) {
  AveragePoolQuantization q;
  q.counts = counts;
  q.input_zero = input.zero;
  q.output_zero = output.zero;
  for (int64_t c : counts) {
    const double real = static_cast<double>(input.scale) /
                        (static_cast<double>(output.scale) * static_cast<double>(c));
    q.requantizer.push_back(MakeRequantizer(real, use_double));
  }
  return q;
}

void ReferenceAveragePoolU8(const PoolShape& s, const uint8_t* x, const AveragePoolQuantization& q,
                            uint8_t* y) {
  for (int64_t plane = 0; plane < s.planes; ++plane) {
    const uint8_t* xp = x + plane * s.in_h * s.in_w;
    for (int64_t row = 0; row < s.out_h; ++row) {
      const PoolSpan hs =
          PoolWindowSpan(row, s.stride_h, s.pad_top, s.kernel_h, s.in_h, s.pad_bottom);
      for (int64_t col = 0; col < s.out_w; ++col) {
        const PoolSpan ws =
            PoolWindowSpan(col, s.stride_w, s.pad_left, s.kernel_w, s.in_w, s.pad_right);
        int64_t acc = 0;
        for (int64_t i = hs.begin; i < hs.end; ++i)
          for (int64_t j = ws.begin; j < ws.end; ++j) acc += xp[i * s.in_w + j] - q.input_zero;
        const int64_t count = PoolWindowCount(hs, ws, s.count_include_pad);
        const size_t k = static_cast<size_t>(
            std::lower_bound(q.counts.begin(), q.counts.end(), count) - q.counts.begin());
        y[(plane * s.out_h + row) * s.out_w + col] =
            Requantize64(acc, q.requantizer[k], q.output_zero);
      }
    }
  }
}

}  // namespace qzdl
