#include "runtime/fusion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/net.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

using json11::Json;

// A 3x3 convolution (oneDNN's primitive where the build has it: reordered
// weights) and a 1x1 one, weights from `seed`.
test::NetBuilder TwoConvs(uint32_t seed) {
  test::NetBuilder b;
  b.Input("data", {1, 16, 12, 12});
  b.Conv("a", "data", "a_out", 16, 32, 3, seed);
  b.Conv("b", "a_out", "b_out", 32, 8, 1, seed + 2);
  return b;
}

// Every kind of convolution path (3x3, 1x1, depthwise) followed by each
// fusable activation, a residual sum with a ReLU after it, and two pairs that
// must stay apart: a convolution read by two layers, and a ReLU whose input
// is a net output.
test::NetBuilder FusableNet() {
  test::NetBuilder b;
  b.Input("data", {2, 8, 9, 7});
  b.Conv("c1", "data", "c1_out", 8, 16, 3, 1, 1);
  b.Layer("relu1", "ReLU", {"c1_out"}, {"r1"});
  b.Conv("c2", "r1", "c2_out", 16, 16, 3, 3, 16);  // depthwise
  b.Layer("clip2", "ReLUX", {"c2_out"}, {"r2"}, Json::object{{"threshold", 0.5}});
  b.Conv("c3", "r2", "c3_out", 16, 16, 1, 5, 1);
  b.Layer("hs3", "Swish", {"c3_out"}, {"c3_out"}, Json::object{{"hard", true}});  // in place
  b.Layer("sum", "Eltwise", {"c3_out", "r1"}, {"s"});
  b.Layer("leaky", "LeakyRelu", {"s"}, {"l"}, Json::object{{"negative_slope", 0.125}});
  b.Conv("c4", "l", "c4_out", 16, 8, 1, 7, 1);
  b.Layer("relu4", "ReLU", {"c4_out"}, {"r4"});
  b.Layer("sig4", "Sigmoid", {"c4_out"}, {"g4"});  // a second reader of c4_out
  b.Conv("c5", "r4", "c5_out", 8, 8, 3, 9, 1);
  b.Layer("relu5", "ReLU", {"c5_out"}, {"r5"});
  b.Top("outputs", Json::array{"g4", "c5_out", "r5"});
  return b;
}

TEST(Fusion, FusesWhereOnlyTheActivationReadsAndGivesTheSameBits) {
  auto unfused = FusableNet().Build();
  const auto want = test::RunOutputs(unfused.get());
  auto net = FusableNet().Build();
  EXPECT_FALSE(net->GetInferenceMode());
  EXPECT_EQ(net->SetInferenceMode(true), 4);
  for (const char* name : {"relu1", "clip2", "hs3", "leaky"})
    EXPECT_TRUE(net->GetLayer(name)->FusedAway()) << name;
  for (const char* name : {"relu4", "sig4", "relu5", "c1", "sum"})
    EXPECT_FALSE(net->GetLayer(name)->FusedAway()) << name;
  const auto got = test::RunOutputs(net.get());
  ASSERT_EQ(got.size(), want.size());
  for (size_t k = 0; k < got.size(); ++k) {
    ASSERT_EQ(got[k].size(), want[k].size());
    EXPECT_EQ(std::memcmp(got[k].data(), want[k].data(), got[k].size() * sizeof(float)), 0)
        << "output " << k;
  }
  // Tensors that no fusion skips hold what they hold unfused.
  const Data<float>* r1 = net->GetData("r1");
  EXPECT_EQ(std::memcmp(r1->GetCpuData(), unfused->GetData("r1")->GetCpuData(),
                        r1->Count(0) * sizeof(float)),
            0);
}

