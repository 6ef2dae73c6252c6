#include "runtime/int8/requantize.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "runtime/int8/lookup_table.h"
#include "runtime/kernels/cpu_features.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define QZDL_HAVE_AVX512_ROW 1
#endif

namespace qzdl {

Requantizer MakeRequantizer(double real, bool use_double) {
  Requantizer r;
  r.use_double = use_double;
  if (!(real > 0.0)) return r;  // 0, negative or NaN: every result is 0
  r.real = real;
  if (std::isinf(real)) {  // a grid of scale 0 below: every non-zero sum saturates
    r.saturate = true;
    return r;
  }
  int exponent = 0;
  const double fraction = std::frexp(real, &exponent);  // real = fraction * 2^exponent
  int64_t m = std::llround(fraction * 2147483648.0);    // in [2^30, 2^31]
  if (m == (int64_t{1} << 31)) {
    m >>= 1;
    ++exponent;
  }
  const int shift = 31 - exponent;  // real ~ m * 2^-shift
  if (shift < 1) {
    r.saturate = true;
  } else if (shift > 62) {
    // real < 2^-32: |acc * real| < 1/2 for every int32 acc, which rounds to
    // 0 (never a tie), so the multiplier stays 0. Below 2^-64 the same
    // holds for every int64 acc.
    if (shift <= 95) {
      r.wide_multiplier = static_cast<int32_t>(m);
      r.wide_shift = shift;
    }
  } else {
    r.multiplier = static_cast<int32_t>(m);
    r.shift = shift;
  }
  return r;
}

int32_t RequantizeRaw64(int64_t acc, const Requantizer& r) {
  if (acc >= INT32_MIN && acc <= INT32_MAX) return RequantizeRaw(static_cast<int32_t>(acc), r);
  constexpr int64_t kLimit = int64_t{1} << 30;
  if (r.saturate) return acc > 0 ? kLimit : -kLimit;
  if (r.use_double) {
    const double v = static_cast<double>(acc) * r.real + 0.5;
    const double f = v < -1073741824.0 ? -1073741824.0 : v > 1073741824.0 ? 1073741824.0 : v;
    int64_t i = static_cast<int64_t>(f);
    if (static_cast<double>(i) > f) --i;
    return static_cast<int32_t>(i);
  }
  const int64_t m = r.multiplier != 0 ? r.multiplier : r.wide_multiplier;
  const int shift = r.multiplier != 0 ? r.shift : r.wide_shift;
  if (m == 0) return 0;
  // Here |acc| >= 2^31. A shift below 32 means M >= 1/2, so |acc * M| >= 2^30
  // and the result saturates.
  if (shift < 32) return acc > 0 ? kLimit : -kLimit;
  // acc * m = a * 2^32 + b with acc = hi * 2^32 + lo, 0 <= lo < 2^32:
  // a = hi * m (|a| < 2^62), b = lo * m (< 2^63, unsigned). The result is
  // floor((acc * m + 2^(shift-1)) / 2^shift), taken in steps whose floors
  // nest exactly (each step divides by a power of 2 that the added half is a
  // multiple of): one rounding.
  const int64_t hi = acc >> 32;  // floor(acc / 2^32)
  const uint64_t lo = static_cast<uint64_t>(acc) & 0xffffffffu;
  const int64_t a = hi * m;
  const uint64_t b = lo * static_cast<uint64_t>(m);
  int64_t v;
  if (shift == 32) {
    v = a + static_cast<int64_t>((b + (uint64_t{1} << 31)) >> 32);
  } else {
    const int64_t t = a + static_cast<int64_t>(b >> 32);  // floor(acc * m / 2^32)
    // floor((t + 2^(shift-33)) / 2^(shift-32)); halving t first keeps the
    // sum inside int64 for shifts up to 95.
    v = shift == 33 ? (t + 1) >> 1 : ((t >> 1) + (int64_t{1} << (shift - 34))) >> (shift - 33);
  }
  return static_cast<int32_t>(v < -kLimit ? -kLimit : v > kLimit ? kLimit : v);
}

namespace {

inline int64_t SaturateToInt32(int64_t v) {
  return v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v;
}

inline uint8_t ClampCode(int64_t q) { return static_cast<uint8_t>(q < 0 ? 0 : q > 255 ? 255 : q); }

}  // namespace

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("arch=x86-64-v4", "avx2", "default")))
#endif
void RequantizeRow(const int64_t* acc, int64_t n, const Requantizer& r, int32_t zero,
                   uint8_t* out) {
  if (r.saturate) {
    for (int64_t i = 0; i < n; ++i) out[i] = acc[i] > 0 ? 255 : acc[i] < 0 ? 0 : ClampCode(zero);
    return;
  }
  if (r.use_double) {
    for (int64_t i = 0; i < n; ++i) out[i] = Requantize(int32_t(SaturateToInt32(acc[i])), r, zero);
    return;
  }
  // (v * m + 2^(shift-1)) >> shift, then the zero point and the code range:
  // beyond +-2^30 the clamp to codes gives what RequantizeRaw's clamp gives.
  const int64_t m = r.multiplier, round = int64_t{1} << (r.shift - 1);
  const int shift = r.shift;
  for (int64_t i = 0; i < n; ++i) {
    const int64_t v = SaturateToInt32(acc[i]);
    out[i] = ClampCode(zero + ((v * m + round) >> shift));
  }
}

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("arch=x86-64-v4", "avx2", "default")))
#endif
void RequantizeRow32Plain(const int32_t* acc, int64_t n, int64_t add, const Requantizer& r,
                          int32_t zero, uint8_t* out, const uint8_t* table) {
  if (r.saturate || r.use_double) {
    for (int64_t i = 0; i < n; ++i)
      out[i] = Requantize(int32_t(SaturateToInt32(add + acc[i])), r, zero);
  } else if (r.shift >= 33 && add >= INT32_MIN && add <= INT32_MAX) {
    // In 32-bit lanes. v = acc + add saturated to int32 (an overflow of
    // the wrapped sum shows in the signs); with v * m = h * 2^32 + l,
    // 0 <= l < 2^32 and shift s >= 33, floor((v * m + 2^(s-1)) / 2^s) =
    // floor((h + 2^(s-33)) / 2^(s-32)): l cannot carry past the
    // 2^(s-32) step. |h| <= 2^30 and 2^(s-33) <= 2^29, so nothing wraps.
    const int32_t b = static_cast<int32_t>(add), m = r.multiplier;
    const int32_t half = int32_t{1} << (r.shift - 33);
    const int down = r.shift - 32;
    for (int64_t i = 0; i < n; ++i) {
      const int32_t a = acc[i];
      const int32_t sum = static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
      const bool wrapped = ((a ^ sum) & (b ^ sum)) < 0;
      const int32_t v = wrapped ? (a < 0 ? INT32_MIN : INT32_MAX) : sum;
      const int32_t h = static_cast<int32_t>((int64_t(v) * m) >> 32);
      const int32_t q = zero + ((h + half) >> down);
      out[i] = static_cast<uint8_t>(q < 0 ? 0 : q > 255 ? 255 : q);
    }
  } else {
    const int64_t m = r.multiplier, round = int64_t{1} << (r.shift - 1);
    const int shift = r.shift;
    for (int64_t i = 0; i < n; ++i) {
      const int32_t v = static_cast<int32_t>(SaturateToInt32(add + acc[i]));
      out[i] = ClampCode(zero + ((int64_t(v) * m + round) >> shift));
    }
  }
  if (table != nullptr) LookupCodes(table, out, out, n);
}

