#include "runtime/kernels/conv_kernels.h"

#include <omp.h>

#include <algorithm>
#include <climits>
#include <cstdint>

#include "runtime/kernels/conv_depthwise.h"
#include "runtime/kernels/gemm.h"
#include "runtime/kernels/im2col.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// Tile sizes. They depend on the problem only, never on the thread count.
constexpr int kColFloats = 1 << 17;        // patch buffer per thread: 512 KiB
constexpr int kMinColBlock = 64;           // narrowest im2col tile
constexpr int kGemm1x1Cols = 1024;         // output positions per 1x1 tile
constexpr int kMinItems = 8;               // below this, split the output channels too
constexpr int kMinRowBlock = 32;           // narrowest such split
constexpr int kDeconvColFloats = 1 << 21;  // deconvolution products per step: 8 MiB
constexpr int kDeconvRowBlock = 64;
constexpr int kFcCols = 128;  // inner product: outputs per tile
constexpr int kFcRows = 64;   // and batch rows per tile

// 64-bit: v may be close to 2^31 - 1.
int64_t RoundUp(int v, int to) { return (int64_t(v) + to - 1) / to * to; }

// Splits `total` into equal blocks of at most about `cap` (multiples of 16).
int EvenBlock(int total, int cap) {
  if (total <= cap) return total;
  const int tiles = NumBlocks(total, cap);
  return static_cast<int>(std::min<int64_t>(total, RoundUp(NumBlocks(total, tiles), 16)));
}

// The GEMM paths pass the output plane (as a row stride) and a patch (as
// the inner dimension) to the GEMM library, whose dimensions are ints.
bool GemmFits(const ConvGeometry& g) {
  return g.OutPlane() <= INT_MAX && int64_t(g.InPerGroup()) * g.KernelArea() <= INT_MAX;
}

bool Is1x1Unpadded(const ConvGeometry& g) {
  return g.kernel_h == 1 && g.kernel_w == 1 && g.pad_top == 0 && g.pad_bottom == 0 &&
         g.pad_left == 0 && g.pad_right == 0;
}

bool IsDepthwise3x3(const ConvGeometry& g) {
  return g.kernel_h == 3 && g.kernel_w == 3 && g.dilation_h == 1 && g.dilation_w == 1 &&
         g.out_c == g.in_c;
}

bool Is1x1Plain(const ConvGeometry& g) {
  return Is1x1Unpadded(g) && g.stride_h == 1 && g.stride_w == 1;
}

}  // namespace

const char* ConvAlgorithmName(ConvAlgorithm a) {
  switch (a) {
    case ConvAlgorithm::kAuto:
      return "auto";
    case ConvAlgorithm::kDepthwise:
      return "depthwise";
    case ConvAlgorithm::kGemm1x1:
      return "gemm1x1";
    case ConvAlgorithm::kPointwise:
      return "pointwise";
    case ConvAlgorithm::kDirect:
      return "direct";
    case ConvAlgorithm::kIm2colGemm:
      return "im2col+gemm";
    case ConvAlgorithm::kDnnl:
      return "dnnl";
  }
  return "?";
}

ConvKernel::ConvKernel() = default;
ConvKernel::~ConvKernel() = default;

bool ConvKernel::Applies(ConvAlgorithm a, const ConvGeometry& g) {
  switch (a) {
    case ConvAlgorithm::kDepthwise:
      return IsDepthwise(g) && g.KernelArea() <= INT_MAX;
    case ConvAlgorithm::kGemm1x1:
      return Is1x1Plain(g) && GemmFits(g);
    case ConvAlgorithm::kPointwise:
      return PointwiseKernel::Applies(g);
    case ConvAlgorithm::kDirect:
      return DirectConvKernel::Applies(g);
    case ConvAlgorithm::kIm2colGemm:
      return GemmFits(g);
    case ConvAlgorithm::kDnnl:
      // oneDNN's kernels are not trusted with planes beyond the int range.
      return DnnlConvolution::Available() && GemmFits(g) && g.InPlane() <= INT_MAX;
    case ConvAlgorithm::kAuto:
      return true;
  }
  return false;
}

