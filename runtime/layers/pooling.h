// "Pooling": max or average pooling over the two spatial axes of NCHW data,
// windowed or global.
#pragma once

#include <string>

#include "runtime/layer.h"

namespace qzdl {

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
  int kernel_h_ = 0, kernel_w_ = 0;
  int stride_h_ = 1, stride_w_ = 1;
  int pad_top_ = 0, pad_bottom_ = 0, pad_left_ = 0, pad_right_ = 0;
};

}  // namespace qzdl
