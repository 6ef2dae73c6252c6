// The integer arithmetic of the 8-bit runtime, defined once.
//
// A quantized tensor holds unsigned 8-bit codes q with a grid (scale s, zero
// point z): the real value is (q - z) * s. An integer layer sums products of
// zero-point-subtracted codes in int32 (acc), whose real value is
// acc * s_x * s_w; the output code is
//
//   q_y = clamp(z_y + round(acc * M), 0, 255),  M = s_x * s_w / s_y,
//
// with exactly one rounding, ties toward +infinity. M is a fixed-point
// multiplier m * 2^-n with m in [2^30, 2^31) taken from frexp of M, so that
// round(acc * M) = (acc * m + 2^(n-1)) >> n in 64-bit integers; or, when the
// net asks for high accuracy, M itself in double precision. Libraries that
// first take a rounded doubling high multiply and then a rounding shift round
// twice and differ from this in a few percent of values; nothing here does.
#pragma once

#include <cstdint>

namespace qzdl {

struct Requantizer {
  // Fixed point: round(acc * real) = (acc * multiplier + 2^(shift-1)) >> shift.
  int32_t multiplier = 0;  // in [2^30, 2^31), or 0 for a multiplier that rounds to 0
  int shift = 31;          // 1 .. 62
  // acc * real saturates: real is 2^30 or more, so any acc other than 0
  // lands beyond every code after the zero point is added.
  bool saturate = false;
  double real = 0.0;  // the multiplier itself, for the double mode
  bool use_double = false;
  // A multiplier below 2^-32 rounds every int32 accumulator to 0, but not
  // every int64 one: RequantizeRaw64 then uses m * 2^-shift with the shift
  // in 63 .. 95 (0 when it is beyond, where every int64 gives 0 too).
  int32_t wide_multiplier = 0;
  int wide_shift = 0;
};

// The requantizer of the real multiplier `real` (>= 0; NaN and negative
// values count as 0). `use_double`: round(acc * real) in double precision.
Requantizer MakeRequantizer(double real, bool use_double);

// round(acc * M), ties toward +infinity, as the requantizer defines it.
inline int32_t RequantizeRaw(int32_t acc, const Requantizer& r) {
  if (r.saturate) return acc > 0 ? (1 << 30) : acc < 0 ? -(1 << 30) : 0;
  if (r.use_double) {
    // |acc * real| < 2^61 here, so the floor fits an int64; clamp to int32
    // only after adding the rounding half.
    const double v = static_cast<double>(acc) * r.real + 0.5;
    const double f = v < -1073741824.0 ? -1073741824.0 : v > 1073741824.0 ? 1073741824.0 : v;
    int64_t i = static_cast<int64_t>(f);
    if (static_cast<double>(i) > f) --i;  // floor for negative values
    return static_cast<int32_t>(i);
  }
  // |acc * multiplier| < 2^62, so the sum cannot overflow; a large
  // multiplier (small shift) can still leave the int32 range: clamp to
  // +-2^30, which every zero point and code lies far inside.
  const int64_t product = static_cast<int64_t>(acc) * r.multiplier;
  const int64_t v = (product + (int64_t{1} << (r.shift - 1))) >> r.shift;
  return static_cast<int32_t>(v < -(int64_t{1} << 30) ? -(int64_t{1} << 30)
                              : v > (int64_t{1} << 30) ? (int64_t{1} << 30)
                                                       : v);
}

// The output code: clamp(zero + round(acc * M), 0, 255).
inline uint8_t Requantize(int32_t acc, const Requantizer& r, int32_t zero) {
  const int64_t q = static_cast<int64_t>(zero) + RequantizeRaw(acc, r);
  return static_cast<uint8_t>(q < 0 ? 0 : q > 255 ? 255 : q);
}

// out[i] = Requantize(acc[i] saturated to int32, r, zero) for a row of
// 64-bit sums, the same bits with the mode decided once per row (the loop
// vectorizes).
void RequantizeRow(const int64_t* acc, int64_t n, const Requantizer& r, int32_t zero,
                   uint8_t* out);

// out[i] = Requantize(add + acc[i] saturated to int32, r, zero) for a row of
// 32-bit sums and one 64-bit addend (the bias), then, when `table` is not
// null, out[i] = table[out[i]]: the same bits as RequantizeRow on the sums.
void RequantizeRow32(const int32_t* acc, int64_t n, int64_t add, const Requantizer& r,
                     int32_t zero, uint8_t* out, const uint8_t* table = nullptr);
// The same bits without the AVX-512 and AVX2 loops that RequantizeRow32
// takes where the CPU has them (for tests).
void RequantizeRow32Plain(const int32_t* acc, int64_t n, int64_t add, const Requantizer& r,
                          int32_t zero, uint8_t* out, const uint8_t* table = nullptr);

// round(acc * M) of a 64-bit accumulator (products of several codes, sums
// over windows of more than 2^23 elements), clamped to +-2^30 like
// RequantizeRaw. The fixed-point mode is exact for every int64 without
// 128-bit integers; the double mode converts acc to double first, which is
// exact below 2^53 in magnitude.
int32_t RequantizeRaw64(int64_t acc, const Requantizer& r);

inline uint8_t Requantize64(int64_t acc, const Requantizer& r, int32_t zero) {
  const int64_t q = static_cast<int64_t>(zero) + RequantizeRaw64(acc, r);
  return static_cast<uint8_t>(q < 0 ? 0 : q > 255 ? 255 : q);
}

}  // namespace qzdl
