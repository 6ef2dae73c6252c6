#include "runtime/net.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/net_builder.h"
#include "support/test_layers.h"

namespace qzdl {
namespace {

class NetTest : public ::testing::Test {
 protected:
  void SetUp() override { test::RegisterTestLayers(); }

  // data -> a (x2,x3) -> x -> relu -> y -> b (x1,x1, in place on y) -> y
  static test::NetBuilder Chain() {
    test::NetBuilder b;
    b.Input("data", {1, 2, 1, 2})
        .Layer("a", "TestAffine", {"data"}, {"x"})
        .Weight("a", "weight", {2}, {2.0f, 3.0f})
        .Layer("relu", "ReLU", {"x"}, {"y"})
        .Layer("b", "TestAffine", {"y"}, {"y"}, {{"has_bias", true}})
        .Weight("b", "weight", {2}, {1.0f, 1.0f})
        .Weight("b", "bias", {2}, {0.5f, 0.5f});
    return b;
  }
};

TEST_F(NetTest, LayersInputsAndOutputs) {
  auto net = Chain().Build();
  ASSERT_EQ(net->GetLayers().size(), 3u);
  EXPECT_EQ(net->GetLayers()[1]->GetName(), "relu");
  EXPECT_EQ(net->GetLayer("b")->GetType(), "TestAffine");
  EXPECT_EQ(net->GetLayer("nope"), nullptr);
  EXPECT_EQ(net->GetInputCount(), 1);
  EXPECT_EQ(net->GetInputDataName(0), "data");
  EXPECT_EQ(net->GetInputData("data"), net->GetInputData(0));
  EXPECT_EQ(net->GetInputData("x"), nullptr);
  ASSERT_EQ(net->GetOutCount(), 1);
  EXPECT_EQ(net->GetOutputDataName(0), "y");
}

TEST_F(NetTest, InPlaceLayerSharesOneTensorAndIsStaged) {
  auto net = Chain().Build();
  Layer<float>* b = net->GetLayer("b");
  Layer<float>* relu = net->GetLayer("relu");
  EXPECT_EQ(b->GetOutputs()[0], relu->GetOutputs()[0]);  // one Data for "y"
  EXPECT_EQ(b->GetInputs()[0]->GetName(), "y");
  std::vector<float> x = {1, -1, 2, 3};
  net->SetFloatInputDataByName(x.data(), "data");
  net->ForwardAll();
  const float* y = net->GetFloatOutputData(0);
  // relu(2, -2, 6, 9) + 0.5; the test layer clears its output before reading,
  // so a wrong result here means the in-place input was not staged.
  EXPECT_EQ(std::vector<float>(y, y + 4), (std::vector<float>{2.5f, 0.5f, 6.5f, 9.5f}));
}

TEST_F(NetTest, PerLayerForwardAndForwardFromTo) {
  auto net = Chain().Build();
  std::vector<float> x = {1, -1, 2, 3};
  net->SetFloatInputData(x.data(), 0);
  for (Layer<float>* l : net->GetLayers()) l->Forward();
  std::vector<float> full(net->GetFloatOutputData(0), net->GetFloatOutputData(0) + 4);
  // Re-run from the relu on changed intermediate values.
  float* xt = net->GetLayer("a")->GetOutputs()[0]->GetCpuData();
  for (int i = 0; i < 4; ++i) xt[i] = -1.0f;
  net->ForwardFromTo(1, static_cast<int>(net->GetLayers().size()), false);
  const float* y = net->GetFloatOutputData(0);
  EXPECT_EQ(std::vector<float>(y, y + 4), (std::vector<float>{0.5f, 0.5f, 0.5f, 0.5f}));
  net->ForwardAll();
  EXPECT_EQ(std::vector<float>(y, y + 4), full);
}

TEST_F(NetTest, ReshapeBatchNumChangesEveryShape) {
  auto net = Chain().Build();
  net->ReshapeBatchNum(3, 0);
  EXPECT_EQ(net->GetInputData(0)->GetDims(), (std::vector<int>{3, 2, 1, 2}));
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{3, 2, 1, 2}));
  EXPECT_EQ(net->GetOutputCount(0), 12);
  std::vector<float> x(12, 1.0f);
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  EXPECT_EQ(net->GetFloatOutputData(0)[11], 3.5f);
}

TEST_F(NetTest, FrugalForwardFreesIntermediatesAfterTheirLastReader) {
  auto net = Chain().Build(true);
  Data<float>* x = net->GetLayer("a")->GetOutputs()[0];
  EXPECT_EQ(x->GetCpuData(), nullptr);  // on demand in frugal mode
  std::vector<float> in = {1, -1, 2, 3};
  net->SetFloatInputData(in.data(), 0);
  net->GetLayers()[0]->Forward();
  ASSERT_NE(x->GetCpuData(), nullptr);  // readable right after its producer
  EXPECT_EQ(x->GetCpuData()[3], 9.0f);
  net->GetLayers()[1]->Forward();
  EXPECT_EQ(x->GetCpuData(), nullptr);  // the relu was its last reader
  net->GetLayers()[2]->Forward();
  const float* y = net->GetFloatOutputData(0);
  EXPECT_EQ(std::vector<float>(y, y + 4), (std::vector<float>{2.5f, 0.5f, 6.5f, 9.5f}));
  EXPECT_NE(net->GetInputData(0)->GetCpuData(), nullptr);  // net inputs stay
}

