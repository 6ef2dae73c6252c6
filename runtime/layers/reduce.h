// Reductions over axes: "ReduceMean" (the mean), "Reduce" (sum, mean, max,
// min or product, by `operation`) and "ReduceArgs" (the index of the
// largest or smallest value along one axis).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

// `axes` lists the reduced axes (negative counts from the end); absent or
// empty means every axis. With `keepdims` the reduced axes stay as size 1,
// otherwise they are removed (at least one axis must remain).
template <typename T>
class ReduceLayer : public Layer<T> {
 public:
  enum class Op { kMean, kSum, kMax, kMin, kProd };

  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // "ReduceMean", or "Reduce(<operation>)".
  std::string GetTypeDetail() override;
  const std::vector<int>& Axes() const { return axes_; }
  bool KeepDims() const { return keepdims_; }
  Op Operation() const { return op_; }

 protected:
  void Run() override;

 private:
  template <typename Acc>
  void RunWith();

  Op op_ = Op::kMean;
  std::string op_name_ = "mean";
  std::vector<int> axes_;
  bool keepdims_ = true;
  // Set at Reshape: kept and reduced axes, neighbours of the same kind merged
  // and size-1 axes left out (each list has at least one entry, a size-1 axis
  // of stride 0 when there is nothing else), with their input strides.
  std::vector<int64_t> kept_dims_, kept_strides_;
  std::vector<int64_t> red_dims_, red_strides_;
  int64_t reduce_count_ = 1;
};

// The layer of "ReduceMean" (its operation is always the mean).
template <typename T>
using ReduceMeanLayer = ReduceLayer<T>;

// "ReduceArgs": along `axis`, the index (as a float) of the largest
// ("argmax") or smallest ("argmin") value, the first one of equal values or
// with `select_last_index` the last; `keepdims` keeps the axis as size 1.
template <typename T>
class ReduceArgsLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // "ReduceArgs(argmax)" or "ReduceArgs(argmin)".
  std::string GetTypeDetail() override;

 protected:
  void Run() override;

 private:
  bool max_ = true;
  int axis_param_ = 0;
  bool keepdims_ = true;
  bool last_ = false;
  // Set at Reshape: the input as [outer, count, inner] around the axis.
  int64_t outer_ = 1, count_ = 1, inner_ = 1;
};

}  // namespace qzdl
