// Element functions of the simple activations, and the epilogue through which
// a layer applies one of them to its own outputs when the activation layer
// after it is fused into it (Net::SetInferenceMode). The activation layers
// and the epilogues call the same functions, so a fused net gives the same
// bits as the unfused one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "runtime/kernels/fast_exp.h"

namespace qzdl {

// x > 0 ? x : x * slope (NaN gives x * slope, a NaN), as a select of bits.
// Written as `x > 0 ? x : x * slope`, GCC keeps a branch per element: under
// the default trapping-math rules it may not compute x * slope for elements
// that do not need it, so the loop is not vectorized, and the branch
// mispredicts on data of mixed signs. Here the product is always computed and
// the result picked by a mask: the same bits, and the loop vectorizes.
inline float PositiveOrScaled(float x, float slope) {
  const float scaled = x * slope;
  const uint32_t keep = 0u - static_cast<uint32_t>(x > 0.0f);
  uint32_t bits_x, bits_scaled;
  std::memcpy(&bits_x, &x, sizeof bits_x);
  std::memcpy(&bits_scaled, &scaled, sizeof bits_scaled);
  const uint32_t bits = (bits_x & keep) | (bits_scaled & ~keep);
  float y;
  std::memcpy(&y, &bits, sizeof y);
  return y;
}

// min(max(x, 0), t); NaN stays NaN (both comparisons are false for it). Two
// plain selects vectorize into a compare and a blend each; the nested form
// x > 0 ? (x < t ? x : t) : (x <= 0 ? 0 : x) gives the same bits but ran at
// less than half the speed.
inline float ClipZeroTo(float x, float t) {
  const float capped = x >= t ? t : x;
  return x <= 0.0f ? 0.0f : capped;
}

// x * min(max(x + 3, 0), 6) / 6.
inline float HardSwishValue(float x) {
  const float r6 = std::min(std::max(x + 3.0f, 0.0f), 6.0f);
  return x * r6 / 6.0f;
}

// (x - shift) * mult + add in three roundings: "Scale" and "BatchNormal" per
// channel. The files that call it are built without contraction into fused
// multiply-adds (runtime/CMakeLists.txt), so a fused affine has the bits of
// the layer's own.
inline float AffineValue(float x, float shift, float mult, float add) {
  return (x - shift) * mult + add;
}

struct Epilogue {
  enum class Kind {
    kNone,
    kRelu,       // PositiveOrScaled(x, param): ReLU and LeakyRelu
    kClip,       // ClipZeroTo(x, param): ReLUX
    kHardSwish,  // HardSwishValue(x)
    kSigmoid,    // SigmoidValue(x)
    kSwish,      // SwishValue(x, param)
  };
  Kind kind = Kind::kNone;
  float param = 0.0f;
  // A per-channel affine applied before the activation (AffineValue), by
  // output channel; all null without one.
  const float* shift = nullptr;
  const float* mult = nullptr;
  const float* add = nullptr;

  bool Active() const { return kind != Kind::kNone || mult != nullptr; }
};

// y[i] = e(y[i]) for i in [0, n), all of output channel `channel`, on the
// calling thread.
void ApplyEpilogue(const Epilogue& e, float* y, int64_t n, int64_t channel = 0);

// y[i] = e(x[i]) for i in [0, n): the activation alone (no affine), as the
// activation layers compute it; x may be y. On the calling thread.
void MapActivation(const Epilogue& e, const float* x, float* y, int64_t n);

// A block of `rows` rows of `cols` values (row stride ld), row r of output
// channel first_channel + r: adds bias[r] to row r when bias is not null,
// then applies e; on the calling thread.
void BiasAndEpilogue(const Epilogue& e, const float* bias, float* y, int64_t ld, int rows, int cols,
                     int64_t first_channel = 0);

}  // namespace qzdl
