#include "runtime/kernels/conv_pointwise.h"

#include <omp.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "runtime/kernels/parallel.h"
#include "runtime/kernels/vec16.h"

// 64-byte vectors pass by value only between this file's inlined helpers,
// never across files, so the calling-convention warning does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace qzdl {

namespace {

using vec16::V16;

constexpr int kTileLcm = 12;           // tile widths (12 or 6 pixels) divide the chunks
constexpr int kChunkFloats = 1 << 15;  // x of one work item: about 128 KiB
constexpr int kMinChunk = 48;          // narrowest split of a plane
constexpr int kMinItems = 8;           // below this, split the output channels too
constexpr int kMinPixelPlane = 100;    // smaller planes run on vectors of channels
constexpr int kSmallK = 128;           // input channels whose tile of pixels fits L1

int64_t RoundUp(int64_t v, int64_t to) { return (v + to - 1) / to * to; }

struct Job {
  const float* x;
  bool x_blocked;
  const float* w;     // packed
  const float* bias;  // packed, or null
  float* y;
  bool y_blocked;
  int64_t y_image;
  const Epilogue* e;
  int k, m, blocks;  // input channels, output channels, output blocks
  int64_t plane;
  int chunk, chunks, groups, per_group;
  int act;  // Act applied in the tiles (then not after them)
  float act_param;
  int pixel_rows;  // NCHW in and out: output channels per tile (weights [M / R][C][R]), else 0
  float* scratch;  // per slot: k x 16 floats
};

// One tile: P pixels x V blocks of 16 output channels. xp points at the
// tile's first pixel (of channel 0); channel c of pixel j is at
// xp + c * plane + j (NCHW) or, blocked, xp + (c / 16) * plane * 16 +
// j * 16 + c % 16. Block v of the result goes to out + v * out_block, pixel
// j at + j * 16.
template <int P, int V, bool XB>
inline __attribute__((always_inline)) void Tile(const float* xp, int64_t plane, int k,
                                                const float* w, int64_t w_block, const float* bias,
                                                float* out, int64_t out_block, int act,
                                                float act_param) {
  V16 acc[V][P];
  vec16::InitTile<P, V>(acc, bias);
  if (XB) {
    for (int cb = 0; cb < k / 16; ++cb)
      for (int ci = 0; ci < 16; ++ci)
        vec16::AddProducts<P, V>(acc, w + (cb * 16 + ci) * 16, w_block, xp + cb * plane * 16 + ci,
                                 16);
  } else {
    for (int c = 0; c < k; ++c)
      vec16::AddProducts<P, V>(acc, w + c * 16, w_block, xp + c * plane, 1);
  }
  vec16::StoreTile<P, V>(acc, out, out_block, act, act_param);
}

template <int P, int V>
inline __attribute__((always_inline)) void TileAny(const Job& jb, const float* x_img, int64_t p,
                                                   int ob, float* out, int64_t out_block) {
  const int64_t w_block = int64_t(jb.k) * 16;
  const float* w = jb.w + ob * w_block;
  const float* bias = jb.bias != nullptr ? jb.bias + ob * 16 : nullptr;
  if (jb.x_blocked)
    Tile<P, V, true>(x_img + p * 16, jb.plane, jb.k, w, w_block, bias, out, out_block, jb.act,
                     jb.act_param);
  else
    Tile<P, V, false>(x_img + p, jb.plane, jb.k, w, w_block, bias, out, out_block, jb.act,
                      jb.act_param);
}

// Output blocks [ob, ob + V) of pixels [p, p + P) of image y_img.
template <int P, int V>
inline __attribute__((always_inline)) void Blocks(const Job& jb, const float* x_img, float* y_img,
                                                  int ob, int64_t p) {
  const int64_t plane = jb.plane;
  if (jb.y_blocked) {
    TileAny<P, V>(jb, x_img, p, ob, y_img + ob * plane * 16 + p * 16, plane * 16);
    return;
  }
  alignas(64) float buf[V * P * 16];
  TileAny<P, V>(jb, x_img, p, ob, buf, P * 16);
  for (int v = 0; v < V; ++v) {
    const float* src = buf + v * P * 16;
    const int lanes = std::min(16, jb.m - (ob + v) * 16);
    for (int l = 0; l < lanes; ++l) {
      float* yo = y_img + ((ob + v) * 16 + l) * plane + p;
      for (int j = 0; j < P; ++j) yo[j] = src[j * 16 + l];
    }
  }
}

// Blocks [ob, ob + V) over pixels [p0, p0 + pn): tiles of P, the rest by 4
// and by 1.
template <int P, int V>
inline __attribute__((always_inline)) void BlockRun(const Job& jb, const float* x_img, float* y_img,
                                                    int ob, int64_t p0, int pn) {
  int j = 0;
  for (; j + P <= pn; j += P) Blocks<P, V>(jb, x_img, y_img, ob, p0 + j);
  for (; j + 4 <= pn; j += 4) Blocks<4, V>(jb, x_img, y_img, ob, p0 + j);
  for (; j < pn; ++j) Blocks<1, V>(jb, x_img, y_img, ob, p0 + j);
}

// NCHW in and out: R output channels x Q vectors of 16 pixels, the weights
// packed as [M / R][C][R]. The sums are those of Tile, element by element.
template <int R, int Q>
inline __attribute__((always_inline)) void PixelTile(const float* xp, int64_t plane, int k,
                                                     const float* w, const float* bias, int rows,
                                                     float* yp, int64_t y_row, int act,
                                                     float act_param) {
  V16 acc[R][Q] = {};
#pragma GCC unroll 8
  for (int r = 0; r < R; ++r) {
    const float b0 = bias != nullptr ? bias[r] : 0.0f;
#pragma GCC unroll 4
    for (int q = 0; q < Q; ++q) acc[r][q] = b0 - V16{};  // b0 in every lane, -0 kept
  }
  for (int c = 0; c < k; ++c) {
    const float* xc = xp + c * plane;
    V16 xv[Q];
#pragma GCC unroll 4
    for (int q = 0; q < Q; ++q) xv[q] = *reinterpret_cast<const V16*>(xc + q * 16);
    const float* wc = w + c * R;
#pragma GCC unroll 8
    for (int r = 0; r < R; ++r) {
      const float wr = wc[r];
#pragma GCC unroll 4
      for (int q = 0; q < Q; ++q) acc[r][q] += xv[q] * wr;
    }
  }
#pragma GCC unroll 8
  for (int r = 0; r < R; ++r)
    if (r < rows)
#pragma GCC unroll 4
      for (int q = 0; q < Q; ++q)
        vec16::Store(yp + r * y_row + q * 16, vec16::Activate(acc[r][q], act, act_param));
}

template <int P, int V>
inline __attribute__((always_inline)) void Item(const Job& jb, int64_t item, int slot) {
  const int gi = static_cast<int>(item % jb.groups);
  const int64_t rest = item / jb.groups;
  const int c = static_cast<int>(rest % jb.chunks);
  const int64_t n = rest / jb.chunks;
  const int64_t plane = jb.plane;
  const int64_t p0 = int64_t(c) * jb.chunk;
  const int pn = static_cast<int>(std::min<int64_t>(jb.chunk, plane - p0));
  const int ob0 = gi * jb.per_group, ob1 = std::min(jb.blocks, ob0 + jb.per_group);
  const float* x_img = jb.x + n * jb.k * plane;
  float* y_img = jb.y + n * jb.y_image;
  if (jb.pixel_rows > 0) {
    // NCHW to NCHW: vectors over pixels.
    constexpr int R = V >= 2 ? 8 : 4, Q = V >= 2 ? 3 : 1;
    const int o0 = ob0 * 16, o1 = std::min(jb.m, ob1 * 16);
    const float* bias = jb.bias;
    float* xt = jb.scratch + int64_t(slot) * jb.k * 16;
    const int full = pn / 16 * 16, tail = pn - full;
    if (tail > 0) {
      // The last pixels from a zero-padded copy.
      for (int ch = 0; ch < jb.k; ++ch)
        for (int j = 0; j < 16; ++j)
          xt[ch * 16 + j] = j < tail ? x_img[ch * plane + p0 + full + j] : 0.0f;
    }
    // Few input channels: a strip of pixels stays in L1 while every output
    // channel runs over it; many: one tile of weights stays while the
    // pixels of the item run.
    const int strip = jb.k <= kSmallK ? 16 * Q : std::max(full, 1);
    for (int s0 = 0; s0 < full; s0 += strip) {
      const int s1 = std::min(full, s0 + strip);
      for (int o = o0; o < o1; o += R) {
        const float* w = jb.w + int64_t(o / R) * jb.k * R;
        const float* b = bias != nullptr ? bias + o : nullptr;
        const int rows = std::min(R, o1 - o);
        int j = s0;
        for (; j + 16 * Q <= s1; j += 16 * Q)
          PixelTile<R, Q>(x_img + p0 + j, plane, jb.k, w, b, rows, y_img + o * plane + p0 + j,
                          plane, jb.act, jb.act_param);
        for (; j < s1; j += 16)
          PixelTile<R, 1>(x_img + p0 + j, plane, jb.k, w, b, rows, y_img + o * plane + p0 + j,
                          plane, jb.act, jb.act_param);
      }
    }
    if (tail > 0) {
      for (int o = o0; o < o1; o += R) {
        const float* w = jb.w + int64_t(o / R) * jb.k * R;
        const float* b = bias != nullptr ? bias + o : nullptr;
        const int rows = std::min(R, o1 - o);
        alignas(64) float buf[R * 16];
        PixelTile<R, 1>(xt, 16, jb.k, w, b, rows, buf, 16, jb.act, jb.act_param);
        for (int r = 0; r < rows; ++r)
          std::memcpy(y_img + (o + r) * plane + p0 + full, buf + r * 16, sizeof(float) * tail);
      }
    }
  } else {
    const int strip = jb.k <= kSmallK ? P : pn;  // as above
    for (int s0 = 0; s0 < pn; s0 += strip) {
      const int sn = std::min(strip, pn - s0);
      int ob = ob0;
      for (; ob + V <= ob1; ob += V) BlockRun<P, V>(jb, x_img, y_img, ob, p0 + s0, sn);
      for (; ob < ob1; ++ob) BlockRun<P, 1>(jb, x_img, y_img, ob, p0 + s0, sn);
    }
  }
  // The activation over the item's outputs while they are in cache.
  const Epilogue& e = *jb.e;
  if (!e.Active() || jb.act != vec16::kActNone) return;
  if (jb.y_blocked) {
    for (int b = ob0; b < ob1; ++b) {
      float* run = y_img + b * plane * 16 + p0 * 16;
      MapActivation(e, run, run, int64_t(pn) * 16);
    }
  } else {
    for (int o = ob0 * 16; o < std::min(jb.m, ob1 * 16); ++o)
      ApplyEpilogue(e, y_img + o * plane + p0, pn, o);
  }
}

using ItemFn = void (*)(const Job&, int64_t, int);

struct Kernels {
  ItemFn item;
  int pixel_rows;  // R of the NCHW path
};

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx512f,fma"))) void ItemAvx512(const Job& jb, int64_t i, int slot) {
  Item<12, 2>(jb, i, slot);
}
__attribute__((target("avx2,fma"))) void ItemAvx2(const Job& jb, int64_t i, int slot) {
  Item<6, 1>(jb, i, slot);
}
#endif
void ItemGeneric(const Job& jb, int64_t i, int slot) { Item<6, 1>(jb, i, slot); }

