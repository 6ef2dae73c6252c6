// Convolution, pooling, normalization and fully connected operators.
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>

#include "importer/integer_ops.h"
#include "importer/mapping_context.h"
#include "runtime/kernels/batch_matmul.h"

namespace qzdl::onnx_import {

namespace {

using json11::Json;

std::string Ints(const std::vector<int64_t>& v) { return DimsString(v); }

// Kernel window of a 1-d or 2-d Conv or pooling node, as 2-d values (a 1-d
// window is 1 high).
struct Window {
  int64_t kh = 1, kw = 1, sh = 1, sw = 1, dh = 1, dw = 1;
  int64_t pt = 0, pl = 0, pb = 0, pr = 0;
  bool one_d = false;
};

// Number of spatial axes of input 0 (1 or 2).
int SpatialRank(MappingContext& c) {
  const int rank = c.InRank(0);
  if (rank != 3 && rank != 4) {
    c.Fail("input " + c.InputName(0) + " has shape " + Ints(c.InShape(0)) +
           "; only 1-d and 2-d data ([N, C, L] or [N, C, H, W]) is supported");
  }
  return rank - 2;
}

// Fails unless every entry of attribute `name` lies in [lo, INT_MAX]: the
// layers take them as int, and the window arithmetic stays within int64.
void CheckEntries(MappingContext& c, const std::string& name, const std::vector<int64_t>& v,
                  int64_t lo) {
  for (int64_t x : v) {
    if (x < lo || x > INT_MAX) {
      c.BadAttr(name, Ints(v),
                "entries must lie in " + std::to_string(lo) + ".." + std::to_string(INT_MAX));
    }
  }
}

// The per-axis entries of attribute `name` (n of them, `def` when absent),
// each checked by CheckEntries.
std::vector<int64_t> AxisList(MappingContext& c, const std::string& name, int64_t def, size_t n) {
  std::vector<int64_t> v = c.Ints(name);
  if (v.empty()) v.assign(n, def);
  if (v.size() != n) c.BadAttr(name, Ints(v), "expected " + std::to_string(n) + " entries");
  CheckEntries(c, name, v, name == "pads" ? 0 : 1);
  return v;
}

// The pads (begins, then ends) of `kernel` with `strides` and `dil`, from
// the pads attribute or auto_pad.
std::vector<int64_t> ReadPads(MappingContext& c, const std::vector<int64_t>& kernel,
                              const std::vector<int64_t>& strides,
                              const std::vector<int64_t>& dil) {
  const size_t sr = kernel.size();
  const Shape& in = c.InShape(0);
  std::vector<int64_t> pads = AxisList(c, "pads", 0, 2 * sr);
  const std::string auto_pad = c.Str("auto_pad", "NOTSET");
  if (auto_pad == "VALID") {
    pads.assign(2 * sr, 0);
  } else if (auto_pad == "SAME_UPPER" || auto_pad == "SAME_LOWER") {
    for (size_t k = 0; k < sr; ++k) {
      // The strides, dilations and kernel are checked above, but the input
      // size may be any inferred dim.
      const int64_t size = in[2 + k];
      const int64_t out = CheckedAdd(size, strides[k] - 1) / strides[k];
      const int64_t extent = CheckedAdd(CheckedMul(kernel[k] - 1, dil[k]), 1);
      const int64_t total =
          std::max<int64_t>(CheckedAdd(CheckedMul(out - 1, strides[k]), extent - size), 0);
      const int64_t small = total / 2, large = total - small;
      pads[k] = auto_pad == "SAME_UPPER" ? small : large;
      pads[k + sr] = auto_pad == "SAME_UPPER" ? large : small;
    }
  } else if (auto_pad != "NOTSET" && !auto_pad.empty()) {
    c.BadAttr("auto_pad", "\"" + auto_pad + "\"");
  }
  return pads;
}

// Reads strides, dilations and pads (with auto_pad) for `kernel` (ONNX
// order, 1 or 2 entries).
Window ReadWindow(MappingContext& c, const std::vector<int64_t>& kernel, bool has_dilations) {
  const size_t sr = kernel.size();
  const std::vector<int64_t> strides = AxisList(c, "strides", 1, sr);
  const std::vector<int64_t> dil = has_dilations ? AxisList(c, "dilations", 1, sr) : Shape(sr, 1);
  const std::vector<int64_t> pads = ReadPads(c, kernel, strides, dil);
  Window w;
  w.one_d = sr == 1;
  const size_t h = w.one_d ? SIZE_MAX : 0, x = sr - 1;
  if (!w.one_d) {
    w.kh = kernel[h], w.sh = strides[h], w.dh = dil[h], w.pt = pads[h], w.pb = pads[h + sr];
  }
  w.kw = kernel[x], w.sw = strides[x], w.dw = dil[x], w.pl = pads[x], w.pr = pads[x + sr];
  return w;
}

void SetWindowParams(const Window& w, Json::object* p, bool dilations) {
  (*p)["kernel_h"] = static_cast<int>(w.kh);
  (*p)["kernel_w"] = static_cast<int>(w.kw);
  (*p)["stride_h"] = static_cast<int>(w.sh);
  (*p)["stride_w"] = static_cast<int>(w.sw);
  (*p)["pad_top"] = static_cast<int>(w.pt);
  (*p)["pad_bottom"] = static_cast<int>(w.pb);
  (*p)["pad_left"] = static_cast<int>(w.pl);
  (*p)["pad_right"] = static_cast<int>(w.pr);
  if (dilations) {
    (*p)["dilation_h"] = static_cast<int>(w.dh);
    (*p)["dilation_w"] = static_cast<int>(w.dw);
  }
}

// Emits `type` on input 0 to output 0; 1-d data goes through [N, C, 1, L].
void EmitSpatial(MappingContext& c, const std::string& type, const Json::object& param, bool one_d,
                 const std::function<void(const std::string&)>& weights = nullptr) {
  std::string in = c.In(0);
  const std::string& out = c.Out(0);
  if (!one_d) {
    const std::string layer = c.Emit(type, {in}, {out}, param);
    if (weights) weights(layer);
    return;
  }
  const Shape& in_shape = c.InShape(0);
  const Shape& out_shape = c.OutShape(0);
  // ONNX shape inference may give the output fewer axes (ConvTranspose with
  // an output_shape of 0), without an error.
  if (out_shape.size() != 3) {
    c.Fail("shape inference gave output " + Quote(out) + " the shape " + Ints(out_shape) +
           "; 1-d data needs [N, C, L]");
  }
  const std::string in4 = c.NewTensor("2d");
  EmitReshape(c, in, in_shape, in4, {in_shape[0], in_shape[1], 1, in_shape[2]},
              c.NewLayerName("to2d"));
  const std::string out4 = c.NewTensor("2d_out");
  const std::string layer = c.Emit(type, {in4}, {out4}, param);
  if (weights) weights(layer);
  EmitReshape(c, out4, {out_shape[0], out_shape[1], 1, out_shape[2]}, out, out_shape,
              c.NewLayerName("to1d"));
}

std::vector<int64_t> KernelShape(MappingContext& c, const Shape& weight_dims) {
  std::vector<int64_t> kernel = c.Ints("kernel_shape");
  const Shape from_w(weight_dims.begin() + 2, weight_dims.end());
  for (int64_t k : from_w) {
    if (k < 1) {
      c.Fail("weights " + c.InputName(1) + " have shape " + Ints(weight_dims) +
             ": the kernel is empty");
    }
  }
  if (!kernel.empty() && kernel != from_w) {
    c.BadAttr("kernel_shape", Ints(kernel), "the weights have spatial shape " + Ints(from_w));
  }
  return from_w;
}

// Fails unless input 0's channels (when shape inference knows them) are what
// the weights take: `per_group` channels for each of `group` groups.
void CheckInputChannels(MappingContext& c, const Shape& weight_dims, int64_t per_group,
                        int64_t group) {
  const int64_t channels = c.InShape(0)[1];
  const int64_t want = CheckedMul(per_group, group);
  if (channels <= 0 || channels == want) return;
  c.Fail("input " + c.InputName(0) + " has " + std::to_string(channels) + " channels; weights " +
         c.InputName(1) + " of shape " + Ints(weight_dims) +
         (group == 1 ? std::string() : " with group " + std::to_string(group)) + " take " +
         std::to_string(want));
}

std::vector<float> BiasOf(MappingContext& c, int k, int64_t m) {
  const ConstTensor& b = c.Const(k, "bias");
  if (b.Count() != m) {
    c.Fail("bias " + c.InputName(k) + " has shape " + Ints(b.dims) + ", expected [" +
           std::to_string(m) + "]");
  }
  return b.Floats();
}

// Conv of [N, C, D, H, W] data: "Conv3D".
void MapConv3D(MappingContext& c) {
  if (c.Int(kIntegerSumsAttr, 0) != 0) c.Fail("ConvInteger of 3-d data is not supported");
  const ConstTensor& w = c.Const(1, "weights");
  if (w.dims.size() != 5) {
    c.Fail("weights " + c.InputName(1) + " have shape " + Ints(w.dims) + ", expected 5 axes");
  }
  const std::vector<int64_t> kernel = KernelShape(c, w.dims);
  const std::vector<int64_t> strides = AxisList(c, "strides", 1, 3);
  const std::vector<int64_t> dil = AxisList(c, "dilations", 1, 3);
  const std::vector<int64_t> pads = ReadPads(c, kernel, strides, dil);
  const int64_t group = c.Int("group", 1);
  if (group < 1) c.BadAttr("group", std::to_string(group), "must be positive");
  const int64_t m = w.dims[0];
  CheckInputChannels(c, w.dims, w.dims[1], group);
  if (m % group != 0) {
    c.BadAttr("group", std::to_string(group),
              "does not divide the " + std::to_string(m) + " output channels");
  }
  Json::object p = {{"num_output", static_cast<int>(m)}, {"group", static_cast<int>(group)}};
  static const char* kAxis[3] = {"d", "h", "w"};
  static const char* kBegin[3] = {"pad_front", "pad_top", "pad_left"};
  static const char* kEnd[3] = {"pad_back", "pad_bottom", "pad_right"};
  for (int a = 0; a < 3; ++a) {
    p[std::string("kernel_") + kAxis[a]] = static_cast<int>(kernel[a]);
    p[std::string("stride_") + kAxis[a]] = static_cast<int>(strides[a]);
    p[std::string("dilation_") + kAxis[a]] = static_cast<int>(dil[a]);
    p[kBegin[a]] = static_cast<int>(pads[a]);
    p[kEnd[a]] = static_cast<int>(pads[a + 3]);
  }
  const bool bias = c.HasInput(2);
  p["bias_term"] = bias;
  std::vector<float> b = bias ? BiasOf(c, 2, m) : std::vector<float>{};
  const std::string layer = c.Emit("Conv3D", {c.In(0)}, {c.Out(0)}, p);
  std::vector<int> wdims;
  for (int64_t d : w.dims) wdims.push_back(static_cast<int>(d));
  c.Weight(layer, "weight", wdims, w.Floats());
  if (bias) c.Weight(layer, "bias", {static_cast<int>(m)}, b);
}

void MapConv(MappingContext& c) {
  if (c.InRank(0) == 5) return MapConv3D(c);
  const int sr = SpatialRank(c);
  const ConstTensor& w = c.Const(1, "weights");
  if (static_cast<int>(w.dims.size()) != sr + 2) {
    c.Fail("weights " + c.InputName(1) + " have shape " + Ints(w.dims) + ", expected " +
           std::to_string(sr + 2) + " axes");
  }
  const Window win = ReadWindow(c, KernelShape(c, w.dims), true);
  const int64_t group = c.Int("group", 1);
  if (group < 1) c.BadAttr("group", std::to_string(group), "must be positive");
  const int64_t m = w.dims[0];
  CheckInputChannels(c, w.dims, w.dims[1], group);
  if (m % group != 0) {
    c.BadAttr("group", std::to_string(group),
              "does not divide the " + std::to_string(m) + " output channels");
  }
  Json::object p;
  p["num_output"] = static_cast<int>(m);
  SetWindowParams(win, &p, true);
  p["group"] = static_cast<int>(group);
  const bool bias = c.HasInput(2);
  p["bias_term"] = bias;
  std::vector<float> b = bias ? BiasOf(c, 2, m) : std::vector<float>{};
  const std::vector<int> wdims = {static_cast<int>(m), static_cast<int>(w.dims[1]),
                                  static_cast<int>(win.kh), static_cast<int>(win.kw)};
  // A lowered ConvInteger (integer_ops.h): no bias, exact sums.
  const bool integer = c.Int(kIntegerSumsAttr, 0) != 0;
  EmitSpatial(c, integer ? "ConvInteger" : "Convolution", p, win.one_d,
              [&](const std::string& layer) {
                c.Weight(layer, "weight", wdims, w.Floats());
                if (bias) c.Weight(layer, "bias", {static_cast<int>(m)}, b);
              });
}

void MapConvTranspose(MappingContext& c) {
  const int sr = SpatialRank(c);
  const ConstTensor& w = c.Const(1, "weights");
  if (static_cast<int>(w.dims.size()) != sr + 2) {
    c.Fail("weights " + c.InputName(1) + " have shape " + Ints(w.dims) + ", expected " +
           std::to_string(sr + 2) + " axes");
  }
  const std::vector<int64_t> kernel = KernelShape(c, w.dims);
  const int64_t group = c.Int("group", 1);
  if (group < 1) c.BadAttr("group", std::to_string(group), "must be positive");
  const int64_t cin = w.dims[0], mg = w.dims[1];
  // A group within the input channels also keeps mg * group within the
  // weights' element count.
  if (cin % group || group > std::max<int64_t>(cin, 1)) {
    c.BadAttr("group", std::to_string(group), "does not divide the weights");
  }
  const int64_t m = CheckedMul(mg, group), cg = cin / group;
  if (m > INT_MAX) {
    c.BadAttr(
        "group", std::to_string(group),
        "gives " + std::to_string(m) + " output channels, more than " + std::to_string(INT_MAX));
  }
  CheckInputChannels(c, w.dims, cin, 1);
  const Shape& in = c.InShape(0);
  auto list = [&](const std::string& name, int64_t def) {
    std::vector<int64_t> v = c.Ints(name);
    if (v.empty()) v.assign(sr, def);
    if (static_cast<int>(v.size()) != sr) c.BadAttr(name, Ints(v), "wrong number of entries");
    CheckEntries(c, name, v, def);
    return v;
  };
  const std::vector<int64_t> strides = list("strides", 1), dil = list("dilations", 1);
  std::vector<int64_t> out_pad = list("output_padding", 0);
  std::vector<int64_t> pads = c.Ints("pads");
  if (pads.empty()) pads.assign(2 * sr, 0);
  // Checked before output_shape or auto_pad fill them in.
  if (static_cast<int>(pads.size()) != 2 * sr) c.BadAttr("pads", Ints(pads), "wrong length");
  CheckEntries(c, "pads", pads, 0);
  const std::vector<int64_t> out_shape = c.Ints("output_shape");
  CheckEntries(c, "output_shape", out_shape, 0);
  const std::string auto_pad = c.Str("auto_pad", "NOTSET");
  if (auto_pad != "NOTSET" && auto_pad != "" && auto_pad != "VALID" && auto_pad != "SAME_UPPER" &&
      auto_pad != "SAME_LOWER") {
    c.BadAttr("auto_pad", "\"" + auto_pad + "\"");
  }
  if (auto_pad == "VALID") pads.assign(2 * sr, 0);
  if (!out_shape.empty() || auto_pad == "SAME_UPPER" || auto_pad == "SAME_LOWER") {
    if (!out_shape.empty() && static_cast<int>(out_shape.size()) != sr) {
      c.BadAttr("output_shape", Ints(out_shape), "expected the spatial dims only");
    }
    for (int k = 0; k < sr; ++k) {
      // The attributes are checked above; the input size may be any inferred dim.
      const int64_t target = out_shape.empty() ? CheckedMul(in[2 + k], strides[k]) : out_shape[k];
      const int64_t natural =
          CheckedAdd(CheckedAdd(CheckedMul(strides[k], in[2 + k] - 1), out_pad[k]),
                     CheckedAdd(CheckedMul(kernel[k] - 1, dil[k]), 1));
      const int64_t total = CheckedAdd(natural, -target);
      // Halves rounded down, also for a negative total (a longer output).
      const int64_t half = total / 2 - (total < 0 && total % 2 != 0);
      int64_t begin, end;
      if (auto_pad == "SAME_UPPER") {
        begin = half, end = total - half;
      } else {
        begin = total - half, end = half;
      }
      if (end < 0) {
        // The output is longer than the natural one: extend at the end.
        out_pad[k] = CheckedAdd(out_pad[k], -end);
        end = 0;
      }
      if (begin < 0) c.BadAttr("output_shape", Ints(out_shape), "needs a negative leading pad");
      pads[k] = begin, pads[k + sr] = end;
    }
  }
  // Pads and output padding derived from output_shape must fit the layer's
  // int params.
  for (int k = 0; k < 2 * sr; ++k) {
    const int64_t extra = k < sr ? out_pad[k] : 0;
    if (pads[k] > INT_MAX || extra > INT_MAX) {
      c.BadAttr("output_shape", Ints(out_shape),
                "gives a padding beyond " + std::to_string(INT_MAX));
    }
  }
  const bool one_d = sr == 1;
  const int h = one_d ? -1 : 0, x = sr - 1;
  Json::object p;
  p["num_output"] = static_cast<int>(m);
  p["kernel_h"] = one_d ? 1 : static_cast<int>(kernel[h]);
  p["kernel_w"] = static_cast<int>(kernel[x]);
  p["stride_h"] = one_d ? 1 : static_cast<int>(strides[h]);
  p["stride_w"] = static_cast<int>(strides[x]);
  p["dilation_h"] = one_d ? 1 : static_cast<int>(dil[h]);
  p["dilation_w"] = static_cast<int>(dil[x]);
  p["pad_top"] = one_d ? 0 : static_cast<int>(pads[h]);
  p["pad_bottom"] = one_d ? 0 : static_cast<int>(pads[h + sr]);
  p["pad_left"] = static_cast<int>(pads[x]);
  p["pad_right"] = static_cast<int>(pads[x + sr]);
  p["output_pad_h"] = one_d ? 0 : static_cast<int>(out_pad[h]);
  p["output_pad_w"] = static_cast<int>(out_pad[x]);
  p["group"] = static_cast<int>(group);
  const bool bias = c.HasInput(2);
  p["bias_term"] = bias;
  std::vector<float> b = bias ? BiasOf(c, 2, m) : std::vector<float>{};
  // [C, M/g, k...] -> [M, C/g, k...]
  const int64_t taps = CheckedProduct(kernel);
  const std::vector<float> src = w.Floats();
  std::vector<float> dst(src.size());
  // Empty weights (a channel count of 0) have nothing to move.
  for (int64_t g = 0; g < group && !src.empty(); ++g) {
    for (int64_t o = 0; o < mg; ++o) {
      for (int64_t ci = 0; ci < cg; ++ci) {
        const float* from = &src[((g * cg + ci) * mg + o) * taps];
        std::copy(from, from + taps, &dst[((g * mg + o) * cg + ci) * taps]);
      }
    }
  }
  const std::vector<int> wdims = {static_cast<int>(m), static_cast<int>(cg),
                                  one_d ? 1 : static_cast<int>(kernel[h]),
                                  static_cast<int>(kernel[x])};
  EmitSpatial(c, "Deconvolution", p, one_d, [&](const std::string& layer) {
    c.Weight(layer, "weight", wdims, dst);
    if (bias) c.Weight(layer, "bias", {static_cast<int>(m)}, b);
  });
}

void MapPool(MappingContext& c) {
  const bool max = c.Op() == "MaxPool";
  const int sr = SpatialRank(c);
  std::vector<int64_t> kernel = c.Ints("kernel_shape");
  if (static_cast<int>(kernel.size()) != sr) {
    c.BadAttr("kernel_shape", Ints(kernel), "expected " + std::to_string(sr) + " entries");
  }
  const bool has_dil = c.HasAttr("dilations");
  const Window w = ReadWindow(c, kernel, has_dil);
  if (w.dh != 1 || w.dw != 1) c.BadAttr("dilations", Ints(c.Ints("dilations")));
  Json::object p;
  p["pool"] = max ? "max" : "ave";
  SetWindowParams(w, &p, false);
  p["ceil_mode"] = c.Int("ceil_mode", 0) != 0;
  if (max) {
    if (c.Int("storage_order", 0) != 0 && c.OutputUsed(1)) {
      c.BadAttr("storage_order", "1");
    }
  } else {
    p["count_include_pad"] = c.Int("count_include_pad", 0) != 0;
  }
  EmitSpatial(c, "Pooling", p, w.one_d);
}

void MapGlobalPool(MappingContext& c) {
  const int sr = SpatialRank(c);
  Json::object p = {{"pool", c.Op() == "GlobalMaxPool" ? "max" : "ave"}, {"global_pooling", true}};
  EmitSpatial(c, "Pooling", p, sr == 1);
}

void MapBatchNorm(MappingContext& c) {
  if (c.Int("training_mode", 0) != 0) c.BadAttr("training_mode", "1", "inference only");
  if (c.Int("spatial", 1) != 1) c.BadAttr("spatial", "0");
  c.Ignore("momentum");
  c.Ignore("is_test");
  c.Ignore("consumed_inputs");
  const float eps = c.Float("epsilon", 1e-5f);
  if (c.InRank(0) < 2) c.Fail("input " + c.InputName(0) + " needs a channel axis");
  const int64_t channels = c.InShape(0)[1];
  std::vector<std::vector<float>> w;
  const char* names[] = {"scale", "bias", "mean", "variance"};
  for (int k = 1; k <= 4; ++k) {
    const ConstTensor& t = c.Const(k, names[k - 1]);
    if (t.Count() != channels) {
      c.Fail(std::string(names[k - 1]) + " " + c.InputName(k) + " has shape " + Ints(t.dims) +
             ", expected [" + std::to_string(channels) + "]");
    }
    w.push_back(t.Floats());
  }
  const std::string layer = c.Emit("BatchNormal", {c.In(0)}, {c.Out(0)},
                                   {{"affine", true}, {"eps", static_cast<double>(eps)}});
  const std::vector<int> dims = {static_cast<int>(channels)};
  c.Weight(layer, "mean", dims, w[2]);
  c.Weight(layer, "variance", dims, w[3]);
  c.Weight(layer, "scale", dims, w[0]);
  c.Weight(layer, "bias", dims, w[1]);
}

void MapInstanceNorm(MappingContext& c) {
  const float eps = c.Float("epsilon", 1e-5f);
  if (c.InRank(0) < 2) c.Fail("input " + c.InputName(0) + " needs a channel axis");
  const int64_t channels = c.InShape(0)[1];
  const ConstTensor& scale = c.Const(1, "scale");
  const ConstTensor& bias = c.Const(2, "bias");
  if (scale.Count() != channels || bias.Count() != channels) {
    c.Fail("scale and bias must have shape [" + std::to_string(channels) + "]");
  }
  const std::string layer =
      c.Emit("InstanceNormalization", {c.In(0)}, {c.Out(0)}, {{"eps", static_cast<double>(eps)}});
  c.Weight(layer, "scale", {static_cast<int>(channels)}, scale.Floats());
  c.Weight(layer, "bias", {static_cast<int>(channels)}, bias.Floats());
}

void MapLrn(MappingContext& c) {
  const int64_t size = c.Int("size", 0);
  if (size < 1) c.BadAttr("size", std::to_string(size));
  c.Emit("Lrn", {c.In(0)}, {c.Out(0)},
         {{"size", static_cast<int>(size)},
          {"alpha", static_cast<double>(c.Float("alpha", 1e-4f))},
          {"beta", static_cast<double>(c.Float("beta", 0.75f))},
          {"bias", static_cast<double>(c.Float("bias", 1.0f))}});
}

// InnerProduct on a 2-d input `a` of shape [rows, K] with weights [M, K].
void EmitInnerProduct(MappingContext& c, const std::string& a, const std::string& out, int64_t m,
                      int64_t k, const std::vector<float>& weight, const std::vector<float>* bias,
                      const std::string& name = "") {
  const std::string layer =
      c.Emit("InnerProduct", {a}, {out},
             {{"num_output", static_cast<int>(m)}, {"bias_term", bias != nullptr}}, name);
  c.Weight(layer, "weight", {static_cast<int>(m), static_cast<int>(k)}, weight);
  if (bias) c.Weight(layer, "bias", {static_cast<int>(m)}, *bias);
}

// A lowered MatMulInteger's product (integer_ops.h): the rows of `a` as
// images of K channels and 1 x 1 pixels through a "ConvInteger" of M
// outputs, whose sums are exact, and back to [rows, M].
void EmitIntegerProduct(MappingContext& c, const std::string& a, const std::string& out,
                        int64_t m, int64_t k, const std::vector<float>& weight,
                        const std::vector<float>* bias, const std::string& name = "") {
  if (bias) c.Fail("a bias after an integer product is not supported");
  const std::string a4 = c.NewTensor("pixels"), y4 = c.NewTensor("pixels_out");
  c.Emit("Reshape", {a}, {a4}, {{"shapes", JsonInts({-1, k, 1, 1})}}, c.NewLayerName("to_pixels"));
  const std::string layer = c.Emit("ConvInteger", {a4}, {y4},
                                   {{"num_output", static_cast<int>(m)},
                                    {"kernel_h", 1},
                                    {"kernel_w", 1},
                                    {"bias_term", false}},
                                   name.empty() ? c.NewLayerName("product") : name);
  c.Weight(layer, "weight", {static_cast<int>(m), static_cast<int>(k), 1, 1}, weight);
  c.Emit("Reshape", {y4}, {out}, {{"shapes", JsonInts({-1, m})}}, c.NewLayerName("from_pixels"));
}

// Weights [M, K] from a constant B of shape [K, M] (or [M, K] when `trans`).
std::vector<float> WeightsMK(const ConstTensor& b, bool trans, int64_t* m, int64_t* k) {
  const std::vector<float> v = b.Floats();
  if (trans) {
    *m = b.dims[0], *k = b.dims[1];
    return v;
  }
  *k = b.dims[0], *m = b.dims[1];
  std::vector<float> out(v.size());
  for (int64_t i = 0; i < *k; ++i) {
    for (int64_t j = 0; j < *m; ++j) out[j * *k + i] = v[i * *m + j];
  }
  return out;
}

// The product of two operands that are not both constants: one
// "BatchMatrixMul" (numpy matmul semantics, batch axes broadcast) writing
// `out`. A constant operand enters through a Constant layer.
void EmitBatchMatMul(MappingContext& c, bool trans_a, bool trans_b, const std::string& out,
                     const std::string& name = "") {
  const Shape& a_shape = c.InShape(0);
  const Shape& b_shape = c.InShape(1);
  if (a_shape.empty()) c.Fail("input A is a scalar; " + c.Op() + " needs at least 1 axis");
  if (b_shape.empty()) c.Fail("input B is a scalar; " + c.Op() + " needs at least 1 axis");
  auto fits_int = [](const Shape& s) {
    return std::all_of(s.begin(), s.end(), [](int64_t d) { return d >= 1 && d <= INT_MAX; });
  };
  // The layer's own plan, so that a mismatch names the node rather than the
  // layer (shape inference passes some, e.g. of unknown ranks).
  if (fits_int(a_shape) && fits_int(b_shape)) {
    BatchMatMulGeometry g;
    const BatchMatMulMismatch why =
        PlanBatchMatMul(IntDims(a_shape), IntDims(b_shape), trans_a, trans_b, &g);
    if (why == BatchMatMulMismatch::kScalar) {
      c.Fail("the output would be a scalar, which the runtime does not hold");
    }
    if (why != BatchMatMulMismatch::kFits) {
      c.Fail("input A of shape " + Ints(a_shape) + " does not fit B of shape " + Ints(b_shape));
    }
  }
  Json::object param;
  if (trans_a) param["transpose_a"] = true;
  if (trans_b) param["transpose_b"] = true;
  const std::string a = c.In(0);
  const std::string b = c.In(1);
  c.Emit("BatchMatrixMul", {a, b}, {out}, param, name);
}

// Gemm whose B is computed: the layer "Gemm" with B (and C, unless beta is
// 0, which drops it) as inputs; constant A or C enter through Constant
// layers.
void MapGemmComputedB(MappingContext& c, float alpha, float beta, bool trans_a, bool trans_b) {
  const Shape& a_shape = c.InShape(0);
  const Shape& b_shape = c.InShape(1);
  if (a_shape.size() != 2) c.Fail("input A has shape " + Ints(a_shape) + ", expected 2 axes");
  if (b_shape.size() != 2) c.Fail("input B has shape " + Ints(b_shape) + ", expected 2 axes");
  if (a_shape[trans_a ? 0 : 1] != b_shape[trans_b ? 1 : 0])
    c.Fail("input A of shape " + Ints(a_shape) + " does not fit B of shape " + Ints(b_shape));
  std::vector<std::string> inputs = {c.In(0), c.In(1)};
  if (c.HasInput(2) && beta != 0.0f) inputs.push_back(c.In(2));
  c.Emit("Gemm", inputs, {c.Out(0)},
         {{"transA", trans_a},
          {"transB", trans_b},
          {"alpha", static_cast<double>(alpha)},
          {"beta", static_cast<double>(beta)},
          {"bias_term", false}});
}

void MapGemm(MappingContext& c) {
  const float alpha = c.Float("alpha", 1.0f), beta = c.Float("beta", 1.0f);
  const bool trans_a = c.Int("transA", 0) != 0, trans_b = c.Int("transB", 0) != 0;
  c.Ignore("broadcast");
  if (!c.IsConst(1)) {
    MapGemmComputedB(c, alpha, beta, trans_a, trans_b);
    return;
  }
  if (c.IsConst(0)) c.Fail("input A must not be a constant (only B and C can be)");
  const Shape& a_shape = c.InShape(0);
  if (a_shape.size() != 2) c.Fail("input A has shape " + Ints(a_shape) + ", expected 2 axes");
  const ConstTensor& b = c.Const(1, "B");
  if (b.dims.size() != 2) c.Fail("input B has shape " + Ints(b.dims) + ", expected 2 axes");
  int64_t m = 0, k = 0;
  std::vector<float> w = WeightsMK(b, trans_b, &m, &k);
  if (alpha != 1.0f) {
    for (float& v : w) v *= alpha;
  }
  std::vector<float> bias;
  // A computed C, or a constant one that is not one bias per output, is
  // added after the product: beta * C through a Power layer, then an
  // element-wise or broadcast sum.
  bool separate_c = c.HasInput(2) && !c.IsConst(2);
  if (c.HasInput(2) && !separate_c) {
    const ConstTensor& cb = c.Const(2, "C");
    const int64_t n = cb.Count();
    const int64_t rows = n / std::max<int64_t>(m, 1);
    if (n == 1) {
      bias.assign(m, static_cast<float>(cb.Get(0)));
    } else if (!cb.dims.empty() && cb.dims.back() == m && m > 0 && n >= m && n % m == 0) {
      const std::vector<float> all = cb.Floats();
      bias.assign(all.begin(), all.begin() + m);
      for (int64_t r = 1; r < rows; ++r) {
        separate_c |= !std::equal(bias.begin(), bias.end(), all.begin() + r * m);
      }
    } else {
      separate_c = true;
    }
  }
  // A transposed: the type "Gemm" (ONNX's own arithmetic on constant B and a
  // C per output), rather than a Permute before an InnerProduct.
  if (trans_a && !separate_c) {
    if (a_shape[0] != k)
      c.Fail("input A of shape " + Ints(a_shape) + " does not fit B of shape " + Ints(b.dims));
    Json::object p = {{"num_output", static_cast<int>(m)},
                      {"transA", true},
                      {"transB", trans_b},
                      {"alpha", static_cast<double>(alpha)},
                      {"beta", static_cast<double>(beta)},
                      {"bias_term", c.HasInput(2)}};
    const std::string layer = c.Emit("Gemm", {c.In(0)}, {c.Out(0)}, p);
    c.Weight(layer, "B", {static_cast<int>(b.dims[0]), static_cast<int>(b.dims[1])}, b.Floats());
    if (c.HasInput(2)) c.Weight(layer, "C", {static_cast<int>(m)}, bias);
    return;
  }
  for (float& v : bias) v *= beta;
  std::string a = c.In(0);
  if (trans_a) {
    const std::string t = c.NewTensor("transposed");
    c.Emit("Permute", {a}, {t}, {{"order", Json::array{1, 0}}}, c.NewLayerName("transA"));
    a = t;
  }
  if ((trans_a ? a_shape[0] : a_shape[1]) != k) {
    c.Fail("input A of shape " + Ints(a_shape) + " does not fit B of shape " + Ints(b.dims));
  }
  if (!separate_c) {
    EmitInnerProduct(c, a, c.Out(0), m, k, w, c.HasInput(2) ? &bias : nullptr);
    return;
  }
  const std::string product = c.NewTensor("product");
  EmitInnerProduct(c, a, product, m, k, w, nullptr, c.NewLayerName("product"));
  std::string addend = c.In(2);
  if (beta != 1.0f) {
    const std::string scaled = c.NewTensor("beta_c");
    c.Emit("Power", {addend}, {scaled}, {{"scale", static_cast<double>(beta)}},
           c.NewLayerName("beta"));
    addend = scaled;
  }
  if (c.InShape(2) == c.OutShape(0)) {
    c.Emit("Eltwise", {product, addend}, {c.Out(0)}, {{"operation", "sum"}});
  } else {
    c.Emit("BroadcastOp", {product, addend}, {c.Out(0)}, {{"operation", "add"}});
  }
}

void MapMatMul(MappingContext& c) {
  // A lowered MatMulInteger with a constant B: exact sums (ConvInteger).
  const bool integer = c.Int(kIntegerSumsAttr, 0) != 0;
  // Two computed operands (attention: Q x K^T, scores x V). The fused
  // "qzdl.MatMulAdd" always has a constant B.
  if (!c.IsConst(1)) {
    const Shape& out_shape = c.OutShape(0);
    if (out_shape.empty()) c.Fail("the output would be a scalar, which the runtime does not hold");
    EmitBatchMatMul(c, false, false, c.Out(0));
    return;
  }
  if (c.IsConst(0)) c.Fail("input A is a constant; only a constant B is supported");
  const ConstTensor& b = c.Const(1, "B");
  if (b.dims.empty() || b.dims.size() > 2) {
    c.Fail("input B has shape " + Ints(b.dims) + "; only 1-d and 2-d constants are supported");
  }
  const ConstTensor b2 = [&] {
    ConstTensor t = b;
    if (t.dims.size() == 1) t.dims.push_back(1);
    return t;
  }();
  int64_t m = 0, k = 0;
  const std::vector<float> w = WeightsMK(b2, false, &m, &k);
  const Shape& a_shape = c.InShape(0);
  if (a_shape.empty()) c.Fail("input A is a scalar; MatMul needs at least 1 axis");
  if (a_shape.back() != k) {
    c.Fail("input A of shape " + Ints(a_shape) + " does not fit B of shape " + Ints(b.dims));
  }
  const std::string& out = c.Out(0);
  const Shape& out_shape = c.OutShape(0);
  if (out_shape.empty()) c.Fail("the output would be a scalar, which the runtime does not hold");
  // "qzdl.MatMulAdd" (MatMul and the Add of a bias, fused) has the bias as input 2.
  std::vector<float> bias_values;
  if (c.HasInput(2)) bias_values = c.Const(2, "bias").Floats();
  const std::vector<float>* bias = c.HasInput(2) ? &bias_values : nullptr;
  std::string a = c.In(0);
  const auto product = integer ? EmitIntegerProduct : EmitInnerProduct;
  if (a_shape.size() == 2 && b.dims.size() == 2) {
    product(c, a, out, m, k, w, bias, "");
    return;
  }
  // Other ranks run as [rows, K] x [K, M]; -1 keeps the row count open, so
  // the batch can still change.
  const std::string a2 = c.NewTensor("2d");
  c.Emit("Reshape", {a}, {a2}, {{"shapes", JsonInts({-1, k})}}, c.NewLayerName("to2d"));
  const std::string y2 = c.NewTensor("2d_out");
  product(c, a2, y2, m, k, w, bias, c.NewLayerName());
  Shape shapes = out_shape;
  if (a_shape.size() >= 2 && !shapes.empty()) shapes[0] = -1;
  c.Emit("Reshape", {y2}, {out}, {{"shapes", JsonInts(shapes)}}, c.NewLayerName("from2d"));
}

}  // namespace

void AddConvMappers(MapperTable& t) {
  t["Conv"] = MapConv;
  t["ConvTranspose"] = MapConvTranspose;
  t["MaxPool"] = MapPool;
  t["AveragePool"] = MapPool;
  t["GlobalAveragePool"] = MapGlobalPool;
  t["GlobalMaxPool"] = MapGlobalPool;
  t["BatchNormalization"] = MapBatchNorm;
  t["InstanceNormalization"] = MapInstanceNorm;
  t["LRN"] = MapLrn;
  t["Gemm"] = MapGemm;
  t["MatMul"] = MapMatMul;
  t["qzdl.MatMulAdd"] = MapMatMul;
}

}  // namespace qzdl::onnx_import
