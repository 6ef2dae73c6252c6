// An exact integer GEMM on pairs of 16-bit values, for CPUs without a u8 x s8
// dot product that sums into int32 unsaturated (no VNNI).
//
// Both sides are centred codes, code - zero point, in [-255, 255]: int16.
// Two neighbours along the reduction are packed into one int32 lane (the
// element of the even index in the low half), so that one pairwise multiply
// and add of 16-bit lanes (pmaddwd / vpmaddwd) gives a[2k]b[2k] +
// a[2k+1]b[2k+1], at most 2 * 65025 in magnitude, exactly; the int32 sums of
// a reduction of K <= kMaxPairK elements stay within 65025 * K < 2^31, so
// every result is the exact sum, whatever the order. No 16-bit saturation
// is involved anywhere (the products are never summed in 16 bits).
//
// Layouts (int32 lanes, each one pair):
// - A, the weights: panels of kPairRows rows; panel i holds, for each pair
//   index kp, the pairs of rows 6i .. 6i + 5 (rows past the end hold 0).
// - B, the input: [kpairs][ldb] (ldb a multiple of kPairColumns; columns
//   past the tile and the odd element past an odd K hold 0).
// - C: int32, rows of ldc, kPairRows rows per panel (rows and columns past
//   the real ones are written too).
#pragma once

#include <cstdint>
#include <vector>

namespace qzdl {

constexpr int kPairRows = 6;
constexpr int kPairColumns = 32;
// The longest reduction whose sums fit int32.
constexpr int64_t kMaxPairK = 33025;

inline int64_t PairCount(int64_t k) { return (k + 1) / 2; }
inline int64_t PairPanels(int64_t rows) { return (rows + kPairRows - 1) / kPairRows; }
inline int64_t PairColumnsPadded(int64_t n) {
  return (n + kPairColumns - 1) / kPairColumns * kPairColumns;
}
// int32 lanes of the packed weights of `rows` rows of K.
inline int64_t PairWeightLanes(int64_t rows, int64_t k) {
  return PairPanels(rows) * PairCount(k) * kPairRows;
}

inline int32_t PackPair(int32_t even, int32_t odd) {
  return static_cast<int32_t>(uint32_t(uint16_t(int16_t(even))) |
                              (uint32_t(uint16_t(int16_t(odd))) << 16));
}

// Packs rows [0, rows) of K centred weights, code(r, k) - zero[r], with the
// codes read by `code(r, k)`, into panels at `packed` (PairWeightLanes).
template <typename Code>
void PackPairWeights(int rows, int64_t k_dim, const int32_t* zero, Code code, int32_t* packed) {
  const int64_t kpairs = PairCount(k_dim);
  for (int64_t p = 0; p < PairPanels(rows); ++p) {
    int32_t* panel = packed + p * kpairs * kPairRows;
    for (int64_t kp = 0; kp < kpairs; ++kp) {
      for (int i = 0; i < kPairRows; ++i) {
        const int64_t r = p * kPairRows + i;
        int32_t even = 0, odd = 0;
        if (r < rows) {
          const int rr = static_cast<int>(r);
          even = int32_t(code(rr, 2 * kp)) - zero[r];
          if (2 * kp + 1 < k_dim) odd = int32_t(code(rr, 2 * kp + 1)) - zero[r];
        }
        panel[kp * kPairRows + i] = PackPair(even, odd);
      }
    }
  }
}

// dst [kpairs][ldb] = pairs of the centred codes src[k][p] - zero (rows of
// `ld` codes), for p < np; columns [np, ldb) and a missing odd row are 0.
void PackPairColumns(const uint8_t* src, int64_t ld, int k, int np, int ldb, int32_t zero,
                     int32_t* dst);

// Which loop PairGemm runs; picked once from the CPU (checked at run time)
// unless a test asks for one.
enum class PairKernel { kAvx512, kAvx2, kPortable };
const char* PairKernelName(PairKernel kernel);
// The fastest loop this CPU runs (QZDL_CPU_DISABLE="avx512" or "avx2" turns
// the hand-written loops off).
PairKernel BestPairKernel();
// Whether this CPU has the instructions of `kernel` (the portable loop runs
// everywhere).
bool PairKernelAvailable(PairKernel kernel);
// Whether a hand-written vector loop runs here (the path is then worth
// taking over the float GEMM).
bool HaveFastPairGemm();

// C (panels * kPairRows rows, columns [0, ldb)) = A * B over kpairs pairs.
// With `accumulate` C is added to rather than overwritten.
void PairGemm(int64_t panels, int64_t kpairs, const int32_t* a, const int32_t* b, int ldb,
              int32_t* c, int64_t ldc, bool accumulate, PairKernel kernel = BestPairKernel());

}  // namespace qzdl