TEST(Fusion, OffAgainAndFrugalModeRunEveryLayer) {
  auto net = FusableNet().Build();
  ASSERT_EQ(net->SetInferenceMode(true), 4);
  net->SetFrugalMode(true);
  for (Layer<float>* l : net->GetLayers()) EXPECT_FALSE(l->FusedAway()) << l->GetName();
  net->SetFrugalMode(false);
  EXPECT_TRUE(net->GetLayer("relu1")->FusedAway());
  EXPECT_EQ(net->SetInferenceMode(false), 0);
  for (Layer<float>* l : net->GetLayers()) EXPECT_FALSE(l->FusedAway()) << l->GetName();
  // Unfused again, the pre-activation tensor is computed.
  test::RunOutputs(net.get());
  auto reference = FusableNet().Build();
  test::RunOutputs(reference.get());
  const Data<float>* c1 = net->GetData("c1_out");
  EXPECT_EQ(std::memcmp(c1->GetCpuData(), reference->GetData("c1_out")->GetCpuData(),
                        c1->Count(0) * sizeof(float)),
            0);
}

// Scale and BatchNormal after convolutions of each path, with and without an
// activation after them, in place and not; and one Scale after an Eltwise,
// which takes activations only.
test::NetBuilder AffineNet() {
  test::NetBuilder b;
  b.Input("data", {2, 8, 9, 7});
  b.Conv("c1", "data", "c1_out", 8, 16, 3, 1, 1);
  b.Layer("bn1", "BatchNormal", {"c1_out"}, {"c1_out"}, Json::object{{"affine", true}})
      .Weight("bn1", "mean", {16}, test::RandomVector(16, 20))
      .Weight("bn1", "variance", {16}, test::RandomVector(16, 21, 0.5f, 2.0f))
      .Weight("bn1", "scale", {16}, test::RandomVector(16, 22))
      .Weight("bn1", "bias", {16}, test::RandomVector(16, 23));
  b.Layer("relu1", "ReLU", {"c1_out"}, {"r1"});
  b.Conv("c2", "r1", "c2_out", 16, 16, 3, 3, 16);  // depthwise
  b.Layer("sc2", "Scale", {"c2_out"}, {"s2"}, Json::object{{"bias_term", true}})
      .Weight("sc2", "scale", {16}, test::RandomVector(16, 24))
      .Weight("sc2", "bias", {16}, test::RandomVector(16, 25));
  b.Layer("clip2", "ReLUX", {"s2"}, {"r2"}, Json::object{{"threshold", 0.5}});
  b.Conv("c3", "r2", "c3_out", 16, 16, 1, 5, 1);
  b.Layer("sc3", "Scale", {"c3_out"}, {"s3"})
      .Weight("sc3", "scale", {16}, test::RandomVector(16, 26));
  b.Layer("sum", "Eltwise", {"s3", "r1"}, {"sum_out"});
  b.Layer("sc4", "Scale", {"sum_out"}, {"s4"})
      .Weight("sc4", "scale", {16}, test::RandomVector(16, 27));
  return b;
}

TEST(Fusion, ScaleAndBatchNormalFoldIntoConvolutionsWithTheSameBits) {
  auto unfused = AffineNet().Build();
  const auto want = test::RunOutputs(unfused.get());
  auto net = AffineNet().Build();
  EXPECT_EQ(net->SetInferenceMode(true), 3);
  for (const char* name : {"bn1", "relu1", "sc2", "clip2", "sc3"})
    EXPECT_TRUE(net->GetLayer(name)->FusedAway()) << name;
  EXPECT_FALSE(net->GetLayer("sc4")->FusedAway());
  const auto got = test::RunOutputs(net.get());
  ASSERT_EQ(got.size(), 1u);
  ASSERT_EQ(got[0].size(), want[0].size());
  EXPECT_EQ(std::memcmp(got[0].data(), want[0].data(), got[0].size() * sizeof(float)), 0);
  // New BatchNormal constants reach the fused convolution after the mode is
  // set again.
  for (auto* n : {net.get(), unfused.get()}) {
    float* var = n->GetLayer("bn1")->GetWeights()[1]->GetCpuData();
    for (int c = 0; c < 16; ++c) var[c] *= 4.0f;
  }
  net->SetInferenceMode(true);
  EXPECT_EQ(test::RunOutputs(net.get()), test::RunOutputs(unfused.get()));
}

