// The requantization arithmetic, bit for bit: one rounding of acc * M (ties
// toward +infinity) in both the fixed-point and the double mode, the
// fixed-point multiplier's range and accuracy, and the clamps.
#include "runtime/int8/requantize.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace qzdl {
namespace {

using int128 = __int128;

// floor(num / den) for den > 0, in exact integers.
int128 FloorDiv(int128 num, int128 den) {
  int128 q = num / den;
  if ((num % den != 0) && (num < 0)) --q;
  return q;
}

// round(acc * m * 2^-n), ties toward +infinity, exactly.
int64_t ExactRound(int64_t acc, int64_t m, int n) {
  const int128 den = static_cast<int128>(1) << (n + 1);
  return static_cast<int64_t>(FloorDiv(2 * static_cast<int128>(acc) * m + (den >> 1), den));
}

// The same, clamped to +-2^30 before it is narrowed.
int64_t ExactRoundClamped(int64_t acc, int64_t m, int n) {
  const int128 den = static_cast<int128>(1) << (n + 1);
  const int128 v = FloorDiv(2 * static_cast<int128>(acc) * m + (den >> 1), den);
  const int128 limit = int128{1} << 30;
  return static_cast<int64_t>(v < -limit ? -limit : v > limit ? limit : v);
}

TEST(Requantize, MultiplierFromFrexp) {
  const Requantizer half = MakeRequantizer(0.5, false);
  EXPECT_EQ(half.multiplier, 1 << 30);
  EXPECT_EQ(half.shift, 31);
  const Requantizer three = MakeRequantizer(3.0, false);  // 0.75 * 2^2
  EXPECT_EQ(three.multiplier, 3 << 29);
  EXPECT_EQ(three.shift, 29);
  // A fraction that rounds up to 2^31 moves to the next exponent.
  const Requantizer up = MakeRequantizer(std::nextafter(1.0, 0.0), false);
  EXPECT_EQ(up.multiplier, 1 << 30);
  EXPECT_EQ(up.shift, 30);
  for (double bad : {0.0, -1.0, std::nan("")}) {
    const Requantizer r = MakeRequantizer(bad, false);
    EXPECT_EQ(r.multiplier, 0);
    EXPECT_EQ(RequantizeRaw(123456, r), 0);
    EXPECT_EQ(Requantize(-99999, r, 77), 77);
  }
}

TEST(Requantize, MultiplierIsWithinOnePartIn2To31) {
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> exponent(-31.0, 29.0);
  for (int i = 0; i < 100000; ++i) {
    const double real = std::exp2(exponent(rng));
    const Requantizer r = MakeRequantizer(real, false);
    ASSERT_GE(r.multiplier, 1 << 30) << real;
    ASSERT_LT(int64_t{r.multiplier}, int64_t{1} << 31) << real;
    ASSERT_GE(r.shift, 1);
    ASSERT_LE(r.shift, 62);
    const double represented = std::ldexp(static_cast<double>(r.multiplier), -r.shift);
    EXPECT_LE(std::fabs(represented - real), real * std::ldexp(1.0, -31)) << real;
  }
}

TEST(Requantize, FixedPointRoundsOnceExactly) {
  std::mt19937_64 rng(11);
  std::uniform_int_distribution<int32_t> accs(INT32_MIN, INT32_MAX);
  std::uniform_int_distribution<int32_t> small(-100000, 100000);
  std::uniform_real_distribution<double> exponent(-31.0, 10.0);
  for (int i = 0; i < 200000; ++i) {
    const Requantizer r = MakeRequantizer(std::exp2(exponent(rng)), false);
    const int32_t acc = (i & 1) ? accs(rng) : small(rng);
    int64_t want = ExactRound(acc, r.multiplier, r.shift);
    want = std::max<int64_t>(-(int64_t{1} << 30), std::min<int64_t>(int64_t{1} << 30, want));
    ASSERT_EQ(RequantizeRaw(acc, r), want) << acc << " * " << r.multiplier << " >> " << r.shift;
  }
}

TEST(Requantize, SixtyFourBitAccumulatorsRoundOnceExactly) {
  std::mt19937_64 rng(13);
  std::uniform_int_distribution<int> bits(0, 63);
  std::uniform_real_distribution<double> exponent(-70.0, 10.0);
  for (int i = 0; i < 300000; ++i) {
    const Requantizer r = MakeRequantizer(std::exp2(exponent(rng)), false);
    // Magnitudes spread over every bit length, both signs, and the ends.
    int64_t acc = static_cast<int64_t>(rng() >> bits(rng));
    if (i & 1) acc = -acc;
    if (i % 1000 == 0) acc = (i & 2) ? INT64_MAX : -INT64_MAX;
    int64_t want = r.saturate          ? (acc > 0   ? INT64_MAX
                                          : acc < 0 ? INT64_MIN
                                                    : 0)
                   : r.multiplier != 0 ? ExactRoundClamped(acc, r.multiplier, r.shift)
                   : r.wide_multiplier != 0
                       ? ExactRoundClamped(acc, r.wide_multiplier, r.wide_shift)
                       : 0;
    want = std::max<int64_t>(-(int64_t{1} << 30), std::min<int64_t>(int64_t{1} << 30, want));
    ASSERT_EQ(RequantizeRaw64(acc, r), want) << acc << " * " << r.multiplier << " >> " << r.shift;
  }
  // Ties go up beyond the int32 range too: (2^33 + 1) / 2 and its negative.
  const Requantizer half = MakeRequantizer(0.5, false);
  EXPECT_EQ(RequantizeRaw64((int64_t{1} << 31) + 1, half), 1 << 30);
  const Requantizer eighth = MakeRequantizer(std::ldexp(1.0, -34), false);
  EXPECT_EQ(RequantizeRaw64(int64_t{3} << 33, eighth), 2);      // 1.5
  EXPECT_EQ(RequantizeRaw64(-(int64_t{3} << 33), eighth), -1);  // -1.5
  EXPECT_EQ(Requantize64(-(int64_t{5} << 33), eighth, 10), 8);  // -2.5
  // A multiplier below 2^-32 still counts for 64-bit accumulators.
  const Requantizer tiny = MakeRequantizer(std::ldexp(1.0, -40), false);
  EXPECT_EQ(RequantizeRaw64(int64_t{5} << 39, tiny), 3);  // 2.5
  EXPECT_EQ(RequantizeRaw64(INT32_MAX, tiny), 0);
  EXPECT_EQ(RequantizeRaw64(INT64_MAX, MakeRequantizer(std::ldexp(1.0, -70), false)), 0);
}

TEST(Requantize, TiesGoUp) {
  const Requantizer half = MakeRequantizer(0.5, false);
  const Requantizer half_d = MakeRequantizer(0.5, true);
  for (const Requantizer* r : {&half, &half_d}) {
    EXPECT_EQ(RequantizeRaw(5, *r), 3);    // 2.5
    EXPECT_EQ(RequantizeRaw(-5, *r), -2);  // -2.5
    EXPECT_EQ(RequantizeRaw(-7, *r), -3);  // -3.5
    EXPECT_EQ(RequantizeRaw(4, *r), 2);
    EXPECT_EQ(RequantizeRaw(-1, *r), 0);  // -0.5
    EXPECT_EQ(RequantizeRaw(-3, *r), -1);  // -1.5
  }
}

TEST(Requantize, DoubleModeRoundsTheDoubleProduct) {
  std::mt19937_64 rng(3);
  std::uniform_int_distribution<int32_t> accs(-50000000, 50000000);
  std::uniform_real_distribution<double> exponent(-20.0, 0.0);
  for (int i = 0; i < 100000; ++i) {
    const double real = std::exp2(exponent(rng));
    const Requantizer r = MakeRequantizer(real, true);
    const int32_t acc = accs(rng);
    const double want = std::floor(static_cast<double>(acc) * real + 0.5);
    ASSERT_EQ(RequantizeRaw(acc, r), static_cast<int32_t>(want)) << acc << " " << real;
  }
}

TEST(Requantize, LargeAndTinyMultipliers) {
  const Requantizer huge = MakeRequantizer(std::ldexp(1.0, 40), false);
  EXPECT_TRUE(huge.saturate);
  EXPECT_EQ(Requantize(1, huge, 0), 255);
  EXPECT_EQ(Requantize(-1, huge, 255), 0);
  EXPECT_EQ(Requantize(0, huge, 17), 17);
  // 2^20: a small shift whose product leaves the int32 range is clamped.
  const Requantizer big = MakeRequantizer(std::ldexp(1.0, 20), false);
  EXPECT_EQ(RequantizeRaw(INT32_MAX, big), 1 << 30);
  EXPECT_EQ(RequantizeRaw(INT32_MIN, big), -(1 << 30));
  EXPECT_EQ(RequantizeRaw(3, big), 3 << 20);
  const Requantizer tiny = MakeRequantizer(std::ldexp(1.0, -40), false);
  EXPECT_EQ(tiny.multiplier, 0);
  EXPECT_EQ(RequantizeRaw(INT32_MAX, tiny), 0);
  EXPECT_EQ(RequantizeRaw(INT32_MIN, tiny), 0);
  // An output grid of scale 0 gives an infinite multiplier: saturation in
  // both modes, never a conversion of an infinity to an integer.
  for (bool use_double : {false, true}) {
    const Requantizer inf = MakeRequantizer(HUGE_VAL, use_double);
    EXPECT_TRUE(inf.saturate);
    EXPECT_EQ(Requantize(5, inf, 3), 255);
    EXPECT_EQ(Requantize(-5, inf, 3), 0);
    EXPECT_EQ(Requantize(0, inf, 3), 3);
  }
}

TEST(Requantize, RowsOfInt32SumsGiveTheScalarBits) {
  // RequantizeRow32 against Requantize on the saturated sum, for multipliers
  // of every exponent (shifts 1 .. 62 and the tiny and saturating ones),
  // addends at the ends of the int32 range, sums at the ends, ties, and
  // rows of every length around the vector widths.
  std::mt19937_64 rng(3);
  std::vector<double> reals = {0.0, 1e-12, 3e9};
  for (int e = -34; e <= 31; ++e) {
    reals.push_back(std::ldexp(1.0, e));
    reals.push_back(std::ldexp(1.0, e) * (1.0 + std::uniform_real_distribution<double>(0, 1)(rng)));
  }
  const int64_t adds[] = {0, 1, -1, 123456, -987654, INT32_MAX, INT32_MIN, INT32_MAX - 5,
                          INT32_MIN + 5};
  std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
  std::uniform_int_distribution<int32_t> small(-70000, 70000);
  std::vector<int32_t> acc(200);
  for (double real : reals) {
    for (bool use_double : {false, true}) {
      const Requantizer r = MakeRequantizer(real, use_double);
      for (int64_t add : adds) {
        for (size_t i = 0; i < acc.size(); ++i) {
          const int kind = static_cast<int>(i % 5);
          acc[i] = kind == 0   ? any(rng)
                   : kind == 1 ? small(rng)
                   : kind == 2 ? (i % 2 ? INT32_MAX : INT32_MIN)
                   : kind == 3 ? static_cast<int32_t>(int64_t(i) << 20)
                               : -static_cast<int32_t>(int64_t(i) << 21);
        }
        for (int zero : {0, 77, 255}) {
          for (int64_t n : {int64_t(1), int64_t(15), int64_t(64), int64_t(200)}) {
            std::vector<uint8_t> got(n), plain(n);
            RequantizeRow32(acc.data(), n, add, r, zero, got.data());
            RequantizeRow32Plain(acc.data(), n, add, r, zero, plain.data());
            for (int64_t i = 0; i < n; ++i) {
              const int64_t v = std::clamp<int64_t>(add + acc[i], INT32_MIN, INT32_MAX);
              const uint8_t want = Requantize(static_cast<int32_t>(v), r, zero);
              ASSERT_EQ(got[i], want) << "real " << real << " add " << add << " acc " << acc[i]
                                      << (use_double ? " double" : "");
              ASSERT_EQ(plain[i], want) << "real " << real << " add " << add << " acc "
                                        << acc[i] << (use_double ? " double" : "");
            }
          }
        }
      }
    }
  }
}

TEST(Requantize, CodesAreClamped) {
  const Requantizer r = MakeRequantizer(0.25, false);
  EXPECT_EQ(Requantize(400, r, 128), 228);
  EXPECT_EQ(Requantize(4000, r, 128), 255);
  EXPECT_EQ(Requantize(-4000, r, 128), 0);
  EXPECT_EQ(Requantize(-510, r, 128), 1);  // -127.5 rounds up to -127
}

}  // namespace
}  // namespace qzdl
