// Entropy calibration: SmoothDistribute, HistC, HistCombine, the KL window
// search and the entropy observer over one batch and over many.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "quantization/functional.h"
#include "quantization/observer.h"
#include "quantization/utils.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::Bits;
using quant_test::kInf;
using quant_test::kNaN;

// ---------------------------------------------------------------------------
// A straightforward double-precision evaluation of the window search: every
// window is materialised from scratch, tails are summed by loops, and the
// messages are collected in a string instead of going to standard error.

void ReferenceSmooth(std::vector<double>& d, double eps, std::ostringstream& log) {
  size_t nonzeros = 0;
  for (double v : d) nonzeros += v > 1e-15;
  const size_t zeros = d.size() - nonzeros;
  if (d.empty() || zeros == 0 || nonzeros == 0) return;
  const double eps1 = static_cast<double>(zeros) * eps / static_cast<double>(nonzeros);
  for (double& v : d) {
    if (v > 1e-15) {
      v -= eps1;
      if (v < 0) log << "calibration warning: smaller eps needed";
    } else {
      v += eps;
    }
  }
}

struct ReferenceResult {
  float opt_min;
  float opt_max;
  int start;
  int stop;
  std::string log;
};

ReferenceResult ReferenceEntropy(const std::vector<int>& h, float min, float max, int bins,
                                 int levels) {
  std::ostringstream log;
  const int steps = bins / levels;
  const int zero = bins / 2;
  double best = DBL_MAX;
  int best_start = -1, best_stop = -1;
  for (int i = 0; i < steps; ++i) {
    const int w = levels * (i + 1);
    const int start = zero - w / 2;
    const int stop = start + w;
    std::vector<double> p(h.begin() + start, h.begin() + stop);
    int64_t low = 0, high = 0;
    for (int k = 0; k < start; ++k) low += h[k];
    for (int k = stop; k < static_cast<int>(h.size()); ++k) high += h[k];
    p[0] += static_cast<double>(low);
    p[w - 1] += static_cast<double>(high);
    std::vector<int> nonzero(w);
    for (int j = 0; j < w; ++j) nonzero[j] = p[j] != 0.0;
    const int merged = w / levels;
    std::vector<double> q(w, 0.0);
    for (int g = 0; g < levels; ++g) {
      const int b = g * merged;
      const int e = g == levels - 1 ? w : b + merged;
      int64_t total = 0;
      int norm = 0;
      for (int j = b; j < e; ++j) {
        total += h[start + j];
        norm += nonzero[j];
      }
      for (int j = b; j < e; ++j) {
        if (nonzero[j]) q[j] = static_cast<double>(total) / static_cast<double>(norm);
      }
    }
    bool any = false;
    for (double v : q) any = any || v > 1e-15;
    if (!any) continue;
    ReferenceSmooth(p, 0.0001, log);
    ReferenceSmooth(q, 0.0001, log);
    double sp = 0, sq = 0;
    for (double v : p) sp += v;
    for (double v : q) sq += v;
    for (double& v : p) v = v / (sp / 1000);
    for (double& v : q) v = v / (sq / 1000);
    double kl = 0;
    for (int j = 0; j < w; ++j) {
      if (p[j] < 0) {
        log << "warning: p_distribution[j] = " << p[j];
        continue;
      }
      if (q[j] < 0) {
        log << "warning: q_distribution[j] = " << q[j];
        kl = DBL_MAX;
        break;
      }
      kl = std::fma(p[j], std::log(p[j] / q[j]), kl);
    }
    if (kl > 1000000.0) {
      log << "warning: kl = " << kl;
    } else if (kl < 0) {
      log << "warning: kl = " << kl;
      kl = DBL_MAX;
    }
    if (kl < best) {
      best = kl;
      best_start = start;
      best_stop = stop;
    }
  }
  if (best_start < 0 || best_stop < 0) {
    log << "calibration: invalid min kl index";
    best_start = 0;
    best_stop = bins;
  }
  const float t = std::fabs(max) > std::fabs(min) ? std::fabs(max) : std::fabs(min);
  const float width = (t + t) / static_cast<float>(bins);
  ReferenceResult r;
  r.opt_min = std::fma(static_cast<float>(best_start), width, -t);
  r.opt_max = std::fma(static_cast<float>(best_stop), width, -t);
  r.start = best_start;
  r.stop = best_stop;
  r.log = log.str();
  return r;
}

