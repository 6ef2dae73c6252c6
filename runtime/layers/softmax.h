// "Softmax" over one axis: y = exp(x - max) / sum(exp(x - max)).
#pragma once

#include <cstdint>

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
class SoftmaxLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
  // The axis as given (may be negative).
  int Axis() const { return axis_; }

 protected:
  void Run() override;

  // Resolved at Reshape: the input is outer x dim x inner.
  int64_t outer_ = 1, dim_ = 1, inner_ = 1;

 private:
  int axis_ = 1;
};

}  // namespace qzdl
