// Histogram observer: histogram maintenance, the error of a grid over the
// histogram and the deferred search.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "quantization/functional.h"
#include "quantization/observer.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::Bits;

// The error computed with one array per intermediate quantity.
float ReferenceNorm(float db, float de, float density) {
  const float b3 = (db * db) * db;
  const float e2 = de * de;
  return std::fma(e2, de, -b3) * density / 3.0f;
}

float ReferenceError(const HistogramObserver& o, int s, int e, bool fused = true) {
  const int bins = o.bins;
  const float bw = (o.opt_max - o.opt_min) / static_cast<float>(bins);
  const float dw = static_cast<float>(e - s + 1) * bw / static_cast<float>(o.dst_bins);
  std::vector<float> begin(bins), end(bins), dbegin(bins), dend(bins), density(bins), norm(bins);
  for (int i = 0; i < bins; ++i) {
    begin[i] = static_cast<float>(i - s) * bw;
    end[i] = bw + begin[i];
    dbegin[i] = std::floor(begin[i] / dw);
    if (dbegin[i] < 0) dbegin[i] = 0;
    if (dbegin[i] > static_cast<float>(o.dst_bins)) dbegin[i] = static_cast<float>(o.dst_bins);
    dend[i] = std::floor(end[i] / dw);
    if (dend[i] < 0) dend[i] = 0;
    if (dend[i] > static_cast<float>(o.dst_bins)) dend[i] = static_cast<float>(o.dst_bins);
    density[i] = static_cast<float>(o.histogram[i]) / bw;
  }
  const float half = dw * 0.5f;
  const float neg_half = -dw * 0.5f;
  for (int i = 0; i < bins; ++i) {
    norm[i] = 0.0f + ReferenceNorm(begin[i] - (dbegin[i] + 0.5f) * dw, half, density[i]);
    norm[i] =
        std::fma(dend[i] - dbegin[i] - 1.0f, ReferenceNorm(neg_half, half, density[i]), norm[i]);
  }
  for (int i = 0; i < bins; ++i) {
    const float centre = fused ? std::fma(dend[i], dw, half) : dend[i] * dw + half;
    norm[i] += ReferenceNorm(neg_half, end[i] - centre, density[i]);
  }
  float sum = 0.0f;
  for (float v : norm) sum += v;
  return sum;
}

// The search restated with its linear scans.
void ReferenceSearch(const HistogramObserver& o, float& new_min, float& new_max) {
  const float stepsize = 1e-5f;
  const float bw = (o.opt_max - o.opt_min) / static_cast<float>(o.bins);
  std::vector<int> csum(o.bins);
  float total = 0.0f;
  for (int i = 0; i < o.bins; ++i) {
    total += static_cast<float>(o.histogram[i]);
    csum[i] = static_cast<int>(total);
  }
  float alpha = 0.0f, beta = 1.0f, norm_min = FLT_MAX;
  int start = 0, end = o.bins - 1;
  do {
    const float na = alpha + stepsize, nb = beta - stepsize;
    if (start >= end) {
      beta = nb;
      continue;
    }
    int l = start;
    while (l < end && static_cast<float>(csum[l]) < na * total) ++l;
    int r = end;
    while (r > start && static_cast<float>(csum[r]) > nb * total) --r;
    int ns, ne;
    if (l - start > end - r) {
      alpha = na;
      ns = 1;
      ne = end;
    } else {
      beta = nb;
      ns = start;
      ne = r;
    }
    if (ns == start && ne == end) continue;
    const float norm = ReferenceError(o, ns, ne);
    if (norm > norm_min) break;
    norm_min = norm;
    start = ns;
    end = ne;
  } while (alpha < beta);
  new_min = std::fma(static_cast<float>(start), bw, o.opt_min);
  new_max = std::fma(static_cast<float>(end + 1), bw, o.opt_min);
}

