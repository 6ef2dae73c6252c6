#include "runtime/int8/depthwise_int8.h"

#include <algorithm>
#include <cstring>

#include "runtime/int8/lookup_table.h"
#include "runtime/int8/quad_gemm.h"
#include "runtime/int8/requantize.h"
#include "runtime/kernels/cpu_features.h"
#include "runtime/kernels/parallel.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

// On x86-64 the plane loop is compiled for AVX-512, AVX2 and the baseline,
// picked at load time; elsewhere the compiler's default target is used.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QZDL_DW_CLONES __attribute__((target_clones("arch=x86-64-v4", "avx2", "default")))
#else
#define QZDL_DW_CLONES
#endif

// The sums below write a buffer that no tap reads.
#if defined(__GNUC__) && !defined(__clang__)
#define QZDL_IVDEP _Pragma("GCC ivdep")
#else
#define QZDL_IVDEP
#endif

namespace qzdl {

namespace {

#if defined(__x86_64__) && defined(__GNUC__)
// GCC 12 warns about the undefined vectors its own intrinsics start from.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// acc[i] = start + sum_t w[t] * src[t][i] for 9 taps, 16 positions per
// step: codes widened to int32, products and sums in int32 (exact: see the
// header).
__attribute__((target("avx512f"))) void Sums9Avx512(const uint8_t* const* src, const int32_t* w,
                                                    int32_t start, int64_t count, int32_t* acc) {
  __m512i wv[9];
  for (int t = 0; t < 9; ++t) wv[t] = _mm512_set1_epi32(w[t]);
  const __m512i s = _mm512_set1_epi32(start);
  int64_t i = 0;
  for (; i + 16 <= count; i += 16) {
    __m512i a = s;
    for (int t = 0; t < 9; ++t) {
      const __m512i x =
          _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src[t] + i)));
      a = _mm512_add_epi32(a, _mm512_mullo_epi32(x, wv[t]));
    }
    _mm512_storeu_si512(acc + i, a);
  }
  for (; i < count; ++i) {
    int32_t a = start;
    for (int t = 0; t < 9; ++t) a += w[t] * int32_t(src[t][i]);
    acc[i] = a;
  }
}
// Sums9Avx512 with the requantization in registers: out[i] = the code of
// start + sum_t w[t] * src[t][i], where start holds the bias (which cannot
// make the sum leave int32) and the requantizer is of the 32-bit lane form
// (shift >= 33), as RequantizeRow32 computes it.
__attribute__((target("avx512f,avx512bw,avx512vl"))) void Codes9Avx512(
    const uint8_t* const* src, const int32_t* w, int32_t start, int32_t m, int shift, int32_t zero,
    int64_t count, uint8_t* out) {
  __m512i wv[9];
  for (int t = 0; t < 9; ++t) wv[t] = _mm512_set1_epi32(w[t]);
  const __m512i s = _mm512_set1_epi32(start), vm = _mm512_set1_epi32(m);
  const __m512i half = _mm512_set1_epi32(int32_t{1} << (shift - 33));
  const __m128i down = _mm_cvtsi32_si128(shift - 32);
  const __m512i vzero = _mm512_set1_epi32(zero);
  for (int64_t i = 0; i < count; i += 16) {
    const __mmask16 k = count - i >= 16 ? __mmask16(0xffff) : __mmask16((1u << (count - i)) - 1);
    __m512i a = s;
    for (int t = 0; t < 9; ++t) {
      const __m512i x = _mm512_cvtepu8_epi32(_mm_maskz_loadu_epi8(k, src[t] + i));
      a = _mm512_add_epi32(a, _mm512_mullo_epi32(x, wv[t]));
    }
    const __m512i even = _mm512_mul_epi32(a, vm);
    const __m512i odd = _mm512_mul_epi32(_mm512_srli_epi64(a, 32), vm);
    const __m512i h = _mm512_mask_blend_epi32(__mmask16(0xaaaa), _mm512_srli_epi64(even, 32), odd);
    const __m512i q = _mm512_add_epi32(vzero, _mm512_sra_epi32(_mm512_add_epi32(h, half), down));
    const __m128i bytes = _mm512_cvtusepi32_epi8(_mm512_max_epi32(q, _mm512_setzero_si512()));
    if (k == 0xffff) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), bytes);
    } else {
      _mm_mask_storeu_epi8(out + i, k, bytes);
    }
  }
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define QZDL_DW_VNNI __attribute__((target("avx512f,avx512bw,avx512vl,avx512vnni")))
// acc += the sums of four u8 x s8 products per lane (vpdpbusd), as one
// instruction: GCC 12 copies the intrinsic's accumulator at every step.
QZDL_DW_VNNI inline __m512i DotAdd(__m512i acc, __m512i u8, __m512i s8) {
  asm("vpdpbusd %2, %1, %0" : "+v"(acc) : "v"(u8), "v"(s8));
  return acc;
}

