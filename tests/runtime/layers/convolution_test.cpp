// Convolution and Deconvolution: against the ONNX node / PyTorch-converted
// test data and PyTorch fixtures, the fast kernels against the plain
// reference on many random shapes and thread counts, and the param, shape
// and weight checks with their exact messages.
#include "runtime/layers/convolution.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <map>
#include <random>

#include "runtime/kernels/conv_reference.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"
#include "weighted_layer_support.h"

namespace qzdl {
namespace {

using json11::Json;

// Against ONNX and PyTorch data: |got - want| <= kAtol + kRtol * |want|.
// The data are float32 results of sums of up to 144 products of values of
// magnitude <= 1 (up to 50 for the integer-valued node cases, exact there).
constexpr double kAtol = 1e-5, kRtol = 1e-5;
// Fast kernels against the double-precision reference, for a sum of K
// products of values in [-1, 1): 2e-7 * K absolute (a few float32 roundings
// per term), with a floor of 1e-6.
double KernelAtol(int k) { return std::max(1e-6, 2e-7 * k); }

using test::weighted::Blob;
using test::weighted::Fixture;
using test::weighted::OnnxData;

// Transposed-convolution weights as ONNX and PyTorch keep them, [C_in,
// C_out/group, kh, kw], in the layer's layout [C_out, C_in/group, kh, kw].
Blob DeconvWeightFromOnnx(const Blob& w, int group) {
  const int cin = w.dims[0], cout_g = w.dims[1], kh = w.dims[2], kw = w.dims[3];
  const int cin_g = cin / group, kk = kh * kw;
  Blob out{{cout_g * group, cin_g, kh, kw}, std::vector<float>(w.values.size())};
  for (int ci = 0; ci < cin; ++ci)
    for (int oc = 0; oc < cout_g; ++oc)
      for (int t = 0; t < kk; ++t) {
        const int o = (ci / cin_g) * cout_g + oc;
        out.values[(size_t(o) * cin_g + ci % cin_g) * kk + t] =
            w.values[(size_t(ci) * cout_g + oc) * kk + t];
      }
  return out;
}

test::NetBuilder OneLayer(const std::string& type, const Json::object& param,
                          const std::vector<int>& in_dims, const Blob* w, const Blob* b) {
  return test::weighted::OneLayer("conv1", type, param, in_dims, w, b);
}

Blob RunNet(const std::string& type, const Json::object& param, const Blob& x, const Blob& w,
            const Blob* b, bool frugal = false) {
  return test::weighted::RunOneLayer("conv1", type, param, x, w, b, frugal);
}

void ExpectClose(const Blob& got, const Blob& want, double atol = kAtol, double rtol = kRtol) {
  test::weighted::ExpectBlobsClose(got, want, atol, rtol);
}

using test::BuildError;

// ---------------------------------------------------------------------------
// ONNX test data

struct OnnxConvCase {
  std::string group, name;
  Json::object param;
};

TEST(ConvolutionOnnx, NodeCases) {
  // Pads [top, left, bottom, right]; SAME_LOWER at stride 2 on 5x5 with a
  // 3x3 kernel pads 1 on every side. These cases have no bias.
  const std::vector<OnnxConvCase> cases = {
      {"node", "test_basic_conv_with_padding", {{"kernel_size", 3}, {"pad", 1}}},
      {"node", "test_basic_conv_without_padding", {{"kernel_size", 3}}},
      {"node", "test_conv_with_strides_padding", {{"kernel_size", 3}, {"stride", 2}, {"pad", 1}}},
      {"node", "test_conv_with_strides_no_padding", {{"kernel_size", 3}, {"stride", 2}}},
      {"node",
       "test_conv_with_strides_and_asymmetric_padding",
       {{"kernel_size", 3}, {"stride", 2}, {"pad_top", 1}, {"pad_bottom", 1}}},
      {"node",
       "test_conv_with_autopad_same",
       {{"kernel_h", 3}, {"kernel_w", 3}, {"stride_h", 2}, {"stride_w", 2}, {"pad", 1}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Blob x = OnnxData(c.group, c.name, "input_0"), w = OnnxData(c.group, c.name, "input_1");
    Json::object param = c.param;
    param["num_output"] = w.dims[0];
    param["bias_term"] = false;
    ExpectClose(RunNet("Convolution", param, x, w, nullptr), OnnxData(c.group, c.name, "output_0"));
  }
}

TEST(ConvolutionOnnx, PytorchConvertedCases) {
  // Weights and biases come from the models' initializers (copied to the
  // fixtures by scripts/fixtures/make_conv_fixtures.py).
  const std::vector<OnnxConvCase> cases = {
      {"pytorch-converted", "test_Conv2d", {{"kernel_h", 3}, {"kernel_w", 2}}},
      {"pytorch-converted", "test_Conv2d_depthwise", {{"kernel_size", 3}, {"group", 4}}},
      {"pytorch-converted",
       "test_Conv2d_depthwise_padded",
       {{"kernel_size", 3}, {"group", 4}, {"pad", 1}}},
      {"pytorch-converted",
       "test_Conv2d_depthwise_strided",
       {{"kernel_size", 3}, {"group", 4}, {"stride", 2}}},
      {"pytorch-converted",
       "test_Conv2d_depthwise_with_multiplier",
       {{"kernel_size", 3}, {"group", 4}}},
      {"pytorch-converted",
       "test_Conv2d_dilated",
       {{"kernel_size", 3}, {"dilation", 2}, {"stride", 2}, {"pad", 1}}},
      {"pytorch-converted", "test_Conv2d_groups", {{"kernel_h", 3}, {"kernel_w", 2}, {"group", 2}}},
      {"pytorch-converted",
       "test_Conv2d_groups_thnn",
       {{"kernel_h", 3}, {"kernel_w", 2}, {"group", 2}}},
      {"pytorch-converted", "test_Conv2d_no_bias", {{"kernel_h", 3}, {"kernel_w", 2}}},
      {"pytorch-converted", "test_Conv2d_padding", {{"kernel_size", 3}, {"stride", 2}, {"pad", 1}}},
      {"pytorch-converted", "test_Conv2d_strided", {{"kernel_size", 3}, {"stride", 2}}},
      {"pytorch-operator", "test_operator_conv", {{"kernel_size", 3}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Blob x = OnnxData(c.group, c.name, "input_0"), w = Fixture(c.name + "/1");
    const bool has_bias = c.name != "test_Conv2d_no_bias" && c.name != "test_operator_conv";
    const Blob b = has_bias ? Fixture(c.name + "/2") : Blob{};
    Json::object param = c.param;
    param["num_output"] = w.dims[0];
    param["bias_term"] = has_bias;
    ExpectClose(RunNet("Convolution", param, x, w, has_bias ? &b : nullptr),
                OnnxData(c.group, c.name, "output_0"));
  }
}

TEST(DeconvolutionOnnx, NodeCases) {
  // output_shape [10, 8] at strides [3, 2] on 3x3 stands for an output pad
  // of 1 on both axes; SAME_UPPER at stride 2 pads 0 before and 1 after.
  const std::vector<OnnxConvCase> cases = {
      {"node", "test_convtranspose", {{"kernel_size", 3}}},
      {"node",
       "test_convtranspose_autopad_same",
       {{"kernel_size", 3}, {"stride", 2}, {"pad_bottom", 1}, {"pad_right", 1}}},
      {"node", "test_convtranspose_dilations", {{"kernel_size", 2}, {"dilation", 2}}},
      {"node", "test_convtranspose_group_2", {{"kernel_size", 3}, {"group", 2}}},
      {"node", "test_convtranspose_group_2_image_3", {{"kernel_size", 3}, {"group", 2}}},
      {"node",
       "test_convtranspose_kernel_shape",
       {{"kernel_size", 3}, {"stride_h", 3}, {"stride_w", 2}, {"output_pad", 1}}},
      {"node",
       "test_convtranspose_output_shape",
       {{"kernel_size", 3},
        {"stride_h", 3},
        {"stride_w", 2},
        {"output_pad_h", 1},
        {"output_pad_w", 1}}},
      {"node",
       "test_convtranspose_pad",
       {{"kernel_size", 3}, {"stride_h", 3}, {"stride_w", 2}, {"output_pad", 1}}},
      {"node",
       "test_convtranspose_pads",
       {{"kernel_size", 3}, {"stride_h", 3}, {"stride_w", 2}, {"pad_h", 1}, {"pad_w", 2}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Json::object param = c.param;
    const int group = param.count("group") ? param["group"].int_value() : 1;
    const Blob x = OnnxData(c.group, c.name, "input_0");
    const Blob w = DeconvWeightFromOnnx(OnnxData(c.group, c.name, "input_1"), group);
    param["num_output"] = w.dims[0];
    param["bias_term"] = false;
    ExpectClose(RunNet("Deconvolution", param, x, w, nullptr),
                OnnxData(c.group, c.name, "output_0"));
  }
}

TEST(DeconvolutionOnnx, PytorchConvertedCases) {
  const std::vector<OnnxConvCase> cases = {
      {"pytorch-converted",
       "test_ConvTranspose2d",
       {{"kernel_size", 3}, {"stride_h", 3}, {"stride_w", 2}, {"pad", 1}, {"output_pad", 1}}},
      {"pytorch-converted",
       "test_ConvTranspose2d_no_bias",
       {{"kernel_size", 3}, {"stride_h", 2}, {"stride_w", 3}, {"pad", 1}, {"output_pad", 1}}},
      {"pytorch-operator",
       "test_operator_convtranspose",
       {{"kernel_size", 3}, {"stride", 3}, {"pad", 1}, {"output_pad", 2}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Blob x = OnnxData(c.group, c.name, "input_0");
    const Blob w = DeconvWeightFromOnnx(Fixture(c.name + "/1"), 1);
    const bool has_bias = c.name == "test_ConvTranspose2d";
    const Blob b = has_bias ? Fixture(c.name + "/2") : Blob{};
    Json::object param = c.param;
    param["num_output"] = w.dims[0];
    param["bias_term"] = has_bias;
    ExpectClose(RunNet("Deconvolution", param, x, w, has_bias ? &b : nullptr),
                OnnxData(c.group, c.name, "output_0"));
  }
}

// ---------------------------------------------------------------------------
// PyTorch fixtures: combinations the ONNX data lacks

TEST(ConvolutionFixtures, AsymmetricPads) {
  const Blob b = Fixture("conv_asym_pads_b");
  ExpectClose(RunNet("Convolution",
                     {{"num_output", 4},
                      {"kernel_size", 3},
                      {"stride", 2},
                      {"pad_top", 1},
                      {"pad_bottom", 3},
                      {"pad_left", 2},
                      {"pad_right", 0}},
                     Fixture("conv_asym_pads_x"), Fixture("conv_asym_pads_w"), &b),
              Fixture("conv_asym_pads_y"));
}

TEST(ConvolutionFixtures, DilationWithGroups) {
  const Blob b = Fixture("conv_dilated_groups_b");
  ExpectClose(RunNet("Convolution",
                     {{"num_output", 9},
                      {"kernel_h", 3},
                      {"kernel_w", 2},
                      {"stride_h", 1},
                      {"stride_w", 2},
                      {"pad_h", 2},
                      {"pad_w", 1},
                      {"dilation_h", 2},
                      {"dilation_w", 3},
                      {"group", 3}},
                     Fixture("conv_dilated_groups_x"), Fixture("conv_dilated_groups_w"), &b),
              Fixture("conv_dilated_groups_y"));
}

TEST(ConvolutionFixtures, DepthwiseDilatedAsymmetric) {
  const Blob b = Fixture("conv_depthwise_dilated_b");
  ExpectClose(RunNet("Convolution",
                     {{"num_output", 8},
                      {"kernel_size", 3},
                      {"stride", 2},
                      {"dilation", 2},
                      {"group", 8},
                      {"pad_top", 0},
                      {"pad_bottom", 2},
                      {"pad_left", 1},
                      {"pad_right", 2}},
                     Fixture("conv_depthwise_dilated_x"), Fixture("conv_depthwise_dilated_w"), &b),
              Fixture("conv_depthwise_dilated_y"));
}

TEST(DeconvolutionFixtures, GroupsDilationOutputPad) {
  const Blob b = Fixture("deconv_groups_dilated_b");
  ExpectClose(RunNet("Deconvolution",
                     {{"num_output", 6},
                      {"kernel_h", 3},
                      {"kernel_w", 2},
                      {"stride_h", 2},
                      {"stride_w", 3},
                      {"pad_h", 1},
                      {"pad_w", 0},
                      {"output_pad_h", 1},
                      {"output_pad_w", 2},
                      {"dilation_h", 2},
                      {"dilation_w", 1},
                      {"group", 2}},
                     Fixture("deconv_groups_dilated_x"),
                     DeconvWeightFromOnnx(Fixture("deconv_groups_dilated_w"), 2), &b),
              Fixture("deconv_groups_dilated_y"));
}

TEST(DeconvolutionFixtures, AsymmetricPads) {
  ExpectClose(RunNet("Deconvolution",
                     {{"num_output", 2},
                      {"kernel_h", 4},
                      {"kernel_w", 3},
                      {"stride", 2},
                      {"pad_top", 1},
                      {"pad_bottom", 2},
                      {"pad_left", 0},
                      {"pad_right", 1},
                      {"bias_term", false}},
                     Fixture("deconv_asym_pads_x"),
                     DeconvWeightFromOnnx(Fixture("deconv_asym_pads_w"), 1), nullptr),
              Fixture("deconv_asym_pads_y"));
}

// ---------------------------------------------------------------------------
// Fast kernels against the reference

ConvGeometry Geometry(std::vector<int> v) {
  // batch, in_c, in_h, in_w, out_c, kh, kw, sh, sw, pt, pb, pl, pr, dh, dw, group
  ConvGeometry g;
  g.batch = v[0], g.in_c = v[1], g.in_h = v[2], g.in_w = v[3], g.out_c = v[4];
  g.kernel_h = v[5], g.kernel_w = v[6], g.stride_h = v[7], g.stride_w = v[8];
  g.pad_top = v[9], g.pad_bottom = v[10], g.pad_left = v[11], g.pad_right = v[12];
  g.dilation_h = v[13], g.dilation_w = v[14], g.group = v[15];
  g.out_h = g.ConvOutH();
  g.out_w = g.ConvOutW();
  return g;
}

// Hand-picked shapes (network-like, and ones that split into many tiles)
// followed by random ones.
std::vector<ConvGeometry> ConvShapes() {
  std::vector<ConvGeometry> shapes = {
      Geometry({1, 3, 23, 21, 8, 7, 7, 2, 2, 3, 3, 3, 3, 1, 1, 1}),     // stem
      Geometry({2, 16, 14, 14, 16, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}),   // 3x3
      Geometry({1, 64, 7, 7, 128, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}),    // rows split
      Geometry({1, 16, 56, 56, 24, 1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 1}),   // 1x1, many tiles
      Geometry({3, 24, 9, 9, 40, 1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 1}),     // 1x1, batch
      Geometry({2, 12, 15, 15, 12, 1, 1, 2, 2, 0, 0, 0, 0, 1, 1, 1}),   // 1x1 stride 2
      Geometry({1, 8, 48, 48, 8, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}),     // im2col column tiles
      Geometry({2, 32, 12, 12, 32, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 32}),  // depthwise
      Geometry({1, 24, 13, 11, 24, 3, 3, 2, 2, 1, 1, 1, 1, 1, 1, 24}),  // depthwise stride 2
      Geometry({2, 6, 10, 9, 12, 5, 3, 3, 1, 2, 0, 1, 3, 1, 2, 6}),     // depthwise x2, odd
      Geometry({1, 8, 12, 12, 16, 3, 3, 1, 1, 2, 2, 2, 2, 2, 2, 4}),    // groups + dilation
      Geometry({2, 5, 9, 11, 7, 3, 2, 2, 3, 0, 2, 1, 0, 1, 1, 1}),      // asymmetric pads
      Geometry({1, 8, 5, 7, 6, 1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 2}),       // 1x1 groups
      Geometry({2, 4, 7, 7, 4, 5, 5, 1, 1, 2, 1, 0, 2, 1, 1, 4}),       // depthwise 5x5
      Geometry({1, 6, 9, 8, 6, 3, 3, 1, 1, 2, 2, 1, 2, 2, 2, 6}),       // depthwise dilated
      Geometry({2, 5, 12, 9, 10, 3, 3, 2, 2, 0, 1, 1, 0, 1, 1, 5}),     // depthwise 3x3/2 x2
      Geometry({1, 3, 8, 9, 3, 3, 3, 1, 2, 1, 1, 1, 1, 1, 1, 3}),       // depthwise 3x3 s1x2
      // Small weights on a large plane at small batches: the library's
      // primitive in bands of rows (first, middle and last bands with their
      // own pads; stride 2; dilation with pads on one side).
      Geometry({1, 16, 40, 37, 64, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}),
      Geometry({2, 16, 33, 30, 64, 3, 3, 2, 2, 1, 0, 1, 0, 1, 1, 1}),
      Geometry({1, 16, 48, 20, 64, 3, 3, 1, 1, 2, 0, 1, 1, 2, 2, 1}),
  };
  std::mt19937 rng(7);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  while (shapes.size() < 60) {
    const int group = std::vector<int>{1, 1, 2, 3, 0}[pick(0, 4)];  // 0: depthwise
    const int cin_g = group == 0 ? 1 : pick(1, 6), g = group == 0 ? pick(2, 9) : group;
    const int cout_g = group == 0 ? pick(1, 2) : pick(1, 7);
    std::vector<int> v = {pick(1, 3), cin_g * g,  pick(1, 13), pick(1, 13),
                          cout_g * g, pick(1, 5), pick(1, 5),  pick(1, 3),
                          pick(1, 3), pick(0, 2), pick(0, 2),  pick(0, 2),
                          pick(0, 2), pick(1, 3), pick(1, 3),  g};
    const ConvGeometry geo = Geometry(v);
    if (geo.ConvFits()) shapes.push_back(geo);
  }
  return shapes;
}

// Random data in [-1, 1) for a geometry; the bias may be absent.
struct ConvData {
  std::vector<float> x, w, b;
};
ConvData RandomData(const ConvGeometry& g, uint32_t seed, bool bias) {
  ConvData d;
  d.x = test::RandomVector(size_t(g.batch) * g.in_c * g.InPlane(), seed);
  d.w = test::RandomVector(size_t(g.out_c) * g.InPerGroup() * g.KernelArea(), seed + 1);
  if (bias) d.b = test::RandomVector(g.out_c, seed + 2);
  return d;
}

// Runs a freshly configured kernel with `threads` OpenMP threads.
std::vector<float> RunKernel(const ConvGeometry& g, const ConvData& d, ConvAlgorithm algo,
                             int threads, ConvAlgorithm* used = nullptr) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  ConvKernel kernel;
  const bool bias = !d.b.empty();
  kernel.Configure(g, bias, algo);
  if (used != nullptr) *used = kernel.algorithm();
  std::vector<float> y(size_t(g.batch) * g.out_c * g.OutPlane(), NAN);
  kernel.Run(d.x.data(), d.w.data(), bias ? d.b.data() : nullptr, y.data());
  omp_set_num_threads(saved);
  return y;
}

const std::vector<ConvAlgorithm> kAlgorithms = {ConvAlgorithm::kDepthwise,  ConvAlgorithm::kGemm1x1,
                                                ConvAlgorithm::kPointwise,  ConvAlgorithm::kDirect,
                                                ConvAlgorithm::kIm2colGemm, ConvAlgorithm::kDnnl};

TEST(ConvolutionKernels, MatchReferenceOnManyShapes) {
  const std::vector<ConvAlgorithm>& algorithms = kAlgorithms;
  std::map<ConvAlgorithm, int> tested;
  const std::vector<ConvGeometry> shapes = ConvShapes();
  for (size_t i = 0; i < shapes.size(); ++i) {
    const ConvGeometry& g = shapes[i];
    SCOPED_TRACE(g.ToString());
    const ConvData d = RandomData(g, 100 + i, i % 3 != 2);
    std::vector<float> want(size_t(g.batch) * g.out_c * g.OutPlane());
    ReferenceConvolution(g, d.x.data(), d.w.data(), d.b.empty() ? nullptr : d.b.data(),
                         want.data());
    const double atol = KernelAtol(g.InPerGroup() * g.KernelArea());
    for (ConvAlgorithm algo : algorithms) {
      if (!ConvKernel::Applies(algo, g)) continue;
      SCOPED_TRACE(ConvAlgorithmName(algo));
      ConvAlgorithm used;
      const std::vector<float> got = RunKernel(g, d, algo, 2, &used);
      // oneDNN may have only its reference code for a shape: then GEMM.
      if (algo == ConvAlgorithm::kDnnl && used == ConvAlgorithm::kIm2colGemm) continue;
      ASSERT_EQ(used, algo);
      ++tested[algo];
      EXPECT_LE(test::ToleranceRatio(got, want, atol, 0.0), 1.0);
      // The same bits with one and with three threads.
      for (int threads : {1, 3}) {
        const std::vector<float> again = RunKernel(g, d, algo, threads);
        EXPECT_EQ(0, std::memcmp(again.data(), got.data(), got.size() * sizeof(float)))
            << threads << " threads";
      }
    }
  }
  EXPECT_GE(tested[ConvAlgorithm::kDepthwise], 10);
  EXPECT_GE(tested[ConvAlgorithm::kGemm1x1], 3);
  EXPECT_GE(tested[ConvAlgorithm::kPointwise], 2);
  EXPECT_GE(tested[ConvAlgorithm::kDirect], 10);
  EXPECT_EQ(tested[ConvAlgorithm::kIm2colGemm], static_cast<int>(shapes.size()));
  if (DnnlConvolution::Available()) {
    EXPECT_GE(tested[ConvAlgorithm::kDnnl], 40);
  }
}

TEST(ConvolutionKernels, SpacedImagesHoldTheDenseBitsAndLeaveTheGapsAlone) {
  std::map<ConvAlgorithm, int> tested;
  const Epilogue relu{Epilogue::Kind::kRelu, 0.25f};
  for (const ConvGeometry& g : ConvShapes()) {
    SCOPED_TRACE(g.ToString());
    const ConvData d = RandomData(g, 300 + g.in_c + g.out_h, g.out_w % 2 == 0);
    const int64_t image = int64_t(g.out_c) * g.OutPlane(), gap = 13, spaced = image + gap;
    for (ConvAlgorithm algo : kAlgorithms) {
      if (!ConvKernel::Applies(algo, g)) continue;
      SCOPED_TRACE(ConvAlgorithmName(algo));
      ConvKernel kernel;
      const float* b = d.b.empty() ? nullptr : d.b.data();
      ASSERT_TRUE(kernel.Configure(g, b != nullptr, algo));
      std::vector<float> dense(size_t(g.batch) * image);
      kernel.Run(d.x.data(), d.w.data(), b, dense.data(), relu);
      kernel.SetOutputImageStride(spaced);
      std::vector<float> y(size_t(g.batch) * spaced, -7.0f);
      kernel.Run(d.x.data(), d.w.data(), b, y.data(), relu);
      ++tested[kernel.algorithm()];
      for (int n = 0; n < g.batch; ++n) {
        EXPECT_EQ(
            0, std::memcmp(y.data() + n * spaced, dense.data() + n * image, sizeof(float) * image))
            << "image " << n;
        for (int64_t k = image; k < spaced; ++k) ASSERT_EQ(y[n * spaced + k], -7.0f);
      }
    }
  }
  EXPECT_GE(tested[ConvAlgorithm::kDepthwise], 10);
  EXPECT_GE(tested[ConvAlgorithm::kGemm1x1], 3);
  EXPECT_GE(tested[ConvAlgorithm::kPointwise], 2);
  EXPECT_GE(tested[ConvAlgorithm::kDirect], 10);
  EXPECT_GE(tested[ConvAlgorithm::kIm2colGemm], 50);
  if (DnnlConvolution::Available()) {
    EXPECT_GE(tested[ConvAlgorithm::kDnnl], 30);
  }
}

#if defined(__x86_64__)
TEST(ConvolutionKernels, LibraryPrimitiveSplitsRowsWhereWeightsAreSmall) {
  if (!DnnlConvolution::Available() || !__builtin_cpu_supports("avx512f"))
    GTEST_SKIP() << "the library computes channels-last at batch 1 on AVX-512";
  ConvKernel k;
  // 64 x 16 x 3 x 3 weights, a 16 x 40 x 37 input: bands of rows, handed on
  // in channels-last.
  ASSERT_TRUE(k.Configure(Geometry({1, 16, 40, 37, 64, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}), true,
                          ConvAlgorithm::kDnnl));
  EXPECT_NE(k.Describe().find("x8 row bands"), std::string::npos) << k.Describe();
  EXPECT_EQ(k.DstBlock(), 1);
  // Weights larger than the input: chunks of output channels.
  ASSERT_TRUE(k.Configure(Geometry({1, 64, 7, 7, 128, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}), true,
                          ConvAlgorithm::kDnnl));
  EXPECT_EQ(k.Describe().find("row bands"), std::string::npos) << k.Describe();
}
#endif

TEST(ConvolutionKernels, AutomaticChoice) {
  ConvKernel k;
  k.Configure(Geometry({1, 8, 9, 9, 8, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 8}), true);
  EXPECT_EQ(k.algorithm(), ConvAlgorithm::kDepthwise);
  k.Configure(Geometry({1, 8, 9, 9, 16, 1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 1}), true);
  EXPECT_EQ(k.algorithm(), ConvAlgorithm::kPointwise);
  // Grouped 1x1: the GEMM per group.
  k.Configure(Geometry({1, 8, 9, 9, 16, 1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 2}), true);
  EXPECT_EQ(k.algorithm(), ConvAlgorithm::kGemm1x1);
  k.Configure(Geometry({1, 8, 9, 9, 16, 1, 1, 2, 2, 0, 0, 0, 0, 1, 1, 1}), true);
  EXPECT_EQ(k.algorithm(), ConvAlgorithm::kIm2colGemm);
  k.Configure(Geometry({1, 8, 9, 9, 16, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}), false);
  EXPECT_EQ(k.algorithm(),
            DnnlConvolution::Available() ? ConvAlgorithm::kDnnl : ConvAlgorithm::kIm2colGemm);
  // An image stem: the direct kernel at batch 1 only, on whole blocks.
  k.Configure(Geometry({1, 3, 32, 32, 32, 3, 3, 2, 2, 1, 1, 1, 1, 1, 1, 1}), true);
  EXPECT_EQ(k.algorithm(), ConvAlgorithm::kDirect);
  k.Configure(Geometry({1, 3, 32, 32, 24, 3, 3, 2, 2, 1, 1, 1, 1, 1, 1, 1}), true);
  EXPECT_NE(k.algorithm(), ConvAlgorithm::kDirect);
  k.Configure(Geometry({1, 3, 32, 32, 64, 3, 3, 2, 2, 1, 1, 1, 1, 1, 1, 1}), true);
  EXPECT_NE(k.algorithm(), ConvAlgorithm::kDirect);
  k.Configure(Geometry({2, 3, 32, 32, 32, 3, 3, 2, 2, 1, 1, 1, 1, 1, 1, 1}), true);
  EXPECT_NE(k.algorithm(), ConvAlgorithm::kDirect);
  // A forced algorithm that does not apply falls back to the automatic one.
  k.Configure(Geometry({1, 8, 9, 9, 16, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}), false,
              ConvAlgorithm::kGemm1x1);
  EXPECT_NE(k.algorithm(), ConvAlgorithm::kGemm1x1);
}

ConvGeometry DeconvGeometry(std::vector<int> v, int output_pad_h, int output_pad_w) {
  ConvGeometry g = Geometry(v);
  g.out_h = (g.in_h - 1) * g.stride_h - g.pad_top - g.pad_bottom + g.ExtentH() + output_pad_h;
  g.out_w = (g.in_w - 1) * g.stride_w - g.pad_left - g.pad_right + g.ExtentW() + output_pad_w;
  return g;
}

TEST(DeconvolutionKernels, MatchReferenceOnManyShapes) {
  std::vector<ConvGeometry> shapes = {
      DeconvGeometry({1, 16, 8, 8, 8, 4, 4, 2, 2, 1, 1, 1, 1, 1, 1, 1}, 0, 0),
      DeconvGeometry({2, 6, 5, 7, 9, 3, 2, 2, 3, 1, 0, 0, 2, 2, 1, 3}, 1, 2),
      DeconvGeometry({1, 4, 64, 64, 64, 4, 4, 2, 2, 1, 1, 1, 1, 1, 1, 1}, 0, 0),  // step split
      DeconvGeometry({2, 8, 6, 6, 8, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 8}, 0, 0),     // depthwise
  };
  std::mt19937 rng(11);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  while (shapes.size() < 30) {
    const int g = pick(1, 3);
    const int sh = pick(1, 3), sw = pick(1, 3), dh = pick(1, 2), dw = pick(1, 2);
    const ConvGeometry geo = DeconvGeometry(
        {pick(1, 2), g * pick(1, 4), pick(1, 8), pick(1, 8), g * pick(1, 4), pick(1, 5), pick(1, 5),
         sh, sw, pick(0, 2), pick(0, 2), pick(0, 2), pick(0, 2), dh, dw, g},
        pick(0, std::max(sh, dh) - 1), pick(0, std::max(sw, dw) - 1));
    if (geo.out_h >= 1 && geo.out_w >= 1) shapes.push_back(geo);
  }
  for (size_t i = 0; i < shapes.size(); ++i) {
    const ConvGeometry& g = shapes[i];
    SCOPED_TRACE(g.ToString());
    const ConvData d = RandomData(g, 300 + i, i % 2 == 0);
    const float* b = d.b.empty() ? nullptr : d.b.data();
    std::vector<float> want(size_t(g.batch) * g.out_c * g.OutPlane());
    ReferenceDeconvolution(g, d.x.data(), d.w.data(), b, want.data());
    std::vector<float> first;
    for (int threads : {2, 1, 3}) {
      const int saved = omp_get_max_threads();
      omp_set_num_threads(threads);
      DeconvKernel kernel;
      kernel.Configure(g, b != nullptr);
      std::vector<float> got(want.size(), NAN);
      kernel.Run(d.x.data(), d.w.data(), b, got.data());
      omp_set_num_threads(saved);
      if (first.empty()) {
        first = got;
        const int taps = g.InPerGroup() * g.KernelArea();
        EXPECT_LE(test::ToleranceRatio(got, want, KernelAtol(taps), 0.0), 1.0);
      } else {
        EXPECT_EQ(0, std::memcmp(got.data(), first.data(), got.size() * sizeof(float)))
            << threads << " threads";
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Layers in nets

TEST(ConvolutionLayer, BatchNoBiasFrugalAndReshape) {
  const ConvGeometry g = Geometry({3, 6, 11, 10, 10, 3, 3, 2, 1, 1, 2, 0, 1, 1, 2, 2});
  const ConvData d = RandomData(g, 5, false);
  std::vector<float> want(size_t(g.batch) * g.out_c * g.OutPlane());
  ReferenceConvolution(g, d.x.data(), d.w.data(), nullptr, want.data());
  const Json::object param{{"num_output", 10}, {"kernel_size", 3}, {"stride_h", 2},
                           {"pad_top", 1},     {"pad_bottom", 2},  {"pad_right", 1},
                           {"dilation_w", 2},  {"group", 2},       {"bias_term", false}};
  const Blob x{{3, 6, 11, 10}, d.x}, w{{10, 3, 3, 3}, d.w};
  for (bool frugal : {false, true}) {
    const Blob y = RunNet("Convolution", param, x, w, nullptr, frugal);
    ExpectClose(y, Blob{{3, 10, g.out_h, g.out_w}, want}, KernelAtol(27), 0.0);
  }
  // Batch 1 after a reshape gives the first image's output.
  auto net = OneLayer("Convolution", param, x.dims, &w, nullptr).Build();
  EXPECT_EQ(net->GetLayer("conv1")->GetChannelNum(), 10);
  EXPECT_EQ(net->GetLayer("conv1")->GetTypeDetail(), "Convolution(3x3)");
  net->ReshapeBatchNum(1, 0);
  std::vector<float> x0(d.x.begin(), d.x.begin() + 6 * 11 * 10);
  net->SetFloatInputData(x0.data(), 0);
  net->ForwardAll();
  const float* y = net->GetFloatOutputData(0);
  const std::vector<float> got(y, y + net->GetOutputCount(0));
  EXPECT_LE(test::ToleranceRatio(got, std::vector<float>(want.begin(), want.begin() + got.size()),
                                 KernelAtol(27), 0.0),
            1.0);
}

TEST(ConvolutionLayer, RereadsWeightsChangedBetweenRuns) {
  // Callers may rewrite a layer's weights and bias in place between runs.
  for (const ConvGeometry& g : {Geometry({2, 8, 9, 9, 16, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1}),
                                Geometry({2, 8, 9, 9, 16, 1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 1}),
                                Geometry({2, 8, 9, 9, 8, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 8})}) {
    SCOPED_TRACE(g.ToString());
    ConvData d = RandomData(g, 21, true);
    const Blob x{{g.batch, g.in_c, g.in_h, g.in_w}, d.x};
    const Blob w{{g.out_c, g.InPerGroup(), g.kernel_h, g.kernel_w}, d.w}, b{{g.out_c}, d.b};
    auto net = OneLayer("Convolution",
                        {{"num_output", g.out_c},
                         {"kernel_size", g.kernel_h},
                         {"pad", g.pad_top},
                         {"group", g.group}},
                        x.dims, &w, &b)
                   .Build();
    net->SetFloatInputData(d.x.data(), 0);
    net->ForwardAll();
    auto& weights = net->GetLayer("conv1")->GetWeights();
    for (size_t i = 0; i < d.w.size(); ++i) d.w[i] = weights[0]->GetCpuData()[i] *= -0.5f;
    for (size_t i = 0; i < d.b.size(); ++i) d.b[i] = weights[1]->GetCpuData()[i] += 1.0f;
    net->ForwardAll();
    std::vector<float> want(size_t(g.batch) * g.out_c * g.OutPlane());
    ReferenceConvolution(g, d.x.data(), d.w.data(), d.b.data(), want.data());
    const float* y = net->GetFloatOutputData(0);
    EXPECT_LE(test::ToleranceRatio(std::vector<float>(y, y + want.size()), want,
                                   KernelAtol(g.InPerGroup() * g.KernelArea()), 0.0),
              1.0);
  }
}

TEST(ConvolutionLayer, InPlaceReadsAStagedCopy) {
  const ConvGeometry g = Geometry({1, 4, 6, 6, 4, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1});
  const ConvData d = RandomData(g, 9, true);
  test::NetBuilder nb;
  nb.Input("data", {1, 4, 6, 6})
      .Layer("conv1", "Convolution", {"data"}, {"data"},
             {{"num_output", 4}, {"kernel_size", 3}, {"pad", 1}})
      .Weight("conv1", "weight", {4, 4, 3, 3}, d.w)
      .Weight("conv1", "bias", {4}, d.b);
  auto net = nb.Build();
  std::vector<float> x = d.x;
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  std::vector<float> want(x.size());
  ReferenceConvolution(g, d.x.data(), d.w.data(), d.b.data(), want.data());
  const float* y = net->GetData("data")->GetCpuData();
  EXPECT_LE(test::ToleranceRatio(std::vector<float>(y, y + want.size()), want, KernelAtol(36), 0.0),
            1.0);
}

TEST(DeconvolutionLayer, ChannelNumAndTypeDetail) {
  const Blob w{{6, 2, 3, 2}, std::vector<float>(72, 0.5f)};
  auto net =
      OneLayer(
          "Deconvolution",
          {{"num_output", 6}, {"kernel_h", 3}, {"kernel_w", 2}, {"group", 2}, {"bias_term", false}},
          {1, 4, 3, 3}, &w, nullptr)
          .Build();
  EXPECT_EQ(net->GetLayer("conv1")->GetChannelNum(), 6);
  EXPECT_EQ(net->GetLayer("conv1")->GetTypeDetail(), "Deconvolution(3x2)");
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{1, 6, 5, 4}));
}

// ---------------------------------------------------------------------------
// Errors

std::string ConvError(const std::string& type, const Json::object& param,
                      const std::vector<int>& in_dims = {1, 4, 8, 8}, const Blob* w = nullptr,
                      const Blob* b = nullptr) {
  return BuildError(OneLayer(type, param, in_dims, w, b));
}

TEST(ConvolutionErrors, Params) {
  const std::string at = "net description: layer \"conv1\" (Convolution): ";
  EXPECT_EQ(ConvError("Convolution", {{"kernel_size", 3}}), at + "missing param \"num_output\"");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 0}, {"kernel_size", 3}}),
            at + "param \"num_output\" must be >= 1, got 0");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_h", 3}}),
            at + "missing param \"kernel_size\" (or both \"kernel_h\" and \"kernel_w\")");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 0}}),
            at + "param \"kernel_size\" must be >= 1, got 0");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"kernel_w", -2}}),
            at + "param \"kernel_w\" must be >= 1, got -2");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 2.5}}),
            at + "param \"kernel_size\" must be an integer");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"stride", 0}}),
            at + "param \"stride\" must be >= 1, got 0");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"pad", -1}}),
            at + "param \"pad\" must be >= 0, got -1");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"pad_left", -3}}),
            at + "param \"pad_left\" must be >= 0, got -3");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"dilation_h", 0}}),
            at + "param \"dilation_h\" must be >= 1, got 0");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"group", 0}}),
            at + "param \"group\" must be >= 1, got 0");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"group", 3}}),
            at + "param \"num_output\" (4) must be divisible by \"group\" (3)");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"bias_term", "no"}}),
            at + "param \"bias_term\" must be true or false");
}

