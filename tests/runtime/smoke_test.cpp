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
