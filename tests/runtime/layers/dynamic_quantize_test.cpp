// DynamicQuantizeLinear against the ONNX node data (test_dynamicquantizelinear,
// _max_adjusted, _min_adjusted: codes, scale and zero point exact), ties
// rounded to even, a constant input.
#include "runtime/layers/dynamic_quantize.h"

#include <gtest/gtest.h>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using test::Tensor;

std::vector<std::vector<float>> Quantize(const Tensor& x) {
  test::NetBuilder nb;
  nb.Input("x", x.dims).Layer("l", "DynamicQuantizeLinear", {"x"}, {"y", "scale", "zero"});
  auto net = nb.Build();
  std::vector<float> v = x.values;
  net->SetFloatInputData(v.data(), 0);
  net->ForwardAll();
  std::vector<std::vector<float>> out;
  for (int k = 0; k < 3; ++k) {
    const Data<float>* d = net->GetOutputData(k);
    out.emplace_back(d->GetCpuData(), d->GetCpuData() + d->Count(0));
  }
  return out;
}

TEST(DynamicQuantizeLinearLayer, MatchesOnnxCases) {
  for (const std::string name : {"test_dynamicquantizelinear", "test_dynamicquantizelinear_max_adjusted",
                                 "test_dynamicquantizelinear_min_adjusted"}) {
    SCOPED_TRACE(name);
    const auto out = Quantize(test::ToTensor(test::OnnxData("node", name, "input_0")));
    EXPECT_EQ(out[0], test::OnnxData("node", name, "output_0").values);
    EXPECT_EQ(out[1], test::OnnxData("node", name, "output_1").values);
    EXPECT_EQ(out[2], test::OnnxData("node", name, "output_2").values);
  }
}

TEST(DynamicQuantizeLinearLayer, HandComputed) {
  // Range [-1, 1.55] (0 inside): scale 0.01, zero round(100) = 100;
  // 0.005 / 0.01 = 0.5 rounds to 0 (even), 0.015 / 0.01 = 1.5 to 2.
  const auto out = Quantize(Tensor{{5}, {-1.0f, 1.55f, 0.005f, 0.015f, 0.0f}});
  EXPECT_EQ(out[1], (std::vector<float>{2.55f / 255.0f}));
  EXPECT_EQ(out[2], (std::vector<float>{100.0f}));
  EXPECT_EQ(out[0][0], 0.0f);
  EXPECT_EQ(out[0][1], 255.0f);
  EXPECT_EQ(out[0][4], 100.0f);
  // A constant input of zeros: scale 1, zero 0, codes 0.
  const auto zeros = Quantize(Tensor{{3}, {0.0f, 0.0f, 0.0f}});
  EXPECT_EQ(zeros[0], (std::vector<float>{0, 0, 0}));
  EXPECT_EQ(zeros[1], (std::vector<float>{1.0f}));
  EXPECT_EQ(zeros[2], (std::vector<float>{0.0f}));
}

}  // namespace
}  // namespace qzdl
