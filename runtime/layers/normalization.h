// Per-channel affine normalizations: "BatchNormal", "Scale", and the L2
// normalization "L2Normalize". Channels are axis 1; the axes after it are
// the spatial positions.
#pragma once

#include "runtime/layer.h"

namespace qzdl {

// A layer that computes y = (x - shift[c]) * mult[c] + add[c] per channel c
// of axis 1, with constants from its weights; a convolution before it can
// apply the same arithmetic on its output tiles (runtime/fusion.h).
class ChannelAffine {
 public:
  virtual ~ChannelAffine() = default;
  // Channels the weights were made for.
  virtual int AffineChannels() const = 0;
  // The constants of channel c, exactly as the layer's own kernel uses them.
  virtual void AffineOf(int64_t c, float* shift, float* mult, float* add) = 0;
};

// "BatchNormal": y = (x - mean[c]) / sqrt(variance[c] + eps) * scale[c] + bias[c],
// with scale 1 and bias 0 unless `affine`.
template <typename T>
class BatchNormalLayer : public Layer<T>, public ChannelAffine {
 public:
  int AffineChannels() const override { return channels_; }
  void AffineOf(int64_t c, float* shift, float* mult, float* add) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  bool InPlaceSafe() const override { return true; }
  bool Affine() const { return affine_; }
  float Eps() const { return eps_; }

 protected:
  void Run() override;

 private:
  bool affine_ = false;
  float eps_ = 1e-5f;
  int channels_ = 0;
};

// "Scale": y = x * scale[c] (+ bias[c] with `bias_term`).
template <typename T>
class ScaleLayer : public Layer<T>, public ChannelAffine {
 public:
  int AffineChannels() const override { return channels_; }
  void AffineOf(int64_t c, float* shift, float* mult, float* add) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  bool InPlaceSafe() const override { return true; }
  bool BiasTerm() const { return bias_term_; }

 protected:
  void Run() override;

 private:
  bool bias_term_ = false;
  int channels_ = 0;
};

// "L2Normalize": y = x / sqrt(sum(x^2) + eps), optionally times scale[c] (or
// one shared scale). The sum runs over the channels at each spatial position,
// or with `across_spatial` over all of one item.
template <typename T>
class L2NormalizeLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  bool InPlaceSafe() const override { return true; }
  bool AcrossSpatial() const { return across_spatial_; }
  bool ChannelShared() const { return channel_shared_; }
  bool HasScale() const { return has_scale_; }
  float Eps() const { return eps_; }

 protected:
  void Run() override;

 private:
  bool across_spatial_ = false;
  bool channel_shared_ = false;
  bool has_scale_ = false;
  float eps_ = 1e-10f;
  int channels_ = 0;
};

}  // namespace qzdl
