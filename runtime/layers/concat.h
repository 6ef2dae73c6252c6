// "Concat": joins its inputs along one axis.
#pragma once

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

template <typename T>
class ConcatLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // The axis as given (may be negative).
  int Axis() const { return axis_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type; input(k) is the data of input k.
  template <typename E, typename Input>
  void Move(Input input, E* y) const;
  int axis_ = 1;
  // Set at Reshape: product of the axes before the concat axis, and of the
  // concat axis and those after it, per input.
  int64_t outer_ = 1;
  std::vector<int64_t> slice_;
};

}  // namespace qzdl
