// Grid arithmetic: scale/zero derivation, quantization, dequantization,
// fake quantization, the L2 error, RoundClip and the histogram merge geometry.
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <new>
#include <random>
#include <vector>

#include "quantization/utils.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::Bits;
using quant_test::FromBits;
using quant_test::kInf;
using quant_test::kNaN;

// The element rule of Quantization restated step by step.
uint32_t ReferenceQuantize(float x, float scale, int zero, float qmax) {
  float v = x / scale;
  v = v + static_cast<float>(zero);
  v = v + 0.5f;
  const float c = (qmax > v) ? v : qmax;
  if (!(c > 0.0f)) return 0;
  if (c >= 2147483648.0f) return 2147483647u;
  return static_cast<uint32_t>(static_cast<int32_t>(c));
}

TEST(QuantizationMax, ShiftTakenModulo32) {
  EXPECT_EQ(255.0f, QuantizationMaxValue(8));
  EXPECT_EQ(65535.0f, QuantizationMaxValue(16));
  EXPECT_EQ(0x4F000000u, Bits(QuantizationMaxValue(31)));  // 2147483648.0f
  EXPECT_SAME_BITS(0.0f, QuantizationMaxValue(32));
  EXPECT_EQ(255.0f, QuantizationMaxValue(40));
  EXPECT_EQ(0.0f, QuantizationMaxValue(0));
  EXPECT_EQ(2147483648.0f, QuantizationMaxValue(-1));
}

TEST(ConfigureScaleZero, EqualBounds) {
  float scale = -1.0f;
  int zero = -1;
  ConfigureScaleZero(2.0f, 2.0f, 8, scale, zero);  // z = -inf
  EXPECT_SAME_BITS(0.0f, scale);
  EXPECT_EQ(0, zero);
  ConfigureScaleZero(-2.0f, -2.0f, 8, scale, zero);  // z = +inf
  EXPECT_SAME_BITS(0.0f, scale);
  EXPECT_EQ(255, zero);
  zero = -1;
  ConfigureScaleZero(0.0f, 0.0f, 8, scale, zero);  // z = NaN
  EXPECT_SAME_BITS(0.0f, scale);
  EXPECT_EQ(0, zero);
}

TEST(ConfigureScaleZero, RangeNotContainingZero) {
  float scale;
  int zero;
  ConfigureScaleZero(1.0f, 5.0f, 8, scale, zero);
  EXPECT_EQ(0x3C808081u, Bits(scale));  // 4 / 255
  EXPECT_EQ(0, zero);
  ConfigureScaleZero(-5.0f, -1.0f, 8, scale, zero);
  EXPECT_EQ(0x3C808081u, Bits(scale));
  EXPECT_EQ(255, zero);
}

TEST(ConfigureScaleZero, RoundsHalfAwayAndTakesRangeAsGiven) {
  float scale;
  int zero;
  // z = 63.749996 -> 64.
  ConfigureScaleZero(-1.0f, 3.0f, 8, scale, zero);
  EXPECT_EQ(0x3C808081u, Bits(scale));
  EXPECT_EQ(64, zero);
  // z exactly 127.5 -> 128.
  ConfigureScaleZero(-63.75f, 63.75f, 8, scale, zero);
  EXPECT_SAME_BITS(0.5f, scale);
  EXPECT_EQ(128, zero);
  // The grid of 32 bits has qmax 0: scale is infinite and zero 0.
  ConfigureScaleZero(-1.0f, 1.0f, 32, scale, zero);
  EXPECT_SAME_BITS(kInf, scale);
  EXPECT_EQ(0, zero);
  // 31 bits: qmax 2^31, z = 2^30.
  ConfigureScaleZero(-1.0f, 1.0f, 31, scale, zero);
  EXPECT_SAME_BITS(std::ldexp(1.0f, -30), scale);
  EXPECT_EQ(1 << 30, zero);
}

