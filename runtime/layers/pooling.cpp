#include "runtime/layers/pooling.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include "runtime/kernels/parallel.h"

// The row loops are compiled for AVX-512, AVX2 and the baseline on x86-64,
// picked at load time.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QZDL_POOL_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define QZDL_POOL_CLONES
#endif

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
PoolShape PoolingLayer<float>::Shape() const {
  PoolShape s;
  const Data<float>* in = this->in();
  const Data<float>* out = this->out();
  s.planes = int64_t(in->GetDim(0)) * in->GetDim(1);
  s.in_h = in->GetDim(2), s.in_w = in->GetDim(3);
  s.out_h = out->GetDim(2), s.out_w = out->GetDim(3);
  s.kernel_h = kernel_h_, s.kernel_w = kernel_w_, s.stride_h = stride_h_, s.stride_w = stride_w_;
  s.pad_top = pad_top_, s.pad_bottom = pad_bottom_, s.pad_left = pad_left_,
  s.pad_right = pad_right_;
  s.count_include_pad = count_include_pad_;
  return s;
}

namespace {

// One task is one output row of one plane; each output element is computed
// by one task in a fixed order.
template <typename Fn>
void ForEachPoolRow(const PoolShape& s, Fn row_fn) {
  const int64_t work_per_row = std::max<int64_t>(1, s.out_w * s.kernel_h * s.kernel_w);
  ParallelFor(
      s.planes * s.out_h,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) row_fn(r / s.out_h, r % s.out_h);
      },
      std::max<int64_t>(1, kParallelGrain / work_per_row));
}

}  // namespace

namespace {

// The maximum of one window (rows hs of plane xp, output column col), taken
// element by element in row-major order. Every window holds at least one
// input element (the pads are smaller than the kernel), so the start value
// is always replaced.
template <typename E>
E WindowMax(const PoolShape& s, const E* xp, const PoolSpan& hs, int64_t col) {
  const E lowest = std::numeric_limits<E>::has_infinity ? -std::numeric_limits<E>::infinity()
                                                        : std::numeric_limits<E>::lowest();
  const PoolSpan ws = PoolWindowSpan(col, s.stride_w, s.pad_left, s.kernel_w, s.in_w, s.pad_right);
  E m = lowest;
  for (int64_t i = hs.begin; i < hs.end; ++i)
    for (int64_t j = ws.begin; j < ws.end; ++j) m = std::max(m, xp[i * s.in_w + j]);
  return m;
}

template <typename E>
void MaxPoolWindows(const PoolShape& s, const E* x, E* y) {
  ForEachPoolRow(s, [=](int64_t plane, int64_t row) {
    const E* xp = x + plane * s.in_h * s.in_w;
    E* yr = y + (plane * s.out_h + row) * s.out_w;
    const PoolSpan hs =
        PoolWindowSpan(row, s.stride_h, s.pad_top, s.kernel_h, s.in_h, s.pad_bottom);
    for (int64_t col = 0; col < s.out_w; ++col) yr[col] = WindowMax(s, xp, hs, col);
  });
}

// Input rows up to this width take the two-pass loop below.
constexpr int64_t kMaxSeparableRow = 4096;

// The output columns whose windows lie wholly inside the input row.
void InteriorColumns(const PoolShape& s, int64_t* first, int64_t* last) {
  *first = s.out_w, *last = s.out_w;
  for (int64_t col = 0; col < s.out_w; ++col) {
    const int64_t b = col * s.stride_w - s.pad_left;
    if (b >= 0 && b + s.kernel_w <= s.in_w) {
      if (*first == s.out_w) *first = col;
      *last = col + 1;
    }
  }
}

// One output row of floats. Each element takes its window in row-major order
// (rows, then columns), as the element-by-element loop does, so a NaN is
// dropped and the sign of a zero maximum kept as they always were; the
// interior columns run together, a tap at a time (a loop over columns that
// the compiler vectorizes).
QZDL_POOL_CLONES
void MaxPoolRowFloat(const PoolShape& s, const float* __restrict xp, float* __restrict yr,
                     int64_t row, int64_t first, int64_t last) {
  constexpr float lowest = -std::numeric_limits<float>::infinity();
  const PoolSpan hs = PoolWindowSpan(row, s.stride_h, s.pad_top, s.kernel_h, s.in_h, s.pad_bottom);
  for (int64_t col = 0; col < first; ++col) yr[col] = WindowMax(s, xp, hs, col);
  for (int64_t col = first; col < last; ++col) yr[col] = lowest;
  const int64_t stride = s.stride_w;
  for (int64_t i = hs.begin; i < hs.end; ++i) {
    for (int64_t j = 0; j < s.kernel_w; ++j) {
      const float* __restrict r = xp + i * s.in_w + j - s.pad_left;
      if (stride == 1) {
        for (int64_t col = first; col < last; ++col) yr[col] = std::max(yr[col], r[col]);
      } else if (stride == 2) {
        for (int64_t col = first; col < last; ++col) yr[col] = std::max(yr[col], r[2 * col]);
      } else {
        for (int64_t col = first; col < last; ++col) yr[col] = std::max(yr[col], r[col * stride]);
      }
    }
  }
  for (int64_t col = last; col < s.out_w; ++col) yr[col] = WindowMax(s, xp, hs, col);
}

}  // namespace