// The codes of `count` positions from `base` with the taps summed four at
// a time by u8 x s8 dot products: the 32-bit lane at byte b of a load holds
// the codes at b .. b + 3, which are the taps of quad q for position b when
// the load starts at quad q's offset. Four loads one code apart give the
// positions 4i, 4i + 1, 4i + 2 and 4i + 3 of 64; each centred weight c in
// [-255, 254] is split into two int8 halves (weights[2q], weights[2q + 1],
// c = a + b), so that x * c is two exact products. start holds the bias
// (which cannot make the sum leave int32); the requantizer has the 32-bit
// lane form. Loads of the last step may read up to 67 codes past the
// positions' last tap (the plane's slack).
QZDL_DW_VNNI void DotCodesAvx512(const uint8_t* base, const int64_t* offsets, int quads,
                                 const int32_t* weights, int32_t start, int32_t m, int shift,
                                 int32_t zero, int64_t count, uint8_t* out) {
  const __m512i s = _mm512_set1_epi32(start), vm = _mm512_set1_epi32(m);
  const __m512i half = _mm512_set1_epi32(int32_t{1} << (shift - 33));
  const __m128i down = _mm_cvtsi32_si128(shift - 32);
  const __m512i vzero = _mm512_set1_epi32(zero);
  for (int64_t i = 0; i < count; i += 64) {
    __m512i acc[4] = {s, s, s, s};
    for (int q = 0; q < quads; ++q) {
      const uint8_t* p = base + offsets[q] + i;
      const __m512i wa = _mm512_set1_epi32(weights[2 * q]);
      const __m512i wb = _mm512_set1_epi32(weights[2 * q + 1]);
      for (int j = 0; j < 4; ++j) {
        const __m512i x = _mm512_loadu_si512(p + j);
        acc[j] = DotAdd(DotAdd(acc[j], x, wa), x, wb);
      }
    }
    __m128i c[4];
    for (int j = 0; j < 4; ++j) {
      const __m512i even = _mm512_mul_epi32(acc[j], vm);
      const __m512i odd = _mm512_mul_epi32(_mm512_srli_epi64(acc[j], 32), vm);
      const __m512i h =
          _mm512_mask_blend_epi32(__mmask16(0xaaaa), _mm512_srli_epi64(even, 32), odd);
      const __m512i v = _mm512_add_epi32(vzero, _mm512_sra_epi32(_mm512_add_epi32(h, half), down));
      c[j] = _mm512_cvtusepi32_epi8(_mm512_max_epi32(v, _mm512_setzero_si512()));
    }
    // c[j] holds positions 4i + j: back in order, 16 at a time.
    const __m128i t0 = _mm_unpacklo_epi8(c[0], c[1]), t1 = _mm_unpackhi_epi8(c[0], c[1]);
    const __m128i t2 = _mm_unpacklo_epi8(c[2], c[3]), t3 = _mm_unpackhi_epi8(c[2], c[3]);
    const __m128i r[4] = {_mm_unpacklo_epi16(t0, t2), _mm_unpackhi_epi16(t0, t2),
                          _mm_unpacklo_epi16(t1, t3), _mm_unpackhi_epi16(t1, t3)};
    const int64_t left = count - i;
    for (int j = 0; j < 4 && 16 * j < left; ++j) {
      uint8_t* to = out + i + 16 * j;
      if (left - 16 * j >= 16) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), r[j]);
      } else {
        _mm_mask_storeu_epi8(to, __mmask16((1u << (left - 16 * j)) - 1), r[j]);
      }
    }
  }
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