std::vector<float> Normal(std::mt19937& rng, size_t n, float mean, float sd) {
  std::normal_distribution<float> dist(mean, sd);
  std::vector<float> v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

TEST(HistogramObserver, Defaults) {
  HistogramObserver o;
  EXPECT_EQ(5, o.GetObserverType());
  EXPECT_EQ(2048, o.bins);
  EXPECT_EQ(256, o.dst_bins);
  EXPECT_EQ(128, o.upsample);
  EXPECT_EQ(std::vector<int>(2048, 0), o.histogram);
  EXPECT_TRUE(o.IsInitial());
}

TEST(HistogramObserver, FreshExtractPrintsAndGivesZeroOne) {
  HistogramObserver o;
  o.name = "conv1";
  float min = -5.0f, max = -5.0f;
  testing::internal::CaptureStdout();
  o.Extract(min, max);
  EXPECT_EQ("Calculate quantization param conv1\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(0.0f, min);
  EXPECT_EQ(1.0f, max);
}

TEST(HistogramObserver, PrintsAtEveryExtract) {
  std::mt19937 rng(1);
  const std::vector<float> data = Normal(rng, 5000, 0.0f, 1.0f);
  HistogramObserver o;
  o.Observe(data.data(), data.size());
  float min1, max1, min2, max2;
  testing::internal::CaptureStdout();
  o.Extract(min1, max1);
  o.Extract(min2, max2);
  EXPECT_EQ("Calculate quantization param \nCalculate quantization param \n",
            testing::internal::GetCapturedStdout());
  // The second search takes the narrowed range for the range of the counts.
  EXPECT_LE(max2 - min2, max1 - min1);
}

TEST(HistogramObserver, ConstantBatchThenRestart) {
  const std::vector<float> constant(10, 2.0f);
  HistogramObserver o;
  o.Observe(constant.data(), constant.size());
  EXPECT_EQ(2.0f, o.opt_min);
  EXPECT_EQ(2.0f, o.opt_max);
  EXPECT_EQ(10, o.histogram[0]);
  EXPECT_EQ(10, std::accumulate(o.histogram.begin(), o.histogram.end(), 0));
  // The next batch restarts the range and adds to the old counts.
  const float next[] = {-1.0f, 1.0f, 0.0f};
  o.Observe(next, 3);
  EXPECT_EQ(-1.0f, o.opt_min);
  EXPECT_EQ(1.0f, o.opt_max);
  EXPECT_EQ(11, o.histogram[0]);
  EXPECT_EQ(1, o.histogram[1024]);
  EXPECT_EQ(1, o.histogram[2047]);
  // The limits follow the "any other type" branch: envelope with zero.
  EXPECT_EQ(-1.0f, o.min_lower);
  EXPECT_EQ(2.0f, o.max_upper);
}

TEST(HistogramObserver, AdjustMinMaxInsideTheRange) {
  HistogramObserver o;
  o.SetOptMinMax(-2.0f, 3.0f);
  float min = -2.0f, max = 3.0f;
  int downsample = 0, start = -1;
  o.AdjustMinMax(min, max, 128, downsample, start);
  EXPECT_EQ(128, downsample);
  EXPECT_EQ(0, start);
  EXPECT_EQ(-2.0f, min);
  EXPECT_EQ(3.0f, max);  // e is 0
}

TEST(HistogramObserver, LaterBatchInsideTheRangeAddsBinByBin) {
  std::mt19937 rng(2);
  std::vector<float> first = Normal(rng, 4000, 0.0f, 1.0f);
  first[0] = -5.0f;
  first[1] = 5.0f;
  const std::vector<float> second = Normal(rng, 4000, 0.0f, 0.5f);
  HistogramObserver o;
  o.Observe(first.data(), first.size());
  const std::vector<int> before = o.histogram;
  o.Observe(second.data(), second.size());
  std::vector<int> fresh(2048, 0);
  HistC(second.data(), second.size(), 2048, -5.0f, 5.0f, fresh);
  for (int i = 0; i < 2048; ++i) ASSERT_EQ(before[i] + fresh[i], o.histogram[i]) << i;
  EXPECT_EQ(-5.0f, o.opt_min);
  EXPECT_EQ(5.0f, o.opt_max);
}

TEST(HistogramObserver, LaterBatchAboveTheRangeGrowsTheTop) {
  std::mt19937 rng(3);
  std::vector<float> first = Normal(rng, 4000, 0.0f, 1.0f);
  std::vector<float> second = Normal(rng, 4000, 2.0f, 1.0f);
  HistogramObserver o;
  o.Observe(first.data(), first.size());
  const float cur_min = o.opt_min, cur_max = o.opt_max;
  ASSERT_GT(*std::max_element(second.begin(), second.end()), cur_max);
  ASSERT_GT(*std::min_element(second.begin(), second.end()), cur_min);
  const std::vector<int> before = o.histogram;
  float min = cur_min, max = *std::max_element(second.begin(), second.end());
  int downsample, start;
  o.AdjustMinMax(min, max, 128, downsample, start);
  EXPECT_EQ(0, start);
  EXPECT_EQ(cur_min, min);
  EXPECT_GT(downsample, 128);
  o.Observe(second.data(), second.size());
  EXPECT_EQ(cur_min, o.opt_min);
  EXPECT_SAME_BITS(max, o.opt_max);
  std::vector<int> fresh(2048, 0);
  HistC(second.data(), second.size(), 2048, min, max, fresh);
  EXPECT_EQ(HistCombine(fresh, before, 2048, 128, downsample, 0), o.histogram);
}

TEST(HistogramObserver, LaterBatchBelowTheRangeShiftsTheOldCounts) {
  std::mt19937 rng(4);
  std::vector<float> first = Normal(rng, 4000, 0.0f, 1.0f);
  std::vector<float> second = Normal(rng, 4000, -3.0f, 0.5f);
  HistogramObserver o;
  o.Observe(first.data(), first.size());
  const std::vector<int> before = o.histogram;
  const float cur_min = o.opt_min, cur_max = o.opt_max;
  float min = *std::min_element(second.begin(), second.end()), max = cur_max;
  int downsample, start;
  o.AdjustMinMax(min, max, 128, downsample, start);
  EXPECT_GT(start, 0);
  o.Observe(second.data(), second.size());
  EXPECT_EQ(min, o.opt_min);
  EXPECT_SAME_BITS(max, o.opt_max);
  EXPECT_GE(o.opt_max, cur_max);
  std::vector<int> fresh(2048, 0);
  HistC(second.data(), second.size(), 2048, min, max, fresh);
  EXPECT_EQ(HistCombine(fresh, before, 2048, 128, downsample, start), o.histogram);
  // The old counts now sit start / downsample bins up.
  const int first_old =
      std::find_if(before.begin(), before.end(), [](int c) { return c; }) - before.begin();
  (void)first_old;
  EXPECT_EQ(0, std::accumulate(o.histogram.begin(), o.histogram.begin() + start / downsample, 0) -
                   std::accumulate(fresh.begin(), fresh.begin() + start / downsample, 0));
}

TEST(HistogramObserver, GetNormBitExact) {
  HistogramObserver o;
  EXPECT_EQ(0.25f, o.GetNorm(-0.5f, 0.5f, 3.0f));
  std::mt19937 rng(6);
  std::uniform_real_distribution<float> dist(-3.0f, 3.0f);
  int fused_matters = 0;
  for (int k = 0; k < 2000; ++k) {
    const float a = dist(rng), b = dist(rng), d = std::fabs(dist(rng));
    EXPECT_SAME_BITS(ReferenceNorm(a, b, d), o.GetNorm(a, b, d));
    const float plain = (b * b * b - (a * a) * a) * d / 3.0f;
    fused_matters += Bits(plain) != Bits(ReferenceNorm(a, b, d));
  }
  EXPECT_GT(fused_matters, 0);
}

TEST(HistogramObserver, ErrorOfOneBinIsItsIntegral) {
  // One source bin inside one target bin: the three terms reduce to the
  // integral of x^2 * density over the bin, measured from the target centre.
  HistogramObserver o(4, 2, 128);
  o.SetOptMinMax(0.0f, 4.0f);  // bin width 1
  o.histogram = {0, 3, 0, 0};
  // Bins 0 .. 3 over 2 target bins: width 2; bin 1 spans [1, 2) of target
  // 0 whose centre is 1: integral of 3 x^2 over [0, 1] = 1.
  EXPECT_EQ(1.0f, o.ComputeQuantizationError(0, 3));
}

TEST(HistogramObserver, ErrorBitExactAgainstTheArrays) {
  std::mt19937 rng(7);
  HistogramObserver o;
  const std::vector<float> data = Normal(rng, 30000, 0.5f, 2.0f);
  o.Observe(data.data(), data.size());
  for (auto range : {std::make_pair(0, 2047), std::make_pair(1, 2047), std::make_pair(0, 1500),
                     std::make_pair(1, 300), std::make_pair(700, 700), std::make_pair(5, 2000),
                     std::make_pair(600, 610), std::make_pair(5, 40), std::make_pair(1000, 1100),
                     std::make_pair(900, 960), std::make_pair(1, 3)}) {
    EXPECT_SAME_BITS(ReferenceError(o, range.first, range.second),
                     o.ComputeQuantizationError(range.first, range.second));
  }
  // A zero target width is not special: the floors become NaN or infinite.
  HistogramObserver flat(16, 4, 128);
  flat.SetOptMinMax(1.0f, 1.0f);
  flat.histogram.assign(16, 1);
  EXPECT_SAME_BITS(ReferenceError(flat, 0, 15), flat.ComputeQuantizationError(0, 15));
}

TEST(HistogramObserver, ErrorFusedStepsOnNarrowRanges) {
  // Few source bins spread over many target bins: the fused steps of the
  // error matter, and the test tells them from plain multiply and add.
  std::mt19937 rng(70);
  std::uniform_int_distribution<int> count(1, 1000);
  int unfused_differs = 0;
  for (int round = 0; round < 40; ++round) {
    HistogramObserver o;
    o.SetOptMinMax(-1.0f - 0.01f * round, 1.7f + 0.03f * round);
    // Counts only inside the kept bins, so that the clipped tails do not
    // swamp the last bits of the sum.
    const int s = 100 + 37 * round;
    const int e = s + round % 9;
    for (int i = s; i <= e; ++i) o.histogram[i] = count(rng);
    const float expected = ReferenceError(o, s, e);
    EXPECT_SAME_BITS(expected, o.ComputeQuantizationError(s, e)) << round;
    unfused_differs += Bits(expected) != Bits(ReferenceError(o, s, e, false));
  }
  EXPECT_GT(unfused_differs, 0);
}

TEST(HistogramObserver, SearchAgainstTheLinearScans) {
  std::mt19937 rng(8);
  for (int round = 0; round < 24; ++round) {
    HistogramObserver o;
    const size_t n = 2000 + 3000 * (round % 7);
    std::vector<float> data = Normal(rng, n, 0.1f * (round % 5), 1.0f);
    switch (round % 6) {
      case 1:  // post-ReLU
        for (float& v : data) v = std::max(0.0f, v);
        break;
      case 2: {  // heavy tails on both sides
        std::student_t_distribution<float> dist(2.0f + round % 3);
        for (float& v : data) v = dist(rng);
        break;
      }
      case 3: {  // long top tail
        std::exponential_distribution<float> dist(1.0f);
        for (float& v : data) v = dist(rng) * (rng() % 2 ? 1.0f : -0.1f);
        break;
      }
      case 4:  // long bottom tail
        for (float& v : data) v = v > 0 ? v * 0.2f : v * 5.0f;
        break;
      case 5:  // a few values only
        for (float& v : data) v = std::round(v * 2.0f);
        break;
      default:
        break;
    }
    o.Observe(data.data(), data.size());
    float rmin, rmax, min, max;
    ReferenceSearch(o, rmin, rmax);
    o.NonLinearParamSearch(min, max);
    EXPECT_SAME_BITS(rmin, min) << round;
    EXPECT_SAME_BITS(rmax, max) << round;
  }
}

TEST(HistogramObserver, SearchWithNonMonotoneSums) {
  // Negative counts cannot come from data; set by hand they make the
  // running sum non-monotone and the scans must still match.
  std::mt19937 rng(9);
  HistogramObserver o;
  o.SetOptMinMax(-1.0f, 1.0f);
  for (int& c : o.histogram) c = static_cast<int>(rng() % 50) - 3;
  float rmin, rmax, min, max;
  ReferenceSearch(o, rmin, rmax);
  o.NonLinearParamSearch(min, max);
  EXPECT_SAME_BITS(rmin, min);
  EXPECT_SAME_BITS(rmax, max);
}

TEST(HistogramObserver, EmptyHistogramSearchEnds) {
  HistogramObserver o;
  o.SetOptMinMax(-1.0f, 1.0f);
  float min, max, rmin, rmax;
  o.NonLinearParamSearch(min, max);
  ReferenceSearch(o, rmin, rmax);
  EXPECT_SAME_BITS(rmin, min);
  EXPECT_SAME_BITS(rmax, max);
}

TEST(HistogramObserver, LongBottomTailKeepsTheLowerBound) {
  std::mt19937 rng(10);
  std::vector<float> data = Normal(rng, 40000, 0.0f, 0.3f);
  std::exponential_distribution<float> tail(0.5f);
  for (size_t i = 0; i < data.size(); i += 3) data[i] = -tail(rng);  // heavy bottom tail
  HistogramObserver o;
  o.Observe(data.data(), data.size());
  const float lo = o.opt_min;
  const float width = (o.opt_max - o.opt_min) / 2048.0f;
  float min, max;
  testing::internal::CaptureStdout();
  o.Extract(min, max);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(min == lo || min == std::fma(1.0f, width, lo)) << min << " " << lo;
}

TEST(HistogramObserver, LowerBoundMovesToBinOneOnly) {
  // One count far down and the mass at the top: the bottom side wins the
  // first step with l near 1500, but the start moves to bin 1 only, and
  // from then on nothing can change.
  HistogramObserver o;
  o.SetOptMinMax(-1.0f, 1.0f);
  o.histogram[0] = 1;
  for (int i = 1500; i < 2048; ++i) o.histogram[i] = 1000;
  float min, max, rmin, rmax;
  ReferenceSearch(o, rmin, rmax);
  o.NonLinearParamSearch(min, max);
  const float width = 2.0f / 2048.0f;
  EXPECT_SAME_BITS(std::fma(1.0f, width, -1.0f), min);
  EXPECT_SAME_BITS(rmin, min);
  EXPECT_SAME_BITS(rmax, max);
}

TEST(HistogramObserver, FrugalEqualsBatchWhenTheFirstBatchHoldsTheRange) {
  std::mt19937 rng(11);
  std::vector<float> all = Normal(rng, 20 * 1000, 0.0f, 1.0f);
  all[0] = -6.0f;
  all[1] = 6.5f;
  HistogramObserver batch, frugal;
  batch.Observe(all.data(), all.size());
  for (size_t i = 0; i < all.size(); i += 1000) frugal.Observe(all.data() + i, 1000);
  EXPECT_EQ(batch.histogram, frugal.histogram);
  float bmin, bmax, fmin, fmax;
  testing::internal::CaptureStdout();
  batch.Extract(bmin, bmax);
  frugal.Extract(fmin, fmax);
  testing::internal::GetCapturedStdout();
  EXPECT_SAME_BITS(bmin, fmin);
  EXPECT_SAME_BITS(bmax, fmax);
}

TEST(HistogramObserver, FrugalReplaysTheMerges) {
  std::mt19937 rng(12);
  HistogramObserver frugal;
  float cur_min = 0, cur_max = 0;
  std::vector<int> h(2048, 0);
  for (int b = 0; b < 12; ++b) {
    const std::vector<float> part = Normal(rng, 1500, 0.2f * b - 1.0f, 1.0f + 0.2f * b);
    frugal.Observe(part.data(), part.size());
    float dmin, dmax;
    CalibrationWithPeak(part.data(), part.size(), dmin, dmax);
    if (b == 0) {
      cur_min = dmin;
      cur_max = dmax;
      HistC(part.data(), part.size(), 2048, dmin, dmax, h);
    } else {
      float nmin = std::min(cur_min, dmin), nmax = std::max(cur_max, dmax);
      const float range = cur_max - cur_min, span = nmax - nmin;
      const int ds = static_cast<int>(std::ceil(span * 128.0f / range));
      const float e = static_cast<float>(ds) * range / 128.0f - span;
      const int si = static_cast<int>(std::round(2048.0f * (cur_min - nmin) * 128.0f / range));
      nmax = e + nmax;
      std::vector<int> fresh(2048, 0);
      HistC(part.data(), part.size(), 2048, nmin, nmax, fresh);
      if (nmin == cur_min && nmax == cur_max) {
        for (int i = 0; i < 2048; ++i) h[i] += fresh[i];
      } else {
        h = HistCombine(fresh, h, 2048, 128, ds, si);
      }
      cur_min = nmin;
      cur_max = nmax;
    }
    ASSERT_EQ(h, frugal.histogram) << b;
    EXPECT_SAME_BITS(cur_min, frugal.opt_min);
    EXPECT_SAME_BITS(cur_max, frugal.opt_max);
  }
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
