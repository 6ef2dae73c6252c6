#include "runtime/kernels/im2col.h"

#include <algorithm>
#include <cstring>

namespace qzdl {

template <typename T>
void Im2colTileOf(const ConvGeometry& g, const T* x, int64_t p0, int np, T pad, T* col) {
  const int cin_g = g.InPerGroup();
  const int64_t plane = g.InPlane();
  for (int c = 0; c < cin_g; ++c) {
    const T* xc = x + c * plane;
    for (int ky = 0; ky < g.kernel_h; ++ky) {
      for (int kx = 0; kx < g.kernel_w; ++kx) {
        T* row = col + ((int64_t(c) * g.kernel_h + ky) * g.kernel_w + kx) * np;
        int oy = static_cast<int>(p0 / g.out_w);
        int ox = static_cast<int>(p0 % g.out_w);
        for (int j = 0; j < np; ox = 0, ++oy) {
          const int seg = std::min(g.out_w - ox, np - j);
          const int iy = oy * g.stride_h - g.pad_top + ky * g.dilation_h;
          T* dst = row + j;
          if (iy < 0 || iy >= g.in_h) {
            std::fill_n(dst, seg, pad);
          } else {
            const T* xr = xc + int64_t(iy) * g.in_w;
            const int ix0 = ox * g.stride_w - g.pad_left + kx * g.dilation_w;
            if (g.stride_w == 1) {
              const int lo = std::clamp(-ix0, 0, seg);
              const int hi = std::clamp(g.in_w - ix0, lo, seg);
              if (lo > 0) std::fill_n(dst, lo, pad);
              if (hi > lo) std::memcpy(dst + lo, xr + ix0 + lo, sizeof(T) * (hi - lo));
              if (seg > hi) std::fill_n(dst + hi, seg - hi, pad);
            } else {
              // Columns t in [lo, hi) read inside the input row.
              const int s = g.stride_w;
              const int lo = std::clamp(ix0 >= 0 ? 0 : (-ix0 + s - 1) / s, 0, seg);
              const int hi = std::clamp(ix0 >= g.in_w ? 0 : (g.in_w - ix0 + s - 1) / s, lo, seg);
              if (lo > 0) std::fill_n(dst, lo, pad);
              if (s == 2) {
                for (int t = lo; t < hi; ++t) dst[t] = xr[ix0 + 2 * t];
              } else {
                for (int t = lo; t < hi; ++t) dst[t] = xr[ix0 + t * s];
              }
              if (seg > hi) std::fill_n(dst + hi, seg - hi, pad);
            }
          }
          j += seg;
        }
      }
    }
  }
}

template void Im2colTileOf<float>(const ConvGeometry&, const float*, int64_t, int, float, float*);
template void Im2colTileOf<uint8_t>(const ConvGeometry&, const uint8_t*, int64_t, int, uint8_t,
                                    uint8_t*);
template void Im2colTileOf<int8_t>(const ConvGeometry&, const int8_t*, int64_t, int, int8_t,
                                   int8_t*);

void Im2colTile(const ConvGeometry& g, const float* x, int64_t p0, int np, float* col) {
  Im2colTileOf<float>(g, x, p0, np, 0.0f, col);
}

void Col2imAdd(const ConvGeometry& g, const float* col, int64_t p0, int np, float* y) {
  for (int ky = 0; ky < g.kernel_h; ++ky) {
    for (int kx = 0; kx < g.kernel_w; ++kx) {
      const float* row = col + (int64_t(ky) * g.kernel_w + kx) * np;
      int iy = static_cast<int>(p0 / g.in_w);
      int ix = static_cast<int>(p0 % g.in_w);
      for (int j = 0; j < np; ix = 0, ++iy) {
        const int seg = std::min(g.in_w - ix, np - j);
        const int oy = iy * g.stride_h - g.pad_top + ky * g.dilation_h;
        if (oy >= 0 && oy < g.out_h) {
          float* yr = y + int64_t(oy) * g.out_w;
          const float* src = row + j;
          const int ox0 = ix * g.stride_w - g.pad_left + kx * g.dilation_w;
          // Input columns t in [lo, hi) land inside the output row.
          const int lo = std::clamp(ox0 >= 0 ? 0 : (-ox0 + g.stride_w - 1) / g.stride_w, 0, seg);
          const int hi =
              std::clamp(ox0 >= g.out_w ? 0 : (g.out_w - 1 - ox0) / g.stride_w + 1, lo, seg);
          if (g.stride_w == 1) {
            float* d = yr + ox0;
            for (int t = lo; t < hi; ++t) d[t] += src[t];
          } else {
            for (int t = lo; t < hi; ++t) yr[ox0 + t * g.stride_w] += src[t];
          }
        }
        j += seg;
      }
    }
  }
}

}  // namespace qzdl
