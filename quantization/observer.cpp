// Observer base and the observers that need no numeric search.
#include "quantization/observer.h"

#include <algorithm>
#include <cstdio>

#include "quantization/functional.h"
#include "quantization/peak_memo.h"

namespace qzdl {
namespace staticQuantization {

namespace {

std::string FormatFixed(float value) {
  const double v = static_cast<double>(value);
  const int length = std::snprintf(nullptr, 0, "%f", v);
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::snprintf(&text[0], text.size(), "%f", v);
  text.resize(static_cast<size_t>(length));
  return text;
}

}  // namespace

std::string Observer::PrintDetails() {
  return "min: " + FormatFixed(opt_min) + ", " + "max: " + FormatFixed(opt_max);
}

bool Observer::IsInitial() { return opt_min == FLT_MAX && opt_max == -FLT_MAX; }

void Observer::CalQuantParam() {}

void Observer::Observe(float const* data, unsigned long count) {
  const PeakMemo memo(data, count);
  GetOptMinMax(data, count);
  UpdateLimit(data, count);
}

void Observer::UpdateLimit(float const* data, unsigned long count) {
  switch (observer_type) {
    case Naive:
      // The limits of a peak observer are its own pair, zero not forced in.
      min_lower = opt_min;
      max_upper = opt_max;
      return;
    case Entropy: {
      const EntropyObserver* entropy = dynamic_cast<const EntropyObserver*>(this);
      if (entropy != nullptr) {
        const std::pair<float, float> margin = entropy->GetMargin();
        min_lower = margin.first;
        max_upper = margin.second;
      }
      return;
    }
    case Preset:
      return;
    default:
      break;
  }
  float dmin;
  float dmax;
  CalibrationWithPeak(data, count, dmin, dmax);
  if (min_lower == -FLT_MAX) {
    min_lower = std::min(dmin, 0.0f);
  } else if (min_lower > dmin) {
    min_lower = dmin;
  }
  if (max_upper == FLT_MAX) {
    max_upper = std::max(dmax, 0.0f);
  } else if (dmax > max_upper) {
    max_upper = dmax;
  }
}

void Observer::Extract(float& min, float& max) {
  CalQuantParam();
  min = opt_min;
  max = opt_max;
}

void Observer::Restrain() {
  // The order of the comparisons decides what a NaN becomes: the lower limit.
  const float a = (min_lower < opt_min) ? opt_min : min_lower;
  opt_min = (a < min_upper) ? a : min_upper;
  const float b = (max_lower < opt_max) ? opt_max : max_lower;
  opt_max = (b < max_upper) ? b : max_upper;
}

void Observer::OverloadProtection() { max_lower = max_upper * 0.5f; }

void Observer::SetOptMinMax(float min, float max) {
  opt_min = min;
  opt_max = max;
}

int Observer::GetObserverType() const { return observer_type; }

std::string Observer::GetObserverTypeString() const { return observerTypeString[observer_type]; }

void PeakValueObserver::GetOptMinMax(float const* data, unsigned long count) {
  float dmin;
  float dmax;
  CalibrationWithPeak(data, count, dmin, dmax);
  if (IsInitial()) {
    opt_min = dmin;
    opt_max = dmax;
    return;
  }
  if (opt_min > dmin) opt_min = dmin;
  if (opt_max < dmax) opt_max = dmax;
}

void AverageObserver::GetOptMinMax(float const* data, unsigned long count) {
  float dmin;
  float dmax;
  CalibrationWithPeak(data, count, dmin, dmax);
  min_values.push_back(dmin);
  max_values.push_back(dmax);
  // Recomputed from the whole series each time, in order, in single precision.
  float min_sum = 0.0f;
  for (const float v : min_values) min_sum += v;
  float max_sum = 0.0f;
  for (const float v : max_values) max_sum += v;
  opt_min = min_sum / static_cast<float>(min_values.size());
  opt_max = max_sum / static_cast<float>(max_values.size());
}

void PresetObserver::GetOptMinMax(float const* data, unsigned long count) {}

}  // namespace staticQuantization
}  // namespace qzdl