TEST(ConfigureScaleZero, TieAwayNotToEvenAndNoHalfAdded) {
  float scale;
  int zero;
  // z = 126.5 exactly: away from zero gives 127 (to even would give 126).
  ConfigQuantizationParam(-63.25f, 64.25f, 8, scale, zero);
  EXPECT_SAME_BITS(0.5f, scale);
  EXPECT_EQ(127, zero);
  // z = 0.49999997: rounding gives 0, while adding 0.5 in single precision
  // and truncating would give 1.
  const float min = -FromBits(0x3EFFFFFFu);
  ConfigureScaleZero(min, 254.5f, 8, scale, zero);
  ASSERT_EQ(1.0f, scale);
  EXPECT_EQ(0, zero);
}

TEST(ConfigQuantizationParam, DegenerateRangesGiveZeroScale) {
  float scale = -1.0f;
  int zero = -1;
  ConfigQuantizationParam(0.0f, 0.0f, 8, scale, zero);
  EXPECT_SAME_BITS(0.0f, scale);
  EXPECT_EQ(0, zero);
  scale = -1.0f;
  zero = -1;
  ConfigQuantizationParam(1.0f, -1.0f, 8, scale, zero);  // min positive, max not positive
  EXPECT_SAME_BITS(0.0f, scale);
  EXPECT_EQ(0, zero);
  scale = -1.0f;
  zero = -1;
  ConfigQuantizationParam(3.0f, 0.0f, 8, scale, zero);
  EXPECT_SAME_BITS(0.0f, scale);
  EXPECT_EQ(0, zero);
}

TEST(ConfigQuantizationParam, PositiveRangeStartsAtZero) {
  float scale;
  int zero;
  ConfigQuantizationParam(0.0f, 25.5f, 8, scale, zero);
  EXPECT_EQ(0x3DCCCCCDu, Bits(scale));  // 0.1f
  EXPECT_EQ(0, zero);
  const float x = 25.5f;
  uint8_t q = 0;
  Quantization(&x, &q, 1, scale, zero, 8);
  EXPECT_EQ(255, q);
  // A range above zero is widened down to zero.
  ConfigQuantizationParam(10.0f, 25.5f, 8, scale, zero);
  EXPECT_EQ(0x3DCCCCCDu, Bits(scale));
  EXPECT_EQ(0, zero);
}

TEST(ConfigQuantizationParam, TieAtHalfGoesAway) {
  float scale;
  int zero;
  ConfigQuantizationParam(-63.75f, 63.75f, 8, scale, zero);
  EXPECT_SAME_BITS(0.5f, scale);
  EXPECT_EQ(128, zero);
  const float x = 0.0f;
  uint8_t q = 0;
  Quantization(&x, &q, 1, scale, zero, 8);
  EXPECT_EQ(128, q);
  float back = -1.0f;
  Dequantization(&q, &back, 1, scale, zero, 8);
  EXPECT_SAME_BITS(0.0f, back);
}

TEST(ConfigQuantizationParam, SinglePrecisionScaleGivesZero127) {
  float scale;
  int zero;
  ConfigQuantizationParam(-1.0f, 1.0f, 8, scale, zero);
  EXPECT_EQ(0x3C008081u, Bits(scale));  // 2 / 255
  EXPECT_EQ(127, zero);                 // z = 127.49999
  const float x = 0.0f;
  uint8_t q = 0;
  Quantization(&x, &q, 1, scale, zero, 8);
  EXPECT_EQ(127, q);
  float back = -1.0f;
  Dequantization(&q, &back, 1, scale, zero, 8);
  EXPECT_SAME_BITS(0.0f, back);
}

TEST(Quantization, CountZeroWritesNothing) {
  const float src[1] = {1.0f};
  uint8_t dst[4] = {7, 7, 7, 7};
  Quantization(src, dst, 0, 1.0f, 0, 8);
  float out[2] = {3.0f, 3.0f};
  Dequantization(dst, out, 0, 1.0f, 0, 8);
  for (uint8_t v : dst) EXPECT_EQ(7, v);
  EXPECT_EQ(3.0f, out[0]);
}

