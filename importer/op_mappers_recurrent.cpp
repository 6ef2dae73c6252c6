// LSTM onto the runtime's "LSTM" and "BiLSTM" layers.
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

void MapLSTM(MappingContext& c) {
  const int64_t hidden = c.Int("hidden_size", 0);
  if (hidden < 1 || hidden > kMaxHidden) {
    c.BadAttr("hidden_size", std::to_string(hidden),
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
    static const char* kDefault[] = {"Sigmoid", "Tanh", "Tanh"};
    if (acts.size() != size_t(3 * dirs) || acts[k] != kDefault[k % 3]) {
      std::string list;
      for (const std::string& a : acts) list += (list.empty() ? "" : ", ") + Quote(a);
      c.BadAttr("activations", "[" + list + "]", "only Sigmoid, Tanh, Tanh per direction");
    }
  }
  c.Ignore("activation_alpha");  // used by none of the default activations
  c.Ignore("activation_beta");
  Json::object param = {{"hidden_size", static_cast<int>(hidden)}};
  if (dirs == 1) param["direction"] = direction;
  if (c.HasAttr("clip")) {
    const float clip = c.Float("clip", 0.0f);
    if (!(clip > 0.0f)) c.BadAttr("clip", std::to_string(clip), "it must be positive");
    param["clip"] = clip;
  }
  if (c.Int("input_forget", 0) != 0) param["input_forget"] = true;

  const Shape& x = c.InShape(0);
  if (x.size() != 3) c.Fail("input X has shape " + DimsString(x) + "; it must be [sequence, batch, input]");
  const int64_t seq = x[0], batch = x[1], input = x[2];
  const std::vector<float> w = Operand(c, 1, "W", {dirs, 4 * hidden, input});
  const std::vector<float> r = Operand(c, 2, "R", {dirs, 4 * hidden, hidden});
  std::vector<float> b, p;
  if (c.HasInput(3)) b = Operand(c, 3, "B", {dirs, 8 * hidden});
  param["bias_term"] = c.HasInput(3);
  if (c.HasInput(4)) {
    const ConstTensor& lens = c.Const(4, "sequence_lens");
    for (int64_t i = 0; i < lens.Count(); ++i) {
      if (lens.GetInt(i) != seq) {
        c.Fail("sequence_lens holds " + std::to_string(lens.GetInt(i)) +
               ", not the sequence length " + std::to_string(seq) +
               "; only sequences of full length are supported");
      }
    }
  }
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
  // The layer's outputs up to the last one used; unused ones get names of
  // their own.
  int last = 0;
  for (int k = 0; k < 3 && k < c.NumOutputs(); ++k)
    if (c.OutputUsed(k)) last = k;
  std::vector<std::string> outs;
  for (int k = 0; k <= last; ++k)
    outs.push_back(c.OutputUsed(k) ? c.Out(k) : c.NewTensor(k == 0 ? "y" : k == 1 ? "y_h" : "y_c"));
  (void)batch;
  const std::string layer = c.Emit(dirs == 2 ? "BiLSTM" : "LSTM", ins, outs, param);
  const int d = static_cast<int>(dirs), h = static_cast<int>(hidden), i = static_cast<int>(input);
  c.Weight(layer, "W", {d, 4 * h, i}, w);
  c.Weight(layer, "R", {d, 4 * h, h}, r);
  if (!b.empty()) c.Weight(layer, "B", {d, 8 * h}, b);
  if (!p.empty()) c.Weight(layer, "P", {d, 3 * h}, p);
}

}  // namespace

void AddRecurrentMappers(MapperTable& t) { t["LSTM"] = MapLSTM; }

}  // namespace qzdl::onnx_import
