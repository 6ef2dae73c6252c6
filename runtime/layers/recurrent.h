// Recurrent layers: "LSTM" (one direction, forward or reverse), "BiLSTM"
// (both directions) and "Gru" (any of the three), with the gate orders and
// equations of ONNX's LSTM and GRU. LSTM (input, output, forget, cell;
// sigmoid, tanh, tanh):
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

// "Gru": ONNX's GRU (gates update z, reset r, hidden h; sigmoid, tanh):
//   z = sigmoid(Wz x + Rz h + Wbz + Rbz)
//   r = sigmoid(Wr x + Rr h + Wbr + Rbr)
//   n = tanh(Wh x + Rh (r . h) + Rbh + Wbh)      linear_before_reset false
//   n = tanh(Wh x + r . (Rh h + Rbh) + Wbh)      linear_before_reset true
//   h' = (1 - z) . n + z . h
// Inputs: x [seq, batch, input], optionally the initial hidden state
// [directions, batch, hidden]. Outputs: y [seq, directions, batch, hidden],
// optionally the last hidden state. Weights: "W" [directions, 3 * hidden,
// input], "R" [directions, 3 * hidden, hidden], with bias_term "B"
// [directions, 6 * hidden].
template <typename T>
class GruLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  // "Gru(forward)", "Gru(reverse)" or "Gru(bidirectional)".
  std::string GetTypeDetail() override;

 protected:
  void Run() override;

 private:
  int hidden_ = 0;
  std::string direction_ = "forward";
  int directions_ = 1;
  float clip_ = 0.0f;
  bool linear_before_reset_ = false;
  bool bias_term_ = true;
  int seq_ = 0, batch_ = 0, input_ = 0;
  std::vector<float> gates_, h_;
};

}  // namespace qzdl