TEST(Quantization, AddsHalfAndTruncates) {
  const float src[] = {2.5f, 1.5f, 0.49f, -0.6f, -0.5f, 254.5f, 300.0f, 0.0f, -0.0f};
  const uint8_t expected[] = {3, 2, 0, 0, 0, 255, 255, 0, 0};
  uint8_t dst[9];
  Quantization(src, dst, 9, 1.0f, 0, 8);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(expected[i], dst[i]) << i;
}

TEST(Quantization, TwoSeparateAdditions) {
  // 0.49999997 + 0 + 0.5 rounds to 1.0 in single precision: stored 1, where
  // rounding half away from zero would give 0.
  const float x = FromBits(0x3EFFFFFFu);
  uint8_t q = 9;
  Quantization(&x, &q, 1, 1.0f, 0, 8);
  EXPECT_EQ(1, q);
}

TEST(Quantization, EachStepRoundedInSinglePrecision) {
  // zero 2^24: 0.75 + 2^24 rounds to 2^24, + 0.5 rounds to 2^24 again
  // (ties to even); one exact sum would give 2^24 + 1.
  const float x = 0.75f;
  uint32_t q = 0;
  Quantization(&x, &q, 1, 1.0f, 1 << 24, 31);
  EXPECT_EQ(16777216u, q);
  // zero 2^23: 0.25 + 2^23 rounds to 2^23, + 0.5 is a tie that goes to the
  // even 2^23; one rounding of the whole sum would give 2^23 + 1.
  const float quarter = 0.25f;
  Quantization(&quarter, &q, 1, 1.0f, 1 << 23, 31);
  EXPECT_EQ(8388608u, q);
  // Bytes: 0.49999997 + 1 rounds to 1.5, + 0.5 gives 2; the exact sum
  // 1.99999997 would truncate to 1.
  const float below_half = FromBits(0x3EFFFFFFu);
  uint8_t b = 0;
  Quantization(&below_half, &b, 1, 1.0f, 1, 8);
  EXPECT_EQ(2, b);
}

TEST(Quantization, NaNAndInfinities) {
  const float src[] = {kNaN, kInf, -kInf};
  uint8_t dst[3];
  Quantization(src, dst, 3, 0.5f, 10, 8);
  EXPECT_EQ(255, dst[0]);
  EXPECT_EQ(255, dst[1]);
  EXPECT_EQ(0, dst[2]);
  uint16_t wide[3];
  Quantization(src, wide, 3, 0.5f, 10, 16);
  EXPECT_EQ(65535, wide[0]);
  EXPECT_EQ(65535, wide[1]);
  EXPECT_EQ(0, wide[2]);
}

TEST(Quantization, TrueDivisionNotReciprocal) {
  // Find inputs where x * (1 / s) and x / s fall on different sides of an
  // integer boundary; the stored value must follow the division.
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> dist(-3.0f, 3.0f);
  std::uniform_real_distribution<float> sdist(0.001f, 0.1f);
  int differing = 0;
  for (int k = 0; k < 200000 && differing < 20; ++k) {
    const float s = sdist(rng);
    const float x = dist(rng);
    const float by_div = x / s + 100.0f + 0.5f;
    const float by_mul = x * (1.0f / s) + 100.0f + 0.5f;
    if (std::floor(by_div) == std::floor(by_mul)) continue;
    ++differing;
    uint8_t q;
    Quantization(&x, &q, 1, s, 100, 8);
    EXPECT_EQ(ReferenceQuantize(x, s, 100, 255.0f), q);
  }
  EXPECT_GT(differing, 0);
}

