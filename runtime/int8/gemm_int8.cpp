#include "runtime/int8/gemm_int8.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "runtime/int8/requantize.h"
#include "runtime/kernels/conv_depthwise.h"
#include "runtime/kernels/gemm.h"
#include "runtime/kernels/im2col.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// On x86-64 these loops are compiled for AVX-512, AVX2 and the baseline,
// picked at load time.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QZDL_INT8_CLONES __attribute__((target_clones("arch=x86-64-v4", "avx2", "default")))
#else
#define QZDL_INT8_CLONES
#endif

int32_t SaturateToInt32(int64_t v) {
  return static_cast<int32_t>(v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v);
}

QZDL_INT8_CLONES
void CentreRun(const uint8_t* x, int64_t n, int32_t zero, float* out) {
  for (int64_t i = 0; i < n; ++i) out[i] = static_cast<float>(int32_t(x[i]) - zero);
}

void CentreCodes(const uint8_t* x, int64_t n, int32_t zero, float* out) {
  ParallelFor(n, [=](int64_t begin, int64_t end) {
    CentreRun(x + begin, end - begin, zero, out + begin);
  });
}

// acc (m x n, row stride n) = sum over k of a (m x k, row stride lda) times
// b (k x n, row stride ldb), exactly: chunks of kExactChunk on the float GEMM,
// each converted to integers and summed in int64.
void ExactProducts(int m, int n, int k, const float* a, int lda, const float* b, int ldb,
                   bool trans_b, float* product, int64_t* acc, int ldc) {
  for (int k0 = 0; k0 < k; k0 += kExactChunk) {
    const int kc = std::min(kExactChunk, k - k0);
    const float* bk = trans_b ? b + k0 : b + int64_t(k0) * ldb;
    SgemmTile(false, trans_b, m, n, kc, 1.0f, a + k0, lda, bk, ldb, 0.0f, product, ldc);
    for (int r = 0; r < m; ++r) {
      const float* p = product + int64_t(r) * ldc;
      int64_t* s = acc + int64_t(r) * ldc;
      if (k0 == 0) {
        for (int j = 0; j < n; ++j) s[j] = static_cast<int64_t>(p[j]);
      } else {
        for (int j = 0; j < n; ++j) s[j] += static_cast<int64_t>(p[j]);
      }
    }
  }
  if (k == 0) {
    for (int r = 0; r < m; ++r) std::fill(acc + int64_t(r) * ldc, acc + int64_t(r) * ldc + n, 0);
  }
}

// dst (k rows of np) = the codes of src (row stride ld) minus 128 as int8
// (a flip of the top bit), and colsum[p] the sum of column p of dst. src
// may be dst (ld == np).
QZDL_INT8_CLONES
void ShiftAndSum(const uint8_t* src, int64_t ld, int k, int np, int8_t* dst, int32_t* colsum) {
  std::fill(colsum, colsum + np, 0);
  for (int r = 0; r < k; ++r) {
    const uint8_t* from = src + r * ld;
    int8_t* to = dst + int64_t(r) * np;
    for (int p = 0; p < np; ++p) {
      const int32_t v = int32_t(from[p]) - 128;
      to[p] = static_cast<int8_t>(v);
      colsum[p] += v;
    }
  }
}

// row[p] = row[p] - zw * colsum[p] + add, modulo 2^32.
QZDL_INT8_CLONES
void CombineRow(int32_t* row, const int32_t* colsum, int np, uint32_t zw, uint32_t add) {
  for (int p = 0; p < np; ++p)
    row[p] = static_cast<int32_t>(static_cast<uint32_t>(row[p]) -
                                  zw * static_cast<uint32_t>(colsum[p]) + add);
}

// The reduction length below which every exact sum of a window fits int32.
constexpr int kMaxInt32K = 33025;

// s[j] (+)= the integer p[j] for a row of exact float chunk sums.
QZDL_INT8_CLONES
void AddChunkRow(const float* p, int n, bool first, int32_t* s) {
  if (first) {
    for (int j = 0; j < n; ++j) s[j] = static_cast<int32_t>(p[j]);
  } else {
    for (int j = 0; j < n; ++j) s[j] += static_cast<int32_t>(p[j]);
  }
}

