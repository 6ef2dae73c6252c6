// Coverage range: ConfigureNth, the store merge against std::partial_sort,
// the observer against a sort of everything seen, and its messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "quantization/coverage_observer.h"
#include "quantization/functional.h"
#include "quantization/functional_search.h"
#include "quantization/kernels/coverage_select.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::Bits;
using quant_test::kInf;
using quant_test::kNaN;

struct Nth {
  unsigned long nth_min, nth_max, margin;
};

Nth Configure(unsigned long total, float ratio) {
  Nth n{99, 99, 99};
  ConfigureNth(total, ratio, n.nth_min, n.nth_max, n.margin);
  return n;
}

// ---- ConfigureNth ----

TEST(ConfigureNth, TheRatioIsAFloat) {
  // 1 - 0.99f is 0.0099999905, so 1000 elements give 4.9999952 -> 4.
  Nth n = Configure(1000, 0.99f);
  EXPECT_EQ(4u, n.nth_min);
  EXPECT_EQ(4u, n.nth_max);
  EXPECT_EQ(10u, n.margin);
  n = Configure(10000, 0.99f);
  EXPECT_EQ(49u, n.nth_min);
  EXPECT_EQ(49u, n.nth_max);
  EXPECT_EQ(49u, n.margin);
}

TEST(ConfigureNth, RatioOneKeepsTheExtremes) {
  const Nth n = Configure(123456, 1.0f);
  EXPECT_EQ(0u, n.nth_min);
  EXPECT_EQ(0u, n.nth_max);
  EXPECT_EQ(10u, n.margin);
}

TEST(ConfigureNth, MarginIsTenUpToTenThenNth) {
  Nth n = Configure(2000, 0.99f);  // 9.99999 -> 9
  EXPECT_EQ(9u, n.nth_min);
  EXPECT_EQ(10u, n.margin);
  n = Configure(2200, 0.99f);  // 10.99999 -> 10
  EXPECT_EQ(10u, n.nth_min);
  EXPECT_EQ(10u, n.margin);
  n = Configure(2400, 0.99f);  // 11.99999 -> 11
  EXPECT_EQ(11u, n.nth_min);
  EXPECT_EQ(11u, n.margin);
  n = Configure(1000, 0.5f);
  EXPECT_EQ(250u, n.nth_min);
  EXPECT_EQ(250u, n.margin);
  n = Configure(0, 0.9995f);
  EXPECT_EQ(0u, n.nth_min);
  EXPECT_EQ(10u, n.margin);
}

TEST(ConfigureNth, NegativeAndNaNCutsSaturateToZero) {
  // A ratio above 1 (only the constructor takes one) gives a negative cut;
  // the conversion saturates as on 64-bit Arm.
  Nth n = Configure(1000, 1.5f);
  EXPECT_EQ(0u, n.nth_min);
  EXPECT_EQ(10u, n.margin);
  n = Configure(1000, quant_test::kNaN);
  EXPECT_EQ(0u, n.nth_max);
  EXPECT_EQ(10u, n.margin);
}

// ---- the store merge ----

// Store followed by the data, partially sorted: the definition.
std::vector<float> PartialSortReference(const std::vector<float>& store,
                                        const std::vector<float>& data, bool smallest) {
  std::vector<float> list = store;
  list.insert(list.end(), data.begin(), data.end());
  if (smallest) {
    std::partial_sort(list.begin(), list.begin() + store.size(), list.end());
  } else {
    std::partial_sort(list.begin(), list.begin() + store.size(), list.end(), std::greater<float>());
  }
  list.resize(store.size());
  return list;
}

void ExpectSameStore(const std::vector<float>& want, const float* got, const std::string& what) {
  for (size_t i = 0; i < want.size(); ++i) {
    ASSERT_EQ(Bits(want[i]), Bits(got[i]))
        << what << " entry " << i << ": want " << want[i] << ", got " << got[i];
  }
}

