// The 16-bit pair GEMM: every loop this CPU has against plain int64 sums,
// on full-range centred codes, odd sizes, and the longest reduction whose
// int32 sums are exact.
#include "runtime/int8/pair_gemm.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace qzdl {
namespace {

constexpr PairKernel kKernels[] = {PairKernel::kPortable, PairKernel::kAvx2, PairKernel::kAvx512};

TEST(PairGemm, PacksTwoInt16InOneLane) {
  // The even element in the low half, two's complement halves.
  EXPECT_EQ(uint32_t(PackPair(-255, 255)), 0x00FFFF01u);
  EXPECT_EQ(uint32_t(PackPair(255, -255)), 0xFF0100FFu);
  EXPECT_EQ(PackPair(0, 0), 0);
  EXPECT_EQ(PairCount(7), 4);
  EXPECT_EQ(PairPanels(13), 3);
  EXPECT_EQ(PairColumnsPadded(45), 64);
  EXPECT_EQ(PairWeightLanes(13, 7), 3 * 4 * 6);
}

TEST(PairGemm, PackedColumnsAreCentredWithZeroPadding) {
  // k = 3 rows of 2 positions, zero point 100, ldb 32: the odd third row
  // pairs with 0, and columns 2..31 are 0.
  const std::vector<uint8_t> src = {0, 255, 100, 101, 7, 200};
  std::vector<int32_t> dst(2 * 32, -1);
  PackPairColumns(src.data(), 2, 3, 2, 32, 100, dst.data());
  EXPECT_EQ(dst[0], PackPair(-100, 0));
  EXPECT_EQ(dst[1], PackPair(155, 1));
  EXPECT_EQ(dst[32], PackPair(-93, 0));
  EXPECT_EQ(dst[33], PackPair(100, 0));
  for (int p = 2; p < 32; ++p) {
    EXPECT_EQ(dst[p], 0);
    EXPECT_EQ(dst[32 + p], 0);
  }
}

// C = A B for rows x k weights and k x np inputs (codes and zero points),
// by each available loop, against int64 sums.
void ExpectMatchesSums(int rows, int k, int np, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> code(0, 255);
  std::vector<uint8_t> w(size_t(rows) * k), x(size_t(k) * np);
  for (uint8_t& v : w) v = static_cast<uint8_t>(code(rng));
  for (uint8_t& v : x) v = static_cast<uint8_t>(code(rng));
  std::vector<int32_t> zero(rows);
  for (int32_t& z : zero) z = code(rng);
  const int32_t x_zero = code(rng);
  std::vector<int32_t> a(size_t(PairWeightLanes(rows, k)));
  PackPairWeights(
      rows, k, zero.data(), [&](int r, int64_t i) { return w[size_t(r) * k + i]; }, a.data());
  const int ldb = static_cast<int>(PairColumnsPadded(np));
  std::vector<int32_t> b(size_t(PairCount(k)) * ldb);
  PackPairColumns(x.data(), np, k, np, ldb, x_zero, b.data());
  for (PairKernel kernel : kKernels) {
    if (!PairKernelAvailable(kernel)) continue;
    for (bool accumulate : {false, true}) {
      std::vector<int32_t> c(size_t(PairPanels(rows) * kPairRows) * ldb, accumulate ? 5 : -7);
      PairGemm(PairPanels(rows), PairCount(k), a.data(), b.data(), ldb, c.data(), ldb, accumulate,
               kernel);
      int differ = 0;
      for (int r = 0; r < rows; ++r) {
        for (int p = 0; p < np; ++p) {
          int64_t want = accumulate ? 5 : 0;
          for (int i = 0; i < k; ++i)
            want += int64_t(int32_t(w[size_t(r) * k + i]) - zero[r]) *
                    (int32_t(x[size_t(i) * np + p]) - x_zero);
          differ += c[size_t(r) * ldb + p] != want;
        }
      }
      EXPECT_EQ(differ, 0) << rows << " x " << k << " x " << np << ", "
                           << PairKernelName(kernel) << (accumulate ? ", accumulating" : "");
    }
  }
}

TEST(PairGemm, MatchesInt64SumsOnEveryLoop) {
  ExpectMatchesSums(6, 2, 32, 1);
  ExpectMatchesSums(13, 301, 45, 2);   // odd k, rows and columns past a block
  ExpectMatchesSums(64, 576, 49, 3);   // a 3x3 convolution of 64 channels
  ExpectMatchesSums(1, 1, 1, 4);
  ExpectMatchesSums(7, 1000, 70, 5);   // several reduction blocks
}

TEST(PairGemm, LongestExactReductionAtFullRange) {
  // K = 33025 products of 255 * 255 (and of -255 * 255) sum to
  // +-2147450625, inside int32: the sums are exact.
  const int k = static_cast<int>(kMaxPairK), np = 3;
  std::vector<uint8_t> w(2 * size_t(k), 0), x(size_t(k) * np, 0);
  std::fill(w.begin() + k, w.end(), 255);  // row 1: codes 255; row 0: codes 0
  const int32_t zero[2] = {255, 0};        // row 0 centres to -255, row 1 to 255
  std::vector<int32_t> a(size_t(PairWeightLanes(2, k)));
  PackPairWeights(
      2, k, zero, [&](int r, int64_t i) { return w[size_t(r) * k + i]; }, a.data());
  const int ldb = static_cast<int>(PairColumnsPadded(np));
  std::vector<int32_t> b(size_t(PairCount(k)) * ldb);
  std::fill(x.begin(), x.end(), 0);  // zero point 255: every input centres to -255
  PackPairColumns(x.data(), np, k, np, ldb, 255, b.data());
  for (PairKernel kernel : kKernels) {
    if (!PairKernelAvailable(kernel)) continue;
    std::vector<int32_t> c(size_t(kPairRows) * ldb);
    PairGemm(1, PairCount(k), a.data(), b.data(), ldb, c.data(), ldb, false, kernel);
    for (int p = 0; p < np; ++p) {
      EXPECT_EQ(c[p], 2147450625) << PairKernelName(kernel);
      EXPECT_EQ(c[ldb + p], -2147450625) << PairKernelName(kernel);
    }
  }
}

}  // namespace
}  // namespace qzdl
