#include "runtime/layers/lrn.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

float FiniteFloat(const ParamReader& param, const std::string& key, float def) {
  const float v = param.Float(key, def);
  if (!std::isfinite(v)) param.Fail("param \"" + key + "\" must be a finite number");
  return v;
}

}  // namespace

template <>
void LrnLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  size_ = param.RequiredInt("size");
  if (size_ < 1) param.Fail("param \"size\" must be at least 1, got " + std::to_string(size_));
  alpha_ = FiniteFloat(param, "alpha", 1e-4f);
  beta_ = FiniteFloat(param, "beta", 0.75f);
  bias_ = FiniteFloat(param, "bias", 1.0f);
}

template <>
void LrnLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  if (x->NumAxes() < 2)
    this->Fail("input \"" + x->GetName() + "\" needs a channel axis (axis 1), has shape " +
               DimsToString(x->GetDims()));
  items_ = x->GetDim(0);
  channels_ = x->GetDim(1);
  spatial_ = x->Count(2);
  this->out()->Resize(x->GetDims());
}

template <>
void LrnLayer<float>::Run() {
  const float* x = this->in()->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int64_t channels = channels_, spatial = spatial_;
  const int64_t before = (size_ - 1) / 2;    // channels below c in the window
  const int64_t after = size_ - 1 - before;  // channels above c
  const double scale = static_cast<double>(alpha_) / size_;
  const double bias = bias_, beta = beta_;
  // A task takes up to kBlock positions of one item; the window sum of each
  // channel is formed afresh in double, in channel order (squares of floats
  // are exact in double), so no running sum can lose small terms to large
  // ones. Each position is handled by one task in a fixed order. y is written
  // while x is still read, so the net stages in-place use.
  constexpr int64_t kBlock = 64;
  const int64_t blocks = (spatial + kBlock - 1) / kBlock;
  ParallelFor(
      items_ * blocks,
      [=](int64_t begin, int64_t end) {
        double sum[kBlock];
        for (int64_t t = begin; t < end; ++t) {
          const int64_t n = t / blocks;
          const int64_t p0 = (t % blocks) * kBlock;
          const int64_t len = std::min(kBlock, spatial - p0);
          const float* xn = x + n * channels * spatial + p0;
          float* yn = y + n * channels * spatial + p0;
          for (int64_t c = 0; c < channels; ++c) {
            for (int64_t i = 0; i < len; ++i) sum[i] = 0.0;
            const int64_t lo = std::max<int64_t>(0, c - before);
            const int64_t hi = std::min(channels - 1, c + after);
            for (int64_t k = lo; k <= hi; ++k)
              for (int64_t i = 0; i < len; ++i) {
                const double v = xn[k * spatial + i];
                sum[i] += v * v;
              }
            for (int64_t i = 0; i < len; ++i) {
              const double v = xn[c * spatial + i];
              yn[c * spatial + i] = static_cast<float>(v / std::pow(bias + scale * sum[i], beta));
            }
          }
        }
      },
      std::max<int64_t>(
          1, kParallelGrain / std::max<int64_t>(1, channels * std::min<int64_t>(kBlock, spatial))));
}

}  // namespace qzdl
