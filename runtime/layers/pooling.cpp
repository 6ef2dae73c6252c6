#include "runtime/layers/pooling.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

bool HasAny(const ParamReader& param, std::initializer_list<const char*> keys) {
  for (const char* k : keys)
    if (param.Has(k)) return true;
  return false;
}

int AtLeast(const ParamReader& param, const std::string& key, int value, int min) {
  if (value < min)
    param.Fail("param \"" + key + "\" must be >= " + std::to_string(min) + ", got " +
               std::to_string(value));
  return value;
}

}  // namespace

template <>
void PoolingLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  method_ = param.Choice("pool", "max", {"max", "ave"}) == "max" ? Method::kMax : Method::kAverage;
  global_ = param.Bool("global_pooling", false);
  ceil_mode_ = param.Bool("ceil_mode", false);
  // Read for max pooling too (type check), but only average pooling uses it.
  count_include_pad_ = param.Bool("count_include_pad", true);

  if (HasAny(param, {"kernel_size"}) && HasAny(param, {"kernel_h", "kernel_w"}))
    param.Fail("give either \"kernel_size\" or \"kernel_h\" and \"kernel_w\", not both");
  if (HasAny(param, {"stride"}) && HasAny(param, {"stride_h", "stride_w"}))
    param.Fail("give either \"stride\" or \"stride_h\" and \"stride_w\", not both");
  if (HasAny(param, {"pad"}) && HasAny(param, {"pad_top", "pad_bottom", "pad_left", "pad_right"}))
    param.Fail("give either \"pad\" or \"pad_top\", \"pad_bottom\", \"pad_left\" and " +
               std::string("\"pad_right\", not both"));

  if (global_) {
    if (HasAny(param, {"kernel_size", "kernel_h", "kernel_w"}))
      param.Fail("global pooling takes its window from the input; remove the kernel params");
    const bool unit_stride = param.Int("stride", 1) == 1 && param.Int("stride_h", 1) == 1 &&
                             param.Int("stride_w", 1) == 1;
    const bool no_pad = param.Int("pad", 0) == 0 && param.Int("pad_top", 0) == 0 &&
                        param.Int("pad_bottom", 0) == 0 && param.Int("pad_left", 0) == 0 &&
                        param.Int("pad_right", 0) == 0;
    if (!unit_stride || !no_pad) param.Fail("global pooling takes no stride and no padding");
    return;
  }

  if (param.Has("kernel_size")) {
    kernel_h_ = kernel_w_ = AtLeast(param, "kernel_size", param.Int("kernel_size", 0), 1);
  } else {
    if (!param.Has("kernel_h") || !param.Has("kernel_w"))
      param.Fail("missing param \"kernel_size\" (or both \"kernel_h\" and \"kernel_w\")");
    kernel_h_ = AtLeast(param, "kernel_h", param.Int("kernel_h", 0), 1);
    kernel_w_ = AtLeast(param, "kernel_w", param.Int("kernel_w", 0), 1);
  }
  if (param.Has("stride")) {
    stride_h_ = stride_w_ = AtLeast(param, "stride", param.Int("stride", 1), 1);
  } else {
    stride_h_ = AtLeast(param, "stride_h", param.Int("stride_h", 1), 1);
    stride_w_ = AtLeast(param, "stride_w", param.Int("stride_w", 1), 1);
  }
  if (param.Has("pad")) {
    pad_top_ = pad_bottom_ = pad_left_ = pad_right_ = AtLeast(param, "pad", param.Int("pad", 0), 0);
  } else {
    pad_top_ = AtLeast(param, "pad_top", param.Int("pad_top", 0), 0);
    pad_bottom_ = AtLeast(param, "pad_bottom", param.Int("pad_bottom", 0), 0);
    pad_left_ = AtLeast(param, "pad_left", param.Int("pad_left", 0), 0);
    pad_right_ = AtLeast(param, "pad_right", param.Int("pad_right", 0), 0);
  }
  // With every pad below the kernel, every window covers at least one input
  // element, so no output is made of padding alone.
  if (std::max(pad_top_, pad_bottom_) >= kernel_h_ || std::max(pad_left_, pad_right_) >= kernel_w_)
    param.Fail("padding must be smaller than the kernel: kernel " + std::to_string(kernel_h_) +
               "x" + std::to_string(kernel_w_) + ", pads top/bottom/left/right " +
               std::to_string(pad_top_) + "/" + std::to_string(pad_bottom_) + "/" +
               std::to_string(pad_left_) + "/" + std::to_string(pad_right_));
}

