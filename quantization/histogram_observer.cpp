// Histogram observer: the histogram over everything seen and the deferred
// search by quantization error.
#include "quantization/histogram_observer.h"

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <utility>

#include "quantization/float_convert.h"
#include "quantization/functional.h"

namespace qzdl {
namespace staticQuantization {

void HistogramObserver::GetOptMinMax(float const* data, unsigned long count) {
  const float cur_min = opt_min;
  const float cur_max = opt_max;
  if (IsInitial() || cur_min == cur_max) {
    // A fresh range; after a constant batch the old counts stay in place.
    CalibrationWithPeak(data, count, opt_min, opt_max);
    HistC(data, count, bins, opt_min, opt_max, histogram);
    return;
  }
  float dmin;
  float dmax;
  CalibrationWithPeak(data, count, dmin, dmax);
  float new_min = cur_min > dmin ? dmin : cur_min;
  float new_max = dmax > cur_max ? dmax : cur_max;
  int downsample = 0;
  int start_index = 0;
  AdjustMinMax(new_min, new_max, upsample, downsample, start_index);
  std::vector<int> fresh(static_cast<size_t>(bins), 0);
  HistC(data, count, bins, new_min, new_max, fresh);
  if (new_min == cur_min && new_max == cur_max) {
    for (int i = 0; i < bins; ++i) histogram[i] = fresh[i] + histogram[i];
  } else {
    histogram = HistCombine(std::move(fresh), std::move(histogram), bins, upsample, downsample,
                            start_index);
  }
  opt_min = new_min;
  opt_max = new_max;
}

void HistogramObserver::AdjustMinMax(float& min, float& max, int upsample, int& downsample,
                                     int& start_index) {
  const float range = opt_max - opt_min;
  const float span = max - min;
  const float u = static_cast<float>(upsample);
  downsample = TruncToInt32(std::ceil(span * u / range));
  const float e = static_cast<float>(downsample) * range / u - span;
  start_index = TruncToInt32(std::round(static_cast<float>(bins) * (opt_min - min) * u / range));
  // The lower end stays; all of the excess goes to the top.
  max = e + max;
}

void HistogramObserver::CalQuantParam() {
  std::printf("Calculate quantization param %s\n", name.c_str());
  if (IsInitial()) {
    opt_min = 0.0f;
    opt_max = 1.0f;
    return;
  }
  float new_min;
  float new_max;
  NonLinearParamSearch(new_min, new_max);
  opt_min = new_min;
  opt_max = new_max;
}

namespace {

// On x86-64 the error terms are also built with FMA and AVX2 and picked at
// run time, so that the fused steps are single instructions and the loop is
// vectorised; 64-bit Arm has both in its baseline.
#if defined(__x86_64__) && defined(__linux__) && (defined(__GNUC__) || defined(__clang__))
#define QZDL_CLONES_FMA __attribute__((target_clones("arch=haswell", "default")))
#else
#define QZDL_CLONES_FMA
#endif

// (delta_end^3 - delta_begin^3) * density / 3 with the cube of delta_begin
// rounded on its own and the cube of delta_end fused into the difference.
inline float CubeDifference(float delta_begin, float delta_end, float density) {
  const float begin_cubed = (delta_begin * delta_begin) * delta_begin;
  const float end_squared = delta_end * delta_end;
  const float difference = std::fma(end_squared, delta_end, -begin_cubed);
  return difference * density / 3.0f;
}

inline float TargetBin(float edge, float dst_width, float dst_limit) {
  float d = std::floor(edge / dst_width);
  d = d < 0.0f ? 0.0f : d;
  // Clamped to dst_bins itself: a source bin past the end may fall one
  // target bin beyond the last.
  return d > dst_limit ? dst_limit : d;
}

// The error term of every source bin, norm[i]; summed in order by the caller.
QZDL_CLONES_FMA
void ErrorTerms(const int* histogram, int bins, int next_start_bin, float bin_width,
                float dst_width, float dst_limit, float* norm) {
  const float half = dst_width * 0.5f;
  const float neg_half = -dst_width * 0.5f;
  for (int i = 0; i < bins; ++i) {
    const float begin = static_cast<float>(i - next_start_bin) * bin_width;
    const float end = bin_width + begin;
    const float dst_begin = TargetBin(begin, dst_width, dst_limit);
    const float dst_end = TargetBin(end, dst_width, dst_limit);
    const float density = static_cast<float>(histogram[i]) / bin_width;
    float n = 0.0f + CubeDifference(begin - (dst_begin + 0.5f) * dst_width, half, density);
    n = std::fma(dst_end - dst_begin - 1.0f, CubeDifference(neg_half, half, density), n);
    const float centre = std::fma(dst_end, dst_width, half);
    norm[i] = n + CubeDifference(neg_half, end - centre, density);
  }
}

}  // namespace

float HistogramObserver::GetNorm(float delta_begin, float delta_end, float density) {
  return CubeDifference(delta_begin, delta_end, density);
}

float HistogramObserver::ComputeQuantizationError(int next_start_bin, int next_end_bin) {
  const float bin_width = (opt_max - opt_min) / static_cast<float>(bins);
  const float dst_width = static_cast<float>(next_end_bin - next_start_bin + 1) * bin_width /
                          static_cast<float>(dst_bins);
  thread_local std::vector<float> norm;
  norm.resize(static_cast<size_t>(bins));
  ErrorTerms(histogram.data(), bins, next_start_bin, bin_width, dst_width,
             static_cast<float>(dst_bins), norm.data());
  float sum = 0.0f;
  for (int i = 0; i < bins; ++i) sum += norm[i];
  return sum;
}

void HistogramObserver::NonLinearParamSearch(float& new_min, float& new_max) {
  const float stepsize = 1e-5f;
  const float bin_width = (opt_max - opt_min) / static_cast<float>(bins);
  std::vector<int> csum(static_cast<size_t>(bins));
  float total = 0.0f;
  bool monotone = true;
  for (int i = 0; i < bins; ++i) {
    total += static_cast<float>(histogram[i]);
    csum[i] = TruncToInt32(total);
    if (i > 0 && csum[i] < csum[i - 1]) monotone = false;
  }
  float alpha = 0.0f;
  float beta = 1.0f;
  int start_bin = 0;
  int end_bin = bins - 1;
  float norm_min = FLT_MAX;
  // With non-decreasing sums, l only moves up and r only moves down while
  // the bins stay (alpha only grows, beta only shrinks): they are carried
  // from pass to pass and found anew, by binary search, when the bins change.
  int l = 0;
  int r = 0;
  bool stale = true;
  do {
    const float next_alpha = alpha + stepsize;
    const float next_beta = beta - stepsize;
    if (start_bin >= end_bin) {
      beta = next_beta;
      continue;
    }
    const float lower = next_alpha * total;
    const float upper = next_beta * total;
    if (!monotone) {
      l = start_bin;
      r = end_bin;
      while (l < end_bin && static_cast<float>(csum[l]) < lower) ++l;
      while (r > start_bin && static_cast<float>(csum[r]) > upper) --r;
    } else if (stale) {
      // First index in [start_bin, end_bin) whose sum is not below `lower`,
      // else end_bin; last index in [start_bin, end_bin] whose sum is not
      // above `upper`, else start_bin.
      int lo = start_bin;
      int hi = end_bin;
      while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        if (static_cast<float>(csum[mid]) < lower) {
          lo = mid + 1;
        } else {
          hi = mid;
        }
      }
      l = lo;
      lo = start_bin;
      hi = end_bin;
      while (lo < hi) {
        const int mid = hi - (hi - lo) / 2;
        if (static_cast<float>(csum[mid]) > upper) {
          hi = mid - 1;
        } else {
          lo = mid;
        }
      }
      r = lo;
      stale = false;
    } else {
      while (l < end_bin && static_cast<float>(csum[l]) < lower) ++l;
      while (r > start_bin && static_cast<float>(csum[r]) > upper) --r;
    }
    int next_start_bin;
    int next_end_bin;
    if ((l - start_bin) > (end_bin - r)) {
      // The lower bound moves to bin 1 at most, never to l.
      alpha = next_alpha;
      next_start_bin = 1;
      next_end_bin = end_bin;
      if (monotone && start_bin == 1) {
        // Nothing changes, and nothing will: l can only grow and r stays
        // where it is, so every later pass takes this branch again until
        // alpha reaches beta.
        break;
      }
    } else {
      beta = next_beta;
      next_start_bin = start_bin;
      next_end_bin = r;
    }
    if (next_start_bin == start_bin && next_end_bin == end_bin) continue;
    const float norm = ComputeQuantizationError(next_start_bin, next_end_bin);
    if (norm > norm_min) break;
    norm_min = norm;
    start_bin = next_start_bin;
    end_bin = next_end_bin;
    stale = true;
  } while (alpha < beta);
  new_min = std::fma(static_cast<float>(start_bin), bin_width, opt_min);
  new_max = std::fma(static_cast<float>(end_bin + 1), bin_width, opt_min);
}

}  // namespace staticQuantization
}  // namespace qzdl
