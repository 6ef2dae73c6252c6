#include "importer/constant_folding.h"

#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "importer/fold_elementwise.h"

namespace qzdl::onnx_import {

namespace {

using Inputs = std::vector<const ConstTensor*>;

const onnx::AttributeProto* FindAttr(const onnx::NodeProto& node, const std::string& name) {
  for (const auto& a : node.attribute()) {
    if (a.name() == name) return &a;
  }
  return nullptr;
}

int64_t AttrInt(const onnx::NodeProto& node, const std::string& name, int64_t def) {
  const auto* a = FindAttr(node, name);
  return a ? a->i() : def;
}

std::vector<int64_t> AttrInts(const onnx::NodeProto& node, const std::string& name) {
  const auto* a = FindAttr(node, name);
  return a ? std::vector<int64_t>(a->ints().begin(), a->ints().end()) : std::vector<int64_t>{};
}

const ConstTensor& Need(const Inputs& in, size_t k) {
  if (k >= in.size() || in[k] == nullptr) {
    throw FoldError("input " + std::to_string(k) + " is missing");
  }
  return *in[k];
}

int64_t NormAxis(int64_t axis, int64_t rank) {
  if (axis < -rank || axis >= rank) {
    throw FoldError("axis " + std::to_string(axis) + " is outside a rank " + std::to_string(rank) +
                    " tensor");
  }
  return axis < 0 ? axis + rank : axis;
}

ConstTensor Cast(const ConstTensor& x, int32_t to) {
  ConstTensor out = ConstTensor::Make(to, x.dims);
  for (int64_t k = 0, total = x.Count(); k < total; ++k) {
    if (x.IsFloat() && !out.IsFloat() && to != kBool) {
      out.SetInt(k, SaturatingInt(x.f[k]));
    } else if (x.IsFloat()) {
      out.Set(k, x.f[k]);
    } else {
      out.SetInt(k, x.i[k]);
    }
  }
  return out;
}

// For results whose element count is known to pass the limit before their
// dims could be formed.
FoldError TooManyValues(int32_t type) {
  return FoldError("would hold more than " + std::to_string(MaxConstantElements(type)) + " " +
                   TypeName(type) + " values, beyond " + ConstantLimitText());
}

// Fails unless the tensors, which the operator constrains to one element
// type, have the same type (`what` names them in the message).
void NeedSameType(const std::vector<const ConstTensor*>& ts, const std::string& what) {
  for (const ConstTensor* t : ts) {
    if (t->type != ts[0]->type) {
      throw FoldError(what + " differ in element type (" + TypeName(ts[0]->type) + " and " +
                      TypeName(t->type) + ")");
    }
  }
}

// Copies element `from` of `src` to element `to` of `dst` (same type).
void CopyElement(const ConstTensor& src, int64_t from, ConstTensor* dst, int64_t to) {
  if (src.IsFloat()) {
    dst->f[to] = src.f[from];
  } else {
    dst->i[to] = src.i[from];
  }
}

ConstTensor Gather(const ConstTensor& data, const ConstTensor& indices, int64_t axis) {
  const int64_t rank = data.dims.size();
  axis = NormAxis(axis, rank);
  std::vector<int64_t> dims(data.dims.begin(), data.dims.begin() + axis);
  dims.insert(dims.end(), indices.dims.begin(), indices.dims.end());
  dims.insert(dims.end(), data.dims.begin() + axis + 1, data.dims.end());
  ConstTensor out = ConstTensor::Make(data.type, dims);
  const int64_t n = data.dims[axis], count = indices.Count();
  for (int64_t j = 0; j < count; ++j) {
    const int64_t idx = indices.GetInt(j);
    if (idx < -n || idx >= n) {
      throw FoldError("index " + std::to_string(idx) + " is outside an axis of size " +
                      std::to_string(n));
    }
  }
  // An empty result has nothing to copy (its other dims may be huge). Else
  // `data` is not empty either, and the offsets below stay within it.
  if (out.Count() == 0) return out;
  const int64_t outer = CheckedProduct(data.dims, 0, axis);
  const int64_t inner = CheckedProduct(data.dims, axis + 1);
  int64_t o = 0;
  for (int64_t a = 0; a < outer; ++a) {
    for (int64_t j = 0; j < count; ++j) {
      int64_t idx = indices.GetInt(j);
      if (idx < 0) idx += n;
      for (int64_t b = 0; b < inner; ++b) CopyElement(data, (a * n + idx) * inner + b, &out, o++);
    }
  }
  return out;
}

ConstTensor Concat(const Inputs& in, int64_t axis) {
  const ConstTensor& first = Need(in, 0);
  const int64_t rank = first.dims.size();
  axis = NormAxis(axis, rank);
  std::vector<int64_t> dims = first.dims;
  dims[axis] = 0;
  for (size_t k = 0; k < in.size(); ++k) {
    const ConstTensor& t = Need(in, k);
    if (static_cast<int64_t>(t.dims.size()) != rank) throw FoldError("inputs differ in rank");
    NeedSameType({&first, &t}, "inputs");
    for (int64_t d = 0; d < rank; ++d) {
      if (d != axis && t.dims[d] != first.dims[d]) {
        throw FoldError("inputs of shapes " + DimsString(first.dims) + " and " +
                        DimsString(t.dims) + " differ outside axis " + std::to_string(axis));
      }
    }
    dims[axis] = CheckedAdd(dims[axis], t.dims[axis]);
  }
  ConstTensor out = ConstTensor::Make(first.type, dims);
  // Empty inputs may have huge dims; an empty result has nothing to copy.
  if (out.Count() == 0) return out;
  const int64_t outer = CheckedProduct(dims, 0, axis);
  int64_t o = 0;
  for (int64_t a = 0; a < outer; ++a) {
    for (const ConstTensor* t : in) {
      const int64_t run = CheckedProduct(t->dims, axis);
      for (int64_t b = 0; b < run; ++b) {
        if (t->IsFloat() == out.IsFloat()) {
          CopyElement(*t, a * run + b, &out, o++);
        } else {
          out.Set(o++, t->Get(a * run + b));
        }
      }
    }
  }
  return out;
}

ConstTensor Transpose(const ConstTensor& x, std::vector<int64_t> perm) {
  const size_t rank = x.dims.size();
  if (perm.empty()) {
    for (size_t k = 0; k < rank; ++k) perm.push_back(rank - 1 - k);
  }
  if (!IsPermutation(perm, rank)) {
    throw FoldError("perm " + DimsString(perm) + " is not a permutation of the input's axes");
  }
  // Checked once: the offsets walked below stay within `x`.
  const std::vector<int64_t> in_stride = WalkStrides(x.dims);
  std::vector<int64_t> dims(rank), stride(rank);
  for (size_t k = 0; k < rank; ++k) {
    dims[k] = x.dims[NormAxis(perm[k], rank)];
    stride[k] = in_stride[NormAxis(perm[k], rank)];
  }
  ConstTensor out = ConstTensor::Make(x.type, dims);
  OffsetWalk src(dims, stride);
  for (int64_t e = 0, total = out.Count(); e < total; ++e, src.Next()) {
    CopyElement(x, src.offset(), &out, e);
  }
  return out;
}

ConstTensor Slice(const ConstTensor& x, std::vector<int64_t> starts, std::vector<int64_t> ends,
                  std::vector<int64_t> axes, std::vector<int64_t> steps) {
  const int64_t rank = x.dims.size();
  if (axes.empty()) {
    for (size_t k = 0; k < starts.size(); ++k) axes.push_back(k);
  }
  if (steps.empty()) steps.assign(starts.size(), 1);
  if (ends.size() != starts.size() || axes.size() != starts.size() ||
      steps.size() != starts.size()) {
    throw FoldError("starts, ends, axes and steps differ in length");
  }
  std::vector<int64_t> begin(rank, 0), step(rank, 1), dims = x.dims;
  for (size_t k = 0; k < starts.size(); ++k) {
    const int64_t ax = NormAxis(axes[k], rank), n = x.dims[ax];
    if (steps[k] == 0) throw FoldError("a step is 0");
    // A step longer than the axis takes one element, as n + 1 does; the
    // clamp keeps the arithmetic below within the int64 range.
    const int64_t lim = n < INT64_MAX ? n + 1 : n;
    const int64_t s = std::clamp<int64_t>(steps[k], -lim, lim);
    int64_t b = starts[k] < 0 ? starts[k] + n : starts[k];
    int64_t e = ends[k] < 0 ? ends[k] + n : ends[k];
    if (s > 0) {
      b = std::clamp<int64_t>(b, 0, n);
      e = std::clamp<int64_t>(e, 0, n);
      dims[ax] = e > b ? (e - b - 1) / s + 1 : 0;
    } else {
      b = std::clamp<int64_t>(b, -1, n - 1);
      e = std::clamp<int64_t>(e, -1, n - 1);
      dims[ax] = b > e ? (b - e - 1) / -s + 1 : 0;
    }
    begin[ax] = b;
    step[ax] = s;
  }
  ConstTensor out = ConstTensor::Make(x.type, dims);
  // An empty result reads nothing; else every offset walked lies within `x`.
  if (out.Count() == 0) return out;
  const std::vector<int64_t> in_stride = WalkStrides(x.dims);
  int64_t start = 0;
  std::vector<int64_t> walk_steps(rank);
  for (int64_t k = 0; k < rank; ++k) {
    start = CheckedAdd(start, CheckedMul(begin[k], in_stride[k]));
    walk_steps[k] = CheckedMul(step[k], in_stride[k]);
  }
  OffsetWalk src(dims, walk_steps, start);
  for (int64_t e = 0, total = out.Count(); e < total; ++e, src.Next()) {
    CopyElement(x, src.offset(), &out, e);
  }
  return out;
}

ConstTensor Reduce(const std::string& op, const ConstTensor& x, std::vector<int64_t> axes,
                   bool keepdims, bool noop_with_empty) {
  const int64_t rank = x.dims.size();
  if (axes.empty()) {
    if (noop_with_empty) return x;
    for (int64_t k = 0; k < rank; ++k) axes.push_back(k);
  }
  std::vector<bool> reduced(rank, false);
  for (int64_t a : axes) reduced[NormAxis(a, rank)] = true;
  std::vector<int64_t> kept_dims(rank), out_dims;
  for (int64_t k = 0; k < rank; ++k) {
    kept_dims[k] = reduced[k] ? 1 : x.dims[k];
    if (keepdims || !reduced[k]) out_dims.push_back(kept_dims[k]);
  }
  ConstTensor out = ConstTensor::Make(x.type, out_dims);
  // The operator is looked up once, not per element (x may hold 2^26).
  enum class Kind { kSum, kMean, kProd, kMax, kMin };
  const Kind kind = op == "ReduceProd"   ? Kind::kProd
                    : op == "ReduceMax"  ? Kind::kMax
                    : op == "ReduceMin"  ? Kind::kMin
                    : op == "ReduceMean" ? Kind::kMean
                                         : Kind::kSum;
  std::vector<double> acc(out.Count(), kind == Kind::kProd ? 1.0 : 0.0);
  std::vector<int64_t> seen(out.Count(), 0);
  // Element e of x adds to the output element that the kept dims, broadcast
  // over x's, give it.
  BroadcastWalk to(x.dims, kept_dims);
  for (int64_t e = 0, total = x.Count(); e < total; ++e, to.Next()) {
    const int64_t o = to.offset();
    const double v = x.Get(e);
    switch (kind) {
      case Kind::kProd:
        acc[o] *= v;
        break;
      case Kind::kMax:
        acc[o] = seen[o] ? std::max(acc[o], v) : v;
        break;
      case Kind::kMin:
        acc[o] = seen[o] ? std::min(acc[o], v) : v;
        break;
      default:
        acc[o] += v;
    }
    ++seen[o];
  }
  for (int64_t o = 0, total = out.Count(); o < total; ++o) {
    out.Set(o, kind == Kind::kMean && seen[o] ? acc[o] / seen[o] : acc[o]);
  }
  return out;
}

// Output dims of Reshape; `allowzero` keeps 0 as a real 0.
std::vector<int64_t> ReshapeDims(const std::vector<int64_t>& in, const std::vector<int64_t>& shape,
                                 bool allowzero) {
  std::vector<int64_t> out(shape.size());
  int64_t infer = -1;
  for (size_t k = 0; k < shape.size(); ++k) {
    if (shape[k] == 0 && !allowzero) {
      if (k >= in.size()) throw FoldError("shape has 0 at an axis the input lacks");
      out[k] = in[k];
    } else if (shape[k] == -1) {
      if (infer >= 0) throw FoldError("shape has more than one -1");
      infer = k;
      continue;
    } else if (shape[k] < 0) {
      throw FoldError("shape " + DimsString(shape) + " has a negative entry other than -1");
    } else {
      out[k] = shape[k];
    }
  }
  std::vector<int64_t> known_dims;  // all but the inferred axis
  for (size_t k = 0; k < out.size(); ++k) {
    if (static_cast<int64_t>(k) != infer) known_dims.push_back(out[k]);
  }
  const int64_t known = CountUpTo(known_dims, INT64_MAX);  // -1 past the int64 range
  const int64_t n = DimsProduct(in);
  if (infer >= 0) {
    if (known <= 0 || n % known) throw FoldError("cannot infer the -1 of the shape");
    out[infer] = n / known;
  } else if (known != n) {
    throw FoldError("shape " + DimsString(shape) + " does not fit input " + DimsString(in));
  }
  return out;
}

std::vector<int64_t> AxesFrom(const onnx::NodeProto& node, int opset, int since, const Inputs& in,
                              size_t input_index) {
  if (opset >= since) {
    return input_index < in.size() && in[input_index] ? in[input_index]->Ints()
                                                      : std::vector<int64_t>{};
  }
  return AttrInts(node, "axes");
}

ConstTensor ConstantValue(const onnx::NodeProto& node, const std::string& base_dir) {
  for (const auto& a : node.attribute()) {
    if (a.name() == "value") return TensorFromProto(a.t(), base_dir);
    if (a.name() == "value_float") {
      ConstTensor t = ConstTensor::Make(kFloat, {});
      t.Set(0, a.f());
      return t;
    }
    if (a.name() == "value_floats") {
      ConstTensor t = ConstTensor::Make(kFloat, {a.floats_size()});
      for (int k = 0; k < a.floats_size(); ++k) t.Set(k, a.floats(k));
      return t;
    }
    if (a.name() == "value_int") {
      ConstTensor t = ConstTensor::Make(kInt64, {});
      t.i[0] = a.i();
      return t;
    }
    if (a.name() == "value_ints") return ConstTensor::Int64s({a.ints().begin(), a.ints().end()});
  }
  throw FoldError("Constant without a supported value attribute");
}

std::vector<ConstTensor> One(ConstTensor&& t) {
  std::vector<ConstTensor> v;
  v.push_back(std::move(t));
  return v;
}

}  // namespace

bool CanEvaluate(const std::string& op) {
  static const std::set<std::string> other = {
      "Constant",  "Identity",        "Cast",       "Gather",  "Unsqueeze",  "Squeeze",
      "Concat",    "ConstantOfShape", "Reshape",    "Flatten", "Transpose",  "Slice",
      "Range",     "Expand",          "Where",      "Tile",    "ReduceProd", "ReduceSum",
      "ReduceMax", "ReduceMin",       "ReduceMean", "Dropout", "CastLike",
      "DequantizeLinear", "QuantizeLinear"};
  return other.count(op) || UnaryOps().count(op) || BinaryOps().count(op);
}

std::vector<ConstTensor> EvaluateNode(const onnx::NodeProto& node, int opset, const Inputs& in,
                                      const std::string& base_dir) {
  const std::string& op = node.op_type();
  if (op == "Constant") return One(ConstantValue(node, base_dir));
  if (op == "Identity" || op == "Dropout") return One(ConstTensor(Need(in, 0)));
  if (op == "Cast")
    return One(Cast(Need(in, 0), static_cast<int32_t>(AttrInt(node, "to", kFloat))));
  if (op == "CastLike") return One(Cast(Need(in, 0), Need(in, 1).type));
  if (UnaryOps().count(op)) return One(Unary(op, Need(in, 0)));
  if (BinaryOps().count(op)) {
    ConstTensor acc = Need(in, 0);
    for (size_t k = 1; k < in.size(); ++k)
      acc = Elementwise(op, acc, Need(in, k), AttrInt(node, "fmod", 0) != 0);
    return One(std::move(acc));
  }
  if (op == "Gather") return One(Gather(Need(in, 0), Need(in, 1), AttrInt(node, "axis", 0)));
  if (op == "Concat") return One(Concat(in, AttrInt(node, "axis", 0)));
  if (op == "Transpose") return One(Transpose(Need(in, 0), AttrInts(node, "perm")));
  if (op == "Unsqueeze" || op == "Squeeze") {
    ConstTensor out = Need(in, 0);
    std::vector<int64_t> axes = AxesFrom(node, opset, 13, in, 1);
    if (op == "Unsqueeze") {
      const int64_t rank = out.dims.size() + axes.size();
      std::vector<bool> inserted(rank, false);
      for (int64_t a : axes) {
        const int64_t k = NormAxis(a, rank);
        // Each inserted axis takes one place of the output's rank.
        if (inserted[k]) throw FoldError("axes name axis " + std::to_string(k) + " twice");
        inserted[k] = true;
      }
      std::vector<int64_t> dims;
      size_t src = 0;
      for (int64_t k = 0; k < rank; ++k) dims.push_back(inserted[k] ? 1 : out.dims[src++]);
      out.dims = dims;
    } else {
      const int64_t rank = out.dims.size();
      std::vector<bool> removed(rank, axes.empty());
      for (int64_t a : axes) removed[NormAxis(a, rank)] = true;
      std::vector<int64_t> dims;
      for (int64_t k = 0; k < rank; ++k) {
        if (removed[k] && out.dims[k] != 1) {
          if (!axes.empty()) throw FoldError("squeezes an axis whose size is not 1");
          removed[k] = false;
        }
        if (!removed[k]) dims.push_back(out.dims[k]);
      }
      out.dims = dims;
    }
    return One(std::move(out));
  }
  if (op == "ConstantOfShape") {
    std::vector<int64_t> dims = in.empty() || !in[0] ? std::vector<int64_t>{} : in[0]->Ints();
    ConstTensor value = ConstTensor::Make(kFloat, {1});
    if (const auto* a = FindAttr(node, "value")) value = TensorFromProto(a->t(), base_dir);
    if (value.Count() != 1) throw FoldError("value must hold one element");
    ConstTensor out = ConstTensor::Make(value.type, dims);
    for (int64_t k = 0, total = out.Count(); k < total; ++k) CopyElement(value, 0, &out, k);
    return One(std::move(out));
  }
  if (op == "Reshape") {
    ConstTensor out = Need(in, 0);
    out.dims = ReshapeDims(out.dims, Need(in, 1).Ints(), AttrInt(node, "allowzero", 0) != 0);
    return One(std::move(out));
  }
  if (op == "Flatten") {
    ConstTensor out = Need(in, 0);
    const int64_t rank = out.dims.size();
    int64_t axis = AttrInt(node, "axis", 1);
    axis = axis == rank ? rank : NormAxis(axis, rank);
    // An empty tensor of huge dims may have no 2-d form within the int64 range.
    out.dims = {CheckedProduct(out.dims, 0, axis), CheckedProduct(out.dims, axis)};
    return One(std::move(out));
  }
  if (op == "Slice") {
    if (opset < 10) {
      return One(Slice(Need(in, 0), AttrInts(node, "starts"), AttrInts(node, "ends"),
                       AttrInts(node, "axes"), {}));
    }
    auto opt = [&](size_t k) {
      return k < in.size() && in[k] ? in[k]->Ints() : std::vector<int64_t>{};
    };
    return One(Slice(Need(in, 0), Need(in, 1).Ints(), Need(in, 2).Ints(), opt(3), opt(4)));
  }
  if (op == "Range") {
    const ConstTensor &start = Need(in, 0), &limit = Need(in, 1), &delta = Need(in, 2);
    NeedSameType({&start, &limit, &delta}, "start, limit and delta");
    if (start.Count() != 1 || limit.Count() != 1 || delta.Count() != 1) {
      throw FoldError("start, limit and delta must hold one value each");
    }
    const double s = start.Get(0), l = limit.Get(0), d = delta.Get(0);
    if (d == 0) throw FoldError("delta is 0");
    const double count = std::ceil((l - s) / d);
    // NaN and counts past the limit are refused before the conversion.
    if (!(count <= static_cast<double>(MaxConstantElements(start.type)))) {
      throw TooManyValues(start.type);
    }
    const int64_t n = count > 0 ? static_cast<int64_t>(count) : 0;  // also below -2^63
    ConstTensor out = ConstTensor::Make(start.type, {n});
    for (int64_t k = 0; k < n; ++k) {
      if (out.IsFloat()) {
        out.Set(k, s + k * d);
      } else {
        // Wraps around like the integer arithmetic above.
        const uint64_t v = static_cast<uint64_t>(start.i[0]) +
                           static_cast<uint64_t>(k) * static_cast<uint64_t>(delta.i[0]);
        out.SetInt(k, static_cast<int64_t>(v));
      }
    }
    return One(std::move(out));
  }
  if (op == "Expand") {
    const ConstTensor& x = Need(in, 0);
    const std::vector<int64_t> dims = BroadcastShapes(x.dims, Need(in, 1).Ints());
    ConstTensor out = ConstTensor::Make(x.type, dims);
    BroadcastWalk wx(dims, x.dims);
    for (int64_t k = 0, total = out.Count(); k < total; ++k, wx.Next()) {
      CopyElement(x, wx.offset(), &out, k);
    }
    return One(std::move(out));
  }
  if (op == "DequantizeLinear" || op == "QuantizeLinear") {
    // y = (x - zero) * scale, or x quantized: saturate(round(x / scale) +
    // zero) to the zero point's type (uint8 without one); one scale for the
    // tensor or one per index of `axis`.
    const ConstTensor &x = Need(in, 0), &scale = Need(in, 1);
    const ConstTensor* zero = in.size() > 2 ? in[2] : nullptr;
    const int64_t rank = static_cast<int64_t>(x.dims.size());
    const bool per_axis = scale.Count() != 1;
    const int64_t axis = per_axis ? NormAxis(AttrInt(node, "axis", 1), rank) : 0;
    if (per_axis && (scale.dims.size() != 1 || scale.dims[0] != x.dims[axis]))
      throw FoldError("scale of shape " + DimsString(scale.dims) + " does not fit input " +
                      DimsString(x.dims) + " at axis " + std::to_string(axis));
    if (zero != nullptr && zero->Count() != scale.Count())
      throw FoldError("zero point of shape " + DimsString(zero->dims) + " does not match the scale");
    const bool dequantize = op == "DequantizeLinear";
    const int32_t out_type = dequantize ? kFloat : zero != nullptr ? zero->type : kUint8;
    ConstTensor out = ConstTensor::Make(out_type, x.dims);
    int64_t inner = 1;
    for (int64_t k = axis + 1; per_axis && k < rank; ++k) inner *= x.dims[k];
    const int64_t channels = per_axis ? x.dims[axis] : 1;
    for (int64_t e = 0, total = x.Count(); e < total; ++e) {
      const int64_t ch = per_axis ? e / inner % channels : 0;
      const double s = static_cast<float>(scale.Get(ch));
      const double z = zero != nullptr ? zero->Get(ch) : 0.0;
      if (dequantize) {
        out.Set(e, static_cast<float>(static_cast<float>(x.Get(e) - z) * static_cast<float>(s)));
      } else {
        const double lo = out_type == kInt8 ? -128 : 0, hi = out_type == kInt8 ? 127 : 255;
        const double q = std::nearbyint(static_cast<float>(x.Get(e)) / static_cast<float>(s)) + z;
        out.Set(e, std::min(hi, std::max(lo, q)));
      }
    }
    return One(std::move(out));
  }
  if (op == "Where") {
    const ConstTensor &c = Need(in, 0), &x = Need(in, 1), &y = Need(in, 2);
    NeedSameType({&x, &y}, "X and Y");
    const std::vector<int64_t> dims = BroadcastShapes(BroadcastShapes(c.dims, x.dims), y.dims);
    ConstTensor out = ConstTensor::Make(x.type, dims);
    BroadcastWalk wc(dims, c.dims), wx(dims, x.dims), wy(dims, y.dims);
    for (int64_t k = 0, total = out.Count(); k < total; ++k, wc.Next(), wx.Next(), wy.Next()) {
      if (c.GetInt(wc.offset())) {
        CopyElement(x, wx.offset(), &out, k);
      } else {
        CopyElement(y, wy.offset(), &out, k);
      }
    }
    return One(std::move(out));
  }
  if (op == "Tile") {
    const ConstTensor& x = Need(in, 0);
    const std::vector<int64_t> reps = Need(in, 1).Ints();
    if (reps.size() != x.dims.size()) throw FoldError("repeats do not match the input rank");
    std::vector<int64_t> dims(x.dims.size());
    for (size_t k = 0; k < dims.size(); ++k) {
      if (reps[k] < 0) throw FoldError("repeats " + DimsString(reps) + " has a negative entry");
      if (x.dims[k] > 0 && reps[k] > MaxConstantElements(x.type) / x.dims[k]) {
        throw TooManyValues(x.type);
      }
      dims[k] = CheckedMul(x.dims[k], reps[k]);
    }
    ConstTensor out = ConstTensor::Make(x.type, dims);
    // Axis k of the result runs over (repeat, index in x) pairs, so the
    // result is walked as a tensor of dims [reps0, x0, reps1, x1, ...] whose
    // repeat axes do not move in x.
    const std::vector<int64_t> x_stride = WalkStrides(x.dims);
    std::vector<int64_t> pair_dims, pair_steps;
    for (size_t k = 0; k < dims.size(); ++k) {
      pair_dims.insert(pair_dims.end(), {reps[k], x.dims[k]});
      pair_steps.insert(pair_steps.end(), {0, x_stride[k]});
    }
    OffsetWalk src(pair_dims, pair_steps);
    for (int64_t e = 0, total = out.Count(); e < total; ++e, src.Next()) {
      CopyElement(x, src.offset(), &out, e);
    }
    return One(std::move(out));
  }
  if (op.rfind("Reduce", 0) == 0) {
    const int since = op == "ReduceSum" ? 13 : 18;
    const int64_t keepdims = AttrInt(node, "keepdims", 1);
    if (keepdims != 0 && keepdims != 1) {
      throw FoldError("attribute \"keepdims\" value " + std::to_string(keepdims) +
                      " is not supported (it must be 0 or 1)");
    }
    return One(Reduce(op, Need(in, 0), AxesFrom(node, opset, since, in, 1), keepdims == 1,
                      AttrInt(node, "noop_with_empty_axes", 0) != 0));
  }
  throw FoldError("operator " + op + " cannot be evaluated on constants");
}

}  // namespace qzdl::onnx_import
