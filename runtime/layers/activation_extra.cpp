#include "runtime/layers/activation_extra.h"

#include <algorithm>
#include <cmath>
#include <string>

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

// log(1 + exp(v)) without overflow for large v and without loss for very
// negative v.
inline double SoftplusOf(double v) { return std::max(v, 0.0) + std::log1p(std::exp(-std::abs(v))); }

// A param that must be a finite number.
float FiniteFloat(const ParamReader& param, const std::string& key, float def) {
  const float v = param.Float(key, def);
  if (!std::isfinite(v)) param.Fail("param \"" + key + "\" must be a finite number");
  return v;
}

}  // namespace

// The transcendental functions are evaluated in double and rounded once, so
// the results are within an ulp or so of the exact values.

// ---- Mish -----------------------------------------------------------------

template <>
void MishLayer<float>::LoadParam(const ParamReader&) {
  this->ExpectCounts(1, 1, 1, 1);
}

template <>
void MishLayer<float>::Run() {
  MapElements(this->in(), this->out(), [](float x) {
    const double v = x;
    return static_cast<float>(v * std::tanh(SoftplusOf(v)));
  });
}

// ---- Gelu -----------------------------------------------------------------

template <>
void GeluLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  tanh_ = param.Choice("approximate", "none", {"none", "tanh"}) == "tanh";
}

template <>
std::string GeluLayer<float>::GetTypeDetail() {
  return tanh_ ? "Gelu(tanh)" : "Gelu(none)";
}

template <>
void GeluLayer<float>::Run() {
  if (tanh_) {
    const double k = 0.79788456080286535588;  // sqrt(2 / pi)
    MapElements(this->in(), this->out(), [k](float x) {
      const double v = x;
      return static_cast<float>(0.5 * v * (1.0 + std::tanh(k * (v + 0.044715 * v * v * v))));
    });
    return;
  }
  MapElements(this->in(), this->out(), [](float x) {
    const double v = x;
    return static_cast<float>(0.5 * v * (1.0 + std::erf(v * 0.70710678118654752440)));
  });
}

// ---- Softplus -------------------------------------------------------------

template <>
void SoftplusLayer<float>::LoadParam(const ParamReader&) {
  this->ExpectCounts(1, 1, 1, 1);
}

template <>
void SoftplusLayer<float>::Run() {
  MapElements(this->in(), this->out(),
              [](float x) { return static_cast<float>(SoftplusOf(static_cast<double>(x))); });
}

// ---- Selu -----------------------------------------------------------------

template <>
void SeluLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  alpha_ = FiniteFloat(param, "alpha", 1.67326319217681884765625f);
  gamma_ = FiniteFloat(param, "gamma", 1.05070102214813232421875f);
}

template <>
void SeluLayer<float>::Run() {
  const double alpha = alpha_, gamma = gamma_;
  MapElements(this->in(), this->out(), [=](float x) {
    const double v = x;
    return static_cast<float>(gamma * (v > 0.0 ? v : alpha * std::expm1(v)));
  });
}

// ---- HardSigmoid ----------------------------------------------------------

template <>
void HardSigmoidLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  alpha_ = FiniteFloat(param, "alpha", 0.2f);
  beta_ = FiniteFloat(param, "beta", 0.5f);
}

template <>
void HardSigmoidLayer<float>::Run() {
  // alpha * x is exact in double, so alpha * x + beta is rounded once
  // whether or not the compiler fuses the multiply-add. Written so that NaN
  // stays NaN.
  const double alpha = alpha_, beta = beta_;
  MapElements(this->in(), this->out(), [=](float x) {
    const double v = alpha * x + beta;
    return v < 0.0 ? 0.0f : (v > 1.0 ? 1.0f : static_cast<float>(v));
  });
}

}  // namespace qzdl
