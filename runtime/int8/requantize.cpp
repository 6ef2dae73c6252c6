#include "runtime/int8/requantize.h"

#include <cmath>

namespace qzdl {

Requantizer MakeRequantizer(double real, bool use_double) {
  Requantizer r;
  r.use_double = use_double;
  if (!(real > 0.0)) return r;  // 0, negative or NaN: every result is 0
  r.real = real;
  if (std::isinf(real)) {  // a grid of scale 0 below: every non-zero sum saturates
    r.saturate = true;
    return r;
  }
  int exponent = 0;
  const double fraction = std::frexp(real, &exponent);  // real = fraction * 2^exponent
  int64_t m = std::llround(fraction * 2147483648.0);     // in [2^30, 2^31]
  if (m == (int64_t{1} << 31)) {
    m >>= 1;
    ++exponent;
  }
  const int shift = 31 - exponent;  // real ~ m * 2^-shift
  if (shift < 1) {
    r.saturate = true;
  } else if (shift > 62) {
    // real < 2^-32: |acc * real| < 1/2 for every int32 acc, which rounds to
    // 0 (never a tie), so the multiplier stays 0.
  } else {
    r.multiplier = static_cast<int32_t>(m);
    r.shift = shift;
  }
  return r;
}

}  // namespace qzdl
