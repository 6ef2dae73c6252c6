// The direct 1x1 and depthwise kernels read and write 16-channel blocks: in
// every combination of layouts they give the bits of their NCHW run,
// permuted, for any thread count, and nets hand tensors between them.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/kernels/conv_kernels.h"
#include "runtime/kernels/conv_reference.h"
#include "runtime/layers/convolution.h"
#include "runtime/net.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl {
namespace {

ConvGeometry Geo(int batch, int c, int h, int w, int m, int k, int stride, int pad, int group,
                 int dilation = 1) {
  ConvGeometry g;
  g.batch = batch, g.in_c = c, g.in_h = h, g.in_w = w, g.out_c = m;
  g.kernel_h = g.kernel_w = k;
  g.stride_h = g.stride_w = stride;
  g.pad_top = g.pad_bottom = g.pad_left = g.pad_right = pad;
  g.dilation_h = g.dilation_w = dilation;
  g.group = group;
  g.out_h = g.ConvOutH(), g.out_w = g.ConvOutW();
  return g;
}

// [N][C][P] to [N][C / 16][P][16] (`to_blocked`) or back.
std::vector<float> Reblock(const std::vector<float>& v, int n, int c, int64_t plane,
                           bool to_blocked) {
  std::vector<float> out(v.size());
  for (int i = 0; i < n; ++i)
    for (int ch = 0; ch < c; ++ch)
      for (int64_t p = 0; p < plane; ++p) {
        const int64_t nchw = (int64_t(i) * c + ch) * plane + p;
        const int64_t blocked = (int64_t(i) * c + ch / 16 * 16) * plane + p * 16 + ch % 16;
        if (to_blocked)
          out[blocked] = v[nchw];
        else
          out[nchw] = v[blocked];
      }
  return out;
}
std::vector<float> ToBlocked(const std::vector<float>& v, int n, int c, int64_t plane) {
  return Reblock(v, n, c, plane, true);
}
std::vector<float> FromBlocked(const std::vector<float>& v, int n, int c, int64_t plane) {
  return Reblock(v, n, c, plane, false);
}

struct Setup {
  std::vector<float> x, w, b;
};

Setup Data(const ConvGeometry& g, uint32_t seed, bool bias) {
  Setup s;
  s.x = test::RandomVector(size_t(g.batch) * g.in_c * g.InPlane(), seed, -2.0f, 2.0f);
  s.w = test::RandomVector(size_t(g.out_c) * g.InPerGroup() * g.KernelArea(), seed + 1);
  if (bias) s.b = test::RandomVector(g.out_c, seed + 2);
  return s;
}

// Runs algorithm `algo` on g with the given layouts and returns y in NCHW.
std::vector<float> Run(const ConvGeometry& g, const Setup& s, ConvAlgorithm algo, bool src,
                       bool dst, const Epilogue& e, int threads = 2) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  ConvKernel k;
  EXPECT_TRUE(k.Configure(g, !s.b.empty(), algo));
  EXPECT_EQ(k.algorithm(), algo);
  k.SetBlocked(src, dst);
  const std::vector<float> x = src ? ToBlocked(s.x, g.batch, g.in_c, g.InPlane()) : s.x;
  std::vector<float> y(size_t(g.batch) * g.out_c * g.OutPlane(), NAN);
  // Twice: the second run reuses the packed weights.
  for (bool same : {false, true})
    k.Run(x.data(), s.w.data(), s.b.empty() ? nullptr : s.b.data(), y.data(), e, same);
  omp_set_num_threads(saved);
  return dst ? FromBlocked(y, g.batch, g.out_c, g.OutPlane()) : y;
}

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Every layout the kernel offers for g, against the NCHW run and the
// reference; returns the number of blocked combinations checked. Output
// layouts never change the bits; input layouts do not for the 1x1 kernel
// (`exact_inputs`), while the depthwise kernel on blocks may round where
// its NCHW loops do not fuse a multiply-add, so there the two input
// layouts agree within the tolerance.
int CheckLayouts(const ConvGeometry& g, ConvAlgorithm algo, int want_src, int want_dst,
                 bool exact_inputs) {
  SCOPED_TRACE(g.ToString());
  ConvKernel probe;
  EXPECT_TRUE(probe.Configure(g, true, algo));
  EXPECT_EQ(probe.SrcBlock(), want_src);
  EXPECT_EQ(probe.DstBlock(), want_dst);
  const Setup s = Data(g, 11 + g.in_c + g.out_w, g.in_h % 2 == 1);
  std::vector<float> want(size_t(g.batch) * g.out_c * g.OutPlane());
  ReferenceConvolution(g, s.x.data(), s.w.data(), s.b.empty() ? nullptr : s.b.data(), want.data());
  const double atol = std::max(1e-6, 4e-7 * g.InPerGroup() * g.KernelArea());
  // An activation as a fused ReLU6 runs it, and a per-channel affine (only
  // into NCHW).
  const Epilogue relu6{Epilogue::Kind::kClip, 6.0f};
  std::vector<float> shift(g.out_c, 0.25f), mult(g.out_c), add(g.out_c, -0.5f);
  for (int o = 0; o < g.out_c; ++o) mult[o] = 0.5f + 0.125f * (o % 5);
  const Epilogue affine{Epilogue::Kind::kRelu, 0.125f, shift.data(), mult.data(), add.data()};
  const std::vector<float> nchw = Run(g, s, algo, false, false, {});
  int checked = 0;
  for (bool src : {false, true}) {
    if (src && want_src == 0) continue;
    SCOPED_TRACE(src ? "blocked input" : "NCHW input");
    const std::vector<float> base = Run(g, s, algo, src, false, {});
    EXPECT_LE(test::ToleranceRatio(base, want, atol, 0.0), 1.0);
    if (exact_inputs) {
      EXPECT_TRUE(SameBits(base, nchw));
    } else {
      EXPECT_LE(test::ToleranceRatio(base, nchw, atol, 0.0), 1.0);
    }
    const std::vector<float> base_relu6 = Run(g, s, algo, src, false, relu6);
    const std::vector<float> base_affine = Run(g, s, algo, src, false, affine);
    // A fused activation gives the bits of the activation layer after the
    // convolution (the 1x1 kernel applies ReLU and ReLUX in registers).
    const Epilogue leaky{Epilogue::Kind::kRelu, 0.1f};
    for (const Epilogue& act : {relu6, leaky}) {
      std::vector<float> after = base;
      MapActivation(act, after.data(), after.data(), static_cast<int64_t>(after.size()));
      EXPECT_TRUE(SameBits(Run(g, s, algo, src, false, act), after));
      if (want_dst != 0) {
        EXPECT_TRUE(SameBits(Run(g, s, algo, src, true, act), after));
      }
    }
    for (int threads : {1, 3})
      EXPECT_TRUE(SameBits(Run(g, s, algo, src, false, relu6, threads), base_relu6)) << threads;
    if (src) ++checked;
    if (want_dst == 0) continue;
    SCOPED_TRACE("blocked output");
    ++checked;
    EXPECT_TRUE(SameBits(Run(g, s, algo, src, true, {}), base));
    EXPECT_TRUE(SameBits(Run(g, s, algo, src, true, relu6), base_relu6));
    for (int threads : {1, 3})
      EXPECT_TRUE(SameBits(Run(g, s, algo, src, true, relu6, threads), base_relu6)) << threads;
    // The affine only reaches NCHW outputs (Layer::OutputBlock).
    EXPECT_TRUE(SameBits(Run(g, s, algo, src, false, affine), base_affine));
  }
  return checked;
}