bool HaveAvx512F() {
  static const bool have = __builtin_cpu_supports("avx512f") && CpuPathAllowed("avx512");
  return have;
}

bool HaveAvx512BW() {
  static const bool have =
      HaveAvx512F() && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
  return have;
}

// Bits [lo, hi) of a 64-bit mask (0 when empty).
inline uint64_t BitRange(int64_t lo, int64_t hi) {
  lo = std::max<int64_t>(lo, 0);
  hi = std::min<int64_t>(hi, 64);
  if (hi <= lo) return 0;
  const uint64_t upto = hi == 64 ? ~uint64_t(0) : (uint64_t(1) << hi) - 1;
  return upto & ~((uint64_t(1) << lo) - 1);
}

// dst (rows of `width` codes, back to back) = rows of src (stride `ld`):
// masked vector moves rather than a call per short row.
__attribute__((target("avx512f,avx512bw"))) void CopyRowsAvx512(const uint8_t* src, int64_t ld,
                                                                int rows, int width, uint8_t* dst) {
  for (int r = 0; r < rows; ++r) {
    const uint8_t* from = src + r * ld;
    uint8_t* to = dst + int64_t(r) * width;
    for (int c = 0; c < width; c += 64) {
      const __mmask64 k = width - c >= 64 ? ~__mmask64(0) : (__mmask64(1) << (width - c)) - 1;
      _mm512_mask_storeu_epi8(to + c, k, _mm512_maskz_loadu_epi8(k, from + c));
    }
  }
}

#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// The padded sub-planes of one input plane (strides of 1 or 2 across) in
// steps of 64 codes: a masked load reads the input where a column lies in
// it and gives the zero point elsewhere, so there is no loop per code and
// no call per row. A step may store past a row's end: into the next row
// (written after it) or the slack at the end of the plane.
__attribute__((target("avx512f,avx512bw"))) void FillSubPlanesAvx512(const ConvGeometry& g,
                                                                     int sub_h, int pw,
                                                                     const uint8_t* x, uint8_t zx,
                                                                     uint8_t* plane) {
  const int sh = g.stride_h, sw = g.stride_w;
  const __m512i fill = _mm512_set1_epi8(static_cast<char>(zx));
  for (int a = 0; a < sh; ++a) {
    for (int b = 0; b < sw; ++b) {
      uint8_t* sub = plane + (int64_t(a) * sw + b) * sub_h * pw;
      const int off = b - g.pad_left;
      for (int r = 0; r < sub_h; ++r) {
        uint8_t* d = sub + int64_t(r) * pw;
        const int iy = r * sh + a - g.pad_top;
        if (iy < 0 || iy >= g.in_h) {
          for (int c = 0; c < pw; c += 64) _mm512_storeu_si512(d + c, fill);
          continue;
        }
        // The row's address as an integer: masked-off lanes may lie
        // before it, and are never read.
        const uintptr_t src = reinterpret_cast<uintptr_t>(x + int64_t(iy) * g.in_w);
        if (sw == 1) {
          for (int c = 0; c < pw; c += 64) {
            const int64_t first = int64_t(c) + off;  // input column of lane 0
            const __mmask64 k = BitRange(-first, g.in_w - first);
            const __m512i v = _mm512_mask_loadu_epi8(
                fill, k, reinterpret_cast<const void*>(src + static_cast<uintptr_t>(first)));
            _mm512_storeu_si512(d + c, v);
          }
        } else {
          // Column c reads input column 2c + off: the low bytes of the
          // 16-bit lanes of 64 codes from there.
          for (int c = 0; c < pw; c += 32) {
            const int64_t first = 2 * int64_t(c) + off;
            const __mmask64 k = BitRange(-first, g.in_w - first);
            const __m512i v = _mm512_mask_loadu_epi8(
                fill, k, reinterpret_cast<const void*>(src + static_cast<uintptr_t>(first)));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + c), _mm512_cvtepi16_epi8(v));
          }
        }
      }
    }
  }
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#define QZDL_HAVE_SUMS9_AVX512 1
#endif

