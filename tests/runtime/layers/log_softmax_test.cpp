// LogSoftmax against the ONNX node and PyTorch-converted test data and a
// double reference on random shapes and axes; errors, in-place use and
// thread-count independence.
#include "runtime/layers/log_softmax.h"

#include <gtest/gtest.h>

#include <cmath>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// exp and log in double, one rounding: within 1e-6 absolute + 1e-5 relative.
constexpr double kAtol = 1e-6, kRtol = 1e-5;

TEST(LogSoftmaxLayer, MatchesOnnxCases) {
  struct Case {
    std::string group;
    std::string name;
    int axis;
  };
  // ONNX's default axis (opset 13) is -1; ours is 1, so it is always given.
  for (const Case& c :
       {Case{"node", "test_logsoftmax_axis_0", 0}, Case{"node", "test_logsoftmax_axis_1", 1},
        Case{"node", "test_logsoftmax_axis_2", 2}, Case{"node", "test_logsoftmax_default_axis", -1},
        Case{"node", "test_logsoftmax_example_1", -1},
        Case{"node", "test_logsoftmax_large_number", -1},
        Case{"node", "test_logsoftmax_negative_axis", -1},
        Case{"pytorch-converted", "test_LogSoftmax", 1}}) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData(c.group, c.name, "input_0"));
    const test::OnnxTensor want = test::OnnxData(c.group, c.name, "output_0");
    const Tensor got = test::RunLayer("LogSoftmax", {{"axis", c.axis}}, {x});
    EXPECT_EQ(got.dims, want.IntDims());
    EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAtol, kRtol), 1.0);
  }
}

// log softmax in double over `axis`.
std::vector<float> Reference(const Tensor& x, int axis) {
  int64_t outer = 1, inner = 1;
  for (int k = 0; k < axis; ++k) outer *= x.dims[k];
  for (size_t k = axis + 1; k < x.dims.size(); ++k) inner *= x.dims[k];
  const int64_t dim = x.dims[axis];
  std::vector<float> y(x.values.size());
  for (int64_t o = 0; o < outer; ++o)
    for (int64_t i = 0; i < inner; ++i) {
      double mx = -INFINITY, sum = 0.0;
      for (int64_t d = 0; d < dim; ++d)
        mx = std::max<double>(mx, x.values[(o * dim + d) * inner + i]);
      for (int64_t d = 0; d < dim; ++d) sum += std::exp(x.values[(o * dim + d) * inner + i] - mx);
      for (int64_t d = 0; d < dim; ++d) {
        const int64_t at = (o * dim + d) * inner + i;
        y[at] = static_cast<float>(x.values[at] - mx - std::log(sum));
      }
    }
  return y;
}

TEST(LogSoftmaxLayer, MatchesReferenceOnRandomShapes) {
  const std::vector<std::vector<int>> shapes = {{2, 70, 3}, {3, 5, 130}, {1, 1}, {4, 9, 2, 3}};
  uint32_t seed = 41;
  for (const auto& dims : shapes)
    for (int axis = 0; axis < static_cast<int>(dims.size()); ++axis) {
      SCOPED_TRACE(DimsToString(dims) + " axis " + std::to_string(axis));
      const Tensor x = test::RandomTensor(dims, seed++, -20.0f, 20.0f);
      const Tensor got = test::RunLayer("LogSoftmax", {{"axis", axis}}, {x});
      EXPECT_LE(test::ToleranceRatio(got.values, Reference(x, axis), kAtol, kRtol), 1.0);
    }
}

TEST(LogSoftmaxLayer, DefaultAxisIsOne) {
  auto net = test::OneLayerNet("LogSoftmax", {}, {{2, 3, 4}}).Build();
  auto* layer = dynamic_cast<LogSoftmaxLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(layer, nullptr);
  EXPECT_EQ(layer->Axis(), 1);
  const Tensor x = test::RandomTensor({2, 3, 4}, 40);
  EXPECT_EQ(test::RunLayer("LogSoftmax", {}, {x}).values,
            test::RunLayer("LogSoftmax", {{"axis", 1}}, {x}).values);
}

TEST(LogSoftmaxLayer, RejectsBadParams) {
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LogSoftmax", {{"axis", 3}}, {{2, 3, 4}})),
            "net description: layer \"l\" (LogSoftmax): param \"axis\" is 3, out of range for "
            "input \"x0\" of shape [2, 3, 4]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("LogSoftmax", {{"axis", -4}}, {{2, 3, 4}})),
            "net description: layer \"l\" (LogSoftmax): param \"axis\" is -4, out of range for "
            "input \"x0\" of shape [2, 3, 4]");
  test::ExpectBadParamsHandled("LogSoftmax", {{"axis", 2}}, {{2, 3, 4}});
}

TEST(LogSoftmaxLayer, InPlaceAndThreadIndependent) {
  const Tensor x = test::RandomTensor({2, 6, 64, 60}, 42, -8.0f, 8.0f);
  for (int axis : {1, 3}) {
    SCOPED_TRACE(axis);
    test::ExpectInPlaceSame("LogSoftmax", {{"axis", axis}}, {x});
    test::ExpectThreadIndependent("LogSoftmax", {{"axis", axis}}, {x});
  }
}

}  // namespace
}  // namespace qzdl
