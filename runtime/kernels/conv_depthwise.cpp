#include "runtime/kernels/conv_depthwise.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "runtime/kernels/parallel.h"

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

}  // namespace

size_t DepthwiseScratchFloats(const ConvGeometry& g) {
  // The padded plane, and for the flat paths the rows of
  // outputs at the padded width.
  const size_t plane = size_t(PaddedH(g)) * PaddedW(g);
  const Path path = PathFor(g);
  const bool flat = path == Path::kFlat3x3 || path == Path::kFlat;
  return plane + (flat ? size_t(g.out_h) * PaddedW(g) : 0) + 16;
}

void DepthwiseConvolution(const ConvGeometry& g, const float* x, const float* w, const float* b,
                          float* y, float* scratch, int slots, const Epilogue& e, int64_t y_image) {
  const int multiplier = g.out_c / g.in_c;
  const int64_t planes = int64_t(g.batch) * g.out_c;
  const int64_t in_plane = g.InPlane(), out_plane = g.OutPlane();
  const int64_t kk = g.KernelArea();
  if (y_image == 0) y_image = g.out_c * out_plane;
  const size_t per_thread = DepthwiseScratchFloats(g);
  const size_t padded = size_t(PaddedH(g)) * PaddedW(g);
  const Path path = PathFor(g);
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
        float* yp = y + n * y_image + o * out_plane;
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
      });
}

}  // namespace qzdl
