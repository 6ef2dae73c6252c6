// In-process tests of the conversion driver: the size checks through their
// own functions, the round count, and what the constructor makes of a net.
#include "converter/converter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <string>

#include "converter_test_access.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::modelConverter {

namespace {

using test::CountLines;
using test::HasLine;
using test::WriteFile;

const char kBatchWarning[] =
    "Warning: Network dose not support inference with batch != 1, open frugal mode now.";
const char kBatchModeWarning[] =
    "Warning: Network dose not support inference with batch != 1, calibration method will be "
    "changed to Peak.";
const char kSizeWarning[] = "Warning: Network is too large, open frugal mode now.";
const char kSizeModeWarning[] =
    "Warning: Network is too large, calibration method will be changed to Peak.";

TEST(SizeCheckTest, ElementLimitMustBeExceeded) {
  EXPECT_FALSE(ExceedsElementLimit(0));
  EXPECT_FALSE(ExceedsElementLimit(2147483647));
  EXPECT_TRUE(ExceedsElementLimit(2147483648LL));
  EXPECT_TRUE(ExceedsElementLimit(int64_t{1} << 40));
  EXPECT_FALSE(ExceedsElementLimit(-5));
}

TEST(SizeCheckTest, BatchLimitMultipliesUnsigned) {
  // A tensor of 2147483647 elements in a set of one item stays below.
  EXPECT_FALSE(ExceedsBatchLimit(2147483647u, 1));
  EXPECT_TRUE(ExceedsBatchLimit(2147483647u, 2));
  EXPECT_TRUE(ExceedsBatchLimit(uint64_t{1} << 30, 2));
  EXPECT_FALSE(ExceedsBatchLimit((uint64_t{1} << 30) - 1, 2));
  EXPECT_FALSE(ExceedsBatchLimit(1000, 0));
  // The product wraps as a 64-bit unsigned number.
  EXPECT_FALSE(ExceedsBatchLimit(uint64_t{1} << 63, 2));
}

TEST(SizeCheckTest, RoundCountOfAnEmptySetIsZero) {
  EXPECT_EQ(RoundCount(0, 0), 0u);
  EXPECT_EQ(RoundCount(5, 0), 0u);
  EXPECT_EQ(RoundCount(5, 5), 1u);
  EXPECT_EQ(RoundCount(5, 1), 5u);
  EXPECT_EQ(RoundCount(5, 2), 2u);
}

TEST(SizeCheckTest, ReshapeFixingTheBatch) {
  auto layer = [](const json11::Json& shapes) {
    return json11::Json(json11::Json::object{{"type", "Reshape"},
                                             {"param", json11::Json::object{{"shapes", shapes}}}});
  };
  EXPECT_TRUE(ReshapeFixesBatch(layer(json11::Json::array{1, -1})));
  EXPECT_TRUE(ReshapeFixesBatch(layer(json11::Json::array{1.0, 3})));
  EXPECT_FALSE(ReshapeFixesBatch(layer(json11::Json::array{0, -1})));
  EXPECT_FALSE(ReshapeFixesBatch(layer(json11::Json::array{2, -1})));
  EXPECT_FALSE(ReshapeFixesBatch(layer(json11::Json::array{})));
  EXPECT_FALSE(ReshapeFixesBatch(json11::Json::object{}));
}

TEST(SizeCheckTest, OpenFrugalForSizeActsOnce) {
  ConverterParam p;
  p.calibration_mode = staticQuantization::MeanSquareError;
  std::string out = test::CaptureStdout([&] { OpenFrugalForSize(p); });
  EXPECT_EQ(out, std::string(kSizeWarning) + "\n" + kSizeModeWarning + "\n");
  EXPECT_TRUE(p.frugal);
  EXPECT_EQ(p.calibration_mode, 0);
  // Once frugal is on, nothing more happens.
  p.calibration_mode = staticQuantization::CosineSearch;
  out = test::CaptureStdout([&] { OpenFrugalForSize(p); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(p.calibration_mode, 8);
}

TEST(SizeCheckTest, OnlyModes4And8FallBackToPeak) {
  for (int mode = 0; mode <= 9; ++mode) {
    SCOPED_TRACE(mode);
    ConverterParam p;
    p.calibration_mode = static_cast<CalibrationMethod>(mode);
    std::string out = test::CaptureStdout([&] { OpenFrugalForSize(p); });
    const bool falls_back = mode == 4 || mode == 8;
    EXPECT_EQ(CountLines(out, kSizeModeWarning), falls_back ? 1 : 0);
    EXPECT_EQ(p.calibration_mode, falls_back ? 0 : mode);
    EXPECT_TRUE(p.frugal);
  }
}

TEST(SizeCheckTest, OpenFrugalForBatch) {
  ConverterParam p;
  p.calibration_mode = staticQuantization::CosineSearch;
  std::string out = test::CaptureStdout([&] { OpenFrugalForBatch(p); });
  EXPECT_EQ(out, std::string(kBatchWarning) + "\n" + kBatchModeWarning + "\n");
  EXPECT_EQ(p.calibration_mode, 0);
  ConverterParam q;
  q.calibration_mode = staticQuantization::AdaQuant;
  out = test::CaptureStdout([&] { OpenFrugalForBatch(q); });
  EXPECT_EQ(out, std::string(kBatchWarning) + "\n");
  EXPECT_EQ(q.calibration_mode, 7);
  q.frugal = true;
  q.calibration_mode = staticQuantization::MeanSquareError;
  EXPECT_EQ(test::CaptureStdout([&] { OpenFrugalForBatch(q); }), "");
  EXPECT_EQ(q.calibration_mode, 4);
}

class ConverterTest : public ConverterInTempDir {
 protected:
  ConverterParam ParamFor(const test::NetBuilder& net, int mode) {
    auto files = net.WriteFiles(dir_);
    ConverterParam p;
    p.json_file = files.first;
    p.model_file = files.second;
    p.output_name = dir_ + "/out.bin";
    p.calibration_mode = static_cast<CalibrationMethod>(mode);
    return p;
  }
};

TEST_F(ConverterTest, InputsNaiveOutputsTheMode) {
  std::string out;
  auto c = Make(ParamFor(test::PlainNet(), 2), &out);
  const auto& methods = ConverterTestAccess::Methods(*c);
  ASSERT_EQ(methods.size(), 3u);
  EXPECT_EQ(methods.at("data"), 0);
  EXPECT_EQ(methods.at("a"), 2);
  EXPECT_EQ(methods.at("b"), 2);
  EXPECT_TRUE(HasLine(out, "Assign all data`s calibration method to: Entropy"));
  EXPECT_TRUE(ConverterTestAccess::HasFloatNet(*c));
  EXPECT_FALSE(ConverterTestAccess::HasDataLoader(*c));
  EXPECT_FALSE(ConverterTestAccess::HasInt8Net(*c));
  EXPECT_FALSE(ConverterTestAccess::HasSearcher(*c));
  EXPECT_FALSE(ConverterTestAccess::HasTuner(*c));
  EXPECT_TRUE(ConverterTestAccess::SpareFieldsEmpty(*c));
  // One observer per tensor: the keys of the method table.
  EXPECT_EQ(ConverterTestAccess::ObserverCount(*c), methods.size());
}

TEST_F(ConverterTest, ConstructorOutputInOrder) {
  std::string out;
  auto c = Make(ParamFor(test::PlainNet(), 0), &out);
  const size_t status = out.find("CONVERTER PARAMETERS: \n");
  const size_t assign = out.find("Assign all data`s calibration method to: Naive\n");
  ASSERT_EQ(status, 0u) << out;
  ASSERT_NE(assign, std::string::npos);
  EXPECT_LT(status, assign);
  // After the assignment line only the data selection speaks: no source was
  // named and no calibration.bin exists, which is logged.
  const std::string rest =
      out.substr(assign + std::string("Assign all data`s calibration method to: Naive\n").size());
  EXPECT_TRUE(
      std::regex_match(rest, std::regex(R"(\[[^\]]* \]: Can't find calibration\.bin\. )"
                                        R"(Please run "source QZNPU1/env_setup\.sh" first\.\n)")))
      << rest;
}

TEST_F(ConverterTest, OutputNamedLikeAnInputTakesTheMode) {
  test::NetBuilder net;
  net.Input("data", {1, 2, 2, 2}).Layer("relu", "ReLU", {"data"}, {"data"});
  std::string out;
  auto c = Make(ParamFor(net, 5), &out);
  EXPECT_EQ(ConverterTestAccess::Methods(*c).at("data"), 5);
}

TEST_F(ConverterTest, ConfigFileChangesSingleTensors) {
  WriteFile(dir_ + "/config.json",
            R"({"CalibrationMethod": {"data": "MEAN", "a": "mes", "b": 3, "ghost": "ENTROPY"},)"
            R"( "Other": {"a": "NAIVE"}})");
  std::string out;
  auto c = Make(ParamFor(test::PlainNet(), 2), &out);
  const auto& methods = ConverterTestAccess::Methods(*c);
  EXPECT_EQ(methods.at("data"), 1);
  EXPECT_EQ(methods.at("a"), 2);
  EXPECT_EQ(methods.at("b"), 2);
  EXPECT_EQ(methods.count("ghost"), 0u);
  // In key order of the tensors, after the assignment line.
  const std::string expected =
      "Assign all data`s calibration method to: Entropy\n"
      "Data a`s calibration method has been changed to: Entropy.\n"
      "Data b`s calibration method has been changed to: Entropy.\n"
      "Data data`s calibration method has been changed to: Average.\n";
  const size_t end = out.find("\n[");  // the default-set log line follows
  ASSERT_NE(end, std::string::npos) << out;
  const std::string head = out.substr(0, end + 1);
  ASSERT_GE(head.size(), expected.size());
  EXPECT_EQ(head.substr(head.size() - expected.size()), expected) << out;
}

TEST_F(ConverterTest, EveryWordOfTheConfigFile) {
  const std::pair<const char*, int> words[] = {{"NAIVE", 0},    {"MEAN", 1}, {"ENTROPY", 2},
                                               {"COVERAGE", 3}, {"MES", 4},  {"HISTOGRAM", 5},
                                               {"Naive", 8},    {"", 8},     {"PRESET", 8}};
  for (const auto& word : words) {
    SCOPED_TRACE(word.first);
    WriteFile(dir_ + "/config.json",
              std::string(R"({"CalibrationMethod": {"a": ")") + word.first + "\"}}");
    std::string out;
    auto c = Make(ParamFor(test::PlainNet(), 8), &out);
    EXPECT_EQ(ConverterTestAccess::Methods(*c).at("a"), word.second);
  }
}

TEST_F(ConverterTest, BrokenOrMisshapenConfigChangesNothing) {
  for (const char* text :
       {"{\"CalibrationMethod\": {\"a\": \"MEAN\"", "[1, 2]", R"({"CalibrationMethod": ["a"]})",
        R"({"calibrationmethod": {"a": "MEAN"}})", R"({"CalibrationMethod": {"a": null}})"}) {
    SCOPED_TRACE(text);
    WriteFile(dir_ + "/config.json", text);
    std::string out;
    auto c = Make(ParamFor(test::PlainNet(), 3), &out);
    EXPECT_EQ(ConverterTestAccess::Methods(*c).at("a"), 3);
    EXPECT_EQ(out.find("has been changed"), std::string::npos);
  }
}

TEST_F(ConverterTest, ReshapeToBatchOneTurnsFrugalOn) {
  std::string out;
  auto c = Make(ParamFor(test::ReshapeNet({1, -1}), 0), &out);
  EXPECT_TRUE(ConverterTestAccess::Param(*c).frugal);
  EXPECT_EQ(CountLines(out, kBatchWarning), 1);
  EXPECT_EQ(CountLines(out, kBatchModeWarning), 0);
  EXPECT_TRUE(HasLine(out, "  --frugal:             true"));
  // The warning comes before Status.
  EXPECT_LT(out.find(kBatchWarning), out.find("CONVERTER PARAMETERS: "));
}

TEST_F(ConverterTest, ReshapeWithMeanSquareErrorKeepsTheAskedMethodPerTensor) {
  std::string out;
  auto c = Make(ParamFor(test::ReshapeNet({1, -1}), 4), &out);
  EXPECT_EQ(ConverterTestAccess::Param(*c).calibration_mode, 0);
  EXPECT_TRUE(ConverterTestAccess::Param(*c).frugal);
  EXPECT_EQ(CountLines(out, kBatchWarning), 1);
  EXPECT_EQ(CountLines(out, kBatchModeWarning), 1);
  EXPECT_TRUE(HasLine(out, "  --calibration_mode:   Naive"));
  EXPECT_TRUE(HasLine(out, "Assign all data`s calibration method to: MeanSquareError"));
  const auto& methods = ConverterTestAccess::Methods(*c);
  EXPECT_EQ(methods.at("flat"), 4);
  EXPECT_EQ(methods.at("out"), 4);
  EXPECT_EQ(methods.at("data"), 0);
}

TEST_F(ConverterTest, ReshapeKeepingTheBatchChangesNothing) {
  std::string out;
  auto c = Make(ParamFor(test::ReshapeNet({0, -1}), 4), &out);
  EXPECT_FALSE(ConverterTestAccess::Param(*c).frugal);
  EXPECT_EQ(ConverterTestAccess::Param(*c).calibration_mode, 4);
  EXPECT_EQ(out.find("Warning"), std::string::npos);
}

TEST_F(ConverterTest, ReshapeUnderFrugalSaysNothing) {
  ConverterParam p = ParamFor(test::ReshapeNet({1, -1}), 8);
  p.frugal = true;
  std::string out;
  auto c = Make(p, &out);
  EXPECT_EQ(ConverterTestAccess::Param(*c).calibration_mode, 8);
  EXPECT_EQ(out.find("Warning"), std::string::npos);
}

TEST_F(ConverterTest, ConvertWithoutDataEndsWith255) {
  ConverterParam p = ParamFor(test::PlainNet(), 0);
  test::ProcessResult r = test::RunForked([&] {
    Converter* c = new Converter(p);
    c->Convert();
  });
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.out.substr(r.out.size() - 27), "Failed to load input data.\n") << r.out;
}

}  // namespace
}  // namespace qzdl::modelConverter

