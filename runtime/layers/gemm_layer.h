// "Gemm": ONNX's Gemm with constant B and C, Y = alpha * A' * B' + beta * C,
// A' = A or A transposed (transA), B' = B or B transposed (transB).
#pragma once

#include "runtime/layer.h"

namespace qzdl {

// Input A [M, K] ([K, M] with transA); output Y [M, N]. Weights: "B" [K, N]
// ([N, K] with transB) and, with bias_term, "C" [N] (added to every row).
template <typename T>
class GemmLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;

 protected:
  void Run() override;

 private:
  int n_ = 0;
  bool trans_a_ = false, trans_b_ = false, bias_term_ = true;
  float alpha_ = 1.0f, beta_ = 1.0f;
  int m_ = 0, k_ = 0;  // set at Reshape
};

}  // namespace qzdl