// ExactProducts into int32 sums, for k <= kMaxInt32K: every chunk
// sum and every partial sum of chunks lies within 65025 * k < 2^31.
void ExactProducts32(int m, int n, int k, const float* a, int lda, const float* b, int ldb,
                     float* product, int32_t* acc, int ldc) {
  for (int k0 = 0; k0 < k; k0 += kExactChunk) {
    const int kc = std::min(kExactChunk, k - k0);
    SgemmTile(false, false, m, n, kc, 1.0f, a + k0, lda, b + int64_t(k0) * ldb, ldb, 0.0f,
              product, ldc);
    for (int r = 0; r < m; ++r)
      AddChunkRow(product + int64_t(r) * ldc, n, k0 == 0, acc + int64_t(r) * ldc);
  }
  if (k == 0) {
    for (int r = 0; r < m; ++r) std::fill(acc + int64_t(r) * ldc, acc + int64_t(r) * ldc + n, 0);
  }
}

}  // namespace

const char* ConvPathName(ConvPath path) {
  switch (path) {
    case ConvPath::kFloatGemm: return "float GEMM";
    case ConvPath::kShiftedGemm: return "u8 x s8 GEMM";
    case ConvPath::kFloatDepthwise: return "float depthwise";
    case ConvPath::kIntegerDepthwise: return "integer depthwise";
    case ConvPath::kIntegerDepthwisePortable: return "integer depthwise, portable loops";
    case ConvPath::kPairGemm: return "pair GEMM";
    case ConvPath::kQuadGemm: return "quad GEMM (VNNI)";
  }
  return "?";
}

bool ConvCodesKernel::CanRun(const ConvGeometry& g, ConvPath path) {
  const int64_t k = int64_t(g.InPerGroup()) * g.KernelArea();
  const bool depthwise = g.InPerGroup() == 1 && g.OutPerGroup() == 1;
  switch (path) {
    case ConvPath::kFloatGemm: return true;
    case ConvPath::kShiftedGemm: return !depthwise && k <= kMaxShiftedK && HaveExactU8S8Gemm();
    case ConvPath::kFloatDepthwise: return depthwise && g.KernelArea() <= kExactChunk;
    case ConvPath::kIntegerDepthwise:
    case ConvPath::kIntegerDepthwisePortable: return DepthwiseCodesKernel::Fits(g);
    case ConvPath::kPairGemm: return !depthwise && k <= kMaxPairK;
    case ConvPath::kQuadGemm: return !depthwise && k <= kMaxQuadK && HaveQuadGemm();
  }
  return false;
}

void ConvCodesKernel::Reshape(const ConvGeometry& g, bool allow_shifted) {
  ConvPath path = ConvPath::kFloatGemm;
  if (CanRun(g, ConvPath::kIntegerDepthwise)) {
    path = ConvPath::kIntegerDepthwise;
  } else if (CanRun(g, ConvPath::kFloatDepthwise)) {
    path = ConvPath::kFloatDepthwise;
  } else if (allow_shifted && CanRun(g, ConvPath::kQuadGemm)) {
    // The products on VNNI with the requantization in registers: no pass
    // over int32 sums in memory.
    path = ConvPath::kQuadGemm;
  } else if (allow_shifted && CanRun(g, ConvPath::kShiftedGemm)) {
    path = ConvPath::kShiftedGemm;
  } else if (allow_shifted && HaveFastPairGemm() && CanRun(g, ConvPath::kPairGemm)) {
    // Without VNNI, the 16-bit pairs do twice the products of a float
    // multiply-add per instruction, on half the bytes.
    path = ConvPath::kPairGemm;
  }
  Setup(g, path);
}

bool ConvCodesKernel::ReshapeFor(const ConvGeometry& g, ConvPath path) {
  if (!CanRun(g, path)) return false;
  Setup(g, path);
  return true;
}