// The merge restated literally: fine line, wide line, 32-bit running sum.
std::vector<int> ReferenceCombine(const std::vector<int>& fresh, const std::vector<int>& old,
                                  int bins, int upsample, int downsample, int start_index) {
  std::vector<int> fine(static_cast<size_t>(bins) * upsample);
  for (int i = 0; i < bins; ++i)
    for (int j = 0; j < upsample; ++j) fine[i * upsample + j] = old[i];
  std::vector<int> wide(static_cast<size_t>(bins) * downsample, 0);
  for (size_t k = 0; k < fine.size() && start_index + k < wide.size(); ++k)
    wide[start_index + k] = fine[k];
  uint32_t run = 0;
  for (int& v : wide) {
    run += static_cast<uint32_t>(v);
    v = static_cast<int>(run);
  }
  std::vector<int> out(bins);
  int previous = 0;
  for (int k = 0; k < bins; ++k) {
    const int coarse = wide[static_cast<size_t>(k) * downsample + downsample - 1];
    out[k] = static_cast<int>(static_cast<uint32_t>(coarse) - static_cast<uint32_t>(previous)) /
                 upsample +
             fresh[k];
    previous = coarse;
  }
  return out;
}

const int kBins = 23205;
const int kLevels = 255;

// ---------------------------------------------------------------------------

TEST(SmoothDistribute, MovesEpsIntoEmptyEntries) {
  std::vector<double> d = {1.0, 0.0, 0.0, 3.0};
  SmoothDistribute(d, 0.0001);
  const double eps1 = 2.0 * 0.0001 / 2.0;
  EXPECT_EQ(1.0 - eps1, d[0]);
  EXPECT_EQ(0.0001, d[1]);
  EXPECT_EQ(0.0001, d[2]);
  EXPECT_EQ(3.0 - eps1, d[3]);
}

TEST(SmoothDistribute, LeavesFullOrEmptyDistributions) {
  std::vector<double> full = {1.0, 2.0, 1e-14};
  SmoothDistribute(full, 0.5);
  EXPECT_EQ((std::vector<double>{1.0, 2.0, 1e-14}), full);
  std::vector<double> empty_entries = {0.0, 1e-16, 0.0};
  SmoothDistribute(empty_entries, 0.5);
  EXPECT_EQ((std::vector<double>{0.0, 1e-16, 0.0}), empty_entries);
  std::vector<double> none;
  SmoothDistribute(none, 0.5);
  EXPECT_TRUE(none.empty());
}

TEST(SmoothDistribute, WarnsOncePerNegativeEntry) {
  std::vector<double> d = {1e-5, 0.0, 0.0, 0.0, 2e-5, 1.0};
  testing::internal::CaptureStderr();
  SmoothDistribute(d, 0.0001);  // eps1 = 1e-4
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      "calibration warning: smaller eps needed"
      "calibration warning: smaller eps needed",
      err);
  EXPECT_LT(d[0], 0.0);  // the negative value stays
  EXPECT_EQ(0.0001, d[1]);
}

TEST(HistC, BinsAndBounds) {
  std::vector<int> h(4, 0);
  const float data[] = {-1.0f, -0.5f, 0.0f, 0.49f, 1.0f, 1.5f, -2.0f, kNaN};
  HistC(data, 8, 4, -1.0f, 1.0f, h);
  // max lands in the last bin, out-of-range elements are skipped, NaN counts
  // in bin 0.
  EXPECT_EQ((std::vector<int>{2, 1, 2, 1}), h);
  HistC(data, 1, 4, -1.0f, 1.0f, h);  // adds
  EXPECT_EQ(3, h[0]);
}

