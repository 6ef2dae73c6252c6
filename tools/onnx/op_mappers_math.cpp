// Arithmetic with broadcasting, variadic element-wise ops, Pow, ReduceMean.
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cctype>
#include <set>

#include "tools/onnx/converter.h"

namespace qzdl::onnx_import {

namespace {

using json11::Json;

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char ch) { return std::tolower(ch); });
  return s;
}

// Per-channel values of constant `t` for an input of shape `x` (channels on
// axis 1): true when every other axis of t is 1 (a scalar counts).
bool ChannelValues(const ConstTensor& t, const Shape& x, std::vector<double>* values) {
  if (x.size() < 2 || t.dims.size() > x.size()) return false;
  const size_t offset = x.size() - t.dims.size();
  bool per_channel = false;
  for (size_t k = 0; k < t.dims.size(); ++k) {
    if (t.dims[k] == 1) continue;
    if (k + offset != 1 || t.dims[k] != x[1]) return false;
    per_channel = true;
  }
  values->resize(x[1]);
  for (int64_t ch = 0; ch < x[1]; ++ch) (*values)[ch] = t.Get(per_channel ? ch : 0);
  return true;
}

// x (op) t or t (op) x as a "Scale" layer; false when t is not per channel.
bool TryScale(Converter& c, int dyn, const ConstTensor& t) {
  const std::string& op = c.Op();
  const Shape& x = c.InShape(dyn);
  std::vector<double> v;
  if (!ChannelValues(t, x, &v)) return false;
  const bool const_first = dyn == 1;
  if (op == "Div" && const_first) return false;
  const size_t n = v.size();
  std::vector<float> scale(n, 1.0f), bias(n, 0.0f);
  bool has_bias = false;
  for (size_t k = 0; k < n; ++k) {
    if (op == "Mul") {
      scale[k] = static_cast<float>(v[k]);
    } else if (op == "Div") {
      scale[k] = static_cast<float>(1.0 / static_cast<double>(static_cast<float>(v[k])));
    } else if (op == "Add") {
      bias[k] = static_cast<float>(v[k]), has_bias = true;
    } else if (op == "Sub") {
      has_bias = true;
      if (const_first) {
        scale[k] = -1.0f, bias[k] = static_cast<float>(v[k]);
      } else {
        bias[k] = -static_cast<float>(v[k]);
      }
    }
  }
  const std::string layer = c.Emit("Scale", {c.In(dyn)}, {c.Out(0)}, {{"bias_term", has_bias}});
  c.Weight(layer, "scale", {static_cast<int>(n)}, scale);
  if (has_bias) c.Weight(layer, "bias", {static_cast<int>(n)}, bias);
  return true;
}

void MapBinary(Converter& c) {
  c.Ignore("broadcast");
  c.Ignore("axis");
  if (c.HasAttr("axis")) c.Fail("attribute \"axis\" (legacy broadcast) is not supported");
  const std::string& op = c.Op();
  const bool ca = c.IsConst(0), cb = c.IsConst(1);
  if (ca != cb) {
    const int dyn = ca ? 1 : 0;
    const ConstTensor& t = c.Const(1 - dyn, "operand");
    const Shape out = BroadcastShapes(c.InShape(dyn), t.dims);
    if (out == c.InShape(dyn) && TryScale(c, dyn, t)) return;
  }
  const std::string a = c.In(0), b = c.In(1);
  const bool same = c.InShape(0) == c.InShape(1);
  if (same && !ca && !cb && op != "Div") {
    Json::object p = {{"operation", op == "Mul" ? "prod" : "sum"}};
    if (op == "Sub") p["coeff"] = Json::array{1, -1};
    c.Emit("Eltwise", {a, b}, {c.Out(0)}, p);
    return;
  }
  c.Emit("BroadcastOp", {a, b}, {c.Out(0)}, {{"operation", Lower(op)}});
}

