#include "runtime/layers/activation.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "runtime/kernels/epilogue.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// y[i] = fn(x[i]) over the whole tensor; x and y may be the same buffer.
template <typename Fn>
void MapElements(const Data<float>* in, Data<float>* out, Fn fn) {
  const float* x = in->GetCpuData();
  float* y = out->GetCpuData();
  ParallelFor(in->Count(0), [=](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) y[i] = fn(x[i]);
  });
}

// y = e(x) over the whole tensor through the loops the fused layers use.
void MapByEpilogue(const Data<float>* in, Data<float>* out, const Epilogue& e) {
  const float* x = in->GetCpuData();
  float* y = out->GetCpuData();
  ParallelFor(in->Count(0), [=](int64_t begin, int64_t end) {
    MapActivation(e, x + begin, y + begin, end - begin);
  });
}

}  // namespace

template <>
void ActivationLayer<float>::Reshape() {
  this->out()->Resize(this->in()->GetDims());
}

// ---- ReLU -----------------------------------------------------------------

template <>
void ReluLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  negative_slope_ = param.Float("negative_slope", 0.0f);
}

template <>
void ReluLayer<float>::Run() {
  MapByEpilogue(this->in(), this->out(), {Epilogue::Kind::kRelu, negative_slope_});
}

// ---- ReLUX ----------------------------------------------------------------

template <>
void ReluXLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  threshold_ = param.RequiredFloat("threshold");
  if (!(threshold_ > 0.0f) || !std::isfinite(threshold_))
    param.Fail("param \"threshold\" must be a finite number > 0, got " +
               std::to_string(threshold_));
}

template <>
void ReluXLayer<float>::Run() {
  MapByEpilogue(this->in(), this->out(), {Epilogue::Kind::kClip, threshold_});
}

// ---- LeakyRelu ------------------------------------------------------------

template <>
void LeakyReluLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  negative_slope_ = param.Float("negative_slope", 0.01f);
}

template <>
void LeakyReluLayer<float>::Run() {
  MapByEpilogue(this->in(), this->out(), {Epilogue::Kind::kRelu, negative_slope_});
}

// ---- PReLU ----------------------------------------------------------------

template <>
void PReluLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  channel_shared_ = param.Bool("channel_shared", false);
}

template <>
void PReluLayer<float>::Reshape() {
  Data<float>* x = this->in();
  if (!channel_shared_ && x->NumAxes() < 2)
    this->Fail("input \"" + x->GetName() + "\" needs a channel axis (axis 1) for per-channel " +
               "slopes, has shape " + DimsToString(x->GetDims()));
  const int channels = channel_shared_ ? 1 : x->GetDim(1);
  if (!this->GetWeights().empty() && channels != channels_)
    this->Fail("input \"" + x->GetName() + "\" now has " + std::to_string(channels) +
               " channels, the weights were made for " + std::to_string(channels_));
  channels_ = channels;
  this->out()->Resize(x->GetDims());
}

template <>
std::vector<WeightSpec> PReluLayer<float>::WeightSpecs() {
  return {{"slope", {channels_}}};
}

template <>
void PReluLayer<float>::Run() {
  const Data<float>* in = this->in();
  const float* x = in->GetCpuData();
  float* y = this->out()->GetCpuData();
  const float* slope = this->weight(0)->GetCpuData();
  if (channel_shared_) {
    const float s = slope[0];
    MapElements(in, this->out(), [s](float v) { return PositiveOrScaled(v, s); });
    return;
  }
  const int64_t channels = in->GetDim(1);
  const int64_t inner = in->Count(2);
  const int64_t planes = in->Count(0) / std::max<int64_t>(inner, 1);
  ParallelFor(
      planes,
      [=](int64_t begin, int64_t end) {
        for (int64_t p = begin; p < end; ++p) {
          const float s = slope[p % channels];
          const float* xp = x + p * inner;
          float* yp = y + p * inner;
          for (int64_t i = 0; i < inner; ++i) yp[i] = PositiveOrScaled(xp[i], s);
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(inner, 1)));
}

// ---- Elu ------------------------------------------------------------------

template <>
void EluLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  alpha_ = param.Float("alpha", 1.0f);
}

template <>
void EluLayer<float>::Run() {
  const float alpha = alpha_;
  MapElements(this->in(), this->out(),
              [alpha](float x) { return x > 0.0f ? x : alpha * std::expm1(x); });
}

// ---- Sigmoid --------------------------------------------------------------

template <>
void SigmoidLayer<float>::LoadParam(const ParamReader&) {
  this->ExpectCounts(1, 1, 1, 1);
}

template <>
void SigmoidLayer<float>::Run() {
  MapByEpilogue(this->in(), this->out(), {Epilogue::Kind::kSigmoid, 0.0f});
}

// ---- TanH -----------------------------------------------------------------

template <>
void TanHLayer<float>::LoadParam(const ParamReader&) {
  this->ExpectCounts(1, 1, 1, 1);
}

template <>
void TanHLayer<float>::Run() {
  MapElements(this->in(), this->out(), [](float x) { return std::tanh(x); });
}

// ---- Swish ----------------------------------------------------------------

template <>
void SwishLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  hard_ = param.Bool("hard", false);
  // beta shapes the smooth form only; the hard form has fixed constants.
  beta_ = param.Float("beta", 1.0f);
}

template <>
void SwishLayer<float>::Run() {
  if (hard_) {
    MapByEpilogue(this->in(), this->out(), {Epilogue::Kind::kHardSwish, 0.0f});
    return;
  }
  MapByEpilogue(this->in(), this->out(), {Epilogue::Kind::kSwish, beta_});
}

}  // namespace qzdl
