#include "runtime/layers/layer_norm.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void LayerNormLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  axis_param_ = param.Int("axis", -1);
  eps_ = param.Float("eps", 1e-5f);
  if (!(eps_ >= 0.0f) || !std::isfinite(eps_))
    param.Fail("param \"eps\" must be a finite number >= 0, got " + std::to_string(eps_));
  bias_term_ = param.Bool("bias_term", true);
}

template <>
void LayerNormLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const int rank = x->NumAxes();
  const int axis = axis_param_ < 0 ? axis_param_ + rank : axis_param_;
  if (axis < 0 || axis >= rank)
    this->Fail("param \"axis\" " + std::to_string(axis_param_) + " is out of range for input \"" +
               x->GetName() + "\" of shape " + DimsToString(x->GetDims()));
  const int64_t inner = x->Count(axis);
  if (!this->GetWeights().empty() && inner != inner_)
    this->Fail("input \"" + x->GetName() + "\" now has rows of " + std::to_string(inner) +
               " elements, the weights were made for " + std::to_string(inner_));
  inner_ = inner;
  this->out()->Resize(x->GetDims());
}

template <>
std::vector<WeightSpec> LayerNormLayer<float>::WeightSpecs() {
  const int n = static_cast<int>(inner_);
  if (!bias_term_) return {{"scale", {n}}};
  return {{"scale", {n}}, {"bias", {n}}};
}

template <>
void LayerNormLayer<float>::Run() {
  const Data<float>* in = this->in();
  const float* x = in->GetCpuData();
  float* y = this->out()->GetCpuData();
  const float* scale = this->weight(0)->GetCpuData();
  const float* bias = bias_term_ ? this->weight(1)->GetCpuData() : nullptr;
  const int64_t inner = inner_;
  const int64_t rows = inner > 0 ? in->Count(0) / inner : 0;
  const double eps = eps_;
  // One task per row: the mean, then the variance as the mean of squared
  // deviations (two passes in double, element order), then the output. The
  // row is read completely before it is written, so x and y may alias.
  ParallelFor(
      rows,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const float* xr = x + r * inner;
          float* yr = y + r * inner;
          double sum = 0.0;
          for (int64_t i = 0; i < inner; ++i) sum += xr[i];
          const double mean = sum / static_cast<double>(inner);
          double sq = 0.0;
          for (int64_t i = 0; i < inner; ++i) {
            const double d = xr[i] - mean;
            sq += d * d;
          }
          const double inv = 1.0 / std::sqrt(sq / static_cast<double>(inner) + eps);
          for (int64_t i = 0; i < inner; ++i) {
            const double v = (xr[i] - mean) * inv * scale[i];
            yr[i] = static_cast<float>(bias != nullptr ? v + bias[i] : v);
          }
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, inner)));
}

}  // namespace qzdl