TEST_F(NetTest, LeavingFrugalModeAndReshapingKeepsEverything) {
  auto net = Chain().Build(true);
  net->SetFrugalMode(false);
  net->Reshape(true, 0);
  std::vector<float> in = {1, -1, 2, 3};
  net->SetFloatInputData(in.data(), 0);
  net->ForwardAll();
  ASSERT_NE(net->GetLayer("a")->GetOutputs()[0]->GetCpuData(), nullptr);
  EXPECT_EQ(net->GetLayer("a")->GetOutputs()[0]->GetCpuData()[3], 9.0f);
}

TEST_F(NetTest, Int8ConfigIsSharedByPointer) {
  auto a = Chain().Build();
  auto b = Chain().Build();
  INT8Config* own = a->GetInt8Config();
  ASSERT_NE(own, nullptr);
  EXPECT_TRUE(own->DataConfigs().empty());
  INT8Config shared;
  shared.addDataConfig("y", -1.0f, 1.0f);
  a->SetInt8Config(&shared);
  b->SetInt8Config(&shared);
  EXPECT_EQ(a->GetInt8Config(), &shared);
  a->GetInt8Config()->GetDataConfig("y")->update(0.0f, 25.5f);
  EXPECT_EQ(b->GetInt8Config()->GetDataConfig("y")->getScale(), 0.1f);
}

TEST_F(NetTest, ExplicitOutputsList) {
  auto b = Chain();
  b.Top("outputs", json11::Json::array{"x", "y"});
  auto net = b.Build();
  ASSERT_EQ(net->GetOutCount(), 2);
  EXPECT_EQ(net->GetOutputDataName(0), "x");
  EXPECT_EQ(net->GetOutputDataName(1), "y");
}

TEST_F(NetTest, LayerJsonAndDefaults) {
  auto net = Chain().Build();
  Layer<float>* b = net->GetLayer("b");
  EXPECT_EQ(b->GetJson()["param"]["has_bias"].bool_value(), true);
  EXPECT_EQ(b->GetJson()["name"].string_value(), "b");
  EXPECT_EQ(b->GetTypeDetail(), "TestAffine");
  EXPECT_EQ(b->GetChannelNum(), 2);
  EXPECT_EQ(b->GetWeights().size(), 2u);
  EXPECT_EQ(net->GetLayer("relu")->GetChannelNum(), 0);
}

// The four operations reached through the table of virtual functions occupy
// its first four slots, in this order. On the Itanium C++ ABI a pointer to a
// virtual member holds the slot's byte offset (plus 1 on x86-64; on AArch64
// the offset is kept as is and the flag lives in the adjustment word).
template <typename M>
ptrdiff_t SlotOffset(M member) {
  struct Repr {
    ptrdiff_t ptr;
    ptrdiff_t adj;
  } r;
  static_assert(sizeof(M) == sizeof(Repr), "unexpected member pointer layout");
  std::memcpy(&r, &member, sizeof r);
#if defined(__aarch64__) || defined(__arm__)
  return r.ptr;
#else
  return r.ptr - 1;
#endif
}

TEST(LayerVtable, ContractOperationsComeFirstInOrder) {
  const ptrdiff_t slot = sizeof(void*);
  EXPECT_EQ(SlotOffset(&Layer<float>::Forward), 0 * slot);
  EXPECT_EQ(SlotOffset(&Layer<float>::GetTypeDetail), 1 * slot);
  EXPECT_EQ(SlotOffset(&Layer<float>::GetChannelNum), 2 * slot);
  EXPECT_EQ(SlotOffset(&Layer<float>::GetJson), 3 * slot);
}

}  // namespace
}  // namespace qzdl

namespace qzdl {
namespace {

TEST(NetEmptyBatch, BatchZeroLeavesNothingToRun) {
  test::RegisterTestLayers();
  test::NetBuilder b;
  b.Input("data", {2, 3}).Layer("relu", "ReLU", {"data"}, {"out"});
  auto net = b.Build();
  net->ReshapeBatchNum(0, 0);
  EXPECT_EQ(net->GetInputData(0)->GetDims(), (std::vector<int>{0, 3}));
  EXPECT_EQ(net->GetOutputData(0)->Count(0), 0);
  EXPECT_EQ(net->GetOutputData(0)->GetCpuData(), nullptr);
  net->ForwardAll();  // nothing to compute, nothing touched
  net->ReshapeBatchNum(2, 0);
  std::vector<float> x = {-1, 2, -3, 4, -5, 6};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  EXPECT_EQ(net->GetFloatOutputData(0)[5], 6.0f);
}

}  // namespace
}  // namespace qzdl
