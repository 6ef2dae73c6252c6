// Further element-wise activations: "Mish", "Gelu", "Softplus", "Selu" and
// "HardSigmoid". Like the basic ones (activation.h) each maps every element
// on its own: one input, one output of the same shape, in-place safe, and the
// same bits whatever the thread count.
#pragma once

#include <string>

#include "runtime/layers/activation.h"

namespace qzdl {

// "Mish": y = x * tanh(softplus(x)).
template <typename T>
class MishLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;

 protected:
  void Run() override;
};

// "Gelu": y = x * Phi(x). `approximate` "none" uses the exact form
// 0.5 * x * (1 + erf(x / sqrt(2))), "tanh" the approximation
// 0.5 * x * (1 + tanh(sqrt(2 / pi) * (x + 0.044715 * x^3))).
template <typename T>
class GeluLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  // "Gelu(none)" or "Gelu(tanh)".
  std::string GetTypeDetail() override;
  bool TanhApproximation() const { return tanh_; }

 protected:
  void Run() override;

 private:
  bool tanh_ = false;
};

// "Softplus": y = log(1 + exp(x)), computed as max(x, 0) + log1p(exp(-|x|)).
template <typename T>
class SoftplusLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;

 protected:
  void Run() override;
};

// "Selu": y = gamma * (x > 0 ? x : alpha * (exp(x) - 1)).
template <typename T>
class SeluLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  float Alpha() const { return alpha_; }
  float Gamma() const { return gamma_; }

 protected:
  void Run() override;

 private:
  float alpha_ = 1.67326319217681884765625f;
  float gamma_ = 1.05070102214813232421875f;
};

// "HardSigmoid": y = max(0, min(1, alpha * x + beta)).
template <typename T>
class HardSigmoidLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  float Alpha() const { return alpha_; }
  float Beta() const { return beta_; }

 protected:
  void Run() override;

 private:
  float alpha_ = 0.2f;
  float beta_ = 0.5f;
};

}  // namespace qzdl
