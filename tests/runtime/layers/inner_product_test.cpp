// InnerProduct: against the ONNX Gemm / Linear test data and PyTorch
// fixtures, the GEMM kernel against the plain reference on random sizes and
// thread counts, and the param, shape and weight checks with their exact
// messages.
#include "runtime/layers/inner_product.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <exception>
#include <random>

#include "runtime/kernels/conv_kernels.h"
#include "runtime/kernels/conv_reference.h"
#include "support/net_builder.h"
#include "support/onnx_tensor.h"
#include "weighted_layer_support.h"

namespace qzdl {
namespace {

using json11::Json;

// Against ONNX and PyTorch data: |got - want| <= kAtol + kRtol * |want|
// (float32 results of sums of at most 16 products).
constexpr double kAtol = 1e-5, kRtol = 1e-5;
// The kernel against the double-precision reference, for a sum of K
// products of values in [-1, 1): 2e-7 * K absolute, with a floor of 1e-6.
double KernelAtol(int k) { return std::max(1e-6, 2e-7 * k); }

using test::weighted::Blob;
using test::weighted::Fixture;
using test::weighted::OnnxData;

test::NetBuilder OneLayer(const Json::object& param, const std::vector<int>& in_dims, const Blob* w,
                          const Blob* b) {
  return test::weighted::OneLayer("fc", "InnerProduct", param, in_dims, w, b);
}

Blob RunNet(const Json::object& param, const Blob& x, const Blob& w, const Blob* b,
            bool frugal = false) {
  return test::weighted::RunOneLayer("fc", "InnerProduct", param, x, w, b, frugal);
}

void ExpectClose(const Blob& got, const Blob& want, double atol = kAtol, double rtol = kRtol) {
  test::weighted::ExpectBlobsClose(got, want, atol, rtol);
}

Blob Transposed(const Blob& m) {
  const int rows = m.dims[0], cols = m.dims[1];
  Blob t{{cols, rows}, std::vector<float>(m.values.size())};
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c) t.values[size_t(c) * rows + r] = m.values[size_t(r) * cols + c];
  return t;
}

Blob Scaled(Blob m, float factor) {
  for (float& v : m.values) v *= factor;
  return m;
}

// An ONNX Gemm bias (C) of shape [], [1], [1, n] or [n] as a vector of n.
Blob BiasVector(const Blob& c, int n) {
  Blob b{{n}, std::vector<float>(n)};
  for (int i = 0; i < n; ++i) b.values[i] = c.values.size() == 1 ? c.values[0] : c.values[i];
  return b;
}

// ---------------------------------------------------------------------------
// ONNX test data

TEST(InnerProductOnnx, GemmNodeCases) {
  // y = alpha * A' * B' + beta * C: A' (A, or its transpose with transA)
  // is the input; B' is the weight, [K, N] with transpose (transB 0) or
  // [N, K] without (transB 1); alpha and beta are folded into the weight
  // and the bias (both powers of two here, so exactly); C broadcast to [N].
  struct Case {
    std::string name;
    bool trans_a, trans_b;
    float alpha, beta;
  };
  const std::vector<Case> cases = {
      {"test_gemm_default_no_bias", false, false, 1.0f, 1.0f},
      {"test_gemm_default_vector_bias", false, false, 1.0f, 1.0f},
      {"test_gemm_default_zero_bias", false, false, 1.0f, 1.0f},
      {"test_gemm_default_scalar_bias", false, false, 1.0f, 1.0f},
      {"test_gemm_default_single_elem_vector_bias", false, false, 1.0f, 1.0f},
      {"test_gemm_transposeA", true, false, 1.0f, 1.0f},
      {"test_gemm_transposeB", false, true, 1.0f, 1.0f},
      {"test_gemm_alpha", false, false, 0.5f, 1.0f},
      {"test_gemm_beta", false, false, 1.0f, 0.5f},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Blob a = OnnxData("node", c.name, "input_0");
    if (c.trans_a) a = Transposed(a);
    const Blob w = Scaled(OnnxData("node", c.name, "input_1"), c.alpha);
    const int n = c.trans_b ? w.dims[0] : w.dims[1];
    const bool has_bias = c.name != "test_gemm_default_no_bias";
    const Blob b =
        has_bias ? Scaled(BiasVector(OnnxData("node", c.name, "input_2"), n), c.beta) : Blob{};
    const Json::object param{{"num_output", n}, {"bias_term", has_bias}, {"transpose", !c.trans_b}};
    ExpectClose(RunNet(param, a, w, has_bias ? &b : nullptr), OnnxData("node", c.name, "output_0"));
  }
}

TEST(InnerProductOnnx, LinearAndMatMulCases) {
  // Linear: weight [out, in] from the model's initializers (fixtures).
  const Blob b = Fixture("test_Linear/2");
  ExpectClose(RunNet({{"num_output", 8}}, OnnxData("pytorch-converted", "test_Linear", "input_0"),
                     Fixture("test_Linear/1"), &b),
              OnnxData("pytorch-converted", "test_Linear", "output_0"));
  ExpectClose(RunNet({{"num_output", 8}, {"bias_term", false}},
                     OnnxData("pytorch-converted", "test_Linear_no_bias", "input_0"),
                     Fixture("test_Linear_no_bias/1"), nullptr),
              OnnxData("pytorch-converted", "test_Linear_no_bias", "output_0"));
  // mm: a Gemm with beta 0, the second operand [K, N].
  ExpectClose(RunNet({{"num_output", 4}, {"bias_term", false}, {"transpose", true}},
                     OnnxData("pytorch-operator", "test_operator_mm", "input_0"),
                     OnnxData("pytorch-operator", "test_operator_mm", "input_1"), nullptr),
              OnnxData("pytorch-operator", "test_operator_mm", "output_0"));
}

TEST(InnerProductFixtures, FourDimensionalInputs) {
  const Blob b = Fixture("ip_transpose_b");
  ExpectClose(RunNet({{"num_output", 5}, {"transpose", true}}, Fixture("ip_transpose_x"),
                     Fixture("ip_transpose_w"), &b),
              Fixture("ip_transpose_y"));
  ExpectClose(RunNet({{"num_output", 7}, {"bias_term", false}}, Fixture("ip_4d_x"),
                     Fixture("ip_4d_w"), nullptr),
              Fixture("ip_4d_y"));
}

// ---------------------------------------------------------------------------
// The kernel against the reference

TEST(InnerProductKernel, MatchesReferenceOnManySizes) {
  struct Size {
    int batch, k, out;
  };
  std::vector<Size> sizes = {{1, 1, 1},     {1, 512, 1000}, {8, 512, 1000}, {8, 1280, 1000},
                             {3, 2000, 17}, {130, 70, 300}, {1, 4096, 129}, {65, 33, 129}};
  std::mt19937 rng(3);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  while (sizes.size() < 30) sizes.push_back({pick(1, 40), pick(1, 300), pick(1, 300)});
  for (size_t i = 0; i < sizes.size(); ++i) {
    const Size& s = sizes[i];
    for (bool transpose : {false, true}) {
      SCOPED_TRACE(std::to_string(s.batch) + "x" + std::to_string(s.k) + " -> " +
                   std::to_string(s.out) + (transpose ? " transposed" : ""));
      const std::vector<float> x = test::RandomVector(size_t(s.batch) * s.k, 40 + i);
      const std::vector<float> w = test::RandomVector(size_t(s.k) * s.out, 41 + i);
      const std::vector<float> b = test::RandomVector(s.out, 42 + i);
      const float* bias = i % 3 == 1 ? nullptr : b.data();
      std::vector<float> want(size_t(s.batch) * s.out);
      ReferenceInnerProduct(s.batch, s.k, s.out, transpose, x.data(), w.data(), bias, want.data());
      std::vector<float> first;
      for (int threads : {2, 1, 3}) {
        const int saved = omp_get_max_threads();
        omp_set_num_threads(threads);
        std::vector<float> got(want.size(), NAN);
        InnerProductForward(s.batch, s.k, s.out, transpose, x.data(), w.data(), bias, got.data());
        omp_set_num_threads(saved);
        if (first.empty()) {
          first = got;
          EXPECT_LE(test::ToleranceRatio(got, want, KernelAtol(s.k), 0.0), 1.0);
        } else {
          EXPECT_EQ(0, std::memcmp(got.data(), first.data(), got.size() * sizeof(float)))
              << threads << " threads";
        }
      }
    }
  }
}

// ---------------------------------------------------------------------------
// The layer in nets

TEST(InnerProductLayer, BatchFrugalReshapeAndChannels) {
  const int batch = 5, k = 3 * 4 * 2, out = 9;
  const Blob x{{batch, 3, 4, 2}, test::RandomVector(size_t(batch) * k, 1)};
  const Blob w{{k, out}, test::RandomVector(size_t(k) * out, 2)};
  const Blob b{{out}, test::RandomVector(out, 3)};
  std::vector<float> want(size_t(batch) * out);
  ReferenceInnerProduct(batch, k, out, true, x.values.data(), w.values.data(), b.values.data(),
                        want.data());
  const Json::object param{{"num_output", out}, {"transpose", true}};
  for (bool frugal : {false, true})
    ExpectClose(RunNet(param, x, w, &b, frugal), Blob{{batch, out}, want}, KernelAtol(k), 0.0);

  auto net = OneLayer(param, x.dims, &w, &b).Build();
  Layer<float>* layer = net->GetLayer("fc");
  EXPECT_EQ(layer->GetChannelNum(), out);  // weight dim 0 is K here
  EXPECT_EQ(layer->GetTypeDetail(), "InnerProduct(9)");
  net->ReshapeBatchNum(2, 0);
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{2, out}));
  std::vector<float> x2(x.values.begin(), x.values.begin() + 2 * k);
  net->SetFloatInputData(x2.data(), 0);
  net->ForwardAll();
  const float* y = net->GetFloatOutputData(0);
  EXPECT_LE(test::ToleranceRatio(std::vector<float>(y, y + 2 * out),
                                 std::vector<float>(want.begin(), want.begin() + 2 * out),
                                 KernelAtol(k), 0.0),
            1.0);
}

