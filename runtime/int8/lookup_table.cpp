#include "runtime/int8/lookup_table.h"

#include "runtime/kernels/cpu_features.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define QZDL_HAVE_VBMI_LOOKUP 1
#endif

#include "runtime/int8/grid.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

CodeTable BuildCodeTable(const std::function<float(float)>& f, float in_scale, int in_zero,
                         float out_scale, int out_zero) {
  CodeTable table;
  for (int c = 0; c < 256; ++c) {
    const float x = RealOf(static_cast<uint8_t>(c), in_scale, in_zero);
    table[c] = CodeOf(f(x), out_scale, out_zero);
  }
  return table;
}

void ApplyCodeTable(const CodeTable& table, const uint8_t* x, uint8_t* y, int64_t count) {
  ApplyCodeTable(table.data(), x, y, count);
}

namespace {

#if defined(QZDL_HAVE_VBMI_LOOKUP)
// Four 64-entry quarters of the table; two-source byte permutes take 128
// entries by the low 7 bits of each code, and the top bit picks the half.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void LookupVbmi(const uint8_t* table,
                                                                       const uint8_t* x, uint8_t* y,
                                                                       int64_t count) {
  const __m512i t0 = _mm512_loadu_si512(table), t1 = _mm512_loadu_si512(table + 64);
  const __m512i t2 = _mm512_loadu_si512(table + 128), t3 = _mm512_loadu_si512(table + 192);
  int64_t i = 0;
  for (; i + 64 <= count; i += 64) {
    const __m512i c = _mm512_loadu_si512(x + i);
    const __m512i lo = _mm512_permutex2var_epi8(t0, c, t1);
    const __m512i hi = _mm512_permutex2var_epi8(t2, c, t3);
    _mm512_storeu_si512(y + i, _mm512_mask_blend_epi8(_mm512_movepi8_mask(c), lo, hi));
  }
  if (i < count) {
    const __mmask64 m = ~uint64_t{0} >> (64 - (count - i));
    const __m512i c = _mm512_maskz_loadu_epi8(m, x + i);
    const __m512i lo = _mm512_permutex2var_epi8(t0, c, t1);
    const __m512i hi = _mm512_permutex2var_epi8(t2, c, t3);
    _mm512_mask_storeu_epi8(y + i, m, _mm512_mask_blend_epi8(_mm512_movepi8_mask(c), lo, hi));
  }
}

// Sixteen 16-entry rows of the table, each taken by byte shuffles on the
// low four bits of every code and kept where the high four bits name the
// row.
__attribute__((target("avx2"))) void LookupAvx2(const uint8_t* table, const uint8_t* x, uint8_t* y,
                                                 int64_t count) {
  __m256i rows[16];
  for (int r = 0; r < 16; ++r)
    rows[r] = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(table + 16 * r)));
  const __m256i nibble = _mm256_set1_epi8(0x0f);
  int64_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x + i));
    const __m256i lo = _mm256_and_si256(c, nibble);
    const __m256i hi = _mm256_and_si256(_mm256_srli_epi16(c, 4), nibble);
    __m256i out = _mm256_setzero_si256();
    for (int r = 0; r < 16; ++r) {
      const __m256i hit = _mm256_cmpeq_epi8(hi, _mm256_set1_epi8(static_cast<char>(r)));
      out = _mm256_or_si256(out, _mm256_and_si256(hit, _mm256_shuffle_epi8(rows[r], lo)));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(y + i), out);
  }
  for (; i < count; ++i) y[i] = table[x[i]];
}

bool HaveAvx2Lookup() {
  static const bool have = __builtin_cpu_supports("avx2") && CpuPathAllowed("avx2");
  return have;
}

bool HaveVbmi() {
  static const bool have = __builtin_cpu_supports("avx512vbmi") &&
                           __builtin_cpu_supports("avx512bw") &&
                           __builtin_cpu_supports("avx512f") && CpuPathAllowed("vbmi");
  return have;
}
#endif

}  // namespace

void LookupCodes(const uint8_t* table, const uint8_t* x, uint8_t* y, int64_t count) {
#if defined(QZDL_HAVE_VBMI_LOOKUP)
  if (HaveVbmi()) return LookupVbmi(table, x, y, count);
  if (HaveAvx2Lookup()) return LookupAvx2(table, x, y, count);
#endif
  for (int64_t i = 0; i < count; ++i) y[i] = table[x[i]];
}

void ApplyCodeTable(const uint8_t* table, const uint8_t* x, uint8_t* y, int64_t count) {
  // The vector loops take about a cycle per 64 (VBMI) or 8 (AVX2) codes:
  // below these counts waking the pool costs more than the lookups.
  int64_t grain = kParallelGrain;
#if defined(QZDL_HAVE_VBMI_LOOKUP)
  if (HaveVbmi()) {
    grain = int64_t{1} << 18;
  } else if (HaveAvx2Lookup()) {
    grain = int64_t{1} << 16;
  }
#endif
  ParallelFor(
      count,
      [&](int64_t begin, int64_t end) { LookupCodes(table, x + begin, y + begin, end - begin); },
      grain);
}

}  // namespace qzdl
