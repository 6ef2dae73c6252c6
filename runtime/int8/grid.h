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

}  // namespace qzdl
