// Fast convolution, deconvolution and inner product on NCHW float data.
//
// A kernel object is configured once per shape (at reshape: it picks the
// algorithm and sizes its workspace) and then run any number of times without
// allocating. Work is split into tiles whose shapes depend only on the
// problem, and each output element is summed by one thread in a fixed order,
// so results do not depend on the number of threads.
#pragma once

#include <memory>
#include <string>

#include "runtime/data.h"
#include "runtime/kernels/conv_dnnl.h"
#include "runtime/kernels/conv_direct.h"
#include "runtime/kernels/conv_geometry.h"
#include "runtime/kernels/conv_pointwise.h"
#include "runtime/kernels/epilogue.h"

namespace qzdl {

enum class ConvAlgorithm {
  kAuto,        // choose (configuration only)
  kDepthwise,   // direct kernel, one input channel per output channel
  kGemm1x1,     // 1x1, stride 1, no padding: GEMM straight on the input
  kPointwise,   // 1x1, stride 1, no padding, one group: direct kernel (conv_pointwise.h)
  kDirect,      // few input channels, one group: direct kernel (conv_direct.h)
  kIm2colGemm,  // patches gathered tile by tile, then GEMM
  kDnnl,        // oneDNN's convolution primitive (builds with oneDNN only)
};

const char* ConvAlgorithmName(ConvAlgorithm a);

class ConvKernel {
 public:
  ConvKernel();
  ~ConvKernel();

  // Whether algorithm `a` can compute g (kDnnl: whether the build has it).
  // The GEMM paths and oneDNN need an output plane, and a patch of
  // C/group x kh x kw values, of at most 2^31 - 1 (ints in their APIs); the
  // depthwise kernel takes planes of any size.
  static bool Applies(ConvAlgorithm a, const ConvGeometry& g);
  // Picks the algorithm (`want`, when it applies, else the automatic choice)
  // and sizes the workspace. Does nothing when called again with the same
  // arguments. False, with nothing configured, when no algorithm applies.
  bool Configure(const ConvGeometry& g, bool bias, ConvAlgorithm want = ConvAlgorithm::kAuto);
  ConvAlgorithm algorithm() const { return algorithm_; }
  // e.g. "im2col+gemm (oneDNN 2.6.3)" or "oneDNN brgconv:avx512_core".
  std::string Describe() const;

  // Channel-blocked hand-off: the block of the layout in which the kernel
  // can read its input / write its output without a reorder (the library's
  // primitive: see DnnlConvolution; the direct depthwise and 1x1 kernels:
  // 16, see conv_pointwise.h, when the channels fill whole blocks), else 0.
  // SetBlocked makes Run read / write that layout; the values are those of
  // the NCHW run, bit for bit, permuted. Configure resets it.
  int SrcBlock() const;
  int DstBlock() const;
  void SetBlocked(bool src, bool dst);

  // Where the images of y start: image n at n * stride floats (0: dense,
  // M x OH x OW apart), so that an output can be written straight into its
  // place in a larger tensor (a concat's). Kept across Configure.
  void SetOutputImageStride(int64_t stride) { y_image_ = stride; }

  // x [N, C, H, W], w [M, C/group, kh, kw], b [M] or null, y [N, M, OH, OW].
  // `e` is applied to every output after the bias, while it is in cache.
  // `same_weights` promises that w holds what it held at the last run, so
  // that weights prepared then may be used again.
  void Run(const float* x, const float* w, const float* b, float* y, const Epilogue& e = {},
           bool same_weights = false);

 private:
  void PlanTiles();
  void RunGemm(const float* x, const float* w, const float* b, float* y, const Epilogue& e);

  ConvGeometry g_;
  bool bias_ = false;
  bool configured_ = false;
  ConvAlgorithm want_ = ConvAlgorithm::kAuto;
  ConvAlgorithm algorithm_ = ConvAlgorithm::kAuto;
  // GEMM tiling: output rows (channels of a group) x output positions.
  int m_block_ = 0, m_tiles_ = 0, n_block_ = 0, n_tiles_ = 0;
  int slots_ = 0;        // per-thread buffers in cols_
  AlignedBuffer cols_;   // im2col: slots_ x (K x n_block_) floats; depthwise: padded planes
  int64_t y_image_ = 0;  // see SetOutputImageStride
  bool src_blocked_ = false, dst_blocked_ = false;  // the direct kernels' SetBlocked
  std::unique_ptr<DnnlConvolution> dnnl_;
  PointwiseKernel pointwise_;
  DirectConvKernel direct_;
  AlignedBuffer packed_;  // blocked depthwise: weights and bias in 16-channel blocks
  bool packed_valid_ = false;
};

// Deconvolution as GEMM (the weights against the input) followed by adding
// the products into the output (col2im). Weights [M, C/group, kh, kw]; the
// geometry's "in" is the deconvolution's input.
class DeconvKernel {
 public:
  // False when (M / group) x kh x kw or the input plane is beyond 2^31 - 1,
  // the GEMM's int dimensions.
  bool Configure(const ConvGeometry& g, bool bias);
  void Run(const float* x, const float* w, const float* b, float* y);

 private:
  ConvGeometry g_;
  bool bias_ = false;
  bool configured_ = false;
  int rows_ = 0;  // (M / group) * kh * kw
  int n_block_ = 0, m_block_ = 0;
  AlignedBuffer packed_;  // weights as group x [rows_][C/group]
  AlignedBuffer col_;     // rows_ x n_block_
};

// y[N, out] = x[N, k] * W^T + b with W [out, k], or x * W with W [k, out]
// when `transpose`. b may be null.
void InnerProductForward(int batch, int k, int out, bool transpose, const float* x, const float* w,
                         const float* b, float* y);

}  // namespace qzdl
