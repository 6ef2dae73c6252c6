// Element-wise activations, Softmax and LogSoftmax, unary math, Identity.
#include <onnx/onnx_pb.h>

#include <cfloat>
#include <cmath>
#include <limits>

#include "importer/mapping_context.h"

namespace qzdl::onnx_import {

namespace {

using json11::Json;

void Simple(MappingContext& c, const std::string& type, const Json::object& param = {}) {
  c.Emit(type, {c.In(0)}, {c.Out(0)}, param);
}

Json Num(float v) { return static_cast<double>(v); }

void MapPRelu(MappingContext& c) {
  const Shape& x = c.InShape(0);
  const ConstTensor& slope = c.Const(1, "slope");
  const int64_t n = slope.Count();
  if (n == 1) {
    const std::string layer = c.Emit("PReLU", {c.In(0)}, {c.Out(0)}, {{"channel_shared", true}});
    c.Weight(layer, "slope", {1}, slope.Floats());
    return;
  }
  // Per channel: slope dims, aligned to the right of x, are 1 except on axis 1.
  bool per_channel = x.size() >= 2 && slope.dims.size() <= x.size() - 1 && n == x[1];
  const size_t offset = x.size() - slope.dims.size();
  for (size_t k = 0; per_channel && k < slope.dims.size(); ++k) {
    if (k + offset != 1 && slope.dims[k] != 1) per_channel = false;
  }
  // Before set 7 PRelu did not broadcast: a 1-d slope holds one value per channel.
  if (c.Opset() < 7 && x.size() >= 2 && slope.dims.size() == 1 && n == x[1]) per_channel = true;
  if (!per_channel) {
    c.Fail("slope of shape " + DimsString(slope.dims) + " for input of shape " + DimsString(x) +
           " is not one value per channel (axis 1) or one for all");
  }
  const std::string layer = c.Emit("PReLU", {c.In(0)}, {c.Out(0)}, {{"channel_shared", false}});
  c.Weight(layer, "slope", {static_cast<int>(n)}, slope.Floats());
}

void MapClip(MappingContext& c) {
  const double inf = std::numeric_limits<double>::infinity();
  double lo = -inf, hi = inf;
  if (c.Opset() < 11) {
    lo = c.Float("min", -FLT_MAX);
    hi = c.Float("max", FLT_MAX);
  } else if ((c.HasInput(1) && !c.IsConst(1)) || (c.HasInput(2) && !c.IsConst(2))) {
    // A bound computed by the net (from the data's own maximum, say): the
    // element-wise maximum with min, then the minimum with max, broadcast.
    std::string x = c.In(0);
    const bool has_max = c.HasInput(2);
    if (c.HasInput(1)) {
      const std::string lower = has_max ? c.NewTensor("lower") : c.Out(0);
      c.Emit("BroadcastOp", {x, c.In(1)}, {lower}, {{"operation", "max"}},
             has_max ? c.NewLayerName("min") : "");
      x = lower;
    }
    if (has_max) c.Emit("BroadcastOp", {x, c.In(2)}, {c.Out(0)}, {{"operation", "min"}});
    return;
  } else {
    // min and max are scalars: one value each.
    auto bound = [&c](int k, const char* what) {
      const ConstTensor& t = c.Const(k, what);
      if (t.Count() != 1) {
        c.Fail(std::string(what) + " holds " + std::to_string(t.Count()) +
               " values; it must hold one");
      }
      return t.Get(0);
    };
    if (c.HasInput(1)) lo = bound(1, "min");
    if (c.HasInput(2)) hi = bound(2, "max");
  }
  if (lo <= -FLT_MAX) lo = -inf;
  if (hi >= FLT_MAX) hi = inf;
  if (lo == -inf && hi == inf) {
    c.Alias(0, c.In(0));
  } else if (lo == 0 && hi == inf) {
    Simple(c, "ReLU");
  } else if (lo == 0 && hi > 0) {
    Simple(c, "ReLUX", {{"threshold", hi}});
  } else {
    Json::object p;
    if (lo != -inf) p["min"] = lo;
    if (hi != inf) p["max"] = hi;
    Simple(c, "Clip", p);
  }
}

void MapSoftmax(MappingContext& c) {
  const bool log = c.Op() == "LogSoftmax";
  const std::string type = log ? "LogSoftmax" : "Softmax";
  const int64_t rank = c.InRank(0);
  if (c.Opset() >= 13) {
    const int64_t axis = NormalizeAxis(c, c.Int("axis", -1), rank, "axis");
    Simple(c, type, {{"axis", static_cast<int>(axis)}});
    return;
  }
  // Before opset 13 the input is seen as 2-d: [outer, inner] split at axis.
  const int64_t axis = rank == 0 ? 0 : NormalizeAxis(c, c.Int("axis", 1), rank, "axis");
  if (axis == rank - 1) {
    Simple(c, type, {{"axis", static_cast<int>(axis)}});
    return;
  }
  const Shape& in = c.InShape(0);
  const int64_t outer = CheckedProduct(in, 0, axis), inner = CheckedProduct(in, axis);
  const std::string flat = c.NewTensor("2d"), soft = c.NewTensor("2d_out");
  EmitReshape(c, c.In(0), in, flat, {outer, inner}, c.NewLayerName("to2d"));
  c.Emit(type, {flat}, {soft}, {{"axis", 1}}, c.NewLayerName());
  EmitReshape(c, soft, {outer, inner}, c.Out(0), in, c.NewLayerName("from2d"));
}

void MapUnary(MappingContext& c) {
  static const std::map<std::string, std::string> ops = {{"Abs", "abs"},
                                                         {"Neg", "neg"},
                                                         {"Exp", "exp"},
                                                         {"Log", "log"},
                                                         {"Sqrt", "sqrt"},
                                                         {"Floor", "floor"},
                                                         {"Ceil", "ceil"},
                                                         {"Erf", "erf"},
                                                         {"Sin", "sin"},
                                                         {"Cos", "cos"},
                                                         {"Sign", "sign"},
                                                         {"Round", "round"},
                                                         {"Reciprocal", "reciprocal"}};
  Simple(c, "UnaryOp", {{"operation", ops.at(c.Op())}});
}

void MapIdentity(MappingContext& c) {
  if (c.Op() == "Dropout") {
    c.Ignore("ratio");
    c.Ignore("seed");
    c.Ignore("is_test");
    if (c.HasInput(2)) {
      const ConstTensor& training = c.Const(2, "training_mode");
      if (training.Count() && training.GetInt(0)) c.Fail("training_mode true is not supported");
    }
    if (c.OutputUsed(1)) c.Fail("output 1 (the mask) is not supported");
  }
  c.Alias(0, c.In(0));
}

// Tensors computed at run time are float32: a cast to float changes
// nothing, and a cast to half, bfloat16 or double is taken as one too (the
// net computes those models in float32; docs/onnx-import.md).
void MapCast(MappingContext& c) {
  if (c.Op() == "Cast") {
    const int64_t to = c.Int("to", kFloat);
    c.Ignore("saturate");
    if (!IsFloatType(static_cast<int32_t>(to))) {
      c.BadAttr("to", TypeName(static_cast<int32_t>(to)), "tensors computed by the net are float");
    }
  } else if (c.IsConst(1) && !c.Const(1, "target type").IsFloat()) {
    c.Fail("casting to " + TypeName(c.Const(1, "target type").type) +
           " is not supported; tensors computed by the net are float");
  }
  c.Alias(0, c.In(0));
}

void MapGelu(MappingContext& c) {
  const std::string approx = c.Str("approximate", "none");
  if (approx != "none" && approx != "tanh") c.BadAttr("approximate", "\"" + approx + "\"");
  Simple(c, "Gelu", {{"approximate", approx}});
}

}  // namespace

void AddActivationMappers(MapperTable& t) {
  t["Relu"] = [](MappingContext& c) { Simple(c, "ReLU"); };
  t["LeakyRelu"] = [](MappingContext& c) {
    Simple(c, "LeakyRelu", {{"negative_slope", Num(c.Float("alpha", 0.01f))}});
  };
  t["PRelu"] = MapPRelu;
  t["Elu"] = [](MappingContext& c) { Simple(c, "Elu", {{"alpha", Num(c.Float("alpha", 1.0f))}}); };
  t["Selu"] = [](MappingContext& c) {
    Simple(c, "Selu",
           {{"alpha", Num(c.Float("alpha", 1.67326319217681884765625f))},
            {"gamma", Num(c.Float("gamma", 1.05070102214813232421875f))}});
  };
  t["Sigmoid"] = [](MappingContext& c) { Simple(c, "Sigmoid"); };
  t["Tanh"] = [](MappingContext& c) { Simple(c, "TanH"); };
  t["HardSigmoid"] = [](MappingContext& c) {
    Simple(c, "HardSigmoid",
           {{"alpha", Num(c.Float("alpha", 0.2f))}, {"beta", Num(c.Float("beta", 0.5f))}});
  };
  t["HardSwish"] = [](MappingContext& c) { Simple(c, "Swish", {{"hard", true}}); };
  // Set 24: x * sigmoid(alpha * x).
  t["Swish"] = [](MappingContext& c) { Simple(c, "Swish", {{"beta", Num(c.Float("alpha", 1.0f))}}); };
  t["Softplus"] = [](MappingContext& c) { Simple(c, "Softplus"); };
  t["Mish"] = [](MappingContext& c) { Simple(c, "Mish"); };
  t["Gelu"] = MapGelu;
  t["qzdl.Gelu"] = [](MappingContext& c) { Simple(c, "Gelu", {{"approximate", "none"}}); };
  t["qzdl.Swish"] = [](MappingContext& c) { Simple(c, "Swish"); };
  t["qzdl.HardSwish"] = [](MappingContext& c) { Simple(c, "Swish", {{"hard", true}}); };
  t["Clip"] = MapClip;
  t["Softmax"] = MapSoftmax;
  t["LogSoftmax"] = MapSoftmax;
  for (const char* op : {"Abs", "Neg", "Exp", "Log", "Sqrt", "Floor", "Ceil", "Erf", "Sin", "Cos",
                         "Sign", "Round", "Reciprocal"}) {
    t[op] = MapUnary;
  }
  t["Identity"] = MapIdentity;
  t["Cast"] = MapCast;
  t["CastLike"] = MapCast;
  t["Dropout"] = MapIdentity;
}

}  // namespace qzdl::onnx_import
