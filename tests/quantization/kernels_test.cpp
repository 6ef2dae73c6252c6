// The vectorised peak and histogram loops against the element-by-element
// definitions, on the portable variant and on the wider one where the
// machine has it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "quantization/functional.h"
#include "quantization/simd_kernels.h"
#include "quantization/utils.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::Bits;
using quant_test::kInf;
using quant_test::kNaN;

int TruncOrZero(double d) {
  if (!(d == d)) return 0;
  if (d >= 2147483648.0) return INT32_MAX;
  if (d <= -2147483649.0) return INT32_MIN;
  return static_cast<int>(d);
}

std::vector<int> ReferenceHistC(const std::vector<float>& data, int bins, float min, float max) {
  std::vector<int> h(bins, 0);
  const double scale = static_cast<double>(bins) / static_cast<double>(max - min);
  for (float x : data) {
    if (x < min || x > max) continue;
    int i = TruncOrZero(static_cast<double>(x - min) * scale);
    if (i >= bins) i = bins - 1;
    if (i < 0) i = 0;
    ++h[i];
  }
  return h;
}

std::vector<int> ReferenceBins(const std::vector<float>& data, int bins, float min, float max) {
  std::vector<int> h(bins, 0);
  const float m = std::fabs(min) < std::fabs(max) ? std::fabs(max) : std::fabs(min);
  const double factor = (static_cast<double>(bins) / static_cast<double>(m)) * 0.5;
  for (float x : data) {
    if (x < min || x > max) continue;
    const float t = x + m;
    int i = TruncOrZero(static_cast<double>(t) * factor);
    if (i >= bins) i = bins - 1;
    if (i < 0) i = 0;
    ++h[i];
  }
  return h;
}

void ReferencePeak(const std::vector<float>& data, float& min, float& max) {
  max = -FLT_MAX;
  min = FLT_MAX;
  for (float x : data) {
    if (max <= x) max = x;
    if (!(min < x)) min = x;
  }
}

// Random data with zeros of both signs, extremes, infinities and, on
// request, NaNs in a few places (also past the first blocks).
std::vector<float> Mixed(std::mt19937& rng, size_t n, bool nan, float spread) {
  std::normal_distribution<float> dist(0.0f, spread);
  std::vector<float> v(n);
  for (float& x : v) {
    const unsigned r = rng() % 64;
    x = r == 0 ? 0.0f : r == 1 ? -0.0f : r == 2 ? 1e-7f : r == 3 ? -2e-6f : dist(rng);
  }
  if (nan) {
    v[n / 2] = kNaN;
    v[n - 3] = kNaN;
  }
  return v;
}

class KernelTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { kernels::SetPortableOnly(GetParam()); }
  void TearDown() override { kernels::SetPortableOnly(false); }
};

TEST_P(KernelTest, PeakBitExact) {
  std::mt19937 rng(101);
  for (size_t n : {5ul, 16ul, 4096ul, 4097ul, 70001ul}) {
    for (int variant = 0; variant < 6; ++variant) {
      std::vector<float> v = Mixed(rng, n, variant == 1, 2.0f);
      if (variant == 2) v[n - 1] = kInf;
      if (variant == 3) v[0] = -kInf;
      if (variant == 4)
        for (float& x : v) x = -std::fabs(x);  // maximum is a zero
      if (variant == 5)
        for (float& x : v) x = std::fabs(x);  // minimum is a zero
      float min, max, rmin, rmax;
      CalibrationWithPeak(v.data(), v.size(), min, max);
      ReferencePeak(v, rmin, rmax);
      ASSERT_EQ(Bits(rmin), Bits(min)) << n << " " << variant;
      ASSERT_EQ(Bits(rmax), Bits(max)) << n << " " << variant;
    }
  }
}

