// "ReduceMean": the mean over a set of axes.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

// `axes` lists the reduced axes (negative counts from the end); absent or
// empty means every axis. With `keepdims` the reduced axes stay as size 1,
// otherwise they are removed (at least one axis must remain).
template <typename T>
class ReduceMeanLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  const std::vector<int>& Axes() const { return axes_; }
  bool KeepDims() const { return keepdims_; }

 protected:
  void Run() override;

 private:
  std::vector<int> axes_;
  bool keepdims_ = true;
  // Set at Reshape: kept and reduced axes, neighbours of the same kind merged
  // and size-1 axes left out (each list has at least one entry, a size-1 axis
  // of stride 0 when there is nothing else), with their input strides.
  std::vector<int64_t> kept_dims_, kept_strides_;
  std::vector<int64_t> red_dims_, red_strides_;
  int64_t reduce_count_ = 1;
};

}  // namespace qzdl
