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

#include "runtime/int8/depthwise_int8.h"
#include "runtime/int8/pair_gemm.h"
#include "runtime/int8/quad_gemm.h"
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

// Shifted weights [out][K] for the u8 x s8 path: w - 128 as int8, and
// each row's sum.
template <typename At>
void ShiftWeights(int out, int64_t k_dim, const uint8_t* w, At at, int8_t* shifted, int32_t* sums) {
  for (int o = 0; o < out; ++o) {
    int32_t sum = 0;
    for (int64_t k = 0; k < k_dim; ++k) {
      const int v = int(w[at(o, k)]) - 128;
      shifted[o * k_dim + k] = static_cast<int8_t>(v);
      sum += v;
    }
    sums[o] = sum;
  }
}

// Each row's sum of the codes w laid out by `at(o, k)`.
template <typename At>
void SumCodeRows(int out, int64_t k_dim, const uint8_t* w, At at, int32_t* sums) {
  for (int o = 0; o < out; ++o) {
    int32_t sum = 0;
    for (int64_t k = 0; k < k_dim; ++k) sum += w[at(o, k)];
    sums[o] = sum;
  }
}

// The weights as the fast kernels read them ([out][K] each): centred floats
// for the float GEMM; for the u8 x s8 GEMM, the codes themselves and their
// row sums (convolution) or the shifted codes and their row sums (inner
// product); for the pair GEMM, the centred codes packed in pairs
// (pair_gemm.h), panels per group.
struct CodeWeights {
  const float* centred = nullptr;
  const uint8_t* codes = nullptr;
  const int32_t* code_sum = nullptr;
  const int8_t* shifted = nullptr;
  const int32_t* shifted_sum = nullptr;
  const int32_t* pairs = nullptr;
  const int32_t* quads = nullptr;
};

// Which of those forms a kernel reads.
enum class WeightForm {
  kCentred,  // centred floats
  kU8S8,     // the u8 x s8 forms (codes and sums, or shifted codes and sums)
  kPairs,    // packed pairs
  kQuads,    // packed quads and the codes' row sums
};

// Where the CPU sums u8 x s8 products exactly (HaveExactU8S8Gemm), the
// reductions run on it in integers. A convolution takes the weight codes w
// as the unsigned side and the input shifted to x' = x - 128 as the signed
// one (padding holds zx - 128, the shifted code of real zero):
//   sum (x - zx)(w - zw) = sum w x' - zw * sum x' + c * sum w - c * zw * K,
// c = 128 - zx. An inner product takes the input codes as the unsigned side
// and w' = w - 128 as the signed one:
//   sum (x - zx)(w - zw) = sum x w' + d * sum x - zx * sum w' - zx * d * K,
// d = 128 - zw. A product lies within 255 * 128, so the int32 sums of the
// GEMM cannot overflow while K <= kMaxShiftedK.
constexpr int64_t kMaxShiftedK = 65536;

// How a convolution on codes runs (every path gives the reference kernel's
// bits; Reshape picks the fastest one that is exact on this CPU):
enum class ConvPath {
  kFloatGemm,         // im2col tiles times centred float weights, exact chunks
  kShiftedGemm,       // im2col tiles on the u8 x s8 GEMM (HaveExactU8S8Gemm)
  kFloatDepthwise,    // the float depthwise kernel on centred codes (<= 256 taps)
  kIntegerDepthwise,  // DepthwiseCodesKernel (depthwise_int8.h), on every CPU
  kIntegerDepthwisePortable,  // the same without its AVX-512 loop (for tests)
  kPairGemm,  // im2col tiles of centred codes on the 16-bit pair GEMM (pair_gemm.h)
  kQuadGemm,  // im2col tiles of codes on the VNNI quad GEMM, requantized in registers
};
const char* ConvPathName(ConvPath path);

