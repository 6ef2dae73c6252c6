// Observer base, the peak function and the peak, average and preset observers.
#include "quantization/observer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cstring>
#include <random>
#include <type_traits>
#include <vector>

#include "quantization/functional.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::Bits;
using quant_test::kInf;
using quant_test::kNaN;

// The defining loop of the peak.
void ReferencePeak(const float* data, unsigned long count, float& min, float& max) {
  max = -FLT_MAX;
  min = FLT_MAX;
  for (unsigned long i = 0; i < count; ++i) {
    if (max <= data[i]) max = data[i];
    if (!(min < data[i])) min = data[i];
  }
}

TEST(CalibrationWithPeak, EmptyGivesInitialPair) {
  float min = 1.0f, max = 1.0f;
  CalibrationWithPeak(nullptr, 0, min, max);
  EXPECT_SAME_BITS(FLT_MAX, min);
  EXPECT_SAME_BITS(-FLT_MAX, max);
}

TEST(CalibrationWithPeak, NaNKeepsMaxButResetsMin) {
  const float data[] = {3.0f, -2.0f, kNaN, 5.0f, 4.0f};
  float min, max;
  CalibrationWithPeak(data, 5, min, max);
  EXPECT_EQ(5.0f, max);
  EXPECT_EQ(4.0f, min);  // the NaN replaced -2, then 5, then 4 replaced it
  const float last_nan[] = {1.0f, kNaN};
  CalibrationWithPeak(last_nan, 2, min, max);
  EXPECT_TRUE(std::isnan(min));
  EXPECT_EQ(1.0f, max);
}

TEST(CalibrationWithPeak, InfinitiesAndSignedZeros) {
  // -inf never becomes the maximum (-FLT_MAX <= -inf is false), +inf never
  // the minimum; among equal zeros the last one wins.
  const float minus_inf[] = {-kInf, -kInf};
  float min, max;
  CalibrationWithPeak(minus_inf, 2, min, max);
  EXPECT_SAME_BITS(-FLT_MAX, max);
  EXPECT_SAME_BITS(-kInf, min);
  const float plus_inf[] = {kInf};
  CalibrationWithPeak(plus_inf, 1, min, max);
  EXPECT_SAME_BITS(kInf, max);
  EXPECT_SAME_BITS(FLT_MAX, min);
  std::vector<float> zeros(1000, 0.0f);
  zeros[10] = -1.0f;
  zeros[999] = -0.0f;
  CalibrationWithPeak(zeros.data(), zeros.size(), min, max);
  EXPECT_SAME_BITS(-0.0f, max);
  EXPECT_SAME_BITS(-1.0f, min);
  zeros[999] = 0.0f;
  zeros[500] = -0.0f;
  CalibrationWithPeak(zeros.data(), zeros.size(), min, max);
  EXPECT_SAME_BITS(0.0f, max);
}

TEST(CalibrationWithPeak, PropertyAgainstSort) {
  std::mt19937 rng(17);
  std::normal_distribution<float> dist(0.5f, 3.0f);
  for (unsigned long n : {1ul, 7ul, 16ul, 17ul, 4095ul, 4096ul, 4111ul, 100003ul}) {
    std::vector<float> data(n);
    for (float& v : data) v = dist(rng);
    float min, max;
    CalibrationWithPeak(data.data(), n, min, max);
    std::vector<float> sorted = data;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted.front(), min) << n;
    EXPECT_EQ(sorted.back(), max) << n;
  }
}

TEST(CalibrationWithPeak, BitExactAgainstDefiningLoopWithSpecials) {
  std::mt19937 rng(23);
  std::uniform_int_distribution<int> pick(0, 19);
  std::normal_distribution<float> dist(0.0f, 2.0f);
  for (int round = 0; round < 300; ++round) {
    std::vector<float> data(1 + rng() % 9000);
    const bool with_nan = round % 3 == 0;
    for (float& v : data) {
      switch (pick(rng)) {
        case 0:
          v = 0.0f;
          break;
        case 1:
          v = -0.0f;
          break;
        case 2:
          v = round % 5 == 0 ? kInf : dist(rng);
          break;
        case 3:
          v = round % 7 == 0 ? -kInf : dist(rng);
          break;
        case 4:
          v = with_nan && rng() % 50 == 0 ? kNaN : dist(rng);
          break;
        default:
          v = round % 4 == 0 ? -std::fabs(dist(rng)) : dist(rng);
      }
    }
    float min, max, rmin, rmax;
    CalibrationWithPeak(data.data(), data.size(), min, max);
    ReferencePeak(data.data(), data.size(), rmin, rmax);
    ASSERT_EQ(Bits(rmin), Bits(min)) << round;
    ASSERT_EQ(Bits(rmax), Bits(max)) << round;
  }
}