bool ConvKernel::Configure(const ConvGeometry& g, bool bias, ConvAlgorithm want) {
  if (configured_ && g == g_ && bias == bias_ && want == want_) return true;
  configured_ = false;
  g_ = g;
  bias_ = bias;
  want_ = want;
  ConvAlgorithm a = Applies(want, g) ? want : ConvAlgorithm::kAuto;
  if (a == ConvAlgorithm::kAuto) {
    if (IsDepthwise(g)) {
      // The direct kernel has its own loops for 3x3 taps only; other sizes
      // ran 1.5x to 2.7x behind the library's primitive (5x5, 7x7, stride
      // 2; bench/conv_shapes_bench). That primitive runs one image per
      // thread, so it is taken from batch 2 up (a rule on the shape alone:
      // results must not depend on the thread count).
      a = ConvAlgorithm::kDepthwise;
      if (!IsDepthwise3x3(g) && g.batch >= 2 && Applies(ConvAlgorithm::kDnnl, g))
        a = ConvAlgorithm::kDnnl;
    } else if (Is1x1Plain(g)) {
      a = Applies(ConvAlgorithm::kPointwise, g) ? ConvAlgorithm::kPointwise
                                                : ConvAlgorithm::kGemm1x1;
    } else if (Is1x1Unpadded(g)) {
      // Strided 1x1: gathering the used pixels beats reordering all of them.
      a = ConvAlgorithm::kIm2colGemm;
    } else if (g.batch == 1 && g.out_c % kChannelBlock == 0 && g.out_c <= 32 &&
               g.KernelArea() <= 9 && Applies(ConvAlgorithm::kDirect, g)) {
      // The stem of a mobile net at batch 1: the direct kernel writing
      // blocks took 0.6x the time of the others (bench/conv_shapes_bench)
      // and a depthwise or 1x1 convolution after it reads them. Writing
      // NCHW it is slower than the library's primitive on wider stems, which
      // classic nets follow with a pooling (64 channels: 0.29 against
      // 0.24 ms), so those stay as they were; from batch 2 the primitive,
      // one image per thread, is faster.
      a = ConvAlgorithm::kDirect;
    } else {
      a = Applies(ConvAlgorithm::kDnnl, g) ? ConvAlgorithm::kDnnl : ConvAlgorithm::kIm2colGemm;
    }
  }
  dnnl_.reset();
  src_blocked_ = dst_blocked_ = false;
  packed_valid_ = false;
  if (!Applies(a, g)) {
    algorithm_ = ConvAlgorithm::kAuto;
    return false;
  }
  if (a == ConvAlgorithm::kDnnl) {
    dnnl_ = std::make_unique<DnnlConvolution>();
    // A chosen (not asked for) primitive with a single work item (one
    // image, too few output channels to split) would leave every other
    // thread idle, where im2col tiles split a plane large enough: 1.4x
    // slower on one core, faster on two (bench/conv_shapes_bench).
    const bool can_split = want != ConvAlgorithm::kDnnl && !IsDepthwise(g) && GemmFits(g) &&
                           g.OutPlane() >= 2 * kMinColBlock;
    if (!dnnl_->Configure(g, bias) || (can_split && dnnl_->Items() < 2)) {
      dnnl_.reset();
      a = ConvAlgorithm::kIm2colGemm;
    }
  }
  algorithm_ = a;
  if (a == ConvAlgorithm::kGemm1x1 || a == ConvAlgorithm::kIm2colGemm) PlanTiles();
  if (a == ConvAlgorithm::kPointwise) pointwise_.Configure(g, bias);
  if (a == ConvAlgorithm::kDirect) direct_.Configure(g, bias);
  if (a == ConvAlgorithm::kDepthwise) {
    slots_ = std::max(1, omp_get_max_threads());
    cols_.Reserve(sizeof(float) * slots_ * DepthwiseScratchFloats(g));
    if (DepthwiseBlockable(g)) packed_.Reserve(sizeof(float) * size_t(g.out_c) * g.KernelArea());
  }
  configured_ = true;
  return true;
}

