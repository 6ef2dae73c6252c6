// Range observers: each one estimates the value range of one tensor from the
// data shown to it, and keeps limits that the range may not leave when
// calibration ends (see docs/quantization.md).
#pragma once

#include <cfloat>
#include <string>
#include <vector>

#include "quantization/calibration_method.h"

namespace qzdl {
namespace staticQuantization {

// Base of every observer. The virtual operations, in this slot order, are
// PrintDetails, IsInitial, GetOptMinMax and CalQuantParam; there is no virtual
// destructor: observers live until the process ends and are never deleted
// through an Observer pointer (the destructor is protected for that reason).
class Observer {
 public:
  // "min: %f, max: %f" of the current pair.
  virtual std::string PrintDetails();
  // True while no pair has been stored (opt_min == FLT_MAX, opt_max == -FLT_MAX).
  virtual bool IsInitial();
  // The estimator step of each class.
  virtual void GetOptMinMax(float const* data, unsigned long count) = 0;
  // Deferred work before the pair is read; only the histogram observer has any.
  virtual void CalQuantParam();

  // GetOptMinMax, then UpdateLimit.
  void Observe(float const* data, unsigned long count);
  void UpdateLimit(float const* data, unsigned long count);
  // CalQuantParam, then copies the pair out.
  void Extract(float& min, float& max);
  // Clamps the pair into [min_lower, min_upper] and [max_lower, max_upper].
  void Restrain();
  // max_lower := max_upper * 0.5.
  void OverloadProtection();
  void SetOptMinMax(float min, float max);
  int GetObserverType() const;
  std::string GetObserverTypeString() const;

  std::string name;
  float opt_min = FLT_MAX;
  float opt_max = -FLT_MAX;
  float min_lower = -FLT_MAX;
  float min_upper = 0.0f;
  float max_lower = 0.0f;
  float max_upper = FLT_MAX;
  int observer_type;

 protected:
  explicit Observer(int type) : observer_type(type) {}
  ~Observer() = default;
  Observer(const Observer&) = default;
  Observer& operator=(const Observer&) = default;
};

// One observer per weight channel.
using PerChannelObserver = std::vector<Observer*>;

// Running envelope of the data: type 0.
class PeakValueObserver final : public Observer {
 public:
  PeakValueObserver() : Observer(Naive) {}
  void GetOptMinMax(float const* data, unsigned long count) override;
};

// Mean of the per-batch extremes: type 1.
class AverageObserver final : public Observer {
 public:
  AverageObserver() : Observer(Average) {}
  void GetOptMinMax(float const* data, unsigned long count) override;

  std::vector<float> min_values;
  std::vector<float> max_values;
};

// A fixed range given at construction: type 9. Data do not change it.
class PresetObserver final : public Observer {
 public:
  PresetObserver(float min, float max) : Observer(Preset) {
    opt_min = min;
    opt_max = max;
  }
  void GetOptMinMax(float const* data, unsigned long count) override;
};

}  // namespace staticQuantization
}  // namespace qzdl

// The search-based observers of this module.
#include "quantization/entropy_observer.h"
#include "quantization/histogram_observer.h"
