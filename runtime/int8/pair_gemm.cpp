#include "runtime/int8/pair_gemm.h"

#include <algorithm>
#include <cstring>

#include "runtime/kernels/cpu_features.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define QZDL_PAIR_X86 1
#endif

namespace qzdl {

namespace {

// Pairs per block of the reduction: a panel's block of A (6 x 128 lanes,
// 3 KB) and a block of B (128 x 32 lanes, 16 KB) stay in the first-level
// cache while the block of C is summed.
constexpr int64_t kPairBlock = 128;

// The C block of one panel and 32 columns, from `kc` pairs.
void PanelPortable(int64_t kc, const int32_t* a, const int32_t* b, int ldb, int32_t* c,
                   int64_t ldc, bool accumulate) {
  int32_t acc[kPairRows][kPairColumns];
  for (int i = 0; i < kPairRows; ++i)
    for (int j = 0; j < kPairColumns; ++j) acc[i][j] = accumulate ? c[i * ldc + j] : 0;
  for (int64_t kp = 0; kp < kc; ++kp) {
    const int32_t* bk = b + kp * ldb;
    for (int i = 0; i < kPairRows; ++i) {
      const int32_t ap = a[kp * kPairRows + i];
      const int32_t a0 = int16_t(ap & 0xffff), a1 = int16_t(uint32_t(ap) >> 16);
      for (int j = 0; j < kPairColumns; ++j) {
        const int32_t bp = bk[j];
        acc[i][j] += a0 * int32_t(int16_t(bp & 0xffff)) + a1 * int32_t(int16_t(uint32_t(bp) >> 16));
      }
    }
  }
  for (int i = 0; i < kPairRows; ++i)
    for (int j = 0; j < kPairColumns; ++j) c[i * ldc + j] = acc[i][j];
}

#if defined(QZDL_PAIR_X86)
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
__attribute__((target("avx2"))) void PanelAvx2(int64_t kc, const int32_t* a, const int32_t* b,
                                                int ldb, int32_t* c, int64_t ldc,
                                                bool accumulate) {
  // Two halves of 16 columns, each 6 rows x 2 vectors of 8 lanes.
  for (int h = 0; h < kPairColumns; h += 16) {
    __m256i acc[kPairRows][2];
    for (int i = 0; i < kPairRows; ++i) {
      acc[i][0] = accumulate ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c + i * ldc + h))
                             : _mm256_setzero_si256();
      acc[i][1] = accumulate
                      ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c + i * ldc + h + 8))
                      : _mm256_setzero_si256();
    }
    for (int64_t kp = 0; kp < kc; ++kp) {
      const __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + kp * ldb + h));
      const __m256i b1 =
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + kp * ldb + h + 8));
      const int32_t* ak = a + kp * kPairRows;
      for (int i = 0; i < kPairRows; ++i) {
        const __m256i av = _mm256_set1_epi32(ak[i]);
        acc[i][0] = _mm256_add_epi32(acc[i][0], _mm256_madd_epi16(av, b0));
        acc[i][1] = _mm256_add_epi32(acc[i][1], _mm256_madd_epi16(av, b1));
      }
    }
    for (int i = 0; i < kPairRows; ++i) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + i * ldc + h), acc[i][0]);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + i * ldc + h + 8), acc[i][1]);
    }
  }
}

