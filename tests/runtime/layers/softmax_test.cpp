// Softmax against the ONNX node and PyTorch-converted test data and against
// a plain reference on random shapes; axis handling and errors.
#include "runtime/layers/softmax.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// exp of the C library and one division: within 1e-6 absolute + 1e-5
// relative of the reference.
constexpr double kAtol = 1e-6, kRtol = 1e-5;

TEST(SoftmaxLayer, MatchesOnnxCases) {
  struct Case {
    std::string group;
    std::string name;
    int axis;
  };
  // Opset-13 ONNX Softmax normalizes over one axis, as we do; the older
  // PyTorch-converted cases use the last axis, where both meanings agree.
  const std::vector<Case> cases = {
      {"node", "test_softmax_axis_0", 0},
      {"node", "test_softmax_axis_1", 1},
      {"node", "test_softmax_axis_2", 2},
      {"node", "test_softmax_default_axis", -1},
      {"node", "test_softmax_example", -1},
      {"node", "test_softmax_large_number", -1},
      {"node", "test_softmax_negative_axis", -1},
      {"pytorch-converted", "test_Softmax", 1},
      {"pytorch-converted", "test_softmax_functional_dim3", 3},
      {"pytorch-converted", "test_softmax_lastdim", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData(c.group, c.name, "input_0"));
    const test::OnnxTensor want = test::OnnxData(c.group, c.name, "output_0");
    const Tensor got = test::RunLayer("Softmax", {{"axis", c.axis}}, {x});
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

Tensor ReferenceSoftmax(const Tensor& x, int axis) {
  if (axis < 0) axis += static_cast<int>(x.dims.size());
  int64_t outer = 1, inner = 1;
  for (int i = 0; i < axis; ++i) outer *= x.dims[i];
  for (size_t i = axis + 1; i < x.dims.size(); ++i) inner *= x.dims[i];
  const int64_t dim = x.dims[axis];
  Tensor y{x.dims, std::vector<float>(x.values.size())};
  for (int64_t o = 0; o < outer; ++o)
    for (int64_t i = 0; i < inner; ++i) {
      double mx = -INFINITY, sum = 0;
      for (int64_t d = 0; d < dim; ++d)
        mx = std::max<double>(mx, x.values[(o * dim + d) * inner + i]);
      for (int64_t d = 0; d < dim; ++d) sum += std::exp(x.values[(o * dim + d) * inner + i] - mx);
      for (int64_t d = 0; d < dim; ++d)
        y.values[(o * dim + d) * inner + i] =
            static_cast<float>(std::exp(x.values[(o * dim + d) * inner + i] - mx) / sum);
    }
  return y;
}

TEST(SoftmaxLayer, MatchesReferenceOnRandomShapes) {
  std::mt19937 gen(5);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); };
  for (int trial = 0; trial < 30; ++trial) {
    const int rank = pick(1, 4);
    std::vector<int> dims;
    // Some inner sizes above the 64-column block of the kernel.
    for (int i = 0; i < rank; ++i) dims.push_back(pick(1, i == rank - 1 ? 150 : 6));
    const int axis = pick(-rank, rank - 1);
    SCOPED_TRACE("trial " + std::to_string(trial) + " axis " + std::to_string(axis));
    const Tensor x = test::RandomTensor(dims, 100 + trial, -20.0f, 20.0f);
    const Tensor got = test::RunLayer("Softmax", {{"axis", axis}}, {x});
    EXPECT_LE(test::ToleranceRatio(got.values, ReferenceSoftmax(x, axis).values, kAtol, kRtol),
              1.0);
  }
}

TEST(SoftmaxLayer, DefaultAxisIsOne) {
  const Tensor x = test::RandomTensor({2, 3, 4}, 7);
  const Tensor got = test::RunLayer("Softmax", {}, {x});
  EXPECT_LE(test::ToleranceRatio(got.values, ReferenceSoftmax(x, 1).values, kAtol, kRtol), 1.0);
  // The sums over axis 1 are one; over the last axis they are not.
  EXPECT_NEAR(got.values[0] + got.values[4] + got.values[8], 1.0f, 1e-6);
  EXPECT_GT(std::fabs(got.values[0] + got.values[1] + got.values[2] + got.values[3] - 1.0f), 1e-3);
}

TEST(SoftmaxLayer, StaysFiniteForHugeInputs) {
  const Tensor x{{1, 4}, {3e38f, 3e38f, -3e38f, 0.0f}};
  const Tensor got = test::RunLayer("Softmax", {}, {x});
  EXPECT_EQ(got.values, (std::vector<float>{0.5f, 0.5f, 0.0f, 0.0f}));
}

