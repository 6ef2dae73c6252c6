#include "runtime/layers/normalization.h"

#include <algorithm>
#include <cmath>

#include "runtime/kernels/epilogue.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// The channel count (axis 1) of the layer's input, checked against the
// weights already made for an earlier shape.
int ChannelsOf(const Layer<float>& layer, const Data<float>* x, int previous, bool has_weights) {
  if (x->NumAxes() < 2)
    layer.Fail("input \"" + x->GetName() + "\" needs a channel axis (axis 1), has shape " +
               DimsToString(x->GetDims()));
  const int channels = x->GetDim(1);
  if (has_weights && channels != previous)
    layer.Fail("input \"" + x->GetName() + "\" now has " + std::to_string(channels) +
               " channels, the weights were made for " + std::to_string(previous));
  return channels;
}

// y = (x - shift(c)) * mult(c) + add(c) over the planes of NCHW-like data;
// fn(c, &shift, &mult, &add) gives the constants of channel c. x and y may
// be the same buffer.
template <typename Fn>
void PerChannel(const Data<float>* in, Data<float>* out, Fn fn) {
  const float* x = in->GetCpuData();
  float* y = out->GetCpuData();
  const int64_t channels = in->GetDim(1);
  const int64_t inner = std::max<int64_t>(1, in->Count(2));
  const int64_t planes = in->Count(0) / inner;
  ParallelFor(
      planes,
      [=](int64_t begin, int64_t end) {
        for (int64_t p = begin; p < end; ++p) {
          float shift, mult, add;
          fn(p % channels, &shift, &mult, &add);
          const float* xp = x + p * inner;
          float* yp = y + p * inner;
          for (int64_t i = 0; i < inner; ++i) yp[i] = AffineValue(xp[i], shift, mult, add);
        }
      },
      std::max<int64_t>(1, kParallelGrain / inner));
}

}  // namespace

// ---- BatchNormal ----------------------------------------------------------

template <>
void BatchNormalLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  affine_ = param.Bool("affine", false);
  eps_ = param.Float("eps", 1e-5f);
  if (!(eps_ >= 0.0f) || !std::isfinite(eps_))
    param.Fail("param \"eps\" must be a finite number >= 0, got " + std::to_string(eps_));
}

template <>
void BatchNormalLayer<float>::Reshape() {
  channels_ = ChannelsOf(*this, this->in(), channels_, !this->GetWeights().empty());
  this->out()->Resize(this->in()->GetDims());
}

template <>
std::vector<WeightSpec> BatchNormalLayer<float>::WeightSpecs() {
  std::vector<WeightSpec> specs = {{"mean", {channels_}}, {"variance", {channels_}}};
  if (affine_) {
    specs.push_back({"scale", {channels_}});
    specs.push_back({"bias", {channels_}});
  }
  return specs;
}

template <>
void BatchNormalLayer<float>::AffineOf(int64_t c, float* shift, float* mult, float* add) {
  const float* mean = this->weight(0)->GetCpuData();
  const float* var = this->weight(1)->GetCpuData();
  const double s = affine_ ? this->weight(2)->GetCpuData()[c] : 1.0;
  *shift = mean[c];
  *mult = static_cast<float>(s / std::sqrt(static_cast<double>(var[c]) + double(eps_)));
  *add = affine_ ? this->weight(3)->GetCpuData()[c] : 0.0f;
}

template <>
void BatchNormalLayer<float>::Run() {
  PerChannel(this->in(), this->out(), [this](int64_t c, float* shift, float* mult, float* add) {
    AffineOf(c, shift, mult, add);
  });
}

// ---- Scale ----------------------------------------------------------------

template <>
void ScaleLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  bias_term_ = param.Bool("bias_term", false);
}

template <>
void ScaleLayer<float>::Reshape() {
  channels_ = ChannelsOf(*this, this->in(), channels_, !this->GetWeights().empty());
  this->out()->Resize(this->in()->GetDims());
}

template <>
std::vector<WeightSpec> ScaleLayer<float>::WeightSpecs() {
  std::vector<WeightSpec> specs = {{"scale", {channels_}}};
  if (bias_term_) specs.push_back({"bias", {channels_}});
  return specs;
}