// ---- InitObservers -----------------------------------------------------------

#include "quantization/coverage_observer.h"
#include "quantization/entropy_observer.h"
#include "quantization/histogram_observer.h"
#include "quantization/mse_observer.h"

namespace qzdl {
namespace modelConverter {
namespace {

using staticQuantization::CoverageObserver;
using staticQuantization::EntropyObserver;
using staticQuantization::EnumObserver;
using staticQuantization::HistogramObserver;
using staticQuantization::MeanSquareErrorObserver;

class InitObserversTest : public ConverterTest {};

TEST_F(InitObserversTest, OneObserverPerTensorNamedByItsKey) {
  std::string out;
  test::NetBuilder net;
  // "x" is written twice (in place): one key, one observer.
  net.Input("data", {1, 2, 2, 2})
      .Layer("a", "ReLU", {"data"}, {"x"})
      .Layer("b", "ReLU", {"x"}, {"x"});
  auto c = Make(ParamFor(net, 2), &out);
  const auto& observers = ConverterTestAccess::Observers(*c);
  ASSERT_EQ(observers.size(), 2u);
  for (const auto& kv : observers) EXPECT_EQ(kv.second->name, kv.first);
  EXPECT_EQ(observers.at("data")->GetObserverType(), 0);
  auto* entropy = dynamic_cast<EntropyObserver*>(observers.at("x"));
  ASSERT_NE(entropy, nullptr);
  EXPECT_EQ(entropy->bits, 8);
  EXPECT_EQ(entropy->bins, 23205);
  EXPECT_EQ(entropy->upsample, 128);
}

TEST_F(InitObserversTest, ClassesAndSettingsByMethod) {
  std::string out;
  ConverterParam p = ParamFor(test::PlainNet(), 4);
  p.symmetrical = true;
  auto mse = Make(p, &out);
  auto* m = dynamic_cast<MeanSquareErrorObserver*>(ConverterTestAccess::Observers(*mse).at("a"));
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(m->symmetric);
  EXPECT_EQ(m->bits, 8);
  EXPECT_EQ(m->steps, 500);

  auto hist = Make(ParamFor(test::PlainNet(), 5), &out);
  auto* h = dynamic_cast<HistogramObserver*>(ConverterTestAccess::Observers(*hist).at("b"));
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->bins, 2048);
  EXPECT_EQ(h->dst_bins, 256);
  EXPECT_EQ(h->upsample, 128);
  EXPECT_EQ(h->histogram, std::vector<int>(2048, 0));