TEST(Quantization, MatchesElementRuleOnAllWidths) {
  std::mt19937 rng(11);
  std::normal_distribution<float> dist(0.0f, 40.0f);
  std::vector<float> src(1037);
  for (float& v : src) v = dist(rng);
  src[5] = kNaN;
  src[6] = kInf;
  src[7] = -kInf;
  const float scale = 0.37f;
  const int zero = 97;
  std::vector<uint8_t> q8(src.size());
  Quantization(src.data(), q8.data(), src.size(), scale, zero, 8);
  std::vector<uint16_t> q16(src.size());
  Quantization(src.data(), q16.data(), src.size(), scale, zero, 12);
  std::vector<uint32_t> q32(src.size());
  Quantization(src.data(), q32.data(), src.size(), scale, zero, 20);
  for (size_t i = 0; i < src.size(); ++i) {
    EXPECT_EQ(ReferenceQuantize(src[i], scale, zero, 255.0f), q8[i]) << i;
    EXPECT_EQ(ReferenceQuantize(src[i], scale, zero, 4095.0f), q16[i]) << i;
    EXPECT_EQ(ReferenceQuantize(src[i], scale, zero, 1048575.0f), q32[i]) << i;
  }
}

TEST(Quantization, WidthBoundaries) {
  const float x = 1.0e12f;
  uint32_t q = 0;
  // 31 bits: qmax is 2^31 and the conversion saturates.
  Quantization(&x, &q, 1, 1.0f, 0, 31);
  EXPECT_EQ(2147483647u, q);
  // 32 bits: qmax is 0 and every element stores 0.
  const float src[] = {5.0f, 1.0e9f, -3.0f, kNaN};
  uint32_t dst[4] = {1, 1, 1, 1};
  Quantization(src, dst, 4, 1.0f, 0, 32);
  for (uint32_t v : dst) EXPECT_EQ(0u, v);
  // Above 32 bits nothing is touched.
  uint32_t untouched[2] = {42, 42};
  Quantization(src, untouched, 2, 1.0f, 0, 33);
  EXPECT_EQ(42u, untouched[0]);
  float out[2] = {-7.0f, -7.0f};
  Dequantization(untouched, out, 2, 1.0f, 0, 33);
  EXPECT_EQ(-7.0f, out[0]);
  // Zero or negative bits compare as signed and write bytes; qmax follows
  // the shift modulo 32: -3 gives 2^29 - 1 and 300 wraps to 44 in a byte.
  const float y = 300.0f;
  uint8_t b[2] = {9, 9};
  Quantization(&y, b, 1, 1.0f, 0, -3);
  EXPECT_EQ(44, b[0]);
  EXPECT_EQ(9, b[1]);
  Quantization(&y, b, 1, 1.0f, 0, 0);
  EXPECT_EQ(0, b[0]);
}

// bits -1 (and -33) make qmax 2^31 while the elements are bytes: an element
// that reaches qmax converts with saturation to 2147483647, whose low byte is
// 255 (a plain conversion gives 0x80000000 on x86-64, hence 0).
TEST(Quantization, NegativeBitsSaturateAt2147483647) {
  const float src[] = {1.0e12f, kInf, kNaN, 2147483648.0f, 2147483520.0f, 300.0f, -5.0f};
  const uint8_t want[] = {255, 255, 255, 255, 128, 44, 0};  // 2147483520 = 0x7FFFFF80
  for (int bits : {-1, -33}) {
    uint8_t got[7] = {9, 9, 9, 9, 9, 9, 9};
    Quantization(src, got, 7, 1.0f, 0, bits);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(want[i], got[i]) << "bits " << bits << ", element " << i;
  }
  // Long enough for the vector loop and its tail.
  std::vector<float> many(37, 1.0e12f);
  many[3] = 300.0f;
  std::vector<uint8_t> out(many.size(), 9);
  Quantization(many.data(), out.data(), many.size(), 1.0f, 0, -1);
  for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(i == 3 ? 44 : 255, out[i]) << i;
  // bits 0: qmax 0, every element stores 0.
  uint8_t zero[7] = {9, 9, 9, 9, 9, 9, 9};
  Quantization(src, zero, 7, 1.0f, 0, 0);
  for (uint8_t v : zero) EXPECT_EQ(0, v);
}

