// ConvInteger against an int64 reference: sums beyond 2^24 (where float
// accumulation rounds), groups, strides, pads and dilations; the chunk sizes;
// params and errors.
#include "runtime/layers/conv_integer.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

struct Geometry {
  int n, c, h, w, m, k, stride, pad, dilation, group;
};

// Whole numbers in [lo, hi], from a fixed sequence.
std::vector<float> Codes(size_t count, int lo, int hi, uint32_t seed) {
  std::vector<float> v(count);
  uint32_t s = seed;
  for (float& x : v) {
    s = s * 1664525u + 1013904223u;
    x = static_cast<float>(lo + int((s >> 8) % uint32_t(hi - lo + 1)));
  }
  return v;
}

std::vector<float> Reference(const Geometry& g, const std::vector<float>& x,
                             const std::vector<float>& w, int oh, int ow) {
  const int cg = g.c / g.group, mg = g.m / g.group;
  std::vector<float> y(size_t(g.n) * g.m * oh * ow);
  for (int n = 0; n < g.n; ++n)
    for (int o = 0; o < g.m; ++o)
      for (int oy = 0; oy < oh; ++oy)
        for (int ox = 0; ox < ow; ++ox) {
          int64_t acc = 0;
          for (int c = 0; c < cg; ++c)
            for (int ky = 0; ky < g.k; ++ky)
              for (int kx = 0; kx < g.k; ++kx) {
                const int iy = oy * g.stride - g.pad + ky * g.dilation;
                const int ix = ox * g.stride - g.pad + kx * g.dilation;
                if (iy < 0 || iy >= g.h || ix < 0 || ix >= g.w) continue;
                const int ci = (o / mg) * cg + c;
                acc += int64_t(x[((size_t(n) * g.c + ci) * g.h + iy) * g.w + ix]) *
                       int64_t(w[((size_t(o) * cg + c) * g.k + ky) * g.k + kx]);
              }
          y[((size_t(n) * g.m + o) * oh + oy) * ow + ox] = static_cast<float>(acc);
        }
  return y;
}

TEST(ConvIntegerLayer, MatchesInt64Reference) {
  for (const Geometry& g :
       {Geometry{1, 128, 4, 5, 3, 3, 1, 0, 1, 1}, Geometry{2, 64, 7, 6, 4, 3, 2, 1, 1, 2},
        Geometry{1, 8, 9, 9, 8, 3, 1, 2, 2, 8}, Geometry{1, 300, 3, 3, 2, 1, 1, 0, 1, 1}}) {
    SCOPED_TRACE(testing::Message() << "C=" << g.c << " group=" << g.group);
    // Centred codes near the top of their range: sums far beyond 2^24.
    const std::vector<float> x = Codes(size_t(g.n) * g.c * g.h * g.w, 200, 255, 1);
    const std::vector<float> w = Codes(size_t(g.m) * (g.c / g.group) * g.k * g.k, 100, 255, 2);
    const int ext = g.dilation * (g.k - 1) + 1;
    const int oh = (g.h + 2 * g.pad - ext) / g.stride + 1,
              ow = (g.w + 2 * g.pad - ext) / g.stride + 1;
    const Json::object param = {
        {"num_output", g.m},        {"kernel_h", g.k},          {"kernel_w", g.k},
        {"stride_h", g.stride},     {"stride_w", g.stride},     {"pad_top", g.pad},
        {"pad_bottom", g.pad},      {"pad_left", g.pad},        {"pad_right", g.pad},
        {"dilation_h", g.dilation}, {"dilation_w", g.dilation}, {"group", g.group},
        {"bias_term", false}};
    const Tensor got = test::RunLayer("ConvInteger", param, {{{g.n, g.c, g.h, g.w}, x}},
                                      {{"weight", {g.m, g.c / g.group, g.k, g.k}, w}});
    EXPECT_EQ(got.dims, (std::vector<int>{g.n, g.m, oh, ow}));
    EXPECT_EQ(got.values, Reference(g, x, w, oh, ow));
  }
}

TEST(ConvIntegerLayer, ChunksKeepPartialSumsWithin2To24) {
  // 255 x 255 = 65025: 258 products stay within 2^24 = 16777216.
  EXPECT_EQ(ConvIntegerLayer<float>::ChunkFor(1152, 255, 255), 258);
  EXPECT_EQ(ConvIntegerLayer<float>::ChunkFor(100, 255, 255), 100);
  EXPECT_EQ(ConvIntegerLayer<float>::ChunkFor(1152, 0, 255), 1152);
  EXPECT_EQ(ConvIntegerLayer<float>::ChunkFor(9, 1e9, 1e9), 1);
}

TEST(ConvIntegerLayer, Errors) {
  const std::string prefix = "net description: layer \"l\" (ConvInteger): ";
  const Json::object base = {{"num_output", 2}, {"kernel_h", 3}, {"kernel_w", 3}};
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ConvInteger", base, {{1, 1, 4, 4}},
                                               {{"weight", {2, 1, 3, 3}, {}}})),
            prefix + "param \"bias_term\" must be false (the sums have no bias)");
  Json::object grouped = base;
  grouped["bias_term"] = false;
  grouped["group"] = 2;
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ConvInteger", grouped, {{1, 3, 4, 4}})),
            prefix + "input \"x0\" has 3 channels, not divisible by group 2");
  Json::object plain = base;
  plain["bias_term"] = false;
  EXPECT_EQ(test::BuildError(test::OneLayerNet("ConvInteger", plain, {{1, 1, 2, 2}})),
            prefix + "input \"x0\" of shape [1, 1, 2, 2] is smaller than the dilated kernel");
}

}  // namespace
}  // namespace qzdl
