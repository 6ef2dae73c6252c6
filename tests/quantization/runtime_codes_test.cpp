// The calibration code and the 8-bit runtime quantize alike: Quantization
// with 8 bits gives, bit for bit, the codes of the runtime's CodeOf, so that
// ranges are scored on the codes the 8-bit net computes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "quantization/utils.h"
#include "runtime/int8/grid.h"

namespace qzdl::staticQuantization {
namespace {

TEST(RuntimeCodes, QuantizationMatchesCodeOf) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<float> lo(-50.0f, 0.0f), hi(0.0f, 50.0f);
  for (int t = 0; t < 200; ++t) {
    const float min = lo(rng), max = hi(rng);
    float scale = 0;
    int zero = 0;
    ConfigQuantizationParam(min, max, 8, scale, zero);
    std::uniform_real_distribution<float> values(min * 1.2f, max * 1.2f);
    std::vector<float> src(1000);
    for (float& v : src) v = values(rng);
    src[0] = std::numeric_limits<float>::quiet_NaN();
    src[1] = std::numeric_limits<float>::infinity();
    src[2] = -std::numeric_limits<float>::infinity();
    std::vector<unsigned char> dst(src.size());
    Quantization(src.data(), dst.data(), src.size(), scale, zero, 8);
    for (size_t i = 0; i < src.size(); ++i) {
      ASSERT_EQ(dst[i], CodeOf(src[i], scale, zero)) << src[i] << " on " << scale << ", " << zero;
    }
  }
}

}  // namespace
}  // namespace qzdl::staticQuantization