void ConvKernel::PlanTiles() {
  const int plane = static_cast<int>(g_.OutPlane());
  const int k = static_cast<int>(g_.InPerGroup() * g_.KernelArea());
  const int rows = g_.OutPerGroup();
  const bool im2col = algorithm_ == ConvAlgorithm::kIm2colGemm;
  const int cap = im2col ? std::max(kMinColBlock, kColFloats / k / 16 * 16) : kGemm1x1Cols;
  n_block_ = EvenBlock(plane, cap);
  n_tiles_ = NumBlocks(plane, n_block_);
  const int64_t items = int64_t(g_.batch) * g_.group * n_tiles_;
  int m_tiles = 1;
  if (items < kMinItems)
    m_tiles = std::max(
        1, std::min(NumBlocks(kMinItems, static_cast<int>(items)), NumBlocks(rows, kMinRowBlock)));
  m_block_ = m_tiles == 1
                 ? rows
                 : static_cast<int>(std::min<int64_t>(rows, RoundUp(NumBlocks(rows, m_tiles), 16)));
  m_tiles_ = NumBlocks(rows, m_block_);
  slots_ = 0;
  if (im2col) {
    slots_ = std::max(1, omp_get_max_threads());
    cols_.Reserve(sizeof(float) * size_t(slots_) * k * n_block_);
  }
}

int ConvKernel::SrcBlock() const {
  if (dnnl_) return dnnl_->SrcBlock();
  if (algorithm_ == ConvAlgorithm::kDepthwise) return DepthwiseBlockable(g_) ? kChannelBlock : 0;
  if (algorithm_ == ConvAlgorithm::kPointwise)
    return g_.in_c % kChannelBlock == 0 ? kChannelBlock : 0;
  return 0;
}

int ConvKernel::DstBlock() const {
  if (dnnl_) return dnnl_->DstBlock();
  if (algorithm_ == ConvAlgorithm::kDirect)
    return g_.out_c % kChannelBlock == 0 ? kChannelBlock : 0;
  if (algorithm_ == ConvAlgorithm::kDepthwise) return DepthwiseBlockable(g_) ? kChannelBlock : 0;
  if (algorithm_ == ConvAlgorithm::kPointwise)
    return g_.out_c % kChannelBlock == 0 ? kChannelBlock : 0;
  return 0;
}

void ConvKernel::SetBlocked(bool src, bool dst) {
  if (dnnl_) dnnl_->SetBlocked(src, dst);
  src_blocked_ = src && SrcBlock() != 0;
  dst_blocked_ = dst && DstBlock() != 0;
}

std::string ConvKernel::Describe() const {
  switch (algorithm_) {
    case ConvAlgorithm::kDepthwise:
      return "depthwise direct";
    case ConvAlgorithm::kGemm1x1:
      return std::string("1x1 gemm (") + GemmBackendName() + ")";
    case ConvAlgorithm::kPointwise:
      return "1x1 direct";
    case ConvAlgorithm::kDirect:
      return "direct (few input channels)";
    case ConvAlgorithm::kIm2colGemm:
      return std::string("im2col+gemm (") + GemmBackendName() + ")";
    case ConvAlgorithm::kDnnl:
      return "oneDNN " + dnnl_->ImplName();
    default:
      return "unconfigured";
  }
}

void ConvKernel::Run(const float* x, const float* w, const float* b, float* y, const Epilogue& e,
                     bool same_weights) {
  if (!bias_) b = nullptr;
  switch (algorithm_) {
    case ConvAlgorithm::kDepthwise:
      if (src_blocked_) {
        if (!same_weights || !packed_valid_)
          PackDepthwiseWeights(g_, w, static_cast<float*>(packed_.get()));
        packed_valid_ = true;
        DepthwiseBlocked(g_, x, static_cast<float*>(packed_.get()), b, y, dst_blocked_,
                         static_cast<float*>(cols_.get()), slots_, e, y_image_);
      } else {
        DepthwiseConvolution(g_, x, w, b, y, static_cast<float*>(cols_.get()), slots_, e, y_image_,
                             dst_blocked_);
      }
      break;
    case ConvAlgorithm::kDnnl:
      dnnl_->Run(x, w, b, y, e, same_weights, y_image_);
      break;
    case ConvAlgorithm::kPointwise:
      pointwise_.Run(x, src_blocked_, w, b, same_weights, y, dst_blocked_, y_image_, e);
      break;
    case ConvAlgorithm::kDirect:
      direct_.Run(x, w, b, same_weights, y, dst_blocked_, y_image_, e);
      break;
    default:
      RunGemm(x, w, b, y, e);
  }
}

