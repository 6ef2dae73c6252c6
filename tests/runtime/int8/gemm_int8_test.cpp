// The fast integer kernels against the reference kernels, bit for bit: random
// full-range codes and zero points, shapes of real nets and odd ones (groups,
// depthwise, pointwise, strides, dilation, pads, reductions longer than one
// exact chunk), batch 1 and 8, both multiplier modes, one thread and two.
#include "runtime/int8/gemm_int8.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "runtime/int8/requantize.h"
#include "runtime/kernels/gemm.h"

namespace qzdl {
namespace {

std::vector<uint8_t> Codes(size_t n, std::mt19937& rng) {
  std::uniform_int_distribution<int> d(0, 255);
  std::vector<uint8_t> v(n);
  for (uint8_t& c : v) c = static_cast<uint8_t>(d(rng));
  return v;
}

ChannelQuantization Channels(int out, std::mt19937& rng, bool use_double) {
  std::uniform_int_distribution<int> zero(0, 255);
  std::uniform_int_distribution<int> bias(-400000, 400000);
  std::uniform_real_distribution<double> scale(1e-7, 2e-5);
  ChannelQuantization q;
  q.output_zero = zero(rng);
  for (int o = 0; o < out; ++o) {
    q.weight_zero.push_back(zero(rng));
    q.bias.push_back(bias(rng));
    q.requantizer.push_back(MakeRequantizer(scale(rng), use_double));
  }
  return q;
}

ConvGeometry Geometry(int n, int c, int h, int w, int m, int kh, int kw, int s, int pad, int d,
                      int group) {
  ConvGeometry g;
  g.batch = n, g.in_c = c, g.in_h = h, g.in_w = w, g.out_c = m;
  g.kernel_h = kh, g.kernel_w = kw, g.stride_h = g.stride_w = s;
  g.pad_top = g.pad_left = pad, g.pad_bottom = pad + (s > 1 ? 1 : 0), g.pad_right = pad;
  g.dilation_h = g.dilation_w = d, g.group = group;
  g.out_h = g.ConvOutH(), g.out_w = g.ConvOutW();
  return g;
}

constexpr ConvPath kAllPaths[] = {ConvPath::kFloatGemm, ConvPath::kShiftedGemm,
                                   ConvPath::kFloatDepthwise, ConvPath::kIntegerDepthwise,
                                   ConvPath::kIntegerDepthwisePortable, ConvPath::kPairGemm,
                                   ConvPath::kQuadGemm};

// The weights [out_c][k] packed in pairs, panels per group, as the 8-bit
// convolution layer packs them.
std::vector<int32_t> PairsOf(const ConvGeometry& g, const std::vector<uint8_t>& w,
                             const ChannelQuantization& q) {
  const int64_t k = int64_t(g.InPerGroup()) * g.KernelArea();
  const int per = g.OutPerGroup();
  const int64_t lanes = PairWeightLanes(per, k);
  std::vector<int32_t> pairs(size_t(g.group * lanes));
  for (int grp = 0; grp < g.group; ++grp) {
    const uint8_t* wg = w.data() + int64_t(grp) * per * k;
    PackPairWeights(
        per, k, q.weight_zero.data() + grp * per, [&](int r, int64_t i) { return wg[r * k + i]; },
        pairs.data() + grp * lanes);
  }
  return pairs;
}

// The weights [out_c][k] packed in quads, panels per group.
std::vector<int32_t> QuadsOf(const ConvGeometry& g, const std::vector<uint8_t>& w) {
  const int64_t k = int64_t(g.InPerGroup()) * g.KernelArea();
  const int per = g.OutPerGroup();
  const int64_t lanes = QuadWeightLanes(per, k);
  std::vector<int32_t> quads(size_t(g.group * lanes));
  for (int grp = 0; grp < g.group; ++grp) {
    const uint8_t* wg = w.data() + int64_t(grp) * per * k;
    PackQuadWeights(
        per, k, [&](int r, int64_t i) { return wg[r * k + i]; }, quads.data() + grp * lanes);
  }
  return quads;
}

// Every path that can run the shape here against the reference, with the
// channels of `make_q` (both multiplier modes).
template <typename MakeQ>
void ExpectPathsMatchReference(const ConvGeometry& g, uint32_t seed, MakeQ make_q) {
  std::mt19937 rng(seed);
  const int64_t k = int64_t(g.InPerGroup()) * g.KernelArea();
  const std::vector<uint8_t> x = Codes(size_t(g.batch) * g.in_c * g.InPlane(), rng);
  const std::vector<uint8_t> w = Codes(size_t(g.out_c) * k, rng);
  const int32_t x_zero = std::uniform_int_distribution<int>(0, 255)(rng);
  for (bool use_double : {false, true}) {
    const ChannelQuantization q = make_q(g.out_c, rng, use_double);
    std::vector<uint8_t> want(size_t(g.batch) * g.out_c * g.OutPlane());
    ReferenceConvolutionU8(g, x.data(), x_zero, w.data(), q, want.data());
    std::vector<float> centred(size_t(g.out_c) * k);
    std::vector<int32_t> sums(g.out_c);
    auto at = [k](int o, int64_t i) { return o * k + i; };
    CentreWeights(g.out_c, k, w.data(), q.weight_zero, at, centred.data());
    SumCodeRows(g.out_c, k, w.data(), at, sums.data());
    const std::vector<int32_t> pairs = PairsOf(g, w, q);
    const std::vector<int32_t> quads = QuadsOf(g, w);
    CodeWeights weights;
    weights.centred = centred.data();
    weights.codes = w.data();
    weights.code_sum = sums.data();
    weights.pairs = pairs.data();
    weights.quads = quads.data();
    for (ConvPath path : kAllPaths) {
      for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        ConvCodesKernel kernel;
        if (!kernel.ReshapeFor(g, path)) continue;  // not on this CPU or shape
        std::vector<uint8_t> got(want.size(), 0);
        kernel.Run(x.data(), x_zero, weights, q, got.data());
        int differ = 0;
        for (size_t i = 0; i < got.size(); ++i) differ += got[i] != want[i];
        EXPECT_EQ(differ, 0) << g.ToString() << (use_double ? " double" : " fixed point") << ", "
                             << threads << " threads, " << ConvPathName(path);
      }
    }
  }
  omp_set_num_threads(2);
}

void ExpectConvMatchesReference(const ConvGeometry& g, uint32_t seed) {
  ExpectPathsMatchReference(g, seed, Channels);
}

TEST(ConvCodesKernel, SaysWhichGemmRuns) {
  // The quad GEMM runs where the CPU has VNNI (and AVX-512BW); else the
  // u8 x s8 path where oneDNN sums those products exactly; else the pair
  // GEMM where it has a vector loop, else the float GEMM.
  ConvCodesKernel kernel;
  kernel.Reshape(Geometry(1, 8, 6, 6, 4, 3, 3, 1, 1, 1, 1));
  EXPECT_EQ(kernel.Shifted(), !HaveQuadGemm() && HaveExactU8S8Gemm());
  EXPECT_EQ(kernel.Path(), HaveQuadGemm()        ? ConvPath::kQuadGemm
                           : HaveExactU8S8Gemm() ? ConvPath::kShiftedGemm
                           : HaveFastPairGemm()  ? ConvPath::kPairGemm
                                                 : ConvPath::kFloatGemm);
  EXPECT_EQ(kernel.Form(), HaveQuadGemm()        ? WeightForm::kQuads
                           : HaveExactU8S8Gemm() ? WeightForm::kU8S8
                           : HaveFastPairGemm()  ? WeightForm::kPairs
                                                 : WeightForm::kCentred);
  // The quad GEMM never runs without VNNI.
  EXPECT_EQ(kernel.ReshapeFor(Geometry(1, 8, 6, 6, 4, 3, 3, 1, 1, 1, 1), ConvPath::kQuadGemm),
            HaveQuadGemm());
  // Reductions whose int32 sums could overflow (K > 33025) stay off the
  // pair GEMM: 3669 * 9 = 33021 runs on it, 3670 * 9 = 33030 does not.
  EXPECT_TRUE(kernel.ReshapeFor(Geometry(1, 3669, 3, 3, 2, 3, 3, 1, 0, 1, 1), ConvPath::kPairGemm));
  EXPECT_FALSE(kernel.ReshapeFor(Geometry(1, 3670, 3, 3, 2, 3, 3, 1, 0, 1, 1), ConvPath::kPairGemm));
  kernel.Reshape(Geometry(1, 3670, 3, 3, 2, 3, 3, 1, 0, 1, 1));
  EXPECT_NE(kernel.Path(), ConvPath::kPairGemm);
  kernel.Reshape(Geometry(1, 8, 6, 6, 4, 3, 3, 1, 1, 1, 1), false);
  EXPECT_FALSE(kernel.Shifted());
  EXPECT_EQ(kernel.Path(), ConvPath::kFloatGemm);
  // Depthwise windows add their taps in integers on every CPU.
  kernel.Reshape(Geometry(1, 8, 6, 6, 8, 3, 3, 1, 1, 1, 8));
  EXPECT_FALSE(kernel.Shifted());
  EXPECT_EQ(kernel.Path(), ConvPath::kIntegerDepthwise);
  std::printf("8-bit GEMM here: %s\n", HaveQuadGemm()        ? "quads (VNNI)"
                                       : HaveExactU8S8Gemm() ? "u8 x s8 (VNNI)"
                                       : HaveFastPairGemm() ? "16-bit pairs"
                                                            : "float");
}

TEST(ConvCodesKernel, MatchesTheReferenceOnRealShapes) {
  uint32_t seed = 1;
  for (int batch : {1, 8}) {
    // ResNet-18: the first 7x7/2 convolution, a 3x3 (K = 576, three exact
    // chunks), a 3x3/2 and a 1x1/2 downsample.
    ExpectConvMatchesReference(Geometry(batch, 3, 38, 38, 16, 7, 7, 2, 3, 1, 1), seed++);
    ExpectConvMatchesReference(Geometry(batch, 64, 14, 14, 24, 3, 3, 1, 1, 1, 1), seed++);
    ExpectConvMatchesReference(Geometry(batch, 32, 15, 15, 40, 3, 3, 2, 1, 1, 1), seed++);
    ExpectConvMatchesReference(Geometry(batch, 48, 14, 14, 32, 1, 1, 2, 0, 1, 1), seed++);
    // MobileNetV2: pointwise expansion and projection, depthwise 3x3 and 3x3/2.
    ExpectConvMatchesReference(Geometry(batch, 24, 14, 14, 144, 1, 1, 1, 0, 1, 1), seed++);
    ExpectConvMatchesReference(Geometry(batch, 160, 7, 7, 40, 1, 1, 1, 0, 1, 1), seed++);
    ExpectConvMatchesReference(Geometry(batch, 32, 10, 10, 32, 3, 3, 1, 1, 1, 32), seed++);
    ExpectConvMatchesReference(Geometry(batch, 40, 13, 13, 40, 3, 3, 2, 1, 1, 40), seed++);
  }
}

TEST(ConvCodesKernel, MatchesTheReferenceOnOddShapes) {
  uint32_t seed = 100;
  // Groups, dilation, uneven pads, a kernel wider than tall, a 1x1 input,
  // a depthwise multiplier of 2, a pointwise reduction of 600 channels, and
  // a depthwise window of 17 x 17 (289 taps, beyond one exact chunk).
  ExpectConvMatchesReference(Geometry(2, 12, 9, 11, 18, 3, 3, 1, 2, 2, 3), seed++);
  ExpectConvMatchesReference(Geometry(3, 5, 7, 6, 7, 2, 5, 3, 1, 1, 1), seed++);
  ExpectConvMatchesReference(Geometry(1, 9, 1, 1, 5, 1, 1, 1, 0, 1, 1), seed++);
  ExpectConvMatchesReference(Geometry(1, 8, 9, 9, 16, 3, 3, 1, 1, 1, 8), seed++);
  ExpectConvMatchesReference(Geometry(2, 600, 3, 5, 7, 1, 1, 1, 0, 1, 1), seed++);
  ExpectConvMatchesReference(Geometry(1, 4, 20, 20, 4, 17, 17, 1, 8, 1, 4), seed++);
  ExpectConvMatchesReference(Geometry(1, 6, 8, 8, 6, 3, 3, 2, 2, 3, 6), seed++);
}

TEST(ConvCodesKernel, DepthwiseMatchesTheReferenceOnMobileNetShapes) {
  uint32_t seed = 200;
  for (int batch : {1, 8}) {
    // MobileNetV2's depthwise 3x3 convolutions: stride 1 and 2 at each
    // resolution (the 112 x 112 ones at batch 1 only, for time).
    if (batch == 1) {
      ExpectConvMatchesReference(Geometry(batch, 32, 112, 112, 32, 3, 3, 1, 1, 1, 32), seed++);
      ExpectConvMatchesReference(Geometry(batch, 96, 112, 112, 96, 3, 3, 2, 1, 1, 96), seed++);
    }
    ExpectConvMatchesReference(Geometry(batch, 144, 56, 56, 144, 3, 3, 1, 1, 1, 144), seed++);
    ExpectConvMatchesReference(Geometry(batch, 144, 56, 56, 144, 3, 3, 2, 1, 1, 144), seed++);
    ExpectConvMatchesReference(Geometry(batch, 192, 28, 28, 192, 3, 3, 2, 1, 1, 192), seed++);
    ExpectConvMatchesReference(Geometry(batch, 384, 14, 14, 384, 3, 3, 1, 1, 1, 384), seed++);
    ExpectConvMatchesReference(Geometry(batch, 960, 7, 7, 960, 3, 3, 1, 1, 1, 960), seed++);
  }
}

TEST(ConvCodesKernel, DepthwiseMatchesTheReferenceOnOddShapes) {
  uint32_t seed = 300;
  for (int batch : {1, 3}) {
    // Odd sizes, 5x5 and 7x7, 1xN, stride 3, dilation, no pads, large pads,
    // a depthwise multiplier of 3, a 1x1 input, a window of 33 x 33 taps.
    ExpectConvMatchesReference(Geometry(batch, 7, 13, 11, 7, 3, 3, 1, 1, 1, 7), seed++);
    ExpectConvMatchesReference(Geometry(batch, 5, 17, 9, 5, 3, 3, 2, 1, 1, 5), seed++);
    ExpectConvMatchesReference(Geometry(batch, 6, 15, 15, 6, 5, 5, 2, 2, 1, 6), seed++);
    ExpectConvMatchesReference(Geometry(batch, 3, 9, 10, 3, 7, 7, 1, 3, 1, 3), seed++);
    ExpectConvMatchesReference(Geometry(batch, 4, 11, 12, 4, 1, 5, 1, 2, 1, 4), seed++);
    ExpectConvMatchesReference(Geometry(batch, 4, 14, 13, 4, 3, 3, 3, 0, 1, 4), seed++);
    ExpectConvMatchesReference(Geometry(batch, 4, 10, 10, 4, 3, 3, 1, 2, 2, 4), seed++);
    ExpectConvMatchesReference(Geometry(batch, 4, 6, 7, 4, 3, 3, 2, 4, 1, 4), seed++);
    ExpectConvMatchesReference(Geometry(batch, 4, 8, 8, 12, 3, 3, 1, 1, 1, 4), seed++);
    ExpectConvMatchesReference(Geometry(batch, 5, 1, 1, 5, 3, 3, 1, 1, 1, 5), seed++);
    ExpectConvMatchesReference(Geometry(batch, 2, 40, 36, 2, 33, 33, 1, 16, 1, 2), seed++);
  }
}

TEST(ConvCodesKernel, DepthwiseSaturatesAndRoundsAsTheReference) {
  // Biases at the ends of the int32 range (the accumulator saturates) and
  // multipliers that round everything to 0, saturate, or round many ties.
  auto extreme = [](int out, std::mt19937& rng, bool use_double) {
    ChannelQuantization q;
    q.output_zero = std::uniform_int_distribution<int>(0, 255)(rng);
    const int32_t biases[] = {INT32_MAX - 1000, INT32_MIN + 1000, 0, -7, 123456};
    const double reals[] = {0.0, 1e-12, 0.5, 1.0 / 1024, 3e9, 0.25, 1e-5};
    for (int o = 0; o < out; ++o) {
      q.weight_zero.push_back(std::uniform_int_distribution<int>(0, 255)(rng));
      q.bias.push_back(biases[o % 5]);
      q.requantizer.push_back(MakeRequantizer(reals[o % 7], use_double));
    }
    return q;
  };
  ExpectPathsMatchReference(Geometry(2, 35, 9, 9, 35, 3, 3, 1, 1, 1, 35), 400, extreme);
  ExpectPathsMatchReference(Geometry(1, 35, 9, 8, 35, 3, 3, 2, 1, 1, 35), 401, extreme);
}

TEST(ConvCodesKernel, DepthwiseDotProductsTakeEveryWeight) {
  // The VNNI loop splits each centred weight w - zw into two int8 halves,
  // which covers [-256, 254]: channels with the extremes -255 and 254, one
  // with 255 (the other loops), on full-range codes, strides 1 and 2, 3x3
  // and 5x5, batch 1 and 8.
  for (int batch : {1, 8}) {
    for (int stride : {1, 2}) {
      for (int kernel : {3, 5}) {
        const ConvGeometry g =
            Geometry(batch, 6, 23, 21, 6, kernel, kernel, stride, kernel / 2, 1, 6);
        std::mt19937 rng(500 + batch + stride + kernel);
        const int64_t taps = g.KernelArea();
        const std::vector<uint8_t> x = Codes(size_t(g.batch) * g.in_c * g.InPlane(), rng);
        std::vector<uint8_t> w = Codes(size_t(g.out_c) * taps, rng);
        ChannelQuantization q = Channels(g.out_c, rng, false);
        const int zeros[] = {255, 0, 0, 3, 128, 77};
        for (int o = 0; o < g.out_c; ++o) {
          q.weight_zero[o] = zeros[o];
          for (int64_t t = 0; t < taps; ++t) {
            uint8_t& code = w[o * taps + t];
            if (o == 0) code = t % 2 ? 0 : 1;      // -255 and -254
            if (o == 1) code = t % 3 ? 254 : 255;  // 254, and 255 (the other loops)
            if (o == 2) code = t % 2 ? 254 : 0;    // 254 and 0
          }
        }
        const int32_t x_zero = 201;
        std::vector<uint8_t> want(size_t(g.batch) * g.out_c * g.OutPlane());
        ReferenceConvolutionU8(g, x.data(), x_zero, w.data(), q, want.data());
        for (ConvPath path : {ConvPath::kIntegerDepthwise, ConvPath::kIntegerDepthwisePortable}) {
          ConvCodesKernel k;
          ASSERT_TRUE(k.ReshapeFor(g, path));
          CodeWeights weights;
          weights.codes = w.data();
          std::vector<uint8_t> got(want.size(), 0);
          k.Run(x.data(), x_zero, weights, q, got.data());
          EXPECT_EQ(got, want) << g.ToString() << ", " << ConvPathName(path);
        }
      }
    }
  }
}

// Sums beyond 2^24 that a float32 cannot hold (about 4 * 10^7):
// every input code 255 (channel 0: 254) on zero point 0, every weight code
// 255 on zero point 0, no padding. Output channel 0's bias puts bias + sum
// exactly on a rounding tie of the multiplier 2^-20, channel 1's one below
// it, so a sum off by any amount in either direction changes a code.
ChannelQuantization TieChannels(int64_t sum, bool use_double) {
  ChannelQuantization q;
  q.output_zero = 0;
  const int64_t tie = int64_t(2 * 100 + 1) << 19;  // 100.5 * 2^20
  for (int o = 0; o < 2; ++o) {
    q.weight_zero.push_back(0);
    q.bias.push_back(static_cast<int32_t>(tie - o - sum));
    q.requantizer.push_back(MakeRequantizer(1.0 / (1 << 20), use_double));
  }
  return q;
}

TEST(ConvCodesKernel, SumsBeyondFloatPrecisionStayExact) {
  for (ConvGeometry g :
       {Geometry(1, 600, 3, 4, 2, 1, 1, 1, 0, 1, 1), Geometry(2, 66, 5, 6, 2, 3, 3, 1, 0, 1, 1),
        Geometry(1, 520, 5, 5, 2, 3, 3, 2, 0, 1, 1)}) {
    g.pad_bottom = 0;  // no padding taps: every position has the same sum
    g.out_h = g.ConvOutH();
    std::vector<uint8_t> x(size_t(g.batch) * g.in_c * g.InPlane(), 255);
    for (int n = 0; n < g.batch; ++n)
      std::fill_n(x.begin() + int64_t(n) * g.in_c * g.InPlane(), g.InPlane(), 254);
    const int64_t k = int64_t(g.in_c) * g.KernelArea();
    const std::vector<uint8_t> w(size_t(g.out_c) * k, 255);
    const int64_t sum = 255 * (254 * g.KernelArea() + 255 * (k - g.KernelArea()));
    ASSERT_GT(sum, int64_t{1} << 25);
    ASSERT_NE(static_cast<int64_t>(static_cast<float>(sum)), sum);
    for (bool use_double : {false, true}) {
      const ChannelQuantization q = TieChannels(sum, use_double);
      std::vector<uint8_t> want(size_t(g.batch) * g.out_c * g.OutPlane());
      ReferenceConvolutionU8(g, x.data(), 0, w.data(), q, want.data());
      ASSERT_EQ(want.front(), 101);
      ASSERT_EQ(want.back(), 100);
      std::vector<float> centred(size_t(g.out_c) * k);
      std::vector<int32_t> sums(g.out_c);
      auto at = [k](int o, int64_t i) { return o * k + i; };
      CentreWeights(g.out_c, k, w.data(), q.weight_zero, at, centred.data());
      SumCodeRows(g.out_c, k, w.data(), at, sums.data());
      const std::vector<int32_t> pairs = PairsOf(g, w, q);
      const std::vector<int32_t> quads = QuadsOf(g, w);
      CodeWeights weights;
      weights.centred = centred.data();
      weights.codes = w.data();
      weights.code_sum = sums.data();
      weights.pairs = pairs.data();
      weights.quads = quads.data();
      for (ConvPath path : kAllPaths) {
        ConvCodesKernel kernel;
        if (!kernel.ReshapeFor(g, path)) continue;
        std::vector<uint8_t> got(want.size(), 0);
        kernel.Run(x.data(), 0, weights, q, got.data());
        EXPECT_EQ(got, want) << g.ToString() << ", " << ConvPathName(path);
      }
    }
  }
}

TEST(InnerProductCodesKernel, SumsBeyondFloatPrecisionStayExact) {
  const int batch = 3, k_dim = 600, out = 2;
  std::vector<uint8_t> x(size_t(batch) * k_dim, 255);
  for (int n = 0; n < batch; ++n) x[size_t(n) * k_dim] = 254;
  const std::vector<uint8_t> w(size_t(out) * k_dim, 255);
  const int64_t sum = 255 * (254 + 255 * (k_dim - 1));
  for (bool use_double : {false, true}) {
    const ChannelQuantization q = TieChannels(sum, use_double);
    std::vector<uint8_t> want(size_t(batch) * out);
    ReferenceInnerProductU8(batch, k_dim, out, false, x.data(), 0, w.data(), q, want.data());
    ASSERT_EQ(want[0], 101);
    ASSERT_EQ(want[1], 100);
    std::vector<float> centred(size_t(out) * k_dim);
    std::vector<int8_t> shifted(size_t(out) * k_dim);
    std::vector<int32_t> sums(out);
    auto at = [&](int o, int64_t k) { return int64_t(o) * k_dim + k; };
    CentreWeights(out, k_dim, w.data(), q.weight_zero, at, centred.data());
    ShiftWeights(out, k_dim, w.data(), at, shifted.data(), sums.data());
    for (bool allow_shifted : {false, true}) {
      InnerProductCodesKernel kernel;
      kernel.Reshape(batch, k_dim, out, allow_shifted);
      if (allow_shifted && !kernel.Shifted()) continue;
      CodeWeights weights;
      weights.centred = centred.data();
      weights.shifted = shifted.data();
      weights.shifted_sum = sums.data();
      std::vector<uint8_t> got(want.size(), 0);
      kernel.Run(x.data(), 0, weights, q, got.data());
      EXPECT_EQ(got, want) << (kernel.Shifted() ? "u8 x s8 GEMM" : "float GEMM");
    }
  }
}

TEST(InnerProductCodesKernel, MatchesTheReference) {
  std::mt19937 rng(7);
  for (int batch : {1, 8}) {
    for (auto [k_dim, out] : {std::pair{512, 1000}, std::pair{1000, 10}, std::pair{3, 70}}) {
      for (bool transpose : {false, true}) {
        const std::vector<uint8_t> x = Codes(size_t(batch) * k_dim, rng);
        const std::vector<uint8_t> w = Codes(size_t(out) * k_dim, rng);
        const int32_t x_zero = std::uniform_int_distribution<int>(0, 255)(rng);
        for (bool use_double : {false, true}) {
          const ChannelQuantization q = Channels(out, rng, use_double);
          std::vector<uint8_t> want(size_t(batch) * out), got(want.size(), 0);
          ReferenceInnerProductU8(batch, k_dim, out, transpose, x.data(), x_zero, w.data(), q,
                                  want.data());
          std::vector<float> centred(size_t(out) * k_dim);
          std::vector<int8_t> shifted(size_t(out) * k_dim);
          std::vector<int32_t> sums(out);
          auto at = [&](int o, int64_t k) {
            return transpose ? k * out + o : int64_t(o) * k_dim + k;
          };
          CentreWeights(out, k_dim, w.data(), q.weight_zero, at, centred.data());
          ShiftWeights(out, k_dim, w.data(), at, shifted.data(), sums.data());
          for (bool allow_shifted : {false, true}) {
            InnerProductCodesKernel kernel;
            kernel.Reshape(batch, k_dim, out, allow_shifted);
            if (allow_shifted && !kernel.Shifted()) continue;
            std::fill(got.begin(), got.end(), 0);
            CodeWeights weights;
            weights.centred = centred.data();
            weights.shifted = shifted.data();
            weights.shifted_sum = sums.data();
            kernel.Run(x.data(), x_zero, weights, q, got.data());
            EXPECT_EQ(got, want) << batch << " x " << k_dim << " -> " << out
                                 << (transpose ? " transposed" : "")
                                 << (use_double ? " double" : "")
                                 << (kernel.Shifted() ? ", u8 x s8 GEMM" : ", float GEMM");
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace qzdl