TEST(HistC, EqualBoundsGoToBinZero) {
  std::vector<int> h(8, 0);
  const float data[] = {2.0f, 2.0f, 2.0f};
  HistC(data, 3, 8, 2.0f, 2.0f, h);
  EXPECT_EQ(3, h[0]);
  EXPECT_EQ(3, std::accumulate(h.begin(), h.end(), 0));
}

TEST(HistCombine, SmallCaseByHand) {
  // fine {4,4,6,6}, wide {4,4,6,6,0,0,0,0}, running {4,8,14,20,...,20}.
  const std::vector<int> out = HistCombine({1, 1}, {4, 6}, 2, 2, 4, 0);
  EXPECT_EQ((std::vector<int>{11, 1}), out);
}

TEST(HistCombine, MatchesTheLiteralMergeOnRandomInputs) {
  std::mt19937 rng(41);
  for (int round = 0; round < 60; ++round) {
    const int bins = 1 + static_cast<int>(rng() % 200);
    const int upsample = 1 + static_cast<int>(rng() % 16);
    const int downsample = upsample + static_cast<int>(rng() % (3 * upsample));
    const int slack = bins * (downsample - upsample);
    // Mostly inside the wide line, sometimes past its end (cut off).
    const int start = static_cast<int>(rng() % (slack + 1 + (round % 4 == 0 ? bins : 0)));
    std::vector<int> fresh(bins), old(bins);
    for (int& v : fresh) v = static_cast<int>(rng() % 1000);
    for (int& v : old) v = static_cast<int>(rng() % 100000);
    EXPECT_EQ(ReferenceCombine(fresh, old, bins, upsample, downsample, start),
              HistCombine(fresh, old, bins, upsample, downsample, start))
        << round;
  }
}

TEST(HistCombine, RunningSumWrapsIn32Bits) {
  const std::vector<int> old = {1 << 29, 1 << 29, 1 << 29, 7};
  const std::vector<int> fresh = {0, 0, 0, 0};
  EXPECT_EQ(ReferenceCombine(fresh, old, 4, 8, 9, 3), HistCombine(fresh, old, 4, 8, 9, 3));
}

TEST(CalibrationWithEntropy, AllZeroHistogramIsInvalid) {
  std::vector<int> h(kBins, 0);
  float lo = 5.0f, hi = 5.0f;
  testing::internal::CaptureStderr();
  CalibrationWithEntropy(h, 0.0f, 0.0f, lo, hi, kBins, kLevels);
  EXPECT_EQ("calibration: invalid min kl index", testing::internal::GetCapturedStderr());
  EXPECT_SAME_BITS(0.0f, lo);
  EXPECT_SAME_BITS(0.0f, hi);
}

TEST(CalibrationWithEntropy, TooFewBinsForOneWindow) {
  std::vector<int> h(100, 1);
  float lo, hi;
  testing::internal::CaptureStderr();
  CalibrationWithEntropy(h, -1.0f, 2.0f, lo, hi, 100, kLevels);
  EXPECT_EQ("calibration: invalid min kl index", testing::internal::GetCapturedStderr());
  EXPECT_EQ(-2.0f, lo);
  EXPECT_SAME_BITS(std::fma(100.0f, 4.0f / 100.0f, -2.0f), hi);
}

