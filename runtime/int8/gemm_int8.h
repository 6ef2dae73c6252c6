// The fast integer kernels of convolution and inner product, exact on every
// CPU: sums of products of zero-point-subtracted codes computed by the float
// GEMM of the runtime (oneDNN or OpenBLAS, docs/gemm-backend.md).
//
// Why this is exact: a centred code lies in [-255, 255], so a product lies
// within 65025 and a sum of at most kExactChunk = 256 products within
// 16,646,400 < 2^24. Every partial sum of such a chunk is an integer that a
// float32 holds exactly, in whatever order and with whatever fused
// multiply-adds the GEMM uses. Longer reductions are cut into chunks whose
// float results are converted to integers and summed in int64, as the
// reference kernels sum. The results equal the reference kernels' bit for bit
// (tests/runtime/int8/gemm_int8_test.cpp), whatever the thread count.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/int8/reference.h"
#include "runtime/kernels/conv_geometry.h"

namespace qzdl {

constexpr int kExactChunk = 256;

// Centred float weights [out][K] of codes w laid out by `at(o, k)`.
template <typename At>
void CentreWeights(int out, int64_t k_dim, const uint8_t* w, const std::vector<int32_t>& zero,
                   At at, float* centred) {
  for (int o = 0; o < out; ++o)
    for (int64_t k = 0; k < k_dim; ++k)
      centred[o * k_dim + k] = static_cast<float>(int32_t(w[at(o, k)]) - zero[o]);
}

// Convolution on codes. Reshape sizes every buffer, so Run allocates nothing.
class ConvCodesKernel {
 public:
  void Reshape(const ConvGeometry& g);
  // y = requantized bias + sum (x - x_zero) * centred weights; `centred` is
  // [out_c][in_c / group * kernel_h * kernel_w].
  void Run(const uint8_t* x, int32_t x_zero, const float* centred, const ChannelQuantization& q,
           uint8_t* y);

 private:
  struct Slot {
    std::vector<float> col, product;
    std::vector<int64_t> acc;
  };
  void RunDepthwise(const uint8_t* x, int32_t x_zero, const float* centred,
                    const ChannelQuantization& q, uint8_t* y);

  ConvGeometry g_;
  bool depthwise_ = false, pointwise_ = false;
  int tile_ = 1;
  std::vector<float> centred_x_;
  std::vector<Slot> slots_;
};

// Inner product on codes: y[n][o] from x [batch][k_dim] and centred weights
// [out][k_dim].
class InnerProductCodesKernel {
 public:
  void Reshape(int batch, int k_dim, int out);
  void Run(const uint8_t* x, int32_t x_zero, const float* centred, const ChannelQuantization& q,
           uint8_t* y);

 private:
  int batch_ = 0, k_dim_ = 0, out_ = 0;
  std::vector<float> centred_x_, product_;
  std::vector<int64_t> acc_;
};

}  // namespace qzdl