// What one plane needs. The padded plane (pads hold the input zero point)
// is kept as stride_h * stride_w sub-planes of sub_h rows of sub_w codes:
// sub-plane (a, b) holds the padded rows a, a + stride_h, ... and columns
// b, b + stride_w, ... Output (oy, ox) reads tap (ky, kx) at row
// oy + ky * dilation_h / stride_h, column ox + kx * dilation_w / stride_w of
// sub-plane (ky * dilation_h % stride_h, kx * dilation_w % stride_w), so
// every tap reads a contiguous run over a whole block of output rows (sums
// at the sub_w - out_w positions between rows are computed and dropped).
struct PlaneJob {
  const ConvGeometry* g;
  int sub_h, sub_w;
  int rows_per_block;   // output rows per block of sums
  bool intrinsics;      // whether the AVX-512 loop may run
  const int64_t* taps;  // each tap's offset in the padded plane
  const uint8_t* x;     // the input plane
  int32_t x_zero;
  const int32_t* w;  // centred weights of the channel
  int32_t start;     // -x_zero * sum of w
  // The dot-product loop (VNNI): tap quads' offsets and split weights.
  bool dot;
  int quad_count;
  const int64_t* quad_offsets;
  const int32_t* quad_weights;
  int64_t bias;
  const Requantizer* r;
  int32_t y_zero;
  const uint8_t* table;
  uint8_t* plane;
  int32_t* row;    // rows_per_block * sub_w sums
  uint8_t* codes;  // rows_per_block * sub_w codes
  uint8_t* y;      // the output plane
};