TEST(ConvolutionErrors, Shapes) {
  const std::string at = "net description: layer \"conv1\" (Convolution): ";
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}}, {1, 4, 8}),
            at + "input \"data\" must have 4 axes, has shape [1, 4, 8]");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 6}, {"kernel_size", 3}, {"group", 3}}),
            at + "input \"data\" has 4 channels, not divisible by group 3");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 5}, {"dilation", 2}}),
            at + "kernel extent 9x9 (kernel 5x5, dilation 2x2) is larger than the padded input "
                 "8x8");
  EXPECT_EQ(ConvError("Convolution",
                      {{"num_output", 4}, {"kernel_h", 4}, {"kernel_w", 1}, {"pad_top", 1}},
                      {1, 4, 2, 8}),
            at + "kernel extent 4x1 (kernel 4x1, dilation 1x1) is larger than the padded input "
                 "3x8");
}

TEST(ConvolutionErrors, Weights) {
  const Json::object param{{"num_output", 4}, {"kernel_size", 3}};
  const Blob w{{4, 4, 3, 2}, std::vector<float>(96)}, good{{4, 4, 3, 3}, std::vector<float>(144)};
  const Blob b{{4}, std::vector<float>(4)}, b5{{5}, std::vector<float>(5)};
  EXPECT_EQ(ConvError("Convolution", param, {1, 4, 8, 8}, &w, &b),
            "weights: layer \"conv1\": blob \"weight\" has shape [4, 4, 3, 2], expected [4, 4, 3, "
            "3]");
  EXPECT_EQ(ConvError("Convolution", param, {1, 4, 8, 8}, &good, &b5),
            "weights: layer \"conv1\": blob \"bias\" has shape [5], expected [4]");
  EXPECT_EQ(ConvError("Convolution", param, {1, 4, 8, 8}, &good, nullptr),
            "weights: layer \"conv1\": blob \"bias\" is missing (expected shape [4])");
  EXPECT_EQ(ConvError("Convolution", {{"num_output", 4}, {"kernel_size", 3}, {"bias_term", false}},
                      {1, 4, 8, 8}, &good, &b),
            "weights: layer \"conv1\": blob \"bias\" is not a weight of a Convolution layer with "
            "these params");
}

