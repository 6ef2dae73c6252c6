#include "runtime/layers/recurrent.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

constexpr int kMaxHidden = 65536;

// hidden_size and clip, as every recurrent layer reads them. Recurrent
// layers of real models have at most a few thousand units; the bound keeps
// the weight shapes and the gate buffers far inside int.
void ReadUnits(const ParamReader& param, int* hidden, float* clip) {
  *hidden = param.RequiredInt("hidden_size");
  if (*hidden < 1 || *hidden > kMaxHidden)
    param.Fail("param \"hidden_size\" must be in [1, " + std::to_string(kMaxHidden) + "], got " +
               std::to_string(*hidden));
  *clip = param.Float("clip", 0.0f);
  if (!(*clip >= 0.0f) || !std::isfinite(*clip))
    param.Fail("param \"clip\" must be a finite number >= 0 (0: no clipping), got " +
               std::to_string(*clip));
}

// Checks the sequence input x [sequence, batch, input] (and its feature
// count against the weights, once they exist) and the state inputs after
// it; sizes the outputs.
void ShapeSequence(Layer<float>* layer, int directions, int hidden, int* seq, int* batch,
                   int* input) {
  const Data<float>* x = layer->GetInputs()[0];
  if (x->NumAxes() != 3)
    layer->Fail("input \"" + x->GetName() + "\" has shape " + DimsToString(x->GetDims()) +
                "; it must be [sequence, batch, input]");
  if (!layer->GetWeights().empty() && x->GetDim(2) != *input)
    layer->Fail("input \"" + x->GetName() + "\" now has " + std::to_string(x->GetDim(2)) +
                " features, the weights were made for " + std::to_string(*input));
  *seq = x->GetDim(0);
  *batch = x->GetDim(1);
  *input = x->GetDim(2);
  const std::vector<int> state = {directions, *batch, hidden};
  for (size_t k = 1; k < layer->GetInputs().size(); ++k) {
    const Data<float>* s = layer->GetInputs()[k];
    if (s->GetDims() != state)
      layer->Fail("input \"" + s->GetName() + "\" (the initial " + (k == 1 ? "hidden" : "cell") +
                  " state) has shape " + DimsToString(s->GetDims()) + "; it must be " +
                  DimsToString(state));
  }
  layer->GetOutputs()[0]->Resize({*seq, directions, *batch, hidden});
  for (size_t k = 1; k < layer->GetOutputs().size(); ++k) layer->GetOutputs()[k]->Resize(state);
}

}  // namespace

template <>
void LSTMLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 3, 1, 3);
  ReadUnits(param, &hidden_, &clip_);
  if (this->GetType() == "BiLSTM") {
    if (param.Has("direction")) param.Fail("param \"direction\" does not apply to BiLSTM");
    directions_ = 2;
  } else {
    reverse_ = param.Choice("direction", "forward", {"forward", "reverse"}) == "reverse";
  }
  input_forget_ = param.Bool("input_forget", false);
  bias_term_ = param.Bool("bias_term", true);
  peepholes_ = param.Bool("has_peepholes", false);
}

template <>
std::string LSTMLayer<float>::GetTypeDetail() {
  if (directions_ == 2) return "BiLSTM";
  return reverse_ ? "LSTM(reverse)" : "LSTM(forward)";
}

template <>
void LSTMLayer<float>::Reshape() {
  ShapeSequence(this, directions_, hidden_, &seq_, &batch_, &input_);
  gates_.assign(static_cast<size_t>(batch_) * 4 * hidden_, 0.0f);
  h_.assign(static_cast<size_t>(batch_) * hidden_, 0.0f);
  c_.assign(h_.size(), 0.0f);
}

template <>
std::vector<WeightSpec> LSTMLayer<float>::WeightSpecs() {
  std::vector<WeightSpec> specs = {{"W", {directions_, 4 * hidden_, input_}},
                                   {"R", {directions_, 4 * hidden_, hidden_}}};
  if (bias_term_) specs.push_back({"B", {directions_, 8 * hidden_}});
  if (peepholes_) specs.push_back({"P", {directions_, 3 * hidden_}});
  return specs;
}

namespace {

double Sigmoid(double v) { return 1.0 / (1.0 + std::exp(-v)); }

}  // namespace