TEST(MergeIntoStores, MatchesPartialSortBitForBit) {
  std::mt19937 rng(3);
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::uniform_int_distribution<int> pick(0, 9);
  for (int round = 0; round < 60; ++round) {
    const size_t min_size = 1 + rng() % 300;
    const size_t max_size = 1 + rng() % 300;
    const size_t count = rng() % 5000;
    // Ties, signed zeros, infinities and NaN among the data; the stores start
    // with fillers or with earlier data.
    std::vector<float> data(count);
    for (float& x : data) {
      switch (pick(rng)) {
        case 0:
          x = 0.0f;
          break;
        case 1:
          x = -0.0f;
          break;
        case 2:
          x = std::round(normal(rng) * 3.0f);
          break;
        case 3:
          x = (rng() % 50 == 0) ? kNaN : (rng() % 2 ? kInf : -kInf);
          break;
        default:
          x = normal(rng) * 10.0f;
      }
    }
    std::vector<float> min_store(min_size, FLT_MAX), max_store(max_size, -FLT_MAX);
    if (round % 2) {
      for (float& x : min_store) x = std::round(normal(rng) * 5.0f);
      for (float& x : max_store) x = std::round(normal(rng) * 5.0f);
    }
    const std::vector<float> want_min = PartialSortReference(min_store, data, true);
    const std::vector<float> want_max = PartialSortReference(max_store, data, false);
    kernels::MergeIntoStores(data.data(), data.size(), min_store.data(), min_size, max_store.data(),
                             max_size);
    ExpectSameStore(want_min, min_store.data(), "min round " + std::to_string(round));
    ExpectSameStore(want_max, max_store.data(), "max round " + std::to_string(round));
  }
}

TEST(MergeIntoStores, EmptySideIsLeftAlone) {
  const std::vector<float> data = {3.0f, -1.0f, 2.0f};
  std::vector<float> max_store(2, -FLT_MAX);
  kernels::MergeIntoStores(data.data(), data.size(), nullptr, 0, max_store.data(), 2);
  EXPECT_EQ(3.0f, max_store[0]);
  EXPECT_EQ(2.0f, max_store[1]);
}

// ---- CalibrationWithCoverage ----

TEST(CalibrationWithCoverage, ZeroSizesArePeak) {
  const float data[] = {3.0f, -2.0f, kNaN, 5.0f, 4.0f};
  float min = 0.0f, max = 0.0f;
  CalibrationWithCoverage(data, 5, min, max, 0, 0, 10, nullptr, nullptr);
  float peak_min, peak_max;
  CalibrationWithPeak(data, 5, peak_min, peak_max);
  EXPECT_SAME_BITS(peak_min, min);
  EXPECT_SAME_BITS(peak_max, max);
}

TEST(CalibrationWithCoverage, ReadsTheEntryMarginFromTheEnd) {
  std::vector<float> data(100);
  std::iota(data.begin(), data.end(), 0.0f);
  std::shuffle(data.begin(), data.end(), std::mt19937(1));
  std::vector<float> min_store(12, FLT_MAX), max_store(13, -FLT_MAX);
  float min = 0.0f, max = 0.0f;
  CalibrationWithCoverage(data.data(), 100, min, max, 12, 13, 10, min_store.data(),
                          max_store.data());
  EXPECT_EQ(2.0f, min);   // index 12 - 10 of 0, 1, 2, ...
  EXPECT_EQ(96.0f, max);  // index 13 - 10 of 99, 98, 97, 96, ...
  EXPECT_EQ(11.0f, min_store[11]);
  EXPECT_EQ(87.0f, max_store[12]);
}

// ---- SetCoverageRatio ----