void ConvCodesKernel::Setup(const ConvGeometry& g, ConvPath path) {
  g_ = g;
  path_ = path;
  const int64_t k = int64_t(g.InPerGroup()) * g.KernelArea();
  const bool depthwise = path == ConvPath::kFloatDepthwise;
  const bool shifted = path == ConvPath::kShiftedGemm;
  const bool pairs = path == ConvPath::kPairGemm;
  const bool quads = path == ConvPath::kQuadGemm;
  const bool gemm = path == ConvPath::kFloatGemm || shifted || pairs || quads;
  pointwise_ = g.kernel_h == 1 && g.kernel_w == 1 && g.stride_h == 1 && g.stride_w == 1 &&
               g.pad_top == 0 && g.pad_bottom == 0 && g.pad_left == 0 && g.pad_right == 0;
  const int64_t plane = g.OutPlane();
  // A tile of output positions whose patches take about 1 MB.
  int64_t tile =
      std::max<int64_t>(32, std::min<int64_t>(1024, (int64_t(1) << 18) / std::max<int64_t>(k, 1)));
  tile_ = static_cast<int>(std::max<int64_t>(1, std::min(tile, plane)));
  const int threads = std::max(1, ParallelThreads());
  quad_flat_ = false;
  if (quads) {
    // Tiles of whole 32-column blocks whose packed quads take about 128 KB,
    // and at least four per thread where the positions allow (batch 1,
    // small planes): every tile reads all the weights, which stay in the
    // second-level cache, so smaller tiles cost little.
    tile = std::max<int64_t>(kQuadColumns,
                             std::min<int64_t>(1024, (int64_t(1) << 17) / std::max<int64_t>(k, 1)));
    tile = tile / kQuadColumns * kQuadColumns;
    const int64_t images = int64_t(g.batch) * g.group;
    const int64_t want = (4 * threads + images - 1) / images;
    const int64_t small = (plane + want - 1) / want;
    tile = std::min(tile, std::max<int64_t>(kQuadColumns, QuadColumnsPadded(small)));
    tile_ = static_cast<int>(std::max<int64_t>(1, std::min(tile, plane)));
    // Planes that leave part of their last 32-column block empty (7 x 7:
    // 49 of 64) at batch > 1: tiles run on across the images instead.
    const int64_t total = int64_t(g.batch) * plane;
    quad_flat_ = g.batch > 1 && plane % kQuadColumns != 0 && plane < 1024;
    if (quad_flat_) {
      const int64_t parts = std::max<int64_t>(1, (4 * threads + g.group - 1) / g.group);
      tile = std::min(tile, std::max<int64_t>(kQuadColumns,
                                              QuadColumnsPadded((total + parts - 1) / parts)));
      tile_ = static_cast<int>(std::min(tile, total));
    }
  }
  const size_t inputs = static_cast<size_t>(int64_t(g.batch) * g.in_c * g.InPlane());
  const bool centres = path == ConvPath::kFloatGemm || depthwise;
  centred_x_.resize(centres ? inputs : 0);
  slots_.resize(static_cast<size_t>(gemm || depthwise ? threads : 0));
  depthwise_out_.resize(depthwise ? static_cast<size_t>(int64_t(g.batch) * g.out_c * plane) : 0);
  depthwise_scratch_.resize(depthwise ? DepthwiseScratchFloats(g) * slots_.size() : 0);
  if (path == ConvPath::kIntegerDepthwise || path == ConvPath::kIntegerDepthwisePortable)
    integer_depthwise_.Reshape(g, threads, path == ConvPath::kIntegerDepthwise);
  const int64_t tiles_total =
      quads && quad_flat_ ? g.group * ((int64_t(g.batch) * plane + tile_ - 1) / tile_)
                          : int64_t(g.batch) * g.group * ((plane + tile_ - 1) / tile_);
  const int64_t panels = quads ? QuadPanels(g.OutPerGroup()) : PairPanels(g.OutPerGroup());
  pair_blocks_ = 1;
  // The quad GEMM's tiles are cheap to pack again: four items per thread.
  const int64_t items_wanted = (quads ? 4 : 2) * threads;
  if ((pairs || quads) && tiles_total < items_wanted)
    pair_blocks_ = std::min<int64_t>(panels, (items_wanted + tiles_total - 1) / tiles_total);
  pair_blocks_ = std::max<int64_t>(pair_blocks_, 1);
  pair_panel_block_ = (panels + pair_blocks_ - 1) / pair_blocks_;
  pair_blocks_ = std::max<int64_t>(1, (panels + pair_panel_block_ - 1) / pair_panel_block_);
  quad_rows_.resize(quads ? static_cast<size_t>(g.out_c) : 0);
  const bool shared = quads && pair_blocks_ > 1;
  const int64_t quad_ldb = QuadColumnsPadded(tile_ + (quad_flat_ ? 15 : 0));
  shared_quads_stride_ = shared ? std::max<int64_t>(1, QuadCount(k)) * quad_ldb : 0;
  shared_colsum_stride_ = shared ? quad_ldb : 0;
  shared_quads_.resize(static_cast<size_t>(shared ? tiles_total * shared_quads_stride_ : 0));
  shared_colsum_.resize(static_cast<size_t>(shared ? tiles_total * shared_colsum_stride_ : 0));
  shared_single_.resize(static_cast<size_t>(shared ? tiles_total : 0));
  for (Slot& s : slots_) {
    s = Slot();
    if (quads) {
      // Room for the last image's columns packed 16 at a time past the
      // tile (flat tiles), and the codes of a tile spanning images.
      const int64_t ldb = QuadColumnsPadded(tile_ + (quad_flat_ ? 15 : 0));
      s.col8.resize(pointwise_ ? 0 : static_cast<size_t>(k * tile_));
      s.quads.resize(static_cast<size_t>(std::max<int64_t>(1, QuadCount(k)) * ldb));
      s.colsum.resize(static_cast<size_t>(ldb));
      s.c32.resize(static_cast<size_t>(pair_panel_block_ * kQuadRows * ldb));
      s.codes.resize(quad_flat_ ? static_cast<size_t>(pair_panel_block_ * kQuadRows * ldb) : 0);
      continue;
    }
    if (pairs) {
      const int64_t ldb = PairColumnsPadded(tile_);
      s.col8.resize(pointwise_ ? 0 : static_cast<size_t>(k * tile_));
      s.pairs.resize(static_cast<size_t>(PairCount(k) * ldb));
      s.c32.resize(static_cast<size_t>(pair_panel_block_ * kPairRows * ldb));
      continue;
    }
    if (shifted) {
      s.col8.resize(static_cast<size_t>(k * tile_));
      s.c32.resize(static_cast<size_t>(int64_t(g.OutPerGroup()) * tile_));
      s.colsum.resize(static_cast<size_t>(tile_));
      s.acc.resize(static_cast<size_t>(tile_));
      continue;
    }
    if (depthwise) {
      s.acc.resize(static_cast<size_t>(plane));
      continue;
    }
    s.col.resize(pointwise_ ? 0 : static_cast<size_t>(k * tile_));
    s.product.resize(static_cast<size_t>(int64_t(g.OutPerGroup()) * tile_));
    const size_t sums = static_cast<size_t>(int64_t(g.OutPerGroup()) * tile_);
    if (k <= kMaxInt32K) {
      s.c32.resize(sums);
    } else {
      s.acc.resize(sums);
    }
  }
}

