// Matrix product of two computed tensors, as in attention blocks.
#pragma once

#include <string>

#include "runtime/kernels/batch_matmul.h"
#include "runtime/layer.h"

namespace qzdl {

// "BatchMatrixMul": y = op(a) x op(b) with numpy matmul semantics. The last
// two axes of each input are its matrix ([M, K] and [K, N]); the axes before
// them are batch axes, broadcast against each other as BroadcastOp does
// (aligned on the right, missing ones read as 1). A 1-d a [K] is one row and
// a 1-d b [K] one column, and that axis is left out of y. transpose_a /
// transpose_b swap the last two axes of a / b first (Gemm's transA, transB).
// y is [batch axes..., M, N]. No weights.
template <typename T>
class BatchMatrixMulLayer : public Layer<T> {
 public:
  // "BatchMatrixMul", with "(transpose_a)", "(transpose_b)" or
  // "(transpose_a, transpose_b)" when they are set.
  std::string GetTypeDetail() override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;

  bool TransposeA() const { return transpose_a_; }
  bool TransposeB() const { return transpose_b_; }
  // The plan of the last Reshape.
  const BatchMatMulGeometry& Geometry() const { return geometry_; }

 protected:
  void Run() override;

 private:
  bool transpose_a_ = false;
  bool transpose_b_ = false;
  BatchMatMulGeometry geometry_;
};

}  // namespace qzdl