TEST(ConvBlocked, PointwiseGivesTheNchwBitsInEveryLayout) {
  int checked = 0;
  // Planes below and above the size where NCHW runs on vectors of pixels,
  // partial tiles, output channels beyond whole blocks, few or no blocks.
  checked +=
      CheckLayouts(Geo(1, 16, 7, 7, 32, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 16, 16, true);
  checked +=
      CheckLayouts(Geo(2, 32, 10, 11, 16, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 16, 16, true);
  checked += CheckLayouts(Geo(1, 48, 1, 1, 40, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 16, 0, true);
  checked +=
      CheckLayouts(Geo(1, 24, 12, 12, 48, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 0, 16, true);
  checked +=
      CheckLayouts(Geo(2, 16, 13, 9, 24, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 16, 0, true);
  checked +=
      CheckLayouts(Geo(1, 64, 3, 5, 160, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 16, 16, true);
  checked +=
      CheckLayouts(Geo(1, 32, 11, 11, 64, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 16, 16, true);
  checked +=
      CheckLayouts(Geo(1, 16, 20, 21, 20, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 16, 0, true);
  checked += CheckLayouts(Geo(3, 17, 9, 10, 33, 1, 1, 0, 1), ConvAlgorithm::kPointwise, 0, 0, true);
  EXPECT_EQ(checked, 3 + 3 + 1 + 1 + 1 + 3 + 3 + 1 + 0);
}

TEST(ConvBlocked, DirectStemGivesTheSameBitsInBothOutputLayouts) {
  int checked = 0;
  const ConvAlgorithm direct = ConvAlgorithm::kDirect;
  checked += CheckLayouts(Geo(1, 3, 23, 21, 32, 3, 2, 1, 1), direct, 0, 16, true);
  checked += CheckLayouts(Geo(2, 4, 9, 10, 16, 3, 1, 1, 1), direct, 0, 16, true);
  checked += CheckLayouts(Geo(1, 3, 8, 8, 48, 5, 2, 2, 1), direct, 0, 16, true);
  checked += CheckLayouts(Geo(1, 1, 7, 6, 16, 3, 1, 0, 1, 2), direct, 0, 16, true);
  checked += CheckLayouts(Geo(1, 2, 40, 37, 16, 7, 2, 3, 1), direct, 0, 16, true);
  EXPECT_EQ(checked, 5);
  // Outputs beyond whole blocks: NCHW only.
  EXPECT_EQ(CheckLayouts(Geo(1, 3, 9, 9, 20, 3, 1, 1, 1), direct, 0, 0, true), 0);
}

TEST(ConvBlocked, DepthwiseInEveryLayoutWithinTheTolerance) {
  int checked = 0;
  const ConvAlgorithm dw = ConvAlgorithm::kDepthwise;
  checked += CheckLayouts(Geo(1, 16, 7, 7, 16, 3, 1, 1, 16), dw, 16, 16, false);
  checked += CheckLayouts(Geo(2, 32, 9, 8, 32, 3, 2, 1, 32), dw, 16, 16, false);
  // Narrower than four pixels: no interior run; wide: interior and edges.
  checked += CheckLayouts(Geo(1, 16, 5, 3, 16, 5, 1, 2, 16), dw, 16, 16, false);
  checked += CheckLayouts(Geo(1, 48, 6, 23, 48, 7, 1, 3, 48), dw, 16, 16, false);
  checked += CheckLayouts(Geo(1, 16, 12, 13, 16, 3, 1, 2, 16, 2), dw, 16, 16, false);
  checked += CheckLayouts(Geo(2, 16, 1, 1, 16, 3, 1, 1, 16), dw, 16, 16, false);
  // Padding on one side only (stride 2, even input).
  ConvGeometry g = Geo(1, 32, 14, 14, 32, 3, 2, 0, 32);
  g.pad_bottom = g.pad_right = 1;
  g.out_h = g.ConvOutH(), g.out_w = g.ConvOutW();
  checked += CheckLayouts(g, dw, 16, 16, false);
  EXPECT_EQ(checked, 7 * 3);
  // Not in whole blocks, or two outputs per input channel: NCHW only.
  EXPECT_EQ(CheckLayouts(Geo(1, 24, 6, 6, 24, 3, 1, 1, 24), dw, 0, 0, false), 0);
  EXPECT_EQ(CheckLayouts(Geo(1, 16, 6, 6, 32, 3, 1, 1, 16), dw, 0, 0, false), 0);
}

// An inverted residual block: a convolution, a 1x1 expansion with ReLU, a
// 3x3 depthwise with ReLU, a 1x1 projection added to the block's input,
// and a 1x1 on the sum.
test::NetBuilder InvertedResidual(int batch) {
  test::NetBuilder b;
  b.Input("data", {batch, 8, 14, 13});
  b.Conv("a", "data", "a_out", 8, 16, 3, 1);
  b.Conv("expand", "a_out", "e_out", 16, 64, 1, 3);
  b.Layer("relu_e", "ReLU", {"e_out"}, {"e_relu"});
  b.Conv("dw", "e_relu", "d_out", 64, 64, 3, 5, 64);
  b.Layer("relu_d", "ReLU", {"d_out"}, {"d_relu"});
  b.Conv("project", "d_relu", "p_out", 64, 16, 1, 7);
  b.Layer("sum", "Eltwise", {"a_out", "p_out"}, {"s"});
  b.Conv("head", "s", "h_out", 16, 24, 1, 9);
  b.Top("outputs", json11::Json::array{"h_out"});
  return b;
}

void ExpectClose(const std::vector<float>& got, const std::vector<float>& want) {
  EXPECT_LE(test::ToleranceRatio(got, want, 1e-5, 1e-5), 1.0);
}

TEST(ConvBlocked, NetsHandTensorsBetweenTheDirectKernels) {
  for (int batch : {1, 2}) {
    SCOPED_TRACE("batch " + std::to_string(batch));
    auto plain = InvertedResidual(batch).Build();
    const auto want = test::RunOutputs(plain.get());
    auto net = InvertedResidual(batch).Build();
    net->SetInferenceMode(true);
    auto* a = static_cast<ConvolutionLayer<float>*>(net->GetLayer("a"));
    // e_relu (expand to depthwise) and d_relu (depthwise to projection)
    // always; the sum's group (a_out, p_out, s) when the first convolution
    // writes the blocks too.
    const bool sum = a->kernel().DstBlock() == 16;
    EXPECT_EQ(net->BlockedHandoffs(), 2 + (sum ? 3 : 0));
    const auto got = test::RunOutputs(net.get());
    ASSERT_EQ(got.size(), 1u);
    ExpectClose(got[0], want[0]);
    // The depthwise output is held in blocks.
    const std::vector<float> d = test::TensorValues(net.get(), "d_relu");
    const std::vector<float> d_plain = test::TensorValues(plain.get(), "d_relu");
    EXPECT_GT(test::ToleranceRatio(d, d_plain, 1e-5, 1e-5), 1.0);
    ExpectClose(FromBlocked(d, batch, 64, 14 * 13), d_plain);
    // The expansion's output has the bits of the NCHW run, permuted.
    EXPECT_EQ(FromBlocked(test::TensorValues(net.get(), "e_relu"), batch, 64, 14 * 13),
              test::TensorValues(plain.get(), "e_relu"));
    net->SetInferenceMode(false);
    EXPECT_EQ(net->BlockedHandoffs(), 0);
    EXPECT_EQ(test::RunOutputs(net.get()), want);
  }
}

TEST(ConvBlocked, GlobalAveragePoolingReadsBlocksWithTheSameBits) {
  for (int batch : {1, 3}) {
    SCOPED_TRACE("batch " + std::to_string(batch));
    auto build = [&] {
      test::NetBuilder b;
      b.Input("data", {batch, 16, 9, 11});
      b.Conv("head", "data", "h_out", 16, 48, 1, 3);
      b.Layer("relu", "ReLU", {"h_out"}, {"h_relu"});
      b.Layer("pool", "Pooling", {"h_relu"}, {"p"},
              json11::Json::object{{"pool", "ave"}, {"global_pooling", true}});
      b.Top("outputs", json11::Json::array{"p"});
      return b.Build();
    };
    auto plain = build();
    const auto want = test::RunOutputs(plain.get());
    auto net = build();
    net->SetInferenceMode(true);
    EXPECT_EQ(net->BlockedHandoffs(), 1);
    EXPECT_EQ(test::RunOutputs(net.get()), want);
    EXPECT_EQ(FromBlocked(test::TensorValues(net.get(), "h_relu"), batch, 48, 9 * 11),
              test::TensorValues(plain.get(), "h_relu"));
  }
}

}  // namespace
}  // namespace qzdl
