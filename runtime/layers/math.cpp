#include "runtime/layers/math.h"

#include <cmath>
#include <utility>
#include <vector>

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

using UnaryOp = UnaryOpLayer<float>::Op;

const std::vector<std::pair<std::string, UnaryOp>>& UnaryOps() {
  static const std::vector<std::pair<std::string, UnaryOp>> ops = {
      {"abs", UnaryOp::kAbs},
      {"neg", UnaryOp::kNeg},
      {"exp", UnaryOp::kExp},
      {"log", UnaryOp::kLog},
      {"sqrt", UnaryOp::kSqrt},
      {"rsqrt", UnaryOp::kRsqrt},
      {"reciprocal", UnaryOp::kReciprocal},
      {"floor", UnaryOp::kFloor},
      {"ceil", UnaryOp::kCeil},
      {"erf", UnaryOp::kErf},
      {"sin", UnaryOp::kSin},
      {"cos", UnaryOp::kCos},
      {"square", UnaryOp::kSquare},
      {"sign", UnaryOp::kSign},
      {"round", UnaryOp::kRound},
  };
  return ops;
}

// Functions of the C library are evaluated in double and rounded once.
template <typename Fn>
void MapInDouble(const Data<float>* in, Data<float>* out, Fn fn) {
  MapElements(in, out, [fn](float x) { return static_cast<float>(fn(static_cast<double>(x))); });
}

}  // namespace

// ---- UnaryOp --------------------------------------------------------------

template <>
void UnaryOpLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (!param.Has("operation")) param.Fail("missing param \"operation\"");
  std::vector<std::string> names;
  for (const auto& op : UnaryOps()) names.push_back(op.first);
  op_name_ = param.Choice("operation", "", names);
  for (const auto& op : UnaryOps())
    if (op.first == op_name_) op_ = op.second;
}

template <>
std::string UnaryOpLayer<float>::GetTypeDetail() {
  return "UnaryOp(" + op_name_ + ")";
}

template <>
void UnaryOpLayer<float>::Run() {
  const Data<float>* in = this->in();
  Data<float>* out = this->out();
  switch (op_) {
    case Op::kAbs:
      return MapElements(in, out, [](float x) { return std::fabs(x); });
    case Op::kNeg:
      return MapElements(in, out, [](float x) { return -x; });
    case Op::kExp:
      return MapInDouble(in, out, [](double x) { return std::exp(x); });
    case Op::kLog:
      return MapInDouble(in, out, [](double x) { return std::log(x); });
    case Op::kSqrt:
      return MapElements(in, out, [](float x) { return std::sqrt(x); });
    case Op::kRsqrt:
      return MapInDouble(in, out, [](double x) { return 1.0 / std::sqrt(x); });
    case Op::kReciprocal:
      return MapElements(in, out, [](float x) { return 1.0f / x; });
    case Op::kFloor:
      return MapElements(in, out, [](float x) { return std::floor(x); });
    case Op::kCeil:
      return MapElements(in, out, [](float x) { return std::ceil(x); });
    case Op::kErf:
      return MapInDouble(in, out, [](double x) { return std::erf(x); });
    case Op::kSin:
      return MapInDouble(in, out, [](double x) { return std::sin(x); });
    case Op::kCos:
      return MapInDouble(in, out, [](double x) { return std::cos(x); });
    case Op::kSquare:
      return MapElements(in, out, [](float x) { return x * x; });
    case Op::kSign:
      return MapElements(in, out, [](float x) { return x > 0.0f ? 1.0f : (x < 0.0f ? -1.0f : x); });
    case Op::kRound:
      // Ties to even, whatever the rounding mode of the caller.
      return MapElements(in, out, [](float x) {
        const float r = std::round(x);
        return std::fabs(x - std::trunc(x)) == 0.5f ? 2.0f * std::round(0.5f * x) : r;
      });
  }
}

// ---- Power ----------------------------------------------------------------

template <>
void PowerLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  power_ = param.Float("power", 1.0f);
  scale_ = param.Float("scale", 1.0f);
  shift_ = param.Float("shift", 0.0f);
}

template <>
void PowerLayer<float>::Run() {
  // The base shift + scale * x is formed in double (the product of two
  // floats is exact there) and the power taken in double; one rounding to
  // float at the end.
  const double power = power_, scale = scale_, shift = shift_;
  if (power == 1.0)
    return MapInDouble(this->in(), this->out(), [=](double x) { return shift + scale * x; });
  if (power == 2.0)
    return MapInDouble(this->in(), this->out(), [=](double x) {
      const double b = shift + scale * x;
      return b * b;
    });
  MapInDouble(this->in(), this->out(),
              [=](double x) { return std::pow(shift + scale * x, power); });
}

// ---- Clip -----------------------------------------------------------------

template <>
void ClipLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  has_min_ = param.Has("min");
  has_max_ = param.Has("max");
  min_ = param.Float("min", 0.0f);
  max_ = param.Float("max", 0.0f);
}

template <>
void ClipLayer<float>::Run() {
  const float lo = has_min_ ? min_ : -INFINITY;
  const float hi = has_max_ ? max_ : INFINITY;
  // The lower bound first, then the upper one: with min > max everything
  // ends at max. Comparisons with NaN are false, so NaN passes through.
  MapElements(this->in(), this->out(), [=](float x) {
    const float v = x < lo ? lo : x;
    return v > hi ? hi : v;
  });
}

}  // namespace qzdl