ConvCodesKernel::Tile ConvCodesKernel::TileOf(int64_t item) const {
  const int64_t plane = g_.OutPlane();
  const int64_t tiles = (plane + tile_ - 1) / tile_;
  Tile t;
  t.first = item % tiles * tile_;
  t.count = static_cast<int>(std::min<int64_t>(tile_, plane - t.first));
  t.group = static_cast<int>(item / tiles % g_.group);
  t.n = static_cast<int>(item / tiles / g_.group);
  return t;
}

void ConvCodesKernel::Run(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                          const ChannelQuantization& q, uint8_t* y) {
  const ConvGeometry& g = g_;
  if (path_ == ConvPath::kIntegerDepthwise || path_ == ConvPath::kIntegerDepthwisePortable)
    return integer_depthwise_.Run(x, x_zero, w.codes, q, y);
  if (path_ == ConvPath::kShiftedGemm) return RunShifted(x, x_zero, w, q, y);
  if (path_ == ConvPath::kPairGemm) return RunPairs(x, x_zero, w, q, y);
  if (path_ == ConvPath::kQuadGemm) return RunQuads(x, x_zero, w, q, y);
  const float* centred = w.centred;
  CentreCodes(x, static_cast<int64_t>(centred_x_.size()), x_zero, centred_x_.data());
  if (path_ == ConvPath::kFloatDepthwise) return RunDepthwise(centred, q, y);
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int k = static_cast<int>(int64_t(cin_g) * g.KernelArea());
  const int64_t plane = g.OutPlane(), in_plane = g.InPlane();
  const int64_t tiles = (plane + tile_ - 1) / tile_;
  const int64_t items = int64_t(g.batch) * g.group * tiles;
  ParallelItems(items, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    Slot& s = slots_[slot];
    {
      const Tile tile = TileOf(item);
      const int n = tile.n, grp = tile.group, np = tile.count;
      const int64_t p0 = tile.first;
      const float* xg = centred_x_.data() + (int64_t(n) * g.in_c + int64_t(grp) * cin_g) * in_plane;
      const float* b;
      int ldb;
      if (pointwise_) {
        b = xg + p0;
        ldb = static_cast<int>(in_plane);
      } else {
        Im2colTile(g, xg, p0, np, s.col.data());
        b = s.col.data();
        ldb = np;
      }
      if (k <= kMaxInt32K) {
        ExactProducts32(cout_g, np, k, centred + int64_t(grp) * cout_g * k, k, b, ldb,
                        s.product.data(), s.c32.data(), np);
        for (int m = 0; m < cout_g; ++m) {
          const int o = grp * cout_g + m;
          RequantizeRow32(s.c32.data() + int64_t(m) * np, np, q.bias[o], q.requantizer[o],
                          q.output_zero, y + (int64_t(n) * g.out_c + o) * plane + p0);
        }
        return;
      }
      ExactProducts(cout_g, np, k, centred + int64_t(grp) * cout_g * k, k, b, ldb, false,
                    s.product.data(), s.acc.data(), np);
      for (int m = 0; m < cout_g; ++m) {
        const int o = grp * cout_g + m;
        int64_t* a = s.acc.data() + int64_t(m) * np;
        for (int p = 0; p < np; ++p) a[p] += q.bias[o];
        RequantizeRow(a, np, q.requantizer[o], q.output_zero,
                      y + (int64_t(n) * g.out_c + o) * plane + p0);
      }
    }
  });
}