QZDL_DW_CLONES
void DepthwisePlane(const PlaneJob& j) {
  const ConvGeometry& g = *j.g;
  const int sh = g.stride_h, sw = g.stride_w, pw = j.sub_w;
  const uint8_t zx = static_cast<uint8_t>(j.x_zero);
  // The sub-planes.
#if defined(QZDL_HAVE_SUMS9_AVX512)
  const bool filled = j.intrinsics && (sw == 1 || sw == 2) && HaveAvx512BW();
  if (filled) FillSubPlanesAvx512(g, j.sub_h, pw, j.x, zx, j.plane);
#else
  const bool filled = false;
#endif
  for (int a = 0; a < sh && !filled; ++a) {
    for (int b = 0; b < sw; ++b) {
      uint8_t* sub = j.plane + (int64_t(a) * sw + b) * j.sub_h * pw;
      // Sub-plane columns [lo, hi) read input columns c * sw + off.
      const int off = b - g.pad_left;
      const int lo = std::min(pw, std::max(0, (-off + sw - 1) / sw));
      const int hi = std::max(lo, std::min(pw, (g.in_w - off + sw - 1) / sw));
      for (int r = 0; r < j.sub_h; ++r) {
        uint8_t* d = sub + int64_t(r) * pw;
        const int iy = r * sh + a - g.pad_top;
        if (iy < 0 || iy >= g.in_h) {
          std::memset(d, zx, size_t(pw));
          continue;
        }
        const uint8_t* src = j.x + int64_t(iy) * g.in_w;
        std::memset(d, zx, size_t(lo));
        if (sw == 1) {
          std::memcpy(d + lo, src + lo + off, size_t(hi - lo));
        } else if (sw == 2) {
          for (int c = lo; c < hi; ++c) d[c] = src[2 * c + off];
        } else {
          for (int c = lo; c < hi; ++c) d[c] = src[c * sw + off];
        }
        std::memset(d + hi, zx, size_t(pw - hi));
      }
    }
  }
  const int ow = g.out_w, kh = g.kernel_h, kw = g.kernel_w;
  int32_t* acc = j.row;
  // Sums for `count` consecutive positions from the first output position
  // `first` (a multiple of sub_w).
  auto sums = [&](int64_t first, int64_t count) {
    const uint8_t* base = j.plane + first;
#if defined(QZDL_HAVE_SUMS9_AVX512)
    if (kh == 3 && kw == 3 && j.intrinsics && HaveAvx512F()) {
      const uint8_t* src[9];
      for (int t = 0; t < 9; ++t) src[t] = base + j.taps[t];
      Sums9Avx512(src, j.w, j.start, count, acc);
      return;
    }
#endif
    if (kh == 3 && kw == 3) {
      const uint8_t* a0 = base + j.taps[0];
      const uint8_t* a1 = base + j.taps[1];
      const uint8_t* a2 = base + j.taps[2];
      const uint8_t* b0 = base + j.taps[3];
      const uint8_t* b1 = base + j.taps[4];
      const uint8_t* b2 = base + j.taps[5];
      const uint8_t* c0 = base + j.taps[6];
      const uint8_t* c1 = base + j.taps[7];
      const uint8_t* c2 = base + j.taps[8];
      const int32_t w0 = j.w[0], w1 = j.w[1], w2 = j.w[2], w3 = j.w[3], w4 = j.w[4], w5 = j.w[5],
                    w6 = j.w[6], w7 = j.w[7], w8 = j.w[8], s = j.start;
      QZDL_IVDEP
      for (int64_t i = 0; i < count; ++i) {
        acc[i] = s + w0 * int32_t(a0[i]) + w1 * int32_t(a1[i]) + w2 * int32_t(a2[i]) +
                 w3 * int32_t(b0[i]) + w4 * int32_t(b1[i]) + w5 * int32_t(b2[i]) +
                 w6 * int32_t(c0[i]) + w7 * int32_t(c1[i]) + w8 * int32_t(c2[i]);
      }
      return;
    }
    const int32_t s = j.start;
    QZDL_IVDEP
    for (int64_t i = 0; i < count; ++i) acc[i] = s;
    for (int t = 0; t < kh * kw; ++t) {
      const uint8_t* from = base + j.taps[t];
      const int32_t wt = j.w[t];
      QZDL_IVDEP
      for (int64_t i = 0; i < count; ++i) acc[i] += wt * int32_t(from[i]);
    }
  };
#if defined(QZDL_HAVE_SUMS9_AVX512)
  if (j.dot) {
    const int32_t start = static_cast<int32_t>(j.start + j.bias);
    for (int oy = 0; oy < g.out_h; oy += j.rows_per_block) {
      const int rows = std::min(j.rows_per_block, g.out_h - oy);
      const int64_t count = int64_t(rows - 1) * pw + ow;
      uint8_t* dst = pw == ow ? j.y + int64_t(oy) * ow : j.codes;
      DotCodesAvx512(j.plane + int64_t(oy) * pw, j.quad_offsets, j.quad_count, j.quad_weights,
                     start, j.r->multiplier, j.r->shift, j.y_zero, count, dst);
      if (j.table != nullptr) LookupCodes(j.table, dst, dst, count);
      if (pw != ow) CopyRowsAvx512(j.codes, pw, rows, ow, j.y + int64_t(oy) * ow);
    }
    return;
  }
  // 3x3 windows on AVX-512 with a lane-form multiplier and a bias that
  // cannot saturate: sums and codes in one pass, no int32 row in memory.
  const Requantizer& r = *j.r;
  const int64_t limit = INT32_MAX - 65025 * int64_t(kh) * kw;
  if (kh == 3 && kw == 3 && j.intrinsics && HaveAvx512BW() && !r.saturate && !r.use_double &&
      r.shift >= 33 && r.multiplier != 0 && j.bias >= -limit && j.bias <= limit) {
    const int32_t start = static_cast<int32_t>(j.start + j.bias);
    for (int oy = 0; oy < g.out_h; oy += j.rows_per_block) {
      const int rows = std::min(j.rows_per_block, g.out_h - oy);
      const int64_t count = int64_t(rows - 1) * pw + ow;
      const uint8_t* base = j.plane + int64_t(oy) * pw;
      const uint8_t* src[9];
      for (int t = 0; t < 9; ++t) src[t] = base + j.taps[t];
      uint8_t* dst = pw == ow ? j.y + int64_t(oy) * ow : j.codes;
      Codes9Avx512(src, j.w, start, r.multiplier, r.shift, j.y_zero, count, dst);
      if (j.table != nullptr) LookupCodes(j.table, dst, dst, count);
      if (pw != ow) CopyRowsAvx512(j.codes, pw, rows, ow, j.y + int64_t(oy) * ow);
    }
    return;
  }
#endif
  // Requantizing runs of many codes at once keeps the vector loops busy
  // on small planes.
  for (int oy = 0; oy < g.out_h; oy += j.rows_per_block) {
    const int rows = std::min(j.rows_per_block, g.out_h - oy);
    const int64_t count = int64_t(rows - 1) * pw + ow;
    sums(int64_t(oy) * pw, count);
    if (pw == ow) {
      RequantizeRow32(acc, count, j.bias, *j.r, j.y_zero, j.y + int64_t(oy) * ow, j.table);
      continue;
    }
    RequantizeRow32(acc, count, j.bias, *j.r, j.y_zero, j.codes, j.table);
    for (int r = 0; r < rows; ++r)
      std::memcpy(j.y + int64_t(oy + r) * ow, j.codes + int64_t(r) * pw, size_t(ow));
  }
}

}  // namespace