TEST(Dequantization, SignedDifferenceUpTo16Bits) {
  const uint8_t q8[] = {0, 128, 255};
  float out[3];
  Dequantization(q8, out, 3, 0.5f, 128, 8);
  EXPECT_EQ(-64.0f, out[0]);
  EXPECT_SAME_BITS(0.0f, out[1]);
  EXPECT_EQ(63.5f, out[2]);
  const uint16_t q16[] = {0, 1000};
  Dequantization(q16, out, 2, 0.25f, 1000, 16);
  EXPECT_EQ(-250.0f, out[0]);
  EXPECT_SAME_BITS(0.0f, out[1]);
}

TEST(Dequantization, UnsignedWrapFrom17To32Bits) {
  const uint32_t q[] = {0, 5};
  float out[2];
  Dequantization(q, out, 2, 1.0f, 1, 32);
  EXPECT_EQ(4294967296.0f, out[0]);  // float(2^32 - 1)
  EXPECT_EQ(4.0f, out[1]);
  Dequantization(q, out, 2, 0.5f, 3, 24);
  EXPECT_EQ(static_cast<float>(4294967293u) * 0.5f, out[0]);
  EXPECT_EQ(1.0f, out[1]);
}

TEST(FakeQuantization, CountZeroLeavesData) {
  float data[2] = {1.25f, -3.0f};
  FakeQuantization(data, 0, -1.0f, 1.0f, 8);
  EXPECT_EQ(1.25f, data[0]);
  EXPECT_EQ(-3.0f, data[1]);
}

TEST(FakeQuantization, ZeroRangeMakesEverythingZero) {
  float data[] = {3.0f, -2.0f, kNaN, 0.0f, -0.0f, kInf};
  FakeQuantization(data, 6, 0.0f, 0.0f, 8);
  for (float v : data) EXPECT_SAME_BITS(0.0f, v);
}

TEST(FakeQuantization, AboveThirtyTwoBitsLeavesData) {
  float data[] = {0.3f, -0.7f};
  FakeQuantization(data, 2, -1.0f, 1.0f, 40);
  EXPECT_EQ(0.3f, data[0]);
  EXPECT_EQ(-0.7f, data[1]);
}

TEST(FakeQuantization, RoundTripMatchesTheSteps) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> dist(-2.0f, 3.0f);
  for (unsigned bits : {8u, 12u, 20u}) {
    std::vector<float> data(513);
    for (float& v : data) v = dist(rng);
    std::vector<float> expected = data;
    float scale;
    int zero;
    ConfigQuantizationParam(-1.5f, 2.5f, static_cast<int>(bits), scale, zero);
    const float qmax = QuantizationMaxValue(static_cast<int>(bits));
    for (float& v : expected) {
      const uint32_t q = ReferenceQuantize(v, scale, zero, qmax);
      const uint32_t diff = q - static_cast<uint32_t>(zero);
      // Above 16 bits the difference is read unsigned and wraps below zero.
      v = bits <= 16 ? static_cast<float>(static_cast<int32_t>(diff)) * scale
                     : static_cast<float>(diff) * scale;
    }
    FakeQuantization(data.data(), data.size(), -1.5f, 2.5f, bits);
    for (size_t i = 0; i < data.size(); ++i) EXPECT_SAME_BITS(expected[i], data[i]);
  }
}

TEST(FakeQuantization, HugeCountFailsAllocation) {
  float x = 1.0f;
  EXPECT_THROW(FakeQuantization(&x, ULONG_MAX, -1.0f, 1.0f, 16), std::bad_array_new_length);
  EXPECT_THROW(FakeQuantization(&x, ULONG_MAX, -1.0f, 1.0f, 32), std::bad_array_new_length);
  EXPECT_EQ(1.0f, x);
}

