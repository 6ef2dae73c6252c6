// Layers without inputs: "Constant" and "Arange".
//
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

// "Arange": a 1-d tensor start, start + step, ... below `end` (above it for a
// negative step), max(ceil((end - start) / step), 0) elements; element i is
// start + i * step, computed in double and rounded to float once. No inputs
// (an input, if wired, is ignored: a Range whose operands are constants);
// the shape does not follow the net's batch.
template <typename T>
class ArangeLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  float Start() const { return start_; }
  float End() const { return end_; }
  float Step() const { return step_; }

 protected:
  void Run() override;

 private:
  float start_ = 0.0f;
  float end_ = 0.0f;
  float step_ = 1.0f;
  int count_ = 0;
};

}  // namespace qzdl