Kernels Pick() {
  switch (vec16::PickIsa()) {
#if defined(__x86_64__) && defined(__GNUC__)
    case vec16::Isa::kAvx512:
      return {&ItemAvx512, 8};
    case vec16::Isa::kAvx2:
      return {&ItemAvx2, 4};
#endif
    default:
      return {&ItemGeneric, 4};
  }
}

}  // namespace

bool PointwiseKernel::Applies(const ConvGeometry& g) {
  return g.kernel_h == 1 && g.kernel_w == 1 && g.stride_h == 1 && g.stride_w == 1 &&
         g.pad_top == 0 && g.pad_bottom == 0 && g.pad_left == 0 && g.pad_right == 0 &&
         g.group == 1 && g.OutPlane() <= INT_MAX / kChannelBlock &&
         int64_t(g.in_c) * 16 <= INT_MAX && g.out_c <= INT_MAX - kChannelBlock;
}

void PointwiseKernel::Configure(const ConvGeometry& g, bool bias) {
  g_ = g;
  bias_ = bias;
  const int64_t plane = g.OutPlane();
  const int blocks = static_cast<int>((int64_t(g.out_c) + 15) / 16);
  int64_t chunk =
      std::max<int64_t>(kTileLcm, kChunkFloats / std::max(1, g.in_c) / kTileLcm * kTileLcm);
  // At least kMinItems pieces of work where the plane allows.
  const int64_t want_chunks = (kMinItems + g.batch - 1) / std::max(1, g.batch);
  chunk = std::min(
      chunk,
      std::max<int64_t>(kMinChunk, RoundUp((plane + want_chunks - 1) / want_chunks, kTileLcm)));
  chunk = std::min(chunk, RoundUp(plane, kTileLcm));
  chunk_ = static_cast<int>(std::max<int64_t>(1, chunk));  // an empty plane: one empty chunk
  chunks_ = static_cast<int>((plane + chunk_ - 1) / chunk_);
  const int64_t items = int64_t(g.batch) * chunks_;
  int groups = 1;
  if (items < kMinItems)
    groups = static_cast<int>(std::min<int64_t>((kMinItems + items - 1) / items, (blocks + 1) / 2));
  groups = std::max(1, groups);
  per_group_ = static_cast<int>(RoundUp((blocks + groups - 1) / groups, 2));
  block_groups_ = (blocks + per_group_ - 1) / per_group_;
  slots_ = std::max(1, omp_get_max_threads());
  packed_.Reserve(sizeof(float) * (size_t(blocks) * g.in_c * 16 + size_t(blocks) * 16));
  scratch_.Reserve(sizeof(float) * size_t(slots_) * g.in_c * 16);
  packed_rows_ = -1;
}