// EvaluateL2 restated: single-precision step, truncated wrapping zero point,
// rounding in double, fused error and accumulation.
float ReferenceL2(const std::vector<float>& data, float min, float max) {
  const float step = (max - min) / 255.0f;
  const float zf = 0.0f - min / step;
  if (data.empty()) return 0.0f;
  uint32_t z = 0;
  if (zf > 0.0f) z = zf >= 4294967296.0f ? 0xFFFFFFFFu : static_cast<uint32_t>(zf);
  z &= 0xFF;
  float sum = 0.0f;
  for (float x : data) {
    const float t = x / step + static_cast<float>(z);
    const double d = static_cast<double>(t) + 0.5;
    const float q = d < 0.0 ? 0.0f : (d < 255.0 ? static_cast<float>(static_cast<int>(d)) : 255.0f);
    const float e = std::fma(-step, q - static_cast<float>(z), x);
    sum = std::fma(e, e, sum);
  }
  return std::sqrt(sum);
}

TEST(EvaluateL2, EmptyIsZeroForAnyRange) {
  std::vector<float> empty;
  EXPECT_SAME_BITS(0.0f, EvaluateL2(empty, -1.0f, 1.0f));
  EXPECT_SAME_BITS(0.0f, EvaluateL2(empty, 0.0f, 0.0f));
  EXPECT_SAME_BITS(0.0f, EvaluateL2(empty, kNaN, 5.0f));
}

TEST(EvaluateL2, NotDividedByCount) {
  // Grid step 1 over [0, 255]: 300 clamps to 255 and leaves 45 each time.
  std::vector<float> one = {300.0f};
  std::vector<float> four = {300.0f, 300.0f, 300.0f, 300.0f};
  EXPECT_EQ(45.0f, EvaluateL2(one, 0.0f, 255.0f));
  EXPECT_EQ(90.0f, EvaluateL2(four, 0.0f, 255.0f));
}

TEST(EvaluateL2, TruncatedWrappingZeroPoint) {
  // [-300, -45]: step 1, zf 300, zero point 300 & 255 = 44, so -10 sits
  // on the grid and -250 clamps to integer 0, that is -44.
  std::vector<float> on_grid = {-10.0f};
  EXPECT_SAME_BITS(0.0f, EvaluateL2(on_grid, -300.0f, -45.0f));
  std::vector<float> clamped = {-250.0f};
  EXPECT_EQ(206.0f, EvaluateL2(clamped, -300.0f, -45.0f));
  // [10, 265]: zf -10 gives zero point 0, the grid is [0, 255].
  std::vector<float> top = {260.0f};
  EXPECT_EQ(5.0f, EvaluateL2(top, 10.0f, 265.0f));
  // Truncation, not rounding: zf = 127.49999 and 127.6 both give 127.
  std::vector<float> zero_value = {0.0f};
  EXPECT_SAME_BITS(0.0f, EvaluateL2(zero_value, -1.0f, 1.0f));
}

TEST(EvaluateL2, RoundsInDouble) {
  // t = 0.49999997: in double t + 0.5 stays below 1, so q is 0 and the whole
  // value is error (Quantization would store 1 here).
  const float x = FromBits(0x3EFFFFFFu);
  std::vector<float> data = {x};
  EXPECT_SAME_BITS(std::sqrt(x * x), EvaluateL2(data, 0.0f, 255.0f));
}

TEST(EvaluateL2, NaNElementGivesNaN) {
  std::vector<float> data = {1.0f, kNaN};
  EXPECT_TRUE(std::isnan(EvaluateL2(data, -1.0f, 1.0f)));
}

TEST(EvaluateL2, BitExactOnRandomData) {
  std::mt19937 rng(5);
  std::normal_distribution<float> dist(0.2f, 1.3f);
  std::vector<float> data(4099);
  for (float& v : data) v = dist(rng);
  int unfused_differs = 0;
  for (auto range : {std::make_pair(-2.7f, 3.1f), std::make_pair(-0.9f, 0.4f),
                     std::make_pair(0.5f, 4.0f), std::make_pair(-5.0f, -1.0f)}) {
    const float expected = ReferenceL2(data, range.first, range.second);
    EXPECT_SAME_BITS(expected, EvaluateL2(data, range.first, range.second));
    // The same steps without the fused multiply-adds come out differently:
    // the test tells the two apart.
    const float step = (range.second - range.first) / 255.0f;
    const float zf = 0.0f - range.first / step;
    const float z = zf > 0.0f ? static_cast<float>(static_cast<uint32_t>(zf) & 0xFF) : 0.0f;
    float sum = 0.0f;
    for (float x : data) {
      const double d = static_cast<double>(x / step + z) + 0.5;
      const float q =
          d < 0.0 ? 0.0f : (d < 255.0 ? static_cast<float>(static_cast<int>(d)) : 255.0f);
      const float e = x - step * (q - z);
      sum = e * e + sum;
    }
    unfused_differs += Bits(std::sqrt(sum)) != Bits(expected);
  }
  EXPECT_GT(unfused_differs, 0);
}