TEST(CalibrationWithEntropy, EqualDivergenceNarrowestWins) {
  // One filled bin near the centre: every window reproduces it exactly, so
  // all divergences are 0 and the first window, 11475 .. 11730, stands.
  std::vector<int> h(kBins, 0);
  h[11700] = 40;
  float lo, hi;
  testing::internal::CaptureStderr();
  CalibrationWithEntropy(h, -1.0f, 1.0f, lo, hi, kBins, kLevels);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  const float width = 2.0f / static_cast<float>(kBins);
  EXPECT_SAME_BITS(std::fma(11475.0f, width, -1.0f), lo);
  EXPECT_SAME_BITS(std::fma(11730.0f, width, -1.0f), hi);
  const ReferenceResult r = ReferenceEntropy(h, -1.0f, 1.0f, kBins, kLevels);
  EXPECT_EQ(11475, r.start);
  EXPECT_EQ(11730, r.stop);
}

TEST(CalibrationWithEntropy, WindowsMeasuredFromTheMargins) {
  std::vector<int> h(kBins, 0);
  h[11700] = 40;
  float lo, hi;
  CalibrationWithEntropy(h, -3.0f, 0.5f, lo, hi, kBins, kLevels);
  const float width = 6.0f / static_cast<float>(kBins);
  EXPECT_SAME_BITS(std::fma(11475.0f, width, -3.0f), lo);
  EXPECT_SAME_BITS(std::fma(11730.0f, width, -3.0f), hi);
}

TEST(CalibrationWithEntropy, MessagesOfNegativeDistributions) {
  // Two single counts far out: only the whole-histogram window has raw
  // counts, and there the smoothing drives both entries below zero.
  std::vector<int> h(kBins, 0);
  h[5] = 1;
  h[23200] = 1;
  float lo, hi;
  testing::internal::CaptureStderr();
  CalibrationWithEntropy(h, -1.0f, 1.0f, lo, hi, kBins, kLevels);
  const std::string err = testing::internal::GetCapturedStderr();
  const ReferenceResult r = ReferenceEntropy(h, -1.0f, 1.0f, kBins, kLevels);
  EXPECT_EQ(r.log, err);
  const std::string four_warnings =
      "calibration warning: smaller eps needed"
      "calibration warning: smaller eps needed"
      "calibration warning: smaller eps needed"
      "calibration warning: smaller eps needed";
  EXPECT_EQ(0u, err.find(four_warnings)) << err;
  EXPECT_NE(std::string::npos, err.find("warning: p_distribution[j] = ")) << err;
  EXPECT_SAME_BITS(r.opt_min, lo);
  EXPECT_SAME_BITS(r.opt_max, hi);
}

TEST(CalibrationWithEntropy, NegativeDivergenceIsReportedAndSkipped) {
  // Pairs of nearly equal large counts: p and q differ by a count or two in
  // 1e8, the true divergence is below the rounding error, and the fused sum
  // of the whole window comes out negative.
  const std::vector<int> h = {182876139, 182876139, 105303368, 105303369, 150290313, 150290315};
  float lo, hi;
  testing::internal::CaptureStderr();
  CalibrationWithEntropy(h, -1.0f, 1.0f, lo, hi, 6, 3);
  const std::string err = testing::internal::GetCapturedStderr();
  const ReferenceResult r = ReferenceEntropy(h, -1.0f, 1.0f, 6, 3);
  EXPECT_EQ(r.log, err);
  EXPECT_EQ(0u, err.find("warning: kl = -")) << err;
  // The whole-histogram window is skipped; the narrower one stands.
  EXPECT_EQ(2, r.start);
  EXPECT_EQ(5, r.stop);
  EXPECT_SAME_BITS(r.opt_min, lo);
  EXPECT_SAME_BITS(r.opt_max, hi);
}

