// The searcher base, the cosine searcher and the cosine-similarity searcher
// on small nets with known values.
#include "quantization/searcher.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "quantization/mse_observer.h"
#include "quantization/observer.h"
#include "quantization/utils.h"
#include "searcher_support.h"

namespace qzdl::staticQuantization {
namespace {

using test::CaptureStdout;
using test::MakeSearchNets;
using test::NetBuilder;
using test::SearchNets;

// x [2, 4] -> ReLU "relu" -> r -> Softmax "soft" -> p (the net's output).
NetBuilder ReluSoftmax() {
  NetBuilder b;
  b.Input("x", {1, 4}).Layer("relu", "ReLU", {"x"}, {"r"}).Layer("soft", "Softmax", {"r"}, {"p"});
  return b;
}
const std::vector<float> kX = {-1.0f, 0.5f, 2.0f, 3.0f, 1.0f, -2.0f, 0.25f, 4.0f};

std::vector<float> Values(Data<float>* d) {
  return std::vector<float>(d->GetCpuData(), d->GetCpuData() + d->Count(0));
}

// Counts the lines (ended by '\r' or '\n') that hold `needle`.
int CountSegments(const std::string& text, const std::string& needle) {
  int n = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find_first_of("\r\n", start);
    if (end == std::string::npos) end = text.size();
    if (text.compare(start, end - start, needle) == 0 ||
        text.substr(start, end - start).find(needle) != std::string::npos)
      ++n;
    start = end + 1;
  }
  return n;
}

TEST(Searcher, InitPlaceholdersInNetOrderAndCachesOnePass) {
  SearchNets s = MakeSearchNets(ReluSoftmax(), 2, {kX});
  CosineSearcher searcher(s.f.get(), s.q.get(), s.loader.get());
  const std::string out = CaptureStdout([&] { searcher.Init(); });
  EXPECT_EQ(out,
            "Initialize quantization config searcher.\n"
            "Collecting all float activation ... done!\n");
  INT8Config* c = searcher.int8_config;
  // The n-th tensor, counted from 1 with the inputs first: about 1 + 0.1 n.
  EXPECT_EQ(s.f->GetInputData(0)->GetDims(), (std::vector<int>{2, 4}));
  EXPECT_EQ(c->GetDataConfig("x")->getMin(), -1.10000002f);
  EXPECT_EQ(c->GetDataConfig("x")->getMax(), 1.10000002f);
  EXPECT_EQ(c->GetDataConfig("r")->getMin(), -1.20000005f);
  EXPECT_EQ(c->GetDataConfig("r")->getMax(), 1.20000005f);
  EXPECT_EQ(c->GetDataConfig("p")->getMin(), -1.29999995f);
  EXPECT_EQ(c->GetDataConfig("p")->getMax(), 1.29999995f);
  EXPECT_EQ(searcher.float_activations["x"], kX);
  std::vector<float> relu = kX;
  for (float& v : relu) v = std::max(v, 0.0f);
  EXPECT_EQ(searcher.float_activations["r"], relu);
  EXPECT_EQ(searcher.float_activations["p"], Values(s.f->GetOutputData(0)));
  EXPECT_EQ(s.q->GetInputData(0)->GetDim(0), 2);
  EXPECT_EQ(&searcher.ExportCachedData(), &searcher.float_activations);
}

TEST(Searcher, InitOnANetWithoutLayersCachesTheInputs) {
  // A net description needs a layer: the float net's list is emptied for the
  // test and given back before the net goes.
  NetBuilder b;
  b.Input("x", {1, 3}).Layer("relu", "ReLU", {"x"}, {"r"});
  SearchNets s = MakeSearchNets(b, 1, {{1.0f, 2.0f, 3.0f}});
  const std::vector<Layer<float>*> layers = s.f->GetLayers();
  s.f->GetLayers().clear();
  CosineSearcher searcher(s.f.get(), s.q.get(), s.loader.get());
  const std::string out = CaptureStdout([&] { searcher.Init(); });
  s.f->GetLayers() = layers;
  EXPECT_EQ(out,
            "Initialize quantization config searcher.\n"
            "Collecting all float activation ... done!\n");
  ASSERT_EQ(searcher.float_activations.size(), 1u);
  EXPECT_EQ(searcher.float_activations["x"], (std::vector<float>{1.0f, 2.0f, 3.0f}));
}

TEST(Searcher, ConstructorSharesTheFloatNetsConfiguration) {
  SearchNets s = MakeSearchNets(ReluSoftmax(), 2, {kX});
  ASSERT_NE(s.f->GetInt8Config(), s.q->GetInt8Config());
  CosineSearcher searcher(s.f.get(), s.q.get(), s.loader.get());
  EXPECT_EQ(s.q->GetInt8Config(), s.f->GetInt8Config());
  EXPECT_EQ(searcher.int8_config, s.f->GetInt8Config());
  EXPECT_EQ(searcher.range_preserving_types.size(), 22u);
  EXPECT_EQ(searcher.range_preserving_types.front(), "Concat");
  EXPECT_EQ(searcher.range_preserving_types.back(), "ZeroPadding");
}

TEST(Searcher, NetsAlreadySharingKeepTheirConfiguration) {
  SearchNets s = MakeSearchNets(ReluSoftmax(), 2, {kX});
  INT8Config shared;
  s.f->SetInt8Config(&shared);
  s.q->SetInt8Config(&shared);
  AdaQuantSearcher searcher(s.f.get(), s.q.get(), s.loader.get());
  EXPECT_EQ(s.q->GetInt8Config(), &shared);
  EXPECT_EQ(searcher.int8_config, &shared);
}

TEST(Searcher, ClearInt8LayerOnALayerWithoutAttributesLeavesEmptyMaps) {
  SearchNets s = MakeSearchNets(ReluSoftmax(), 2, {kX});
  Layer<unsigned char>* layer = s.q->GetLayer("relu");
  Searcher::ClearInt8Layer(layer);
  EXPECT_TRUE(layer->GetUint8AttrDatas().empty());
  EXPECT_TRUE(layer->GetFloatAttrDatas().empty());
  EXPECT_TRUE(layer->GetInt32AttrDatas().empty());
}

TEST(Searcher, ClearInt8LayerSkipsNullEntriesAndEmptiesEveryMap) {
  SearchNets s = MakeSearchNets(ReluSoftmax(), 2, {kX});
  Layer<unsigned char>* layer = s.q->GetLayer("relu");
  layer->GetUint8AttrDatas()["none"] = nullptr;
  auto* table = new Data<unsigned char>("table");
  table->Resize({256});
  table->Reallocate();
  layer->GetUint8AttrDatas()["table"] = table;
  layer->GetFloatAttrDatas()["none"] = nullptr;
  layer->GetInt32AttrDatas()["shift"] = new Data<int>("shift");
  Searcher::ClearInt8Layer(layer);
  EXPECT_TRUE(layer->GetUint8AttrDatas().empty());
  EXPECT_TRUE(layer->GetFloatAttrDatas().empty());
  EXPECT_TRUE(layer->GetInt32AttrDatas().empty());
}

TEST(Searcher, SearchOneInputInstallsTheRangeAndFeedsTheEightBitNet) {
  SearchNets s = MakeSearchNets(ReluSoftmax(), 2, {kX});
  CosineSimSearcher searcher(s.f.get(), s.q.get(), s.loader.get());
  CaptureStdout([&] { searcher.Init(); });
  PeakValueObserver observer;
  observer.SetOptMinMax(-2.0f, 4.0f);
  searcher.SearchOneInput("x", &observer);
  QuantizationConfig* c = searcher.int8_config->GetDataConfig("x");
  EXPECT_EQ(c->getMin(), -2.0f);
  EXPECT_EQ(c->getMax(), 4.0f);
  // Codes of -1 and 4 on the grid of [-2, 4]: scale 6/255, zero 85.
  EXPECT_EQ(s.q->GetInputData(0)->GetCpuData()[0], 43);
  EXPECT_EQ(s.q->GetInputData(0)->GetCpuData()[7], 255);
  // The float net keeps its input: only the cosine searcher rewrites it.
  EXPECT_EQ(Values(s.f->GetInputData(0)), kX);
}

TEST(Searcher, CosineSearcherInputRewritesTheFloatInputOnItsGrid) {
  SearchNets s = MakeSearchNets(ReluSoftmax(), 2, {kX});
  CosineSearcher searcher(s.f.get(), s.q.get(), s.loader.get());
  CaptureStdout([&] { searcher.Init(); });
  PeakValueObserver observer;
  observer.SetOptMinMax(-2.0f, 4.0f);
  searcher.SearchOneInput("x", &observer);
  std::vector<float> want = kX;
  FakeQuantization(want.data(), want.size(), -2.0f, 4.0f, 8);
  EXPECT_EQ(Values(s.f->GetInputData(0)), want);
  EXPECT_NE(want, kX);
}

// ---- GenerateCandidates

TEST(CosineSearcherCandidates, ZeroPointZeroGivesTwentyFiveRangesFromZero) {
  std::vector<std::pair<float, float>> out;
  CosineSearcher::GenerateCandidates(out, 0.5f, 0);
  ASSERT_EQ(out.size(), 25u);
  for (const auto& r : out) EXPECT_EQ(r.first, 0.0f);
  EXPECT_EQ(out[0].second, 127.5f);
  // e = 4096: one and a half steps.
  EXPECT_EQ(out[1].second, 191.25f);
  // e = -4096: half a step.
  EXPECT_EQ(out[2].second, 63.75f);
}

TEST(CosineSearcherCandidates, ScaleOneZero128StartsAtMinus128To127) {
  std::vector<std::pair<float, float>> out = {{9.0f, 9.0f}};
  CosineSearcher::GenerateCandidates(out, 1.0f, 128);
  ASSERT_EQ(out.size(), 30u);  // appended to what was there
  EXPECT_EQ(out[1], std::make_pair(-128.0f, 127.0f));
  EXPECT_EQ(out[2], std::make_pair(-192.0f, 190.5f));
  // Zero offsets -3, -1, 1, 3 at e = 0.
  EXPECT_EQ(out[26], std::make_pair(-125.0f, 130.0f));
  EXPECT_EQ(out[27], std::make_pair(-127.0f, 128.0f));
  EXPECT_EQ(out[28], std::make_pair(-129.0f, 126.0f));
  EXPECT_EQ(out[29], std::make_pair(-131.0f, 124.0f));
}

TEST(CosineSearcherCandidates, ZeroPointWrapsAround) {
  std::vector<std::pair<float, float>> out;
  CosineSearcher::GenerateCandidates(out, 1.0f, 1);
  ASSERT_EQ(out.size(), 29u);
  // 1 - 3 wraps to 254; 1 - 1 is 0, whose minimum is 0.
  EXPECT_EQ(out[25], std::make_pair(-254.0f, 1.0f));
  EXPECT_EQ(out[26], std::make_pair(0.0f, 255.0f));
}

// ---- CosineSearcher::SearchOneLayer

struct CosineRun {
  SearchNets s;
  CosineSearcher* searcher;
  std::map<std::string, Observer*> observers;
  std::map<std::string, std::unique_ptr<EnumObserver>> owned;
};

// Init, the input installed at [-2, 4], and an enum observer per tensor.
std::unique_ptr<CosineRun> StartCosine(const NetBuilder& b, int items,
                                       const std::vector<float>& x) {
  auto run = std::make_unique<CosineRun>();
  run->s = MakeSearchNets(b, items, {x});
  run->searcher = new CosineSearcher(run->s.f.get(), run->s.q.get(), run->s.loader.get());
  CaptureStdout([&] { run->searcher->Init(); });
  PeakValueObserver input;
  input.SetOptMinMax(-2.0f, 4.0f);
  run->searcher->SearchOneInput("x", &input);
  for (Layer<float>* layer : run->s.f->GetLayers()) {
    for (Data<float>* o : layer->GetOutputs()) {
      run->owned[o->GetName()] = std::make_unique<EnumObserver>();
      run->observers[o->GetName()] = run->owned[o->GetName()].get();
    }
  }
  return run;
}

// Runs layer `name` in the float net, then searches it.
std::string SearchLayer(CosineRun& run, const std::string& name) {
  run.s.f->GetLayer(name)->Forward();
  std::map<std::string, Observer*> map;
  for (Data<float>* o : run.s.f->GetLayer(name)->GetOutputs())
    map[o->GetName()] = run.observers[o->GetName()];
  return CaptureStdout([&] { run.searcher->SearchOneLayer(name, map); });
}

// x -> Power (identity; neither range preserving nor bounded) -> y.
NetBuilder Identity() {
  NetBuilder b;
  b.Input("x", {1, 4}).Layer("id", "Power", {"x"}, {"y"});
  return b;
}

TEST(CosineSearcher, EmptyCandidateListKeepsMinusOneToOne) {
  auto run = StartCosine(Identity(), 2, kX);
  const std::string out = SearchLayer(*run, "id");
  EXPECT_EQ(out, "");
  QuantizationConfig* c = run->searcher->int8_config->GetDataConfig("y");
  EXPECT_EQ(c->getMin(), -1.0f);
  EXPECT_EQ(c->getMax(), 1.0f);
  EXPECT_EQ(run->owned["y"]->opt_min, -1.0f);
  EXPECT_EQ(run->owned["y"]->opt_max, 1.0f);
  // The float tensor holds the 8-bit result on [-1, 1]: x clipped to it.
  std::vector<float> want = kX;
  FakeQuantization(want.data(), want.size(), -2.0f, 4.0f, 8);
  FakeQuantization(want.data(), want.size(), -1.0f, 1.0f, 8);
  std::vector<float> got = Values(run->s.f->GetLayer("id")->GetOutputs()[0]);
  ASSERT_EQ(got.size(), want.size());
  for (size_t k = 0; k < got.size(); ++k) EXPECT_NEAR(got[k], want[k], 1e-6f) << k;
}

TEST(CosineSearcher, TriesEveryCandidateAndKeepsTheBestAtTheOutputs) {
  auto run = StartCosine(ReluSoftmax(), 2, kX);
  // A range that clips r at 0.5, then the full one, then the clipping one
  // again; the input's range comes last (ReLU keeps ranges).
  run->owned["r"]->candidates = {{0.0f, 0.5f}, {0.0f, 4.0f}, {0.0f, 0.5f}};
  const std::string out = SearchLayer(*run, "relu");
  EXPECT_EQ(out,
            "[1/4]searching in 1_th candidate: [0.000000, 0.500000]\r"
            "[2/4]searching in 2_th candidate: [0.000000, 4.000000]\r"
            "[3/4]searching in 3_th candidate: [0.000000, 0.500000]\r"
            "[4/4]searching in 4_th candidate: [-2.000000, 4.000000]\r");
  // The input's own grid wins: on it the 8-bit ReLU loses nothing more.
  QuantizationConfig* c = run->searcher->int8_config->GetDataConfig("r");
  EXPECT_EQ(c->getMin(), -2.0f);
  EXPECT_EQ(c->getMax(), 4.0f);
  EXPECT_EQ(run->owned["r"]->opt_min, -2.0f);
  EXPECT_EQ(run->owned["r"]->opt_max, 4.0f);
  // The winner's 8-bit result, dequantized, stands in the float tensor.
  std::vector<float> want = kX;
  FakeQuantization(want.data(), want.size(), -2.0f, 4.0f, 8);
  for (float& v : want) v = std::max(v, 0.0f);
  std::vector<float> got = Values(run->s.f->GetLayer("relu")->GetOutputs()[0]);
  ASSERT_EQ(got.size(), want.size());
  for (size_t k = 0; k < got.size(); ++k) EXPECT_NEAR(got[k], want[k], 1e-6f) << k;
}

TEST(CosineSearcher, IdenticalCandidatesAreBothTriedAndTheFirstWins) {
  auto run = StartCosine(Identity(), 2, kX);
  // The same range twice, then one a float step wider that scores within
  // 1e-6: only the first can win.
  const float wider = std::nextafter(4.0f, 5.0f);
  run->owned["y"]->candidates = {{-2.0f, 4.0f}, {-2.0f, 4.0f}, {-2.0f, wider}};
  const std::string out = SearchLayer(*run, "id");
  EXPECT_EQ(CountSegments(out, "searching in"), 3);
  EXPECT_EQ(run->owned["y"]->opt_max, 4.0f);
  EXPECT_EQ(run->searcher->int8_config->GetDataConfig("y")->getMax(), 4.0f);
}

TEST(CosineSearcher, SoftmaxAlwaysTriesZeroToOneAndEndsThere) {
  auto run = StartCosine(ReluSoftmax(), 2, kX);
  run->owned["r"]->candidates = {{0.0f, 4.0f}};
  SearchLayer(*run, "relu");
  run->owned["p"]->candidates = {{0.0f, 0.75f}};
  const std::string out = SearchLayer(*run, "soft");
  EXPECT_EQ(out,
            "[1/2]searching in 1_th candidate: [0.000000, 0.750000]\r"
            "[2/2]searching in 2_th candidate: [0.000000, 1.000000]\r");
  // The last layer: its own pasted output is what the score compares, and
  // [0, 1] covers the probabilities (up to 0.83) where [0, 0.75] clips them.
  EXPECT_EQ(run->owned["p"]->opt_max, 1.0f);
  QuantizationConfig* c = run->searcher->int8_config->GetDataConfig("p");
  EXPECT_EQ(c->getMin(), 0.0f);
  EXPECT_EQ(c->getMax(), 1.0f);
}

TEST(CosineSearcher, SoftmaxConfigurationIsFixedEvenWhenAnotherRangeWon) {
  // The net's output is zero whatever p holds: every score is NaN, no
  // candidate wins and the observer gets [-1, 1]; the configuration of p
  // ends at [0, 1] all the same.
  NetBuilder b;
  b.Input("x", {1, 4})
      .Layer("soft", "Softmax", {"x"}, {"p"})
      .Layer("zero", "Power", {"p"}, {"z"}, {{"scale", 0.0}});
  auto run = StartCosine(b, 2, kX);
  run->owned["p"]->candidates = {{0.0f, 0.5f}};
  const std::string out = SearchLayer(*run, "soft");
  EXPECT_EQ(CountSegments(out, "searching in"), 2);
  EXPECT_EQ(run->owned["p"]->opt_min, -1.0f);
  EXPECT_EQ(run->owned["p"]->opt_max, 1.0f);
  QuantizationConfig* c = run->searcher->int8_config->GetDataConfig("p");
  EXPECT_EQ(c->getMin(), 0.0f);
  EXPECT_EQ(c->getMax(), 1.0f);
}

TEST(CosineSearcher, RangePreservingLayerTriesItsInputsRange) {
  auto run = StartCosine(ReluSoftmax(), 2, kX);
  // ReLU keeps ranges: the input's [-2, 4] is the only candidate.
  EXPECT_EQ(SearchLayer(*run, "relu"), "[1/1]searching in 1_th candidate: [-2.000000, 4.000000]\r");
  EXPECT_EQ(run->owned["r"]->opt_min, -2.0f);
  EXPECT_EQ(run->owned["r"]->opt_max, 4.0f);
}

TEST(CosineSearcher, AllZeroOutputGivesNaNScoresAndKeepsMinusOneToOne) {
  // r = ReLU(-|x|) is zero everywhere, so the cached output is all zero.
  NetBuilder b;
  b.Input("x", {1, 4}).Layer("neg", "ReLU", {"x"}, {"r"});
  std::vector<float> x = {-1.0f, -2.0f, -3.0f, -0.5f};
  auto run = StartCosine(b, 1, x);
  run->owned["r"]->candidates = {{0.0f, 1.0f}, {-1.0f, 2.0f}};
  const std::string out = SearchLayer(*run, "neg");
  EXPECT_EQ(CountSegments(out, "searching in"), 3);
  EXPECT_EQ(run->owned["r"]->opt_min, -1.0f);
  EXPECT_EQ(run->owned["r"]->opt_max, 1.0f);
  EXPECT_TRUE(std::isnan(run->searcher->Score()));
}

TEST(CosineSearcher, FloatOutputIsSkippedButTheBoundedRangeStillApplies) {
  auto run = StartCosine(ReluSoftmax(), 2, kX);
  Layer<unsigned char>* soft = run->s.q->GetLayer("soft");
  soft->GetOutputs()[0]->ChangeDataType("float");
  soft->SyncDataType();
  ASSERT_EQ(soft->GetOutputDataType(), "float");
  run->owned["p"]->candidates = {{0.0f, 0.5f}};
  const std::vector<float> before = Values(run->s.f->GetLayer("soft")->GetOutputs()[0]);
  run->s.f->GetLayer("relu")->Forward();
  const std::string out = CaptureStdout([&] {
    run->searcher->SearchOneLayer("soft", {{"p", run->observers["p"]}});
  });
  EXPECT_EQ(out, "");
  EXPECT_TRUE(run->owned["p"]->IsInitial());
  QuantizationConfig* c = run->searcher->int8_config->GetDataConfig("p");
  EXPECT_EQ(c->getMin(), 0.0f);
  EXPECT_EQ(c->getMax(), 1.0f);
  EXPECT_EQ(Values(run->s.f->GetLayer("soft")->GetOutputs()[0]), before);
}

// ---- CosineSimSearcher

struct SimRun {
  SearchNets s;
  CosineSimSearcher* searcher;
  PeakValueObserver observer;
};

std::unique_ptr<SimRun> StartSim(const NetBuilder& b, int items, const std::vector<float>& x) {
  auto run = std::make_unique<SimRun>();
  run->s = MakeSearchNets(b, items, {x});
  run->searcher = new CosineSimSearcher(run->s.f.get(), run->s.q.get(), run->s.loader.get());
  CaptureStdout([&] { run->searcher->Init(); });
  PeakValueObserver input;
  input.SetOptMinMax(-2.0f, 4.0f);
  run->searcher->SearchOneInput("x", &input);
  return run;
}

std::string SimSearch(SimRun& run, const std::string& layer, const std::string& tensor) {
  return CaptureStdout([&] { run.searcher->SearchOneLayer(layer, {{tensor, &run.observer}}); });
}

// Splits `text` at '\n'.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return lines;
}

