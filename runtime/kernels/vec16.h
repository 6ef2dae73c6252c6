// 16-float vectors for the direct float convolution kernels, through GCC's
// vector extension: each operation compiles to AVX-512, AVX2, SSE or NEON
// instructions as the calling function's target allows, so one source
// serves every CPU. Also the activations those kernels apply in registers,
// and the choice of their instruction-set path.
#pragma once

#include "runtime/kernels/cpu_features.h"
#include "runtime/kernels/epilogue.h"

namespace qzdl {
namespace vec16 {

// Loaded and stored at any alignment.
typedef float V16 __attribute__((vector_size(64), aligned(4)));

// These helpers are always inlined into the kernels, never called across
// files, so the warning that 64-byte vectors pass differently by value
// under other targets does not apply.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"

inline __attribute__((always_inline)) V16 Load(const float* p) {
  return *reinterpret_cast<const V16*>(p);
}
inline __attribute__((always_inline)) void Store(float* p, V16 v) {
  *reinterpret_cast<V16*>(p) = v;
}

// The activations that run in registers before the store: ReLU and
// LeakyRelu (PositiveOrScaled) and ReLUX (ClipZeroTo), without a
// per-channel affine. Others are applied after the store.
enum Act { kActNone, kActRelu, kActClip };

inline int InRegisterAct(const Epilogue& e) {
  if (e.mult != nullptr) return kActNone;
  if (e.kind == Epilogue::Kind::kRelu) return kActRelu;
  if (e.kind == Epilogue::Kind::kClip) return kActClip;
  return kActNone;
}

// The selects of PositiveOrScaled and ClipZeroTo (epilogue.h) lane by lane:
// the same bits as the activation layers.
inline __attribute__((always_inline)) V16 Activate(V16 x, int act, float t) {
  const V16 zero = {};
  if (act == kActRelu) {
    const V16 scaled = x * t;
    return x > zero ? x : scaled;
  }
  if (act == kActClip) {
    const V16 tv = t - zero;  // t in every lane
    const V16 capped = x >= tv ? tv : x;
    return x <= zero ? zero : capped;
  }
  return x;
}

// The pieces of the kernels' register tiles: acc[v][j] is output block v
// (16 channels) of pixel j.

// Every pixel starts at the block's 16 biases (zero without).
template <int P, int V>
inline __attribute__((always_inline)) void InitTile(V16 (&acc)[V][P], const float* bias) {
#pragma GCC unroll 4
  for (int v = 0; v < V; ++v) {
    const V16 b = bias != nullptr ? Load(bias + v * 16) : V16{};
#pragma GCC unroll 16
    for (int j = 0; j < P; ++j) acc[v][j] = b;
  }
}

// One input value per pixel, x[j * x_step], times the weights of block v
// at w + v * w_block: a broadcast and V fused multiply-adds per pixel.
template <int P, int V>
inline __attribute__((always_inline)) void AddProducts(V16 (&acc)[V][P], const float* w,
                                                       int64_t w_block, const float* x,
                                                       int64_t x_step) {
  V16 wv[V];
#pragma GCC unroll 4
  for (int v = 0; v < V; ++v) wv[v] = Load(w + v * w_block);
#pragma GCC unroll 16
  for (int j = 0; j < P; ++j) {
    const float xv = x[j * x_step];
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v) acc[v][j] += wv[v] * xv;
  }
}

// Block v of pixel j to out + v * out_block + j * 16, activated.
template <int P, int V>
inline __attribute__((always_inline)) void StoreTile(const V16 (&acc)[V][P], float* out,
                                                     int64_t out_block, int act, float param) {
#pragma GCC unroll 4
  for (int v = 0; v < V; ++v)
#pragma GCC unroll 16
    for (int j = 0; j < P; ++j)
      Store(out + v * out_block + j * 16, Activate(acc[v][j], act, param));
}

#pragma GCC diagnostic pop

// The widest path this CPU has that QZDL_CPU_DISABLE leaves on: kernels
// instantiate their tiles for AVX-512 (32 vector registers), AVX2 with FMA
// (16), or the compiler's default target (SSE on x86-64, NEON on Arm).
enum class Isa { kAvx512, kAvx2, kGeneric };

inline Isa PickIsa() {
  static const Isa isa = [] {
#if defined(__x86_64__) && defined(__GNUC__)
    if (__builtin_cpu_supports("avx512f") && CpuPathAllowed("avx512")) return Isa::kAvx512;
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && CpuPathAllowed("avx2"))
      return Isa::kAvx2;
#endif
    return Isa::kGeneric;
  }();
  return isa;
}

}  // namespace vec16
}  // namespace qzdl
