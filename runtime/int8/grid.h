// The affine grid of a range, defined once for the runtime and the
// calibration code: scale = range / qmax and the zero point that stands for
// the real value 0. All in single precision; qmax is 255 for the 8-bit codes.
#pragma once

namespace qzdl {

// The zero point of real z: 0 below 0 (and for NaN), qmax (truncated,
// saturating at 2147483647) above qmax, else z rounded half away from zero.
int ZeroPointOf(float z, float qmax);

// The grid of [min, max] as it stands: scale = (max - min) / qmax,
// zero = ZeroPointOf(0 - min / scale).
void GridOfRange(float min, float max, float qmax, float& scale, int& zero);

// The grid of [min, max] widened to contain 0 (what every tensor and weight
// record uses): hi = max(max, 0), lo = min(min, 0), scale = (hi - lo) / qmax.
void GridOfRangeWithZero(float min, float max, float qmax, float& scale, int& zero);

// The code of real value v on the grid (scale, zero): v / scale + zero + 0.5
// in single precision, step by step (a true division, two separate
// additions), then truncated and clamped to 0 .. 255; NaN gives 255. The
// calibration code quantizes the same way (Quantization with 8 bits), so
// that a range is scored on the codes the 8-bit net computes.
inline unsigned char CodeOf(float v, float scale, int zero) {
  float q = v / scale;
  q = q + static_cast<float>(zero);
  q = q + 0.5f;
  const float c = (255.0f > q) ? q : 255.0f;
  return c > 0.0f ? static_cast<unsigned char>(static_cast<int>(c)) : 0;
}

// The real value of `code`: (code - zero) * scale.
inline float RealOf(unsigned char code, float scale, int zero) {
  return static_cast<float>(static_cast<int>(code) - zero) * scale;
}

}  // namespace qzdl
