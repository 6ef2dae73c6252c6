// Channel-blocked hand-off of inference mode: a convolution's output read
// only by convolutions stays in the library's layout between them.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "runtime/fusion.h"
#include "runtime/kernels/conv_dnnl.h"
#include "runtime/layers/convolution.h"
#include "runtime/net.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

using json11::Json;

// a -> ReLU (fused) -> b and c (two convolution readers) -> sum; b's output
// also goes to a pooling, c's through a Scale (fused: a per-channel affine
// on c's output, no hand-off from c), d writes a net output.
test::NetBuilder Chain(int batch) {
  test::NetBuilder b;
  b.Input("data", {batch, 16, 10, 9});
  b.Conv("a", "data", "a_out", 16, 32, 3, 1);
  b.Layer("relu", "ReLU", {"a_out"}, {"r"});
  b.Conv("b", "r", "b_out", 32, 32, 3, 3);
  b.Conv("c", "r", "c_out", 32, 32, 3, 5);
  b.Layer("scale", "Scale", {"c_out"}, {"s"}, Json::object{{"bias_term", true}})
      .Weight("scale", "scale", {32}, test::RandomVector(32, 7))
      .Weight("scale", "bias", {32}, test::RandomVector(32, 8));
  b.Conv("d", "s", "d_out", 32, 16, 3, 9);
  b.Layer("pool", "Pooling", {"b_out"}, {"p"},
          Json::object{{"pool", "max"}, {"kernel_size", 2}, {"stride", 2}});
  b.Top("outputs", Json::array{"d_out", "p"});
  return b;
}

int OutBlock(Net<float>* net, const std::string& layer) {
  return static_cast<ConvolutionLayer<float>*>(net->GetLayer(layer))->kernel().DstBlock();
}
int InBlock(Net<float>* net, const std::string& layer) {
  return static_cast<ConvolutionLayer<float>*>(net->GetLayer(layer))->kernel().SrcBlock();
}

TEST(BlockedHandoff, OnlyBetweenConvolutionsThatShareALayoutWithTheSameBits) {
  for (int batch : {8, 1}) {
    SCOPED_TRACE("batch " + std::to_string(batch));
    auto plain = Chain(batch).Build();
    const auto want = test::RunOutputs(plain.get());
    const std::vector<float> r_plain = test::TensorValues(plain.get(), "r");
    auto net = Chain(batch).Build();
    net->SetInferenceMode(true);
    // r goes from a to b and c when they read what a writes; nothing else
    // qualifies: b_out is read by a pooling, c's output has a fused affine,
    // d_out is a net output.
    const int block = OutBlock(net.get(), "a");
    const bool handed =
        block != 0 && InBlock(net.get(), "b") == block && InBlock(net.get(), "c") == block;
    EXPECT_EQ(net->BlockedHandoffs(), handed ? 1 : 0);
    EXPECT_EQ(test::RunOutputs(net.get()), want);
    std::vector<float> r = test::TensorValues(net.get(), "r");
    if (handed) {
      // The same values in another order.
      EXPECT_NE(r, r_plain);
      std::vector<float> sorted_plain = r_plain;
      std::sort(r.begin(), r.end());
      std::sort(sorted_plain.begin(), sorted_plain.end());
      EXPECT_EQ(r, sorted_plain);
    } else {
      EXPECT_EQ(r, r_plain);
    }
    EXPECT_EQ(test::RunOutputs(net.get()), want);
    // Off again: every tensor in NCHW.
    net->SetInferenceMode(false);
    EXPECT_EQ(net->BlockedHandoffs(), 0);
    EXPECT_EQ(test::RunOutputs(net.get()), want);
    EXPECT_EQ(test::TensorValues(net.get(), "r"), r_plain);
  }
}