template <>
int PoolingLayer<float>::OutputSize(const char* axis, int in, int kernel, int stride, int pad_begin,
                                    int pad_end) const {
  const int64_t padded = int64_t(in) + pad_begin + pad_end;
  if (padded < kernel)
    this->Fail(std::string("the window (") + std::to_string(kernel) + ") is larger than the " +
               axis + " of the padded input (" + std::to_string(padded) + ")");
  const int64_t span = padded - kernel;
  int64_t out = (ceil_mode_ ? (span + stride - 1) / stride : span / stride) + 1;
  // A window that would start in the trailing padding is dropped.
  if (ceil_mode_ && (out - 1) * stride >= int64_t(in) + pad_begin) --out;
  if (out > INT32_MAX)
    this->Fail(std::string("the output ") + axis + " (" + std::to_string(out) + ") is too large");
  return static_cast<int>(out);
}

template <>
void PoolingLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const Data<float>* x = this->in();
  const int h = x->GetDim(2), w = x->GetDim(3);
  int oh = 1, ow = 1;
  if (global_) {
    kernel_h_ = h;
    kernel_w_ = w;
  } else {
    oh = OutputSize("height", h, kernel_h_, stride_h_, pad_top_, pad_bottom_);
    ow = OutputSize("width", w, kernel_w_, stride_w_, pad_left_, pad_right_);
  }
  this->out()->Resize({x->GetDim(0), x->GetDim(1), oh, ow});
}

template <>
std::string PoolingLayer<float>::GetTypeDetail() {
  return method_ == Method::kMax ? "Pooling(max)" : "Pooling(ave)";
}

template <>
void PoolingLayer<float>::Run() {
  const Data<float>* in = this->in();
  Data<float>* out = this->out();
  const int64_t h = in->GetDim(2), w = in->GetDim(3);
  const int64_t oh = out->GetDim(2), ow = out->GetDim(3);
  const int64_t kh = kernel_h_, kw = kernel_w_, sh = stride_h_, sw = stride_w_;
  const int64_t pt = pad_top_, pb = pad_bottom_, pl = pad_left_, pr = pad_right_;
  const bool is_max = method_ == Method::kMax;
  const bool include_pad = count_include_pad_;
  const float* x = in->GetCpuData();
  float* y = out->GetCpuData();

  // One task is one output row of one plane; each output element is computed
  // by one task in a fixed order.
  const int64_t rows = int64_t(in->GetDim(0)) * in->GetDim(1) * oh;
  const int64_t work_per_row = std::max<int64_t>(1, ow * kh * kw);
  ParallelFor(
      rows,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t plane = r / oh, row = r % oh;
          const float* xp = x + plane * h * w;
          float* yr = y + plane * oh * ow + row * ow;
          const int64_t hs_pad = row * sh - pt;
          const int64_t he_pad = std::min(hs_pad + kh, h + pb);
          const int64_t hs = std::max<int64_t>(hs_pad, 0), he = std::min(he_pad, h);
          for (int64_t col = 0; col < ow; ++col) {
            const int64_t ws_pad = col * sw - pl;
            const int64_t we_pad = std::min(ws_pad + kw, w + pr);
            const int64_t ws = std::max<int64_t>(ws_pad, 0), we = std::min(we_pad, w);
            if (is_max) {
              float m = -std::numeric_limits<float>::infinity();
              for (int64_t i = hs; i < he; ++i)
                for (int64_t j = ws; j < we; ++j) m = std::max(m, xp[i * w + j]);
              yr[col] = m;
            } else {
              double sum = 0.0;
              for (int64_t i = hs; i < he; ++i)
                for (int64_t j = ws; j < we; ++j) sum += xp[i * w + j];
              const int64_t count =
                  include_pad ? (he_pad - hs_pad) * (we_pad - ws_pad) : (he - hs) * (we - ws);
              yr[col] = static_cast<float>(sum / static_cast<double>(count));
            }
          }
        }
      },
      std::max<int64_t>(1, kParallelGrain / work_per_row));
}

}  // namespace qzdl
