// Element-wise combination of several tensors: "Eltwise" and "Mean" for
// inputs of one shape, "BroadcastOp" for two inputs with numpy-style
// broadcasting.
#pragma once

#include <string>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

// "Eltwise": y = sum(coeff[k] * x_k), prod(x_k) or max(x_k) over N >= 2
// inputs of identical shape.
template <typename T>
class EltwiseLayer : public Layer<T> {
 public:
  enum class Op { kSum, kProd, kMax };

  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
  // "Eltwise(sum)", "Eltwise(prod)" or "Eltwise(max)".
  std::string GetTypeDetail() override;
  Op Operation() const { return op_; }
  const std::vector<float>& Coeffs() const { return coeff_; }
  bool FuseEpilogue(const Epilogue& e, Data<T>* dst, ChannelAffine* affine) override;
  Data<T>* FusedDestination() const override { return fused_dst_; }
  // Inputs of one shape, no per-channel epilogue.
  bool LayoutAgnostic() const override { return true; }

 protected:
  void Run() override;

 private:
  Op op_ = Op::kSum;
  std::vector<float> coeff_;           // one per input; all 1 unless given
  std::vector<const float*> sources_;  // input pointers, refreshed at each Run
  Epilogue epilogue_;
  Data<T>* fused_dst_ = nullptr;  // where the output goes while fused
};

// "Mean": y = (x_1 + ... + x_N) / N over N >= 1 inputs of identical shape
// (ONNX Mean without broadcasting); summed in input order in float, then
// divided by N.
template <typename T>
class MeanLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }

 protected:
  void Run() override;

 private:
  std::vector<const float*> sources_;  // input pointers, refreshed at each Run
};

// "BroadcastOp": y = a (op) b with the shapes of a and b broadcast against
// each other (trailing axes aligned, missing leading axes read as 1).
template <typename T>
class BroadcastOpLayer : public Layer<T> {
 public:
  enum class Op {
    kAdd,
    kSub,
    kMul,
    kDiv,
    kEqual,
    kMax,
    kMin,
    kPow,
    kGreater,
    kLess,
    kGreaterEqual,
    kLessEqual
  };

  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
  // "BroadcastOp(add)", "BroadcastOp(sub)", ... "BroadcastOp(less_equal)".
  std::string GetTypeDetail() override;
  Op Operation() const { return op_; }
  // The broadcast of the last Reshape (see below), for kernels on other
  // element types.
  const std::vector<int64_t>& MergedDims() const { return dims_; }
  const std::vector<int64_t>& StridesA() const { return stride_a_; }
  const std::vector<int64_t>& StridesB() const { return stride_b_; }

 protected:
  void Run() override;

 private:
  Op op_ = Op::kAdd;
  std::string op_name_;
  // Set at Reshape: the output seen as dims_ (adjacent axes with the same
  // broadcast pattern merged), with per-axis element strides of a and b
  // (0 along an axis the input repeats).
  std::vector<int64_t> dims_;
  std::vector<int64_t> stride_a_;
  std::vector<int64_t> stride_b_;
};

}  // namespace qzdl