template <>
void LSTMLayer<float>::Run() {
  const float* x = this->in(0)->GetCpuData();
  const float* h0 = this->GetInputs().size() > 1 ? this->in(1)->GetCpuData() : nullptr;
  const float* c0 = this->GetInputs().size() > 2 ? this->in(2)->GetCpuData() : nullptr;
  float* y = this->out(0)->GetCpuData();
  float* yh = this->GetOutputs().size() > 1 ? this->out(1)->GetCpuData() : nullptr;
  float* yc = this->GetOutputs().size() > 2 ? this->out(2)->GetCpuData() : nullptr;
  const int H = hidden_, B = batch_, I = input_, D = directions_;
  int blob = 0;
  const float* W = this->weight(blob++)->GetCpuData();
  const float* R = this->weight(blob++)->GetCpuData();
  const float* bias = bias_term_ ? this->weight(blob++)->GetCpuData() : nullptr;
  const float* P = peepholes_ ? this->weight(blob++)->GetCpuData() : nullptr;
  const double clip = clip_;
  float* gates = gates_.data();
  float* hs = h_.data();
  float* cs = c_.data();
  for (int d = 0; d < D; ++d) {
    const bool backward = d == 1 || reverse_;
    const float* Wd = W + int64_t(d) * 4 * H * I;
    const float* Rd = R + int64_t(d) * 4 * H * H;
    const float* bd = bias != nullptr ? bias + int64_t(d) * 8 * H : nullptr;
    const float* Pd = P != nullptr ? P + int64_t(d) * 3 * H : nullptr;
    const size_t state = static_cast<size_t>(B) * H;
    for (size_t k = 0; k < state; ++k) {
      hs[k] = h0 != nullptr ? h0[d * state + k] : 0.0f;
      cs[k] = c0 != nullptr ? c0[d * state + k] : 0.0f;
    }
    for (int s = 0; s < seq_; ++s) {
      const int t = backward ? seq_ - 1 - s : s;
      // Pre-activations of every gate of every item: sums in double, one
      // task per item.
      ParallelFor(B, [=](int64_t begin, int64_t end) {
        for (int64_t b = begin; b < end; ++b) {
          const float* xt = x + (int64_t(t) * B + b) * I;
          const float* hb = hs + b * H;
          for (int g = 0; g < 4 * H; ++g) {
            double acc = bd != nullptr ? double(bd[g]) + double(bd[4 * H + g]) : 0.0;
            const float* wg = Wd + int64_t(g) * I;
            for (int k = 0; k < I; ++k) acc += double(wg[k]) * xt[k];
            const float* rg = Rd + int64_t(g) * H;
            for (int j = 0; j < H; ++j) acc += double(rg[j]) * hb[j];
            gates[b * 4 * H + g] = static_cast<float>(acc);
          }
        }
      });
      for (int b = 0; b < B; ++b) {
        const float* a = gates + int64_t(b) * 4 * H;
        float* hb = hs + int64_t(b) * H;
        float* cb = cs + int64_t(b) * H;
        for (int j = 0; j < H; ++j) {
          auto pre = [&](int gate, double peep) {
            double v = double(a[gate * H + j]) + peep;
            if (clip > 0) v = std::min(clip, std::max(-clip, v));
            return v;
          };
          const double c_old = cb[j];
          const double i = Sigmoid(pre(0, Pd != nullptr ? Pd[j] * c_old : 0.0));
          const double f =
              input_forget_ ? 1.0 - i : Sigmoid(pre(2, Pd != nullptr ? Pd[2 * H + j] * c_old : 0.0));
          const double g = std::tanh(pre(3, 0.0));
          const double c_new = f * c_old + i * g;
          const double o = Sigmoid(pre(1, Pd != nullptr ? Pd[H + j] * c_new : 0.0));
          cb[j] = static_cast<float>(c_new);
          hb[j] = static_cast<float>(o * std::tanh(c_new));
        }
      }
      for (int b = 0; b < B; ++b)
        std::copy(hs + int64_t(b) * H, hs + int64_t(b + 1) * H,
                  y + ((int64_t(t) * D + d) * B + b) * H);
    }
    if (yh != nullptr) std::copy(hs, hs + state, yh + d * state);
    if (yc != nullptr) std::copy(cs, cs + state, yc + d * state);
  }
}

// ---- Gru -------------------------------------------------------------------

template <>
void GruLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 2, 1, 2);
  ReadUnits(param, &hidden_, &clip_);
  direction_ = param.Choice("direction", "forward", {"forward", "reverse", "bidirectional"});
  directions_ = direction_ == "bidirectional" ? 2 : 1;
  linear_before_reset_ = param.Bool("linear_before_reset", false);
  bias_term_ = param.Bool("bias_term", true);
}

template <>
std::string GruLayer<float>::GetTypeDetail() {
  return "Gru(" + direction_ + ")";
}