TEST(CalibrationWithEntropy, PropertyAgainstStraightforwardEvaluation) {
  std::mt19937 rng(97);
  for (int round = 0; round < 12; ++round) {
    std::vector<float> data(20000 + round * 3000);
    if (round % 3 == 0) {
      std::normal_distribution<float> dist(0.0f, 1.0f);
      for (float& v : data) v = dist(rng);
    } else if (round % 3 == 1) {
      std::exponential_distribution<float> dist(2.0f);
      for (float& v : data) v = rng() % 3 == 0 ? 0.0f : dist(rng);
    } else {
      std::student_t_distribution<float> dist(2.0f);
      for (float& v : data) v = dist(rng) - 0.3f;
    }
    float dmin, dmax;
    CalibrationWithPeak(data.data(), data.size(), dmin, dmax);
    const std::vector<int> h =
        AssignDataToBins(AssignNonZeroDataToVector(data.data(), data.size()), kBins, dmin, dmax);
    float lo, hi;
    testing::internal::CaptureStderr();
    CalibrationWithEntropy(h, dmin, dmax, lo, hi, kBins, kLevels);
    const std::string err = testing::internal::GetCapturedStderr();
    const ReferenceResult r = ReferenceEntropy(h, dmin, dmax, kBins, kLevels);
    EXPECT_EQ(r.log, err) << round;
    EXPECT_SAME_BITS(r.opt_min, lo) << round;
    EXPECT_SAME_BITS(r.opt_max, hi) << round;
  }
}

TEST(EntropyObserver, Defaults) {
  EntropyObserver observer;
  EXPECT_EQ(2, observer.GetObserverType());
  EXPECT_EQ(8, observer.bits);
  EXPECT_EQ(23205, observer.bins);
  EXPECT_EQ(128, observer.upsample);
  EXPECT_TRUE(observer.histogram.empty());
  EXPECT_EQ(0.0f, observer.bound);
  EXPECT_EQ(std::make_pair(0.0f, 0.0f), observer.GetMargin());
}

TEST(EntropyObserver, OnlyZerosGiveZeroRange) {
  std::vector<float> zeros(1000, 0.0f);
  EntropyObserver observer;
  testing::internal::CaptureStderr();
  observer.Observe(zeros.data(), zeros.size());
  EXPECT_EQ("calibration: invalid min kl index", testing::internal::GetCapturedStderr());
  EXPECT_EQ(std::vector<int>(kBins, 0), observer.histogram);
  EXPECT_SAME_BITS(0.0f, observer.opt_min);
  EXPECT_SAME_BITS(0.0f, observer.opt_max);
}

TEST(EntropyObserver, OneNonZeroValue) {
  // The value is the peak, so it sits in the top bin; only the window of the
  // whole histogram holds its raw count, and a lone count is smoothed below
  // zero there (the warnings are part of the result).
  std::vector<float> data(1000, 0.0f);
  data[321] = 0.75f;
  EntropyObserver observer;
  testing::internal::CaptureStderr();
  observer.Observe(data.data(), data.size());
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(1, std::accumulate(observer.histogram.begin(), observer.histogram.end(), 0));
  EXPECT_EQ(1, observer.histogram[kBins - 1]);
  const ReferenceResult r = ReferenceEntropy(observer.histogram, 0.0f, 0.75f, kBins, kLevels);
  EXPECT_EQ(r.log, err);
  EXPECT_EQ(0, r.start);
  EXPECT_EQ(kBins, r.stop);
  EXPECT_EQ(-0.75f, observer.opt_min);
  EXPECT_SAME_BITS(r.opt_max, observer.opt_max);
  EXPECT_GE(observer.opt_max, 0.75f * 0.9999f);
}

TEST(EntropyObserver, OneNonZeroValueRepeated) {
  std::vector<float> data(1000, 0.0f);
  for (int i = 0; i < 50; ++i) data[i * 7] = -0.6f;
  EntropyObserver observer;
  testing::internal::CaptureStderr();
  observer.Observe(data.data(), data.size());
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_EQ(50, observer.histogram[0]);
  EXPECT_EQ(-0.6f, observer.opt_min);
  EXPECT_GE(observer.opt_max, 0.6f * 0.9999f);
}