TEST(Observer, VirtualSlotsInOrderWithoutVirtualDestructor) {
  static_assert(!std::has_virtual_destructor<Observer>::value, "no virtual destructor");
  static_assert(std::is_abstract<Observer>::value, "GetOptMinMax is pure");
#if defined(__x86_64__) || defined(__aarch64__)
  // Itanium-style member function pointers: for a virtual function they hold
  // the byte offset of its slot in the table (plus 1 where the flag is in
  // the pointer, doubled adjustment plus 1 where it is in the adjustment).
  auto slot = [](auto pointer) -> long {
    long words[2];
    static_assert(sizeof(pointer) == sizeof(words), "two words");
    std::memcpy(words, &pointer, sizeof words);
    const long offset = (words[1] & 1) ? words[0] : words[0] - 1;
    return offset / static_cast<long>(sizeof(void*));
  };
  EXPECT_EQ(0, slot(&Observer::PrintDetails));
  EXPECT_EQ(1, slot(&Observer::IsInitial));
  EXPECT_EQ(2, slot(&Observer::GetOptMinMax));
  EXPECT_EQ(3, slot(&Observer::CalQuantParam));
#endif
}

TEST(Observer, InitialFieldsAndTypes) {
  PeakValueObserver peak;
  EXPECT_TRUE(peak.name.empty());
  EXPECT_EQ(0x7F7FFFFFu, Bits(peak.opt_min));
  EXPECT_EQ(0xFF7FFFFFu, Bits(peak.opt_max));
  EXPECT_EQ(0xFF7FFFFFu, Bits(peak.min_lower));
  EXPECT_SAME_BITS(0.0f, peak.min_upper);
  EXPECT_SAME_BITS(0.0f, peak.max_lower);
  EXPECT_EQ(0x7F7FFFFFu, Bits(peak.max_upper));
  EXPECT_TRUE(peak.IsInitial());
  EXPECT_EQ(0, peak.GetObserverType());
  EXPECT_EQ("Naive", peak.GetObserverTypeString());
  AverageObserver average;
  EXPECT_EQ(1, average.GetObserverType());
  EXPECT_EQ("Average", average.GetObserverTypeString());
  EXPECT_TRUE(average.min_values.empty());
  PresetObserver preset(1.0f, 4.0f);
  EXPECT_EQ(9, preset.GetObserverType());
  EXPECT_EQ("Preset", preset.GetObserverTypeString());
  EXPECT_EQ(1.0f, preset.opt_min);
  EXPECT_EQ(4.0f, preset.opt_max);
  EXPECT_EQ(-FLT_MAX, preset.min_lower);
  EntropyObserver entropy;
  EXPECT_EQ("Entropy", entropy.GetObserverTypeString());
  HistogramObserver histogram;
  EXPECT_EQ("Histogram", histogram.GetObserverTypeString());
}

TEST(Observer, IsInitialComparesBothExactly) {
  PeakValueObserver peak;
  peak.SetOptMinMax(FLT_MAX, 0.0f);
  EXPECT_FALSE(peak.IsInitial());
  peak.SetOptMinMax(FLT_MAX, -FLT_MAX);
  EXPECT_TRUE(peak.IsInitial());
}

TEST(Observer, PrintDetails) {
  PeakValueObserver peak;
  peak.SetOptMinMax(-1.0f, 2.0f);
  EXPECT_EQ("min: -1.000000, max: 2.000000", peak.PrintDetails());
  peak.SetOptMinMax(0.125f, -3.5e-7f);
  EXPECT_EQ("min: 0.125000, max: -0.000000", peak.PrintDetails());
  PeakValueObserver fresh;
  EXPECT_EQ(
      "min: 340282346638528859811704183484516925440.000000, "
      "max: -340282346638528859811704183484516925440.000000",
      fresh.PrintDetails());
}

TEST(Observer, ExtractAndSetOptMinMax) {
  AverageObserver average;
  average.SetOptMinMax(-2.0f, 7.0f);
  float min = 0.0f, max = 0.0f;
  average.Extract(min, max);
  EXPECT_EQ(-2.0f, min);
  EXPECT_EQ(7.0f, max);
  EXPECT_EQ(-FLT_MAX, average.min_lower);  // limits untouched
}