void ConvCodesKernel::RunShifted(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                                 const ChannelQuantization& q, uint8_t* y) {
  const ConvGeometry& g = g_;
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int k = static_cast<int>(int64_t(cin_g) * g.KernelArea());
  const int64_t plane = g.OutPlane(), in_plane = g.InPlane();
  const int64_t tiles = (plane + tile_ - 1) / tile_;
  const int64_t items = int64_t(g.batch) * g.group * tiles;
  const int64_t c = 128 - x_zero;
  ParallelItems(items, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    Slot& s = slots_[slot];
    {
      const Tile tile = TileOf(item);
      const int n = tile.n, grp = tile.group, np = tile.count;
      const int64_t p0 = tile.first;
      const uint8_t* xg = x + (int64_t(n) * g.in_c + int64_t(grp) * cin_g) * in_plane;
      // The tile's patches (padding: the input zero point, real zero),
      // shifted to x - 128 as int8, and their sums per position.
      int8_t* b = s.col8.data();
      const int ldb = np;
      int32_t* colsum = s.colsum.data();
      if (pointwise_) {
        ShiftAndSum(xg + p0, in_plane, k, np, b, colsum);
      } else {
        uint8_t* col = reinterpret_cast<uint8_t*>(b);
        Im2colTileOf<uint8_t>(g, xg, p0, np, static_cast<uint8_t>(x_zero), col);
        ShiftAndSum(col, np, k, np, b, colsum);
      }
      U8S8GemmTile(false, false, cout_g, np, k, w.codes + int64_t(grp) * cout_g * k, k, b,
                   static_cast<int>(ldb), s.c32.data(), np);
      if (k <= kMaxInt32K) {
        // The sum of each position fits int32 (|sum| <= 65025 * k < 2^31):
        // taken modulo 2^32 from the GEMM's terms, it is exact.
        for (int m = 0; m < cout_g; ++m) {
          const int o = grp * cout_g + m;
          const int64_t zw = q.weight_zero[o];
          const int64_t fixed = c * w.code_sum[o] - c * zw * k;
          int32_t* row = s.c32.data() + int64_t(m) * np;
          CombineRow(row, colsum, np, static_cast<uint32_t>(zw), static_cast<uint32_t>(fixed));
          RequantizeRow32(row, np, q.bias[o], q.requantizer[o], q.output_zero,
                          y + (int64_t(n) * g.out_c + o) * plane + p0);
        }
        return;
      }
      for (int m = 0; m < cout_g; ++m) {
        const int o = grp * cout_g + m;
        const int64_t zw = q.weight_zero[o];
        const int64_t fixed = int64_t(q.bias[o]) + c * w.code_sum[o] - c * zw * k;
        const int32_t* row = s.c32.data() + int64_t(m) * np;
        int64_t* acc = s.acc.data();
        for (int p = 0; p < np; ++p) acc[p] = fixed + row[p] - zw * colsum[p];
        RequantizeRow(acc, np, q.requantizer[o], q.output_zero,
                      y + (int64_t(n) * g.out_c + o) * plane + p0);
      }
    }
  });
}