void PointwiseKernel::Run(const float* x, bool x_blocked, const float* w, const float* b,
                          bool same_weights, float* y, bool y_blocked, int64_t y_image,
                          const Epilogue& e) {
  const ConvGeometry& g = g_;
  const int k = g.in_c, m = g.out_c;
  const int blocks = static_cast<int>((int64_t(m) + 15) / 16);
  const int64_t plane = g.OutPlane();
  const Kernels kernels = Pick();
  const bool x_blk = x_blocked && k % 16 == 0, y_blk = y_blocked && m % 16 == 0;
  // NCHW to NCHW runs on vectors of pixels where the plane fills them well,
  // everything else on vectors of output channels; the weights are packed
  // for the one that runs.
  const int rows = !x_blk && !y_blk && plane >= kMinPixelPlane ? kernels.pixel_rows : 0;
  float* packed = static_cast<float*>(packed_.get());
  float* packed_bias = packed + size_t(blocks) * k * 16;
  if (!same_weights || packed_rows_ != rows) {
    const int r = rows > 0 ? rows : 16;
    ParallelItems(blocks * 16 / r, ParallelThreads(), [&](int64_t ot, int) {
      float* dst = packed + ot * k * r;
      for (int l = 0; l < r; ++l) {
        const int64_t o = ot * r + l;
        for (int c = 0; c < k; ++c) dst[c * r + l] = o < m ? w[o * k + c] : 0.0f;
      }
    });
    packed_rows_ = rows;
  }
  if (bias_ && b != nullptr)
    for (int o = 0; o < blocks * 16; ++o) packed_bias[o] = o < m ? b[o] : 0.0f;
  Job jb;
  jb.x = x;
  jb.x_blocked = x_blk;
  jb.w = packed;
  jb.bias = bias_ && b != nullptr ? packed_bias : nullptr;
  jb.y = y;
  jb.y_blocked = y_blk;
  jb.y_image = y_image != 0 ? y_image : int64_t(m) * plane;
  jb.e = &e;
  jb.act = vec16::InRegisterAct(e);
  jb.act_param = e.param;
  jb.k = k;
  jb.m = m;
  jb.blocks = blocks;
  jb.plane = plane;
  jb.chunk = chunk_;
  jb.chunks = chunks_;
  jb.groups = block_groups_;
  jb.per_group = per_group_;
  jb.pixel_rows = rows;
  jb.scratch = static_cast<float*>(scratch_.get());
  const ItemFn fn = kernels.item;
  const int64_t total = int64_t(g.batch) * chunks_ * block_groups_;
  ParallelItems(total, slots_, [&](int64_t i, int slot) { fn(jb, i, slot); });
}

}  // namespace qzdl