TEST(RoundClip, FloatRoundsHalfAwayAndClampsSymmetrically) {
  EXPECT_EQ(3.0f, RoundClip<float>(2.5f));
  EXPECT_EQ(-3.0f, RoundClip<float>(-2.5f));
  EXPECT_EQ(127.0f, RoundClip<float>(126.5f));
  EXPECT_EQ(-127.0f, RoundClip<float>(-200.0f));
  EXPECT_EQ(-127.0f, RoundClip<float>(-127.5f));  // -128 is never produced
  EXPECT_EQ(127.0f, RoundClip<float>(1.0e30f));
  EXPECT_EQ(-127.0f, RoundClip<float>(kNaN));
  EXPECT_EQ(1.0f, RoundClip<float>(0.5f));
  EXPECT_SAME_BITS(-0.0f, RoundClip<float>(-0.4f));
}

TEST(RoundClip, IntClamps) {
  EXPECT_EQ(127, RoundClip<int>(200));
  EXPECT_EQ(-127, RoundClip<int>(-128));
  EXPECT_EQ(-127, RoundClip<int>(INT_MIN));
  EXPECT_EQ(5, RoundClip<int>(5));
  EXPECT_EQ(-127, RoundClip<int>(-127));
}

TEST(CalculateCombineMinMax, ExactCase) {
  float combined = 0.0f;
  int downsample = 0;
  int start = 0;
  CalculateCombineMinMax(-2.0f, 2.0f, -3.0f, 3.0f, 4, 2, combined, downsample, start);
  EXPECT_EQ(3.0f, combined);
  EXPECT_EQ(3, downsample);
  EXPECT_EQ(2, start);
}

TEST(CalculateCombineMinMax, EntropyGeometry) {
  float combined = 0.0f;
  int downsample = 0;
  int start = 0;
  CalculateCombineMinMax(-1.7f, 1.7f, -2.9f, 2.9f, 23205, 128, combined, downsample, start);
  EXPECT_EQ(219, downsample);
  EXPECT_EQ(0x403A2667u, Bits(combined));  // 2.908594
  EXPECT_EQ(1055828, start);
}

TEST(CalculateCombineMinMax, NewMinIgnoredAndNarrowerPeakKeepsReach) {
  float a, b;
  int da, db, sa, sb;
  CalculateCombineMinMax(-1.5f, 1.5f, -100.0f, 1.0f, 64, 8, a, da, sa);
  CalculateCombineMinMax(-1.5f, 1.5f, 7.0f, 1.0f, 64, 8, b, db, sb);
  EXPECT_SAME_BITS(a, b);
  EXPECT_EQ(da, db);
  EXPECT_EQ(sa, sb);
  EXPECT_EQ(8, da);  // reach stays cur_max: one group per bin
  EXPECT_EQ(1.5f, a);
}

TEST(CalculateCombineMinMax, OutputMayAliasTheLimit) {
  // The entropy observer passes its bound by value and as the output.
  float bound = 1.7f;
  int downsample = 0;
  int start = 0;
  CalculateCombineMinMax(-bound, bound, -2.9f, 2.9f, 23205, 128, bound, downsample, start);
  EXPECT_EQ(0x403A2667u, Bits(bound));
  EXPECT_EQ(1055828, start);
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
