#include "runtime/int8/grid.h"

#include <cmath>
#include <cstdint>

namespace qzdl {

namespace {

// Truncation that saturates (and gives 0 for NaN) the same on every target.
int TruncToInt(float x) {
  if (!(x == x)) return 0;
  if (x >= 2147483648.0f) return INT32_MAX;
  if (x <= -2147483648.0f) return INT32_MIN;
  return static_cast<int>(x);
}

}  // namespace

int ZeroPointOf(float z, float qmax) {
  if (z < 0.0f) return 0;
  if (qmax < z) return TruncToInt(qmax);
  return TruncToInt(std::round(z));
}

void GridOfRange(float min, float max, float qmax, float& scale, int& zero) {
  const float s = (max - min) / qmax;
  const float z = 0.0f - min / s;
  scale = s;
  zero = ZeroPointOf(z, qmax);
}

void GridOfRangeWithZero(float min, float max, float qmax, float& scale, int& zero) {
  const float hi = max > 0.0f ? max : 0.0f;
  float lo;
  float range;
  if (min < 0.0f) {
    lo = min;
    range = hi - min;
  } else {
    lo = 0.0f;
    range = hi;
  }
  const float s = range / qmax;
  const float z = 0.0f - lo / s;
  scale = s;
  zero = ZeroPointOf(z, qmax);
}

}  // namespace qzdl
