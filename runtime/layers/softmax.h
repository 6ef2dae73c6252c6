// "Softmax" over one axis: y = exp(x - max) / sum(exp(x - max)).
#pragma once

#include <cstdint>
#include <vector>

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

// "SoftmaxMask": Softmax over `axis` of the positions whose mask (the second
// input, broadcast to the first) is not 0; masked positions give 0, and a
// column with no unmasked position gives 0 everywhere. The same as filling
// the masked scores with -infinity first, without the NaN of an all-masked
// column.
template <typename T>
class SoftmaxMaskLayer : public SoftmaxLayer<T> {
 public:
  void Reshape() override;
  bool InPlaceSafe() const override { return false; }

 protected:
  void Run() override;

 private:
  std::vector<int64_t> dims_, mask_strides_;
};

}  // namespace qzdl
