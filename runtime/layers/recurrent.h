// Recurrent layers: "LSTM" (one direction, forward or reverse) and
// "BiLSTM" (both directions), with the gate order and equations of ONNX's
// LSTM (input, output, forget, cell; sigmoid, tanh, tanh):
//   i = sigmoid(Wi x + Ri h + Wbi + Rbi + Pi . c)
//   f = sigmoid(Wf x + Rf h + Wbf + Rbf + Pf . c)    (1 - i with input_forget)
//   g = tanh(Wc x + Rc h + Wbc + Rbc)
//   c' = f . c + i . g
//   o = sigmoid(Wo x + Ro h + Wbo + Rbo + Po . c')
//   h' = o . tanh(c')
// The pre-activations are clipped to [-clip, clip] when clip > 0.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

// Inputs: x [seq, batch, input], then optionally the initial hidden and
// cell states, each [directions, batch, hidden] (zeros without them).
// Outputs: y [seq, directions, batch, hidden], then optionally the last
// hidden and cell states, [directions, batch, hidden].
// Weights: "W" [directions, 4 * hidden, input], "R" [directions, 4 *
// hidden, hidden], with bias_term "B" [directions, 8 * hidden] (the input
// and the recurrent bias), with has_peepholes "P" [directions, 3 * hidden]
// (input, output, forget).
template <typename T>
class LSTMLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  // "LSTM(forward)", "LSTM(reverse)" or "BiLSTM".
  std::string GetTypeDetail() override;

 protected:
  void Run() override;

 private:
  int hidden_ = 0;
  bool reverse_ = false;
  int directions_ = 1;
  float clip_ = 0.0f;
  bool input_forget_ = false;
  bool bias_term_ = true;
  bool peepholes_ = false;
  // Set at Reshape.
  int seq_ = 0, batch_ = 0, input_ = 0;
  std::vector<float> gates_, h_, c_;
};

}  // namespace qzdl
