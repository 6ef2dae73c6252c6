// Histogram observer: keeps a histogram over everything seen, and when the
// range is read searches, by shrinking the range from its tails, for the
// bounds with the least squared error of a uniform grid over the histogram.
#pragma once

#include <vector>

#include "quantization/observer.h"

namespace qzdl {
namespace staticQuantization {

class HistogramObserver final : public Observer {
 public:
  HistogramObserver() : Observer(Histogram), histogram(2048, 0) {}
  HistogramObserver(int bins, int dst_bins, int upsample)
      : Observer(Histogram),
        bins(bins),
        dst_bins(dst_bins),
        upsample(upsample),
        histogram(bins, 0) {}

  // Maintains the histogram; opt_min / opt_max are its range.
  void GetOptMinMax(float const* data, unsigned long count) override;
  // Runs the search and replaces opt_min / opt_max by its result. Do not
  // Observe again after an Extract.
  void CalQuantParam() override;

  void AdjustMinMax(float& min, float& max, int upsample, int& downsample, int& start_index);
  float GetNorm(float delta_begin, float delta_end, float density);
  float ComputeQuantizationError(int next_start_bin, int next_end_bin);
  void NonLinearParamSearch(float& new_min, float& new_max);

  int bins = 2048;
  int dst_bins = 256;
  int upsample = 128;
  std::vector<int> histogram;
};

}  // namespace staticQuantization
}  // namespace qzdl
