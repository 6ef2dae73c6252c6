// "Gemm": ONNX's Gemm, Y = alpha * A' * B' + beta * C, B and C weights or inputs,
// A' = A or A transposed (transA), B' = B or B transposed (transB).
#pragma once

#include "runtime/layer.h"

namespace qzdl {

// Input A [M, K] ([K, M] with transA); output Y [M, N]. Weights: "B" [K, N]
// ([N, K] with transB) and, with bias_term, "C" [N] (added to every row).
// Or B computed: the second input (no weights), and C, when given, the
// third input, of any shape that broadcasts to [M, N].
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
  bool trans_a_ = false, trans_b_ = false, bias_term_ = true, computed_b_ = false;
  int want_n_ = 0;                 // num_output as given (0: none, B an input)
  int64_t c_row_ = 0, c_col_ = 0;  // strides of an input C along M and N
  float alpha_ = 1.0f, beta_ = 1.0f;
  int m_ = 0, k_ = 0;  // set at Reshape
};

}  // namespace qzdl
