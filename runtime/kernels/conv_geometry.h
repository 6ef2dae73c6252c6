// Shapes and hyper-parameters of one 2-d convolution or deconvolution on
// NCHW float data, shared by the reference and the optimized kernels.
#pragma once

#include <cstdint>
#include <string>

namespace qzdl {

struct ConvGeometry {
  int batch = 1;
  // For a deconvolution "in" is the layer's input and "out" its output.
  int in_c = 1, in_h = 1, in_w = 1;
  int out_c = 1, out_h = 1, out_w = 1;
  int kernel_h = 1, kernel_w = 1;
  int stride_h = 1, stride_w = 1;
  int pad_top = 0, pad_bottom = 0, pad_left = 0, pad_right = 0;
  int dilation_h = 1, dilation_w = 1;
  int group = 1;

  int InPerGroup() const { return in_c / group; }
  int OutPerGroup() const { return out_c / group; }
  // Products of dims are 64-bit; the kernels narrow them where the layer has
  // checked that they fit (GEMM dimensions are ints).
  int64_t KernelArea() const { return int64_t(kernel_h) * kernel_w; }
  int64_t InPlane() const { return int64_t(in_h) * in_w; }
  int64_t OutPlane() const { return int64_t(out_h) * out_w; }
  // Height and width covered by one dilated kernel.
  int ExtentH() const { return dilation_h * (kernel_h - 1) + 1; }
  int ExtentW() const { return dilation_w * (kernel_w - 1) + 1; }

  // Output size of a convolution over the padded input (0 or less: empty).
  int ConvOutH() const { return (in_h + pad_top + pad_bottom - ExtentH()) / stride_h + 1; }
  int ConvOutW() const { return (in_w + pad_left + pad_right - ExtentW()) / stride_w + 1; }
  bool ConvFits() const {
    return in_h + pad_top + pad_bottom >= ExtentH() && in_w + pad_left + pad_right >= ExtentW();
  }

  bool operator==(const ConvGeometry& o) const;
  bool operator!=(const ConvGeometry& o) const { return !(*this == o); }
  // "N=1 C=3 H=7 W=5 -> M=2 OH=4 OW=3 k=3x3 s=2x2 p=1,1,1,1 d=1x1 g=1" for messages.
  std::string ToString() const;
};

inline bool ConvGeometry::operator==(const ConvGeometry& o) const {
  return batch == o.batch && in_c == o.in_c && in_h == o.in_h && in_w == o.in_w &&
         out_c == o.out_c && out_h == o.out_h && out_w == o.out_w && kernel_h == o.kernel_h &&
         kernel_w == o.kernel_w && stride_h == o.stride_h && stride_w == o.stride_w &&
         pad_top == o.pad_top && pad_bottom == o.pad_bottom && pad_left == o.pad_left &&
         pad_right == o.pad_right && dilation_h == o.dilation_h && dilation_w == o.dilation_w &&
         group == o.group;
}

inline std::string ConvGeometry::ToString() const {
  auto s = [](int v) { return std::to_string(v); };
  return "N=" + s(batch) + " C=" + s(in_c) + " H=" + s(in_h) + " W=" + s(in_w) +
         " -> M=" + s(out_c) + " OH=" + s(out_h) + " OW=" + s(out_w) + " k=" + s(kernel_h) + "x" +
         s(kernel_w) + " s=" + s(stride_h) + "x" + s(stride_w) + " p=" + s(pad_top) + "," +
         s(pad_left) + "," + s(pad_bottom) + "," + s(pad_right) + " d=" + s(dilation_h) + "x" +
         s(dilation_w) + " g=" + s(group);
}

}  // namespace qzdl
