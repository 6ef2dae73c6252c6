// Element-wise activations. Every one maps each element on its own, so all
// may run in place and give the same bits whatever the thread count.
#pragma once

#include "runtime/layer.h"

namespace qzdl {

// Shared shape handling: one input, one output of the same shape.
template <typename T>
class ActivationLayer : public Layer<T> {
 public:
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
};

// "ReLU": y = x > 0 ? x : negative_slope * x.
template <typename T>
class ReluLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  float NegativeSlope() const { return negative_slope_; }

 protected:
  void Run() override;

 private:
  float negative_slope_ = 0.0f;
};

// "ReLUX": y = min(max(x, 0), threshold), threshold > 0.
template <typename T>
class ReluXLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  // The upper clip.
  float getThreshold() const { return threshold_; }

 protected:
  void Run() override;

 private:
  float threshold_ = 0.0f;
};

// "LeakyRelu": y = x > 0 ? x : negative_slope * x (slope 0.01 by default).
template <typename T>
class LeakyReluLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  float NegativeSlope() const { return negative_slope_; }

 protected:
  void Run() override;

 private:
  float negative_slope_ = 0.01f;
};

// "PReLU": y = x > 0 ? x : slope[c] * x with c the index on axis 1, or one
// slope for all channels when channel_shared.
template <typename T>
class PReluLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  bool ChannelShared() const { return channel_shared_; }

 protected:
  void Run() override;

 private:
  bool channel_shared_ = false;
  int channels_ = 0;
};

// "Elu": y = x > 0 ? x : alpha * (exp(x) - 1).
template <typename T>
class EluLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  float Alpha() const { return alpha_; }

 protected:
  void Run() override;

 private:
  float alpha_ = 1.0f;
};

// "Sigmoid": y = 1 / (1 + exp(-x)).
template <typename T>
class SigmoidLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;

 protected:
  void Run() override;
};

// "TanH": y = tanh(x).
template <typename T>
class TanHLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;

 protected:
  void Run() override;
};

// "Swish": smooth y = x * sigmoid(beta * x), or with `hard`
// y = x * min(max(x + 3, 0), 6) / 6.
template <typename T>
class SwishLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  // True for the hard variant.
  bool Hard() const { return hard_; }
  float Beta() const { return beta_; }

 protected:
  void Run() override;

 private:
  bool hard_ = false;
  float beta_ = 1.0f;
};

}  // namespace qzdl
