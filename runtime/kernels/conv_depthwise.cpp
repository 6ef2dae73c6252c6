#include "runtime/kernels/conv_depthwise.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "runtime/kernels/parallel.h"
#include "runtime/kernels/vec16.h"

// 64-byte vectors pass by value only between this file's inlined helpers,
// never across files, so the calling-convention warning does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"

// On x86-64 the plane loops are compiled for AVX-512, AVX2 and the baseline,
// picked at load time; elsewhere the compiler's default target is used.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QZDL_CONV_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define QZDL_CONV_CLONES
#endif

namespace qzdl {

bool IsDepthwise(const ConvGeometry& g) {
  return g.group > 1 && g.group == g.in_c && g.out_c % g.in_c == 0;
}

namespace {

constexpr int kBlock = 16;

// The padded plane: rows and columns the taps can reach.
int PaddedH(const ConvGeometry& g) { return (g.out_h - 1) * g.stride_h + g.ExtentH(); }
int PaddedW(const ConvGeometry& g) { return (g.out_w - 1) * g.stride_w + g.ExtentW(); }

enum class Path { kFlat3x3, kFlat, kRows3x3Stride2, kRows };

// 3x3 dilation 1 at strides 1 and 2 have their own loops; other stride-1
// kernels run over the flattened plane, everything else row by row.
Path PathFor(const ConvGeometry& g) {
  const bool k3 = g.kernel_h == 3 && g.kernel_w == 3 && g.dilation_h == 1 && g.dilation_w == 1;
  if (g.stride_h == 1 && g.stride_w == 1) return k3 ? Path::kFlat3x3 : Path::kFlat;
  if (k3 && g.stride_h == 2 && g.stride_w == 2) return Path::kRows3x3Stride2;
  return Path::kRows;
}

// Copies input plane x into the interior of the padded plane p (whose
// border is already zero); rows and columns past the reach are left out.
void PadPlane(const ConvGeometry& g, const float* x, float* p) {
  const int pw = PaddedW(g), ph = PaddedH(g);
  const int rows = std::min(g.in_h, ph - g.pad_top);
  const int cols = std::min(g.in_w, pw - g.pad_left);
  for (int iy = 0; iy < rows; ++iy)
    std::memcpy(p + int64_t(iy + g.pad_top) * pw + g.pad_left, x + int64_t(iy) * g.in_w,
                sizeof(float) * cols);
}

// Stride 1: outputs are computed at every column of the padded width (the
// last columns of each row are thrown away), so the loop runs over the
// whole plane at once, then rows are compacted into y. `a` holds out_h x
// padded-width floats.
QZDL_CONV_CLONES
void Flat3x3(const ConvGeometry& g, const float* p, const float* k, float bias, float* a,
             float* y) {
  const int pw = PaddedW(g), ow = g.out_w;
  const int64_t n = int64_t(g.out_h - 1) * pw + ow;
  const float k0 = k[0], k1 = k[1], k2 = k[2], k3 = k[3], k4 = k[4], k5 = k[5], k6 = k[6],
              k7 = k[7], k8 = k[8];
  const float* __restrict r0 = p;
  const float* __restrict r1 = p + pw;
  const float* __restrict r2 = p + 2 * pw;
  float* __restrict acc = a;
  for (int64_t i = 0; i < n; ++i)
    acc[i] = bias + k0 * r0[i] + k1 * r0[i + 1] + k2 * r0[i + 2] + k3 * r1[i] + k4 * r1[i + 1] +
             k5 * r1[i + 2] + k6 * r2[i] + k7 * r2[i + 1] + k8 * r2[i + 2];
  for (int oy = 0; oy < g.out_h; ++oy)
    std::memcpy(y + int64_t(oy) * ow, a + int64_t(oy) * pw, sizeof(float) * ow);
}

QZDL_CONV_CLONES
void Flat(const ConvGeometry& g, const float* p, const float* k, float bias, float* a, float* y) {
  const int pw = PaddedW(g), ow = g.out_w;
  const int64_t n = int64_t(g.out_h - 1) * pw + ow;
  float* __restrict acc = a;
  for (int64_t i = 0; i < n; ++i) acc[i] = bias;
  for (int ky = 0; ky < g.kernel_h; ++ky) {
    for (int kx = 0; kx < g.kernel_w; ++kx) {
      const float wv = k[ky * g.kernel_w + kx];
      const float* __restrict r = p + int64_t(ky) * g.dilation_h * pw + kx * g.dilation_w;
      for (int64_t i = 0; i < n; ++i) acc[i] += wv * r[i];
    }
  }
  for (int oy = 0; oy < g.out_h; ++oy)
    std::memcpy(y + int64_t(oy) * ow, a + int64_t(oy) * pw, sizeof(float) * ow);
}

// 3x3 dilation 1 at stride 2, row by row.
QZDL_CONV_CLONES
void Rows3x3Stride2(const ConvGeometry& g, const float* p, const float* k, float bias, float* y) {
  const int pw = PaddedW(g), ow = g.out_w;
  const float k0 = k[0], k1 = k[1], k2 = k[2], k3 = k[3], k4 = k[4], k5 = k[5], k6 = k[6],
              k7 = k[7], k8 = k[8];
  for (int oy = 0; oy < g.out_h; ++oy) {
    const float* __restrict r0 = p + int64_t(2 * oy) * pw;
    const float* __restrict r1 = r0 + pw;
    const float* __restrict r2 = r1 + pw;
    float* __restrict yr = y + int64_t(oy) * ow;
    for (int ox = 0; ox < ow; ++ox)
      yr[ox] = bias + k0 * r0[2 * ox] + k1 * r0[2 * ox + 1] + k2 * r0[2 * ox + 2] +
               k3 * r1[2 * ox] + k4 * r1[2 * ox + 1] + k5 * r1[2 * ox + 2] + k6 * r2[2 * ox] +
               k7 * r2[2 * ox + 1] + k8 * r2[2 * ox + 2];
  }
}

// Any kernel size, stride and dilation: tap by tap over each output row.
QZDL_CONV_CLONES
void Rows(const ConvGeometry& g, const float* p, const float* k, float bias, float* y) {
  const int pw = PaddedW(g), ow = g.out_w, sw = g.stride_w;
  for (int oy = 0; oy < g.out_h; ++oy) {
    float* __restrict yr = y + int64_t(oy) * ow;
    for (int ox = 0; ox < ow; ++ox) yr[ox] = bias;
    for (int ky = 0; ky < g.kernel_h; ++ky) {
      const float* __restrict r = p + (int64_t(oy) * g.stride_h + int64_t(ky) * g.dilation_h) * pw;
      for (int kx = 0; kx < g.kernel_w; ++kx) {
        const float wv = k[ky * g.kernel_w + kx];
        const float* __restrict rs = r + kx * g.dilation_w;
        for (int ox = 0; ox < ow; ++ox) yr[ox] += wv * rs[ox * sw];
      }
    }
  }
}

using vec16::Load;
using vec16::Store;
using vec16::V16;

// Output row oy of one 16-channel block: xb is the block's input [H][W][16],
// wb its weights [taps][16], bias its 16 biases or null, out [OW][16].
// Four pixels at a time where every tap column is inside the input.
QZDL_CONV_CLONES
void BlockedRow(const ConvGeometry& g, const float* xb, const float* wb, const float* bias, int oy,
                float* out) {
  const int kh = g.kernel_h, kw = g.kernel_w, sw = g.stride_w, dw = g.dilation_w;
  const int64_t row = int64_t(g.in_w) * kBlock;
  const V16 zero = {};
  const V16 bv = bias != nullptr ? Load(bias) : zero;
  // Columns whose taps are all inside: ox * sw - pad_left >= 0 and
  // ox * sw - pad_left + (kw - 1) * dw < in_w.
  const int lo = std::min(g.out_w, (g.pad_left + sw - 1) / sw);
  const int last = g.in_w - 1 - (kw - 1) * dw + g.pad_left;  // largest ox * sw allowed
  const int hi = last < 0 ? lo : std::max(lo, std::min(g.out_w, last / sw + 1));
  int ox = 0;
  while (ox < g.out_w) {
    if (ox >= lo && ox + 4 <= hi) {
      V16 a0 = bv, a1 = bv, a2 = bv, a3 = bv;
      const int64_t ix0 = int64_t(ox) * sw - g.pad_left;
      for (int ky = 0; ky < kh; ++ky) {
        const int iy = oy * g.stride_h - g.pad_top + ky * g.dilation_h;
        const bool inside = iy >= 0 && iy < g.in_h;
        const float* r = xb + (inside ? iy : 0) * row;
        for (int kx = 0; kx < kw; ++kx) {
          const V16 wv = Load(wb + (ky * kw + kx) * kBlock);
          if (inside) {
            const float* p = r + (ix0 + kx * dw) * kBlock;
            a0 += wv * Load(p);
            a1 += wv * Load(p + sw * kBlock);
            a2 += wv * Load(p + 2 * sw * kBlock);
            a3 += wv * Load(p + 3 * sw * kBlock);
          } else {
            a0 += wv * zero;
            a1 += wv * zero;
            a2 += wv * zero;
            a3 += wv * zero;
          }
        }
      }
      Store(out + ox * kBlock, a0);
      Store(out + (ox + 1) * kBlock, a1);
      Store(out + (ox + 2) * kBlock, a2);
      Store(out + (ox + 3) * kBlock, a3);
      ox += 4;
      continue;
    }
    V16 a = bv;
    const int64_t ix0 = int64_t(ox) * sw - g.pad_left;
    for (int ky = 0; ky < kh; ++ky) {
      const int iy = oy * g.stride_h - g.pad_top + ky * g.dilation_h;
      const bool row_in = iy >= 0 && iy < g.in_h;
      for (int kx = 0; kx < kw; ++kx) {
        const V16 wv = Load(wb + (ky * kw + kx) * kBlock);
        const int64_t ix = ix0 + kx * dw;
        if (row_in && ix >= 0 && ix < g.in_w)
          a += wv * Load(xb + iy * row + ix * kBlock);
        else
          a += wv * zero;
      }
    }
    Store(out + ox * kBlock, a);
    ++ox;
  }
}

}  // namespace

bool DepthwiseBlockable(const ConvGeometry& g) {
  return IsDepthwise(g) && g.out_c == g.in_c && g.in_c % kBlock == 0;
}

size_t DepthwiseScratchFloats(const ConvGeometry& g) {
  // The padded plane, for the flat paths the rows of outputs at the padded
  // width, and an output plane to scatter into blocks from.
  const size_t plane = size_t(PaddedH(g)) * PaddedW(g);
  const Path path = PathFor(g);
  const bool flat = path == Path::kFlat3x3 || path == Path::kFlat;
  // Only a shape that can be blocked ever scatters, or runs DepthwiseBlocked
  // (one output row of a block).
  if (!DepthwiseBlockable(g)) return plane + (flat ? size_t(g.out_h) * PaddedW(g) : 0) + 16;
  const size_t nchw = plane + (flat ? size_t(g.out_h) * PaddedW(g) : 0) + size_t(g.OutPlane());
  return std::max(nchw, size_t(g.out_w) * kBlock) + 16;
}

void DepthwiseConvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                          float* y, float* scratch, int slots, const Epilogue& e, int64_t y_image,
                          bool y_blocked) {
  y_blocked = y_blocked && DepthwiseBlockable(g);  // the scratch has room only then
  const int multiplier = g.out_c / g.in_c;
  const int64_t planes = int64_t(g.batch) * g.out_c;
  const int64_t in_plane = g.InPlane(), out_plane = g.OutPlane();
  const int64_t kk = g.KernelArea();
  if (y_image == 0) y_image = g.out_c * out_plane;
  const size_t per_thread = DepthwiseScratchFloats(g);
  const size_t padded = size_t(PaddedH(g)) * PaddedW(g);
  const Path path = PathFor(g);
  const size_t flat_rows =
      path == Path::kFlat3x3 || path == Path::kFlat ? size_t(g.out_h) * PaddedW(g) : 0;
  // One output plane per item; each thread zeroes its padded plane once,
  // the border then stays zero.
  ParallelItems(
      planes, std::max(1, slots),
      [&](int slot) {
        std::fill(scratch + per_thread * slot, scratch + per_thread * slot + padded, 0.0f);
      },
      [&](int64_t i, int slot) {
        float* p = scratch + per_thread * slot;
        float* acc = p + padded;  // flat paths
        const int n = static_cast<int>(i / g.out_c), o = static_cast<int>(i % g.out_c);
        const float* xp = x + (int64_t(n) * g.in_c + o / multiplier) * in_plane;
        const float* k = w + int64_t(o) * kk;
        const float bias = b != nullptr ? b[o] : 0.0f;
        // In blocked output the plane is computed apart, then spread.
        float* yp = y_blocked ? acc + flat_rows : y + n * y_image + o * out_plane;
        switch (path) {
          case Path::kFlat3x3:
            PadPlane(g, xp, p);
            Flat3x3(g, p, k, bias, acc, yp);
            break;
          case Path::kFlat:
            PadPlane(g, xp, p);
            Flat(g, p, k, bias, acc, yp);
            break;
          case Path::kRows3x3Stride2:
            PadPlane(g, xp, p);
            Rows3x3Stride2(g, p, k, bias, yp);
            break;
          case Path::kRows:
            PadPlane(g, xp, p);
            Rows(g, p, k, bias, yp);
            break;
        }
        ApplyEpilogue(e, yp, out_plane, o);
        if (y_blocked) {
          float* yb = y + n * y_image + int64_t(o / kBlock) * out_plane * kBlock + o % kBlock;
          for (int64_t p = 0; p < out_plane; ++p) yb[p * kBlock] = yp[p];
        }
      });
}

}  // namespace qzdl

