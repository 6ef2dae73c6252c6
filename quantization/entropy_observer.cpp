// Entropy observer: histogram maintenance across batches and the KL search.
#include "quantization/entropy_observer.h"

#include <cmath>
#include <utility>

#include "quantization/functional.h"
#include "quantization/simd_kernels.h"
#include "quantization/utils.h"

namespace qzdl {
namespace staticQuantization {

void EntropyObserver::GetOptMinMax(float const* data, unsigned long count) {
  float dmin;
  float dmax;
  CalibrationWithPeak(data, count, dmin, dmax);
  // Exact and near zeros never enter the histogram, and a NaN ends the
  // process: NonZeroBins is AssignDataToBins over AssignNonZeroDataToVector,
  // without the copy of the non-zero elements.
  if (histogram.empty()) {
    histogram = kernels::NonZeroBins(data, count, bins, dmin, dmax);
    margin_min = dmin;
    margin_max = dmax;
    bound = std::fabs(dmin) >= dmax ? std::fabs(dmin) : dmax;
  } else {
    const float peak = dmax > std::fabs(dmin) ? dmax : std::fabs(dmin);
    if (!(bound < peak) && !std::isnan(bound)) {
      const std::vector<int> fresh = kernels::NonZeroBins(data, count, bins, -bound, bound);
      for (int i = 0; i < bins; ++i) histogram[i] += fresh[i];
    } else {
      // Widen the symmetric range and move the old counts onto the new bins.
      int downsample = 0;
      int start_index = 0;
      CalculateCombineMinMax(-bound, bound, -peak, peak, bins, upsample, bound, downsample,
                             start_index);
      std::vector<int> fresh = kernels::NonZeroBins(data, count, bins, -bound, bound);
      histogram = HistCombine(std::move(fresh), std::move(histogram), bins, upsample, downsample,
                              start_index);
    }
    margin_min = dmin < margin_min ? dmin : margin_min;
    margin_max = margin_max < dmax ? dmax : margin_max;
  }
  CalibrationWithEntropy(histogram, margin_min, margin_max, opt_min, opt_max, bins,
                         static_cast<int>((1u << (static_cast<unsigned>(bits) & 31u)) - 1u));
}

std::pair<float, float> EntropyObserver::GetMargin() const {
  return std::make_pair(margin_min, margin_max);
}

}  // namespace staticQuantization
}  // namespace qzdl
