#include "runtime/layers/instance_norm.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void InstanceNormalizationLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  eps_ = param.Float("eps", 1e-5f);
  if (!(eps_ >= 0.0f) || !std::isfinite(eps_))
    param.Fail("param \"eps\" must be a finite number >= 0, got " + std::to_string(eps_));
}

template <>
void InstanceNormalizationLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  if (x->NumAxes() < 2)
    this->Fail("input \"" + x->GetName() + "\" needs a channel axis (axis 1), has shape " +
               DimsToString(x->GetDims()));
  const int channels = x->GetDim(1);
  if (!this->GetWeights().empty() && channels != channels_)
    this->Fail("input \"" + x->GetName() + "\" now has " + std::to_string(channels) +
               " channels, the weights were made for " + std::to_string(channels_));
  channels_ = channels;
  this->out()->Resize(x->GetDims());
}

template <>
std::vector<WeightSpec> InstanceNormalizationLayer<float>::WeightSpecs() {
  return {{"scale", {channels_}}, {"bias", {channels_}}};
}

template <>
void InstanceNormalizationLayer<float>::Run() {
  const Data<float>* in = this->in();
  const float* x = in->GetCpuData();
  float* y = this->out()->GetCpuData();
  const float* scale = this->weight(0)->GetCpuData();
  const float* bias = this->weight(1)->GetCpuData();
  const int64_t channels = channels_;
  const int64_t inner = in->Count(2);
  const int64_t planes = in->Count(0) / inner;
  const double eps = eps_;
  // One task per plane: mean, then the variance as the mean of squared
  // deviations (two passes in double, element order), then the output. The
  // plane is read completely before it is written, so x and y may alias.
  ParallelFor(
      planes,
      [=](int64_t begin, int64_t end) {
        for (int64_t p = begin; p < end; ++p) {
          const float* xp = x + p * inner;
          float* yp = y + p * inner;
          double sum = 0.0;
          for (int64_t i = 0; i < inner; ++i) sum += xp[i];
          const double mean = sum / static_cast<double>(inner);
          double sq = 0.0;
          for (int64_t i = 0; i < inner; ++i) {
            const double d = xp[i] - mean;
            sq += d * d;
          }
          const double var = sq / static_cast<double>(inner);
          const int64_t c = p % channels;
          const double mult = scale[c] / std::sqrt(var + eps);
          const double add = bias[c];
          for (int64_t i = 0; i < inner; ++i)
            yp[i] = static_cast<float>((xp[i] - mean) * mult + add);
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, inner)));
}

}  // namespace qzdl