TEST(EntropyObserver, SymmetricTensorNearlyOpposite) {
  std::mt19937 rng(5);
  std::normal_distribution<float> dist(0.0f, 1.0f);
  std::vector<float> data(50000);
  for (size_t i = 0; i < data.size(); i += 2) {
    data[i] = dist(rng);
    data[i + 1] = -data[i];
  }
  EntropyObserver observer;
  observer.Observe(data.data(), data.size());
  const float t = std::max(std::fabs(observer.margin_min), std::fabs(observer.margin_max));
  const float width = (t + t) / kBins;
  EXPECT_LT(observer.opt_min, 0.0f);
  EXPECT_LE(std::fabs(observer.opt_min + observer.opt_max), width * 1.001f);
}

TEST(EntropyObserverDeathTest, NaNEndsTheProcessSilently) {
  const float data[] = {0.5f, kNaN, -0.5f};
  EntropyObserver observer;
  EXPECT_EXIT(observer.Observe(data, 3), ::testing::ExitedWithCode(255), "^$");
}

TEST(EntropyObserver, SmallerPeakAddsBinByBin) {
  std::mt19937 rng(8);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> first(5000), second(5000);
  for (float& v : first) v = 2.0f * dist(rng);
  first[0] = -2.0f;
  first[1] = 2.0f;
  for (float& v : second) v = dist(rng);
  EntropyObserver observer;
  observer.Observe(first.data(), first.size());
  EXPECT_EQ(2.0f, observer.bound);
  const std::vector<int> before = observer.histogram;
  observer.Observe(second.data(), second.size());
  EXPECT_EQ(2.0f, observer.bound);
  const std::vector<int> fresh = AssignDataToBins(second, kBins, -2.0f, 2.0f);
  for (int i = 0; i < kBins; ++i) ASSERT_EQ(before[i] + fresh[i], observer.histogram[i]) << i;
  float dmin, dmax;
  CalibrationWithPeak(second.data(), second.size(), dmin, dmax);
  EXPECT_EQ(std::make_pair(-2.0f, 2.0f), observer.GetMargin());
  const ReferenceResult r = ReferenceEntropy(observer.histogram, -2.0f, 2.0f, kBins, kLevels);
  EXPECT_SAME_BITS(r.opt_min, observer.opt_min);
  EXPECT_SAME_BITS(r.opt_max, observer.opt_max);
}

TEST(EntropyObserver, LargerPeakWidensAndMerges) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> first(8000), second(3000);
  for (float& v : first) v = 2.0f * dist(rng);
  first[0] = 2.0f;
  for (float& v : second) v = 3.0f * dist(rng);
  second[0] = -3.0f;
  EntropyObserver observer;
  observer.Observe(first.data(), first.size());
  const std::vector<int> before = observer.histogram;
  observer.Observe(second.data(), second.size());
  EXPECT_GE(observer.bound, 3.0f);
  float bound = 2.0f;
  int downsample, start;
  CalculateCombineMinMax(-bound, bound, -3.0f, 3.0f, kBins, 128, bound, downsample, start);
  EXPECT_SAME_BITS(bound, observer.bound);
  const std::vector<int> fresh = AssignDataToBins(second, kBins, -bound, bound);
  EXPECT_EQ(ReferenceCombine(fresh, before, kBins, 128, downsample, start), observer.histogram);
  // The old counts reappear on the coarser bins, minus what truncation lost.
  const long total = std::accumulate(observer.histogram.begin(), observer.histogram.end(), 0L);
  EXPECT_LE(total, 11000L);
  EXPECT_GT(total, 11000L - kBins);
  float dmin2, dmax2;
  CalibrationWithPeak(second.data(), second.size(), dmin2, dmax2);
  EXPECT_EQ(std::make_pair(-3.0f, std::max(2.0f, dmax2)), observer.GetMargin());
}