TEST(SoftmaxLayer, RejectsAxisOutOfRange) {
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Softmax", {{"axis", 3}}, {{2, 3, 4}})),
            "net description: layer \"l\" (Softmax): param \"axis\" is 3, out of range for input "
            "\"x0\" of shape [2, 3, 4]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Softmax", {{"axis", -4}}, {{2, 3, 4}})),
            "net description: layer \"l\" (Softmax): param \"axis\" is -4, out of range for "
            "input \"x0\" of shape [2, 3, 4]");
}

TEST(SoftmaxLayer, SurvivesBadParamValues) {
  test::ExpectBadParamsHandled("Softmax", {{"axis", 2}}, {{2, 3, 4}});
}

TEST(SoftmaxLayer, InPlaceAndThreadCount) {
  for (int axis : {0, 1, 3, -1}) {
    SCOPED_TRACE(axis);
    const Tensor x = test::RandomTensor({3, 10, 30, 70}, 9, -8.0f, 8.0f);
    test::ExpectInPlaceSame("Softmax", {{"axis", axis}}, {x});
    test::ExpectThreadIndependent("Softmax", {{"axis", axis}}, {x});
  }
}

}  // namespace
}  // namespace qzdl

namespace qzdl {
namespace {

// Softmax of the unmasked scores in double, as filling masked ones with
// -infinity does; all-masked columns give 0.
std::vector<float> MaskedReference(const test::Tensor& x, const test::Tensor& mask) {
  const int n = x.dims[0], h = x.dims[1], q = x.dims[2], k = x.dims[3];
  std::vector<float> y(x.values.size(), 0.0f);
  for (int a = 0; a < n; ++a)
    for (int b = 0; b < h; ++b)
      for (int i = 0; i < q; ++i) {
        const int64_t row = ((int64_t(a) * h + b) * q + i) * k;
        double mx = -INFINITY, sum = 0;
        for (int j = 0; j < k; ++j)
          if (mask.values[size_t(a) * k + j] != 0) mx = std::max<double>(mx, x.values[row + j]);
        if (mx == -INFINITY) continue;
        for (int j = 0; j < k; ++j)
          if (mask.values[size_t(a) * k + j] != 0) sum += std::exp(double(x.values[row + j]) - mx);
        for (int j = 0; j < k; ++j)
          if (mask.values[size_t(a) * k + j] != 0)
            y[row + j] = static_cast<float>(std::exp(double(x.values[row + j]) - mx) / sum);
      }
  return y;
}

TEST(SoftmaxMaskLayer, AttentionMaskBroadcastOverHeadsAndQueries) {
  // Scores [2, 3, 4, 5] and a padding mask [2, 1, 1, 5]: item 0 keeps every
  // key, item 1 masks its last two.
  const test::Tensor x = test::RandomTensor({2, 3, 4, 5}, 301, -3.0f, 3.0f);
  const test::Tensor mask{{2, 1, 1, 5}, {1, 1, 1, 1, 1, 1, 1, 1, 0, 0}};
  const test::Tensor got = test::RunLayer("SoftmaxMask", {{"axis", -1}}, {x, mask});
  EXPECT_EQ(got.dims, x.dims);
  EXPECT_LE(test::ToleranceRatio(got.values, MaskedReference(x, mask), 1e-6, 1e-6), 1.0);
  // Masked keys give exactly 0.
  EXPECT_EQ(got.values[60 + 3], 0.0f);
  EXPECT_EQ(got.values[60 + 4], 0.0f);
}

TEST(SoftmaxMaskLayer, AFullyMaskedRowGivesZeros) {
  const test::Tensor x{{1, 1, 2, 3}, {1, 2, 3, 4, 5, 6}};
  const test::Tensor mask{{1, 1, 2, 3}, {0, 0, 0, 1, 0, 1}};
  const test::Tensor got = test::RunLayer("SoftmaxMask", {{"axis", 3}}, {x, mask});
  const float e = static_cast<float>(1.0 / (1.0 + std::exp(2.0)));
  EXPECT_EQ(got.values[0], 0.0f);
  EXPECT_EQ(got.values[2], 0.0f);
  EXPECT_FLOAT_EQ(got.values[3], e);
  EXPECT_EQ(got.values[4], 0.0f);
  EXPECT_FLOAT_EQ(got.values[5], 1.0f - e);
}

TEST(SoftmaxMaskLayer, Errors) {
  const std::string prefix = "net description: layer \"l\" (SoftmaxMask): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("SoftmaxMask", {}, {{2, 3}, {3, 2}})),
            prefix +
                "mask \"x1\" of shape [3, 2] does not broadcast to input \"x0\" of shape [2, 3]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("SoftmaxMask", {}, {{2, 3}})),
            prefix + "expects 2 input(s), has 1");
  test::ExpectBadParamsHandled("SoftmaxMask", {{"axis", 1}}, {{2, 3}, {1, 3}});
}

}  // namespace
}  // namespace qzdl
