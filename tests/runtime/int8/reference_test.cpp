// The integer reference kernels against the float kernels on dequantized
// codes: the 8-bit output differs from "float convolution of the dequantized
// input and weights plus the dequantized bias, then quantized to the output
// grid" by at most one code, on shapes with groups, strides, dilation, pads
// and several batches.
#include "runtime/int8/reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "runtime/int8/grid.h"
#include "runtime/kernels/conv_reference.h"

namespace qzdl {
namespace {

struct Grid {
  float scale = 1;
  int zero = 0;
  explicit Grid(float lo, float hi) { GridOfRangeWithZero(lo, hi, 255.0f, scale, zero); }
  uint8_t Code(float v) const {
    const float q = std::floor(v / scale + zero + 0.5f);
    return static_cast<uint8_t>(std::min(255.0f, std::max(0.0f, q)));
  }
  float Real(uint8_t c) const { return (static_cast<int>(c) - zero) * scale; }
};

// Quantized weights per output channel, each channel on its own range.
struct Weights {
  std::vector<uint8_t> codes;
  std::vector<float> real;  // the codes dequantized
  std::vector<Grid> grids;
};
Weights QuantizeWeights(const std::vector<float>& w, int out) {
  Weights q;
  const size_t per = w.size() / out;
  for (int o = 0; o < out; ++o) {
    const auto first = w.begin() + o * per, last = first + per;
    q.grids.emplace_back(*std::min_element(first, last), *std::max_element(first, last));
    for (size_t k = 0; k < per; ++k) {
      q.codes.push_back(q.grids[o].Code(w[o * per + k]));
      q.real.push_back(q.grids[o].Real(q.codes.back()));
    }
  }
  return q;
}

ChannelQuantization Channels(const Weights& w, const Grid& x, const Grid& y,
                             const std::vector<float>& bias, std::vector<float>* real_bias,
                             bool use_double) {
  ChannelQuantization q;
  q.output_zero = y.zero;
  for (size_t o = 0; o < w.grids.size(); ++o) {
    q.weight_zero.push_back(w.grids[o].zero);
    q.bias.push_back(QuantizeBias(bias[o], x.scale, w.grids[o].scale));
    real_bias->push_back(static_cast<float>(q.bias.back() * double(x.scale) * w.grids[o].scale));
    q.requantizer.push_back(
        MakeRequantizer(double(x.scale) * w.grids[o].scale / y.scale, use_double));
  }
  return q;
}

std::vector<float> Random(size_t n, std::mt19937& rng, float lo, float hi) {
  std::uniform_real_distribution<float> d(lo, hi);
  std::vector<float> v(n);
  for (float& f : v) f = d(rng);
  return v;
}

ConvGeometry Geometry(int n, int c, int h, int w, int m, int k, int s, int p, int d, int group) {
  ConvGeometry g;
  g.batch = n, g.in_c = c, g.in_h = h, g.in_w = w, g.out_c = m;
  g.kernel_h = g.kernel_w = k, g.stride_h = g.stride_w = s;
  g.pad_top = g.pad_left = p, g.pad_bottom = g.pad_right = p + (s > 1 ? 1 : 0);
  g.dilation_h = g.dilation_w = d, g.group = group;
  g.out_h = g.ConvOutH(), g.out_w = g.ConvOutW();
  return g;
}

TEST(ReferenceU8, ConvolutionWithinOneCodeOfFloat) {
  std::mt19937 rng(1);
  const std::vector<ConvGeometry> shapes = {
      Geometry(1, 3, 9, 7, 8, 3, 1, 1, 1, 1),   Geometry(8, 16, 6, 6, 16, 3, 2, 1, 1, 1),
      Geometry(2, 8, 7, 9, 8, 3, 1, 2, 2, 8),   Geometry(1, 12, 5, 5, 6, 1, 1, 0, 1, 3),
      Geometry(3, 6, 11, 10, 4, 5, 2, 2, 1, 2), Geometry(8, 4, 4, 4, 5, 2, 1, 0, 1, 1)};
  for (bool use_double : {false, true}) {
    for (const ConvGeometry& g : shapes) {
      SCOPED_TRACE(g.ToString() + (use_double ? " double" : " fixed point"));
      const std::vector<float> xf = Random(g.batch * g.in_c * g.InPlane(), rng, -1.0f, 3.0f);
      const std::vector<float> wf =
          Random(size_t(g.out_c) * g.InPerGroup() * g.KernelArea(), rng, -0.5f, 0.4f);
      const std::vector<float> bf = Random(g.out_c, rng, -0.3f, 0.3f);
      const Grid x(-1.0f, 3.0f);
      std::vector<uint8_t> xq;
      std::vector<float> xr;
      for (float v : xf) xq.push_back(x.Code(v)), xr.push_back(x.Real(xq.back()));
      const Weights w = QuantizeWeights(wf, g.out_c);

      // The float result on dequantized values sets the output grid.
      std::vector<float> probe(g.batch * g.out_c * g.OutPlane());
      ReferenceConvolution(g, xr.data(), w.real.data(), bf.data(), probe.data());
      const Grid y(*std::min_element(probe.begin(), probe.end()),
                   *std::max_element(probe.begin(), probe.end()));
      std::vector<float> br;
      const ChannelQuantization q = Channels(w, x, y, bf, &br, use_double);
      std::vector<float> want(probe.size());
      ReferenceConvolution(g, xr.data(), w.real.data(), br.data(), want.data());

      std::vector<uint8_t> got(probe.size());
      ReferenceConvolutionU8(g, xq.data(), x.zero, w.codes.data(), q, got.data());
      int worst = 0;
      for (size_t i = 0; i < got.size(); ++i) {
        worst = std::max(worst, std::abs(int(got[i]) - int(y.Code(want[i]))));
      }
      EXPECT_LE(worst, 1);
    }
  }
}

TEST(ReferenceU8, InnerProductWithinOneCodeOfFloat) {
  std::mt19937 rng(2);
  for (bool transpose : {false, true}) {
    const int batch = 8, k = 37, out = 11;
    const std::vector<float> xf = Random(batch * k, rng, -2.0f, 2.0f);
    const std::vector<float> wf = Random(k * out, rng, -0.3f, 0.3f);
    const std::vector<float> bf = Random(out, rng, -1.0f, 1.0f);
    const Grid x(-2.0f, 2.0f);
    std::vector<uint8_t> xq;
    std::vector<float> xr;
    for (float v : xf) xq.push_back(x.Code(v)), xr.push_back(x.Real(xq.back()));
    // Channels are rows of W(o, k); for the transposed layout gather them.
    std::vector<float> rows(wf.size());
    for (int o = 0; o < out; ++o)
      for (int i = 0; i < k; ++i) rows[o * k + i] = transpose ? wf[i * out + o] : wf[o * k + i];
    Weights w = QuantizeWeights(rows, out);
    std::vector<uint8_t> codes(wf.size());
    std::vector<float> real(wf.size());
    for (int o = 0; o < out; ++o) {
      for (int i = 0; i < k; ++i) {
        const size_t at = transpose ? size_t(i) * out + o : size_t(o) * k + i;
        codes[at] = w.codes[o * k + i];
        real[at] = w.real[o * k + i];
      }
    }
    std::vector<float> probe(batch * out);
    ReferenceInnerProduct(batch, k, out, transpose, xr.data(), real.data(), bf.data(),
                          probe.data());
    const Grid y(*std::min_element(probe.begin(), probe.end()),
                 *std::max_element(probe.begin(), probe.end()));
    std::vector<float> br;
    const ChannelQuantization q = Channels(w, x, y, bf, &br, false);
    std::vector<float> want(probe.size());
    ReferenceInnerProduct(batch, k, out, transpose, xr.data(), real.data(), br.data(),
                          want.data());
    std::vector<uint8_t> got(probe.size());
    ReferenceInnerProductU8(batch, k, out, transpose, xq.data(), x.zero, codes.data(), q,
                            got.data());
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_LE(std::abs(int(got[i]) - int(y.Code(want[i]))), 1) << i;
    }
  }
}

TEST(ReferenceU8, PaddingIsRealZero) {
  // A 3x3 box of weight 1 over a constant input equal to its zero point,
  // padded: every output is the bias alone.
  const ConvGeometry g = Geometry(1, 1, 3, 3, 1, 3, 1, 1, 1, 1);
  const std::vector<uint8_t> x(9, 100), w(9, 201);
  ChannelQuantization q;
  q.weight_zero = {200};
  q.bias = {40};
  q.requantizer = {MakeRequantizer(0.25, false)};
  q.output_zero = 7;
  std::vector<uint8_t> y(9);
  ReferenceConvolutionU8(g, x.data(), 100, w.data(), q, y.data());
  EXPECT_EQ(y, std::vector<uint8_t>(9, 17));
}

TEST(ReferenceU8, AccumulatorSaturatesAtInt32) {
  // 40000 products of 255 * 255 pass 2^31: the sum saturates, so the code
  // is 255 rather than a wrapped negative value.
  const int k = 40000;
  const std::vector<uint8_t> x(k, 255), w(k, 255);
  ChannelQuantization q;
  q.weight_zero = {0};
  q.bias = {0};
  q.requantizer = {MakeRequantizer(1e-7, false)};
  q.output_zero = 0;
  uint8_t y = 0;
  ReferenceInnerProductU8(1, k, 1, false, x.data(), 0, w.data(), q, &y);
  EXPECT_EQ(y, 215);  // round(2147483647 * 1e-7) = 215
}

TEST(ReferenceU8, EltwiseSumWithinOneCodeOfFloat) {
  std::mt19937 rng(4);
  const Grid a(-1.0f, 2.0f), b(-0.2f, 5.0f), c(0.0f, 1.0f);
  const std::vector<float> coeff = {0.5f, -2.0f, 1.25f};
  const int64_t n = 5000;
  const std::vector<float> af = Random(n, rng, -1.0f, 2.0f), bf = Random(n, rng, -0.2f, 5.0f),
                           cf = Random(n, rng, 0.0f, 1.0f);
  std::vector<uint8_t> aq(n), bq(n), cq(n);
  std::vector<float> want(n);
  for (int64_t i = 0; i < n; ++i) {
    aq[i] = a.Code(af[i]), bq[i] = b.Code(bf[i]), cq[i] = c.Code(cf[i]);
    want[i] = coeff[0] * a.Real(aq[i]) + coeff[1] * b.Real(bq[i]) + coeff[2] * c.Real(cq[i]);
  }
  const Grid y(*std::min_element(want.begin(), want.end()),
               *std::max_element(want.begin(), want.end()));
  const SumQuantization q =
      MakeSumQuantization({{a.scale, a.zero}, {b.scale, b.zero}, {c.scale, c.zero}}, coeff,
                          {y.scale, y.zero});
  std::vector<uint8_t> got(n);
  ReferenceEltwiseSumU8({aq.data(), bq.data(), cq.data()},
                        {{a.scale, a.zero}, {b.scale, b.zero}, {c.scale, c.zero}}, q, n,
                        got.data());
  for (int64_t i = 0; i < n; ++i) {
    ASSERT_LE(std::abs(int(got[i]) - int(y.Code(want[i]))), 1) << i;
  }
}

TEST(ReferenceU8, EltwiseSumOfEqualGridsIsExact) {
  // Two inputs on the output's own grid: codes add exactly around the zero point.
  const SumQuantization q = MakeSumQuantization({{0.1f, 100}, {0.1f, 100}}, {}, {0.1f, 100});
  const uint8_t a[3] = {100, 120, 250}, b[3] = {100, 90, 250};
  uint8_t y[3];
  ReferenceEltwiseSumU8({a, b}, {{0.1f, 100}, {0.1f, 100}}, q, 3, y);
  EXPECT_EQ(y[0], 100);
  EXPECT_EQ(y[1], 110);
  EXPECT_EQ(y[2], 255);
}

TEST(ReferenceU8, BiasQuantization) {
  EXPECT_EQ(QuantizeBias(0.5f, 0.5f, 0.25f), 4);
  EXPECT_EQ(QuantizeBias(-0.3125f, 0.5f, 0.25f), -3);  // -2.5: away from zero
  EXPECT_EQ(QuantizeBias(1e30f, 1e-10f, 1e-10f), INT32_MAX);
  EXPECT_EQ(QuantizeBias(-1e30f, 1e-10f, 1e-10f), INT32_MIN);
  EXPECT_EQ(QuantizeBias(1.0f, 0.0f, 0.5f), 0);
}

}  // namespace
}  // namespace qzdl
