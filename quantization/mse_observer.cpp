#include "quantization/mse_observer.h"

#include "quantization/entropy_observer.h"
#include "quantization/functional_search.h"

namespace qzdl {
namespace staticQuantization {

void MeanSquareErrorObserver::GetOptMinMax(float const* data, unsigned long count) {
  if (IsInitial()) CalibrationWithMeanSquareError(data, count, opt_min, opt_max, steps, symmetric);
}

EnumObserver::EnumObserver() : Observer(CosineSearch) {
  observers.push_back(new PeakValueObserver());
  observers.push_back(new AverageObserver());
  observers.push_back(new EntropyObserver(8, 23205, 128));
  observers.push_back(new CoverageObserver(0.995f));
  observers.push_back(new CoverageObserver(0.9995f));
  observers.push_back(new CoverageObserver(0.99995f));
  observers.push_back(new CoverageObserver(0.999995f));
}

EnumObserver::~EnumObserver() {
  // Observer has no virtual destructor: delete through the member's class.
  for (Observer* member : observers) {
    switch (member == nullptr ? -1 : member->GetObserverType()) {
      case Naive:
        delete static_cast<PeakValueObserver*>(member);
        break;
      case Average:
        delete static_cast<AverageObserver*>(member);
        break;
      case Entropy:
        delete static_cast<EntropyObserver*>(member);
        break;
      case Coverage:
        delete static_cast<CoverageObserver*>(member);
        break;
      default:
        break;
    }
  }
}

void EnumObserver::GetOptMinMax(float const* data, unsigned long count) {
  if (!IsInitial()) return;
  for (Observer* member : observers) {
    member->Observe(data, count);
    float min = 0.0f;
    float max = 0.0f;
    member->Extract(min, max);
    candidates.emplace_back(min, max);
  }
  observers[4]->Extract(opt_min, opt_max);
}

void EnumObserver::SetTotal(int total) {
  for (Observer* member : observers) {
    if (member->GetObserverType() == Coverage)
      static_cast<CoverageObserver*>(member)->SetTotal(total);
  }
}

std::vector<std::pair<float, float>> EnumObserver::GetCandidates() const { return candidates; }

void EnumObserver::SetVal(float min, float max) {
  opt_min = min;
  opt_max = max;
}

}  // namespace staticQuantization
}  // namespace qzdl