TEST(CosineSimSearcher, PositiveRangeLaddersFromZeroToHalfTheMaximum) {
  auto run = StartSim(ReluSoftmax(), 2, kX);
  run->observer.SetOptMinMax(1.0f, 2.0f);
  const std::vector<std::string> lines = Lines(SimSearch(*run, "relu", "r"));
  ASSERT_EQ(lines.size(), 101u);
  EXPECT_EQ(lines[0].substr(0, 49), "[1/101]searching in 1_th candidate: [0.00000, 2.0");
  EXPECT_EQ(lines[100].substr(0, 55), "[101/101]searching in 101_th candidate: [0.00000, 1.000");
}

TEST(CosineSimSearcher, ZeroRangeKeepsZero) {
  auto run = StartSim(ReluSoftmax(), 2, kX);
  run->observer.SetOptMinMax(0.0f, 0.0f);
  const std::vector<std::string> lines = Lines(SimSearch(*run, "relu", "r"));
  ASSERT_EQ(lines.size(), 101u);
  // The 8-bit output is all zero on a float output that is not: NaN loses.
  EXPECT_EQ(lines[0], "[1/101]searching in 1_th candidate: [0.00000, 0.00000], sim: 0.000000");
  EXPECT_EQ(lines[100],
            "[101/101]searching in 101_th candidate: [0.00000, 0.00000], sim: 0.000000");
  EXPECT_EQ(run->observer.opt_min, 0.0f);
  EXPECT_EQ(run->observer.opt_max, 0.0f);
}