TEST(PeakValueObserver, EmptyObserveStaysInitialAndLimitsTakeThePair) {
  PeakValueObserver peak;
  peak.Observe(nullptr, 0);
  EXPECT_TRUE(peak.IsInitial());
  EXPECT_EQ(0x7F7FFFFFu, Bits(peak.min_lower));
  EXPECT_EQ(0xFF7FFFFFu, Bits(peak.max_upper));
}

TEST(PeakValueObserver, AllPositiveRestrainedToZero) {
  const float data[] = {3.0f, 1.0f, 5.0f, 2.0f, 4.0f};
  PeakValueObserver peak;
  peak.Observe(data, 5);
  EXPECT_EQ(1.0f, peak.opt_min);
  EXPECT_EQ(5.0f, peak.opt_max);
  EXPECT_EQ(1.0f, peak.min_lower);
  EXPECT_EQ(0.0f, peak.min_upper);
  EXPECT_EQ(5.0f, peak.max_upper);
  peak.Restrain();
  EXPECT_EQ(0.0f, peak.opt_min);  // the upper limit is applied last
  EXPECT_EQ(5.0f, peak.opt_max);
}

TEST(PeakValueObserver, AllNegativeDoesNotReachZero) {
  const float data[] = {-3.0f, -1.0f, -5.0f};
  PeakValueObserver peak;
  peak.Observe(data, 3);
  EXPECT_EQ(-1.0f, peak.max_upper);
  peak.Restrain();
  EXPECT_EQ(-5.0f, peak.opt_min);
  EXPECT_EQ(-1.0f, peak.opt_max);
}

TEST(PeakValueObserver, RunningEnvelope) {
  PeakValueObserver peak;
  const float a[] = {-1.0f, 2.0f};
  const float b[] = {-0.5f, 3.0f};
  const float c[] = {-4.0f, 1.0f};
  peak.Observe(a, 2);
  peak.Observe(b, 2);
  EXPECT_EQ(-1.0f, peak.opt_min);
  EXPECT_EQ(3.0f, peak.opt_max);
  peak.Observe(c, 2);
  EXPECT_EQ(-4.0f, peak.opt_min);
  EXPECT_EQ(3.0f, peak.opt_max);
  EXPECT_EQ(-4.0f, peak.min_lower);
  EXPECT_EQ(3.0f, peak.max_upper);
}

TEST(PeakValueObserver, FrugalEqualsBatch) {
  std::mt19937 rng(31);
  std::normal_distribution<float> dist(0.3f, 2.0f);
  std::vector<float> all(64 * 1000);
  for (float& v : all) v = dist(rng);
  PeakValueObserver batch;
  batch.Observe(all.data(), all.size());
  PeakValueObserver frugal;
  for (size_t i = 0; i < all.size(); i += 1000) frugal.Observe(all.data() + i, 1000);
  EXPECT_SAME_BITS(batch.opt_min, frugal.opt_min);
  EXPECT_SAME_BITS(batch.opt_max, frugal.opt_max);
  EXPECT_SAME_BITS(batch.min_lower, frugal.min_lower);
  EXPECT_SAME_BITS(batch.max_upper, frugal.max_upper);
  batch.Restrain();
  frugal.Restrain();
  EXPECT_SAME_BITS(batch.opt_min, frugal.opt_min);
  EXPECT_SAME_BITS(batch.opt_max, frugal.opt_max);
}

TEST(AverageObserver, AllPositiveLimitIsZero) {
  const float data[] = {1.0f, 5.0f, 3.0f};
  AverageObserver average;
  average.Observe(data, 3);
  EXPECT_EQ(0.0f, average.min_lower);
  EXPECT_EQ(5.0f, average.max_upper);
  EXPECT_EQ(1.0f, average.opt_min);
  average.Restrain();
  EXPECT_EQ(0.0f, average.opt_min);
  EXPECT_EQ(5.0f, average.opt_max);
}

TEST(AverageObserver, MeanOfBatchExtremes) {
  const float a[] = {-1.0f, 2.0f};
  const float b[] = {-3.0f, 6.0f};
  AverageObserver average;
  average.Observe(a, 2);
  average.Observe(b, 2);
  EXPECT_EQ(-2.0f, average.opt_min);
  EXPECT_EQ(4.0f, average.opt_max);
  EXPECT_EQ(-3.0f, average.min_lower);
  EXPECT_EQ(6.0f, average.max_upper);
  EXPECT_EQ((std::vector<float>{-1.0f, -3.0f}), average.min_values);
  EXPECT_EQ((std::vector<float>{2.0f, 6.0f}), average.max_values);
}

