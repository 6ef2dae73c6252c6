#include "runtime/layers/upsample.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

std::string NumberText(double v) {
  char buf[32];
  std::snprintf(buf, sizeof(buf), "%g", v);
  return buf;
}

// Source positions and weights of one axis, see the header for the formulas.
void AxisNearest(int in, int out, std::vector<int>& i0) {
  i0.resize(out);
  const float scale = static_cast<float>(in) / static_cast<float>(out);
  for (int i = 0; i < out; ++i) {
    if (out == in) {
      i0[i] = i;
    } else if (out == 2 * int64_t(in)) {
      i0[i] = i >> 1;
    } else {
      const float src = std::floor(static_cast<float>(i) * scale);
      i0[i] = std::min(static_cast<int>(src), in - 1);
    }
  }
}

void AxisLinear(int in, int out, bool align_corners, std::vector<int>& i0, std::vector<int>& i1,
                std::vector<float>& w0, std::vector<float>& w1) {
  i0.resize(out);
  i1.resize(out);
  w0.resize(out);
  w1.resize(out);
  float scale;
  if (align_corners)
    scale = out > 1 ? static_cast<float>(in - 1) / static_cast<float>(out - 1) : 0.0f;
  else
    scale = static_cast<float>(in) / static_cast<float>(out);
  for (int i = 0; i < out; ++i) {
    if (out == in) {
      i0[i] = i1[i] = i;
      w0[i] = 1.0f;
      w1[i] = 0.0f;
      continue;
    }
    float src;
    if (align_corners) {
      src = scale * static_cast<float>(i);
    } else {
      src = scale * (static_cast<float>(i) + 0.5f) - 0.5f;
      if (src < 0.0f) src = 0.0f;
    }
    const int lo = std::min(static_cast<int>(std::floor(src)), in - 1);
    const float lambda = std::min(std::max(src - static_cast<float>(lo), 0.0f), 1.0f);
    i0[i] = lo;
    i1[i] = lo < in - 1 ? lo + 1 : lo;
    w1[i] = lambda;
    w0[i] = 1.0f - lambda;
  }
}

// The weights of `weight_products`: ONNX Runtime's half-pixel coordinates,
// src = (dst + 0.5) / scale - 0.5 clamped to [0, in - 1], each source index
// weighted by the distance to the other one, 1/2 each where they coincide.
void AxisLinearProducts(int in, int out, float scale, std::vector<int>& i0, std::vector<int>& i1,
                        std::vector<float>& w0, std::vector<float>& w1) {
  i0.resize(out);
  i1.resize(out);
  w0.resize(out);
  w1.resize(out);
  for (int i = 0; i < out; ++i) {
    float src = out > 1 ? (static_cast<float>(i) + 0.5f) / scale - 0.5f : 0.0f;
    src = std::max(0.0f, std::min(src, static_cast<float>(in - 1)));
    const int lo = std::min(static_cast<int>(src), in - 1), hi = std::min(lo + 1, in - 1);
    i0[i] = lo;
    i1[i] = hi;
    w0[i] = lo == hi ? 0.5f : std::fabs(src - static_cast<float>(hi));
    w1[i] = lo == hi ? 0.5f : std::fabs(src - static_cast<float>(lo));
  }
}

}  // namespace

template <>
void UpsampleLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  mode_ = param.Choice("mode", "nearest", {"nearest", "bilinear"});
  align_corners_ = param.Bool("align_corners", false);
  if (align_corners_ && mode_ == "nearest")
    param.Fail("param \"align_corners\" applies to bilinear mode only");
  weight_products_ = param.Bool("weight_products", false);
  if (weight_products_ && (mode_ != "bilinear" || align_corners_))
    param.Fail("param \"weight_products\" applies to bilinear mode without align_corners only");

  const bool scale = param.Has("scale"), scale_h = param.Has("scale_h"),
             scale_w = param.Has("scale_w"), out_h = param.Has("out_h"), out_w = param.Has("out_w");
  const bool by_factor = scale || scale_h || scale_w, by_size = out_h || out_w;
  if (by_factor && by_size)
    param.Fail("give either scale factors or \"out_h\" and \"out_w\", not both");
  if (!by_factor && !by_size)
    param.Fail("needs \"scale\", \"scale_h\" and \"scale_w\", or \"out_h\" and \"out_w\"");
  scale_h_ = scale_w_ = 0.0;
  out_h_ = out_w_ = 0;
  if (by_size) {
    if (!out_h || !out_w) param.Fail("params \"out_h\" and \"out_w\" go together");
    out_h_ = param.Int("out_h", 0);
    out_w_ = param.Int("out_w", 0);
    if (out_h_ < 1) param.Fail("param \"out_h\" must be >= 1, got " + std::to_string(out_h_));
    if (out_w_ < 1) param.Fail("param \"out_w\" must be >= 1, got " + std::to_string(out_w_));
    return;
  }
  if (scale && (scale_h || scale_w))
    param.Fail("give either \"scale\" or \"scale_h\" and \"scale_w\", not both");
  if (!scale && (!scale_h || !scale_w))
    param.Fail("params \"scale_h\" and \"scale_w\" go together");
  // The factors are read in double precision, so that floor(in * factor)
  // gives the size a double computation gives (e.g. 10 * 0.7 = 7).
  const json11::Json& json = this->GetJson()["param"];
  auto factor = [&](const std::string& key) {
    param.Float(key, 0.0f);  // type check
    const double v = json[key].number_value();
    if (!(v > 0.0) || !std::isfinite(v))
      param.Fail("param \"" + key + "\" must be a positive number, got " + NumberText(v));
    return v;
  };
  if (scale) {
    scale_h_ = scale_w_ = factor("scale");
  } else {
    scale_h_ = factor("scale_h");
    scale_w_ = factor("scale_w");
  }
}