namespace {

#if defined(QZDL_HAVE_AVX512_ROW)
// GCC 12 warns about the undefined vectors its own intrinsics start from.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// The 32-bit lane loop of RequantizeRow32Plain (shift >= 33, add in the
// int32 range) on 16 codes per step: the high halves of the products of
// the even and the odd lanes, merged.
__attribute__((target("avx512f,avx512bw,avx512dq"))) void Row32Avx512(const int32_t* acc, int64_t n,
                                                                      int32_t add, int32_t m,
                                                                      int shift, int32_t zero,
                                                                      uint8_t* out) {
  const __m512i b = _mm512_set1_epi32(add), vm = _mm512_set1_epi32(m);
  const __m512i half = _mm512_set1_epi32(int32_t{1} << (shift - 33));
  const __m128i down = _mm_cvtsi32_si128(shift - 32);
  const __m512i vzero = _mm512_set1_epi32(zero), lo = _mm512_setzero_si512(),
                hi = _mm512_set1_epi32(255);
  const __m512i int_max = _mm512_set1_epi32(INT32_MAX), int_min = _mm512_set1_epi32(INT32_MIN);
  for (int64_t i = 0; i < n; i += 16) {
    const bool full = n - i >= 16;
    const __mmask16 k = full ? __mmask16(0xffff) : __mmask16((1u << (n - i)) - 1);
    const __m512i a = _mm512_maskz_loadu_epi32(k, acc + i);
    const __m512i sum = _mm512_add_epi32(a, b);
    // Wrapped where a and b have one sign and the sum the other.
    const __mmask16 wrapped =
        _mm512_movepi32_mask(_mm512_and_si512(_mm512_xor_si512(a, sum), _mm512_xor_si512(b, sum)));
    const __m512i sat = _mm512_mask_blend_epi32(_mm512_movepi32_mask(a), int_max, int_min);
    const __m512i v = _mm512_mask_blend_epi32(wrapped, sum, sat);
    const __m512i even = _mm512_mul_epi32(v, vm);
    const __m512i odd = _mm512_mul_epi32(_mm512_srli_epi64(v, 32), vm);
    const __m512i h = _mm512_mask_blend_epi32(__mmask16(0xaaaa), _mm512_srli_epi64(even, 32), odd);
    __m512i q = _mm512_add_epi32(vzero, _mm512_sra_epi32(_mm512_add_epi32(h, half), down));
    q = _mm512_min_epi32(_mm512_max_epi32(q, lo), hi);
    // Narrowed in a register and stored whole: a masked narrowing store
    // to memory is slow on some CPUs (microcoded on AMD's).
    const __m128i bytes = _mm512_cvtepi32_epi8(q);
    if (full) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), bytes);
    } else {
      alignas(16) uint8_t tail[16];
      _mm_store_si128(reinterpret_cast<__m128i*>(tail), bytes);
      std::memcpy(out + i, tail, static_cast<size_t>(n - i));
    }
  }
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// The same loop on 8 codes per step, for CPUs with AVX2 alone.
__attribute__((target("avx2"))) void Row32Avx2(const int32_t* acc, int64_t n, int32_t add,
                                                int32_t m, int shift, int32_t zero,
                                                uint8_t* out) {
  const __m256i b = _mm256_set1_epi32(add), vm = _mm256_set1_epi32(m);
  const __m256i half = _mm256_set1_epi32(int32_t{1} << (shift - 33));
  const __m128i down = _mm_cvtsi32_si128(shift - 32);
  const __m256i vzero = _mm256_set1_epi32(zero), lo = _mm256_setzero_si256(),
                hi = _mm256_set1_epi32(255);
  const __m256i int_max = _mm256_set1_epi32(INT32_MAX), int_min = _mm256_set1_epi32(INT32_MIN);
  // Bytes 0, 4, 8 and 12 of each 128-bit half to its first four.
  const __m256i pick = _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                        -1, 0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                        -1, -1);
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(acc + i));
    const __m256i sum = _mm256_add_epi32(a, b);
    // Wrapped where a and b have one sign and the sum the other.
    const __m256i wrapped =
        _mm256_srai_epi32(_mm256_and_si256(_mm256_xor_si256(a, sum), _mm256_xor_si256(b, sum)), 31);
    const __m256i sat = _mm256_blendv_epi8(int_max, int_min, _mm256_srai_epi32(a, 31));
    const __m256i v = _mm256_blendv_epi8(sum, sat, wrapped);
    const __m256i even = _mm256_mul_epi32(v, vm);
    const __m256i odd = _mm256_mul_epi32(_mm256_srli_epi64(v, 32), vm);
    const __m256i h = _mm256_blend_epi32(_mm256_srli_epi64(even, 32), odd, 0xaa);
    __m256i q = _mm256_add_epi32(vzero, _mm256_sra_epi32(_mm256_add_epi32(h, half), down));
    q = _mm256_min_epi32(_mm256_max_epi32(q, lo), hi);
    const __m256i bytes = _mm256_shuffle_epi8(q, pick);
    const __m128i eight = _mm_unpacklo_epi32(_mm256_castsi256_si128(bytes),
                                             _mm256_extracti128_si256(bytes, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), eight);
  }
  for (; i < n; ++i) {
    const int32_t a = acc[i];
    const int32_t sum = static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(add));
    const bool wrap = ((a ^ sum) & (add ^ sum)) < 0;
    const int32_t v = wrap ? (a < 0 ? INT32_MIN : INT32_MAX) : sum;
    const int32_t h = static_cast<int32_t>((int64_t(v) * m) >> 32);
    const int32_t q = zero + ((h + (int32_t{1} << (shift - 33))) >> (shift - 32));
    out[i] = static_cast<uint8_t>(q < 0 ? 0 : q > 255 ? 255 : q);
  }
}