TEST(AverageObserver, MeanRecomputedInSinglePrecision) {
  // 0.1 + 0.2 + 0.3 summed in float, divided by 3.
  AverageObserver average;
  for (float v : {0.1f, 0.2f, 0.3f}) average.Observe(&v, 1);
  const float expected = ((0.0f + 0.1f) + 0.2f + 0.3f) / 3.0f;
  EXPECT_SAME_BITS(expected, average.opt_max);
  EXPECT_SAME_BITS(expected, average.opt_min);
}

TEST(AverageObserver, FrugalAndBatchDiffer) {
  // A batch is one Observe: with everything in one call the average is the
  // peak; batch by batch it is the mean of the per-batch extremes.
  const float all[] = {-1.0f, 1.0f, -3.0f, 5.0f};
  AverageObserver batch;
  batch.Observe(all, 4);
  AverageObserver frugal;
  frugal.Observe(all, 2);
  frugal.Observe(all + 2, 2);
  EXPECT_EQ(-3.0f, batch.opt_min);
  EXPECT_EQ(5.0f, batch.opt_max);
  EXPECT_EQ(-2.0f, frugal.opt_min);
  EXPECT_EQ(3.0f, frugal.opt_max);
  EXPECT_EQ(batch.min_lower, frugal.min_lower);
  EXPECT_EQ(batch.max_upper, frugal.max_upper);
}

TEST(PresetObserver, DataChangeNothingRestrainForcesZero) {
  PresetObserver positive(1.0f, 4.0f);
  const float data[] = {-100.0f, 100.0f};
  positive.Observe(data, 2);
  EXPECT_EQ(1.0f, positive.opt_min);
  EXPECT_EQ(4.0f, positive.opt_max);
  EXPECT_EQ(-FLT_MAX, positive.min_lower);
  EXPECT_EQ(FLT_MAX, positive.max_upper);
  positive.Restrain();
  EXPECT_EQ(0.0f, positive.opt_min);
  EXPECT_EQ(4.0f, positive.opt_max);
  PresetObserver negative(-4.0f, -1.0f);
  negative.Restrain();
  EXPECT_EQ(-4.0f, negative.opt_min);
  EXPECT_EQ(0.0f, negative.opt_max);
}

TEST(Observer, OverloadProtectionRaisesSmallMaximum) {
  AverageObserver average;
  const float data[] = {-1.0f, 10.0f};
  average.Observe(data, 2);
  EXPECT_EQ(10.0f, average.max_upper);
  average.SetOptMinMax(-1.0f, 3.0f);
  average.OverloadProtection();
  EXPECT_EQ(5.0f, average.max_lower);
  EXPECT_EQ(0.0f, average.min_upper);  // no counterpart on the minimum side
  average.Restrain();
  EXPECT_EQ(5.0f, average.opt_max);
  EXPECT_EQ(-1.0f, average.opt_min);
  average.SetOptMinMax(-1.0f, 7.0f);
  average.Restrain();
  EXPECT_EQ(7.0f, average.opt_max);
}

TEST(Observer, RestrainTurnsNaNIntoLowerLimit) {
  PresetObserver preset(kNaN, kNaN);
  preset.min_lower = -3.0f;
  preset.max_lower = 0.5f;
  preset.Restrain();
  EXPECT_EQ(-3.0f, preset.opt_min);
  EXPECT_EQ(0.5f, preset.opt_max);
}

TEST(Observer, UpdateLimitEnvelopeWithZeroFromFirstBatch) {
  AverageObserver average;
  const float a[] = {2.0f, 3.0f};
  average.Observe(a, 2);
  EXPECT_EQ(0.0f, average.min_lower);
  EXPECT_EQ(3.0f, average.max_upper);
  const float b[] = {-4.0f, -2.0f};
  average.Observe(b, 2);
  EXPECT_EQ(-4.0f, average.min_lower);
  EXPECT_EQ(3.0f, average.max_upper);
  AverageObserver negative;
  negative.Observe(b, 2);
  EXPECT_EQ(-4.0f, negative.min_lower);
  EXPECT_EQ(0.0f, negative.max_upper);
}

TEST(Observer, UpdateLimitOfEntropyTakesTheMargins) {
  EntropyObserver entropy;
  const float data[] = {-0.5f, 0.25f, 1.5f};
  entropy.Observe(data, 3);
  EXPECT_EQ(-0.5f, entropy.min_lower);
  EXPECT_EQ(1.5f, entropy.max_upper);
  EXPECT_EQ(std::make_pair(-0.5f, 1.5f), entropy.GetMargin());
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
