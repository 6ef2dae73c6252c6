// Conv3D by hand and its errors. Against PyTorch: the seven ONNX
// pytorch-converted test_Conv3d* cases (groups, dilation, strides, padding,
// no bias) run through the importer in the conformance list.
#include "runtime/layers/conv3d.h"

#include <gtest/gtest.h>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

TEST(Conv3DLayer, HandComputed) {
  // One channel [1, 1, 2, 2, 2] of 1..8, a 2x2x2 kernel of ones with pad 1
  // on the front only: output [1, 1, 2, 1, 1]: the zero plane plus the
  // first, then the whole sum, plus the bias 0.5.
  const Tensor x{{1, 1, 2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}};
  const Tensor y = test::RunLayer(
      "Conv3D",
      {{"num_output", 1}, {"kernel_d", 2}, {"kernel_h", 2}, {"kernel_w", 2}, {"pad_front", 1}},
      {x}, {{"weight", {1, 1, 2, 2, 2}, std::vector<float>(8, 1.0f)}, {"bias", {1}, {0.5f}}});
  EXPECT_EQ(y.dims, (std::vector<int>{1, 1, 2, 1, 1}));
  EXPECT_EQ(y.values, (std::vector<float>{10.5f, 36.5f}));
}

TEST(Conv3DLayer, Errors) {
  const std::string prefix = "net description: layer \"l\" (Conv3D): ";
  const Json::object p = {{"num_output", 2}, {"kernel_d", 3}, {"kernel_h", 1}, {"kernel_w", 1}};
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Conv3D", p, {{1, 2, 3, 4}})),
            prefix + "input \"x0\" has shape [1, 2, 3, 4]; it must be [N, C, D, H, W]");
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Conv3D", p, {{1, 2, 2, 4, 4}})),
            prefix + "the kernel (extent 3) is larger than axis d of input \"x0\" with its pads (2)");
  Json::object grouped = p;
  grouped["group"] = 2;
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Conv3D", grouped, {{1, 3, 4, 4, 4}})),
            prefix + "input \"x0\" has 3 channels, which group 2 does not divide");
  grouped["group"] = 3;
  EXPECT_EQ(test::BuildError(test::OneLayerNet("Conv3D", grouped, {{1, 3, 4, 4, 4}})),
            prefix + "param \"group\" 3 must be positive and divide num_output 2");
  test::ExpectBadParamsHandled("Conv3D", p, {{1, 2, 4, 4, 4}},
                               {{"weight", {2, 2, 3, 1, 1}, std::vector<float>(12, 0.5f)},
                                {"bias", {2}, {0.0f, 1.0f}}});
}

}  // namespace
}  // namespace qzdl