// Convolution on codes. Reshape sizes every buffer, so Run allocates nothing.
class ConvCodesKernel {
 public:
  // `allow_shifted` false keeps the float GEMM path even where one of the
  // integer GEMMs would run (all give the same bits; tests compare them).
  void Reshape(const ConvGeometry& g, bool allow_shifted = true);
  // Sets up `path` alone; false (and nothing set up) where it cannot run
  // exactly for this shape on this CPU. For tests and measurements.
  bool ReshapeFor(const ConvGeometry& g, ConvPath path);
  ConvPath Path() const { return path_; }
  const ConvGeometry& Geometry() const { return g_; }
  // Whether Run takes the u8 x s8 GEMM (reading the weight codes and their
  // row sums) or the float one (reading centred weights); settled by Reshape
  // from the shape and the CPU.
  bool Shifted() const { return path_ == ConvPath::kShiftedGemm; }
  // The weights Run reads: the centred floats, the weight codes and their
  // row sums (CodeWeights::codes and code_sum), or the packed pairs.
  WeightForm Form() const {
    if (path_ == ConvPath::kFloatGemm || path_ == ConvPath::kFloatDepthwise)
      return WeightForm::kCentred;
    if (path_ == ConvPath::kQuadGemm) return WeightForm::kQuads;
    return path_ == ConvPath::kPairGemm ? WeightForm::kPairs : WeightForm::kU8S8;
  }
  // y = requantized bias + sum (x - x_zero) * (w - zw); the weights are
  // [out_c][in_c / group * kernel_h * kernel_w].
  void Run(const uint8_t* x, int32_t x_zero, const CodeWeights& w, const ChannelQuantization& q,
           uint8_t* y);

 private:
  struct Slot {
    std::vector<float> col, product;
    std::vector<int64_t> acc;
    std::vector<int8_t> col8;
    std::vector<int32_t> c32, colsum, pairs, quads;
    std::vector<uint8_t> codes;
  };
  // A work item: positions [first, first + count) of one group of one image.
  struct Tile {
    int n = 0, group = 0, count = 0;
    int64_t first = 0;
  };
  static bool CanRun(const ConvGeometry& g, ConvPath path);
  void Setup(const ConvGeometry& g, ConvPath path);
  Tile TileOf(int64_t item) const;
  void RunDepthwise(const float* centred, const ChannelQuantization& q, uint8_t* y);
  void RunShifted(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                  const ChannelQuantization& q, uint8_t* y);
  void RunPairs(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                const ChannelQuantization& q, uint8_t* y);
  void RunQuads(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                const ChannelQuantization& q, uint8_t* y);

  ConvGeometry g_;
  ConvPath path_ = ConvPath::kFloatGemm;
  bool pointwise_ = false;
  int tile_ = 1;
  // The pair and quad GEMMs split a group's output channels into blocks of
  // panels where the tiles alone would leave threads idle.
  int64_t pair_blocks_ = 1, pair_panel_block_ = 1;
  std::vector<QuadRow> quad_rows_;  // per output channel, made per run
  bool quad_flat_ = false;          // quad tiles run on across images
  // The packed tiles of a layer whose channels are split into blocks.
  std::vector<int32_t> shared_quads_, shared_colsum_;
  std::vector<uint8_t> shared_single_;
  int64_t shared_quads_stride_ = 0, shared_colsum_stride_ = 0;
  std::vector<float> centred_x_;
  std::vector<float> depthwise_out_, depthwise_scratch_;
  std::vector<Slot> slots_;
  DepthwiseCodesKernel integer_depthwise_;
};

// Inner product on codes: y[n][o] from x [batch][k_dim] and weights
// [out][k_dim].
class InnerProductCodesKernel {
 public:
  void Reshape(int batch, int k_dim, int out, bool allow_shifted = true);
  bool Shifted() const { return shifted_; }
  void Run(const uint8_t* x, int32_t x_zero, const CodeWeights& w, const ChannelQuantization& q,
           uint8_t* y);

 private:
  int batch_ = 0, k_dim_ = 0, out_ = 0;
  bool shifted_ = false;
  std::vector<float> centred_x_, product_;
  std::vector<int64_t> acc_;
  std::vector<int32_t> c32_, row_sum_;
};

}  // namespace qzdl
