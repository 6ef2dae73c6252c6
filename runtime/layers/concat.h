// "Concat": joins its inputs along one axis.
#pragma once

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
class ConcatLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // The axis as given (may be negative).
  int Axis() const { return axis_; }

 protected:
  void Run() override;

 private:
  int axis_ = 1;
  // Set at Reshape: product of the axes before the concat axis, and of the
  // concat axis and those after it, per input.
  int64_t outer_ = 1;
  std::vector<int64_t> slice_;
};

}  // namespace qzdl