TEST(InnerProductLayer, RereadsWeightsChangedBetweenRuns) {
  const Blob x{{2, 6}, test::RandomVector(12, 4)};
  Blob w{{3, 6}, test::RandomVector(18, 5)}, b{{3}, test::RandomVector(3, 6)};
  auto net = OneLayer({{"num_output", 3}}, x.dims, &w, &b).Build();
  std::vector<float> input = x.values;
  net->SetFloatInputData(input.data(), 0);
  net->ForwardAll();
  auto& weights = net->GetLayer("fc")->GetWeights();
  for (size_t i = 0; i < w.values.size(); ++i) w.values[i] = weights[0]->GetCpuData()[i] *= 2.0f;
  for (size_t i = 0; i < b.values.size(); ++i) b.values[i] = weights[1]->GetCpuData()[i] -= 1.0f;
  net->ForwardAll();
  std::vector<float> want(6);
  ReferenceInnerProduct(2, 6, 3, false, x.values.data(), w.values.data(), b.values.data(),
                        want.data());
  const float* y = net->GetFloatOutputData(0);
  EXPECT_LE(test::ToleranceRatio(std::vector<float>(y, y + 6), want, KernelAtol(6), 0.0), 1.0);
}

// ---------------------------------------------------------------------------
// Errors

