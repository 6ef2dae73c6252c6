// Vectorised peak and histogram loops (see simd_kernels.h).
#include "quantization/simd_kernels.h"

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define QZDL_HAVE_AVX2_PATH 1
#endif

namespace qzdl {
namespace staticQuantization {
namespace kernels {

namespace {

bool portable_only = false;

#ifdef QZDL_HAVE_AVX2_PATH
bool UseAvx2() {
  static const bool avx2 = __builtin_cpu_supports("avx2");
  return avx2 && !portable_only;
}
#endif

typedef float F4 __attribute__((vector_size(16)));
typedef int I4 __attribute__((vector_size(16)));
typedef double D4 __attribute__((vector_size(32)));

inline F4 Load4(const float* p) {
  F4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// The smallest float whose double value is not below 1e-6: |x| is below it
// exactly when double(|x|) < 1e-6.
float SmallLimit() {
  float t = static_cast<float>(1e-6);
  if (static_cast<double>(t) < 1e-6) t = std::nextafter(t, FLT_MAX);
  return t;
}

// The index rule on one element, for tails and short inputs.
inline int BinIndex(float x, int bins, float offset, double factor) {
  const double d = static_cast<double>(x + offset) * factor;
  if (d >= 0.0 && d < static_cast<double>(bins)) return static_cast<int>(d);
  return d >= static_cast<double>(bins) ? bins - 1 : 0;
}

inline bool Counted(float x, float lo, float hi, bool skip_small, float small) {
  if (x < lo || x > hi) return false;
  if (skip_small) {
    if (x != x) std::exit(-1);
    if (x < small && x > -small) return false;
  }
  return true;
}

constexpr unsigned long kBlock = 1024;
constexpr int kCopies = 4;

// One binning call: the element rule of BinElements and, when the factor
// allows it, the constants of the single-precision shortcut.
//
// The shortcut. For a counted element y = x + offset is not negative (both
// callers pass an offset of at least -lo), and the index is trunc(d) with
// d = double(y) * factor, clamped to [0, bins - 1]. With f = float(factor)
// and dq = y * f in single precision, |dq - d| stays below
// (bins + 1) * 2^-23 for every d up to the clamp, as long as factor is a
// normal float far from the ends of the range (f then has a relative error
// of 2^-24 and the product another 2^-24). So when dq - eps and dq + eps,
// eps = (bins + 2) * 2^-21, truncate to the same integer, that integer is
// trunc(d), also counting the rounding of the two sums. Elements where the
// two differ, or where dq is NaN, are few (about 2 eps of them) and get the
// element rule itself. dq is clamped to [-0.5, bins - 0.5] first, which
// keeps the clamp of the rule (an infinite y gives bins - 1).
struct Binning {
  int bins;
  float lo;
  float hi;
  float offset;
  double factor;
  bool skip_small;
  float small;
  bool single;
  float f;
  float eps;
  float limit;
};

Binning MakeBinning(int bins, float lo, float hi, float offset, double factor, bool skip_small) {
  Binning b;
  b.bins = bins;
  b.lo = lo;
  b.hi = hi;
  b.offset = offset;
  b.factor = factor;
  b.skip_small = skip_small;
  b.small = SmallLimit();
  b.single = factor >= std::ldexp(1.0, -100) && factor <= std::ldexp(1.0, 100) && bins >= 1 &&
             bins <= (1 << 20);
  b.f = static_cast<float>(factor);
  b.eps = std::ldexp(static_cast<float>(bins + 2), -21);
  b.limit = static_cast<float>(bins) - 0.5f;
  return b;
}

inline int ExactIndex(float x, const Binning& b) {
  return Counted(x, b.lo, b.hi, b.skip_small, b.small) ? BinIndex(x, b.bins, b.offset, b.factor)
                                                       : b.bins;
}

// What a block of indices holds: `kept` indices at the start of the array
// (with the portable loops, all kBlock of them, `bins` standing for "not
// counted"), plus `zeros` elements equal to 0 that were counted but left
// out of the array because they all share one index.
struct BlockResult {
  unsigned long kept;
  unsigned long zeros;
};

// Portable, in double precision: the product is clamped to [0, bins - 1]
// and truncated; a NaN product (a NaN element, or 0 times an infinite
// factor) must give 0, so a block holding one is redone element by element
// (which also ends the process on a NaN element under skip_small).
BlockResult BlockDouble(const float* x, const Binning& b, int* index) {
  typedef long long L4 __attribute__((vector_size(32)));
  const F4 vlo = F4{} + b.lo;
  const F4 vhi = F4{} + b.hi;
  const F4 voffset = F4{} + b.offset;
  const F4 vsmall = F4{} + b.small;
  const D4 vfactor = D4{} + b.factor;
  const D4 vlast = D4{} + static_cast<double>(b.bins - 1);
  const D4 vzero = D4{};
  const I4 vskip = I4{} + b.bins;
  L4 nan = L4{};
  for (unsigned long i = 0; i < kBlock; i += 4) {
    const F4 v = Load4(x + i);
    const D4 d = __builtin_convertvector(v + voffset, D4) * vfactor;
    D4 c = d < vlast ? d : vlast;
    c = c > vzero ? c : vzero;
    I4 k = __builtin_convertvector(c, I4);
    I4 out = (v < vlo) | (v > vhi);
    if (b.skip_small) out |= (v < vsmall) & (v > -vsmall);
    k = out ? vskip : k;
    nan |= (d != d);
    std::memcpy(index + i, &k, sizeof k);
  }
  long long any = 0;
  for (int l = 0; l < 4; ++l) any |= nan[l];
  if (any != 0) {
    for (unsigned long i = 0; i < kBlock; ++i) index[i] = ExactIndex(x[i], b);
  }
  return BlockResult{kBlock, 0};
}

// Portable, with the single-precision shortcut, four elements at a time.
BlockResult BlockSingle(const float* x, const Binning& b, int* index) {
  const F4 vlo = F4{} + b.lo;
  const F4 vhi = F4{} + b.hi;
  const F4 voffset = F4{} + b.offset;
  const F4 vsmall = F4{} + b.small;
  const F4 vf = F4{} + b.f;
  const F4 veps = F4{} + b.eps;
  const F4 vlimit = F4{} + b.limit;
  const F4 vfloor = F4{} - 0.5f;
  const I4 vskip = I4{} + b.bins;
  for (unsigned long i = 0; i < kBlock; i += 4) {
    const F4 v = Load4(x + i);
    const F4 dq = (v + voffset) * vf;
    F4 c = dq < vlimit ? dq : vlimit;
    c = c > vfloor ? c : vfloor;
    const I4 low = __builtin_convertvector(c - veps, I4);
    const I4 high = __builtin_convertvector(c + veps, I4);
    I4 out = (v < vlo) | (v > vhi);
    if (b.skip_small) out |= (v < vsmall) & (v > -vsmall);
    const I4 unsure = ((low != high) | (dq != dq)) & ~out;
    const I4 k = out ? vskip : high;
    std::memcpy(index + i, &k, sizeof k);
    if ((unsure[0] | unsure[1] | unsure[2] | unsure[3]) != 0) {
      for (int l = 0; l < 4; ++l) {
        if (unsure[l]) index[i + l] = ExactIndex(x[i + l], b);
      }
    }
  }
  return BlockResult{kBlock, 0};
}

#ifdef QZDL_HAVE_AVX2_PATH
// For each 8-bit mask, the positions of its set bits in ascending order:
// the lane permutation that packs the kept lanes to the front.
struct PackTable {
  alignas(32) int lanes[256][8];
  PackTable() {
    for (int mask = 0; mask < 256; ++mask) {
      int j = 0;
      for (int l = 0; l < 8; ++l) {
        if (mask & (1 << l)) lanes[mask][j++] = l;
      }
      while (j < 8) lanes[mask][j++] = 0;
    }
  }
};

const PackTable& Packing() {
  static const PackTable table;
  return table;
}

// The shortcut with AVX2, eight elements at a time. Elements that are not
// counted are dropped, and counted zeros are only counted, so that the
// scatter loop sees neither (half of a ReLU output is zeros).
__attribute__((target("avx2,popcnt"))) BlockResult BlockSingleAvx2(const float* x, const Binning& b,
                                                                   int* index) {
  const PackTable& pack = Packing();
  const __m256 vlo = _mm256_set1_ps(b.lo);
  const __m256 vhi = _mm256_set1_ps(b.hi);
  const __m256 voffset = _mm256_set1_ps(b.offset);
  const __m256 vsmall = _mm256_set1_ps(b.small);
  const __m256 vneg_small = _mm256_set1_ps(-b.small);
  const __m256 vf = _mm256_set1_ps(b.f);
  const __m256 veps = _mm256_set1_ps(b.eps);
  const __m256 vlimit = _mm256_set1_ps(b.limit);
  const __m256 vfloor = _mm256_set1_ps(-0.5f);
  const __m256 vzero = _mm256_setzero_ps();
  unsigned long kept = 0;
  unsigned long zeros = 0;
  alignas(32) int fix[8];
  for (unsigned long i = 0; i < kBlock; i += 8) {
    const __m256 v = _mm256_loadu_ps(x + i);
    const __m256 dq = _mm256_mul_ps(_mm256_add_ps(v, voffset), vf);
    // min then max: a NaN dq comes out as `limit` and is marked unsure.
    const __m256 c = _mm256_max_ps(_mm256_min_ps(dq, vlimit), vfloor);
    const __m256i low = _mm256_cvttps_epi32(_mm256_sub_ps(c, veps));
    __m256i k = _mm256_cvttps_epi32(_mm256_add_ps(c, veps));
    __m256 out = _mm256_or_ps(_mm256_cmp_ps(v, vlo, _CMP_LT_OQ), _mm256_cmp_ps(v, vhi, _CMP_GT_OQ));
    if (b.skip_small) {
      out = _mm256_or_ps(out, _mm256_and_ps(_mm256_cmp_ps(v, vsmall, _CMP_LT_OQ),
                                            _mm256_cmp_ps(v, vneg_small, _CMP_GT_OQ)));
    }
    const int out_mask = _mm256_movemask_ps(out);
    const int zero_mask = _mm256_movemask_ps(_mm256_cmp_ps(v, vzero, _CMP_EQ_OQ)) & ~out_mask;
    const int keep_mask = ~(out_mask | zero_mask) & 0xFF;
    const __m256 differ = _mm256_castsi256_ps(_mm256_cmpeq_epi32(low, k));
    const int unsure =
        (~_mm256_movemask_ps(differ) | _mm256_movemask_ps(_mm256_cmp_ps(dq, dq, _CMP_UNORD_Q))) &
        keep_mask;
    if (unsure != 0) {
      _mm256_store_si256(reinterpret_cast<__m256i*>(fix), k);
      for (int l = 0; l < 8; ++l) {
        if (unsure & (1 << l)) fix[l] = ExactIndex(x[i + l], b);
      }
      k = _mm256_load_si256(reinterpret_cast<const __m256i*>(fix));
    }
    zeros += static_cast<unsigned long>(__builtin_popcount(zero_mask));
    const __m256i lanes =
        _mm256_load_si256(reinterpret_cast<const __m256i*>(pack.lanes[keep_mask]));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(index + kept),
                        _mm256_permutevar8x32_epi32(k, lanes));
    kept += static_cast<unsigned long>(__builtin_popcount(keep_mask));
  }
  return BlockResult{kept, zeros};
}
#endif

BlockResult BlockIndices(const float* x, const Binning& b, int* index) {
  if (!b.single) return BlockDouble(x, b, index);
#ifdef QZDL_HAVE_AVX2_PATH
  if (UseAvx2()) return BlockSingleAvx2(x, b, index);
#endif
  return BlockSingle(x, b, index);
}

// The lane-wise peak loop: four vectors of four lanes.
inline __attribute__((always_inline)) bool PeakBody(const float* data, unsigned long count,
                                                    float& min, float& max) {
  F4 mx[4];
  F4 mn[4];
  for (int k = 0; k < 4; ++k) {
    mx[k] = F4{} - FLT_MAX;
    mn[k] = F4{} + FLT_MAX;
  }
  I4 nan = I4{};
  unsigned long i = 0;
  for (; i + 16 <= count; i += 16) {
    for (int k = 0; k < 4; ++k) {
      const F4 x = Load4(data + i + 4 * k);
      // Without NaN, "mx > x ? mx : x" is "mx <= x ? x : mx".
      mx[k] = mx[k] > x ? mx[k] : x;
      mn[k] = mn[k] < x ? mn[k] : x;
      nan |= (x != x);
    }
  }
  float rmx = -FLT_MAX;
  float rmn = FLT_MAX;
  int any = 0;
  for (int k = 0; k < 4; ++k) {
    for (int l = 0; l < 4; ++l) {
      if (rmx <= mx[k][l]) rmx = mx[k][l];
      if (!(rmn < mn[k][l])) rmn = mn[k][l];
    }
  }
  for (int l = 0; l < 4; ++l) any |= nan[l];
  for (; i < count; ++i) {
    const float x = data[i];
    any |= (x != x);
    if (rmx <= x) rmx = x;
    if (!(rmn < x)) rmn = x;
  }
  min = rmn;
  max = rmx;
  return any == 0;
}

bool PeakGeneric(const float* data, unsigned long count, float& min, float& max) {
  return PeakBody(data, count, min, max);
}

#ifdef QZDL_HAVE_AVX2_PATH
__attribute__((target("avx2"))) bool PeakAvx2(const float* data, unsigned long count, float& min,
                                              float& max) {
  return PeakBody(data, count, min, max);
}
#endif

}  // namespace

void SetPortableOnly(bool portable) { portable_only = portable; }

bool PeakWithoutNaN(const float* data, unsigned long count, float& min, float& max) {
#ifdef QZDL_HAVE_AVX2_PATH
  if (UseAvx2()) return PeakAvx2(data, count, min, max);
#endif
  return PeakGeneric(data, count, min, max);
}

void BinElements(const float* data, unsigned long count, int bins, float lo, float hi, float offset,
                 double factor, bool skip_small, int* counts) {
  if (bins <= 0) return;
  const Binning b = MakeBinning(bins, lo, hi, offset, factor, skip_small);
  if (count < 4 * kBlock) {
    for (unsigned long i = 0; i < count; ++i) {
      const float x = data[i];
      if (Counted(x, lo, hi, skip_small, b.small)) ++counts[BinIndex(x, bins, offset, factor)];
    }
    return;
  }
  // Several copies of the histogram, taken in turn, so that runs of equal
  // indices do not wait on each other's increments; each copy has one extra
  // slot for the elements that are not counted.
  const int stride = bins + 1;
  std::vector<int> copies(static_cast<size_t>(kCopies) * stride, 0);
  int* h = copies.data();
  // Room for a whole vector written past the last kept index.
  int index[kBlock + 8];
  unsigned long zeros = 0;
  unsigned long i = 0;
  for (; i + kBlock <= count; i += kBlock) {
    const BlockResult block = BlockIndices(data + i, b, index);
    zeros += block.zeros;
    const unsigned long whole = block.kept - block.kept % kCopies;
    for (unsigned long j = 0; j < whole; j += kCopies) {
      ++h[index[j]];
      ++h[stride + index[j + 1]];
      ++h[2 * stride + index[j + 2]];
      ++h[3 * stride + index[j + 3]];
    }
    for (unsigned long j = whole; j < block.kept; ++j) ++h[index[j]];
  }
  for (; i < count; ++i) {
    const float x = data[i];
    if (Counted(x, lo, hi, skip_small, b.small)) ++h[BinIndex(x, bins, offset, factor)];
  }
  // Counted zeros all share the index of 0 (of +0 and -0 alike: x + offset
  // is the same for both, or a zero whose product is 0).
  if (zeros > 0) h[BinIndex(0.0f, bins, offset, factor)] += static_cast<int>(zeros);
  for (int k = 0; k < bins; ++k) {
    counts[k] += h[k] + h[stride + k] + h[2 * stride + k] + h[3 * stride + k];
  }
}

}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl
