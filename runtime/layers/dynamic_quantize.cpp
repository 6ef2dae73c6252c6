#include "runtime/layers/dynamic_quantize.h"

#include <algorithm>
#include <cmath>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void DynamicQuantizeLinearLayer<float>::LoadParam(const ParamReader&) {
  this->ExpectCounts(1, 1, 1, 3);
}

template <>
void DynamicQuantizeLinearLayer<float>::Reshape() {
  this->out(0)->Resize(this->in(0)->GetDims());
  for (size_t k = 1; k < this->GetOutputs().size(); ++k) this->out(static_cast<int>(k))->Resize({1});
}

template <>
void DynamicQuantizeLinearLayer<float>::Run() {
  const float* x = this->in(0)->GetCpuData();
  float* y = this->out(0)->GetCpuData();
  const int64_t n = this->in(0)->Count(0);
  // The range, in element order (a NaN is skipped by the comparisons).
  float lo = 0.0f, hi = 0.0f;
  for (int64_t i = 0; i < n; ++i) {
    lo = x[i] < lo ? x[i] : lo;
    hi = x[i] > hi ? x[i] : hi;
  }
  const float scale = hi == lo ? 1.0f : (hi - lo) / 255.0f;
  const float zero = std::nearbyint(std::min(255.0f, std::max(0.0f, 0.0f - lo / scale)));
  ParallelFor(n, [=](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i)
      y[i] = std::min(255.0f, std::max(0.0f, std::nearbyint(x[i] / scale) + zero));
  });
  if (this->GetOutputs().size() > 1) this->out(1)->GetCpuData()[0] = scale;
  if (this->GetOutputs().size() > 2) this->out(2)->GetCpuData()[0] = zero;
}

}  // namespace qzdl