template <>
void MaxPoolKernel<float>(const PoolShape& s, const float* x, float* y) {
  int64_t first = 0, last = 0;
  InteriorColumns(s, &first, &last);
  ForEachPoolRow(s, [=](int64_t plane, int64_t row) {
    MaxPoolRowFloat(s, x + plane * s.in_h * s.in_w, y + (plane * s.out_h + row) * s.out_w, row,
                    first, last);
  });
}

// Codes have no NaN and the maximum does not depend on the order: each
// output row takes the maximum over its window's input rows once per
// column (a loop the compiler vectorizes), then over each window's columns.
template <>
void MaxPoolKernel<uint8_t>(const PoolShape& s, const uint8_t* x, uint8_t* y) {
  if (s.in_w > kMaxSeparableRow) return MaxPoolWindows(s, x, y);
  ForEachPoolRow(s, [=](int64_t plane, int64_t row) {
    const uint8_t* xp = x + plane * s.in_h * s.in_w;
    uint8_t* yr = y + (plane * s.out_h + row) * s.out_w;
    const PoolSpan hs =
        PoolWindowSpan(row, s.stride_h, s.pad_top, s.kernel_h, s.in_h, s.pad_bottom);
    uint8_t columns[kMaxSeparableRow];
    const int64_t w = s.in_w;
    std::memcpy(columns, xp + hs.begin * w, static_cast<size_t>(w));
    for (int64_t i = hs.begin + 1; i < hs.end; ++i) {
      const uint8_t* r = xp + i * w;
      for (int64_t j = 0; j < w; ++j) columns[j] = std::max(columns[j], r[j]);
    }
    for (int64_t col = 0; col < s.out_w; ++col) {
      const PoolSpan ws =
          PoolWindowSpan(col, s.stride_w, s.pad_left, s.kernel_w, s.in_w, s.pad_right);
      uint8_t m = 0;
      for (int64_t j = ws.begin; j < ws.end; ++j) m = std::max(m, columns[j]);
      yr[col] = m;
    }
  });
}

template <>
int PoolingLayer<float>::InputBlock() const {
  constexpr int kBlock = 16;
  const bool global_average = global_ && method_ == Method::kAverage;
  return global_average && this->in()->GetDim(1) % kBlock == 0 ? kBlock : 0;
}

template <>
void PoolingLayer<float>::SetBlocked(bool input, bool /*output*/) {
  blocked_input_ = input && InputBlock() != 0;
}

template <>
void PoolingLayer<float>::Run() {
  const PoolShape s = Shape();
  const float* x = this->in()->GetCpuData();
  float* y = this->out()->GetCpuData();
  if (method_ == Method::kMax) {
    MaxPoolKernel(s, x, y);
    return;
  }
  if (blocked_input_) {
    // [N][C / 16][plane][16]: 16 channels side by side, each summed in
    // plane order as below.
    const int64_t plane = int64_t(s.in_h) * s.in_w;
    const int64_t blocks = s.planes / 16;
    ParallelFor(
        blocks,
        [=](int64_t begin, int64_t end) {
          for (int64_t b = begin; b < end; ++b) {
            const float* xb = x + b * plane * 16;
            double sum[16] = {};
            for (int64_t p = 0; p < plane; ++p)
              for (int l = 0; l < 16; ++l) sum[l] += xb[p * 16 + l];
            for (int l = 0; l < 16; ++l)
              y[b * 16 + l] = static_cast<float>(sum[l] / static_cast<double>(plane));
          }
        },
        std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, plane * 16)));
    return;
  }
  ForEachPoolRow(s, [=](int64_t plane, int64_t row) {
    const float* xp = x + plane * s.in_h * s.in_w;
    float* yr = y + (plane * s.out_h + row) * s.out_w;
    const PoolSpan hs =
        PoolWindowSpan(row, s.stride_h, s.pad_top, s.kernel_h, s.in_h, s.pad_bottom);
    for (int64_t col = 0; col < s.out_w; ++col) {
      const PoolSpan ws =
          PoolWindowSpan(col, s.stride_w, s.pad_left, s.kernel_w, s.in_w, s.pad_right);
      double sum = 0.0;
      for (int64_t i = hs.begin; i < hs.end; ++i)
        for (int64_t j = ws.begin; j < ws.end; ++j) sum += xp[i * s.in_w + j];
      const int64_t count = PoolWindowCount(hs, ws, s.count_include_pad);
      yr[col] = static_cast<float>(sum / static_cast<double>(count));
    }
  });
}

}  // namespace qzdl