TEST(CosineSimSearcher, EqualSimilaritiesKeepTheFirstCandidate) {
  // r is all zero in float and in 8 bits on any range: every similarity is 1.
  NetBuilder b;
  b.Input("x", {1, 4}).Layer("neg", "ReLU", {"x"}, {"r"});
  auto run = StartSim(b, 1, {-1.0f, -2.0f, -3.0f, -0.5f});
  run->observer.SetOptMinMax(-4.0f, 8.0f);
  const std::vector<std::string> lines = Lines(SimSearch(*run, "neg", "r"));
  EXPECT_EQ(lines[0], "[1/101]searching in 1_th candidate: [-4.00000, 8.00000], sim: 1.000000");
  EXPECT_EQ(run->observer.opt_min, -4.0f);
  EXPECT_EQ(run->observer.opt_max, 8.0f);
}

TEST(CosineSimSearcher, NoPositiveSimilarityKeepsCandidateZero) {
  auto run = StartSim(ReluSoftmax(), 2, kX);
  // A reference opposite to what the layer computes.
  for (float& v : run->searcher->float_activations["r"]) v = -v;
  run->observer.SetOptMinMax(0.0f, 4.0f);
  const std::vector<std::string> lines = Lines(SimSearch(*run, "relu", "r"));
  EXPECT_EQ(lines[100].substr(lines[100].size() - 13), "sim: 0.000000");
  EXPECT_EQ(run->observer.opt_min, 0.0f);
  EXPECT_EQ(run->observer.opt_max, 4.0f);
  // The float tensor is fake-quantized on the winner's grid.
  std::vector<float> want = {0.0f, 0.5f, 2.0f, 3.0f, 1.0f, 0.0f, 0.25f, 4.0f};
  FakeQuantization(want.data(), want.size(), 0.0f, 4.0f, 8);
  EXPECT_EQ(Values(run->s.f->GetLayer("relu")->GetOutputs()[0]), want);
}

TEST(CosineSimSearcher, FloatOutputIsSkippedAndTheObserverUntouched) {
  auto run = StartSim(ReluSoftmax(), 2, kX);
  run->s.q->GetLayer("relu")->GetOutputs()[0]->ChangeDataType("float");
  run->observer.SetOptMinMax(0.0f, 4.0f);
  EXPECT_EQ(SimSearch(*run, "relu", "r"), "");
  EXPECT_EQ(run->observer.opt_max, 4.0f);
  EXPECT_EQ(run->searcher->int8_config->GetDataConfig("r")->getMax(), 1.20000005f);
}

}  // namespace
}  // namespace qzdl::staticQuantization
