// Concat views of inference mode: inputs of a concat stored in its output.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/fusion.h"
#include "runtime/net.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

using json11::Json;

// A fire-module-like net: two branches joined, the join joined again with a
// third branch, readers of the branches after the joins, a branch rewritten
// in place, a branch read after its join is rewritten, a net input and a
// branch given twice to one concat.
test::NetBuilder Branches(int batch) {
  test::NetBuilder b;
  b.Input("data", {batch, 4, 6, 5});
  b.Conv("c1", "data", "c1_out", 4, 8, 3, 1);
  b.Layer("relu1", "ReLU", {"c1_out"}, {"r1"});  // fused: the conv writes r1
  b.Conv("c2", "data", "c2_out", 4, 8, 3, 3);
  b.Layer("hs2", "Swish", {"c2_out"}, {"c2_out"}, Json::object{{"hard", true}});  // in place
  b.Layer("cat1", "Concat", {"r1", "c2_out"}, {"cat1"}, Json::object{{"axis", 1}});
  b.Conv("c3", "r1", "c3_out", 8, 8, 3, 5);  // reads r1 after the join
  b.Layer("cat2", "Concat", {"cat1", "c3_out"}, {"cat2"}, Json::object{{"axis", 1}});
  // cat3's output is rewritten in place before c4 reads c4_in: no view.
  b.Conv("c4in", "data", "c4_in", 4, 4, 3, 7);
  b.Layer("cat3", "Concat", {"c4_in", "data"}, {"cat3"}, Json::object{{"axis", 1}});
  b.Layer("relu3", "ReLU", {"cat3"}, {"cat3"});
  b.Conv("c4", "c4_in", "c4_out", 4, 4, 3, 9);
  b.Conv("c5", "data", "c5_out", 4, 4, 3, 11);
  b.Layer("cat4", "Concat", {"c5_out", "c5_out"}, {"cat4"}, Json::object{{"axis", 1}});
  b.Top("outputs", Json::array{"cat2", "cat3", "c4_out", "cat4"});
  return b;
}

// Where tensor `name` is stored within tensor `in`: its offset in elements,
// or -1 when it has storage of its own.

int64_t OffsetIn(Net<float>* net, const std::string& name, const std::string& in) {
  const float* p = net->GetData(name)->GetCpuData();
  const Data<float>* whole = net->GetData(in);
  const float* begin = whole->GetCpuData();
  if (p < begin || p >= begin + whole->Count(0)) return -1;
  return p - begin;
}

TEST(ConcatViews, BranchesAreStoredInTheJoinAndTheOutputsKeepTheirBits) {
  auto plain = Branches(1).Build();
  const auto want = test::RunOutputs(plain.get());
  auto net = Branches(1).Build();
  net->SetInferenceMode(true);
  // cat1 lies in cat2, so r1 and c2_out lie in cat2 too.
  EXPECT_EQ(OffsetIn(net.get(), "cat1", "cat2"), 0);
  EXPECT_EQ(OffsetIn(net.get(), "c3_out", "cat2"), 16 * 30);
  EXPECT_EQ(OffsetIn(net.get(), "r1", "cat2"), 0);
  EXPECT_EQ(OffsetIn(net.get(), "c2_out", "cat2"), 8 * 30);
  // Net inputs, doubled inputs and tensors read after an in-place rewrite of
  // the join keep their own storage.
  EXPECT_EQ(OffsetIn(net.get(), "data", "cat3"), -1);
  EXPECT_EQ(OffsetIn(net.get(), "c4_in", "cat3"), -1);
  EXPECT_EQ(OffsetIn(net.get(), "c5_out", "cat4"), -1);
  EXPECT_EQ(test::RunOutputs(net.get()), want);
  // Twice, as the inputs now sit where the concat would copy them.
  EXPECT_EQ(test::RunOutputs(net.get()), want);
}

TEST(ConcatViews, OnlyWhereEachInputIsOneBlock) {
  auto plain = Branches(2).Build();
  const auto want = test::RunOutputs(plain.get());
  auto net = Branches(2).Build();
  net->SetInferenceMode(true);
  // Per image: c2 (read by cat1 alone) spaces its images into cat1; r1
  // (also read by c3) and cat1 (written by a concat) keep their storage.
  EXPECT_EQ(OffsetIn(net.get(), "c2_out", "cat1"), 8 * 30);
  EXPECT_EQ(OffsetIn(net.get(), "r1", "cat1"), -1);
  EXPECT_EQ(OffsetIn(net.get(), "cat1", "cat2"), -1);
  EXPECT_EQ(test::RunOutputs(net.get()), want);
  // Down to one image: planned again with the new storage.
  net->ReshapeBatchNum(1, 0);
  EXPECT_EQ(OffsetIn(net.get(), "r1", "cat2"), 0);
  auto one = Branches(1).Build();
  EXPECT_EQ(test::RunOutputs(net.get()), test::RunOutputs(one.get()));
}

