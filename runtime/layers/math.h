// Element-wise arithmetic: "UnaryOp" (one function of a list), "Power" and
// "Clip". One input, one output of the same shape, in-place safe; each
// element is computed on its own, so results do not depend on the thread
// count.
#pragma once

#include <string>

#include "runtime/layers/activation.h"

namespace qzdl {

// "UnaryOp": y = f(x) for `operation` one of abs, neg, exp, log, sqrt, rsqrt
// (1 / sqrt), reciprocal, floor, ceil, erf, sin, cos, square, sign (-1, 0 or
// 1; NaN stays NaN) and round (halves to even).
template <typename T>
class UnaryOpLayer : public ActivationLayer<T> {
 public:
  enum class Op {
    kAbs,
    kNeg,
    kExp,
    kLog,
    kSqrt,
    kRsqrt,
    kReciprocal,
    kFloor,
    kCeil,
    kErf,
    kSin,
    kCos,
    kSquare,
    kSign,
    kRound
  };

  void LoadParam(const ParamReader& param) override;
  // "UnaryOp(exp)" etc.
  std::string GetTypeDetail() override;
  Op Operation() const { return op_; }
  const std::string& OperationName() const { return op_name_; }

 protected:
  void Run() override;

 private:
  Op op_ = Op::kAbs;
  std::string op_name_;
};

// "Power": y = (shift + scale * x)^power.
template <typename T>
class PowerLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  float Power() const { return power_; }
  float Scale() const { return scale_; }
  float Shift() const { return shift_; }

 protected:
  void Run() override;

 private:
  float power_ = 1.0f;
  float scale_ = 1.0f;
  float shift_ = 0.0f;
};

// "Clip": y = min(max(x, min), max); an absent bound does not apply. When
// min > max every element becomes max. NaN stays NaN.
template <typename T>
class ClipLayer : public ActivationLayer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  bool HasMin() const { return has_min_; }
  bool HasMax() const { return has_max_; }
  float Min() const { return min_; }
  float Max() const { return max_; }

 protected:
  void Run() override;

 private:
  bool has_min_ = false, has_max_ = false;
  float min_ = 0.0f, max_ = 0.0f;
};

}  // namespace qzdl
