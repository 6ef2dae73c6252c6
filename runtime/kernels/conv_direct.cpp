#include "runtime/kernels/conv_direct.h"

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

constexpr int kMinItems = 8;  // below this, split the output rows into bands
constexpr int kPairs = 2;     // output blocks per work item

struct Job {
  const ConvGeometry* g;
  const float* x;
  const float* w;     // packed
  const float* bias;  // packed, or null
  float* y;
  bool y_blocked;
  int64_t y_image;
  const Epilogue* e;
  int act;  // vec16::Act applied in registers (then not after each row)
  int blocks, groups, band, bands;
};

// P pixels from ox of output row oy, blocks [ob, ob + V). CHECK: test every
// tap's column (pixels near the left and right edges).
template <int P, int V, bool CHECK>
inline __attribute__((always_inline)) void Tile(const Job& jb, const float* x_img, int ob, int oy,
                                                int ox, float* out, int64_t out_block) {
  const ConvGeometry& g = *jb.g;
  const int taps = g.kernel_h * g.kernel_w;
  const int64_t w_block = int64_t(g.in_c) * taps * 16;
  V16 acc[V][P];
  vec16::InitTile<P, V>(acc, jb.bias != nullptr ? jb.bias + ob * 16 : nullptr);
  const int64_t ix0 = int64_t(ox) * g.stride_w - g.pad_left;
  for (int c = 0; c < g.in_c; ++c) {
    for (int ky = 0; ky < g.kernel_h; ++ky) {
      const int iy = oy * g.stride_h - g.pad_top + ky * g.dilation_h;
      if (iy < 0 || iy >= g.in_h) continue;
      const float* xr = x_img + (int64_t(c) * g.in_h + iy) * g.in_w;
      const float* wr = jb.w + ob * w_block + (int64_t(c) * taps + ky * g.kernel_w) * 16;
      for (int kx = 0; kx < g.kernel_w; ++kx) {
        const int64_t ix = ix0 + kx * g.dilation_w;
        if (CHECK && (ix < 0 || ix >= g.in_w)) continue;
        vec16::AddProducts<P, V>(acc, wr + kx * 16, w_block, xr + ix, g.stride_w);
      }
    }
  }
  vec16::StoreTile<P, V>(acc, out, out_block, jb.act, jb.e->param);
}

// P pixels into y (blocked) or through a buffer into NCHW.
template <int P, int V, bool CHECK>
inline __attribute__((always_inline)) void Pixels(const Job& jb, const float* x_img, float* y_img,
                                                  int ob, int oy, int ox) {
  const ConvGeometry& g = *jb.g;
  const int64_t plane = g.OutPlane();
  const int64_t pos = int64_t(oy) * g.out_w + ox;
  if (jb.y_blocked) {
    Tile<P, V, CHECK>(jb, x_img, ob, oy, ox, y_img + ob * plane * 16 + pos * 16, plane * 16);
    return;
  }
  alignas(64) float buf[V * P * 16];
  Tile<P, V, CHECK>(jb, x_img, ob, oy, ox, buf, P * 16);
  for (int v = 0; v < V; ++v) {
    const int lanes = std::min(16, g.out_c - (ob + v) * 16);
    for (int l = 0; l < lanes; ++l) {
      float* yo = y_img + ((ob + v) * 16 + l) * plane + pos;
      for (int j = 0; j < P; ++j) yo[j] = buf[(v * P + j) * 16 + l];
    }
  }
}

// Output row oy of blocks [ob, ob + V): the interior (every tap column
// inside the input) by tiles of P and of 4, the edges pixel by pixel.
template <int P, int V>
inline __attribute__((always_inline)) void Row(const Job& jb, const float* x_img, float* y_img,
                                               int ob, int oy) {
  const ConvGeometry& g = *jb.g;
  const int sw = g.stride_w;
  const int lo = std::min(g.out_w, (g.pad_left + sw - 1) / sw);
  const int last = g.in_w - 1 - (g.kernel_w - 1) * g.dilation_w + g.pad_left;
  const int hi = last < 0 ? lo : std::max(lo, std::min(g.out_w, last / sw + 1));
  int ox = 0;
  for (; ox < lo; ++ox) Pixels<1, V, true>(jb, x_img, y_img, ob, oy, ox);
  for (; ox + P <= hi; ox += P) Pixels<P, V, false>(jb, x_img, y_img, ob, oy, ox);
  for (; ox + 4 <= hi; ox += 4) Pixels<4, V, false>(jb, x_img, y_img, ob, oy, ox);
  for (; ox < g.out_w; ++ox) Pixels<1, V, true>(jb, x_img, y_img, ob, oy, ox);
}

