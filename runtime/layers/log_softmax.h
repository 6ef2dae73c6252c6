// "LogSoftmax" over one axis: y = x - max - log(sum(exp(x - max))).
#pragma once

#include <cstdint>

#include "runtime/layers/softmax.h"

namespace qzdl {

// Takes the axis param and the shape work of "Softmax"; only the kernel differs.
template <typename T>
class LogSoftmaxLayer : public SoftmaxLayer<T> {
 protected:
  void Run() override;
};

}  // namespace qzdl
