#include "runtime/int8/reference.h"

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
