// The AdaQuant searchers and the bias tuner on small nets with known values.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "quantization/observer.h"
#include "quantization/searcher.h"
#include "quantization/utils.h"
#include "quantization/weights_tuner.h"
#include "runtime/layer_registry.h"
#include "searcher_support.h"

namespace qzdl::staticQuantization {
namespace {

using test::CaptureStdout;
using test::MakeSearchNets;
using test::NetBuilder;
using test::SearchNets;

// Test-only layers: a source without inputs or weights, and a copy whose
// weight has no channels to count.
class SourceLayer : public Layer<float> {
 public:
  void LoadParam(const ParamReader&) override { ExpectCounts(0, 0, 1, 1); }
  void Reshape() override { out()->Resize({1, 2}); }

 protected:
  void Run() override {
    out()->GetCpuData()[0] = 1.0f;
    out()->GetCpuData()[1] = 2.0f;
  }
};

class NoChannelLayer : public Layer<float> {
 public:
  void LoadParam(const ParamReader&) override { ExpectCounts(1, 1, 1, 1); }
  void Reshape() override { out()->Resize(in()->GetDims()); }
  std::vector<WeightSpec> WeightSpecs() override { return {{"weight", {2}}}; }
  int GetChannelNum() override { return 0; }

 protected:
  void Run() override {
    std::memcpy(out()->GetCpuData(), in()->GetCpuData(), in()->Count(0) * sizeof(float));
  }
};

template <class L>
std::unique_ptr<Layer<float>> Make() {
  return std::make_unique<L>();
}

void RegisterTypes() {
  RegisterLayerTypeForTesting<float>("TestAdaSource", &Make<SourceLayer>);
  RegisterLayerTypeForTesting<float>("TestAdaNoChannel", &Make<NoChannelLayer>);
}

std::vector<float> Values(Data<float>* d) {
  return std::vector<float>(d->GetCpuData(), d->GetCpuData() + d->Count(0));
}

// The text between "res: " and the end of the final line.
std::string FinalRes(const std::string& out) {
  const size_t at = out.find("----Final error: ");
  if (at == std::string::npos) return "<none>";
  const size_t res = out.find("res: ", at);
  return out.substr(res + 5, out.find('\n', res) - res - 5);
}

size_t CountValues(const std::string& list) {
  if (list == "[]") return 0;
  size_t n = 1;
  for (char c : list) n += c == ',';
  return n;
}

// x [1, 2] -> InnerProduct "fc" (3 outputs) -> y.
NetBuilder FcNet() {
  NetBuilder b;
  b.Input("x", {1, 2})
      .Layer("fc", "InnerProduct", {"x"}, {"y"}, {{"num_output", 3}})
      .Weight("fc", "weight", {3, 2}, {0.5f, -1.0f, 0.25f, 2.0f, -0.75f, 1.5f})
      .Weight("fc", "bias", {3}, {0.1f, -0.2f, 0.3f});
  return b;
}
const std::vector<float> kFcX = {1.0f, -2.0f, 0.5f, 3.0f};  // two items

struct AdaRun {
  SearchNets s;
  Searcher* searcher = nullptr;
  std::map<std::string, std::unique_ptr<PeakValueObserver>> owned;
  std::map<std::string, Observer*> observers;
};

// Init and a peak observer for every tensor; `seq` picks the searcher.
template <class S>
std::unique_ptr<AdaRun> StartAda(const NetBuilder& b, int items,
                                 const std::vector<std::vector<float>>& x, bool with_int8) {
  auto run = std::make_unique<AdaRun>();
  run->s = MakeSearchNets(b, items, x, with_int8);
  run->searcher = new S(run->s.f.get(), run->s.q.get(), run->s.loader.get());
  if (with_int8) CaptureStdout([&] { run->searcher->Init(); });
  std::vector<std::string> names;
  for (int i = 0; i < run->s.f->GetInputCount(); ++i)
    names.push_back(run->s.f->GetInputDataName(i));
  for (Layer<float>* layer : run->s.f->GetLayers())
    for (Data<float>* o : layer->GetOutputs()) names.push_back(o->GetName());
  for (const std::string& n : names) {
    run->owned[n] = std::make_unique<PeakValueObserver>();
    run->observers[n] = run->owned[n].get();
  }
  return run;
}

std::map<std::string, Observer*> InputObservers(AdaRun& run, const std::string& layer) {
  std::map<std::string, Observer*> map;
  for (Data<float>* in : run.s.f->GetLayer(layer)->GetInputs())
    map[in->GetName()] = run.observers[in->GetName()];
  return map;
}

TEST(AdaQuantSeqSearcher, OneInputWithWeightsTunesFourFactors) {
  auto run = StartAda<AdaQuantSeqSearcher>(FcNet(), 2, {kFcX}, true);
  const std::vector<float> weights = Values(run->s.f->GetLayer("fc")->GetWeights()[0]);
  run->s.f->GetLayer("fc")->Forward();
  const std::string out =
      CaptureStdout([&] { run->searcher->SearchOneLayer("fc", InputObservers(*run, "fc")); });
  EXPECT_EQ(out.find("----Performing AdaQuantSeq: error: "), 0u) << out;
  EXPECT_EQ(CountValues(FinalRes(out)), 4u) << out;
  // The float weights are back, bit for bit.
  EXPECT_EQ(Values(run->s.f->GetLayer("fc")->GetWeights()[0]), weights);
  // The input's observer holds the scaled peaks; the weight grids of the
  // three channels are written.
  EXPECT_FALSE(run->owned["x"]->IsInitial());
  EXPECT_LT(run->owned["x"]->opt_min, 0.0f);
  EXPECT_GT(run->owned["x"]->opt_max, 0.0f);
  std::vector<QuantizationConfig>* w = run->searcher->int8_config->GetWeightConfig("fc", 0);
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(w->size(), 3u);
  // The output's own observer is not touched.
  EXPECT_TRUE(run->owned["y"]->IsInitial());
}

TEST(AdaQuantSeqSearcher, LayerWithoutWeightsTunesTwoFactorsPerInput) {
  NetBuilder b;
  b.Input("x", {1, 2}).Input("z", {1, 2}).Layer("sum", "Eltwise", {"x", "z"}, {"s"});
  auto run = StartAda<AdaQuantSeqSearcher>(b, 2, {kFcX, {0.5f, 0.5f, -1.0f, 1.0f}}, true);
  run->s.f->GetLayer("sum")->Forward();
  const std::string out =
      CaptureStdout([&] { run->searcher->SearchOneLayer("sum", InputObservers(*run, "sum")); });
  EXPECT_EQ(CountValues(FinalRes(out)), 4u) << out;
  EXPECT_EQ(run->searcher->int8_config->GetWeightConfig("sum", 0), nullptr);
  EXPECT_FALSE(run->owned["z"]->IsInitial());
}

TEST(AdaQuantSeqSearcher, WeightsWithoutChannelsCountButWriteNoGrid) {
  RegisterTypes();
  NetBuilder b;
  b.Input("x", {1, 2})
      .Layer("nc", "TestAdaNoChannel", {"x"}, {"y"})
      .Weight("nc", "weight", {2}, {1.0f, 2.0f});
  auto run = StartAda<AdaQuantSeqSearcher>(b, 2, {kFcX}, false);
  run->searcher->float_activations["x"] = kFcX;
  run->searcher->float_activations["y"] = kFcX;
  run->s.f->SetFloatInputData(const_cast<float*>(kFcX.data()), 0);
  run->s.f->GetLayer("nc")->Forward();
  const std::string out =
      CaptureStdout([&] { run->searcher->SearchOneLayer("nc", InputObservers(*run, "nc")); });
  EXPECT_EQ(CountValues(FinalRes(out)), 4u) << out;
  EXPECT_EQ(run->searcher->int8_config->GetWeightConfig("nc", 0), nullptr);
}

TEST(AdaQuantSearcher, NoInputsAndNoWeightsTuneNothing) {
  RegisterTypes();
  NetBuilder b;
  b.Input("x", {1, 2}).Layer("relu", "ReLU", {"x"}, {"r"}).Layer("src", "TestAdaSource", {}, {"s"});
  auto run = StartAda<AdaQuantSearcher>(b, 1, {{1.0f, -1.0f}}, false);
  run->searcher->float_activations["r"] = {1.0f, 0.0f};
  run->searcher->float_activations["s"] = {1.0f, 2.0f};
  run->s.f->SetFloatInputData(std::vector<float>{1.0f, -1.0f}.data(), 0);
  run->s.f->ForwardAll();
  const std::string out = CaptureStdout([&] { run->searcher->SearchOneLayer("src", {}); });
  EXPECT_EQ(out,
            "----Performing AdaQuant: error: 0.0000000000000, res: []\r"
            "\n----Final error: 0.0000000000000, res: []\n");
}

TEST(AdaQuantSeqSearcher, NaNErrorsLeaveTheOutputsAsTheyWere) {
  auto run = StartAda<AdaQuantSeqSearcher>(FcNet(), 2, {kFcX}, true);
  run->s.f->GetLayer("fc")->Forward();
  const std::vector<float> before = Values(run->s.f->GetLayer("fc")->GetOutputs()[0]);
  for (float& v : run->searcher->float_activations["y"]) v = std::nanf("");
  const std::string out =
      CaptureStdout([&] { run->searcher->SearchOneLayer("fc", InputObservers(*run, "fc")); });
  EXPECT_NE(out.find("error: nan"), std::string::npos) << out;
  EXPECT_EQ(Values(run->s.f->GetLayer("fc")->GetOutputs()[0]), before);
}

// y = W x + b in single precision, as the reference InnerProduct of one item.
std::vector<float> Fc(const std::vector<float>& w, const std::vector<float>& b, const float* x,
                      int in, int out) {
  std::vector<float> y(out);
  for (int k = 0; k < out; ++k) {
    double acc = 0.0;
    for (int j = 0; j < in; ++j) acc += double(w[k * in + j]) * double(x[j]);
    y[k] = float(acc) + b[k];
  }
  return y;
}

TEST(AdaQuantSearcher, FactorsOfOneQuantizeWithThePeakRanges) {
  auto run = StartAda<AdaQuantSearcher>(FcNet(), 2, {kFcX}, true);
  AdaQuantContext ctx;
  ctx.layer_index = 0;
  ctx.net = run->s.f.get();
  ctx.activations = &run->searcher->float_activations;
  ctx.input_min = {-2.0f};
  ctx.input_max = {3.0f};
  ctx.weight_min = {-1.0f, 0.25f, -0.75f};
  ctx.weight_max = {0.5f, 2.0f, 1.5f};
  const double x[4] = {1.0, 1.0, 1.0, 1.0};
  double error = 0.0;
  CaptureStdout([&] { error = adaquant_func(4, x, nullptr, &ctx); });

  // Independently: inputs and each weight row fake-quantized on the peaks.
  std::vector<float> in = kFcX;
  FakeQuantization(in.data(), in.size(), -2.0f, 3.0f, 8);
  std::vector<float> w = {0.5f, -1.0f, 0.25f, 2.0f, -0.75f, 1.5f};
  for (int c = 0; c < 3; ++c)
    FakeQuantization(w.data() + 2 * c, 2, ctx.weight_min[c], ctx.weight_max[c], 8);
  const std::vector<float> bias = {0.1f, -0.2f, 0.3f};
  const std::vector<float>& ref = run->searcher->float_activations["y"];
  double sum = 0.0;
  for (int item = 0; item < 2; ++item) {
    const std::vector<float> y = Fc(w, bias, in.data() + 2 * item, 2, 3);
    for (int k = 0; k < 3; ++k) {
      const double d = double(y[k] - ref[item * 3 + k]);
      sum = std::fma(d, d, sum);
    }
  }
  // The layer's own sums round in another order: agreement to 0.1 %.
  EXPECT_NEAR(error, sum / 6.0, sum / 6.0 * 1e-3);
  EXPECT_GT(error, 0.0);
  // The weights are restored after the evaluation.
  EXPECT_EQ(Values(run->s.f->GetLayer("fc")->GetWeights()[0]),
            (std::vector<float>{0.5f, -1.0f, 0.25f, 2.0f, -0.75f, 1.5f}));
}

TEST(AdaQuantSeqSearcher, ChannelsThatDoNotDivideTheWeightsLeaveTheTailFloat) {
  // Eight outputs of one input: weight [8, 1]; three channel ranges give
  // 8 / 3 = 2 weights per channel, so weights 6 and 7 stay float.
  NetBuilder b;
  std::vector<float> w = {0.3f, 0.7f, 0.11f, 0.93f, 0.51f, 0.27f, 0.333f, 0.777f};
  b.Input("x", {1, 1})
      .Layer("fc", "InnerProduct", {"x"}, {"y"}, {{"num_output", 8}, {"bias_term", false}})
      .Weight("fc", "weight", {8, 1}, w);
  auto run = StartAda<AdaQuantSeqSearcher>(b, 1, {{1.0f}}, true);
  AdaQuantSeqContext ctx;
  ctx.layer = run->s.f->GetLayer("fc");
  ctx.activations = &run->searcher->float_activations;
  ctx.input_min = {0.0f};
  ctx.input_max = {1.0f};
  ctx.weight_min = {0.0f, 0.0f, 0.0f};
  ctx.weight_max = {1.0f, 1.0f, 1.0f};
  ctx.best_outputs.push_back(new float[8]);
  const double x[4] = {1.0, 1.0, 1.0, 1.0};
  CaptureStdout([&] { adaquantseq_func(4, x, nullptr, &ctx); });
  std::vector<float> want = w;
  FakeQuantization(want.data(), 6, 0.0f, 1.0f, 8);
  const std::vector<float> got(ctx.best_outputs[0], ctx.best_outputs[0] + 8);
  EXPECT_EQ(got, want);
  EXPECT_NE(got[0], w[0]);
  delete[] ctx.best_outputs[0];
}

// ---- WeightsTuner

TEST(WeightsTuner, GenerateCandidate) {
  EXPECT_EQ(WeightsTuner::GenerateCandidate(0.5f, 4, 1.0f),
            (std::vector<float>{0.0f, 1.0f, 1.0f, 1.5f, 0.5f}));
  EXPECT_EQ(WeightsTuner::GenerateCandidate(0.5f, 1, 1.0f), (std::vector<float>{0.0f}));
  EXPECT_EQ(WeightsTuner::GenerateCandidate(0.5f, 0, 1.0f), (std::vector<float>{0.0f}));
  EXPECT_EQ(WeightsTuner::GenerateCandidate(0.5f, -3, 1.0f), (std::vector<float>{0.0f}));
}

TEST(WeightsTuner, ImportingItsOwnMapChangesNothing) {
  WeightsTuner tuner(nullptr, nullptr);
  tuner.float_activations["a"] = {1.0f, 2.0f};
  tuner.ImportCachedData(tuner.float_activations);
  ASSERT_EQ(tuner.float_activations.size(), 1u);
  EXPECT_EQ(tuner.float_activations["a"], (std::vector<float>{1.0f, 2.0f}));
}

TEST(WeightsTuner, TwoDimensionalOutputUsesOneSpatialPosition) {
  // dims [2, 3]: S is 1 and channel 1 is elements 1 and 4.
  std::vector<float> output = {0.0f, 1.0f, 0.0f, 0.0f, 2.0f, 0.0f};
  std::vector<float> reference = {9.0f, 1.5f, 9.0f, 9.0f, 1.0f, 9.0f};
  BiasTuningContext ctx;
  ctx.dims = {2, 3};
  ctx.channel = 1;
  ctx.output = output.data();
  ctx.reference = reference.data();
  const double x = 0.5;
  // (1.5 - 1.5)^2 + (2.5 - 1)^2, each over S = 1.
  EXPECT_EQ(biastuning_func(1, &x, nullptr, &ctx), 2.25);
  EXPECT_EQ(output, (std::vector<float>{0.0f, 1.0f, 0.0f, 0.0f, 2.0f, 0.0f}));
}

TEST(WeightsTuner, ZeroBatchScoresZeroForAnyDelta) {
  std::vector<float> buffer(12, 1.0f);
  BiasTuningContext ctx;
  ctx.dims = {0, 3, 2, 2};
  ctx.output = buffer.data();
  ctx.reference = buffer.data();
  for (const double x : {0.0, 1.0, -7.5}) EXPECT_EQ(biastuning_func(1, &x, nullptr, &ctx), 0.0);
  EXPECT_EQ(buffer, std::vector<float>(12, 1.0f));
}

TEST(WeightsTuner, FourDimensionalErrorIsTheSumOfPerItemMeans) {
  // dims [2, 2, 1, 2]: channel 1 of item b is elements 4b + 2 and 4b + 3.
  std::vector<float> output = {0, 0, 1.0f, 3.0f, 0, 0, 2.0f, 2.0f};
  std::vector<float> reference = {0, 0, 1.0f, 1.0f, 0, 0, 0.0f, 2.0f};
  BiasTuningContext ctx;
  ctx.dims = {2, 2, 1, 2};
  ctx.channel = 1;
  ctx.output = output.data();
  ctx.reference = reference.data();
  const double x = 0.0;
  // Item 0: (0 + 4) / 2; item 1: (4 + 0) / 2.
  EXPECT_EQ(biastuning_func(1, &x, nullptr, &ctx), 4.0);
}

// x [1, 1, 2, 2] -> conv 1x1 (2 channels) -> c -> ReLU -> r.
NetBuilder ConvNet(const std::vector<float>& weight, const std::vector<float>& bias) {
  NetBuilder b;
  b.Input("x", {1, 1, 2, 2})
      .Layer("conv", "Convolution", {"x"}, {"c"}, {{"num_output", 2}, {"kernel_size", 1}})
      .Weight("conv", "weight", {2, 1, 1, 1}, weight)
      .Weight("conv", "bias", {2}, bias)
      .Layer("relu", "ReLU", {"c"}, {"r"});
  return b;
}

TEST(WeightsTuner, InitCachesEveryTensorAfterItsLayer) {
  SearchNets s =
      MakeSearchNets(ConvNet({2.0f, -1.0f}, {1.0f, 0.0f}), 1, {{1.0f, 2.0f, 3.0f, 4.0f}}, false);
  WeightsTuner tuner(s.f.get(), s.loader.get());
  EXPECT_EQ(CaptureStdout([&] { tuner.Init(); }), "Collecting all float activation ... done!\n");
  EXPECT_EQ(tuner.float_activations["x"], (std::vector<float>{1.0f, 2.0f, 3.0f, 4.0f}));
  EXPECT_EQ(tuner.float_activations["c"],
            (std::vector<float>{3.0f, 5.0f, 7.0f, 9.0f, -1.0f, -2.0f, -3.0f, -4.0f}));
  EXPECT_EQ(tuner.float_activations["r"],
            (std::vector<float>{3.0f, 5.0f, 7.0f, 9.0f, 0.0f, 0.0f, 0.0f, 0.0f}));
}

TEST(WeightsTuner, NonConvolutionLayerIsLeftAlone) {
  SearchNets s =
      MakeSearchNets(ConvNet({2.0f, -1.0f}, {1.0f, 0.0f}), 1, {{1.0f, 2.0f, 3.0f, 4.0f}}, false);
  WeightsTuner tuner(s.f.get(), s.loader.get());
  CaptureStdout([&] { tuner.Init(); });
  const std::vector<float> r = Values(s.f->GetLayer("relu")->GetOutputs()[0]);
  // No observer in the map: consulting one would fail.
  EXPECT_EQ(CaptureStdout([&] { tuner.SearchOneLayer("relu", {}); }), "");
  EXPECT_EQ(Values(s.f->GetLayer("relu")->GetOutputs()[0]), r);
}

TEST(WeightsTuner, OutputsOnTheirGridNeedNoCorrection) {
  // Outputs 1 to 4 on the grid of [0, 255] (step 1) stay as they are, so a
  // delta of 0 is best. (Outputs of 3 and more would let Sbplx settle on a
  // delta too small to move them, which then shows in the bias.)
  SearchNets s =
      MakeSearchNets(ConvNet({1.0f, 1.0f}, {0.0f, 0.0f}), 1, {{1.0f, 2.0f, 3.0f, 4.0f}}, false);
  WeightsTuner tuner(s.f.get(), s.loader.get());
  CaptureStdout([&] { tuner.Init(); });
  PeakValueObserver observer;
  observer.SetOptMinMax(0.0f, 255.0f);
  const std::string out = CaptureStdout([&] { tuner.SearchOneLayer("conv", {{"c", &observer}}); });
  EXPECT_EQ(out,
            "----Perform BiasTuning in channel 1, delta: 0.0000000000000; error: 0.00000\r"
            "----Perform BiasTuning in channel 2, delta: 0.0000000000000; error: 0.00000\r");
  EXPECT_EQ(Values(s.f->GetLayer("conv")->GetWeights()[1]), (std::vector<float>{0.0f, 0.0f}));
}

TEST(WeightsTuner, CorrectsTheBiasForAQuantizationShift) {
  // On the grid of [0, 255] (step 1), 3.4 and friends round to integers:
  // the mean error of channel 0 is -0.4 + ... and the tuner adds it back.
  SearchNets s =
      MakeSearchNets(ConvNet({1.0f, 1.0f}, {0.4f, 0.0f}), 1, {{1.0f, 2.0f, 3.0f, 4.0f}}, false);
  WeightsTuner tuner(s.f.get(), s.loader.get());
  CaptureStdout([&] { tuner.Init(); });
  PeakValueObserver observer;
  observer.SetOptMinMax(0.0f, 255.0f);
  CaptureStdout([&] { tuner.SearchOneLayer("conv", {{"c", &observer}}); });
  const std::vector<float> bias = Values(s.f->GetLayer("conv")->GetWeights()[1]);
  // 1.4 .. 4.4 round down by 0.4: the best delta is 0.4.
  EXPECT_NEAR(bias[0], 0.8f, 1e-4f);
  EXPECT_EQ(bias[1], 0.0f);
  // The output holds the corrected quantized values.
  const std::vector<float> c = Values(s.f->GetLayer("conv")->GetOutputs()[0]);
  EXPECT_NEAR(c[0], 1.4f, 1e-4f);
  EXPECT_NEAR(c[3], 4.4f, 1e-4f);
  EXPECT_EQ(c[4], 1.0f);
}

}  // namespace
}  // namespace qzdl::staticQuantization