TEST(EntropyObserver, FrugalEqualsBatchWhenTheFirstBatchHoldsThePeak) {
  std::mt19937 rng(12);
  std::normal_distribution<float> dist(0.0f, 1.0f);
  std::vector<float> all(16 * 2000);
  for (float& v : all) v = std::max(0.0f, dist(rng)) - 0.2f * (rng() % 7 == 0);
  all[3] = -4.0f;  // in the first batch
  all[7] = 4.5f;
  EntropyObserver batch;
  batch.Observe(all.data(), all.size());
  EntropyObserver frugal;
  for (size_t i = 0; i < all.size(); i += 2000) frugal.Observe(all.data() + i, 2000);
  EXPECT_EQ(batch.histogram, frugal.histogram);
  EXPECT_EQ(batch.GetMargin(), frugal.GetMargin());
  EXPECT_SAME_BITS(batch.opt_min, frugal.opt_min);
  EXPECT_SAME_BITS(batch.opt_max, frugal.opt_max);
}

TEST(EntropyObserver, FrugalReplaysTheMerges) {
  // Batch by batch with growing peaks: the histogram is the chain of merges
  // the observer makes, and the final search runs on it.
  std::mt19937 rng(13);
  std::normal_distribution<float> dist(0.0f, 1.0f);
  const int batches = 10, size = 3000;
  std::vector<float> all(batches * size);
  for (int b = 0; b < batches; ++b)
    for (int i = 0; i < size; ++i) all[b * size + i] = dist(rng) * (1.0f + 0.3f * b);
  EntropyObserver frugal;
  std::vector<int> h;
  float bound = 0, mmin = 0, mmax = 0;
  for (int b = 0; b < batches; ++b) {
    const float* part = all.data() + b * size;
    frugal.Observe(part, size);
    float dmin, dmax;
    CalibrationWithPeak(part, size, dmin, dmax);
    const std::vector<float> nz = AssignNonZeroDataToVector(part, size);
    if (b == 0) {
      h = AssignDataToBins(nz, kBins, dmin, dmax);
      bound = std::max(std::fabs(dmin), dmax);
      mmin = dmin;
      mmax = dmax;
    } else {
      const float peak = std::max(dmax, std::fabs(dmin));
      if (peak <= bound) {
        const std::vector<int> fresh = AssignDataToBins(nz, kBins, -bound, bound);
        for (int i = 0; i < kBins; ++i) h[i] += fresh[i];
      } else {
        int ds, si;
        CalculateCombineMinMax(-bound, bound, -peak, peak, kBins, 128, bound, ds, si);
        h = ReferenceCombine(AssignDataToBins(nz, kBins, -bound, bound), h, kBins, 128, ds, si);
      }
      mmin = std::min(mmin, dmin);
      mmax = std::max(mmax, dmax);
    }
    ASSERT_EQ(h, frugal.histogram) << b;
  }
  const ReferenceResult r = ReferenceEntropy(h, mmin, mmax, kBins, kLevels);
  EXPECT_SAME_BITS(r.opt_min, frugal.opt_min);
  EXPECT_SAME_BITS(r.opt_max, frugal.opt_max);
  // The batch run sees the same data in one histogram: same margins, but
  // its counts are not the merged ones.
  EntropyObserver batch;
  batch.Observe(all.data(), all.size());
  EXPECT_EQ(batch.GetMargin(), frugal.GetMargin());
  EXPECT_NE(batch.histogram, frugal.histogram);
}

TEST(EntropyObserver, InfinitePeakMakesTheBoundNaNWithoutCrashing) {
  const float first[] = {1.0f, -1.0f};
  const float second[] = {kInf, 0.5f};
  const float third[] = {0.25f};
  EntropyObserver observer;
  testing::internal::CaptureStderr();
  observer.Observe(first, 2);
  observer.Observe(second, 2);
  observer.Observe(third, 1);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(std::isnan(observer.bound));
  EXPECT_EQ(kInf, observer.margin_max);
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
