// Channel shuffle as used between grouped convolutions.
#pragma once

#include "runtime/layer.h"

namespace qzdl {

// "ShuffleChannel": views the C channels as `group` x (C / group), transposes
// that to (C / group) x group and flattens it again: output channel
// j * group + i is input channel i * (C / group) + j. Axis 1 is the channel
// axis; the axes after it (any number, usually H and W) move together.
template <typename T>
class ShuffleChannelLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int Group() const { return group_; }

 protected:
  void Run() override;

 private:
  int group_ = 1;
};

}  // namespace qzdl