using test::BuildError;

TEST(InnerProductErrors, ParamsShapesAndWeights) {
  const std::string at = "net description: layer \"fc\" (InnerProduct): ";
  EXPECT_EQ(BuildError(OneLayer({}, {2, 6}, nullptr, nullptr)),
            at + "missing param \"num_output\"");
  EXPECT_EQ(BuildError(OneLayer({{"num_output", 0}}, {2, 6}, nullptr, nullptr)),
            at + "param \"num_output\" must be >= 1, got 0");
  EXPECT_EQ(BuildError(OneLayer({{"num_output", "4"}}, {2, 6}, nullptr, nullptr)),
            at + "param \"num_output\" must be an integer");
  EXPECT_EQ(
      BuildError(OneLayer({{"num_output", 4}, {"transpose", "yes"}}, {2, 6}, nullptr, nullptr)),
      at + "param \"transpose\" must be true or false");
  EXPECT_EQ(BuildError(OneLayer({{"num_output", 4}}, {6}, nullptr, nullptr)),
            at + "input \"data\" must have at least 2 axes, has shape [6]");
  EXPECT_EQ(BuildError(OneLayer({{"num_output", 70000}}, {1, 40000}, nullptr, nullptr)),
            at + "weights [70000, 40000] would have more than 2^31-1 elements");

  const Blob w{{4, 5}, std::vector<float>(20)}, b{{4}, std::vector<float>(4)};
  EXPECT_EQ(BuildError(OneLayer({{"num_output", 4}}, {2, 6}, &w, &b)),
            "weights: layer \"fc\": blob \"weight\" has shape [4, 5], expected [4, 6]");
  EXPECT_EQ(BuildError(OneLayer({{"num_output", 4}, {"transpose", true}}, {2, 3, 2}, &w, &b)),
            "weights: layer \"fc\": blob \"weight\" has shape [4, 5], expected [6, 4]");
  const Blob w6{{4, 6}, std::vector<float>(24)};
  EXPECT_EQ(BuildError(OneLayer({{"num_output", 4}, {"bias_term", false}}, {2, 6}, &w6, &b)),
            "weights: layer \"fc\": blob \"bias\" is not a weight of a InnerProduct layer with "
            "these params");
  EXPECT_EQ(BuildError(OneLayer({{"num_output", 4}}, {2, 6}, &w6, nullptr)),
            "weights: layer \"fc\": blob \"bias\" is missing (expected shape [4])");
}

}  // namespace
}  // namespace qzdl
