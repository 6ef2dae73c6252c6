#include <gtest/gtest.h>

#include "support/net_builder.h"

namespace qzdl {
namespace {

TEST(NetSmoke, ReluNetRuns) {
  test::NetBuilder b;
  b.Input("data", {1, 2, 2, 2}).Layer("relu", "ReLU", {"data"}, {"out"});
  auto net = b.Build();
  std::vector<float> x = {-1, 2, -3, 4, 5, -6, 7, -8};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  ASSERT_EQ(net->GetOutCount(), 1);
  EXPECT_EQ(net->GetOutputDataName(0), "out");
  const float* y = net->GetFloatOutputData(0);
  std::vector<float> got(y, y + 8);
  EXPECT_EQ(got, (std::vector<float>{0, 2, 0, 4, 5, 0, 7, 0}));
}

}  // namespace
}  // namespace qzdl

#include "support/onnx_tensor.h"

namespace qzdl {
namespace {

TEST(OnnxTensorReader, ReadsNodeTestData) {
  const std::string dir = test::OnnxCase("node", "test_conv_with_strides_padding");
  test::OnnxTensor x = test::ReadOnnxTensor(dir + "/test_data_set_0/input_0.pb");
  EXPECT_EQ(x.dims, (std::vector<int64_t>{1, 1, 7, 5}));
  ASSERT_EQ(x.values.size(), 35u);
  EXPECT_EQ(x.values[0], 0.0f);
  EXPECT_EQ(x.values[34], 34.0f);
}

}  // namespace
}  // namespace qzdl