TEST_P(KernelTest, SignOfAZeroPeakFollowsTheLastZero) {
  // The last zero sits in the first lane of the last vector group, so a
  // lane-wise reduction alone would end on a +0 of another lane.
  std::vector<float> v(1024, 0.0f);
  v[1008] = -0.0f;
  for (int i = 1009; i < 1024; ++i) v[i] = -1.0f;
  float min, max, rmin, rmax;
  CalibrationWithPeak(v.data(), v.size(), min, max);
  ReferencePeak(v, rmin, rmax);
  EXPECT_EQ(Bits(-0.0f), Bits(rmax));
  EXPECT_EQ(Bits(rmax), Bits(max));
  for (int i = 1009; i < 1024; ++i) v[i] = 1.0f;
  CalibrationWithPeak(v.data(), v.size(), min, max);
  ReferencePeak(v, rmin, rmax);
  EXPECT_EQ(Bits(-0.0f), Bits(rmin));
  EXPECT_EQ(Bits(rmin), Bits(min));
}

TEST_P(KernelTest, HistCMatchesTheDefinition) {
  std::mt19937 rng(102);
  for (size_t n : {100ul, 4096ul, 5000ul, 100003ul}) {
    std::vector<float> v = Mixed(rng, n, true, 3.0f);
    v[7] = kInf;
    v[8] = -kInf;
    v[9] = 2.5f;    // == max: last bin
    v[10] = -2.0f;  // == min: bin 0
    for (int bins : {1, 7, 2048}) {
      std::vector<int> h(bins, 0);
      HistC(v.data(), v.size(), bins, -2.0f, 2.5f, h);
      ASSERT_EQ(ReferenceHistC(v, bins, -2.0f, 2.5f), h) << n << " " << bins;
    }
    // Equal bounds: infinite scale, 0 times infinity, bin 0.
    std::vector<int> h(16, 0);
    HistC(v.data(), v.size(), 16, 0.0f, 0.0f, h);
    ASSERT_EQ(ReferenceHistC(v, 16, 0.0f, 0.0f), h);
    // Infinite bounds: zero scale, infinity times zero.
    std::vector<int> hi(16, 0);
    HistC(v.data(), v.size(), 16, -kInf, kInf, hi);
    ASSERT_EQ(ReferenceHistC(v, 16, -kInf, kInf), hi);
  }
}

TEST_P(KernelTest, HistCOfReluOutputs) {
  // Half zeros (of both signs) at the bottom of the range, where x - min is
  // +0 or -0; and a range with 0 inside, where zeros land in a middle bin.
  std::mt19937 rng(106);
  std::normal_distribution<float> dist(0.0f, 1.0f);
  std::vector<float> v(50000);
  for (float& x : v) x = std::max(0.0f, dist(rng));
  for (size_t i = 0; i < v.size(); i += 7) v[i] = -0.0f;
  float min, max;
  CalibrationWithPeak(v.data(), v.size(), min, max);
  std::vector<int> h(2048, 0);
  HistC(v.data(), v.size(), 2048, min, max, h);
  EXPECT_EQ(ReferenceHistC(v, 2048, min, max), h);
  std::vector<int> mid(2048, 0);
  HistC(v.data(), v.size(), 2048, -1.3f, max, mid);
  EXPECT_EQ(ReferenceHistC(v, 2048, -1.3f, max), mid);
  // Nothing in range: every block is empty.
  std::vector<int> none(64, 0);
  HistC(v.data(), v.size(), 64, 100.0f, 200.0f, none);
  EXPECT_EQ(std::vector<int>(64, 0), none);
}

// Elements a few ulps either side of every bin edge: where the
// single-precision product is not sure of its bin, the double rule decides.
std::vector<float> NearEdges(int bins, float min, float max) {
  const double scale = static_cast<double>(bins) / static_cast<double>(max - min);
  std::vector<float> v;
  for (int k = 0; k <= bins; ++k) {
    float x = static_cast<float>(static_cast<double>(k) / scale) + min;
    for (int step = 0; step < 4; ++step) x = std::nextafter(x, -kInf);
    for (int step = 0; step < 9; ++step) {
      v.push_back(x);
      x = std::nextafter(x, kInf);
    }
  }
  while (v.size() % 1024 != 0 || v.size() < 8192) v.push_back(min);
  return v;
}

