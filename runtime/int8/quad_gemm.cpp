#include "runtime/int8/quad_gemm.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "runtime/kernels/cpu_features.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define QZDL_QUAD_X86 1
#endif

namespace qzdl {

namespace {

// Quads per block of the reduction: a block of B (256 x 32 lanes, 32 KB)
// stays in the first-level cache while every panel of A passes over it.
constexpr int64_t kQuadBlock = 256;

int32_t Wrap(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

// The code of one exact sum s (taken modulo 2^32) of row p.
inline uint8_t CodeOfSum(int32_t s, const QuadRow& p) {
  int32_t v = s;
  if (p.kind == kQuadSaturating) {
    const int64_t t = int64_t(s) + p.bias;
    v = static_cast<int32_t>(t < INT32_MIN ? INT32_MIN : t > INT32_MAX ? INT32_MAX : t);
  }
  const int32_t h = static_cast<int32_t>((int64_t(v) * p.multiplier) >> 32);
  const int32_t q = (h + p.half) >> p.down;  // the zero point is in half
  return static_cast<uint8_t>(q < 0 ? 0 : q > 255 ? 255 : q);
}

// The block of one panel and up to 32 columns from `kc` quads: added to the
// sums in c when `load`, requantized into out when `finish`, else stored
// back into c.
void PanelPortable(int64_t kc, const int32_t* a, const int32_t* b, int ldb, bool load, bool finish,
                   int32_t* c, int64_t ldc, const QuadOutput& out, int row0, int col0, int cols,
                   const int32_t* colsum) {
  int32_t acc[kQuadRows][kQuadColumns];
  for (int i = 0; i < kQuadRows; ++i) {
    const int32_t fixed = row0 + i < out.row_count ? out.rows[row0 + i].fixed : 0;
    for (int j = 0; j < kQuadColumns; ++j) acc[i][j] = load ? c[i * ldc + j] : fixed;
  }
  for (int64_t kq = 0; kq < kc; ++kq) {
    const uint32_t* bk = reinterpret_cast<const uint32_t*>(b + kq * ldb);
    for (int i = 0; i < kQuadRows; ++i) {
      const uint32_t al = static_cast<uint32_t>(a[kq * kQuadRows + i]);
      for (int j = 0; j < kQuadColumns; ++j) {
        uint32_t sum = static_cast<uint32_t>(acc[i][j]);
        for (int t = 0; t < 4; ++t) {
          const int32_t u = int32_t((bk[j] >> (8 * t)) & 0xff);
          const int32_t s = int32_t(int8_t(uint8_t(al >> (8 * t))));
          sum += static_cast<uint32_t>(u * s);
        }
        acc[i][j] = static_cast<int32_t>(sum);
      }
    }
  }
  if (!finish) {
    for (int i = 0; i < kQuadRows; ++i)
      for (int j = 0; j < kQuadColumns; ++j) c[i * ldc + j] = acc[i][j];
    return;
  }
  for (int i = 0; i < kQuadRows && row0 + i < out.row_count; ++i) {
    const QuadRow& p = out.rows[row0 + i];
    for (int j = 0; j < cols; ++j) {
      const int32_t s = static_cast<int32_t>(static_cast<uint32_t>(acc[i][j]) +
                                             uint32_t(p.d) * uint32_t(colsum[j]));
      if (p.kind == kQuadRaw) {
        c[i * ldc + j] = s;
      } else {
        out.y[(row0 + i) * out.y_stride + col0 + j] = CodeOfSum(s, p);
      }
    }
  }
}

#if defined(QZDL_QUAD_X86)
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define QZDL_VNNI_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,avx512dq,avx512vnni")))

// Codes of 16 exact sums s of row p: the bias (saturating where it is not
// folded), the high halves of the products with the multiplier, the rounding
// shift (the zero point is in half) and the code range, as RequantizeRow32
// computes them.
QZDL_VNNI_TARGET inline __m128i CodesOf16(__m512i s, const QuadRow& p, __m512i m, __m512i half,
                                          __m128i down) {
  __m512i v = s;
  if (p.kind == kQuadSaturating) {
    const __m512i b = _mm512_set1_epi32(p.bias);
    const __m512i sum = _mm512_add_epi32(s, b);
    const __mmask16 wrapped =
        _mm512_movepi32_mask(_mm512_and_si512(_mm512_xor_si512(s, sum), _mm512_xor_si512(b, sum)));
    const __m512i sat = _mm512_mask_blend_epi32(
        _mm512_movepi32_mask(s), _mm512_set1_epi32(INT32_MAX), _mm512_set1_epi32(INT32_MIN));
    v = _mm512_mask_blend_epi32(wrapped, sum, sat);
  }
  const __m512i even = _mm512_mul_epi32(v, m);
  const __m512i odd = _mm512_mul_epi32(_mm512_srli_epi64(v, 32), m);
  const __m512i h = _mm512_mask_blend_epi32(__mmask16(0xaaaa), _mm512_srli_epi64(even, 32), odd);
  const __m512i q = _mm512_sra_epi32(_mm512_add_epi32(h, half), down);
  // Negative codes to 0 first; the unsigned narrowing saturates at 255.
  return _mm512_cvtusepi32_epi8(_mm512_max_epi32(q, _mm512_setzero_si512()));
}

// acc += the sums of four u8 x s8 products per lane (vpdpbusd). Written as
// an instruction because GCC 12 copies the accumulator of the intrinsic
// into a new register (and spills) at every step of a loop.
QZDL_VNNI_TARGET inline __m512i DotAdd(__m512i acc, __m512i u8, __m512i s8) {
  asm("vpdpbusd %2, %1, %0" : "+v"(acc) : "v"(u8), "v"(s8));
  return acc;
}

QZDL_VNNI_TARGET void PanelVnni(int64_t kc, const int32_t* a, const int32_t* b, int ldb, bool load,
                                bool finish, int32_t* c, int64_t ldc, const QuadOutput& out,
                                int row0, int col0, int cols, const int32_t* colsum) {
  const int rows = std::min(kQuadRows, out.row_count - row0);
  // The sums start from each row's fixed term.
  __m512i acc[kQuadRows][2];
#pragma GCC unroll 8
  for (int i = 0; i < kQuadRows; ++i) {
    if (load) {
      acc[i][0] = _mm512_loadu_si512(c + i * ldc);
      acc[i][1] = _mm512_loadu_si512(c + i * ldc + 16);
    } else {
      acc[i][0] = acc[i][1] = _mm512_set1_epi32(i < rows ? out.rows[row0 + i].fixed : 0);
    }
  }
  for (int64_t kq = 0; kq < kc; ++kq) {
    const __m512i b0 = _mm512_loadu_si512(b + kq * ldb);
    const __m512i b1 = _mm512_loadu_si512(b + kq * ldb + 16);
    const int32_t* ak = a + kq * kQuadRows;
#pragma GCC unroll 8
    for (int i = 0; i < kQuadRows; ++i) {
      const __m512i av = _mm512_set1_epi32(ak[i]);
      acc[i][0] = DotAdd(acc[i][0], b0, av);
      acc[i][1] = DotAdd(acc[i][1], b1, av);
    }
  }
  if (!finish) {
#pragma GCC unroll 8
    for (int i = 0; i < kQuadRows; ++i) {
      _mm512_storeu_si512(c + i * ldc, acc[i][0]);
      _mm512_storeu_si512(c + i * ldc + 16, acc[i][1]);
    }
    return;
  }
  const __m512i s0 = _mm512_loadu_si512(colsum), s1 = _mm512_loadu_si512(colsum + 16);
  const __mmask16 m0 = cols >= 16 ? __mmask16(0xffff) : __mmask16((1u << cols) - 1);
  const __mmask16 m1 = cols >= 32  ? __mmask16(0xffff)
                       : cols > 16 ? __mmask16((1u << (cols - 16)) - 1)
                                   : __mmask16(0);
  // Unrolled, so that the sums stay in registers.
#pragma GCC unroll 8
  for (int i = 0; i < kQuadRows; ++i) {
    if (i >= rows) break;
    const QuadRow& p = out.rows[row0 + i];
    const __m512i d = _mm512_set1_epi32(p.d);
    const __m512i v0 = _mm512_add_epi32(acc[i][0], _mm512_mullo_epi32(d, s0));
    const __m512i v1 = _mm512_add_epi32(acc[i][1], _mm512_mullo_epi32(d, s1));
    if (p.kind == kQuadRaw) {
      _mm512_storeu_si512(c + i * ldc, v0);
      _mm512_storeu_si512(c + i * ldc + 16, v1);
      continue;
    }
    const __m512i m = _mm512_set1_epi32(p.multiplier), half = _mm512_set1_epi32(p.half);
    const __m128i down = _mm_cvtsi32_si128(p.down);
    uint8_t* y = out.y + (row0 + i) * out.y_stride + col0;
    const __m128i q0 = CodesOf16(v0, p, m, half, down);
    const __m128i q1 = CodesOf16(v1, p, m, half, down);
    if (m1 == 0xffff) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(y), q0);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(y + 16), q1);
    } else {
      _mm_mask_storeu_epi8(y, m0, q0);
      _mm_mask_storeu_epi8(y + 16, m1, q1);
    }
  }
}