bool DepthwiseCodesKernel::Fits(const ConvGeometry& g) {
  return g.group > 0 && g.InPerGroup() == 1 && g.in_c == g.group && g.out_c % g.group == 0 &&
         g.KernelArea() <= kMaxTaps && g.ConvFits() && g.out_h > 0 && g.out_w > 0;
}

void DepthwiseCodesKernel::Reshape(const ConvGeometry& g, int threads, bool intrinsics) {
  g_ = g;
  intrinsics_ = intrinsics;
  padded_h_ = (g.out_h - 1) * g.stride_h + g.ExtentH();
  padded_w_ = (g.out_w - 1) * g.stride_w + g.ExtentW();
  sub_h_ = (padded_h_ + g.stride_h - 1) / g.stride_h;
  sub_w_ = (padded_w_ + g.stride_w - 1) / g.stride_w;
  // Blocks of rows whose sums take about 16 KB.
  rows_per_block_ = std::max(1, std::min(g.out_h, 4096 / std::max(1, sub_w_)));
  taps_.clear();
  for (int ky = 0; ky < g.kernel_h; ++ky) {
    for (int kx = 0; kx < g.kernel_w; ++kx) {
      const int ry = ky * g.dilation_h, rx = kx * g.dilation_w;
      const int64_t sub = int64_t(ry % g.stride_h) * g.stride_w + rx % g.stride_w;
      taps_.push_back((sub * sub_h_ + ry / g.stride_h) * sub_w_ + rx / g.stride_w);
    }
  }
  // Taps in quads: in order of their offsets, each quad from the first
  // free one up to three codes beyond it.
  std::vector<int> order(taps_.size());
  for (size_t t = 0; t < order.size(); ++t) order[t] = static_cast<int>(t);
  std::sort(order.begin(), order.end(), [&](int a, int b) { return taps_[a] < taps_[b]; });
  quads_.clear();
  for (int t : order) {
    if (quads_.empty() || taps_[t] - quads_.back().offset > 3) {
      quads_.emplace_back();
      quads_.back().offset = taps_[t];
    }
    quads_.back().tap[taps_[t] - quads_.back().offset] = t;
  }
  quad_offsets_.clear();
  for (const TapQuad& q : quads_) quad_offsets_.push_back(q.offset);
  weights_.resize(static_cast<size_t>(int64_t(g.out_c) * g.KernelArea()));
  quad_weights_.resize(2 * quads_.size() * static_cast<size_t>(g.out_c));
  start_.resize(static_cast<size_t>(g.out_c));
  dot_.resize(static_cast<size_t>(g.out_c));
  slots_.resize(static_cast<size_t>(std::max(1, threads)));
  for (Slot& s : slots_) {
    // Slack for the last steps of the vector fill (64 codes) and of the
    // dot-product loop (67), zeros or the zero point.
    s.plane.assign(static_cast<size_t>(int64_t(g.stride_h) * g.stride_w * sub_h_ * sub_w_ + 128),
                   0);
    s.row.resize(static_cast<size_t>(int64_t(rows_per_block_) * sub_w_));
    s.codes.resize(s.row.size());
  }
}