template <>
void UpsampleLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const std::vector<int> in_dims = this->in()->GetDims();
  const int in_h = in_dims[2], in_w = in_dims[3];
  auto size = [&](double factor, int in, const char* what) {
    const double v = std::floor(static_cast<double>(in) * factor);
    if (v < 1.0 || v > INT_MAX)
      this->Fail("scale " + NumberText(factor) + " makes " + what + " " + NumberText(v) +
                 " from input \"" + this->in()->GetName() + "\" of shape " + DimsToString(in_dims));
    return static_cast<int>(v);
  };
  const int out_h = out_h_ > 0 ? out_h_ : size(scale_h_, in_h, "height");
  const int out_w = out_w_ > 0 ? out_w_ : size(scale_w_, in_w, "width");
  if (mode_ == "nearest") {
    AxisNearest(in_h, out_h, y0_);
    AxisNearest(in_w, out_w, x0_);
  } else if (weight_products_) {
    const float sh = out_h_ > 0 ? static_cast<float>(out_h) / static_cast<float>(in_h)
                                : static_cast<float>(scale_h_);
    const float sw = out_w_ > 0 ? static_cast<float>(out_w) / static_cast<float>(in_w)
                                : static_cast<float>(scale_w_);
    AxisLinearProducts(in_h, out_h, sh, y0_, y1_, wy0_, wy1_);
    AxisLinearProducts(in_w, out_w, sw, x0_, x1_, wx0_, wx1_);
  } else {
    AxisLinear(in_h, out_h, align_corners_, y0_, y1_, wy0_, wy1_);
    AxisLinear(in_w, out_w, align_corners_, x0_, x1_, wx0_, wx1_);
  }
  this->out()->Resize({in_dims[0], in_dims[1], out_h, out_w});
}

template <>
std::string UpsampleLayer<float>::GetTypeDetail() {
  return this->GetType() + "(" + mode_ + ")";
}

template <>
template <typename E>
void UpsampleLayer<float>::Move(const E* x, E* y) const {
  const int64_t in_h = this->in()->GetDim(2), in_w = this->in()->GetDim(3);
  const int64_t out_h = this->out()->GetDim(2), out_w = this->out()->GetDim(3);
  const int64_t rows = this->in()->Count(0) / (in_h * in_w) * out_h;
  const int* y0 = y0_.data();
  const int* x0 = x0_.data();
  const int64_t grain = std::max<int64_t>(1, kParallelGrain / out_w);
  ParallelFor(
      rows,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t plane = r / out_h, oy = r % out_h;
          E* dst = y + r * out_w;
          if (r > begin && oy > 0 && y0[oy] == y0[oy - 1]) {  // repeated source row
            std::memcpy(dst, dst - out_w, static_cast<size_t>(out_w) * sizeof(E));
            continue;
          }
          const E* src = x + (plane * in_h + y0[oy]) * in_w;
          for (int64_t ox = 0; ox < out_w; ++ox) dst[ox] = src[x0[ox]];
        }
      },
      grain);
}

// Bilinear rows. With `products` (ONNX Runtime's bits): four products, each
// rounded on its own (this file is built without fused multiply-adds,
// -ffp-contract=off), summed left to right; otherwise each row blended first,
// then the two rows.
template <>
template <bool kProducts>
void UpsampleLayer<float>::RunLinear(const float* x, float* y) const {
  const int64_t in_h = this->in()->GetDim(2), in_w = this->in()->GetDim(3);
  const int64_t out_h = this->out()->GetDim(2), out_w = this->out()->GetDim(3);
  const int64_t rows = this->in()->Count(0) / (in_h * in_w) * out_h;
  const int *y0 = y0_.data(), *y1 = y1_.data(), *x0 = x0_.data(), *x1 = x1_.data();
  const float *wy0 = wy0_.data(), *wy1 = wy1_.data(), *wx0 = wx0_.data(), *wx1 = wx1_.data();
  const int64_t grain = std::max<int64_t>(1, kParallelGrain / out_w);
  ParallelFor(
      rows,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t plane = r / out_h, oy = r % out_h;
          const float* top = x + (plane * in_h + y0[oy]) * in_w;
          const float* bottom = x + (plane * in_h + y1[oy]) * in_w;
          const float h0 = wy0[oy], h1 = wy1[oy];
          float* dst = y + r * out_w;
          for (int64_t ox = 0; ox < out_w; ++ox) {
            const int a = x0[ox], b = x1[ox];
            if (kProducts) {
              const float p00 = (wx0[ox] * h0) * top[a], p01 = (wx1[ox] * h0) * top[b];
              const float p10 = (wx0[ox] * h1) * bottom[a], p11 = (wx1[ox] * h1) * bottom[b];
              dst[ox] = ((p00 + p01) + p10) + p11;
            } else {
              const float w0 = wx0[ox], w1 = wx1[ox];
              const float t = w0 * top[a] + w1 * top[b];
              const float u = w0 * bottom[a] + w1 * bottom[b];
              dst[ox] = h0 * t + h1 * u;
            }
          }
        }
      },
      grain);
}

template <>
void UpsampleLayer<float>::Run() {
  if (mode_ == "nearest") {
    Move(this->in()->GetCpuData(), this->out()->GetCpuData());
    return;
  }
  if (weight_products_) {
    RunLinear<true>(this->in()->GetCpuData(), this->out()->GetCpuData());
  } else {
    RunLinear<false>(this->in()->GetCpuData(), this->out()->GetCpuData());
  }
}

template <>
void UpsampleLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                     const std::vector<uint8_t*>& outputs, uint8_t) {
  Move(inputs[0], outputs[0]);
}

}  // namespace qzdl