void ConvKernel::RunGemm(const float* x, const float* w, const float* b, float* y,
                         const Epilogue& e) {
  const ConvGeometry& g = g_;
  const int plane = static_cast<int>(g.OutPlane());
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int k = static_cast<int>(cin_g * g.KernelArea());
  const bool im2col = algorithm_ == ConvAlgorithm::kIm2colGemm;
  const int64_t total = int64_t(g.batch) * g.group * m_tiles_ * n_tiles_;
  const int threads = im2col ? slots_ : ParallelThreads();
  float* cols = static_cast<float*>(cols_.get());
  // Inside the items the GEMM library stays on the calling thread (see
  // gemm.h), also when there is only one tile.
  ParallelItems(total, threads, [&](int64_t item, int slot) {
    float* col = im2col ? cols + int64_t(slot) * k * n_block_ : nullptr;
    int64_t rest = item;
    const int nt = static_cast<int>(rest % n_tiles_);
    rest /= n_tiles_;
    const int mt = static_cast<int>(rest % m_tiles_);
    rest /= m_tiles_;
    const int grp = static_cast<int>(rest % g.group);
    const int n = static_cast<int>(rest / g.group);
    const int p0 = nt * n_block_, np = std::min(n_block_, plane - p0);
    const int m0 = mt * m_block_, mb = std::min(m_block_, cout_g - m0);
    const int o0 = grp * cout_g + m0;
    const float* xg = x + (int64_t(n) * g.in_c + int64_t(grp) * cin_g) * g.InPlane();
    const int64_t y_image = y_image_ != 0 ? y_image_ : int64_t(g.out_c) * plane;
    float* yt = y + n * y_image + int64_t(o0) * plane + p0;
    const float* wt = w + int64_t(o0) * k;
    if (im2col) {
      Im2colTile(g, xg, p0, np, col);
      SgemmTile(false, false, mb, np, k, 1.0f, wt, k, col, np, 0.0f, yt, plane);
    } else {
      SgemmTile(false, false, mb, np, k, 1.0f, wt, k, xg + p0, plane, 0.0f, yt, plane);
    }
    // The bias and the activation on the tile while it is in cache, rather
    // than a pass over the output before the GEMM and one after it.
    if (b != nullptr || e.Active())
      BiasAndEpilogue(e, b != nullptr ? b + o0 : nullptr, yt, plane, mb, np, o0);
  });
}

bool DeconvKernel::Configure(const ConvGeometry& g, bool bias) {
  if (configured_ && g == g_ && bias == bias_) return true;
  configured_ = false;
  // The GEMM's rows are (output channel of a group, tap), its columns input
  // positions: both are ints in the GEMM library.
  if (g.OutPerGroup() * g.KernelArea() > INT_MAX || g.InPlane() > INT_MAX) return false;
  g_ = g;
  bias_ = bias;
  rows_ = static_cast<int>(g.OutPerGroup() * g.KernelArea());
  const int in_plane = static_cast<int>(g.InPlane());
  n_block_ = in_plane;
  if (int64_t(rows_) * in_plane > kDeconvColFloats)
    n_block_ = std::min(in_plane, std::max(16, kDeconvColFloats / rows_ / 16 * 16));
  m_block_ = std::min(rows_, kDeconvRowBlock);
  packed_.Reserve(sizeof(float) * size_t(g.out_c) * g.InPerGroup() * g.KernelArea());
  col_.Reserve(sizeof(float) * size_t(rows_) * n_block_);
  configured_ = true;
  return true;
}

