// Activations as tables of codes: every entry is the float function on the
// dequantized code, quantized to the output grid, and applying the table in
// place or not gives the same codes.
#include "runtime/int8/lookup_table.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "runtime/int8/grid.h"

namespace qzdl {
namespace {

TEST(CodeTable, ReluKeepsCodesAboveTheZeroPoint) {
  // Input grid [-1, 3] (zero 64), output grid [0, 3]: ReLU maps each code to
  // max(real, 0) on the output grid.
  float in_scale = 0, out_scale = 0;
  int in_zero = 0, out_zero = 0;
  GridOfRangeWithZero(-1.0f, 3.0f, 255.0f, in_scale, in_zero);
  GridOfRangeWithZero(0.0f, 3.0f, 255.0f, out_scale, out_zero);
  const CodeTable t =
      BuildCodeTable([](float x) { return x > 0 ? x : 0.0f; }, in_scale, in_zero, out_scale, out_zero);
  EXPECT_EQ(in_zero, 64);
  EXPECT_EQ(out_zero, 0);
  for (int c = 0; c <= 64; ++c) EXPECT_EQ(t[c], 0) << c;
  EXPECT_EQ(t[255], 255);
  for (int c = 0; c < 256; ++c) {
    const float want = std::max(0.0f, (c - 64) * in_scale);
    EXPECT_EQ(t[c], CodeOf(want, out_scale, out_zero)) << c;
  }
}

TEST(CodeTable, SigmoidAndApply) {
  const CodeTable t = BuildCodeTable([](float x) { return 1.0f / (1.0f + std::exp(-x)); },
                                     0.05f, 128, 1.0f / 255.0f, 0);
  EXPECT_EQ(t[128], CodeOf(0.5f, 1.0f / 255.0f, 0));  // sigmoid(0)
  EXPECT_LT(t[0], t[255]);
  for (int c = 1; c < 256; ++c) EXPECT_GE(t[c], t[c - 1]) << c;
  std::vector<uint8_t> x(70000), y(x.size());
  for (size_t i = 0; i < x.size(); ++i) x[i] = static_cast<uint8_t>(i * 31 + 7);
  ApplyCodeTable(t, x.data(), y.data(), static_cast<int64_t>(x.size()));
  for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(y[i], t[x[i]]) << i;
  ApplyCodeTable(t, x.data(), x.data(), static_cast<int64_t>(x.size()));
  EXPECT_EQ(x, y);
}

TEST(CodeTable, LookupCodesGivesTheTableEntryAtEveryLength) {
  // Random tables, every code, lengths around the 64-code steps, unaligned
  // starts, in place and not.
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> code(0, 255);
  for (int round = 0; round < 4; ++round) {
    CodeTable t;
    for (uint8_t& e : t) e = static_cast<uint8_t>(code(rng));
    std::vector<uint8_t> x(300);
    for (size_t i = 0; i < x.size(); ++i) x[i] = static_cast<uint8_t>(round == 0 ? i : code(rng));
    for (int start : {0, 1, 13}) {
      for (int n = 0; n + start <= 300; n += (n < 140 ? 1 : 37)) {
        std::vector<uint8_t> y(x.size(), 0x5a);
        LookupCodes(t.data(), x.data() + start, y.data() + start, n);
        for (int i = 0; i < 300; ++i) {
          const bool inside = i >= start && i < start + n;
          ASSERT_EQ(y[i], inside ? t[x[i]] : 0x5a) << n << " from " << start << " at " << i;
        }
        std::vector<uint8_t> z = x;
        LookupCodes(t.data(), z.data() + start, z.data() + start, n);
        for (int i = start; i < start + n; ++i) ASSERT_EQ(z[i], t[x[i]]);
      }
    }
  }
}

}  // namespace
}  // namespace qzdl
