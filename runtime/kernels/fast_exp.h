// exp for float activations, in plain arithmetic so that loops over it
// vectorize (the C library's expf is a call per element). Within 2 ulp of
// the correctly rounded exp over the whole float range; +inf above
// 88.7228, +0 below -103.973 (where expf goes subnormal then zero, this
// flushes a little early), NaN for NaN. Callers are built without
// contraction into fused multiply-adds, so every CPU and every vector width
// gives the same bits.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

namespace qzdl {

inline float FastExp(float x) {
  // x = n ln2 + r with |r| <= ln2 / 2; exp(r) by Cephes' polynomial; 2^n in
  // two factors so that n down to -150 needs no subnormal exponent field.
  const float xs = x != x ? 0.0f : x;  // NaN: computed as 0, replaced at the end
  const float xc = std::min(std::max(xs, -103.5f), 88.72f);
  const float t = xc * 1.44269504088896341f + 12582912.0f;  // 1.5 * 2^23: rounds
  const float n = t - 12582912.0f;
  int32_t tb;
  std::memcpy(&tb, &t, sizeof tb);
  const int32_t ni = tb - 0x4B400000;  // bits of 12582912.0f
  const float r = (xc - n * 0.693359375f) - n * -2.12194440e-4f;
  float p = 1.9875691500e-4f;
  p = p * r + 1.3981999507e-3f;
  p = p * r + 8.3334519073e-3f;
  p = p * r + 4.1665795894e-2f;
  p = p * r + 1.6666665459e-1f;
  p = p * r + 5.0000001201e-1f;
  p = p * r * r + r + 1.0f;
  const int32_t n1 = ni >> 1, n2 = ni - n1;
  const int32_t b1 = (n1 + 127) << 23, b2 = (n2 + 127) << 23;
  float s1, s2;
  std::memcpy(&s1, &b1, sizeof s1);
  std::memcpy(&s2, &b2, sizeof s2);
  float y = p * s1 * s2;
  y = x > 88.7228f ? std::numeric_limits<float>::infinity() : y;
  y = x < -103.973f ? 0.0f : y;
  return x != x ? x : y;
}

// 1 / (1 + exp(-x)).
inline float SigmoidValue(float x) { return 1.0f / (1.0f + FastExp(-x)); }

// x / (1 + exp(-beta x)).
inline float SwishValue(float x, float beta) { return x / (1.0f + FastExp(-beta * x)); }

}  // namespace qzdl
