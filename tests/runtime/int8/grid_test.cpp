// The one grid rule of the runtime and the calibration code.
#include "runtime/int8/grid.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "runtime/quant_config.h"

namespace qzdl {
namespace {

uint32_t Bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}

TEST(Grid, WidenedToContainZero) {
  float scale = 0;
  int zero = -1;
  GridOfRangeWithZero(-1.0f, 3.0f, 255.0f, scale, zero);
  EXPECT_EQ(Bits(scale), Bits(4.0f / 255.0f));
  EXPECT_EQ(zero, 64);  // 63.75 rounds to 64
  GridOfRangeWithZero(0.5f, 2.0f, 255.0f, scale, zero);  // lo becomes 0
  EXPECT_EQ(Bits(scale), Bits(2.0f / 255.0f));
  EXPECT_EQ(zero, 0);
  GridOfRangeWithZero(-4.0f, -1.0f, 255.0f, scale, zero);  // hi becomes 0
  EXPECT_EQ(Bits(scale), Bits(4.0f / 255.0f));
  EXPECT_EQ(zero, 255);
  GridOfRangeWithZero(0.0f, 0.0f, 255.0f, scale, zero);  // 0 / 0: NaN zero point
  EXPECT_EQ(scale, 0.0f);
  EXPECT_EQ(zero, 0);
}

TEST(Grid, AsItStands) {
  float scale = 0;
  int zero = -1;
  GridOfRange(1.0f, 3.0f, 255.0f, scale, zero);  // z = -127.5: below 0
  EXPECT_EQ(zero, 0);
  GridOfRange(-3.0f, -1.0f, 255.0f, scale, zero);  // z = 382.5: above qmax
  EXPECT_EQ(zero, 255);
  GridOfRange(-1.25f, 2.75f, 8.0f, scale, zero);  // scale 0.5, z 2.5: half away from zero
  EXPECT_EQ(scale, 0.5f);
  EXPECT_EQ(zero, 3);
}

TEST(Grid, ZeroPointSaturates) {
  EXPECT_EQ(ZeroPointOf(3e9f, 2147483648.0f), 2147483647);
  EXPECT_EQ(ZeroPointOf(std::nanf(""), 255.0f), 0);
  EXPECT_EQ(ZeroPointOf(-0.4f, 255.0f), 0);
  EXPECT_EQ(ZeroPointOf(254.5f, 255.0f), 255);
}

TEST(Grid, TensorRecordsUseIt) {
  const QuantizationConfig c(-1.0f, 3.0f);
  EXPECT_EQ(Bits(c.getScale()), Bits(4.0f / 255.0f));
  EXPECT_EQ(c.getZeroPoint(), 64);
}

TEST(Grid, CodesAddAHalfAndTruncate) {
  EXPECT_EQ(CodeOf(0.0f, 0.5f, 10), 10);
  EXPECT_EQ(CodeOf(0.25f, 0.5f, 10), 11);   // 10.5 + 0.5: exact halves go up
  EXPECT_EQ(CodeOf(-0.25f, 0.5f, 10), 10);  // 9.5 + 0.5
  EXPECT_EQ(CodeOf(-0.26f, 0.5f, 10), 9);
  EXPECT_EQ(CodeOf(1e9f, 0.5f, 10), 255);
  EXPECT_EQ(CodeOf(-1e9f, 0.5f, 10), 0);
  EXPECT_EQ(CodeOf(std::nanf(""), 0.5f, 10), 255);
  EXPECT_EQ(RealOf(13, 0.5f, 10), 1.5f);
  EXPECT_EQ(RealOf(0, 0.5f, 10), -5.0f);
  // Every code of a grid comes back to itself.
  for (int c = 0; c < 256; ++c) {
    const unsigned char code = static_cast<unsigned char>(c);
    EXPECT_EQ(CodeOf(RealOf(code, 0.0173f, 77), 0.0173f, 77), code) << c;
  }
}

}  // namespace
}  // namespace qzdl
