// "Pooling": max or average pooling over the two spatial axes of NCHW data,
// windowed or global.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "runtime/layer.h"

namespace qzdl {

// The windows of one pooling over `planes` NCHW planes: input and output
// sizes, kernel, stride, pads, and which count an average divides by.
struct PoolShape {
  int64_t planes = 0;
  int64_t in_h = 0, in_w = 0, out_h = 0, out_w = 0;
  int64_t kernel_h = 0, kernel_w = 0, stride_h = 1, stride_w = 1;
  int64_t pad_top = 0, pad_bottom = 0, pad_left = 0, pad_right = 0;
  bool count_include_pad = true;
};

// One axis of the window of output index `index`: [begin_pad, end_pad) with
// the padding (clipped at the end of the trailing padding) and [begin, end)
// on the input.
struct PoolSpan {
  int64_t begin_pad, end_pad, begin, end;
};
inline PoolSpan PoolWindowSpan(int64_t index, int64_t stride, int64_t pad_begin, int64_t kernel,
                               int64_t in, int64_t pad_end) {
  PoolSpan s;
  s.begin_pad = index * stride - pad_begin;
  s.end_pad = std::min(s.begin_pad + kernel, in + pad_end);
  s.begin = std::max<int64_t>(s.begin_pad, 0);
  s.end = std::min(s.end_pad, in);
  return s;
}
// The count an average pooling window divides by.
inline int64_t PoolWindowCount(const PoolSpan& h, const PoolSpan& w, bool include_pad) {
  return include_pad ? (h.end_pad - h.begin_pad) * (w.end_pad - w.begin_pad)
                     : (h.end - h.begin) * (w.end - w.begin);
}

// Max pooling of every window, for float values and for 8-bit codes (whose
// order is that of their real values).
template <typename E>
void MaxPoolKernel(const PoolShape& s, const E* x, E* y);
template <>
void MaxPoolKernel<float>(const PoolShape& s, const float* x, float* y);
template <>
void MaxPoolKernel<uint8_t>(const PoolShape& s, const uint8_t* x, uint8_t* y);

template <typename T>
class PoolingLayer : public Layer<T> {
 public:
  enum class Method { kMax, kAverage };

  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // "Pooling(max)" or "Pooling(ave)".
  std::string GetTypeDetail() override;

  Method GetMethod() const { return method_; }
  bool IsGlobal() const { return global_; }
  // Window geometry of the last Reshape (for global pooling: the input plane).
  int KernelH() const { return kernel_h_; }
  int KernelW() const { return kernel_w_; }
  int StrideH() const { return stride_h_; }
  int StrideW() const { return stride_w_; }
  int PadTop() const { return pad_top_; }
  int PadBottom() const { return pad_bottom_; }
  int PadLeft() const { return pad_left_; }
  int PadRight() const { return pad_right_; }
  bool CeilMode() const { return ceil_mode_; }
  bool CountIncludePad() const { return count_include_pad_; }
  // The windows of the last Reshape.
  PoolShape Shape() const;
  // Global average pooling reads a tensor in 16-channel blocks as it lies
  // (inference mode's hand-off): each channel is summed over the plane in
  // the same order, so the output has the same bits.
  int InputBlock() const override;
  void SetBlocked(bool input, bool output) override;

 protected:
  void Run() override;

 private:
  // Output length of one spatial axis; fails when the window does not fit.
  int OutputSize(const char* axis, int in, int kernel, int stride, int pad_begin,
                 int pad_end) const;

  Method method_ = Method::kMax;
  bool global_ = false;
  bool ceil_mode_ = false;
  bool count_include_pad_ = true;
  bool blocked_input_ = false;  // see InputBlock
  int kernel_h_ = 0, kernel_w_ = 0;
  int stride_h_ = 1, stride_w_ = 1;
  int pad_top_ = 0, pad_bottom_ = 0, pad_left_ = 0, pad_right_ = 0;
};

}  // namespace qzdl