void ConvCodesKernel::RunPairs(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                               const ChannelQuantization& q, uint8_t* y) {
  const ConvGeometry& g = g_;
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int k = static_cast<int>(int64_t(cin_g) * g.KernelArea());
  const int64_t kpairs = PairCount(k), panels = PairPanels(cout_g);
  const int64_t plane = g.OutPlane(), in_plane = g.InPlane();
  const int64_t tiles = (plane + tile_ - 1) / tile_;
  const int64_t items = int64_t(g.batch) * g.group * tiles * pair_blocks_;
  ParallelItems(items, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    Slot& s = slots_[slot];
    {
      const int64_t block = item % pair_blocks_;
      const Tile tile = TileOf(item / pair_blocks_);
      const int n = tile.n, grp = tile.group, np = tile.count;
      const int64_t p0 = tile.first;
      const int ldb = static_cast<int>(PairColumnsPadded(np));
      const uint8_t* xg = x + (int64_t(n) * g.in_c + int64_t(grp) * cin_g) * in_plane;
      // The tile's patches (padding: the input zero point, real zero),
      // centred and packed in pairs.
      if (pointwise_) {
        PackPairColumns(xg + p0, in_plane, k, np, ldb, x_zero, s.pairs.data());
      } else {
        uint8_t* col = reinterpret_cast<uint8_t*>(s.col8.data());
        Im2colTileOf<uint8_t>(g, xg, p0, np, static_cast<uint8_t>(x_zero), col);
        PackPairColumns(col, np, k, np, ldb, x_zero, s.pairs.data());
      }
      const int64_t first = block * pair_panel_block_;
      const int64_t count = std::min(pair_panel_block_, panels - first);
      PairGemm(count, kpairs, w.pairs + (grp * panels + first) * kpairs * kPairRows,
               s.pairs.data(), ldb, s.c32.data(), ldb, false);
      const int64_t row_end = std::min<int64_t>(cout_g, (first + count) * kPairRows);
      for (int64_t m = first * kPairRows; m < row_end; ++m) {
        const int o = static_cast<int>(grp * cout_g + m);
        RequantizeRow32(s.c32.data() + (m - first * kPairRows) * ldb, np, q.bias[o],
                        q.requantizer[o], q.output_zero,
                        y + (int64_t(n) * g.out_c + o) * plane + p0);
      }
    }
  });
}