// Columns [p, p + 64) of quad kq: four rows of codes interleaved byte by
// byte (lane j holds the four codes of column j), and their sums.
QZDL_VNNI_TARGET void PackColumnsVnni(const uint8_t* src, int64_t ld, int k, int np, int extent,
                                      int ldb, int32_t* dst, int32_t* colsum) {
  const int64_t kquads = QuadCount(k);
  const __m512i ones = _mm512_set1_epi8(1);
  for (int p = 0; p < extent; p += 64) {
    const int left = np - p;
    const __mmask64 mask = left >= 64 ? ~__mmask64(0)
                           : left > 0 ? (__mmask64(1) << left) - 1
                                      : __mmask64(0);
    __m512i sum[4] = {_mm512_setzero_si512(), _mm512_setzero_si512(), _mm512_setzero_si512(),
                      _mm512_setzero_si512()};
    const int vectors = std::min(4, (extent - p) / 16);
    for (int64_t kq = 0; kq < kquads; ++kq) {
      __m512i r[4];
      for (int t = 0; t < 4; ++t) {
        const int64_t row = 4 * kq + t;
        r[t] = row < k ? _mm512_maskz_loadu_epi8(mask, src + row * ld + p) : _mm512_setzero_si512();
      }
      const __m512i t0 = _mm512_unpacklo_epi8(r[0], r[1]), t1 = _mm512_unpackhi_epi8(r[0], r[1]);
      const __m512i t2 = _mm512_unpacklo_epi8(r[2], r[3]), t3 = _mm512_unpackhi_epi8(r[2], r[3]);
      // Per 128-bit lane L: q0 columns 16L .. 16L + 3, q1 the next four, ...
      const __m512i q0 = _mm512_unpacklo_epi16(t0, t2), q1 = _mm512_unpackhi_epi16(t0, t2);
      const __m512i q2 = _mm512_unpacklo_epi16(t1, t3), q3 = _mm512_unpackhi_epi16(t1, t3);
      // A 4 x 4 transpose of 128-bit lanes puts columns in order.
      const __m512i u0 = _mm512_shuffle_i32x4(q0, q1, 0x44),
                    u1 = _mm512_shuffle_i32x4(q2, q3, 0x44);
      const __m512i u2 = _mm512_shuffle_i32x4(q0, q1, 0xee),
                    u3 = _mm512_shuffle_i32x4(q2, q3, 0xee);
      const __m512i o[4] = {_mm512_shuffle_i32x4(u0, u1, 0x88), _mm512_shuffle_i32x4(u0, u1, 0xdd),
                            _mm512_shuffle_i32x4(u2, u3, 0x88), _mm512_shuffle_i32x4(u2, u3, 0xdd)};
      int32_t* to = dst + kq * ldb + p;
      for (int v = 0; v < vectors; ++v) {
        _mm512_storeu_si512(to + 16 * v, o[v]);
        sum[v] = _mm512_dpbusd_epi32(sum[v], o[v], ones);
      }
    }
    for (int v = 0; v < vectors; ++v) _mm512_storeu_si512(colsum + p + 16 * v, sum[v]);
  }
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

bool CpuHasQuadGemm() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
         __builtin_cpu_supports("avx512vnni");
}
#endif

}  // namespace

