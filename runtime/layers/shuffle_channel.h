// Channel shuffle as used between grouped convolutions.
#pragma once

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// "ShuffleChannel": views the C channels as `group` x (C / group), transposes
// that to (C / group) x group and flattens it again: output channel
// j * group + i is input channel i * (C / group) + j. Axis 1 is the channel
// axis; the axes after it (any number, usually H and W) move together.
template <typename T>
class ShuffleChannelLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int Group() const { return group_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  int group_ = 1;
};

}  // namespace qzdl