void ConvCodesKernel::RunQuads(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                               const ChannelQuantization& q, uint8_t* y) {
  const ConvGeometry& g = g_;
  const int cin_g = g.InPerGroup(), cout_g = g.OutPerGroup();
  const int k = static_cast<int>(int64_t(cin_g) * g.KernelArea());
  const int64_t kquads = QuadCount(k), panels = QuadPanels(cout_g);
  const int64_t plane = g.OutPlane(), in_plane = g.InPlane();
  // Tiles of positions n * plane + p of one group: within one image, or
  // (quad_flat_) running on across images.
  const int64_t total = int64_t(g.batch) * plane;
  const int64_t flat_tiles = (total + tile_ - 1) / tile_;
  const int64_t tiles = quad_flat_ ? g.group * flat_tiles
                                   : int64_t(g.batch) * g.group * ((plane + tile_ - 1) / tile_);
  const int64_t items = tiles * pair_blocks_;
  for (int o = 0; o < g.out_c; ++o)
    quad_rows_[o] = MakeQuadRow(k, x_zero, q.weight_zero[o], w.code_sum[o], q.bias[o],
                                q.requantizer[o], q.output_zero);
  // Tile t: its group, first position and count, and row stride of packed
  // quads.
  auto tile_of = [&](int64_t t, int& grp, int64_t& f0, int& np, int& ldb) {
    if (quad_flat_) {
      grp = static_cast<int>(t / flat_tiles);
      f0 = t % flat_tiles * tile_;
      np = static_cast<int>(std::min<int64_t>(tile_, total - f0));
    } else {
      const Tile tile = TileOf(t);
      grp = tile.group;
      np = tile.count;
      f0 = int64_t(tile.n) * plane + tile.first;
    }
    ldb = static_cast<int>(QuadColumnsPadded(np + (quad_flat_ ? 15 : 0)));
  };
  // The tile's patches (padding: the input zero point, real zero) packed
  // in quads, and their sums per position, one image's run at a time (a
  // run's last 16 columns may spill into the next run, packed after it).
  // Returns whether the tile lies in one image.
  auto pack = [&](int64_t t, Slot& s, int32_t* quads, int32_t* colsum) {
    int grp = 0, np = 0, ldb = 0;
    int64_t f0 = 0;
    tile_of(t, grp, f0, np, ldb);
    bool single = true;
    for (int64_t f = f0, at = 0; f < f0 + np;) {
      const int64_t n = f / plane, p = f % plane;
      const int cnt = static_cast<int>(std::min(plane - p, f0 + np - f));
      const int extent = f == f0 && f + cnt == f0 + np ? ldb : (cnt + 15) / 16 * 16;
      single = single && f == f0 && f + cnt == f0 + np;
      const uint8_t* xg = x + (n * g.in_c + int64_t(grp) * cin_g) * in_plane;
      if (pointwise_) {
        PackQuadColumns(xg + p, in_plane, k, cnt, extent, ldb, quads + at, colsum + at);
      } else {
        uint8_t* col = reinterpret_cast<uint8_t*>(s.col8.data());
        Im2colTileOf<uint8_t>(g, xg, p, cnt, static_cast<uint8_t>(x_zero), col);
        PackQuadColumns(col, cnt, k, cnt, extent, ldb, quads + at, colsum + at);
      }
      f += cnt;
      at += cnt;
    }
    return single;
  };
  // Where the channels are split into blocks, every tile is packed once,
  // before the blocks (rather than again by each block's task).
  const bool shared = pair_blocks_ > 1;
  if (shared) {
    ParallelItems(tiles, static_cast<int>(slots_.size()), [&](int64_t t, int slot) {
      shared_single_[t] = pack(t, slots_[slot], shared_quads_.data() + t * shared_quads_stride_,
                               shared_colsum_.data() + t * shared_colsum_stride_);
    });
  }
  ParallelItems(items, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    Slot& s = slots_[slot];
    const int64_t block = item % pair_blocks_;
    const int64_t t = item / pair_blocks_;
    int grp = 0, np = 0, ldb = 0;
    int64_t f0 = 0;
    tile_of(t, grp, f0, np, ldb);
    const int32_t* quads = s.quads.data();
    const int32_t* colsum = s.colsum.data();
    bool single = false;
    if (shared) {
      quads = shared_quads_.data() + t * shared_quads_stride_;
      colsum = shared_colsum_.data() + t * shared_colsum_stride_;
      single = shared_single_[t] != 0;
    } else {
      single = pack(t, s, s.quads.data(), s.colsum.data());
    }
    const int64_t first = block * pair_panel_block_;
    const int64_t count = std::min(pair_panel_block_, panels - first);
    const int row0 = static_cast<int>(first * kQuadRows);
    const int o0 = grp * cout_g + row0;
    QuadOutput out;
    out.rows = quad_rows_.data() + o0;
    out.row_count = static_cast<int>(std::min<int64_t>(cout_g - row0, count * kQuadRows));
    if (single) {
      out.y = y + ((f0 / plane) * g.out_c + o0) * plane + f0 % plane;
      out.y_stride = plane;
    } else {  // codes of a tile spanning images, moved to their planes below
      out.y = s.codes.data();
      out.y_stride = ldb;
    }
    QuadGemm(count, kquads, w.quads + (grp * panels + first) * kquads * kQuadRows, quads, ldb,
             colsum, np, s.c32.data(), out);
    // Rows whose multipliers the lane form does not cover.
    for (int r = 0; r < out.row_count; ++r) {
      if (out.rows[r].kind != kQuadRaw) continue;
      RequantizeRow32(s.c32.data() + int64_t(r) * ldb, np, q.bias[o0 + r], q.requantizer[o0 + r],
                      q.output_zero, out.y + r * out.y_stride);
    }
    if (single) return;
    for (int r = 0; r < out.row_count; ++r) {
      for (int64_t f = f0, at = 0; f < f0 + np;) {
        const int64_t n = f / plane, p = f % plane;
        const int64_t cnt = std::min(plane - p, f0 + np - f);
        std::memcpy(y + (n * g.out_c + o0 + r) * plane + p, s.codes.data() + r * ldb + at,
                    static_cast<size_t>(cnt));
        f += cnt;
        at += cnt;
      }
    }
  });
}