template <int P, int V>
inline __attribute__((always_inline)) void Item(const Job& jb, int64_t item) {
  const ConvGeometry& g = *jb.g;
  const int bi = static_cast<int>(item % jb.bands);
  const int64_t rest = item / jb.bands;
  const int gi = static_cast<int>(rest % jb.groups);
  const int64_t n = rest / jb.groups;
  const int ob0 = gi * kPairs, ob1 = std::min(jb.blocks, ob0 + kPairs);
  const float* x_img = jb.x + n * g.in_c * g.InPlane();
  float* y_img = jb.y + n * jb.y_image;
  const int64_t plane = g.OutPlane();
  const Epilogue& e = *jb.e;
  for (int oy = bi * jb.band; oy < std::min(g.out_h, (bi + 1) * jb.band); ++oy) {
    int ob = ob0;
    for (; ob + V <= ob1; ob += V) Row<P, V>(jb, x_img, y_img, ob, oy);
    for (; ob < ob1; ++ob) Row<P, 1>(jb, x_img, y_img, ob, oy);
    if (!e.Active() || jb.act != vec16::kActNone) continue;
    const int64_t pos = int64_t(oy) * g.out_w;
    if (jb.y_blocked) {
      for (int b = ob0; b < ob1; ++b) {
        float* run = y_img + b * plane * 16 + pos * 16;
        MapActivation(e, run, run, int64_t(g.out_w) * 16);
      }
    } else {
      for (int o = ob0 * 16; o < std::min(g.out_c, ob1 * 16); ++o)
        ApplyEpilogue(e, y_img + o * plane + pos, g.out_w, o);
    }
  }
}

using ItemFn = void (*)(const Job&, int64_t);

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx512f,fma"))) void ItemAvx512(const Job& jb, int64_t i) {
  Item<12, 2>(jb, i);
}
__attribute__((target("avx2,fma"))) void ItemAvx2(const Job& jb, int64_t i) { Item<6, 1>(jb, i); }
#endif
void ItemGeneric(const Job& jb, int64_t i) { Item<6, 1>(jb, i); }

ItemFn PickItem() {
  switch (vec16::PickIsa()) {
#if defined(__x86_64__) && defined(__GNUC__)
    case vec16::Isa::kAvx512:
      return &ItemAvx512;
    case vec16::Isa::kAvx2:
      return &ItemAvx2;
#endif
    default:
      return &ItemGeneric;
  }
}

}  // namespace

bool DirectConvKernel::Applies(const ConvGeometry& g) {
  return g.group == 1 && g.in_c <= kMaxInput && g.OutPlane() <= INT_MAX / 16 &&
         g.InPlane() * g.in_c <= INT_MAX && g.out_c <= INT_MAX - 16 &&
         int64_t(g.in_c) * g.KernelArea() * 16 <= INT_MAX;
}

void DirectConvKernel::Configure(const ConvGeometry& g, bool bias) {
  g_ = g;
  bias_ = bias;
  const int blocks = (g.out_c + 15) / 16;
  const int64_t planes = int64_t(g.batch) * ((blocks + kPairs - 1) / kPairs);
  const int64_t want =
      std::max<int64_t>(1, (kMinItems + planes - 1) / std::max<int64_t>(1, planes));
  band_ = std::max(1, static_cast<int>((g.out_h + want - 1) / want));
  bands_ = (g.out_h + band_ - 1) / band_;
  packed_.Reserve(sizeof(float) * (size_t(blocks) * 16 * g.in_c * g.KernelArea() + blocks * 16));
  packed_valid_ = false;
}

void DirectConvKernel::Run(const float* x, const float* w, const float* b, bool same_weights,
                           float* y, bool y_blocked, int64_t y_image, const Epilogue& e) {
  const ConvGeometry& g = g_;
  const int blocks = (g.out_c + 15) / 16;
  const int64_t per_out = int64_t(g.in_c) * g.KernelArea();
  float* packed = static_cast<float*>(packed_.get());
  float* packed_bias = packed + size_t(blocks) * 16 * per_out;
  if (!same_weights || !packed_valid_) {
    for (int64_t o = 0; o < int64_t(blocks) * 16; ++o)
      for (int64_t t = 0; t < per_out; ++t)
        packed[((o / 16) * per_out + t) * 16 + o % 16] = o < g.out_c ? w[o * per_out + t] : 0.0f;
    packed_valid_ = true;
  }
  if (bias_ && b != nullptr)
    for (int o = 0; o < blocks * 16; ++o) packed_bias[o] = o < g.out_c ? b[o] : 0.0f;
  Job jb;
  jb.g = &g_;
  jb.x = x;
  jb.w = packed;
  jb.bias = bias_ && b != nullptr ? packed_bias : nullptr;
  jb.y = y;
  jb.y_blocked = y_blocked && g.out_c % 16 == 0;
  jb.y_image = y_image != 0 ? y_image : int64_t(g.out_c) * g.OutPlane();
  jb.e = &e;
  jb.act = vec16::InRegisterAct(e);
  jb.blocks = blocks;
  jb.groups = (blocks + kPairs - 1) / kPairs;
  jb.band = band_;
  jb.bands = bands_;
  const ItemFn fn = PickItem();
  ParallelItems(int64_t(g.batch) * jb.groups * bands_, ParallelThreads(),
                [&](int64_t i, int) { fn(jb, i); });
}

}  // namespace qzdl