__attribute__((target("avx512f,avx512bw"))) void PanelAvx512(int64_t kc, const int32_t* a,
                                                             const int32_t* b, int ldb,
                                                             int32_t* c, int64_t ldc,
                                                             bool accumulate) {
  __m512i acc[kPairRows][2];
  for (int i = 0; i < kPairRows; ++i) {
    acc[i][0] = accumulate ? _mm512_loadu_si512(c + i * ldc) : _mm512_setzero_si512();
    acc[i][1] = accumulate ? _mm512_loadu_si512(c + i * ldc + 16) : _mm512_setzero_si512();
  }
  for (int64_t kp = 0; kp < kc; ++kp) {
    const __m512i b0 = _mm512_loadu_si512(b + kp * ldb);
    const __m512i b1 = _mm512_loadu_si512(b + kp * ldb + 16);
    const int32_t* ak = a + kp * kPairRows;
    for (int i = 0; i < kPairRows; ++i) {
      const __m512i av = _mm512_set1_epi32(ak[i]);
      acc[i][0] = _mm512_add_epi32(acc[i][0], _mm512_madd_epi16(av, b0));
      acc[i][1] = _mm512_add_epi32(acc[i][1], _mm512_madd_epi16(av, b1));
    }
  }
  for (int i = 0; i < kPairRows; ++i) {
    _mm512_storeu_si512(c + i * ldc, acc[i][0]);
    _mm512_storeu_si512(c + i * ldc + 16, acc[i][1]);
  }
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

using PanelFn = void (*)(int64_t, const int32_t*, const int32_t*, int, int32_t*, int64_t, bool);

PanelFn PanelOf(PairKernel kernel) {
#if defined(QZDL_PAIR_X86)
  if (kernel == PairKernel::kAvx512) return PanelAvx512;
  if (kernel == PairKernel::kAvx2) return PanelAvx2;
#endif
  (void)kernel;
  return PanelPortable;
}

}  // namespace

void PackPairColumns(const uint8_t* src, int64_t ld, int k, int np, int ldb, int32_t zero,
                     int32_t* dst) {
  const int64_t kpairs = PairCount(k);
  for (int64_t kp = 0; kp < kpairs; ++kp) {
    const uint8_t* even = src + 2 * kp * ld;
    int32_t* to = dst + kp * ldb;
    if (2 * kp + 1 < k) {
      const uint8_t* odd = even + ld;
      for (int p = 0; p < np; ++p) to[p] = PackPair(int32_t(even[p]) - zero, int32_t(odd[p]) - zero);
    } else {
      for (int p = 0; p < np; ++p) to[p] = PackPair(int32_t(even[p]) - zero, 0);
    }
    std::fill(to + np, to + ldb, 0);
  }
}

const char* PairKernelName(PairKernel kernel) {
  switch (kernel) {
    case PairKernel::kAvx512: return "AVX-512";
    case PairKernel::kAvx2: return "AVX2";
    case PairKernel::kPortable: return "portable";
  }
  return "?";
}

bool PairKernelAvailable(PairKernel kernel) {
  switch (kernel) {
#if defined(QZDL_PAIR_X86)
    case PairKernel::kAvx512:
      return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
    case PairKernel::kAvx2: return __builtin_cpu_supports("avx2");
#else
    case PairKernel::kAvx512:
    case PairKernel::kAvx2: return false;
#endif
    case PairKernel::kPortable: return true;
  }
  return false;
}

PairKernel BestPairKernel() {
  static const PairKernel best = [] {
    if (PairKernelAvailable(PairKernel::kAvx512) && CpuPathAllowed("avx512"))
      return PairKernel::kAvx512;
    if (PairKernelAvailable(PairKernel::kAvx2) && CpuPathAllowed("avx2")) return PairKernel::kAvx2;
    return PairKernel::kPortable;
  }();
  return best;
}

bool HaveFastPairGemm() { return BestPairKernel() != PairKernel::kPortable; }

void PairGemm(int64_t panels, int64_t kpairs, const int32_t* a, const int32_t* b, int ldb,
              int32_t* c, int64_t ldc, bool accumulate, PairKernel kernel) {
  const PanelFn panel = PanelOf(kernel);
  if (kpairs == 0) {
    if (!accumulate) {
      for (int64_t r = 0; r < panels * kPairRows; ++r) std::fill(c + r * ldc, c + r * ldc + ldb, 0);
    }
    return;
  }
  for (int64_t k0 = 0; k0 < kpairs; k0 += kPairBlock) {
    const int64_t kc = std::min(kPairBlock, kpairs - k0);
    const bool add = accumulate || k0 > 0;
    for (int j = 0; j < ldb; j += kPairColumns) {
      for (int64_t p = 0; p < panels; ++p) {
        panel(kc, a + p * kpairs * kPairRows + k0 * kPairRows, b + k0 * ldb + j, ldb,
              c + p * kPairRows * ldc + j, ldc, add);
      }
    }
  }
}

}  // namespace qzdl
