// Gemm against the ONNX node data (test_gemm_*, B and C as weights, a
// scalar or one-element C repeated over the row; and every operand an
// input), its params and errors.
#include "runtime/layers/gemm_layer.h"

#include <gtest/gtest.h>

#include <fstream>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// Products in double, rounded once: within 1e-6 absolute + 1e-6 relative.
constexpr double kAtol = 1e-6, kRtol = 1e-6;

TEST(GemmLayer, MatchesOnnxCases) {
  struct Case {
    std::string name;
    Json::object param;
    bool bias;
  };
  for (const Case& c :
       {Case{"test_gemm_all_attributes",
             {{"alpha", 0.25}, {"beta", 0.3499999940395355}, {"transA", true}, {"transB", true}},
             true},
        Case{"test_gemm_alpha", {{"alpha", 0.5}}, true},
        Case{"test_gemm_beta", {{"beta", 0.5}}, true},
        Case{"test_gemm_default_no_bias", {{"bias_term", false}}, false},
        Case{"test_gemm_default_scalar_bias", {}, true},
        Case{"test_gemm_default_single_elem_vector_bias", {}, true},
        Case{"test_gemm_default_vector_bias", {}, true},
        Case{"test_gemm_default_zero_bias", {}, true},
        Case{"test_gemm_transposeA", {{"transA", true}}, true},
        Case{"test_gemm_transposeB", {{"transB", true}}, true}}) {
    SCOPED_TRACE(c.name);
    auto in = [&](int i) { return test::OnnxData("node", c.name, "input_" + std::to_string(i)); };
    const test::OnnxTensor want = test::OnnxData("node", c.name, "output_0");
    const int n = static_cast<int>(want.dims[1]);
    Json::object param = c.param;
    param["num_output"] = n;
    const test::OnnxTensor b = in(1);
    std::vector<test::WeightInit> w = {{"B", b.IntDims(), b.values}};
    if (c.bias) {
      const test::OnnxTensor cb = in(2);
      std::vector<float> row(n);
      for (int j = 0; j < n; ++j) row[j] = cb.values[cb.Count() == 1 ? 0 : j];
      w.push_back({"C", {n}, row});
    }
    const Tensor got = test::RunLayer("Gemm", param, {test::ToTensor(in(0))}, w);
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

// B (and C) as inputs: every ONNX case with its operands fed, C in its own
// shape (scalar, [1], [N], [M, N]) broadcast to the output.
TEST(GemmLayer, MatchesOnnxCasesWithComputedOperands) {
  struct Case {
    std::string name;
    Json::object param;
  };
  for (const Case& c :
       {Case{"test_gemm_all_attributes",
             {{"alpha", 0.25}, {"beta", 0.3499999940395355}, {"transA", true}, {"transB", true}}},
        Case{"test_gemm_alpha", {{"alpha", 0.5}}}, Case{"test_gemm_beta", {{"beta", 0.5}}},
        Case{"test_gemm_default_matrix_bias", {}}, Case{"test_gemm_default_no_bias", {}},
        Case{"test_gemm_default_scalar_bias", {}},
        Case{"test_gemm_default_single_elem_vector_bias", {}},
        Case{"test_gemm_default_vector_bias", {}}, Case{"test_gemm_transposeA", {{"transA", true}}},
        Case{"test_gemm_transposeB", {{"transB", true}}}}) {
    SCOPED_TRACE(c.name);
    std::vector<Tensor> inputs;
    for (int i = 0; i < 3; ++i) {
      const std::string file =
          test::OnnxCase("node", c.name) + "/test_data_set_0/input_" + std::to_string(i) + ".pb";
      if (!std::ifstream(file).good()) break;
      Tensor t = test::ToTensor(test::ReadOnnxTensor(file));
      if (t.dims.empty()) t.dims = {1};  // a scalar C
      inputs.push_back(t);
    }
    Json::object param = c.param;
    param["bias_term"] = false;
    const test::OnnxTensor want = test::OnnxData("node", c.name, "output_0");
    const Tensor got = test::RunLayer("Gemm", param, inputs);
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

TEST(GemmLayer, ParamsAndErrors) {
  const std::string prefix = "net description: layer \"l\" (Gemm): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gemm", {}, {{2, 3}})),
            prefix + "missing param \"num_output\"");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gemm", {{"num_output", 0}}, {{2, 3}})),
            prefix + "param \"num_output\" must be at least 1, got 0");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gemm", {{"num_output", 2}}, {{2, 3, 4}})),
            prefix + "input \"x0\" has shape [2, 3, 4]; it must have 2 axes");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gemm", {{"num_output", 2}}, {{2, 3}},
                                               {{"B", {3, 2}, std::vector<float>(6, 1.0f)}})),
            "weights: layer \"l\": blob \"C\" is missing (expected shape [2])");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gemm", {{"bias_term", true}}, {{2, 3}, {3, 4}})),
            prefix + "param \"bias_term\" must be false when B is an input (C is the third input)");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("Gemm", {{"bias_term", false}}, {{2, 3}, {4, 5}})),
      prefix + "inputs \"x0\" of shape [2, 3] and \"x1\" of shape [4, 5] do not make a product");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Gemm", {{"bias_term", false}, {"num_output", 6}},
                                               {{2, 3}, {3, 5}})),
            prefix +
                "inputs \"x0\" of shape [2, 3] and \"x1\" of shape [3, 5] do not make a "
                "product of 6 columns");
  EXPECT_EQ(
      test::BuildError(test::OneLayerNet("Gemm", {{"bias_term", false}}, {{2, 3}, {3, 5}, {3, 5}})),
      prefix + "input \"x2\" of shape [3, 5] does not broadcast to the product's [2, 5]");
  test::ExpectBadParamsHandled(
      "Gemm", {{"num_output", 2}, {"transB", true}}, {{2, 3}},
      {{"B", {2, 3}, std::vector<float>(6, 0.5f)}, {"C", {2}, std::vector<float>(2, 0.25f)}});
}

}  // namespace
}  // namespace qzdl
