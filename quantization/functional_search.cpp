#include "quantization/functional_search.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

#include "quantization/functional.h"
#include "quantization/kernels/coverage_select.h"
#include "quantization/kernels/mse_kernels.h"
#include "quantization/utils.h"

namespace qzdl {
namespace staticQuantization {

namespace {

// double -> unsigned long as the 64-bit Arm conversion does it: truncation
// toward zero, saturating, NaN and negative values giving 0.
unsigned long TruncateToUnsigned(double v) {
  if (!(v >= 1.0)) return 0;
  if (v >= 18446744073709551616.0) return ~0UL;
  return static_cast<unsigned long>(v);
}

// Cosine similarity of `data` and its 8-bit fake quantization over
// [cmin, cmax]: double sums of the single-precision products.
double CosineOfFakeQuantization(float const* data, unsigned long count, float cmin, float cmax) {
  float* quantized = new float[count];
  std::copy(data, data + count, quantized);
  FakeQuantization(quantized, count, cmin, cmax, 8);
  double xx = 0.0;
  double xy = 0.0;
  double yy = 0.0;
  for (unsigned long j = 0; j < count; ++j) {
    const float x = data[j];
    const float y = quantized[j];
    const float x2 = x * x;
    const float xy1 = x * y;
    const float y2 = y * y;
    xx += static_cast<double>(x2);
    xy += static_cast<double>(xy1);
    yy += static_cast<double>(y2);
  }
  delete[] quantized;
  if ((xx == 0.0 && yy == 0.0) || count == 0) return 1.0;
  return xy / std::sqrt(xx * yy);
}

// Scores every candidate and keeps the first to arrive of the best: `best`
// and the pair change only on a strictly larger cosine.
void ScoreCandidates(float const* data, unsigned long count,
                     const std::vector<std::pair<float, float>>& candidates, double& best,
                     float& min, float& max) {
  const int n = static_cast<int>(candidates.size());
#pragma omp parallel for schedule(dynamic, 1)
  for (int i = 0; i < n; ++i) {
    const float cmin = candidates[i].first;
    const float cmax = candidates[i].second;
    const double cosine = CosineOfFakeQuantization(data, count, cmin, cmax);
#pragma omp critical
    {
      if (best < cosine) {
        best = cosine;
        min = cmin;
        max = cmax;
      }
    }
  }
}

}  // namespace

void ConfigureNth(unsigned long total, float ratio, unsigned long& nth_min, unsigned long& nth_max,
                  unsigned long& margin) {
  const double cut = (1.0 - static_cast<double>(ratio)) * 0.5 * static_cast<double>(total);
  nth_min = TruncateToUnsigned(cut);
  nth_max = nth_min;
  margin = nth_min <= 10 ? 10 : nth_min;
}

void CalibrationWithCoverage(float const* data, unsigned long count, float& min, float& max,
                             unsigned int min_size, unsigned int max_size, unsigned int margin,
                             float* min_store, float* max_store) {
  if (min_size == 0 && max_size == 0) {
    CalibrationWithPeak(data, count, min, max);
    return;
  }
  kernels::MergeIntoStores(data, count, min_store, min_size, max_store, max_size);
  if (margin >= 1 && margin <= min_size) min = min_store[min_size - margin];
  if (margin >= 1 && margin <= max_size) max = max_store[max_size - margin];
}

void CalibrationWithMeanSquareError(float const* data, unsigned long count, float& min, float& max,
                                    int steps, bool symmetric) {
  CalibrationWithMeanSquareError(kernels::BestSquaredErrorKernel(), data, count, min, max, steps,
                                 symmetric);
}

void CalibrationWithMeanSquareError(const kernels::SquaredErrorKernel& kernel, float const* data,
                                    unsigned long count, float& min, float& max, int steps,
                                    bool symmetric) {
  // Exits on a NaN.
  const std::vector<float> nz = AssignNonZeroDataToVector(data, count);
  if (nz.empty()) std::abort();
  float vmin = nz[0];
  float vmax = nz[0];
  for (const float x : nz) {
    if (x < vmin) vmin = x;
    if (vmax < x) vmax = x;
  }

  const float max_scale = symmetric ? (2.0f * std::max(std::fabs(vmin), std::fabs(vmax))) / 255.0f
                                    : (vmax - vmin) / 255.0f;
  const float delta = max_scale / static_cast<float>(steps);
  const unsigned long n = steps > 0 ? static_cast<unsigned long>(steps) : 0;

  // Written per candidate and never read: kept for inspection in a debugger.
  std::vector<double> errors(n);
  std::vector<double> tried_scales(n);
  double best_error = DBL_MAX;
  float best_scale = 0.0f;
  float best_zero = 0.0f;

  // Candidate i is scale max_scale - delta * i (fused). The kernel evaluates
  // `lanes` consecutive candidates per pass over nz, one per vector lane; the
  // groups are shared out over the threads one at a time.
  const unsigned long lanes = static_cast<unsigned long>(kernel.lanes);
  const unsigned long groups = (n + lanes - 1) / lanes;
#pragma omp parallel for schedule(dynamic, 1)
  for (unsigned long g = 0; g < groups; ++g) {
    float scales[kernels::kMaxSquaredErrorLanes];
    float zeros[kernels::kMaxSquaredErrorLanes];
    double group_errors[kernels::kMaxSquaredErrorLanes];
    const unsigned long first = g * lanes;
    const unsigned long used = std::min(lanes, n - first);
    for (unsigned long k = 0; k < lanes; ++k) {
      // Lanes past the last candidate repeat it; their results are dropped.
      const unsigned long i = first + std::min(k, used - 1);
      const float scale = std::fma(-delta, static_cast<float>(i), max_scale);
      scales[k] = scale;
      zeros[k] = symmetric ? 0.0f : -RoundClip<float>((vmin + vmax) / (scale + scale));
    }
    kernel.run(nz.data(), nz.size(), scales, zeros, group_errors);
    for (unsigned long k = 0; k < used; ++k) {
      errors[first + k] = group_errors[k];
      tried_scales[first + k] = scales[k];
    }
    for (unsigned long k = 0; k < used; ++k) {
#pragma omp critical
      {
        // >=: of equal errors the last to arrive wins.
        if (best_error >= group_errors[k]) {
          best_error = group_errors[k];
          best_scale = scales[k];
          best_zero = zeros[k];
        }
      }
    }
  }

  const double lo = (-128.0 - best_zero) * best_scale;
  const double hi = (127.0 - best_zero) * best_scale;
  min = static_cast<float>(lo > vmin ? lo : vmin);
  max = static_cast<float>(hi < vmax ? hi : vmax);
}

std::vector<std::pair<float, float>> CosineSimFineCandidates(float min, float vmax, float step_min,
                                                             float step_max) {
  // Unlike the coarse pass, each product and each sum is rounded on its own;
  // the library is built with -ffp-contract=off, so the compiler fuses none.
  std::vector<std::pair<float, float>> candidates;
  candidates.reserve(100);
  for (int i = 0; i < 50; ++i) {
    const float fi = static_cast<float>(i);
    const float off_min = fi * step_min;
    const float off_max = fi * step_max;
    candidates.emplace_back(min - off_min, vmax - off_max);
    candidates.emplace_back(min + off_min, vmax + off_max);
  }
  return candidates;
}

void CalibrationWithCosineSim(float const* data, unsigned long count, float& min, float& max,
                              int steps, float& similarity) {
  float vmin;
  float vmax;
  CalibrationWithPeak(data, count, vmin, vmax);
  float step_min = vmin / static_cast<float>(steps);
  float step_max = vmax / static_cast<float>(steps);

  // Coarse: both ends shrink towards 0 in `steps` equal parts.
  std::vector<std::pair<float, float>> candidates;
  for (int i = 0; i < steps; ++i) {
    const float fi = static_cast<float>(i);
    candidates.emplace_back(std::fma(-fi, step_min, vmin), std::fma(-fi, step_max, vmax));
  }
  double best = 0.0;
  ScoreCandidates(data, count, candidates, best, min, max);

  // Fine: around the best minimum, a hundredth of the coarse step, while the
  // maximum side stays centred on the data's maximum. i = 0 comes twice.
  step_min = static_cast<float>(step_min / 100.0);
  step_max = static_cast<float>(step_max / 100.0);
  candidates = CosineSimFineCandidates(min, vmax, step_min, step_max);
  ScoreCandidates(data, count, candidates, best, min, max);
  similarity = static_cast<float>(best);
}

}  // namespace staticQuantization
}  // namespace qzdl
