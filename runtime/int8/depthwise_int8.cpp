#include "runtime/int8/depthwise_int8.h"

#include <algorithm>
#include <cstring>

#include "runtime/int8/requantize.h"
#include "runtime/kernels/parallel.h"

// On x86-64 the plane loop is compiled for AVX-512, AVX2 and the baseline,
// picked at load time; elsewhere the compiler's default target is used.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QZDL_DW_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define QZDL_DW_CLONES
#endif

namespace qzdl {

namespace {

// What one plane needs; the padded plane is padded_h rows of `phases`
// phases of phase_w codes: phase p of a row holds its padded columns
// p, p + stride_w, p + 2 * stride_w, ...
struct PlaneJob {
  const ConvGeometry* g;
  int phase_w, padded_h, padded_w;
  int rows_per_block;  // output rows per block of sums at stride 1
  const uint8_t* x;  // the input plane
  int32_t x_zero;
  const int32_t* w;  // centred weights of the channel
  int32_t start;     // -x_zero * sum of w
  int64_t bias;
  const Requantizer* r;
  int32_t y_zero;
  const uint8_t* table;
  uint8_t* plane;
  int32_t* row;
  uint8_t* codes;  // rows_per_block * phase_w codes (stride 1)
  uint8_t* y;  // the output plane
};

QZDL_DW_CLONES
void DepthwisePlane(const PlaneJob& j) {
  const ConvGeometry& g = *j.g;
  const int sw = g.stride_w, pw = j.phase_w;
  const uint8_t zx = static_cast<uint8_t>(j.x_zero);
  // The padded plane.
  for (int r = 0; r < j.padded_h; ++r) {
    uint8_t* dst = j.plane + int64_t(r) * sw * pw;
    const int iy = r - g.pad_top;
    if (iy < 0 || iy >= g.in_h) {
      std::memset(dst, zx, size_t(sw) * pw);
      continue;
    }
    const uint8_t* src = j.x + int64_t(iy) * g.in_w;
    if (sw == 1) {
      // Columns [0, pad_left) and [pad_left + in_w, padded_w) are padding.
      const int left = std::min(g.pad_left, j.padded_w);
      const int copy = std::max(0, std::min(g.in_w, j.padded_w - left));
      std::memset(dst, zx, size_t(left));
      std::memcpy(dst + left, src, size_t(copy));
      std::memset(dst + left + copy, zx, size_t(pw - left - copy));
      continue;
    }
    for (int p = 0; p < sw; ++p) {
      // Phase p holds input column c * sw + p - pad_left at c: inside the
      // input for c in [lo, hi).
      uint8_t* d = dst + int64_t(p) * pw;
      const int off = p - g.pad_left;
      const int lo = std::min(pw, std::max(0, (-off + sw - 1) / sw));
      const int hi = std::max(lo, std::min(pw, (g.in_w - off + sw - 1) / sw));
      std::memset(d, zx, size_t(lo));
      const uint8_t* from = src + off;
      if (sw == 2) {
        for (int c = lo; c < hi; ++c) d[c] = from[2 * c];
      } else {
        for (int c = lo; c < hi; ++c) d[c] = from[int64_t(c) * sw];
      }
      std::memset(d + hi, zx, size_t(pw - hi));
    }
  }
  const int ow = g.out_w, kh = g.kernel_h, kw = g.kernel_w;
  const int64_t row_stride = int64_t(sw) * pw;
  const int64_t down = int64_t(g.dilation_h) * row_stride;
  int32_t* acc = j.row;
  // Where tap kx of a row starts: its phase and the offset in it.
  auto tap_offset = [&](int kx) {
    const int c = kx * g.dilation_w;
    return int64_t(c % sw) * pw + c / sw;
  };
  const int64_t t0 = tap_offset(0), t1 = kw > 1 ? tap_offset(1) : 0,
                t2 = kw > 2 ? tap_offset(2) : 0;
  auto sums = [&](const uint8_t* top, int64_t count) {
    if (kh == 3 && kw == 3) {
      const uint8_t* a0 = top + t0;
      const uint8_t* a1 = top + t1;
      const uint8_t* a2 = top + t2;
      const uint8_t* b0 = top + down + t0;
      const uint8_t* b1 = top + down + t1;
      const uint8_t* b2 = top + down + t2;
      const uint8_t* c0 = top + 2 * down + t0;
      const uint8_t* c1 = top + 2 * down + t1;
      const uint8_t* c2 = top + 2 * down + t2;
      const int32_t w0 = j.w[0], w1 = j.w[1], w2 = j.w[2], w3 = j.w[3], w4 = j.w[4],
                    w5 = j.w[5], w6 = j.w[6], w7 = j.w[7], w8 = j.w[8], s = j.start;
#pragma GCC ivdep
      for (int64_t i = 0; i < count; ++i) {
        acc[i] = s + w0 * int32_t(a0[i]) + w1 * int32_t(a1[i]) + w2 * int32_t(a2[i]) +
                 w3 * int32_t(b0[i]) + w4 * int32_t(b1[i]) + w5 * int32_t(b2[i]) +
                 w6 * int32_t(c0[i]) + w7 * int32_t(c1[i]) + w8 * int32_t(c2[i]);
      }
      return;
    }
    const int32_t s = j.start;
#pragma GCC ivdep
    for (int64_t i = 0; i < count; ++i) acc[i] = s;
    for (int ky = 0; ky < kh; ++ky) {
      const uint8_t* r = top + ky * down;
      for (int kx = 0; kx < kw; ++kx) {
        const uint8_t* t = r + tap_offset(kx);
        const int32_t wt = j.w[ky * kw + kx];
#pragma GCC ivdep
        for (int64_t i = 0; i < count; ++i) acc[i] += wt * int32_t(t[i]);
      }
    }
  };
  // Requantizing runs of many codes at once keeps the vector loop busy
  // on small planes.
  if (g.stride_h == 1 && sw == 1) {
    // Blocks of rows_per_block output rows, flat over the padded width;
    // the codes between rows are dropped.
    for (int oy = 0; oy < g.out_h; oy += j.rows_per_block) {
      const int rows = std::min(j.rows_per_block, g.out_h - oy);
      const int64_t count = int64_t(rows - 1) * pw + ow;
      sums(j.plane + int64_t(oy) * row_stride, count);
      RequantizeRow32(acc, count, j.bias, *j.r, j.y_zero, j.codes, j.table);
      for (int r = 0; r < rows; ++r)
        std::memcpy(j.y + int64_t(oy + r) * ow, j.codes + int64_t(r) * pw, size_t(ow));
    }
    return;
  }
  for (int oy = 0; oy < g.out_h; oy += j.rows_per_block) {
    const int rows = std::min(j.rows_per_block, g.out_h - oy);
    for (int r = 0; r < rows; ++r) {
      sums(j.plane + int64_t(oy + r) * g.stride_h * row_stride, ow);
      acc += ow;
    }
    acc = j.row;
    RequantizeRow32(acc, int64_t(rows) * ow, j.bias, *j.r, j.y_zero, j.y + int64_t(oy) * ow,
                    j.table);
  }
}

}  // namespace

bool DepthwiseCodesKernel::Fits(const ConvGeometry& g) {
  return g.group > 0 && g.InPerGroup() == 1 && g.in_c == g.group && g.out_c % g.group == 0 &&
         g.KernelArea() <= kMaxTaps && g.ConvFits() && g.out_h > 0 && g.out_w > 0;
}

void DepthwiseCodesKernel::Reshape(const ConvGeometry& g, int threads) {
  g_ = g;
  padded_h_ = (g.out_h - 1) * g.stride_h + g.ExtentH();
  const int padded_w = (g.out_w - 1) * g.stride_w + g.ExtentW();
  phase_w_ = (padded_w + g.stride_w - 1) / g.stride_w;
  // Blocks of rows whose sums take about 16 KB; at stride 1 each row of
  // sums spans the padded width.
  const bool flat = g.stride_h == 1 && g.stride_w == 1;
  const int pitch = std::max(1, flat ? phase_w_ : g.out_w);
  rows_per_block_ = std::max(1, std::min(g.out_h, 4096 / pitch));
  slots_.resize(static_cast<size_t>(std::max(1, threads)));
  for (Slot& s : slots_) {
    s.plane.resize(static_cast<size_t>(int64_t(padded_h_) * g.stride_w * phase_w_));
    s.row.resize(static_cast<size_t>(int64_t(rows_per_block_) * pitch));
    s.codes.resize(flat ? s.row.size() : 0);
    s.weights.resize(static_cast<size_t>(g.KernelArea()));
  }
}

void DepthwiseCodesKernel::Run(const uint8_t* x, int32_t x_zero, const uint8_t* w,
                               const ChannelQuantization& q, uint8_t* y, const uint8_t* table) {
  const ConvGeometry& g = g_;
  const int64_t taps = g.KernelArea(), in_plane = g.InPlane(), out_plane = g.OutPlane();
  const int per_group = g.OutPerGroup();
  const int padded_w = (g.out_w - 1) * g.stride_w + g.ExtentW();
  const int64_t items = int64_t(g.batch) * g.out_c;
  ParallelItems(items, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    Slot& s = slots_[slot];
    const int o = static_cast<int>(item % g.out_c);
    const int64_t n = item / g.out_c;
    const int32_t zw = q.weight_zero[o];
    int32_t sum = 0;
    for (int64_t t = 0; t < taps; ++t) {
      s.weights[t] = int32_t(w[o * taps + t]) - zw;
      sum += s.weights[t];
    }
    PlaneJob j;
    j.g = &g;
    j.phase_w = phase_w_;
    j.padded_h = padded_h_;
    j.padded_w = padded_w;
    j.rows_per_block = rows_per_block_;
    j.x = x + (n * g.in_c + o / per_group) * in_plane;
    j.x_zero = x_zero;
    j.w = s.weights.data();
    j.start = -x_zero * sum;
    j.bias = q.bias[o];
    j.r = &q.requantizer[o];
    j.y_zero = q.output_zero;
    j.table = table;
    j.plane = s.plane.data();
    j.row = s.row.data();
    j.codes = s.codes.data();
    j.y = y + item * out_plane;
    DepthwisePlane(j);
  });
}

}  // namespace qzdl