void DeconvKernel::Run(const float* x, const float* w, const float* b, float* y) {
  const ConvGeometry& g = g_;
  if (!bias_) b = nullptr;
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int kk = static_cast<int>(g.KernelArea());
  const int in_plane = static_cast<int>(g.InPlane());
  const int64_t out_plane = g.OutPlane();
  float* packed = static_cast<float*>(packed_.get());
  float* col = static_cast<float*>(col_.get());
  // Weights [M][C/group][k] become, per group, a [(o, k)][C/group] matrix.
  const int threads = ParallelThreads();
  ParallelItems(g.out_c, threads, [&](int64_t o, int) {
    const int grp = static_cast<int>(o / cout_g), oc = static_cast<int>(o % cout_g);
    float* dst = packed + int64_t(grp) * rows_ * cin_g + int64_t(oc) * kk * cin_g;
    const float* src = w + o * cin_g * kk;
    for (int c = 0; c < cin_g; ++c)
      for (int t = 0; t < kk; ++t) dst[int64_t(t) * cin_g + c] = src[int64_t(c) * kk + t];
  });
  const int m_tiles = NumBlocks(rows_, m_block_);
  for (int n = 0; n < g.batch; ++n) {
    for (int grp = 0; grp < g.group; ++grp) {
      const float* xg = x + (int64_t(n) * g.in_c + int64_t(grp) * cin_g) * in_plane;
      float* yg = y + (int64_t(n) * g.out_c + int64_t(grp) * cout_g) * out_plane;
      const float* wg = packed + int64_t(grp) * rows_ * cin_g;
      ParallelItems(cout_g, threads, [&](int64_t oc, int) {
        std::fill(yg + oc * out_plane, yg + (oc + 1) * out_plane,
                  b != nullptr ? b[grp * cout_g + oc] : 0.0f);
      });
      // 64-bit: the last step may pass 2^31 - 1.
      for (int64_t p0 = 0; p0 < in_plane; p0 += n_block_) {
        const int np = static_cast<int>(std::min<int64_t>(n_block_, in_plane - p0));
        ParallelItems(m_tiles, threads, [&](int64_t mt, int) {
          const int m0 = static_cast<int>(mt) * m_block_, mb = std::min(m_block_, rows_ - m0);
          SgemmTile(false, false, mb, np, cin_g, 1.0f, wg + int64_t(m0) * cin_g, cin_g, xg + p0,
                    in_plane, 0.0f, col + int64_t(m0) * np, np);
        });
        ParallelItems(cout_g, threads, [&](int64_t oc, int) {
          Col2imAdd(g, col + oc * kk * np, p0, np, yg + oc * out_plane);
        });
      }
    }
  }
}

void InnerProductForward(int batch, int k, int out, bool transpose, const float* x, const float* w,
                         const float* b, float* y) {
  const int o_block = EvenBlock(out, kFcCols), n_block = EvenBlock(batch, kFcRows);
  const int o_tiles = NumBlocks(out, o_block), n_tiles = NumBlocks(batch, n_block);
  // The output may hold more than 2^31 - 1 values, and so may the tiles.
  const int64_t total = int64_t(o_tiles) * n_tiles;
  ParallelItems(total, ParallelThreads(), [&](int64_t item, int) {
    const int o0 = static_cast<int>(item % o_tiles) * o_block, no = std::min(o_block, out - o0);
    const int n0 = static_cast<int>(item / o_tiles) * n_block, nn = std::min(n_block, batch - n0);
    float* yt = y + int64_t(n0) * out + o0;
    float beta = 0.0f;
    if (b != nullptr) {
      for (int r = 0; r < nn; ++r) std::copy(b + o0, b + o0 + no, yt + int64_t(r) * out);
      beta = 1.0f;
    }
    if (transpose) {
      SgemmTile(false, false, nn, no, k, 1.0f, x + int64_t(n0) * k, k, w + o0, out, beta, yt, out);
    } else {
      SgemmTile(false, true, nn, no, k, 1.0f, x + int64_t(n0) * k, k, w + int64_t(o0) * k, k, beta,
                yt, out);
    }
  });
}

}  // namespace qzdl
