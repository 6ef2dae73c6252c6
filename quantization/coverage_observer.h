// Coverage observer: the range that leaves out a fixed fraction of the most
// extreme elements of everything seen, exactly, by keeping those extremes.
#pragma once

#include "quantization/observer.h"

namespace qzdl {
namespace staticQuantization {

// Type 3. The stores are sized at the first Observe for total * count
// elements (SetTotal before it); they hold the nth + margin smallest and
// largest elements of the run (ConfigureNth), and the range is the
// (nth + 1)-th smallest and largest of them.
class CoverageObserver final : public Observer {
 public:
  CoverageObserver() : Observer(Coverage) {}
  // The ratio is stored as given, without SetCoverageRatio's checks.
  explicit CoverageObserver(float ratio) : Observer(Coverage), coverage_ratio(ratio) {}
  ~CoverageObserver();
  CoverageObserver(const CoverageObserver&) = delete;
  CoverageObserver& operator=(const CoverageObserver&) = delete;

  void GetOptMinMax(float const* data, unsigned long count) override;
  // Multiplier of the element count: the number of batches of the run.
  void SetTotal(int total);
  // Refuses a ratio outside [0, 1] and warns below 0.99.
  void SetCoverageRatio(float ratio);

  int total = 1;
  float* max_store = nullptr;
  float* min_store = nullptr;
  float coverage_ratio = 0.9995f;
  // Allocated lengths of the stores.
  unsigned long max_store_size = 0;
  unsigned long min_store_size = 0;
};

}  // namespace staticQuantization
}  // namespace qzdl
