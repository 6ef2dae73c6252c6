// Peak, histogram and entropy functions behind the observers.
#include "quantization/functional.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <iostream>

#include "quantization/float_convert.h"
#include "quantization/peak_memo.h"
#include "quantization/simd_kernels.h"

namespace qzdl {
namespace staticQuantization {

namespace {

// The defining loop: `max` takes x when max <= x, `min` takes x unless
// min < x. A NaN never becomes the maximum but replaces the minimum, and the
// next element replaces the NaN; among equal values (+0 and -0) the last wins.
void PeakScalar(float const* data, unsigned long count, float& min, float& max) {
  float mx = -FLT_MAX;
  float mn = FLT_MAX;
  for (unsigned long i = 0; i < count; ++i) {
    const float x = data[i];
    if (mx <= x) mx = x;
    if (!(mn < x)) mn = x;
  }
  min = mn;
  max = mx;
}

// The sign of a zero result: the sign of the last element equal to zero.
float LastZero(float const* data, unsigned long count, float value) {
  for (unsigned long i = count; i-- > 0;) {
    if (data[i] == 0.0f) return data[i];
  }
  return value;
}

struct PeakMemoState {
  int depth = 0;
  const float* data = nullptr;
  unsigned long count = 0;
  bool filled = false;
  float min = 0.0f;
  float max = 0.0f;
};

thread_local PeakMemoState peak_memo;

}  // namespace

PeakMemo::PeakMemo(const float* data, unsigned long count) {
  if (peak_memo.depth++ == 0) {
    peak_memo.data = data;
    peak_memo.count = count;
    peak_memo.filled = false;
  }
}

PeakMemo::~PeakMemo() {
  if (--peak_memo.depth == 0) {
    peak_memo.data = nullptr;
    peak_memo.filled = false;
  }
}

bool PeakMemo::Find(const float* data, unsigned long count, float& min, float& max) {
  if (!peak_memo.filled || peak_memo.data != data || peak_memo.count != count) return false;
  min = peak_memo.min;
  max = peak_memo.max;
  return true;
}

void PeakMemo::Store(const float* data, unsigned long count, float min, float max) {
  if (peak_memo.depth == 0 || peak_memo.data != data || peak_memo.count != count) return;
  peak_memo.min = min;
  peak_memo.max = max;
  peak_memo.filled = true;
}

void CalibrationWithPeak(float const* data, unsigned long count, float& min, float& max) {
  // The lane-wise loop gives the values of the defining loop when there is
  // no NaN; only the sign of a zero result needs fixing. A NaN sends the
  // whole tensor through the defining loop.
  float mn;
  float mx;
  if (PeakMemo::Find(data, count, mn, mx)) {
    min = mn;
    max = mx;
    return;
  }
  if (kernels::PeakWithoutNaN(data, count, mn, mx)) {
    if (mx == 0.0f) mx = LastZero(data, count, mx);
    if (mn == 0.0f) mn = LastZero(data, count, mn);
  } else {
    PeakScalar(data, count, mn, mx);
  }
  PeakMemo::Store(data, count, mn, mx);
  min = mn;
  max = mx;
}

void HistC(float const* data, unsigned long count, int bins, float min, float max,
           std::vector<int>& histogram) {
  // Index trunc(double(x - min) * scale), clamped to the bins; x - min is
  // computed as x + (-min), which is the same operation.
  const double scale = static_cast<double>(bins) / static_cast<double>(max - min);
  kernels::BinElements(data, count, bins, min, max, -min, scale, false, histogram.data());
}

std::vector<int> HistCombine(std::vector<int> new_histogram, std::vector<int> old_histogram,
                             int bins, int upsample, int downsample, int start_index) {
  // Each old bin is spread over `upsample` fine bins that all carry its full
  // count, the fine bins are placed `start_index` bins into a line of
  // bins * downsample, and the running sum of that line is read at the end of
  // every group of `downsample`. The running sum is computed from prefix sums
  // of the old histogram instead of materialising the fine line; its 32-bit
  // wrap-around is kept by reducing the 64-bit sums modulo 2^32.
  const int64_t total = static_cast<int64_t>(bins) * upsample;
  const int64_t wide = static_cast<int64_t>(bins) * downsample;
  std::vector<int64_t> prefix(static_cast<size_t>(bins) + 1, 0);
  for (int i = 0; i < bins; ++i) prefix[i + 1] = prefix[i] + old_histogram[i];
  // Sum of the fine bins 0 .. f inclusive.
  auto fine_sum = [&](int64_t f) -> int64_t {
    if (f < 0) return 0;
    if (f >= total) f = total - 1;
    const int64_t b = f / upsample;
    const int64_t r = f % upsample;
    return upsample * prefix[b] + (r + 1) * static_cast<int64_t>(old_histogram[b]);
  };
  // Fine bins that would land before the start of the line are not copied.
  const int64_t first_fine = start_index < 0 ? -static_cast<int64_t>(start_index) : 0;
  const int64_t dropped = fine_sum(first_fine - 1);
  auto running = [&](int64_t p) -> int32_t {
    if (p < 0 || wide <= 0) return 0;
    if (p >= wide) p = wide - 1;
    const int64_t f = p - start_index;
    if (f < first_fine) return 0;
    return static_cast<int32_t>(static_cast<uint32_t>(fine_sum(f) - dropped));
  };
  std::vector<int> result(static_cast<size_t>(bins));
  int32_t previous = 0;
  for (int k = 0; k < bins; ++k) {
    const int32_t coarse = running(static_cast<int64_t>(k) * downsample + downsample - 1);
    const int32_t diff =
        static_cast<int32_t>(static_cast<uint32_t>(coarse) - static_cast<uint32_t>(previous));
    result[k] = diff / upsample + new_histogram[k];
    previous = coarse;
  }
  return result;
}

void SmoothDistribute(std::vector<double>& distribution, double eps) {
  const size_t n = distribution.size();
  if (n == 0) return;
  size_t nonzeros = 0;
  for (const double v : distribution) nonzeros += v > 1e-15 ? 1 : 0;
  const size_t zeros = n - nonzeros;
  if (zeros == 0 || nonzeros == 0) return;
  const double eps1 = static_cast<double>(zeros) * eps / static_cast<double>(nonzeros);
  for (double& v : distribution) {
    if (v > 1e-15) {
      v -= eps1;
      if (v < 0.0) std::cerr << "calibration warning: smaller eps needed";
    } else {
      v += eps;
    }
  }
}

namespace {

// Sum of p[j] * ln(p[j] / q[j]), one fused multiply-add per bin, with the
// messages and early exits of the window search. Runs of bins that were
// empty on both sides all hold the same pair after smoothing, hence the same
// ratio: its logarithm is taken once.
inline __attribute__((always_inline)) double DivergenceBody(const double* p, const double* q,
                                                            int w) {
  double kl = 0.0;
  double last_ratio = 1.0;
  double last_log = 0.0;
  for (int j = 0; j < w; ++j) {
    if (p[j] < 0.0) {
      std::cerr << "warning: p_distribution[j] = " << p[j];
      continue;
    }
    if (q[j] < 0.0) {
      std::cerr << "warning: q_distribution[j] = " << q[j];
      return DBL_MAX;
    }
    const double ratio = p[j] / q[j];
    if (!(ratio == last_ratio)) {
      last_ratio = ratio;
      last_log = std::log(ratio);
    }
    kl = std::fma(p[j], last_log, kl);
  }
  return kl;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// With the FMA instructions the fused step is one instruction instead of a
// library call; the result is the same.
__attribute__((target("fma"))) double DivergenceFma(const double* p, const double* q, int w) {
  return DivergenceBody(p, q, w);
}

double Divergence(const double* p, const double* q, int w) {
  static const bool fma = __builtin_cpu_supports("fma");
  if (fma) return DivergenceFma(p, q, w);
  return DivergenceBody(p, q, w);
}
#else
double Divergence(const double* p, const double* q, int w) { return DivergenceBody(p, q, w); }
#endif

}  // namespace

void CalibrationWithEntropy(std::vector<int> const& histogram, float min, float max, float& opt_min,
                            float& opt_max, int bins, int levels) {
  const int steps = levels > 0 ? bins / levels : 0;
  const int zero = bins / 2;
  double best = DBL_MAX;
  int best_start = -1;
  int best_stop = -1;

  // Prefix sums give the folded tails of every window in O(1).
  const int size = static_cast<int>(histogram.size());
  std::vector<int64_t> prefix(static_cast<size_t>(size) + 1, 0);
  for (int i = 0; i < size; ++i) prefix[i + 1] = prefix[i] + histogram[i];

  // Work buffers sized once for the widest window.
  const size_t widest = steps > 0 ? static_cast<size_t>(levels) * steps : 0;
  std::vector<double> p;
  std::vector<double> q;
  std::vector<unsigned char> nonzero;
  p.reserve(widest);
  q.reserve(widest);
  nonzero.reserve(widest);

  for (int i = 0; i < steps; ++i) {
    const int w = levels * (i + 1);
    const int start = zero - w / 2;
    const int stop = start + w;
    p.resize(static_cast<size_t>(w));
    q.assign(static_cast<size_t>(w), 0.0);
    nonzero.resize(static_cast<size_t>(w));

    const int* window = histogram.data() + start;
    for (int j = 0; j < w; ++j) p[j] = static_cast<double>(window[j]);
    // Outliers load the edges of the window, as clipping would.
    p[0] += static_cast<double>(prefix[start]);
    p[w - 1] += static_cast<double>(prefix[size] - prefix[stop]);
    for (int j = 0; j < w; ++j) nonzero[j] = p[j] == 0.0 ? 0 : 1;

    const int merged = w / levels;
    if (w % levels != 0) {
      std::cerr << "ERROR: slice.size() % quantize_size = " << w % levels;
      return;
    }
    // Spread each level's raw count (tails excluded) evenly over the bins of
    // its group that are not empty in p.
    for (int g = 0; g < levels; ++g) {
      const int begin = g * merged;
      const int end = g == levels - 1 ? w : begin + merged;
      int64_t total = 0;
      int norm = 0;
      for (int j = begin; j < end; ++j) {
        total += window[j];
        norm += nonzero[j];
      }
      if (norm == 0) continue;
      const double share = static_cast<double>(total) / static_cast<double>(norm);
      for (int j = begin; j < end; ++j) {
        if (nonzero[j]) q[j] = share;
      }
    }
    bool any = false;
    for (int j = 0; j < w && !any; ++j) any = q[j] > 1e-15;
    if (!any) continue;

    SmoothDistribute(p, 0.0001);
    SmoothDistribute(q, 0.0001);

    // Normalised to a sum of 1000, not 1.
    double sum_p = 0.0;
    for (int j = 0; j < w; ++j) sum_p += p[j];
    const double div_p = sum_p / 1000.0;
    for (int j = 0; j < w; ++j) p[j] = p[j] / div_p;
    double sum_q = 0.0;
    for (int j = 0; j < w; ++j) sum_q += q[j];
    const double div_q = sum_q / 1000.0;
    for (int j = 0; j < w; ++j) q[j] = q[j] / div_q;

    double kl = Divergence(p.data(), q.data(), w);
    if (kl > 1000000.0) {
      std::cerr << "warning: kl = " << kl;
    } else if (kl < 0.0) {
      std::cerr << "warning: kl = " << kl;
      kl = DBL_MAX;
    }
    // Strict: of equal divergences the earlier, narrower window stands.
    if (kl < best) {
      best = kl;
      best_start = start;
      best_stop = stop;
    }
  }
  if (best_start < 0 || best_stop < 0) {
    std::cerr << "calibration: invalid min kl index";
    best_start = 0;
    best_stop = bins;
  }
  // Measured from the margins of the data, not from the histogram's bound.
  const float t = std::fabs(max) > std::fabs(min) ? std::fabs(max) : std::fabs(min);
  const float width = (t + t) / static_cast<float>(bins);
  opt_min = std::fma(static_cast<float>(best_start), width, -t);
  opt_max = std::fma(static_cast<float>(best_stop), width, -t);
}

}  // namespace staticQuantization
}  // namespace qzdl
