// Arithmetic with broadcasting, variadic element-wise ops, Pow, ReduceMean.
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <limits>
#include <map>
#include <set>

#include "importer/mapping_context.h"

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
bool TryScale(MappingContext& c, int dyn, const ConstTensor& t) {
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

void MapBinary(MappingContext& c) {
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

// Comparisons, which the Add family's BroadcastOp rows do not cover: the
// type "BinaryOp" (the same layer), 1.0 where the relation holds, else 0.0
// (ONNX gives bool; a Cast to float then passes it through).
void MapCompare(MappingContext& c) {
  static const std::map<std::string, std::string> kOperation = {{"Equal", "equal"},
                                                                {"Greater", "greater"},
                                                                {"Less", "less"},
                                                                {"GreaterOrEqual", "greater_equal"},
                                                                {"LessOrEqual", "less_equal"}};
  c.Emit("BinaryOp", {c.In(0), c.In(1)}, {c.Out(0)}, {{"operation", kOperation.at(c.Op())}});
}

void MapVariadic(MappingContext& c) {
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
    // Broadcast pairwise, left to right: add for Sum and Mean (then the
    // mean's 1/n), max or min for those.
    if (op != "Sum" && op != "Mean" && op != "Max" && op != "Min") {
      c.Fail("inputs of different shapes; only Sum, Mean, Max and Min broadcast here");
    }
    const std::string operation = op == "Max" ? "max" : op == "Min" ? "min" : "add";
    const bool mean = op == "Mean";
    std::string acc = ins[0];
    for (int k = 1; k < n; ++k) {
      const bool last = k + 1 == n && !mean;
      const std::string next = last ? c.Out(0) : c.NewTensor(operation);
      c.Emit("BroadcastOp", {acc, ins[k]}, {next}, {{"operation", operation}},
             last ? "" : c.NewLayerName("part"));
      acc = next;
    }
    if (mean) c.Emit("Power", {acc}, {c.Out(0)}, {{"power", 1.0}, {"scale", 1.0 / n}});
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

void MapPow(MappingContext& c) {
  if (c.IsConst(0) || !c.IsConst(1) || c.Const(1, "exponent").Count() != 1 ||
      BroadcastShapes(c.InShape(0), c.InShape(1)) != c.InShape(0)) {
    // A computed exponent, one per element, or a constant base: element by
    // element with broadcasting.
    c.Emit("BroadcastOp", {c.In(0), c.In(1)}, {c.Out(0)}, {{"operation", "pow"}});
    return;
  }
  const ConstTensor& e = c.Const(1, "exponent");
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

// ReduceMean, and the reductions built on a sum: the mean over the axes
// times their element count, between an element-wise step before (square,
// abs, exp) and one after (sqrt, log).
void MapReduce(MappingContext& c) {
  const std::string& op = c.Op();
  const int64_t rank = c.InRank(0);
  // Axes are an attribute before opset 18 (13 for ReduceSum) and an input from then on.
  std::vector<int64_t> axes = c.Ints("axes");
  if (c.HasInput(1)) axes = c.Const(1, "axes").Ints();
  // ONNX keeps the reduced axes for 1 only; other values would make the
  // layers disagree with the shapes of shape inference.
  const int64_t keepdims_value = c.Int("keepdims", 1);
  if (keepdims_value != 0 && keepdims_value != 1) {
    c.BadAttr("keepdims", std::to_string(keepdims_value), "it must be 0 or 1");
  }
  const bool keepdims = keepdims_value == 1;
  std::string before, after;
  if (op == "ReduceSumSquare" || op == "ReduceL2") before = "square";
  if (op == "ReduceL1") before = "abs";
  if (op == "ReduceLogSumExp") before = "exp";
  if (op == "ReduceL2") after = "sqrt";
  if (op == "ReduceLogSum" || op == "ReduceLogSumExp") after = "log";
  const bool noop = c.Int("noop_with_empty_axes", 0) != 0;
  if (axes.empty() && noop) {
    if (!before.empty() || !after.empty()) {
      c.Fail("noop_with_empty_axes is supported for ReduceMean and ReduceSum only");
    }
    c.Alias(0, c.In(0));
    return;
  }
  std::set<int64_t> set;
  for (int64_t a : axes) set.insert(NormalizeAxis(c, a, rank, "axes"));
  if (set.empty()) {
    for (int64_t k = 0; k < rank; ++k) set.insert(k);
  }
  // A reduction of every axis without keepdims gives an ONNX scalar; the
  // net holds it as one element of shape [1], which broadcasts the same way
  // in the element-wise operators that usually follow.
  const bool to_scalar = !keepdims && static_cast<int64_t>(set.size()) == rank;
  if (to_scalar && op != "ReduceMax" && op != "ReduceMin" && op != "ReduceProd" &&
      op != "ReduceMean") {
    c.Fail(
        "the output would be a scalar, which the runtime does not hold (keepdims is 0 and "
        "every axis is reduced)");
  }
  if (to_scalar) {
    Json::object p = {{"axes", JsonInts(std::vector<int64_t>(set.begin(), set.end()))},
                      {"keepdims", true}};
    p["operation"] = op == "ReduceMax"   ? "max"
                     : op == "ReduceMin" ? "min"
                     : op == "ReduceProd" ? "prod"
                                          : "mean";
    const std::string kept = c.NewTensor("kept");
    c.Emit("Reduce", {c.In(0)}, {kept}, p, c.NewLayerName("reduce"));
    c.Emit("Reshape", {kept}, {c.Out(0)}, {{"shapes", Json::array{1}}});
    return;
  }
  if (op == "ReduceMean" && rank == 4 && set == std::set<int64_t>{2, 3}) {
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
  const Json::object reduce = {{"axes", JsonInts(std::vector<int64_t>(set.begin(), set.end()))},
                               {"keepdims", keepdims}};
  if (op == "ReduceMean") {
    c.Emit("ReduceMean", {c.In(0)}, {c.Out(0)}, reduce);
    return;
  }
  if (op == "ReduceMax" || op == "ReduceMin" || op == "ReduceProd") {
    Json::object p = reduce;
    p["operation"] = op == "ReduceMax" ? "max" : op == "ReduceMin" ? "min" : "prod";
    c.Emit("Reduce", {c.In(0)}, {c.Out(0)}, p);
    return;
  }
  std::string x = c.In(0);
  if (!before.empty()) {
    const std::string t = c.NewTensor(before);
    c.Emit("UnaryOp", {x}, {t}, {{"operation", before}}, c.NewLayerName(before));
    x = t;
  }
  Shape reduced_dims;
  for (int64_t a : set) reduced_dims.push_back(c.InShape(0)[a]);
  const int64_t count = CheckedProduct(reduced_dims);
  const std::string mean = c.NewTensor("mean");
  c.Emit("ReduceMean", {x}, {mean}, reduce, c.NewLayerName("mean"));
  const std::string sum = after.empty() ? c.Out(0) : c.NewTensor("sum");
  c.Emit("Power", {mean}, {sum}, {{"scale", static_cast<double>(count)}},
         after.empty() ? "" : c.NewLayerName("sum"));
  if (!after.empty()) c.Emit("UnaryOp", {sum}, {c.Out(0)}, {{"operation", after}});
}

// ArgMax, ArgMin: the index along one axis, as a float.
void MapArgs(MappingContext& c) {
  const int64_t rank = c.InRank(0);
  const int64_t axis = NormalizeAxis(c, c.Int("axis", 0), rank, "axis");
  const int64_t keepdims = c.Int("keepdims", 1);
  if (keepdims != 0 && keepdims != 1) {
    c.BadAttr("keepdims", std::to_string(keepdims), "it must be 0 or 1");
  }
  if (keepdims == 0 && rank == 1) {
    c.Fail("the output would be a scalar, which the runtime does not hold (keepdims is 0 and "
           "the only axis is reduced)");
  }
  const int64_t last = c.Int("select_last_index", 0);
  c.Emit("ReduceArgs", {c.In(0)}, {c.Out(0)},
         {{"operation", c.Op() == "ArgMax" ? "argmax" : "argmin"},
          {"axis", static_cast<int>(axis)},
          {"keepdims", keepdims == 1},
          {"select_last_index", last != 0}});
}

// (x - mean) / sqrt(var + eps) over `axes` of tensor `x` into `out` (with
// `rms`: x / sqrt(mean(x^2) + eps)): ReduceMean, BroadcastOp sub, UnaryOp
// square, ReduceMean, Power (shift eps, power -0.5), BroadcastOp mul. The
// mean and the inverse deviation go to `mean_out` / `inv_out` when given.
// `name` names the last layer ("" for the node's own name).
void EmitNormalize(MappingContext& c, const std::string& x, const std::vector<int64_t>& axes, double eps,
                   bool rms, const std::string& mean_out, const std::string& inv_out,
                   const std::string& out, const std::string& name) {
  const Json::object reduce = {{"axes", JsonInts(axes)}, {"keepdims", true}};
  std::string centred = x;
  if (!rms) {
    const std::string mean = mean_out.empty() ? c.NewTensor("mean") : mean_out;
    c.Emit("ReduceMean", {x}, {mean}, reduce, c.NewLayerName("mean"));
    centred = c.NewTensor("centred");
    c.Emit("BroadcastOp", {x, mean}, {centred}, {{"operation", "sub"}}, c.NewLayerName("centre"));
  }
  const std::string square = c.NewTensor("square");
  c.Emit("UnaryOp", {centred}, {square}, {{"operation", "square"}}, c.NewLayerName("square"));
  const std::string variance = c.NewTensor("variance");
  c.Emit("ReduceMean", {square}, {variance}, reduce, c.NewLayerName("variance"));
  const std::string inv = inv_out.empty() ? c.NewTensor("inv_std") : inv_out;
  c.Emit("Power", {variance}, {inv}, {{"power", -0.5}, {"shift", eps}}, c.NewLayerName("inv_std"));
  c.Emit("BroadcastOp", {centred, inv}, {out}, {{"operation", "mul"}}, name);
}

// LayerNormalization and RMSNormalization over the axes from `axis` on, then
// BroadcastOp products with the scale and the sum with the bias. The Mean and
// InvStdDev outputs are the intermediate tensors.
// Constant `t` broadcast to the row shape `row` and flattened; false when it
// does not broadcast to exactly that shape.
bool RowValues(const ConstTensor& t, const Shape& row, std::vector<float>* out) {
  if (BroadcastShapes(t.dims, row) != row) return false;
  const int64_t n = CheckedProduct(row);
  out->resize(static_cast<size_t>(n));
  const size_t offset = row.size() - t.dims.size();
  for (int64_t i = 0; i < n; ++i) {
    // The element of t that position i of the row reads.
    int64_t rest = i, at = 0, stride = 1;
    for (size_t k = row.size(); k-- > 0;) {
      const int64_t idx = rest % row[k];
      rest /= row[k];
      if (k >= offset) {
        const int64_t d = t.dims[k - offset];
        at += (d == 1 ? 0 : idx) * stride;
        stride *= d;
      }
    }
    (*out)[static_cast<size_t>(i)] = static_cast<float>(t.Get(at));
  }
  return true;
}

void MapNormalization(MappingContext& c) {
  const bool rms = c.Op() == "RMSNormalization";
  const int64_t rank = c.InRank(0);
  const int64_t axis = NormalizeAxis(c, c.Int("axis", -1), rank, "axis");
  const double eps = c.Float("epsilon", 1e-5f);
  c.Int("stash_type", 1);  // sums run in double here whatever it asks
  std::vector<int64_t> axes;
  for (int64_t a = axis; a < rank; ++a) axes.push_back(a);
  // The usual form, constant weights and only the result used: one
  // LayerNorm layer.
  const Shape row(c.InShape(0).begin() + axis, c.InShape(0).end());
  std::vector<float> scale, bias;
  if (!rms && !c.OutputUsed(1) && !c.OutputUsed(2) && c.HasInput(1) && c.IsConst(1) &&
      RowValues(c.Const(1, "scale"), row, &scale) &&
      (!c.HasInput(2) || (c.IsConst(2) && RowValues(c.Const(2, "bias"), row, &bias))) &&
      static_cast<float>(eps) >= 0.0f && CheckedProduct(row) <= INT32_MAX) {
    const bool has_bias = c.HasInput(2);
    const std::string layer = c.Emit("LayerNorm", {c.In(0)}, {c.Out(0)},
                                     {{"axis", static_cast<int>(axis)},
                                      {"eps", eps},
                                      {"bias_term", has_bias}});
    c.Weight(layer, "scale", {static_cast<int>(scale.size())}, scale);
    if (has_bias) c.Weight(layer, "bias", {static_cast<int>(bias.size())}, bias);
    return;
  }
  const bool has_scale = c.HasInput(1), has_bias = !rms && c.HasInput(2);
  const std::string normed = has_scale ? c.NewTensor("normalized") : c.Out(0);
  EmitNormalize(c, c.In(0), axes, eps, rms, !rms && c.OutputUsed(1) ? c.Out(1) : "",
                !rms && c.OutputUsed(2) ? c.Out(2) : "", normed,
                has_scale ? c.NewLayerName("normalize") : "");
  if (!has_scale) return;
  const std::string scaled = has_bias ? c.NewTensor("scaled") : c.Out(0);
  c.Emit("BroadcastOp", {normed, c.In(1)}, {scaled}, {{"operation", "mul"}},
         has_bias ? c.NewLayerName("scale") : "");
  if (has_bias) c.Emit("BroadcastOp", {scaled, c.In(2)}, {c.Out(0)}, {{"operation", "add"}});
}

// GroupNormalization: the input seen as [N, groups, -1] is normalized over its
// last axis, reshaped back, and a Scale layer applies the per-channel scale
// and bias (one value per group before set 21, repeated over its channels).
void MapGroupNormalization(MappingContext& c) {
  const Shape& x = c.InShape(0);
  if (x.size() < 2) c.Fail("input " + c.InputName(0) + " needs a channel axis");
  const int64_t groups = c.Int("num_groups", 0), channels = x[1];
  if (groups < 1 || channels % groups != 0) c.BadAttr("num_groups", std::to_string(groups));
  const double eps = c.Float("epsilon", 1e-5f);
  c.Int("stash_type", 1);
  std::vector<float> scale = c.Const(1, "scale").Floats(), bias = c.Const(2, "bias").Floats();
  for (std::vector<float>* v : {&scale, &bias}) {
    if (static_cast<int64_t>(v->size()) == groups && groups != channels && c.Opset() < 21) {
      std::vector<float> per_channel;
      for (int64_t ch = 0; ch < channels; ++ch)
        per_channel.push_back((*v)[ch / (channels / groups)]);
      *v = per_channel;
    }
    if (static_cast<int64_t>(v->size()) != channels) {
      c.Fail("scale and bias must hold one value per channel (" + std::to_string(channels) + ")");
    }
  }
  const std::string grouped = c.NewTensor("grouped");
  c.Emit("Reshape", {c.In(0)}, {grouped}, {{"shapes", JsonInts({0, groups, -1})}},
         c.NewLayerName("group"));
  const std::string normed = c.NewTensor("normalized");
  EmitNormalize(c, grouped, {2}, eps, false, "", "", normed, c.NewLayerName("normalize"));
  Shape back = x;
  back[0] = 0;
  const std::string ungrouped = c.NewTensor("ungrouped");
  c.Emit("Reshape", {normed}, {ungrouped}, {{"shapes", JsonInts(back)}}, c.NewLayerName("ungroup"));
  const std::string layer = c.Emit("Scale", {ungrouped}, {c.Out(0)}, {{"bias_term", true}});
  c.Weight(layer, "scale", {static_cast<int>(channels)}, scale);
  c.Weight(layer, "bias", {static_cast<int>(channels)}, bias);
}

// LpNormalization with p = 2: L2Normalization, which sums over axis 1 at
// each position of the other axes. Another axis is moved to position 1 by a
// Permute and back by its inverse. The epsilon is the smallest normal float:
// it changes no norm of floats that are not tiny, and a zero vector gives
// zeros, as the ONNX reference does, instead of 0 * inf.
void MapLpNormalization(MappingContext& c) {
  const int64_t p = c.Int("p", 2);
  if (p != 2) c.BadAttr("p", std::to_string(p), "only p = 2 maps to L2Normalization");
  const int64_t rank = c.InRank(0);
  if (rank < 2) c.Fail("input of rank " + std::to_string(rank) + "; L2Normalization needs 2 axes");
  const int64_t axis = NormalizeAxis(c, c.Int("axis", -1), rank, "axis");
  const Json::object param = {{"eps", static_cast<double>(std::numeric_limits<float>::min())}};
  if (axis == 1) {
    c.Emit("L2Normalization", {c.In(0)}, {c.Out(0)}, param);
    return;
  }
  std::vector<int64_t> order = {axis}, back(rank);
  for (int64_t k = 0; k < rank; ++k)
    if (k != axis) order.push_back(k);
  // Axis `axis` first, then swapped with the one at position 0 (the batch).
  std::swap(order[0], order[1]);
  for (int64_t k = 0; k < rank; ++k) back[order[k]] = k;
  const std::string moved = c.NewTensor("moved"), normed = c.NewTensor("normed");
  c.Emit("Permute", {c.In(0)}, {moved}, {{"order", JsonInts(order)}}, c.NewLayerName("to_axis1"));
  c.Emit("L2Normalization", {moved}, {normed}, param, c.NewLayerName("l2"));
  c.Emit("Permute", {normed}, {c.Out(0)}, {{"order", JsonInts(back)}});
}

}  // namespace

void AddMathMappers(MapperTable& t) {
  t["LpNormalization"] = MapLpNormalization;
  for (const char* op : {"Add", "Sub", "Mul", "Div"}) t[op] = MapBinary;
  for (const char* op : {"Sum", "Mean", "Max", "Min"}) t[op] = MapVariadic;
  for (const char* op : {"Equal", "Greater", "Less", "GreaterOrEqual", "LessOrEqual"})
    t[op] = MapCompare;
  t["Pow"] = MapPow;
  t["LayerNormalization"] = MapNormalization;
  t["RMSNormalization"] = MapNormalization;
  t["GroupNormalization"] = MapGroupNormalization;
  for (const char* op : {"ReduceMean", "ReduceSum", "ReduceSumSquare", "ReduceL1", "ReduceL2",
                         "ReduceLogSum", "ReduceLogSumExp", "ReduceMax", "ReduceMin",
                         "ReduceProd"}) {
    t[op] = MapReduce;
  }
  t["ArgMax"] = MapArgs;
  t["ArgMin"] = MapArgs;
}

}  // namespace qzdl::onnx_import