void MapVariadic(Converter& c) {
  const std::string& op = c.Op();
  const int n = c.NumInputs();
  if (n == 1) {
    c.Alias(0, c.In(0));
    return;
  }
  bool same = true;
  std::vector<std::string> ins;
  for (int k = 0; k < n; ++k) {
    same &= c.InShape(k) == c.InShape(0);
    ins.push_back(c.In(k));
  }
  if (!same) {
    if (op != "Sum") {
      c.Fail("inputs of different shapes; only Sum broadcasts here");
    }
    std::string acc = ins[0];
    for (int k = 1; k < n; ++k) {
      const std::string next = k + 1 == n ? c.Out(0) : c.NewTensor("sum");
      c.Emit("BroadcastOp", {acc, ins[k]}, {next}, {{"operation", "add"}},
             k + 1 == n ? "" : c.NewLayerName("part"));
      acc = next;
    }
    return;
  }
  if (op == "Sum") {
    c.Emit("Eltwise", ins, {c.Out(0)}, {{"operation", "sum"}});
  } else if (op == "Mean") {
    c.Emit("Eltwise", ins, {c.Out(0)},
           {{"operation", "sum"}, {"coeff", Json::array(n, Json(1.0 / n))}});
  } else if (op == "Max") {
    c.Emit("Eltwise", ins, {c.Out(0)}, {{"operation", "max"}});
  } else {
    // min(a, b, ...) = -max(-a, -b, ...)
    std::vector<std::string> negs;
    for (int k = 0; k < n; ++k) {
      negs.push_back(c.NewTensor("neg"));
      c.Emit("UnaryOp", {ins[k]}, {negs.back()}, {{"operation", "neg"}},
             c.NewLayerName("neg" + std::to_string(k)));
    }
    const std::string m = c.NewTensor("max");
    c.Emit("Eltwise", negs, {m}, {{"operation", "max"}}, c.NewLayerName("max"));
    c.Emit("UnaryOp", {m}, {c.Out(0)}, {{"operation", "neg"}});
  }
}

void MapPow(Converter& c) {
  if (c.IsConst(0)) c.Fail("a constant base is not supported");
  const ConstTensor& e = c.Const(1, "exponent");
  if (e.Count() != 1) c.Fail("only a single constant exponent is supported");
  const double p = e.Get(0);
  if (p == 1.0) {
    c.Alias(0, c.In(0));
  } else if (p == 2.0) {
    c.Emit("UnaryOp", {c.In(0)}, {c.Out(0)}, {{"operation", "square"}});
  } else if (p == 0.5) {
    c.Emit("UnaryOp", {c.In(0)}, {c.Out(0)}, {{"operation", "sqrt"}});
  } else {
    c.Emit("Power", {c.In(0)}, {c.Out(0)}, {{"power", p}});
  }
}

void MapReduceMean(Converter& c) {
  const int64_t rank = c.InRank(0);
  // Axes are an attribute before opset 18 and an input from then on.
  std::vector<int64_t> axes = c.Ints("axes");
  if (c.HasInput(1)) axes = c.Const(1, "axes").Ints();
  const bool keepdims = c.Int("keepdims", 1) != 0;
  if (axes.empty() && c.Int("noop_with_empty_axes", 0) != 0) {
    c.Alias(0, c.In(0));
    return;
  }
  std::set<int64_t> set;
  for (int64_t a : axes) set.insert(NormalizeAxis(c, a, rank, "axes"));
  if (set.empty()) {
    for (int64_t k = 0; k < rank; ++k) set.insert(k);
  }
  if (!keepdims && static_cast<int64_t>(set.size()) == rank) {
    c.Fail(
        "the output would be a scalar, which the runtime does not hold (keepdims is 0 and "
        "every axis is reduced)");
  }
  if (rank == 4 && set == std::set<int64_t>{2, 3}) {
    // The mean over H and W is global average pooling.
    Json::object p = {{"pool", "ave"}, {"global_pooling", true}};
    if (keepdims) {
      c.Emit("Pooling", {c.In(0)}, {c.Out(0)}, p);
    } else {
      const std::string pooled = c.NewTensor("pooled");
      c.Emit("Pooling", {c.In(0)}, {pooled}, p, c.NewLayerName());
      c.Emit("Flatten", {pooled}, {c.Out(0)}, {{"axis", 1}}, c.NewLayerName("flatten"));
    }
    return;
  }
  c.Emit(
      "ReduceMean", {c.In(0)}, {c.Out(0)},
      {{"axes", JsonInts(std::vector<int64_t>(set.begin(), set.end()))}, {"keepdims", keepdims}});
}

}  // namespace

void AddMathMappers(MapperTable& t) {
  for (const char* op : {"Add", "Sub", "Mul", "Div"}) t[op] = MapBinary;
  for (const char* op : {"Sum", "Mean", "Max", "Min"}) t[op] = MapVariadic;
  t["Pow"] = MapPow;
  t["ReduceMean"] = MapReduceMean;
}

}  // namespace qzdl::onnx_import