// Every convolution path (depthwise, 1x1 GEMM, the library's primitive or
// im2col) and a pooling, joined on channels at a batch of 3.
test::NetBuilder Paths() {
  test::NetBuilder b;
  b.Input("data", {3, 8, 9, 7});
  b.Layer("dw", "Convolution", {"data"}, {"dw_out"},
          Json::object{{"num_output", 8}, {"kernel_size", 3}, {"pad", 1}, {"group", 8}})
      .Weight("dw", "weight", {8, 1, 3, 3}, test::RandomVector(72, 21))
      .Weight("dw", "bias", {8}, test::RandomVector(8, 22));
  b.Layer("relu", "ReLU", {"dw_out"}, {"r"});
  b.Layer("pw", "Convolution", {"data"}, {"pw_out"},
          Json::object{{"num_output", 16}, {"kernel_size", 1}, {"bias_term", false}})
      .Weight("pw", "weight", {16, 8, 1, 1}, test::RandomVector(128, 23));
  b.Conv("c3", "data", "c3_out", 8, 32, 3, 25);
  b.Layer("pool", "Pooling", {"data"}, {"p"},
          Json::object{{"pool", "max"}, {"kernel_size", 3}, {"stride", 1}, {"pad", 1}});
  b.Layer("cat", "Concat", {"r", "pw_out", "p", "c3_out"}, {"cat"}, Json::object{{"axis", 1}});
  b.Top("outputs", Json::array{"cat"});
  return b;
}

TEST(ConcatViews, ConvolutionsWriteTheirImagesIntoTheJoin) {
  auto plain = Paths().Build();
  const auto want = test::RunOutputs(plain.get());
  auto net = Paths().Build();
  net->SetInferenceMode(true);
  EXPECT_EQ(OffsetIn(net.get(), "r", "cat"), 0);
  EXPECT_EQ(OffsetIn(net.get(), "pw_out", "cat"), 8 * 63);
  EXPECT_EQ(OffsetIn(net.get(), "p", "cat"), -1);  // a pooling writes dense images
  EXPECT_EQ(OffsetIn(net.get(), "c3_out", "cat"), 32 * 63);
  EXPECT_EQ(test::RunOutputs(net.get()), want);
  EXPECT_EQ(test::RunOutputs(net.get()), want);
  // Dense again without the mode.
  net->SetInferenceMode(false);
  EXPECT_EQ(OffsetIn(net.get(), "pw_out", "cat"), -1);
  EXPECT_EQ(test::RunOutputs(net.get()), want);
  EXPECT_EQ(test::TensorValues(net.get(), "pw_out"), test::TensorValues(plain.get(), "pw_out"));
}

TEST(ConcatViews, GoneWithInferenceModeAndInFrugalMode) {
  auto net = Branches(1).Build();
  net->SetInferenceMode(true);
  ASSERT_EQ(OffsetIn(net.get(), "r1", "cat2"), 0);
  const auto fused = test::RunOutputs(net.get());
  net->SetInferenceMode(false);
  EXPECT_EQ(OffsetIn(net.get(), "r1", "cat2"), -1);
  EXPECT_EQ(OffsetIn(net.get(), "cat1", "cat2"), -1);
  EXPECT_EQ(test::RunOutputs(net.get()), fused);
  net->SetInferenceMode(true);
  net->SetFrugalMode(true);
  EXPECT_EQ(OffsetIn(net.get(), "cat1", "cat2"), -1);
  EXPECT_EQ(test::RunOutputs(net.get()), fused);
}

TEST(ConcatViews, AlongALaterAxisAndCountedByThePlanner) {
  test::NetBuilder b;
  b.Input("data", {1, 3, 4, 5});
  b.Conv("c1", "data", "c1_out", 3, 3, 3, 11);
  b.Conv("c2", "data", "c2_out", 3, 3, 3, 13);
  b.Layer("cat", "Concat", {"c1_out", "c2_out"}, {"cat"}, Json::object{{"axis", -1}});
  b.Top("outputs", Json::array{"cat"});
  auto plain = b.Build();
  const auto want = test::RunOutputs(plain.get());
  // Along the last axis of [1, 3, 4, 5]: 12 blocks per input, no view.
  auto net = b.Build();
  net->SetInferenceMode(true);
  EXPECT_EQ(OffsetIn(net.get(), "c2_out", "cat"), -1);
  EXPECT_EQ(test::RunOutputs(net.get()), want);

  test::NetBuilder first;
  first.Input("data", {3, 1, 4, 5});
  first.Conv("c1", "data", "c1_out", 1, 1, 3, 11);
  first.Layer("cat", "Concat", {"c1_out", "data"}, {"cat"}, Json::object{{"axis", 0}});
  first.Top("outputs", Json::array{"cat"});
  auto batch_axis = first.Build();
  std::vector<Data<float>*> viewed;
  // Along the batch axis every input is one block at any batch.
  EXPECT_EQ(PlanConcatViews(batch_axis->GetLayers(), {"data", "cat"}, true, &viewed), 1);
  ASSERT_EQ(viewed.size(), 1u);
  EXPECT_EQ(viewed[0]->GetName(), "c1_out");
  EXPECT_EQ(OffsetIn(batch_axis.get(), "c1_out", "cat"), 0);
  EXPECT_EQ(PlanConcatViews(batch_axis->GetLayers(), {"data", "cat"}, false, &viewed), 0);
  EXPECT_TRUE(viewed.empty());
  EXPECT_EQ(OffsetIn(batch_axis.get(), "c1_out", "cat"), -1);
}

}  // namespace
}  // namespace qzdl
