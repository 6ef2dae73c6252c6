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

void Conv(test::NetBuilder& b, const std::string& name, const std::string& in,
          const std::string& out, int cin, int cout, uint32_t seed) {
  b.Layer(name, "Convolution", {in}, {out}, Json::object{{"num_output", cout}, {"kernel_size", 3},
                                                          {"pad", 1}})
      .Weight(name, "weight", {cout, cin, 3, 3}, test::RandomVector(size_t(cout) * cin * 9, seed))
      .Weight(name, "bias", {cout}, test::RandomVector(cout, seed + 1));
}

// A fire-module-like net: two branches joined, the join joined again with a
// third branch, readers of the branches after the joins, a branch rewritten
// in place, a branch read after its join is rewritten, a net input and a
// branch given twice to one concat.
test::NetBuilder Branches(int batch) {
  test::NetBuilder b;
  b.Input("data", {batch, 4, 6, 5});
  Conv(b, "c1", "data", "c1_out", 4, 8, 1);
  b.Layer("relu1", "ReLU", {"c1_out"}, {"r1"});  // fused: the conv writes r1
  Conv(b, "c2", "data", "c2_out", 4, 8, 3);
  b.Layer("hs2", "Swish", {"c2_out"}, {"c2_out"}, Json::object{{"hard", true}});  // in place
  b.Layer("cat1", "Concat", {"r1", "c2_out"}, {"cat1"}, Json::object{{"axis", 1}});
  Conv(b, "c3", "r1", "c3_out", 8, 8, 5);  // reads r1 after the join
  b.Layer("cat2", "Concat", {"cat1", "c3_out"}, {"cat2"}, Json::object{{"axis", 1}});
  // cat3's output is rewritten in place before c4 reads c4_in: no view.
  Conv(b, "c4in", "data", "c4_in", 4, 4, 7);
  b.Layer("cat3", "Concat", {"c4_in", "data"}, {"cat3"}, Json::object{{"axis", 1}});
  b.Layer("relu3", "ReLU", {"cat3"}, {"cat3"});
  Conv(b, "c4", "c4_in", "c4_out", 4, 4, 9);
  Conv(b, "c5", "data", "c5_out", 4, 4, 11);
  b.Layer("cat4", "Concat", {"c5_out", "c5_out"}, {"cat4"}, Json::object{{"axis", 1}});
  b.Top("outputs", Json::array{"cat2", "cat3", "c4_out", "cat4"});
  return b;
}

std::vector<std::vector<float>> Outputs(Net<float>* net) {
  const std::vector<float> x = test::RandomVector(net->GetInputData(0)->Count(0), 42, -2.0f, 2.0f);
  net->SetFloatInputData(const_cast<float*>(x.data()), 0);
  net->ForwardAll();
  std::vector<std::vector<float>> outs;
  for (int k = 0; k < net->GetOutCount(); ++k) {
    const Data<float>* d = net->GetOutputData(k);
    outs.emplace_back(d->GetCpuData(), d->GetCpuData() + d->Count(0));
  }
  return outs;
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
  const auto want = Outputs(plain.get());
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
  EXPECT_EQ(Outputs(net.get()), want);
  // Twice, as the inputs now sit where the concat would copy them.
  EXPECT_EQ(Outputs(net.get()), want);
}

TEST(ConcatViews, OnlyWhereEachInputIsOneBlock) {
  auto plain = Branches(2).Build();
  const auto want = Outputs(plain.get());
  auto net = Branches(2).Build();
  net->SetInferenceMode(true);
  EXPECT_EQ(OffsetIn(net.get(), "r1", "cat1"), -1);
  EXPECT_EQ(OffsetIn(net.get(), "cat1", "cat2"), -1);
  EXPECT_EQ(Outputs(net.get()), want);
  // Down to one image: planned again with the new storage.
  net->ReshapeBatchNum(1, 0);
  EXPECT_EQ(OffsetIn(net.get(), "r1", "cat2"), 0);
  auto one = Branches(1).Build();
  EXPECT_EQ(Outputs(net.get()), Outputs(one.get()));
}

TEST(ConcatViews, GoneWithInferenceModeAndInFrugalMode) {
  auto net = Branches(1).Build();
  net->SetInferenceMode(true);
  ASSERT_EQ(OffsetIn(net.get(), "r1", "cat2"), 0);
  const auto fused = Outputs(net.get());
  net->SetInferenceMode(false);
  EXPECT_EQ(OffsetIn(net.get(), "r1", "cat2"), -1);
  EXPECT_EQ(OffsetIn(net.get(), "cat1", "cat2"), -1);
  EXPECT_EQ(Outputs(net.get()), fused);
  net->SetInferenceMode(true);
  net->SetFrugalMode(true);
  EXPECT_EQ(OffsetIn(net.get(), "cat1", "cat2"), -1);
  EXPECT_EQ(Outputs(net.get()), fused);
}

TEST(ConcatViews, AlongALaterAxisAndCountedByThePlanner) {
  test::NetBuilder b;
  b.Input("data", {1, 3, 4, 5});
  Conv(b, "c1", "data", "c1_out", 3, 3, 11);
  Conv(b, "c2", "data", "c2_out", 3, 3, 13);
  b.Layer("cat", "Concat", {"c1_out", "c2_out"}, {"cat"}, Json::object{{"axis", -1}});
  b.Top("outputs", Json::array{"cat"});
  auto plain = b.Build();
  const auto want = Outputs(plain.get());
  // Along the last axis of [1, 3, 4, 5]: 12 blocks per input, no view.
  auto net = b.Build();
  net->SetInferenceMode(true);
  EXPECT_EQ(OffsetIn(net.get(), "c2_out", "cat"), -1);
  EXPECT_EQ(Outputs(net.get()), want);

  test::NetBuilder first;
  first.Input("data", {3, 1, 4, 5});
  Conv(first, "c1", "data", "c1_out", 1, 1, 11);
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
