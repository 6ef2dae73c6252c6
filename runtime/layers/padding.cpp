#include "runtime/layers/padding.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// Source index of padded position p (in [-before, n + after)) of an axis of
// size n, or -1 for the constant fill.
int SourceIndex(int p, int n, const std::string& mode) {
  if (p >= 0 && p < n) return p;
  if (mode == "constant") return -1;
  if (mode == "edge") return p < 0 ? 0 : n - 1;
  // Reflect; pads are < n. 2 * (n - 1) may pass the int range.
  return p < 0 ? -p : static_cast<int>(2 * (int64_t(n) - 1) - p);
}

}  // namespace

template <>
void PaddingLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (this->GetType() == "ZeroPadding") {
    mode_ = param.Choice("mode", "constant", {"constant"});
    value_ = param.Float("value", 0.0f);
    if (value_ != 0.0f) param.Fail("param \"value\" must be 0; ZeroPadding pads with zeros");
  } else if (this->GetType() == "ReflectionPadding" || this->GetType() == "ReplicationPadding") {
    // The type names the mode; a differing `mode` is a mistake, not a choice.
    const std::string fixed = this->GetType() == "ReflectionPadding" ? "reflect" : "edge";
    mode_ = param.String("mode", fixed);
    if (mode_ != fixed)
      param.Fail("param \"mode\" is \"" + mode_ + "\"; " + this->GetType() +
                 " always pads with mode \"" + fixed + "\"");
  } else {
    mode_ = param.Choice("mode", "constant", {"constant", "reflect", "edge"});
    value_ = param.Float("value", 0.0f);
  }
  int* pads[] = {&top_, &bottom_, &left_, &right_};
  const char* keys[] = {"pad_top", "pad_bottom", "pad_left", "pad_right"};
  for (int i = 0; i < 4; ++i) {
    *pads[i] = param.Int(keys[i], 0);
    if (*pads[i] < 0)
      param.Fail("param \"" + std::string(keys[i]) + "\" must be >= 0, got " +
                 std::to_string(*pads[i]));
  }
}

template <>
void PaddingLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const std::vector<int> in_dims = this->in()->GetDims();
  const int in_h = in_dims[2], in_w = in_dims[3];
  if (mode_ == "reflect" && (top_ >= in_h || bottom_ >= in_h || left_ >= in_w || right_ >= in_w))
    this->Fail("reflect pads (top " + std::to_string(top_) + ", bottom " + std::to_string(bottom_) +
               ", left " + std::to_string(left_) + ", right " + std::to_string(right_) +
               ") must be smaller than the height and width of input \"" + this->in()->GetName() +
               "\" of shape " + DimsToString(in_dims));
  const int64_t out_h = int64_t(in_h) + top_ + bottom_, out_w = int64_t(in_w) + left_ + right_;
  if (out_h > INT_MAX || out_w > INT_MAX)
    this->Fail("pads make an axis longer than " + std::to_string(INT_MAX));
  src_y_.resize(out_h);
  src_x_.resize(out_w);
  for (int i = 0; i < out_h; ++i) src_y_[i] = SourceIndex(i - top_, in_h, mode_);
  for (int i = 0; i < out_w; ++i) src_x_[i] = SourceIndex(i - left_, in_w, mode_);
  this->out()->Resize({in_dims[0], in_dims[1], static_cast<int>(out_h), static_cast<int>(out_w)});
}

template <>
std::string PaddingLayer<float>::GetTypeDetail() {
  if (this->GetType() != "Padding") return this->GetType();
  return this->GetType() + "(" + mode_ + ")";
}

template <>
template <typename E>
void PaddingLayer<float>::Move(const E* x, E* y, E fill) const {
  const int64_t in_h = this->in()->GetDim(2), in_w = this->in()->GetDim(3);
  const int64_t out_h = this->out()->GetDim(2), out_w = this->out()->GetDim(3);
  const int64_t rows = this->out()->Count(0) / out_w;
  const int* src_y = src_y_.data();
  const int* src_x = src_x_.data();
  const E value = fill;
  const int64_t left = left_, right = right_;
  ParallelFor(
      rows,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t plane = r / out_h, oy = r % out_h;
          E* dst = y + r * out_w;
          if (src_y[oy] < 0) {
            std::fill(dst, dst + out_w, value);
            continue;
          }
          const E* src = x + (plane * in_h + src_y[oy]) * in_w;
          for (int64_t i = 0; i < left; ++i) dst[i] = src_x[i] < 0 ? value : src[src_x[i]];
          std::memcpy(dst + left, src, static_cast<size_t>(in_w) * sizeof(E));
          for (int64_t i = left + in_w; i < left + in_w + right; ++i)
            dst[i] = src_x[i] < 0 ? value : src[src_x[i]];
        }
      },
      std::max<int64_t>(1, kParallelGrain / out_w));
}

template <>
void PaddingLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData(), value_);
}

template <>
void PaddingLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                    const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0], fill);
}

}  // namespace qzdl