template <>
void ScaleLayer<float>::AffineOf(int64_t c, float* shift, float* mult, float* add) {
  *shift = 0.0f;
  *mult = this->weight(0)->GetCpuData()[c];
  *add = bias_term_ ? this->weight(1)->GetCpuData()[c] : 0.0f;
}

template <>
void ScaleLayer<float>::Run() {
  PerChannel(this->in(), this->out(), [this](int64_t c, float* shift, float* mult, float* add) {
    AffineOf(c, shift, mult, add);
  });
}

// ---- L2Normalize ----------------------------------------------------------

template <>
void L2NormalizeLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  across_spatial_ = param.Bool("across_spatial", false);
  channel_shared_ = param.Bool("channel_shared", false);
  has_scale_ = param.Bool("has_scale", false);
  eps_ = param.Float("eps", 1e-10f);
  if (!(eps_ >= 0.0f) || !std::isfinite(eps_))
    param.Fail("param \"eps\" must be a finite number >= 0, got " + std::to_string(eps_));
}

template <>
void L2NormalizeLayer<float>::Reshape() {
  channels_ = ChannelsOf(*this, this->in(), channels_, !this->GetWeights().empty());
  this->out()->Resize(this->in()->GetDims());
}

template <>
std::vector<WeightSpec> L2NormalizeLayer<float>::WeightSpecs() {
  if (!has_scale_) return {};
  return {{"scale", {channel_shared_ ? 1 : channels_}}};
}

template <>
void L2NormalizeLayer<float>::Run() {
  const Data<float>* in = this->in();
  const float* x = in->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int64_t items = in->GetDim(0);
  const int64_t channels = in->GetDim(1);
  const int64_t spatial = in->Count(2);
  const int64_t per_item = channels * spatial;
  const float* scale = has_scale_ ? this->weight(0)->GetCpuData() : nullptr;
  const bool shared = channel_shared_;
  const double eps = eps_;

  if (across_spatial_) {
    // Per item: sum of squares in double in element order, then the scaling.
    // One task handles a whole item, so the result does not depend on the
    // thread count.
    ParallelFor(
        items,
        [=](int64_t begin, int64_t end) {
          for (int64_t n = begin; n < end; ++n) {
            const float* xn = x + n * per_item;
            float* yn = y + n * per_item;
            double sum = 0.0;
            for (int64_t i = 0; i < per_item; ++i) sum += static_cast<double>(xn[i]) * xn[i];
            const double inv = 1.0 / std::sqrt(sum + eps);
            for (int64_t c = 0; c < channels; ++c) {
              const double s = scale ? scale[shared ? 0 : c] : 1.0;
              const float m = static_cast<float>(inv * s);
              for (int64_t i = 0; i < spatial; ++i) yn[c * spatial + i] = xn[c * spatial + i] * m;
            }
          }
        },
        1);
    return;
  }

  // Over the channels at each position: a task takes up to kBlock positions
  // of one item and reads all their channels before writing any.
  constexpr int64_t kBlock = 64;
  const int64_t blocks = (spatial + kBlock - 1) / kBlock;
  ParallelFor(
      items * blocks,
      [=](int64_t begin, int64_t end) {
        double sum[kBlock];
        float inv[kBlock];
        for (int64_t t = begin; t < end; ++t) {
          const int64_t n = t / blocks;
          const int64_t p0 = (t % blocks) * kBlock;
          const int64_t len = std::min(kBlock, spatial - p0);
          const float* xn = x + n * per_item + p0;
          float* yn = y + n * per_item + p0;
          for (int64_t i = 0; i < len; ++i) sum[i] = 0.0;
          for (int64_t c = 0; c < channels; ++c)
            for (int64_t i = 0; i < len; ++i) {
              const double v = xn[c * spatial + i];
              sum[i] += v * v;
            }
          for (int64_t i = 0; i < len; ++i)
            inv[i] = static_cast<float>(1.0 / std::sqrt(sum[i] + eps));
          for (int64_t c = 0; c < channels; ++c) {
            const float s = scale ? scale[shared ? 0 : c] : 1.0f;
            for (int64_t i = 0; i < len; ++i)
              yn[c * spatial + i] = xn[c * spatial + i] * inv[i] * s;
          }
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, channels * kBlock)));
}

}  // namespace qzdl
