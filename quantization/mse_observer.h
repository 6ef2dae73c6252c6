// Mean-square-error observer and the enumerating observer whose candidate
// ranges the cosine search tries.
#pragma once

#include <utility>
#include <vector>

#include "quantization/coverage_observer.h"
#include "quantization/observer.h"

namespace qzdl {
namespace staticQuantization {

// Type 4. The range of the grid step with the least squared error, searched
// once, on the first data; later data change nothing.
class MeanSquareErrorObserver : public Observer {
 public:
  MeanSquareErrorObserver() : Observer(MeanSquareError) {}
  explicit MeanSquareErrorObserver(bool symmetric, int bits = 8, int steps = 500)
      : Observer(MeanSquareError), symmetric(symmetric), bits(bits), steps(steps) {}

  void GetOptMinMax(float const* data, unsigned long count) override;

  bool symmetric = false;
  int bits = 8;  // not read by the search
  int steps = 500;
};

// Type 8. Runs seven observers on the first data and keeps each one's range
// as a candidate: peak, average, entropy and coverage at 0.995, 0.9995,
// 0.99995 and 0.999995. Its own range is the 0.9995 coverage member's, until
// SetVal stores the search's choice.
class EnumObserver final : public Observer {
 public:
  EnumObserver();
  ~EnumObserver();
  EnumObserver(const EnumObserver&) = delete;
  EnumObserver& operator=(const EnumObserver&) = delete;

  void GetOptMinMax(float const* data, unsigned long count) override;
  // SetTotal of the coverage members.
  void SetTotal(int total);
  std::vector<std::pair<float, float>> GetCandidates() const;
  // Writes opt_min and opt_max.
  void SetVal(float min, float max);

  std::vector<Observer*> observers;  // owned
  std::vector<std::pair<float, float>> candidates;
};

}  // namespace staticQuantization
}  // namespace qzdl
