// "Constant": a layer without inputs whose one output is a fixed tensor, the
// weight blob "value" of shape `dims`. The shape does not follow the net's
// batch. It lets constant operands (of BroadcastOp, Concat, ...) live in the
// weights file like any other blob.
#pragma once

#include <vector>

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
class ConstantLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  const std::vector<int>& Dims() const { return dims_; }

 protected:
  void Run() override;

 private:
  std::vector<int> dims_;
};

}  // namespace qzdl