bool HaveQuadGemm() {
#if defined(QZDL_QUAD_X86)
  static const bool have = CpuHasQuadGemm() && CpuPathAllowed("avx512") && CpuPathAllowed("vnni");
  return have;
#else
  return false;
#endif
}

QuadRow MakeQuadRow(int64_t k, int32_t x_zero, int32_t w_zero, int32_t w_code_sum, int32_t bias,
                    const Requantizer& r, int32_t y_zero) {
  QuadRow p;
  p.d = 128 - w_zero;
  const int64_t shifted_sum = int64_t(w_code_sum) - 128 * k;  // sum of w - 128
  const int64_t fixed = -int64_t(x_zero) * shifted_sum - int64_t(x_zero) * p.d * k;
  p.bias = bias;
  // |sum| <= 65025 * K: where the bias cannot push bias + sum past int32,
  // the reference's saturation never acts and the bias adds modulo 2^32.
  const bool folds = int64_t(bias < 0 ? -int64_t(bias) : bias) + 65025 * k <= INT32_MAX;
  // The zero point rides in the rounding half: with |h| <= 2^30, half <=
  // 2^20 and zero * 2^down < 2^29 nothing wraps, and floor((h + half +
  // zero * 2^down) / 2^down) = floor((h + half) / 2^down) + zero.
  const int down = r.shift - 32;
  if (r.saturate || r.use_double || r.shift < 33 || down > 21 || r.multiplier == 0) {
    p.kind = kQuadRaw;
    p.fixed = Wrap(fixed);
    return p;
  }
  p.fixed = Wrap(folds ? fixed + bias : fixed);
  p.kind = folds ? kQuadFolded : kQuadSaturating;
  p.multiplier = r.multiplier;
  p.half = (int32_t{1} << (down - 1)) + y_zero * (int32_t{1} << down);
  p.down = down;
  return p;
}

