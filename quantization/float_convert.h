// Float to integer conversions with fixed results for every input, the same
// on every target: out-of-range values saturate and NaN gives 0 (what the
// 64-bit Arm conversion instructions do; x86 would give INT_MIN instead).
#pragma once

#include <cstdint>

namespace qzdl {
namespace staticQuantization {

inline int32_t TruncToInt32(float x) {
  if (!(x == x)) return 0;
  if (x >= 2147483648.0f) return INT32_MAX;
  if (x <= -2147483648.0f) return INT32_MIN;
  return static_cast<int32_t>(x);
}

inline int32_t TruncToInt32(double x) {
  if (!(x == x)) return 0;
  if (x >= 2147483648.0) return INT32_MAX;
  if (x <= -2147483649.0) return INT32_MIN;
  return static_cast<int32_t>(x);
}

inline uint32_t TruncToUint32(float x) {
  if (!(x > 0.0f)) return 0u;  // negative and NaN
  if (x >= 4294967296.0f) return UINT32_MAX;
  return static_cast<uint32_t>(x);
}

}  // namespace staticQuantization
}  // namespace qzdl
