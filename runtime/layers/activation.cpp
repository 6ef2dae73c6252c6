#include "runtime/layers/activation.h"

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void ReluLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  negative_slope_ = param.Float("negative_slope", 0.0f);
}

template <>
void ReluLayer<float>::Reshape() {
  this->out()->Resize(this->in()->GetDims());
}

template <>
void ReluLayer<float>::Run() {
  const float* x = this->in()->GetCpuData();
  float* y = this->out()->GetCpuData();
  const float slope = negative_slope_;
  ParallelFor(this->in()->Count(0), [=](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) y[i] = x[i] > 0.0f ? x[i] : x[i] * slope;
  });
}

}  // namespace qzdl
