// Convolution through oneDNN's convolution primitive, on NCHW tensors.
//
// oneDNN chooses a primitive's blocking, and with it the order of the sums,
// from the thread count at creation. So every primitive here is created for
// one thread and run serially inside our own OpenMP loop over work items:
// (image, chunk of output channels) or, at small batches where the library
// computes in channels-last and the weights are smaller than the input,
// (image, band of output rows), where the chunks and bands depend on the
// shape only. Results are then the same for any thread count.
//
// Each image is reordered into the layout oneDNN picks for the machine
// (channel-blocked on AVX-512) and each output back to NCHW; the weights are
// reordered on every run unless the caller promises they are unchanged,
// because callers may rewrite a layer's weights between runs. Available only in builds with oneDNN.
#pragma once

#include <memory>
#include <string>

#include "runtime/kernels/conv_geometry.h"
#include "runtime/kernels/epilogue.h"

namespace qzdl {

class DnnlConvolution {
 public:
  DnnlConvolution();
  ~DnnlConvolution();
  DnnlConvolution(const DnnlConvolution&) = delete;
  DnnlConvolution& operator=(const DnnlConvolution&) = delete;

  // Whether the build has oneDNN.
  static bool Available();
  // Creates the primitives and the workspace for g. False when oneDNN is
  // missing or has only its slow reference implementation for g.
  bool Configure(const ConvGeometry& g, bool bias);
  // x [N, C, H, W], w [M, C/group, kh, kw], b [M] (null without bias); `e`
  // goes over each chunk of outputs as soon as it is in NCHW. With
  // `same_weights` (w holds what it held at the last run) the weights
  // reordered then are used again.
  // Image n of y starts n * y_image floats in (0: dense).
  void Run(const float* x, const float* w, const float* b, float* y, const Epilogue& e = {},
           bool same_weights = false, int64_t y_image = 0);
  // Hand-off between convolutions without reorders: the layout the
  // primitive reads its input in / writes its output in, when the image in
  // it has the size of its NCHW form and each output chunk is one piece of
  // it: 8 or 16 for oneDNN's nChw8c / nChw16c (channels filling whole
  // blocks), 1 for channels-last (nhwc; output only in one chunk), else 0.
  int SrcBlock() const;
  int DstBlock() const;
  // With `src`, Run reads x already in the SrcBlock() layout (no reorder);
  // with `dst`, it leaves y in the DstBlock() layout, and `e` (which must
  // not hold a per-channel affine) goes over it as it lies. The values are
  // those of the NCHW run, permuted. Flags a shape
  // cannot honour are dropped.
  void SetBlocked(bool src, bool dst);
  // oneDNN's implementation name, e.g. "brgconv:avx512_core", and the
  // number of output-channel chunks.
  std::string ImplName() const;
  // The parallel work items of a run: images x output-channel chunks.
  int64_t Items() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qzdl