TEST(Fusion, InferenceModeReadsWeightsAgainAfterLoadingOrSettingTheMode) {
  auto net = TwoConvs(1).Build();
  net->SetInferenceMode(true);
  test::RunOutputs(net.get());
  test::RunOutputs(net.get());
  // New weights through the loading function.
  const test::NetBuilder second = TwoConvs(11);
  std::string bytes = second.WeightsBytes();
  net->LoadWeights(bytes.data(), static_cast<int>(bytes.size()));
  auto fresh = second.Build();
  EXPECT_EQ(test::RunOutputs(net.get()), test::RunOutputs(fresh.get()));
  // Written directly, then the mode set again.
  Data<float>* w = net->GetLayer("a")->GetWeights()[0];
  Data<float>* w_fresh = fresh->GetLayer("a")->GetWeights()[0];
  for (int64_t i = 0; i < w->Count(0); ++i) {
    w->GetCpuData()[i] *= -0.5f;
    w_fresh->GetCpuData()[i] *= -0.5f;
  }
  net->SetInferenceMode(true);
  EXPECT_EQ(test::RunOutputs(net.get()), test::RunOutputs(fresh.get()));
}

TEST(Fusion, EpilogueOfNamesTheFusableActivations) {
  auto net = FusableNet().Build();
  Epilogue e;
  ASSERT_TRUE(EpilogueOf(net->GetLayer("clip2"), &e));
  EXPECT_EQ(e.kind, Epilogue::Kind::kClip);
  EXPECT_EQ(e.param, 0.5f);
  ASSERT_TRUE(EpilogueOf(net->GetLayer("leaky"), &e));
  EXPECT_EQ(e.kind, Epilogue::Kind::kRelu);
  EXPECT_EQ(e.param, 0.125f);
  ASSERT_TRUE(EpilogueOf(net->GetLayer("hs3"), &e));
  EXPECT_EQ(e.kind, Epilogue::Kind::kHardSwish);
  ASSERT_TRUE(EpilogueOf(net->GetLayer("sig4"), &e));
  EXPECT_EQ(e.kind, Epilogue::Kind::kSigmoid);
  EXPECT_FALSE(EpilogueOf(net->GetLayer("c1"), &e));
}

TEST(Fusion, EpilogueKeepsTheActivationBits) {
  // Special values through the epilogue and through the layers' element
  // functions: the same bits.
  const std::vector<float> x = {-0.0f, 0.0f, -1e-30f, 3.0f, -3.0f, 0.5f, 6.0f, 1e30f, -1e30f};
  for (const Epilogue& e :
       {Epilogue{Epilogue::Kind::kRelu, 0.0f}, Epilogue{Epilogue::Kind::kRelu, 0.01f},
        Epilogue{Epilogue::Kind::kClip, 0.5f}, Epilogue{Epilogue::Kind::kHardSwish, 0.0f}}) {
    std::vector<float> y = x;
    ApplyEpilogue(e, y.data(), static_cast<int64_t>(y.size()));
    for (size_t i = 0; i < x.size(); ++i) {
      const float want = e.kind == Epilogue::Kind::kRelu      ? PositiveOrScaled(x[i], e.param)
                         : e.kind == Epilogue::Kind::kClip    ? ClipZeroTo(x[i], e.param)
                         : e.kind == Epilogue::Kind::kSigmoid ? SigmoidValue(x[i])
                         : e.kind == Epilogue::Kind::kSwish   ? SwishValue(x[i], e.param)
                                                              : HardSwishValue(x[i]);
      EXPECT_EQ(std::memcmp(&y[i], &want, sizeof(float)), 0) << i;
    }
  }
  EXPECT_EQ(ClipZeroTo(-0.0f, 6.0f), 0.0f);
  EXPECT_FALSE(std::signbit(ClipZeroTo(-0.0f, 6.0f)));
  EXPECT_EQ(HardSwishValue(-3.0f), -0.0f);
  EXPECT_EQ(HardSwishValue(3.0f), 3.0f);
  EXPECT_EQ(PositiveOrScaled(-2.0f, 0.25f), -0.5f);
}

}  // namespace
}  // namespace qzdl
