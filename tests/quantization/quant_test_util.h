// Helpers shared by the quantization tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

namespace qzdl {
namespace quant_test {

inline uint32_t Bits(float x) {
  uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

inline uint64_t Bits(double x) {
  uint64_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

inline float FromBits(uint32_t b) {
  float x;
  std::memcpy(&x, &b, sizeof x);
  return x;
}

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

}  // namespace quant_test
}  // namespace qzdl

// Bit-for-bit comparison of two floats (or doubles), printing both values.
#define EXPECT_SAME_BITS(expected, actual)                                        \
  EXPECT_EQ(::qzdl::quant_test::Bits(expected), ::qzdl::quant_test::Bits(actual)) \
      << "expected " << (expected) << ", got " << (actual)