#if defined(__x86_64__)
TEST(BlockedHandoff, HappensOnThisMachineWithTheLibrary) {
  if (!DnnlConvolution::Available()) GTEST_SKIP() << "built without the convolution library";
  // One image per work item (batch 8): the library's layout is whole.
  auto net = Chain(8).Build();
  net->SetInferenceMode(true);
  EXPECT_NE(OutBlock(net.get(), "a"), 0);
  EXPECT_EQ(net->BlockedHandoffs(), 1);
}
#endif

// Two convolutions summed (ReLU fused into the sum) and the sum convolved
// again: the sum runs on whatever layout its inputs and output share. With
// `pool`, a pooling also reads the sum, which keeps the group in NCHW.
test::NetBuilder Residual(bool pool) {
  test::NetBuilder b;
  b.Input("data", {8, 16, 10, 9});
  b.Conv("a", "data", "a_out", 16, 32, 3, 1);
  b.Conv("b", "a_out", "b_out", 32, 32, 3, 3);
  b.Conv("c", "a_out", "c_out", 32, 32, 3, 5);
  b.Layer("sum", "Eltwise", {"b_out", "c_out"}, {"s"});
  b.Layer("relu", "ReLU", {"s"}, {"r"});
  b.Conv("e", "r", "e_out", 32, 16, 3, 7);
  if (pool)
    b.Layer("pool", "Pooling", {"r"}, {"p"},
            Json::object{{"pool", "max"}, {"kernel_size", 2}, {"stride", 2}});
  b.Top("outputs", pool ? Json::array{"e_out", "p"} : Json::array{"e_out"});
  return b;
}

TEST(BlockedHandoff, ThroughAnElementwiseSumWhenAllItsTensorsShareTheLayout) {
  for (bool pool : {false, true}) {
    SCOPED_TRACE(pool ? "with a pooling reader" : "convolutions only");
    auto plain = Residual(pool).Build();
    const std::vector<float> x = test::RandomVector(8 * 16 * 10 * 9, 3, -2.0f, 2.0f);
    plain->SetFloatInputData(const_cast<float*>(x.data()), 0);
    plain->ForwardAll();
    auto net = Residual(pool).Build();
    net->SetInferenceMode(true);
    const int block = OutBlock(net.get(), "a");
    const bool first =
        block != 0 && InBlock(net.get(), "b") == block && InBlock(net.get(), "c") == block;
    const int sum_block = OutBlock(net.get(), "b");
    const bool sum = !pool && sum_block != 0 && OutBlock(net.get(), "c") == sum_block &&
                     InBlock(net.get(), "e") == sum_block;
    // a_out, then b_out, c_out and r (s is the fused sum's raw output).
    EXPECT_EQ(net->BlockedHandoffs(), (first ? 1 : 0) + (sum ? 3 : 0));
#if defined(__x86_64__)
    if (DnnlConvolution::Available()) {
      EXPECT_EQ(net->BlockedHandoffs(), pool ? 1 : 4);
    }
#endif
    net->SetFloatInputData(const_cast<float*>(x.data()), 0);
    net->ForwardAll();
    EXPECT_EQ(test::TensorValues(net.get(), "e_out"), test::TensorValues(plain.get(), "e_out"));
    if (pool) {
      EXPECT_EQ(test::TensorValues(net.get(), "p"), test::TensorValues(plain.get(), "p"));
    }
  }
}

TEST(BlockedHandoff, PlannerResetsEveryLayer) {
  auto net = Chain(8).Build();
  net->SetInferenceMode(true);
  EXPECT_EQ(PlanBlockedLayouts(net->GetLayers(), {"data", "d_out", "p"}, false), 0);
  auto plain = Chain(8).Build();
  EXPECT_EQ(test::RunOutputs(net.get()), test::RunOutputs(plain.get()));
  // Keeping r (as if it were a net output) stops its hand-off.
  EXPECT_EQ(PlanBlockedLayouts(net->GetLayers(), {"data", "d_out", "p", "r"}, true), 0);
  EXPECT_EQ(test::TensorValues(net.get(), "r"), test::TensorValues(plain.get(), "r"));
}

}  // namespace
}  // namespace qzdl
