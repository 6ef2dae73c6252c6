// Operators that move elements: reshapes, transposes, joins and cuts,
// padding, resizing, gathering and tiling.
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <set>

#include "importer/mapping_context.h"

namespace qzdl::onnx_import {

namespace {

using json11::Json;

int Clamp32(int64_t v) { return static_cast<int>(std::clamp<int64_t>(v, INT_MIN, INT_MAX)); }

void MapReshape(MappingContext& c) {
  std::vector<int64_t> target;
  if (c.Opset() < 5) {
    target = c.Ints("shape");
  } else {
    target = c.Const(1, "shape").Ints();
  }
  const bool allowzero = c.Int("allowzero", 0) != 0;
  const Shape& in = c.InShape(0);
  Shape out(target.size());
  int64_t infer = -1;
  for (size_t k = 0; k < target.size(); ++k) {
    if (target[k] == 0 && !allowzero) {
      if (k >= in.size()) c.Fail("shape " + DimsString(target) + " copies a missing axis");
      out[k] = in[k];
    } else if (target[k] == -1) {
      infer = k;
      continue;
    } else if (target[k] < 0) {
      c.Fail("shape " + DimsString(target) + " has a negative entry other than -1");
    } else {
      out[k] = target[k];
    }
  }
  if (infer >= 0) {
    out[infer] = 1;
    const int64_t known = CountUpTo(out, INT64_MAX);  // -1 past the int64 range
    out[infer] = known > 0 ? CheckedProduct(in) / known : 0;
  }
  if (CountUpTo(out, INT64_MAX) != CheckedProduct(in)) {
    c.Fail("shape " + DimsString(target) + " does not fit input of shape " + DimsString(in));
  }
  EmitReshape(c, c.In(0), in, c.Out(0), out);
}

void MapFlatten(MappingContext& c) {
  const Shape& in = c.InShape(0);
  const int64_t rank = in.size();
  int64_t axis = c.Int("axis", 1);
  if (axis != rank) axis = NormalizeAxis(c, axis, rank, "axis");
  if (axis == 1 && rank >= 2) {
    c.Emit("Flatten", {c.In(0)}, {c.Out(0)}, {{"axis", 1}, {"end_axis", -1}});
    return;
  }
  EmitReshape(c, c.In(0), in, c.Out(0), {CheckedProduct(in, 0, axis), CheckedProduct(in, axis)});
}

std::vector<int64_t> AxesOf(MappingContext& c, int input) {
  if (c.Opset() >= 13) return c.HasInput(input) ? c.Const(input, "axes").Ints() : Shape{};
  return c.Ints("axes");
}

void MapSqueeze(MappingContext& c) {
  const Shape& in = c.InShape(0);
  const bool squeeze = c.Op() == "Squeeze";
  const std::vector<int64_t> given = AxesOf(c, 1);
  const int64_t rank = squeeze ? in.size() : in.size() + given.size();
  std::set<int64_t> axes;
  for (int64_t a : given) axes.insert(NormalizeAxis(c, a, rank, "axes"));
  if (!squeeze && axes.size() != given.size()) {
    c.Fail("axes " + DimsString(given) + " name an axis more than once");
  }
  Shape out;
  if (squeeze) {
    if (given.empty()) {
      for (int64_t k = 0; k < rank; ++k) {
        if (in[k] == 1) axes.insert(k);
      }
    }
    for (int64_t k = 0; k < rank; ++k) {
      if (axes.count(k) && in[k] != 1) {
        c.Fail("axis " + std::to_string(k) + " of size " + std::to_string(in[k]) +
               " cannot be squeezed");
      }
      if (!axes.count(k)) out.push_back(in[k]);
    }
  } else {
    size_t next = 0;
    for (int64_t k = 0; k < rank; ++k) out.push_back(axes.count(k) ? 1 : in[next++]);
  }
  if (out.empty()) c.Fail("the output would be a scalar, which the runtime does not hold");
  const std::string type = squeeze ? "Squeeze" : "ExpandDims";
  // Axes after the batch keep the net runnable at any batch; squeezing or
  // inserting at axis 0 changes what the batch is, so that becomes a Reshape.
  if (MappingContext::HasLayerType(type) && !axes.empty() && !axes.count(0)) {
    c.Emit(type, {c.In(0)}, {c.Out(0)}, {{"axes", JsonInts(Shape(axes.begin(), axes.end()))}});
    return;
  }
  EmitReshape(c, c.In(0), in, c.Out(0), out);
}

void MapTranspose(MappingContext& c) {
  const int64_t rank = c.InRank(0);
  std::vector<int64_t> perm = c.Ints("perm");
  if (perm.empty()) {
    for (int64_t k = rank - 1; k >= 0; --k) perm.push_back(k);
  }
  if (!IsPermutation(perm, static_cast<size_t>(rank))) {
    c.BadAttr("perm", DimsString(perm), "not a permutation of the input's axes");
  }
  c.Emit("Permute", {c.In(0)}, {c.Out(0)}, {{"order", JsonInts(perm)}});
}

void MapConcat(MappingContext& c) {
  const int64_t rank = c.InRank(0);
  const int64_t axis = NormalizeAxis(c, c.Int("axis", 1), rank, "axis");
  std::vector<std::string> ins;
  for (int k = 0; k < c.NumInputs(); ++k) {
    if (c.HasInput(k) && CheckedProduct(c.InShape(k)) > 0) ins.push_back(c.In(k));
  }
  c.Emit("Concat", ins, {c.Out(0)}, {{"axis", static_cast<int>(axis)}});
}

void MapSplit(MappingContext& c) {
  const Shape& in = c.InShape(0);
  const int64_t axis = NormalizeAxis(c, c.Int("axis", 0), in.size(), "axis");
  const int n = c.NumOutputs();
  std::vector<int64_t> sizes;
  if (c.Opset() >= 13) {
    if (c.HasInput(1)) sizes = c.Const(1, "split").Ints();
  } else {
    sizes = c.Ints("split");
  }
  const int64_t total = in[axis];
  const int64_t num = c.Int("num_outputs", n);
  if (num != n)
    c.BadAttr("num_outputs", std::to_string(num), "the node has " + std::to_string(n) + " outputs");
  if (sizes.empty()) sizes = EvenSplit(total, n);
  // Each piece within the axis and the sum so far within the axis, so that
  // the sum cannot pass the int64 range.
  bool fits = static_cast<int>(sizes.size()) == n;
  int64_t sum = 0;
  for (int64_t s : sizes) {
    fits &= s >= 0 && s <= total - sum;
    if (fits) sum = CheckedAdd(sum, s);
  }
  if (!fits || sum != total) {
    c.Fail("split " + DimsString(sizes) + " does not cut axis " + std::to_string(axis) +
           " of size " + std::to_string(total) + " into " + std::to_string(n) + " outputs");
  }
  std::vector<std::string> outs;
  Json::array points;
  int64_t at = 0;
  for (int k = 0; k < n; ++k) {
    if (sizes[k] < 1) c.Fail("split " + DimsString(sizes) + " has an empty piece");
    if (k) points.push_back(static_cast<int>(at));
    at = CheckedAdd(at, sizes[k]);
    outs.push_back(c.Node().output(k).empty() ? c.NewTensor("unused") : c.Out(k));
  }
  if (n == 1) {
    c.Alias(0, c.In(0));
    return;
  }
  c.Emit("Slice", {c.In(0)}, outs, {{"axis", static_cast<int>(axis)}, {"slice_point", points}});
}

void MapSlice(MappingContext& c) {
  const Shape& in = c.InShape(0);
  const int64_t rank = in.size();
  std::vector<int64_t> starts, ends, axes, steps;
  if (c.Opset() < 10) {
    starts = c.Ints("starts"), ends = c.Ints("ends"), axes = c.Ints("axes");
  } else {
    starts = c.Const(1, "starts").Ints();
    ends = c.Const(2, "ends").Ints();
    if (c.HasInput(3)) axes = c.Const(3, "axes").Ints();
    if (c.HasInput(4)) steps = c.Const(4, "steps").Ints();
  }
  if (axes.empty()) {
    for (size_t k = 0; k < starts.size(); ++k) axes.push_back(k);
  }
  if (steps.empty()) steps.assign(starts.size(), 1);
  if (ends.size() != starts.size() || axes.size() != starts.size() ||
      steps.size() != starts.size()) {
    c.Fail("starts, ends, axes and steps differ in length");
  }
  // Clamp the way ONNX does, so that the values fit the layer's integers.
  Json::array js, je, ja, jst;
  bool all = true, flips = true;
  for (size_t k = 0; k < starts.size(); ++k) {
    const int64_t ax = NormalizeAxis(c, axes[k], rank, "axes"), n = in[ax], s = steps[k];
    if (s == 0) c.Fail("a step is 0");
    int64_t b = starts[k] < 0 ? starts[k] + n : starts[k];
    int64_t e = ends[k] < 0 ? ends[k] + n : ends[k];
    if (s > 0) {
      b = std::clamp<int64_t>(b, 0, n), e = std::clamp<int64_t>(e, 0, n);
      if (e <= b) c.Fail("the slice of axis " + std::to_string(ax) + " is empty");
    } else {
      b = std::clamp<int64_t>(b, -1, n - 1), e = std::clamp<int64_t>(e, -1, n - 1);
      if (b <= e) c.Fail("the slice of axis " + std::to_string(ax) + " is empty");
    }
    all &= s == 1 && b == 0 && e == n;
    flips &= s == -1 && b == n - 1 && e == -1;
    js.push_back(static_cast<int>(b));
    je.push_back(e < 0 ? INT_MIN : static_cast<int>(e));  // -1 would count from the end
    ja.push_back(static_cast<int>(ax));
    jst.push_back(Clamp32(s));
  }
  if (all) {
    c.Alias(0, c.In(0));
    return;
  }
  // Whole axes reversed (torch.flip's export): the type "Flip".
  if (flips) {
    c.Emit("Flip", {c.In(0)}, {c.Out(0)}, {{"axes", ja}});
    return;
  }
  c.Emit("Crop", {c.In(0)}, {c.Out(0)},
         {{"starts", js}, {"ends", je}, {"axes", ja}, {"steps", jst}});
}

void MapPad(MappingContext& c) {
  const std::string mode = c.Str("mode", "constant");
  if (mode != "constant" && mode != "reflect" && mode != "edge") {
    c.BadAttr("mode", "\"" + mode + "\"");
  }
  const Shape& in = c.InShape(0);
  const int64_t rank = in.size();
  std::vector<int64_t> pads;
  double value = 0;
  if (c.Opset() < 11) {
    pads = c.Ints(c.Opset() < 2 ? "paddings" : "pads");
    value = c.Float("value", 0.0f);
  } else {
    pads = c.Const(1, "pads").Ints();
    if (c.HasInput(2)) {
      const ConstTensor& v = c.Const(2, "constant_value");
      if (v.Count()) value = v.Get(0);
    }
  }
  if (c.HasInput(3)) {
    const std::vector<int64_t> axes = c.Const(3, "axes").Ints();
    if (pads.size() != 2 * axes.size()) c.Fail("pads do not match axes");
    std::vector<int64_t> full(2 * rank, 0);
    for (size_t k = 0; k < axes.size(); ++k) {
      const int64_t ax = NormalizeAxis(c, axes[k], rank, "axes");
      full[ax] = pads[k], full[ax + rank] = pads[k + axes.size()];
    }
    pads = full;
  }
  if (static_cast<int64_t>(pads.size()) != 2 * rank) {
    c.Fail("pads " + DimsString(pads) + " do not have 2 entries per axis");
  }
  bool zero = true;
  for (int64_t p : pads) {
    if (p < 0) c.Fail("negative pads " + DimsString(pads) + " are not supported");
    zero &= p == 0;
  }
  if (zero) {
    c.Alias(0, c.In(0));
    return;
  }
  if (rank != 4 || pads[0] || pads[1] || pads[4] || pads[5]) {
    c.Fail("pads " + DimsString(pads) + " on input of shape " + DimsString(in) +
           "; only the H and W axes of 4-d data can be padded");
  }
  Json::object param = {{"pad_top", static_cast<int>(pads[2])},
                        {"pad_left", static_cast<int>(pads[3])},
                        {"pad_bottom", static_cast<int>(pads[6])},
                        {"pad_right", static_cast<int>(pads[7])}};
  // Reflect and edge under the type names that carry their mode, which the
  // converter's range rules look for.
  if (mode == "reflect") {
    c.Emit("ReflectionPadding", {c.In(0)}, {c.Out(0)}, param);
  } else if (mode == "edge") {
    c.Emit("ReplicationPadding", {c.In(0)}, {c.Out(0)}, param);
  } else {
    param["mode"] = mode;
    param["value"] = value;
    c.Emit("Padding", {c.In(0)}, {c.Out(0)}, param);
  }
}

// True when ONNX nearest resizing from `in` to `out` pixels (with the given
// `scale`, or out / in when it is 0) picks the same source pixel for every
// output pixel as the runtime's mapping, min(floor(dst * (in / out)), in - 1)
// in single precision.
bool NearestMatches(int64_t in, int64_t out, double scale, const std::string& ctm,
                    const std::string& mode) {
  if (scale == 0.0) scale = static_cast<double>(out) / in;
  const double length = in * scale;  // ONNX aligns corners on the unrounded length
  const float r = static_cast<float>(in) / static_cast<float>(out);
  // The names looked up once, not per pixel.
  const int transform = ctm == "half_pixel" || ctm == "half_pixel_symmetric" ? 0
                        : ctm == "pytorch_half_pixel"                         ? 1
                        : ctm == "align_corners"                              ? 2
                        : ctm == "asymmetric"                                 ? 3
                        : ctm == "tf_half_pixel_for_nn"                       ? 4
                                                                              : -1;
  const int rounding = mode == "floor"                ? 0
                       : mode == "ceil"               ? 1
                       : mode == "round_prefer_floor" ? 2
                       : mode == "round_prefer_ceil"  ? 3
                                                      : -1;
  if (transform < 0 || rounding < 0) return false;
  for (int64_t dst = 0; dst < out; ++dst) {
    double x;
    switch (transform) {
      case 0: x = (dst + 0.5) / scale - 0.5; break;
      case 1: x = out > 1 ? (dst + 0.5) / scale - 0.5 : 0.0; break;
      case 2: x = length == 1.0 ? 0.0 : dst * static_cast<double>(in - 1) / (length - 1); break;
      case 3: x = dst / scale; break;
      default: x = (dst + 0.5) / scale; break;
    }
    double src;
    switch (rounding) {
      case 0: src = std::floor(x); break;
      case 1: src = std::ceil(x); break;
      case 2: src = x - std::floor(x) == 0.5 ? std::floor(x) : std::round(x); break;
      default: src = x - std::floor(x) == 0.5 ? std::ceil(x) : std::round(x); break;
    }
    src = std::clamp<double>(src, 0, in - 1);
    const int64_t ours = std::min<int64_t>(SaturatingInt(std::floor(dst * r)), in - 1);
    if (static_cast<int64_t>(src) != ours) return false;
  }
  return true;
}

void MapResize(MappingContext& c) {
  const bool upsample = c.Op() == "Upsample";
  const Shape& in = c.InShape(0);
  if (in.size() != 4) c.Fail("input of shape " + DimsString(in) + "; only 4-d data is resized");
  std::string mode = c.Str("mode", "nearest");
  std::string ctm = "asymmetric", nearest = "floor";
  std::vector<double> scales;
  Shape sizes;
  auto from_tensor = [&](int k, const std::string& what) {
    const ConstTensor& t = c.Const(k, what);
    std::vector<double> v(t.Count());
    for (int64_t i = 0; i < t.Count(); ++i) v[i] = t.Get(i);
    return v;
  };
  if (upsample) {
    if (c.Opset() < 9) {
      for (float f : c.Floats("scales")) scales.push_back(f);
    } else {
      scales = from_tensor(1, "scales");
    }
  } else {
    if (c.Opset() < 11) {
      scales = from_tensor(1, "scales");
    } else {
      ctm = c.Str("coordinate_transformation_mode", "half_pixel");
      nearest = c.Str("nearest_mode", "round_prefer_floor");
      c.Ignore("cubic_coeff_a");
      c.Ignore("extrapolation_value");
      if (c.Int("exclude_outside", 0) != 0) c.BadAttr("exclude_outside", "1");
      const std::string policy = c.Str("keep_aspect_ratio_policy", "stretch");
      if (policy != "stretch") c.BadAttr("keep_aspect_ratio_policy", "\"" + policy + "\"");
      if (c.HasInput(2)) scales = from_tensor(2, "scales");
      if (c.HasInput(3)) {
        for (double v : from_tensor(3, "sizes")) sizes.push_back(SaturatingInt(v));
      }
      if (!scales.empty() && !sizes.empty()) c.Fail("both scales and sizes are given");
      std::vector<int64_t> axes = c.Ints("axes");
      if (!axes.empty()) {
        std::vector<double> full_scales(4, 1.0);
        Shape full_sizes = in;
        for (size_t k = 0; k < axes.size(); ++k) {
          const int64_t ax = NormalizeAxis(c, axes[k], 4, "axes");
          if (!scales.empty()) full_scales[ax] = scales.at(k);
          if (!sizes.empty()) full_sizes[ax] = sizes.at(k);
        }
        if (!scales.empty()) scales = full_scales;
        if (!sizes.empty()) sizes = full_sizes;
      }
    }
  }
  if (scales.empty() && sizes.empty()) c.Fail("neither scales nor sizes are given");
  if ((!scales.empty() && scales.size() != 4) || (!sizes.empty() && sizes.size() != 4)) {
    c.Fail("scales or sizes do not have 4 entries");
  }
  if ((!scales.empty() && (scales[0] != 1 || scales[1] != 1)) ||
      (!sizes.empty() && (sizes[0] != in[0] || sizes[1] != in[1]))) {
    c.Fail("only H and W can be resized");
  }
  const int64_t oh = sizes.empty() ? SaturatingInt(std::floor(in[2] * scales[2])) : sizes[2];
  const int64_t ow = sizes.empty() ? SaturatingInt(std::floor(in[3] * scales[3])) : sizes[3];
  // The nearest mapping is checked pixel by pixel along each axis; real
  // pictures stay far below a million pixels a side.
  constexpr int64_t kMaxResizedAxis = int64_t{1} << 20;
  if (oh > kMaxResizedAxis || ow > kMaxResizedAxis) {
    c.Fail("output of H x W " + DimsString({oh, ow}) + " is larger than " +
           std::to_string(kMaxResizedAxis) + " along an axis, which resizing supports");
  }
  if (c.Int("antialias", 0) != 0 && (oh < in[2] || ow < in[3])) {
    c.BadAttr("antialias", "1", "when downsampling");
  }
  Json::object p;
  if (mode == "nearest") {
    const bool ok = NearestMatches(in[2], oh, sizes.empty() ? scales[2] : 0.0, ctm, nearest) &&
                    NearestMatches(in[3], ow, sizes.empty() ? scales[3] : 0.0, ctm, nearest);
    if (!ok) {
      c.Fail("attribute \"coordinate_transformation_mode\" value \"" + ctm +
             "\" with \"nearest_mode\" value \"" + nearest + "\" is not supported from " +
             DimsString({in[2], in[3]}) + " to " + DimsString({oh, ow}) +
             " (it picks other source pixels than the runtime's nearest mapping)");
    }
    p["mode"] = "nearest";
  } else if (mode == "linear" || mode == "bilinear") {
    if (sizes.empty() && (in[2] * scales[2] != static_cast<double>(oh) ||
                          in[3] * scales[3] != static_cast<double>(ow))) {
      c.Fail("scales (" + std::to_string(scales[2]) + ", " + std::to_string(scales[3]) +
             ") on H x W " + DimsString({in[2], in[3]}) +
             " give a fractional output size; linear resizing needs whole output sizes");
    }
    if (ctm == "align_corners") {
      p["align_corners"] = true;
    } else if (ctm != "half_pixel" && !(ctm == "pytorch_half_pixel" && oh > 1 && ow > 1)) {
      c.BadAttr("coordinate_transformation_mode", "\"" + ctm + "\"",
                "linear resizing supports half_pixel, align_corners, and pytorch_half_pixel "
                "with output sizes above 1");
    }
    p["mode"] = "bilinear";
    // ONNX Runtime's arithmetic: a dynamically quantized net quantizes right
    // after its resizes, where a last-bit difference moves a code.
    if (ctm != "align_corners") p["weight_products"] = true;
  } else {
    c.BadAttr("mode", "\"" + mode + "\"", "supported: \"nearest\", \"linear\"");
  }
  if (sizes.empty()) {
    p["scale_h"] = scales[2];
    p["scale_w"] = scales[3];
  } else {
    p["out_h"] = static_cast<int>(oh);
    p["out_w"] = static_cast<int>(ow);
  }
  c.Emit("Upsample", {c.In(0)}, {c.Out(0)}, p);
}

void MapSpaceDepth(MappingContext& c) {
  const int64_t block = c.Int("blocksize", 0);
  if (block < 1) c.BadAttr("blocksize", std::to_string(block));
  Json::object p = {{"blocksize", static_cast<int>(block)}};
  if (c.Op() == "DepthToSpace") {
    const std::string mode = c.Str("mode", "DCR");
    if (mode != "DCR" && mode != "CRD") c.BadAttr("mode", "\"" + mode + "\"");
    // CRD is PyTorch's PixelShuffle, the type "ShufflePixel".
    if (mode == "CRD") {
      c.Emit("ShufflePixel", {c.In(0)}, {c.Out(0)}, {{"upscale_factor", static_cast<int>(block)}});
      return;
    }
    p["mode"] = mode;
  }
  c.Emit(c.Op(), {c.In(0)}, {c.Out(0)}, p);
}

void MapTile(MappingContext& c) {
  const std::vector<int64_t> reps = c.Const(1, "repeats").Ints();
  if (static_cast<int>(reps.size()) != c.InRank(0)) {
    c.Fail("repeats " + DimsString(reps) + " do not match input of shape " +
           DimsString(c.InShape(0)));
  }
  c.Emit("Tile", {c.In(0)}, {c.Out(0)}, {{"repeats", JsonInts(reps)}});
}

void MapExpand(MappingContext& c) {
  const Shape& in = c.InShape(0);
  const Shape target = c.Const(1, "shape").Ints();
  const Shape out = BroadcastShapes(in, target);
  Shape padded(out.size() - in.size(), 1);
  padded.insert(padded.end(), in.begin(), in.end());
  std::string x = c.In(0);
  if (padded != in) {
    const std::string t = c.NewTensor("padded");
    EmitReshape(c, x, in, t, padded, c.NewLayerName("rank"));
    x = t;
  }
  Shape reps(out.size());
  // An axis of size 0 stays 0 (broadcasting keeps it): repeated once.
  for (size_t k = 0; k < out.size(); ++k) reps[k] = padded[k] ? out[k] / padded[k] : 1;
  c.Emit("Tile", {x}, {c.Out(0)}, {{"repeats", JsonInts(reps)}});
}

void MapGather(MappingContext& c) {
  if (c.IsConst(0)) c.Fail("the data is a constant and the indices are not; not supported");
  const int64_t rank = c.InRank(0);
  const int64_t axis = NormalizeAxis(c, c.Int("axis", 0), rank, "axis");
  const ConstTensor& idx = c.Const(1, "indices");
  Json::object p = {{"axis", static_cast<int>(axis)}, {"indices", JsonInts(idx.Ints())}};
  if (idx.dims.empty()) {
    if (rank == 1) c.Fail("the output would be a scalar, which the runtime does not hold");
    p["scalar_index"] = true;
  } else if (idx.dims.size() > 1) {
    p["indices_dims"] = JsonInts(idx.dims);
  }
  if (idx.Count() == 0) c.Fail("the indices are empty");
  c.Emit("Gather", {c.In(0)}, {c.Out(0)}, p);
}

void MapShapeOp(MappingContext& c) {
  c.Fail("the shape of input " + c.InputName(0) +
         " is not known at conversion time, so this node cannot be folded to a constant");
}

}  // namespace

void AddShapeMappers(MapperTable& t) {
  t["Reshape"] = MapReshape;
  t["Flatten"] = MapFlatten;
  t["Squeeze"] = MapSqueeze;
  t["Unsqueeze"] = MapSqueeze;
  t["Transpose"] = MapTranspose;
  t["Concat"] = MapConcat;
  t["Split"] = MapSplit;
  t["Slice"] = MapSlice;
  t["Pad"] = MapPad;
  t["Resize"] = MapResize;
  t["Upsample"] = MapResize;
  t["DepthToSpace"] = MapSpaceDepth;
  t["SpaceToDepth"] = MapSpaceDepth;
  t["Tile"] = MapTile;
  t["Expand"] = MapExpand;
  t["Gather"] = MapGather;
  t["Shape"] = MapShapeOp;
  t["Size"] = MapShapeOp;
}

}  // namespace qzdl::onnx_import