template <>
void GruLayer<float>::Reshape() {
  ShapeSequence(this, directions_, hidden_, &seq_, &batch_, &input_);
  gates_.assign(static_cast<size_t>(batch_) * 4 * hidden_, 0.0f);
  h_.assign(static_cast<size_t>(batch_) * hidden_, 0.0f);
}

template <>
std::vector<WeightSpec> GruLayer<float>::WeightSpecs() {
  std::vector<WeightSpec> specs = {{"W", {directions_, 3 * hidden_, input_}},
                                   {"R", {directions_, 3 * hidden_, hidden_}}};
  if (bias_term_) specs.push_back({"B", {directions_, 6 * hidden_}});
  return specs;
}

template <>
void GruLayer<float>::Run() {
  const float* x = this->in(0)->GetCpuData();
  const float* h0 = this->GetInputs().size() > 1 ? this->in(1)->GetCpuData() : nullptr;
  float* y = this->out(0)->GetCpuData();
  float* yh = this->GetOutputs().size() > 1 ? this->out(1)->GetCpuData() : nullptr;
  const int H = hidden_, B = batch_, I = input_, D = directions_;
  const float* W = this->weight(0)->GetCpuData();
  const float* R = this->weight(1)->GetCpuData();
  const float* bias = bias_term_ ? this->weight(2)->GetCpuData() : nullptr;
  const double clip = clip_;
  const bool lbr = linear_before_reset_;
  // Per item, 4H values: the input parts of z, r and n (with Wb), then the
  // recurrent part of n (with Rbh) as linear_before_reset reads it.
  float* gates = gates_.data();
  float* hs = h_.data();
  auto clipped = [clip](double v) { return clip > 0 ? std::min(clip, std::max(-clip, v)) : v; };
  for (int d = 0; d < D; ++d) {
    const bool backward = d == 1 || direction_ == "reverse";
    const float* Wd = W + int64_t(d) * 3 * H * I;
    const float* Rd = R + int64_t(d) * 3 * H * H;
    const float* bd = bias != nullptr ? bias + int64_t(d) * 6 * H : nullptr;
    const size_t state = static_cast<size_t>(B) * H;
    for (size_t k = 0; k < state; ++k) hs[k] = h0 != nullptr ? h0[d * state + k] : 0.0f;
    for (int s = 0; s < seq_; ++s) {
      const int t = backward ? seq_ - 1 - s : s;
      ParallelFor(B, [=](int64_t begin, int64_t end) {
        for (int64_t b = begin; b < end; ++b) {
          const float* xt = x + (int64_t(t) * B + b) * I;
          float* hb = hs + b * H;
          float* a = gates + b * 4 * H;
          // z and r: input and recurrent parts together.
          for (int g = 0; g < 2 * H; ++g) {
            double acc = bd != nullptr ? double(bd[g]) + double(bd[3 * H + g]) : 0.0;
            for (int k = 0; k < I; ++k) acc += double(Wd[int64_t(g) * I + k]) * xt[k];
            for (int j = 0; j < H; ++j) acc += double(Rd[int64_t(g) * H + j]) * hb[j];
            a[g] = static_cast<float>(1.0 / (1.0 + std::exp(-clipped(acc))));
          }
          for (int j = 0; j < H; ++j) {
            const int g = 2 * H + j;
            double in = bd != nullptr ? double(bd[g]) : 0.0;
            for (int k = 0; k < I; ++k) in += double(Wd[int64_t(g) * I + k]) * xt[k];
            double rec = bd != nullptr ? double(bd[3 * H + g]) : 0.0;
            const float* rg = Rd + int64_t(g) * H;
            if (lbr) {
              double sum = 0.0;
              for (int m = 0; m < H; ++m) sum += double(rg[m]) * hb[m];
              rec = a[H + j] * (sum + rec);
            } else {
              for (int m = 0; m < H; ++m) rec += double(rg[m]) * (double(a[H + m]) * hb[m]);
            }
            a[2 * H + j] = static_cast<float>(std::tanh(clipped(in + rec)));
          }
          // The new state only after every gate has read the old one.
          for (int j = 0; j < H; ++j) {
            const double z = a[j];
            hb[j] = static_cast<float>((1.0 - z) * a[2 * H + j] + z * hb[j]);
          }
          std::copy(hb, hb + H, y + ((int64_t(t) * D + d) * B + b) * H);
        }
      });
    }
    if (yh != nullptr) std::copy(hs, hs + state, yh + d * state);
  }
}

}  // namespace qzdl