TEST(DeconvolutionErrors, ParamsAndShapes) {
  const std::string at = "net description: layer \"conv1\" (Deconvolution): ";
  EXPECT_EQ(ConvError("Deconvolution", {{"kernel_size", 3}}), at + "missing param \"num_output\"");
  EXPECT_EQ(
      ConvError("Deconvolution", {{"num_output", 4}, {"kernel_size", 3}, {"output_pad_h", -1}}),
      at + "param \"output_pad_h\" must be >= 0, got -1");
  EXPECT_EQ(ConvError("Deconvolution",
                      {{"num_output", 4}, {"kernel_size", 3}, {"stride", 2}, {"output_pad", 2}}),
            at + "param \"output_pad\" (2) must be smaller than stride_h (2) or dilation_h (1)");
  EXPECT_EQ(
      ConvError("Deconvolution",
                {{"num_output", 4}, {"kernel_size", 3}, {"dilation_w", 3}, {"output_pad_w", 3}}),
      at + "param \"output_pad_w\" (3) must be smaller than stride_w (1) or dilation_w (3)");
  EXPECT_EQ(ConvError("Deconvolution",
                      {{"num_output", 4}, {"kernel_size", 2}, {"pad_top", 2}, {"pad_bottom", 2}},
                      {1, 4, 3, 3}),
            at + "output would be 0x4: the pads (top 2, bottom 2, left 0, right 0) remove more "
                 "than the deconvolution produces");
  EXPECT_EQ(ConvError("Deconvolution", {{"num_output", 4}, {"kernel_size", 3}, {"group", 3}},
                      {1, 6, 4, 4}),
            at + "param \"num_output\" (4) must be divisible by \"group\" (3)");
  EXPECT_EQ(ConvError("Deconvolution", {{"num_output", 6}, {"kernel_size", 3}, {"group", 3}},
                      {1, 4, 4, 4}),
            at + "input \"data\" has 4 channels, not divisible by group 3");
  EXPECT_EQ(ConvError("Deconvolution", {{"num_output", 6}, {"kernel_size", 3}}, {4, 4}),
            at + "input \"data\" must have 4 axes, has shape [4, 4]");
  const Blob w{{4, 4, 3, 3}, std::vector<float>(144)};
  EXPECT_EQ(ConvError("Deconvolution",
                      {{"num_output", 4}, {"kernel_size", 3}, {"bias_term", false}, {"group", 2}},
                      {1, 4, 8, 8}, &w),
            "weights: layer \"conv1\": blob \"weight\" has shape [4, 4, 3, 3], expected [4, 2, 3, "
            "3]");
}

}  // namespace
}  // namespace qzdl
