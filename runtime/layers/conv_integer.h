// "ConvInteger": a 2-d convolution of whole numbers whose sums are exact, as
// ONNX's ConvInteger sums code products in int32.
#pragma once

#include <vector>

#include "runtime/kernels/conv_geometry.h"
#include "runtime/layer.h"
#include "runtime/layers/convolution.h"

namespace qzdl {

// Input: zero-point-subtracted codes as floats [N, C, H, W]; weights
// "weight" [num_output, C / group, kernel_h, kernel_w], also whole numbers
// (codes minus their zero points). Params as "Convolution" (no bias). Each
// output is the exact integer sum of its products, rounded to float once.
// Taps in the padding add nothing (the input's zero point, centred, is 0).
template <typename T>
class ConvIntegerLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  // How many products the float GEMM sums before the partial sums move to
  // int64, for the largest input and weight magnitudes given: every partial
  // sum stays within 2^24, where float adds whole numbers exactly.
  static int ChunkFor(int k, double max_x, double max_w);

 protected:
  void Run() override;

 private:
  ConvParams params_;
  ConvGeometry g_;
  int k_ = 0, tile_ = 1;
  struct Slot {
    std::vector<float> col, product;
    std::vector<int64_t> acc;
  };
  std::vector<Slot> slots_;
};

}  // namespace qzdl