void PackQuadColumns(const uint8_t* src, int64_t ld, int k, int np, int extent, int ldb,
                     int32_t* dst, int32_t* colsum, bool vector) {
#if defined(QZDL_QUAD_X86)
  if (vector && HaveQuadGemm()) return PackColumnsVnni(src, ld, k, np, extent, ldb, dst, colsum);
#endif
  (void)vector;
  const int64_t kquads = QuadCount(k);
  std::fill(colsum, colsum + extent, 0);
  for (int64_t kq = 0; kq < kquads; ++kq) {
    int32_t* to = dst + kq * ldb;
    for (int p = 0; p < extent; ++p) {
      uint32_t lane = 0;
      for (int t = 0; t < 4; ++t) {
        const int64_t row = 4 * kq + t;
        if (row < k && p < np) {
          const uint8_t v = src[row * ld + p];
          lane |= uint32_t(v) << (8 * t);
          colsum[p] += v;
        }
      }
      to[p] = static_cast<int32_t>(lane);
    }
  }
}

void QuadGemm(int64_t panels, int64_t kquads, const int32_t* a, const int32_t* b, int ldb,
              const int32_t* colsum, int np, int32_t* c, const QuadOutput& out, bool vector) {
  using PanelFn = void (*)(int64_t, const int32_t*, const int32_t*, int, bool, bool, int32_t*,
                           int64_t, const QuadOutput&, int, int, int, const int32_t*);
  PanelFn panel = PanelPortable;
#if defined(QZDL_QUAD_X86)
  if (vector && HaveQuadGemm()) panel = PanelVnni;
#endif
  (void)vector;
  const int64_t ldc = ldb;
  // An empty reduction runs one block of zero quads, so that the sums
  // (all 0) are still requantized.
  const int64_t blocks = std::max<int64_t>(1, (kquads + kQuadBlock - 1) / kQuadBlock);
  for (int64_t blk = 0; blk < blocks; ++blk) {
    const int64_t k0 = blk * kQuadBlock;
    const int64_t kc = std::min(kQuadBlock, kquads - k0);
    for (int j = 0; j < np; j += kQuadColumns) {
      const int cols = std::min(kQuadColumns, np - j);
      for (int64_t p = 0; p < panels; ++p) {
        panel(kc, a + p * kquads * kQuadRows + k0 * kQuadRows, b + k0 * ldb + j, ldb, blk > 0,
              blk + 1 == blocks, c + p * kQuadRows * ldc + j, ldc, out,
              static_cast<int>(p * kQuadRows), j, cols, colsum + j);
      }
    }
  }
}

}  // namespace qzdl
