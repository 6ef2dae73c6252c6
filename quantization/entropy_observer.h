// Entropy observer: a fine symmetric histogram of the tensor and a search for
// the clipping window of least KL divergence against its 8-bit folding.
#pragma once

#include <utility>
#include <vector>

#include "quantization/observer.h"

namespace qzdl {
namespace staticQuantization {

class EntropyObserver final : public Observer {
 public:
  EntropyObserver() : Observer(Entropy) {}
  EntropyObserver(int bits, int bins, int upsample)
      : Observer(Entropy), bits(bits), bins(bins), upsample(upsample) {}

  void GetOptMinMax(float const* data, unsigned long count) override;
  // Smallest and largest element seen.
  std::pair<float, float> GetMargin() const;

  int bits = 8;
  int bins = 23205;  // 255 * 91; odd, so 0 lies inside the centre bin
  std::vector<int> histogram;
  int upsample = 128;
  float bound = 0.0f;  // the histogram covers [-bound, bound]
  float margin_min = 0.0f;
  float margin_max = 0.0f;
};

}  // namespace staticQuantization
}  // namespace qzdl
