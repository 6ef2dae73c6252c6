// Constant: its tensor feeds BroadcastOp and Concat, keeps its shape when the
// net changes batch, is remade on every forward in frugal mode; errors.
// Arange against torch.arange fixtures; shapes and errors.
#include "runtime/layers/constant.h"

#include <gtest/gtest.h>

#include "elementwise_test_support.h"
#include "runtime/net.h"

namespace qzdl {
namespace {

using json11::Json;

std::vector<float> Output(Net<float>* net, const std::string& name) {
  Data<float>* d = net->GetData(name);
  return std::vector<float>(d->GetCpuData(), d->GetCpuData() + d->Count(0));
}

test::NetBuilder AddConstantNet() {
  test::NetBuilder b;
  b.Input("x", {2, 3})
      .Layer("c", "Constant", {}, {"k"}, {{"dims", Json::array{3}}})
      .Layer("add", "BroadcastOp", {"x", "k"}, {"y"}, {{"operation", "add"}})
      .Weight("c", "value", {3}, {10.0f, 20.0f, 30.0f});
  return b;
}

TEST(ConstantLayer, FeedsBroadcastOp) {
  for (bool frugal : {false, true}) {
    SCOPED_TRACE(frugal);
    auto net = AddConstantNet().Build(frugal);
    auto* c = dynamic_cast<ConstantLayer<float>*>(net->GetLayer("c"));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->Dims(), (std::vector<int>{3}));
    EXPECT_EQ(c->GetTypeDetail(), "Constant");
    for (int pass = 0; pass < 2; ++pass) {
      std::vector<float> x = {1, 2, 3, 4, 5, 6};
      net->SetFloatInputData(x.data(), 0);
      net->ForwardAll();
      EXPECT_EQ(Output(net.get(), "y"), (std::vector<float>{11, 22, 33, 14, 25, 36}));
    }
  }
}

TEST(ConstantLayer, KeepsItsShapeAcrossBatches) {
  auto net = AddConstantNet().Build();
  net->ReshapeBatchNum(3, 0);
  EXPECT_EQ(net->GetData("k")->GetDims(), (std::vector<int>{3}));
  EXPECT_EQ(net->GetData("y")->GetDims(), (std::vector<int>{3, 3}));
  std::vector<float> x(9, 1.0f);
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  EXPECT_EQ(Output(net.get(), "y"), (std::vector<float>{11, 21, 31, 11, 21, 31, 11, 21, 31}));
}

TEST(ConstantLayer, FeedsConcat) {
  test::NetBuilder b;
  b.Input("x", {1, 2})
      .Layer("c", "Constant", {}, {"k"}, {{"dims", Json::array{1, 3}}})
      .Layer("cat", "Concat", {"x", "k"}, {"y"}, {{"axis", 1}})
      .Weight("c", "value", {1, 3}, {7.0f, 8.0f, 9.0f});
  auto net = b.Build();
  std::vector<float> x = {1, 2};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  EXPECT_EQ(net->GetData("y")->GetDims(), (std::vector<int>{1, 5}));
  EXPECT_EQ(Output(net.get(), "y"), (std::vector<float>{1, 2, 7, 8, 9}));
}

TEST(ConstantLayer, RejectsBadParams) {
  const std::string p = "net description: layer \"c\" (Constant): ";
  auto one = [](const Json::object& param, const std::vector<std::string>& inputs = {}) {
    test::NetBuilder b;
    b.Input("x", {1, 2}).Layer("c", "Constant", inputs, {"k"}, param);
    return test::BuildError(b);
  };
  EXPECT_EQ(one({}), p + "missing param \"dims\"");
  EXPECT_EQ(one({{"dims", Json::array{}}}),
            p + "param \"dims\" [] must be 1 to 8 positive sizes of at most 2147483647 elements in "
                "all");
  EXPECT_EQ(one({{"dims", Json::array{2, 0}}}),
            p + "param \"dims\" [2, 0] must be 1 to 8 positive sizes of at most 2147483647 "
                "elements in all");
  EXPECT_EQ(one({{"dims", Json::array{65536, 65536}}}),
            p + "param \"dims\" [65536, 65536] must be 1 to 8 positive sizes of at most "
                "2147483647 elements in all");
  EXPECT_EQ(one({{"dims", Json::array{2}}}, {"x"}), p + "expects 0 input(s), has 1");
  test::NetBuilder wrong;
  wrong.Input("x", {1, 2})
      .Layer("c", "Constant", {}, {"k"}, {{"dims", Json::array{2}}})
      .Weight("c", "value", {3}, {1, 2, 3});
  EXPECT_EQ(test::BuildError(wrong),
            "weights: layer \"c\": blob \"value\" has shape [3], expected [2]");
}

// ---------------------------------------------------------------------------
// Arange: torch.arange fixtures (make_more_layer_fixtures.py); exact.

std::vector<float> RunArange(const Json::object& param,
                             const std::vector<std::string>& inputs = {}) {
  test::NetBuilder b;
  b.Input("x", {1, 2}).Layer("a", "Arange", inputs, {"r"}, param);
  auto net = b.Build();
  std::vector<float> x = {1, 2};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  EXPECT_EQ(net->GetData("r")->NumAxes(), 1);
  return Output(net.get(), "r");
}

TEST(ArangeLayer, MatchesTorch) {
  struct Case {
    const char* fixture;
    double start, end, step;
  };
  for (const Case& c : {Case{"arange_up", -1.5, 3.25, 0.25}, Case{"arange_down", 2.0, -3.0, -0.75},
                        Case{"arange_int", 0.0, 7.0, 1.0}}) {
    SCOPED_TRACE(c.fixture);
    const test::OnnxTensor want = test::Fixture("constant", std::string(c.fixture) + "_out");
    EXPECT_EQ(RunArange({{"start", c.start}, {"end", c.end}, {"step", c.step}}), want.values);
  }
}

TEST(ArangeLayer, DefaultsCountsAndAnIgnoredInput) {
  EXPECT_EQ(RunArange({{"end", 4}}), (std::vector<float>{0, 1, 2, 3}));
  EXPECT_EQ(RunArange({{"start", 1}, {"end", 2.5}, {"step", 0.5}}),
            (std::vector<float>{1, 1.5f, 2}));
  // ceil((3.1 - 1) / 1) = 3 elements; a wired input changes nothing.
  EXPECT_EQ(RunArange({{"start", 1}, {"end", 3.1}}, {"x"}), (std::vector<float>{1, 2, 3}));
  // The shape does not follow the batch.
  test::NetBuilder b;
  b.Input("x", {1, 2}).Layer("a", "Arange", {}, {"r"}, {{"start", 5}, {"end", 0}, {"step", -2}});
  auto net = b.Build();
  net->ReshapeBatchNum(4, 0);
  EXPECT_EQ(net->GetData("r")->GetDims(), (std::vector<int>{3}));
  auto* a = dynamic_cast<ArangeLayer<float>*>(net->GetLayer("a"));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->Start(), 5.0f);
  EXPECT_EQ(a->End(), 0.0f);
  EXPECT_EQ(a->Step(), -2.0f);
  EXPECT_EQ(a->GetTypeDetail(), "Arange");
}

TEST(ArangeLayer, RejectsBadParams) {
  const std::string p = "net description: layer \"a\" (Arange): ";
  auto one = [](const Json::object& param, const std::vector<std::string>& inputs = {}) {
    test::NetBuilder b;
    b.Input("x", {1, 2}).Input("z", {1, 2}).Layer("a", "Arange", inputs, {"r"}, param);
    return test::BuildError(b);
  };
  EXPECT_EQ(one({}), p + "missing param \"end\"");
  EXPECT_EQ(one({{"end", 3}, {"step", 0}}), p + "param \"step\" must not be 0");
  EXPECT_EQ(one({{"end", 1e30}}),
            p + "start 0, end 1e+30 and step 1 make more than 2147483647 elements");
  EXPECT_EQ(one({{"end", 3}, {"step", 1e-30}}),
            p + "start 0, end 3 and step 1e-30 make more than 2147483647 elements");
  EXPECT_EQ(one({{"end", 3}}, {"x", "z"}), p + "expects 0 to 1 input(s), has 2");
}

}  // namespace
}  // namespace qzdl