bool HaveAvx2Row() {
  static const bool have = __builtin_cpu_supports("avx2") && CpuPathAllowed("avx2");
  return have;
}

bool HaveAvx512Row() {
  static const bool have = __builtin_cpu_supports("avx512f") &&
                           __builtin_cpu_supports("avx512bw") &&
                           __builtin_cpu_supports("avx512dq") && CpuPathAllowed("avx512");
  return have;
}
#endif

}  // namespace

void RequantizeRow32(const int32_t* acc, int64_t n, int64_t add, const Requantizer& r, int32_t zero,
                     uint8_t* out, const uint8_t* table) {
#if defined(QZDL_HAVE_AVX512_ROW)
  if (!r.saturate && !r.use_double && r.shift >= 33 && add >= INT32_MIN && add <= INT32_MAX &&
      HaveAvx512Row()) {
    Row32Avx512(acc, n, static_cast<int32_t>(add), r.multiplier, r.shift, zero, out);
    if (table != nullptr) LookupCodes(table, out, out, n);
    return;
  }
  if (!r.saturate && !r.use_double && r.shift >= 33 && add >= INT32_MIN && add <= INT32_MAX &&
      HaveAvx2Row()) {
    Row32Avx2(acc, n, static_cast<int32_t>(add), r.multiplier, r.shift, zero, out);
    if (table != nullptr) LookupCodes(table, out, out, n);
    return;
  }
#endif
  RequantizeRow32Plain(acc, n, add, r, zero, out, table);
}

}  // namespace qzdl