// Depthwise windows of at most kExactChunk taps: the float depthwise kernel
// of the runtime on the centred input and weights (no bias) sums them
// exactly, in whatever order it takes.
void ConvCodesKernel::RunDepthwise(const float* centred, const ChannelQuantization& q, uint8_t* y) {
  const ConvGeometry& g = g_;
  const int64_t plane = g.OutPlane();
  DepthwiseConvolution(g, centred_x_.data(), centred, nullptr, depthwise_out_.data(),
                       depthwise_scratch_.data(), static_cast<int>(slots_.size()));
  const int64_t planes = int64_t(g.batch) * g.out_c;
  ParallelItems(planes, static_cast<int>(slots_.size()), [&](int64_t item, int slot) {
    int64_t* total = slots_[slot].acc.data();
    {
      const int c = static_cast<int>(item % g.out_c);
      const float* sums = depthwise_out_.data() + item * plane;
      for (int64_t p = 0; p < plane; ++p) total[p] = q.bias[c] + static_cast<int64_t>(sums[p]);
      RequantizeRow(total, plane, q.requantizer[c], q.output_zero, y + item * plane);
    }
  });
}

void InnerProductCodesKernel::Reshape(int batch, int k_dim, int out, bool allow_shifted) {
  batch_ = batch;
  k_dim_ = k_dim;
  out_ = out;
  shifted_ = allow_shifted && k_dim <= kMaxShiftedK && HaveExactU8S8Gemm();
  const size_t items = static_cast<size_t>(int64_t(batch) * out);
  centred_x_.resize(shifted_ ? 0 : static_cast<size_t>(int64_t(batch) * k_dim));
  product_.resize(shifted_ ? 0 : items);
  acc_.resize(shifted_ ? 0 : items);
  c32_.resize(shifted_ ? items : 0);
  row_sum_.resize(shifted_ ? static_cast<size_t>(batch) : 0);
}

void InnerProductCodesKernel::Run(const uint8_t* x, int32_t x_zero, const CodeWeights& w,
                                  const ChannelQuantization& q, uint8_t* y) {
  constexpr int kBlock = 64;  // output columns per task
  const int blocks = (out_ + kBlock - 1) / kBlock;
  if (shifted_) {
    for (int n = 0; n < batch_; ++n) {
      int32_t sum = 0;
      for (int k = 0; k < k_dim_; ++k) sum += x[int64_t(n) * k_dim_ + k];
      row_sum_[n] = sum;
    }
    ParallelItems(blocks, ParallelThreads(), [&](int64_t b, int) {
      const int blk = static_cast<int>(b);
      const int o0 = blk * kBlock;
      const int nb = std::min(kBlock, out_ - o0);
      U8S8GemmTile(false, true, batch_, nb, k_dim_, x, k_dim_, w.shifted + int64_t(o0) * k_dim_,
                   k_dim_, c32_.data() + o0, out_);
      for (int o = o0; o < o0 + nb; ++o) {
        const int64_t c = 128 - q.weight_zero[o];
        const int64_t fixed =
            int64_t(q.bias[o]) - int64_t(x_zero) * w.shifted_sum[o] - int64_t(x_zero) * c * k_dim_;
        for (int n = 0; n < batch_; ++n) {
          const int64_t acc = fixed + c32_[int64_t(n) * out_ + o] + c * row_sum_[n];
          y[int64_t(n) * out_ + o] =
              Requantize(SaturateToInt32(acc), q.requantizer[o], q.output_zero);
        }
      }
    });
    return;
  }
  const float* centred = w.centred;
  CentreCodes(x, static_cast<int64_t>(centred_x_.size()), x_zero, centred_x_.data());
  ParallelItems(blocks, ParallelThreads(), [&](int64_t b, int) {
    const int blk = static_cast<int>(b);
    const int o0 = blk * kBlock;
    const int nb = std::min(kBlock, out_ - o0);
    ExactProducts(batch_, nb, k_dim_, centred_x_.data(), k_dim_, centred + int64_t(o0) * k_dim_,
                  k_dim_, true, product_.data() + o0, acc_.data() + o0, out_);
    for (int n = 0; n < batch_; ++n) {
      for (int o = o0; o < o0 + nb; ++o) {
        const int64_t a = acc_[int64_t(n) * out_ + o];
        y[int64_t(n) * out_ + o] =
            Requantize(SaturateToInt32(q.bias[o] + a), q.requantizer[o], q.output_zero);
      }
    }
  });
}

}  // namespace qzdl