TEST(CoverageObserver, RatioOutsideZeroToOneIsRefusedWithOneMessage) {
  CoverageObserver observer;
  EXPECT_EQ(0x3F7FDF3Bu, Bits(observer.coverage_ratio));
  testing::internal::CaptureStdout();
  observer.SetCoverageRatio(1.5f);
  EXPECT_EQ("Invalid Coverage param. Coverage ration remain unchanged\n",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ(0x3F7FDF3Bu, Bits(observer.coverage_ratio));
  testing::internal::CaptureStdout();
  observer.SetCoverageRatio(-0.25f);
  EXPECT_EQ("Invalid Coverage param. Coverage ration remain unchanged\n",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ(0x3F7FDF3Bu, Bits(observer.coverage_ratio));
}

TEST(CoverageObserver, SmallRatioWarnsOnceAndIsTaken) {
  CoverageObserver observer;
  testing::internal::CaptureStdout();
  observer.SetCoverageRatio(0.5f);
  EXPECT_EQ(
      "Warning: coverage value 0.500 might be too small, this may leads to abnormal model "
      "performance!\n",
      testing::internal::GetCapturedStdout());
  EXPECT_EQ(0.5f, observer.coverage_ratio);
  // 0.99f is 0.99000001 in double: not below 0.99, so silent; 1 and 0 too.
  for (float r : {0.99f, 1.0f, 0.9995f}) {
    testing::internal::CaptureStdout();
    observer.SetCoverageRatio(r);
    EXPECT_EQ("", testing::internal::GetCapturedStdout()) << r;
    EXPECT_EQ(r, observer.coverage_ratio);
  }
  testing::internal::CaptureStdout();
  observer.SetCoverageRatio(0.0f);
  EXPECT_EQ(
      "Warning: coverage value 0.000 might be too small, this may leads to abnormal model "
      "performance!\n",
      testing::internal::GetCapturedStdout());
  EXPECT_EQ(0.0f, observer.coverage_ratio);
}

TEST(CoverageObserver, HalfCoverageCutsAQuarterOnEachSide) {
  std::vector<float> data(1000);
  std::iota(data.begin(), data.end(), 0.0f);
  std::shuffle(data.begin(), data.end(), std::mt19937(2));
  CoverageObserver observer;
  testing::internal::CaptureStdout();
  observer.SetCoverageRatio(0.5f);
  observer.Observe(data.data(), data.size());
  // The warning, once; the observation itself prints nothing.
  EXPECT_EQ(
      "Warning: coverage value 0.500 might be too small, this may leads to abnormal model "
      "performance!\n",
      testing::internal::GetCapturedStdout());
  float min, max;
  observer.Extract(min, max);
  EXPECT_EQ(250.0f, min);  // 250 elements below it
  EXPECT_EQ(749.0f, max);  // 250 elements above it
  EXPECT_EQ(500u, observer.min_store_size);
  EXPECT_EQ(500u, observer.max_store_size);
}

TEST(CoverageObserver, TypeAndInitialState) {
  CoverageObserver observer;
  EXPECT_EQ(3, observer.GetObserverType());
  EXPECT_EQ("Coverage", observer.GetObserverTypeString());
  EXPECT_EQ(1, observer.total);
  EXPECT_EQ(nullptr, observer.min_store);
  EXPECT_EQ(nullptr, observer.max_store);
  EXPECT_TRUE(observer.IsInitial());
  CoverageObserver direct(1.5f);  // written directly, no check
  EXPECT_EQ(1.5f, direct.coverage_ratio);
}

TEST(CoverageObserver, RatioOneIsTheTrueExtremes) {
  const std::vector<float> data = {0.5f, -7.0f, 3.0f, 9.0f, -1.0f};
  CoverageObserver observer(1.0f);
  observer.Observe(data.data(), data.size());
  EXPECT_EQ(-7.0f, observer.opt_min);
  EXPECT_EQ(9.0f, observer.opt_max);
  EXPECT_EQ(10u, observer.min_store_size);
}

TEST(CoverageObserver, FewerElementsThanTheStore) {
  // 150 batches of 100: nth 74, margin 74, stores of 148 > 100. The index 74
  // lands on the batch's 75th smallest and largest; fillers stay at the end.
  std::vector<float> data(100);
  std::iota(data.begin(), data.end(), 1.0f);
  std::shuffle(data.begin(), data.end(), std::mt19937(4));
  CoverageObserver observer(0.99f);
  observer.SetTotal(150);
  observer.Observe(data.data(), data.size());
  ASSERT_EQ(148u, observer.min_store_size);
  EXPECT_EQ(75.0f, observer.opt_min);
  EXPECT_EQ(26.0f, observer.opt_max);
  for (int i = 100; i < 148; ++i) {
    EXPECT_SAME_BITS(FLT_MAX, observer.min_store[i]);
    EXPECT_SAME_BITS(-FLT_MAX, observer.max_store[i]);
  }
  // Fewer than nth + 1 elements: the index reads a filler.
  CoverageObserver small(0.99f);
  small.SetTotal(150);
  std::vector<float> first60(60);
  std::iota(first60.begin(), first60.end(), 1.0f);
  small.Observe(first60.data(), 60);  // nth 44: store 88, 60 real entries
  EXPECT_EQ(88u, small.min_store_size);
  EXPECT_EQ(45.0f, small.opt_min);
  EXPECT_EQ(16.0f, small.opt_max);
  CoverageObserver tiny(0.99f);
  tiny.SetTotal(1000);
  tiny.Observe(data.data(), 10);  // nth 49 > 10 elements
  EXPECT_SAME_BITS(FLT_MAX, tiny.opt_min);
  EXPECT_SAME_BITS(-FLT_MAX, tiny.opt_max);
}

// ---- against a sort of everything seen ----

float NthSmallest(std::vector<float> v, unsigned long n) {
  std::sort(v.begin(), v.end());
  return v[n];
}
float NthLargest(std::vector<float> v, unsigned long n) {
  std::sort(v.begin(), v.end(), std::greater<float>());
  return v[n];
}

std::vector<float> Activation(size_t n, bool relu, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) {
    x = normal(rng) * 2.0f + (relu ? 0.5f : 0.0f);
    if (relu) x = std::max(0.0f, x);
  }
  return v;
}

TEST(CoverageObserver, OneBatchIsTheSortedPercentile) {
  for (float ratio : {0.9995f, 0.995f, 0.99995f, 0.999995f, 0.99f, 0.9f}) {
    for (size_t n : {1u, 17u, 1000u, 65537u, 300000u}) {
      const std::vector<float> data = Activation(n, n % 2 == 1, static_cast<uint32_t>(n));
      CoverageObserver observer(ratio);
      observer.Observe(data.data(), data.size());
      const Nth nth = Configure(n, ratio);
      EXPECT_EQ(NthSmallest(data, nth.nth_min), observer.opt_min) << ratio << " " << n;
      EXPECT_EQ(NthLargest(data, nth.nth_max), observer.opt_max) << ratio << " " << n;
    }
  }
}

TEST(CoverageObserver, FrugalEqualsBatch) {
  // Frugal mode: SetTotal(items), one Observe per item. Batch mode: SetTotal(1)
  // and one Observe on the concatenation. Same stores, same range, which is
  // the exact percentile of everything.
  for (float ratio : {0.9995f, 0.995f, 0.99f}) {
    for (bool relu : {true, false}) {
      const int items = 16;
      const size_t per = 20000;
      std::vector<float> all;
      CoverageObserver frugal(ratio);
      frugal.SetTotal(items);
      for (int i = 0; i < items; ++i) {
        const std::vector<float> item = Activation(per, relu, 100 + i);
        frugal.Observe(item.data(), item.size());
        all.insert(all.end(), item.begin(), item.end());
      }
      CoverageObserver batch(ratio);
      batch.SetTotal(1);
      batch.Observe(all.data(), all.size());
      EXPECT_SAME_BITS(batch.opt_min, frugal.opt_min);
      EXPECT_SAME_BITS(batch.opt_max, frugal.opt_max);
      const Nth nth = Configure(all.size(), ratio);
      EXPECT_EQ(NthSmallest(all, nth.nth_min), frugal.opt_min);
      EXPECT_EQ(NthLargest(all, nth.nth_max), frugal.opt_max);
      ASSERT_EQ(batch.min_store_size, frugal.min_store_size);
      for (unsigned long i = 0; i < batch.min_store_size; ++i) {
        ASSERT_EQ(batch.min_store[i], frugal.min_store[i]) << i;
        ASSERT_EQ(batch.max_store[i], frugal.max_store[i]) << i;
      }
      // The limits are the envelope with 0, as for every other observer.
      EXPECT_EQ(std::min(0.0f, *std::min_element(all.begin(), all.end())), frugal.min_lower);
      EXPECT_EQ(*std::max_element(all.begin(), all.end()), frugal.max_upper);
    }
  }
}

TEST(CoverageObserver, ALargerLaterBatchGrowsTheStores) {
  // 0.99: the first batch of 1000 makes stores of 14; a batch of 4000 asks
  // for 38 (nth 19). They grow with fillers, and the result is what stores
  // made that large from the start would give.
  const std::vector<float> first = Activation(1000, false, 8);
  const std::vector<float> second = Activation(4000, false, 9);
  CoverageObserver observer(0.99f);
  observer.Observe(first.data(), first.size());
  EXPECT_EQ(14u, observer.min_store_size);
  observer.Observe(second.data(), second.size());
  EXPECT_EQ(38u, observer.min_store_size);
  EXPECT_EQ(38u, observer.max_store_size);

  std::vector<float> min_store(14, FLT_MAX), max_store(14, -FLT_MAX);
  kernels::MergeIntoStores(first.data(), first.size(), min_store.data(), 14, max_store.data(), 14);
  min_store.resize(38, FLT_MAX);
  max_store.resize(38, -FLT_MAX);
  float min, max;
  CalibrationWithCoverage(second.data(), second.size(), min, max, 38, 38, 19, min_store.data(),
                          max_store.data());
  EXPECT_EQ(min, observer.opt_min);
  EXPECT_EQ(max, observer.opt_max);
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
