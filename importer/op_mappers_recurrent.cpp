// LSTM onto the runtime's "LSTM" and "BiLSTM" layers, GRU onto "Gru".
#include <onnx/onnx_pb.h>

#include <string>
#include <vector>

#include "importer/mapping_context.h"

namespace qzdl::onnx_import {

namespace {

using json11::Json;

constexpr int64_t kMaxHidden = 65536;

// A constant operand of exactly `dims`, as floats.
std::vector<float> Operand(MappingContext& c, int k, const std::string& what, const Shape& dims) {
  const ConstTensor& t = c.Const(k, what);
  if (t.dims != dims) {
    c.Fail("input " + std::to_string(k) + " (" + what + ") has shape " + DimsString(t.dims) +
           "; the operator's attributes and input give " + DimsString(dims));
  }
  return t.Floats();
}

// What LSTM and GRU share: hidden_size, direction (with the number of
// directions), layout, the default activations (`defaults` per direction),
// clip. Fills `param` and returns the number of directions.
int64_t RecurrentParams(MappingContext& c, const std::vector<std::string>& defaults,
                        Json::object* param, int64_t* hidden) {
  *hidden = c.Int("hidden_size", 0);
  if (*hidden < 1 || *hidden > kMaxHidden) {
    c.BadAttr("hidden_size", std::to_string(*hidden),
              "it must be in [1, " + std::to_string(kMaxHidden) + "]");
  }
  const std::string direction = c.Str("direction", "forward");
  if (direction != "forward" && direction != "reverse" && direction != "bidirectional") {
    c.BadAttr("direction", Quote(direction));
  }
  const int64_t dirs = direction == "bidirectional" ? 2 : 1;
  const int64_t layout = c.Int("layout", 0);
  if (layout != 0) {
    c.BadAttr("layout", std::to_string(layout), "only 0, [sequence, batch, input], is supported");
  }
  const std::vector<std::string> acts = c.Strs("activations");
  for (size_t k = 0; k < acts.size(); ++k) {
    if (acts.size() != defaults.size() * dirs || acts[k] != defaults[k % defaults.size()]) {
      std::string list, want;
      for (const std::string& a : acts) list += (list.empty() ? "" : ", ") + Quote(a);
      for (const std::string& a : defaults) want += (want.empty() ? "" : ", ") + a;
      c.BadAttr("activations", "[" + list + "]", "only " + want + " per direction");
    }
  }
  c.Ignore("activation_alpha");  // used by none of the default activations
  c.Ignore("activation_beta");
  (*param)["hidden_size"] = static_cast<int>(*hidden);
  if (c.HasAttr("clip")) {
    const float clip = c.Float("clip", 0.0f);
    if (!(clip > 0.0f)) c.BadAttr("clip", std::to_string(clip), "it must be positive");
    (*param)["clip"] = clip;
  }
  if (dirs == 1 || c.Op() == "GRU") (*param)["direction"] = direction;
  return dirs;
}

// sequence_lens, when given, must be the whole sequence everywhere.
void CheckFullSequences(MappingContext& c, int k, int64_t seq) {
  if (!c.HasInput(k)) return;
  const ConstTensor& lens = c.Const(k, "sequence_lens");
  for (int64_t i = 0; i < lens.Count(); ++i) {
    if (lens.GetInt(i) != seq) {
      c.Fail("sequence_lens holds " + std::to_string(lens.GetInt(i)) +
             ", not the sequence length " + std::to_string(seq) +
             "; only sequences of full length are supported");
    }
  }
}

// The layer's outputs up to the last one used among the first `n`; unused
// ones get names of their own.
std::vector<std::string> RecurrentOutputs(MappingContext& c, int n) {
  static const char* kNames[] = {"y", "y_h", "y_c"};
  int last = 0;
  for (int k = 0; k < n && k < c.NumOutputs(); ++k)
    if (c.OutputUsed(k)) last = k;
  std::vector<std::string> outs;
  for (int k = 0; k <= last; ++k) outs.push_back(c.OutputUsed(k) ? c.Out(k) : c.NewTensor(kNames[k]));
  return outs;
}

void MapLSTM(MappingContext& c) {
  Json::object param;
  int64_t hidden = 0;
  const int64_t dirs = RecurrentParams(c, {"Sigmoid", "Tanh", "Tanh"}, &param, &hidden);
  if (c.Int("input_forget", 0) != 0) param["input_forget"] = true;

  const Shape& x = c.InShape(0);
  if (x.size() != 3) c.Fail("input X has shape " + DimsString(x) + "; it must be [sequence, batch, input]");
  const int64_t seq = x[0], input = x[2];
  const std::vector<float> w = Operand(c, 1, "W", {dirs, 4 * hidden, input});
  const std::vector<float> r = Operand(c, 2, "R", {dirs, 4 * hidden, hidden});
  std::vector<float> b, p;
  if (c.HasInput(3)) b = Operand(c, 3, "B", {dirs, 8 * hidden});
  param["bias_term"] = c.HasInput(3);
  CheckFullSequences(c, 4, seq);
  if (c.HasInput(7)) {
    p = Operand(c, 7, "P", {dirs, 3 * hidden});
    param["has_peepholes"] = true;
  }
  std::vector<std::string> ins = {c.In(0)};
  if (c.HasInput(6) && !c.HasInput(5)) {
    c.Fail("initial_c without initial_h is not supported");
  }
  if (c.HasInput(5)) ins.push_back(c.In(5));
  if (c.HasInput(6)) ins.push_back(c.In(6));
  const std::vector<std::string> outs = RecurrentOutputs(c, 3);
  const std::string layer = c.Emit(dirs == 2 ? "BiLSTM" : "LSTM", ins, outs, param);
  const int d = static_cast<int>(dirs), h = static_cast<int>(hidden), i = static_cast<int>(input);
  c.Weight(layer, "W", {d, 4 * h, i}, w);
  c.Weight(layer, "R", {d, 4 * h, h}, r);
  if (!b.empty()) c.Weight(layer, "B", {d, 8 * h}, b);
  if (!p.empty()) c.Weight(layer, "P", {d, 3 * h}, p);
}

void MapGRU(MappingContext& c) {
  Json::object param;
  int64_t hidden = 0;
  const int64_t dirs = RecurrentParams(c, {"Sigmoid", "Tanh"}, &param, &hidden);
  if (c.Int("linear_before_reset", 0) != 0) param["linear_before_reset"] = true;
  const Shape& x = c.InShape(0);
  if (x.size() != 3) c.Fail("input X has shape " + DimsString(x) + "; it must be [sequence, batch, input]");
  const int64_t seq = x[0], input = x[2];
  const std::vector<float> w = Operand(c, 1, "W", {dirs, 3 * hidden, input});
  const std::vector<float> r = Operand(c, 2, "R", {dirs, 3 * hidden, hidden});
  std::vector<float> b;
  if (c.HasInput(3)) b = Operand(c, 3, "B", {dirs, 6 * hidden});
  param["bias_term"] = c.HasInput(3);
  CheckFullSequences(c, 4, seq);
  std::vector<std::string> ins = {c.In(0)};
  if (c.HasInput(5)) ins.push_back(c.In(5));
  const std::string layer = c.Emit("Gru", ins, RecurrentOutputs(c, 2), param);
  const int d = static_cast<int>(dirs), h = static_cast<int>(hidden), i = static_cast<int>(input);
  c.Weight(layer, "W", {d, 3 * h, i}, w);
  c.Weight(layer, "R", {d, 3 * h, h}, r);
  if (!b.empty()) c.Weight(layer, "B", {d, 6 * h}, b);
}

}  // namespace

void AddRecurrentMappers(MapperTable& t) {
  t["LSTM"] = MapLSTM;
  t["GRU"] = MapGRU;
}

}  // namespace qzdl::onnx_import