  auto avg = Make(ParamFor(test::PlainNet(), 1), &out);
  EXPECT_EQ(ConverterTestAccess::Observers(*avg).at("a")->GetObserverType(), 1);

  auto cosine = Make(ParamFor(test::PlainNet(), 8), &out);
  auto* e = dynamic_cast<EnumObserver*>(ConverterTestAccess::Observers(*cosine).at("a"));
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->GetObserverType(), 8);
  EXPECT_EQ(e->observers.size(), 7u);
}

TEST_F(InitObserversTest, AdaQuantModesUsePeakObservers) {
  for (int mode : {6, 7}) {
    std::string out;
    auto c = Make(ParamFor(test::PlainNet(), mode), &out);
    for (const auto& kv : ConverterTestAccess::Observers(*c)) {
      EXPECT_EQ(kv.second->GetObserverType(), 0) << kv.first;
      EXPECT_EQ(kv.second->GetObserverTypeString(), "Naive");
    }
  }
}

TEST_F(InitObserversTest, CoverageFromConfigFileTakesTheParameterRatio) {
  WriteFile(dir_ + "/config.json", R"({"CalibrationMethod": {"a": "COVERAGE"}})");
  ConverterParam p = ParamFor(test::PlainNet(), 0);
  p.coverage = 0.9990f;
  std::string out;
  auto c = Make(p, &out);
  auto* cov = dynamic_cast<CoverageObserver*>(ConverterTestAccess::Observers(*c).at("a"));
  ASSERT_NE(cov, nullptr);
  EXPECT_EQ(cov->coverage_ratio, 0.9990f);
  EXPECT_EQ(ConverterTestAccess::Observers(*c).at("b")->GetObserverType(), 0);
}

TEST_F(InitObserversTest, TotalIsOneInBatchModeAndTheItemCountWhenFrugal) {
  for (bool frugal : {false, true}) {
    SCOPED_TRACE(frugal);
    ConverterParam p = ParamFor(test::PlainNet(), 3);
    p.random_input = 5;
    p.frugal = frugal;
    std::string out;
    auto c = Make(p, &out);
    auto* cov = dynamic_cast<CoverageObserver*>(ConverterTestAccess::Observers(*c).at("a"));
    ASSERT_NE(cov, nullptr);
    EXPECT_EQ(cov->total, frugal ? 5 : 1);

    ConverterParam q = ParamFor(test::PlainNet(), 8);
    q.random_input = 5;
    q.frugal = frugal;
    auto d = Make(q, &out);
    auto* e = dynamic_cast<EnumObserver*>(ConverterTestAccess::Observers(*d).at("b"));
    ASSERT_NE(e, nullptr);
    for (int i = 3; i < 7; ++i)
      EXPECT_EQ(static_cast<CoverageObserver*>(e->observers[i])->total, frugal ? 5 : 1);
  }
}

}  // namespace
}  // namespace modelConverter
}  // namespace qzdl