namespace qzdl {

void PackDepthwiseWeights(const ConvGeometry& g, const float* w, float* packed) {
  const int64_t taps = g.KernelArea();
  for (int64_t c = 0; c < g.out_c; ++c)
    for (int64_t t = 0; t < taps; ++t)
      packed[((c / kBlock) * taps + t) * kBlock + c % kBlock] = w[c * taps + t];
}

void DepthwiseBlocked(const ConvGeometry& g, const float* x, const float* packed, const float* b,
                      float* y, bool y_blocked, float* scratch, int slots, const Epilogue& e,
                      int64_t y_image) {
  const int blocks = g.in_c / kBlock;
  const int64_t in_plane = g.InPlane(), out_plane = g.OutPlane();
  const int64_t taps = g.KernelArea();
  if (y_image == 0) y_image = g.out_c * out_plane;
  const size_t per_thread = DepthwiseScratchFloats(g);
  // Items: (image, block, band of rows); bands only when there are few
  // blocks, so that the split depends on the shape alone.
  const int64_t planes = int64_t(g.batch) * blocks;
  if (planes == 0 || g.out_h == 0) return;
  const int64_t bands_wanted = std::max<int64_t>(1, (8 + planes - 1) / planes);
  const int band = static_cast<int>((g.out_h + bands_wanted - 1) / bands_wanted);
  const int bands = (g.out_h + band - 1) / band;
  ParallelItems(planes * bands, std::max(1, slots), [&](int64_t i, int slot) {
    const int bi = static_cast<int>(i % bands);
    const int64_t plane_index = i / bands;
    const int64_t n = plane_index / blocks;
    const int cb = static_cast<int>(plane_index % blocks);
    const float* xb = x + (n * g.in_c + int64_t(cb) * kBlock) * in_plane;
    const float* wb = packed + int64_t(cb) * taps * kBlock;
    const float* bias = b != nullptr ? b + cb * kBlock : nullptr;
    float* yb = y + n * y_image + int64_t(cb) * kBlock * out_plane;
    float* tmp = scratch + per_thread * slot;
    for (int oy = bi * band; oy < std::min(g.out_h, (bi + 1) * band); ++oy) {
      if (y_blocked) {
        float* out = yb + int64_t(oy) * g.out_w * kBlock;
        BlockedRow(g, xb, wb, bias, oy, out);
        if (e.Active()) MapActivation(e, out, out, int64_t(g.out_w) * kBlock);
        continue;
      }
      BlockedRow(g, xb, wb, bias, oy, tmp);
      for (int l = 0; l < kBlock; ++l) {
        float* yr = yb + l * out_plane + int64_t(oy) * g.out_w;
        for (int ox = 0; ox < g.out_w; ++ox) yr[ox] = tmp[ox * kBlock + l];
        ApplyEpilogue(e, yr, g.out_w, cb * kBlock + l);
      }
    }
  });
}

}  // namespace qzdl