void DepthwiseCodesKernel::Run(const uint8_t* x, int32_t x_zero, const uint8_t* w,
                               const ChannelQuantization& q, uint8_t* y, const uint8_t* table) {
  const ConvGeometry& g = g_;
  const int64_t taps = g.KernelArea(), in_plane = g.InPlane(), out_plane = g.OutPlane();
  const int per_group = g.OutPerGroup();
  const int64_t items = int64_t(g.batch) * g.out_c;
  const int64_t quads = static_cast<int64_t>(quads_.size());
  // Each channel's centred weights, start value and split quads, once per
  // run rather than once per plane: before the planes at batch > 1, in the
  // channel's one plane at batch 1 (so that both threads share the work).
  const bool vnni = intrinsics_ && HaveQuadGemm();
  auto prepare = [&](int o) {
    const int32_t zw = q.weight_zero[o];
    int32_t* cw = weights_.data() + o * taps;
    int32_t sum = 0;
    int32_t most = INT32_MIN;
    for (int64_t t = 0; t < taps; ++t) {
      cw[t] = int32_t(w[o * taps + t]) - zw;
      sum += cw[t];
      most = std::max(most, cw[t]);
    }
    start_[o] = -x_zero * sum;
    // The dot products need the VNNI loop, a lane-form multiplier, a bias
    // that cannot saturate, and centred weights below 255 (two int8 halves).
    const Requantizer& r = q.requantizer[o];
    const int64_t limit = INT32_MAX - 65025 * taps;
    dot_[o] = vnni && !r.saturate && !r.use_double && r.shift >= 33 && r.multiplier != 0 &&
              q.bias[o] >= -limit && q.bias[o] <= limit && most <= 254;
    if (!dot_[o]) return;
    for (int64_t i = 0; i < quads; ++i) {
      uint32_t a = 0, b = 0;
      for (int k = 0; k < 4; ++k) {
        const int tap = quads_[i].tap[k];
        const int32_t c = tap >= 0 ? cw[tap] : 0;
        const int32_t lo = c >> 1;  // floor: c = lo + (c - lo), both in int8
        a |= uint32_t(uint8_t(int8_t(lo))) << (8 * k);
        b |= uint32_t(uint8_t(int8_t(c - lo))) << (8 * k);
      }
      quad_weights_[2 * (o * quads + i)] = static_cast<int32_t>(a);
      quad_weights_[2 * (o * quads + i) + 1] = static_cast<int32_t>(b);
    }
  };
  if (g.batch > 1) {
    for (int o = 0; o < g.out_c; ++o) prepare(o);
  }
  ParallelItems(items, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    Slot& s = slots_[slot];
    const int o = static_cast<int>(item % g.out_c);
    const int64_t n = item / g.out_c;
    if (g.batch == 1) prepare(o);
    PlaneJob j;
    j.dot = dot_[o] != 0;
    j.quad_count = static_cast<int>(quads);
    j.quad_offsets = quad_offsets_.data();
    j.quad_weights = quad_weights_.data() + 2 * o * quads;
    j.g = &g;
    j.sub_h = sub_h_;
    j.sub_w = sub_w_;
    j.rows_per_block = rows_per_block_;
    j.intrinsics = intrinsics_;
    j.taps = taps_.data();
    j.x = x + (n * g.in_c + o / per_group) * in_plane;
    j.x_zero = x_zero;
    j.w = weights_.data() + o * taps;
    j.start = start_[o];
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
