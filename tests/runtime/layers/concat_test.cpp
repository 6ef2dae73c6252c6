// Concat against the ONNX node and PyTorch-operator test data and a plain
// reference; shape checks. Concat copies values: results are exact.
#include "runtime/layers/concat.h"

#include <gtest/gtest.h>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using test::Tensor;

TEST(ConcatLayer, MatchesOnnxCases) {
  struct Case {
    std::string group;
    std::string name;
    int axis;
  };
  const std::vector<Case> cases = {
      {"node", "test_concat_1d_axis_0", 0},
      {"node", "test_concat_1d_axis_negative_1", -1},
      {"node", "test_concat_2d_axis_0", 0},
      {"node", "test_concat_2d_axis_1", 1},
      {"node", "test_concat_2d_axis_negative_1", -1},
      {"node", "test_concat_2d_axis_negative_2", -2},
      {"node", "test_concat_3d_axis_0", 0},
      {"node", "test_concat_3d_axis_1", 1},
      {"node", "test_concat_3d_axis_2", 2},
      {"node", "test_concat_3d_axis_negative_1", -1},
      {"node", "test_concat_3d_axis_negative_2", -2},
      {"node", "test_concat_3d_axis_negative_3", -3},
      {"pytorch-operator", "test_operator_concat2", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Tensor a = test::ToTensor(test::OnnxData(c.group, c.name, "input_0"));
    const Tensor b = test::ToTensor(test::OnnxData(c.group, c.name, "input_1"));
    const test::OnnxTensor want = test::OnnxData(c.group, c.name, "output_0");
    const Tensor got = test::RunLayer("Concat", {{"axis", c.axis}}, {a, b});
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_EQ(got.values, want.values);
  }
}

TEST(ConcatLayer, ThreeInputsOnTheDefaultAxis) {
  const Tensor a{{2, 1, 2}, {1, 2, 3, 4}};
  const Tensor b{{2, 2, 2}, {5, 6, 7, 8, 9, 10, 11, 12}};
  const Tensor c{{2, 1, 2}, {13, 14, 15, 16}};
  const Tensor got = test::RunLayer("Concat", {}, {a, b, c});
  EXPECT_EQ(got.dims, (std::vector<int>{2, 4, 2}));
  EXPECT_EQ(got.values,
            (std::vector<float>{1, 2, 5, 6, 7, 8, 13, 14, 3, 4, 9, 10, 11, 12, 15, 16}));
}

TEST(ConcatLayer, SingleInputIsACopy) {
  const Tensor a = test::RandomTensor({2, 3}, 4);
  EXPECT_EQ(test::RunLayer("Concat", {}, {a}).values, a.values);
}

TEST(ConcatLayer, RejectsMismatchedShapes) {
  const std::string prefix = "net description: layer \"l\" (Concat): ";
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Concat", {}, {{2, 3, 4}, {2, 3, 5}})),
            prefix +
                "input \"x1\" has shape [2, 3, 5], which does not match input \"x0\" of shape "
                "[2, 3, 4] on the axes other than axis 1");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Concat", {{"axis", 0}}, {{2, 3}, {2, 3, 1}})),
            prefix +
                "input \"x1\" has shape [2, 3, 1], which does not match input \"x0\" of shape "
                "[2, 3] on the axes other than axis 0");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Concat", {{"axis", 2}}, {{2, 3}, {2, 3}})),
            prefix + "param \"axis\" is 2, out of range for input \"x0\" of shape [2, 3]");
}

TEST(ConcatLayer, SurvivesBadParamValues) {
  test::ExpectBadParamsHandled("Concat", {{"axis", -1}}, {{2, 3, 4}, {2, 3, 1}});
}

TEST(ConcatLayer, SameBitsWithOneOrTwoThreads) {
  const std::vector<Tensor> xs = {test::RandomTensor({2, 5, 40, 40}, 51),
                                  test::RandomTensor({2, 7, 40, 40}, 52)};
  test::ExpectThreadIndependent("Concat", {}, xs);
  const std::vector<Tensor> rows = {test::RandomTensor({4000, 3}, 53),
                                    test::RandomTensor({4000, 9}, 54)};
  test::ExpectThreadIndependent("Concat", {{"axis", -1}}, rows);
}

}  // namespace
}  // namespace qzdl