TEST_P(KernelTest, HistCNearBinEdges) {
  for (auto range : {std::make_pair(-2.0f, 2.5f), std::make_pair(0.0f, 7.3f),
                     std::make_pair(-0.001f, 0.0137f), std::make_pair(-300.0f, -1.0f)}) {
    for (int bins : {2048, 23205, 3}) {
      const std::vector<float> v = NearEdges(bins, range.first, range.second);
      std::vector<int> h(bins, 0);
      HistC(v.data(), v.size(), bins, range.first, range.second, h);
      ASSERT_EQ(ReferenceHistC(v, bins, range.first, range.second), h)
          << range.first << " " << bins;
    }
  }
}

TEST_P(KernelTest, AssignDataToBinsNearBinEdges) {
  for (auto range : {std::make_pair(-2.0f, 2.5f), std::make_pair(-7.0f, 0.5f)}) {
    const float m = std::max(std::fabs(range.first), std::fabs(range.second));
    // The bins of [-m, m]: edges at -m + k * 2m / bins.
    const std::vector<float> v = NearEdges(23205, -m, m);
    ASSERT_EQ(ReferenceBins(v, 23205, range.first, range.second),
              AssignDataToBins(v, 23205, range.first, range.second));
  }
}

TEST_P(KernelTest, ExtremeFactorsTakeTheDoubleRule) {
  // A factor below 2^-100 (a huge range) and one above 2^100 (a tiny range).
  std::mt19937 rng(107);
  std::uniform_real_distribution<float> wide(-1e38f, 1e38f);
  std::vector<float> v(9000);
  for (float& x : v) x = wide(rng);
  v[5] = kNaN;
  std::vector<int> h(2048, 0);
  HistC(v.data(), v.size(), 2048, -1e38f, 1e38f, h);
  EXPECT_EQ(ReferenceHistC(v, 2048, -1e38f, 1e38f), h);
  std::uniform_real_distribution<float> tiny(1e-30f, 2e-30f);
  for (float& x : v) x = tiny(rng);
  std::vector<int> t(2048, 0);
  HistC(v.data(), v.size(), 2048, 1e-30f, 2e-30f, t);
  EXPECT_EQ(ReferenceHistC(v, 2048, 1e-30f, 2e-30f), t);
}

TEST_P(KernelTest, AssignDataToBinsMatchesTheDefinition) {
  std::mt19937 rng(103);
  for (size_t n : {10ul, 4096ul, 9001ul, 100000ul}) {
    const std::vector<float> v = Mixed(rng, n, true, 1.5f);
    for (auto range : {std::make_pair(-1.0f, 4.0f), std::make_pair(0.0f, 0.0f),
                       std::make_pair(-3.0f, -1.0f), std::make_pair(-kInf, kInf)}) {
      ASSERT_EQ(ReferenceBins(v, 23205, range.first, range.second),
                AssignDataToBins(v, 23205, range.first, range.second))
          << n << " " << range.first;
      ASSERT_EQ(ReferenceBins(v, 3, range.first, range.second),
                AssignDataToBins(v, 3, range.first, range.second));
    }
  }
}

TEST_P(KernelTest, NonZeroBinsIsTheTwoStepsInOne) {
  std::mt19937 rng(104);
  for (size_t n : {50ul, 4096ul, 100001ul}) {
    std::vector<float> v = Mixed(rng, n, false, 1.0f);
    v[3] = 9.9999997e-7f;   // below 1e-6 in double: left out
    v[4] = -1.0000001e-6f;  // kept
    for (auto range : {std::make_pair(-2.0f, 2.0f), std::make_pair(-0.5f, 3.0f)}) {
      const std::vector<float> nz = AssignNonZeroDataToVector(v.data(), v.size());
      ASSERT_EQ(AssignDataToBins(nz, 23205, range.first, range.second),
                kernels::NonZeroBins(v.data(), v.size(), 23205, range.first, range.second));
    }
  }
}

TEST_P(KernelTest, NonZeroBinsExitsOnNaNSilently) {
  std::mt19937 rng(105);
  const std::vector<float> v = Mixed(rng, 50000, true, 1.0f);
  EXPECT_EXIT(kernels::NonZeroBins(v.data(), v.size(), 101, -1.0f, 1.0f),
              ::testing::ExitedWithCode(255), "^$");
}

INSTANTIATE_TEST_SUITE_P(Variants, KernelTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? std::string("Portable") : std::string("Widest");
                         });

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
