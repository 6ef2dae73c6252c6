// 2-d convolution and deconvolution (transposed convolution) on NCHW data.
#pragma once

#include "runtime/kernels/conv_geometry.h"
#include "runtime/kernels/conv_kernels.h"
#include "runtime/layer.h"

namespace qzdl {

// Hyper-parameters shared by "Convolution" and "Deconvolution", as read from
// the layer's param (see docs/layers/convolution.md).
struct ConvParams {
  int num_output = 0;
  int kernel_h = 0, kernel_w = 0;
  int stride_h = 1, stride_w = 1;
  int pad_top = 0, pad_bottom = 0, pad_left = 0, pad_right = 0;
  int dilation_h = 1, dilation_w = 1;
  int group = 1;
  bool bias_term = true;
  int output_pad_h = 0, output_pad_w = 0;  // deconvolution only
};

// Reads and checks the params; `deconvolution` also reads the output pads.
ConvParams ReadConvParams(const ParamReader& param, bool deconvolution);

// Geometry of an input of dims [N, C, H, W] under params p; the output sizes
// are left to the caller.
ConvGeometry InputGeometry(const std::vector<int>& dims, const ConvParams& p);

// "Convolution": y = conv(x, weight) + bias.
// Weights: "weight" [num_output, C / group, kernel_h, kernel_w], "bias"
// [num_output] when bias_term.
template <typename T>
class ConvolutionLayer : public Layer<T> {
 public:
  std::string GetTypeDetail() override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  bool FuseEpilogue(const Epilogue& e, Data<T>* dst, ChannelAffine* affine) override;
  Data<T>* FusedDestination() const override { return fused_dst_; }
  // The library's primitive only; not with a fused per-channel affine.
  int InputBlock() const override { return kernel_.SrcBlock(); }
  int OutputBlock() const override { return affine_ == nullptr ? kernel_.DstBlock() : 0; }
  void SetBlocked(bool input, bool output) override { kernel_.SetBlocked(input, output); }
  bool SetOutputImageStride(int64_t stride) override {
    kernel_.SetOutputImageStride(stride);
    return true;
  }

  const ConvParams& params() const { return params_; }
  const ConvGeometry& geometry() const { return geometry_; }
  // The kernel in use, e.g. to see which algorithm it picked.
  ConvKernel& kernel() { return kernel_; }

 protected:
  void Run() override;

 private:
  ConvParams params_;
  ConvGeometry geometry_;
  ConvKernel kernel_;
  Epilogue epilogue_;
  Data<T>* fused_dst_ = nullptr;           // where the output goes while fused
  uint64_t weights_epoch_ = ~uint64_t(0);  // of the last run
  // A fused Scale or BatchNormal, its constants per output channel, and the
  // weights epoch they were read at.
  ChannelAffine* affine_ = nullptr;
  std::vector<float> shift_, mult_, add_;
  uint64_t affine_epoch_ = ~uint64_t(0);
};

// "Deconvolution": the transpose of a convolution with the same params; the
// output is (in - 1) * stride - pad_begin - pad_end + dilation * (kernel - 1)
// + 1 + output_pad per spatial axis.
// Weights: "weight" [num_output, C / group, kernel_h, kernel_w] (output
// channels first, like Convolution), "bias" [num_output] when bias_term.
template <typename T>
class DeconvolutionLayer : public Layer<T> {
 public:
  std::string GetTypeDetail() override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;

  const ConvParams& params() const { return params_; }
  const ConvGeometry& geometry() const { return geometry_; }

 protected:
  void Run() override;

 private:
  ConvParams params_;
  ConvGeometry geometry_;
  DeconvKernel kernel_;
};

}  // namespace qzdl
