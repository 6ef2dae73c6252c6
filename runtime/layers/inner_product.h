// Fully connected layer.
#pragma once

#include "runtime/layer.h"

namespace qzdl {

// "InnerProduct": y[n][o] = sum_k x[n][k] * W(o, k) + bias[o], where k runs
// over all of an item's elements (K = x.Count(1)); the output is [N,
// num_output].
// Weights: "weight" [num_output, K] ([K, num_output] with transpose), "bias"
// [num_output] when bias_term.
template <typename T>
class InnerProductLayer : public Layer<T> {
 public:
  std::string GetTypeDetail() override;
  // num_output, also with transpose (where weight dim 0 is K).
  int GetChannelNum() override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;

  int NumOutput() const { return num_output_; }
  bool BiasTerm() const { return bias_term_; }
  bool Transpose() const { return transpose_; }
  // Items and values per item at the last reshape.
  int Batch() const { return batch_; }
  int K() const { return k_; }

 protected:
  void Run() override;

 private:
  int num_output_ = 0;
  bool bias_term_ = true;
  bool transpose_ = false;
  int batch_ = 0;
  int k_ = 0;
};

}  // namespace qzdl
