// Which searcher and tuner a conversion makes, and what the whole-net search
// of -e is given: the candidates of method 8 and the first items of the
// first net input.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "converter_test_access.h"
#include "dataloader/sample_files.h"
#include "quantization/searcher.h"
#include "quantization/weights_tuner.h"

namespace qzdl::modelConverter {
namespace {

using staticQuantization::AdaQuantSearcher;
using staticQuantization::AdaQuantSeqSearcher;
using staticQuantization::CosineSearcher;

constexpr char kSearcherInit[] = "Initialize quantization config searcher.";
constexpr char kCollecting[] = "Collecting all float activation ... done!";
constexpr char kWholeNet[] = "whole-net search:";

class SearchDrivingTest : public ConverterInTempDir {
 protected:
  // x [1, 2, 2, 2] -> conv 1x1 (2 channels) -> c -> ReLU -> r -> fc -> y;
  // `items` samples of x (item i holds i + 0.25 j at element j), and with
  // `two_inputs` a second input z fed to an Eltwise with r.
  ConverterParam Param(int mode, int items, bool two_inputs = false) {
    test::NetBuilder b;
    b.Input("x", {1, 2, 2, 2});
    if (two_inputs) b.Input("z", {1, 2, 2, 2});
    b.Layer("conv", "Convolution", {"x"}, {"c"}, {{"num_output", 2}, {"kernel_size", 1}})
        .Weight("conv", "weight", {2, 2, 1, 1}, {0.5f, -0.25f, 1.0f, 0.75f})
        .Weight("conv", "bias", {2}, {0.1f, -0.1f})
        .Layer("relu", "ReLU", {"c"}, {"r"});
    std::string last = "r";
    if (two_inputs) {
      b.Layer("sum", "Eltwise", {"r", "z"}, {"s"});
      last = "s";
    }
    b.Layer("fc", "InnerProduct", {last}, {"y"}, {{"num_output", 3}})
        .Weight("fc", "weight", {3, 8}, test::RandomVector(24, 5))
        .Weight("fc", "bias", {3}, {0.0f, 0.5f, -0.5f});
    const auto files = b.WriteFiles(dir_);
    std::string list;
    for (int i = 0; i < items; ++i) {
      std::vector<float> x(8);
      for (int j = 0; j < 8; ++j) x[j] = static_cast<float>(i) + 0.25f * j;
      const std::string path = dir_ + "/x" + std::to_string(i) + ".npy";
      test::WriteNpy(path, {1, 2, 2, 2}, x);
      list += path;
      if (two_inputs) {
        for (float& v : x) v = -v;
        const std::string zpath = dir_ + "/z" + std::to_string(i) + ".npy";
        test::WriteNpy(zpath, {1, 2, 2, 2}, x);
        list += "\n" + zpath;  // lines alternate over the inputs
      }
      list += "\n";
    }
    test::WriteFile(dir_ + "/list.txt", list);
    ConverterParam p;
    p.json_file = files.first;
    p.model_file = files.second;
    p.output_name = dir_ + "/out.bin";
    p.calibration_set = dir_ + "/list.txt";
    p.calibration_type = "npy";
    p.calibration_mode = static_cast<CalibrationMethod>(mode);
    return p;
  }

  std::string Convert(Converter& c) {
    return test::CaptureStdout([&] { c.Convert(); });
  }
};

TEST_F(SearchDrivingTest, CosineModeWithoutTargetSearchesInTheRounds) {
  std::string out;
  auto c = Make(Param(8, 3), &out);
  ASSERT_TRUE(ConverterTestAccess::HasSearcher(*c));
  EXPECT_TRUE(ConverterTestAccess::HasInt8Net(*c));
  EXPECT_NE(dynamic_cast<CosineSearcher*>(ConverterTestAccess::GetSearcher(*c)), nullptr);
  EXPECT_FALSE(ConverterTestAccess::HasTuner(*c));
  out = Convert(*c);
  EXPECT_NE(out.find(kSearcherInit), std::string::npos) << out;
  EXPECT_NE(out.find("searching in 1_th candidate"), std::string::npos) << out;
  EXPECT_EQ(out.find(kWholeNet), std::string::npos) << out;
}

TEST_F(SearchDrivingTest, CosineModeWithTargetLeavesTheCandidatesToTheWholeNetSearch) {
  ConverterParam p = Param(8, 3);
  p.expectant_cos = 0.99;
  std::string out;
  auto c = Make(p, &out);
  EXPECT_FALSE(ConverterTestAccess::HasSearcher(*c));
  EXPECT_FALSE(ConverterTestAccess::HasInt8Net(*c));
  out = Convert(*c);
  EXPECT_EQ(out.find(kSearcherInit), std::string::npos) << out;
  EXPECT_NE(out.find(kWholeNet), std::string::npos) << out;
  // Every tensor of method 8 (not the input, whose method is 0).
  const auto candidates = ConverterTestAccess::SearchCandidates(*c);
  std::vector<std::string> names;
  for (const auto& e : candidates) names.push_back(e.first);
  EXPECT_EQ(names, (std::vector<std::string>{"c", "r", "y"}));
  EXPECT_EQ(candidates.at("c").size(), 7u);
}

TEST_F(SearchDrivingTest, PlainModeWithTargetGivesNoCandidates) {
  ConverterParam p = Param(0, 3);
  p.expectant_cos = 0.99;
  std::string out;
  auto c = Make(p, &out);
  EXPECT_FALSE(ConverterTestAccess::HasSearcher(*c));
  out = Convert(*c);
  EXPECT_NE(out.find(kWholeNet), std::string::npos) << out;
  EXPECT_TRUE(ConverterTestAccess::SearchCandidates(*c).empty());
}

TEST_F(SearchDrivingTest, AdaQuantSequentialWithTargetRunsBoth) {
  ConverterParam p = Param(6, 3);
  p.expectant_cos = 0.99;
  std::string out;
  auto c = Make(p, &out);
  EXPECT_NE(dynamic_cast<AdaQuantSeqSearcher*>(ConverterTestAccess::GetSearcher(*c)), nullptr);
  out = Convert(*c);
  EXPECT_NE(out.find("----Final error: "), std::string::npos) << out;
  EXPECT_NE(out.find(kWholeNet), std::string::npos) << out;
}

TEST_F(SearchDrivingTest, AdaQuantModeMakesTheAdaQuantSearcher) {
  std::string out;
  auto c = Make(Param(7, 3), &out);
  EXPECT_NE(dynamic_cast<AdaQuantSearcher*>(ConverterTestAccess::GetSearcher(*c)), nullptr);
  out = Convert(*c);
  EXPECT_NE(out.find("----Performing AdaQuant: error: "), std::string::npos) << out;
}

TEST_F(SearchDrivingTest, BiasTuningAloneInitialisesTheTuner) {
  ConverterParam p = Param(0, 3);
  p.weight_tuning = true;
  std::string out;
  auto c = Make(p, &out);
  EXPECT_TRUE(ConverterTestAccess::HasTuner(*c));
  EXPECT_FALSE(ConverterTestAccess::HasSearcher(*c));
  out = Convert(*c);
  EXPECT_EQ(out.find(kSearcherInit), std::string::npos) << out;
  EXPECT_NE(out.find(kCollecting), std::string::npos) << out;
  EXPECT_NE(out.find("----Perform BiasTuning in channel 2, delta: "), std::string::npos) << out;
}

TEST_F(SearchDrivingTest, BiasTuningWithASearcherTakesItsCache) {
  ConverterParam p = Param(8, 3);
  p.weight_tuning = true;
  std::string out;
  auto c = Make(p, &out);
  out = Convert(*c);
  // One collection only: the searcher's.
  const size_t first = out.find(kCollecting);
  ASSERT_NE(first, std::string::npos) << out;
  EXPECT_EQ(out.find(kCollecting, first + 1), std::string::npos) << out;
  EXPECT_NE(out.find("----Perform BiasTuning in channel 1, delta: "), std::string::npos) << out;
}

TEST_F(SearchDrivingTest, ThreeItemsGiveThreeInputs) {
  std::string out;
  auto c = Make(Param(0, 3), &out);
  const auto inputs = ConverterTestAccess::SearchInputs(*c);
  ASSERT_EQ(inputs.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(inputs[i].size(), 8u);
    EXPECT_EQ(inputs[i][0], static_cast<float>(i));
    EXPECT_EQ(inputs[i][7], static_cast<float>(i) + 1.75f);
  }
}

TEST_F(SearchDrivingTest, FiftyItemsGiveTen) {
  std::string out;
  auto c = Make(Param(0, 50), &out);
  const auto inputs = ConverterTestAccess::SearchInputs(*c);
  ASSERT_EQ(inputs.size(), 10u);
  EXPECT_EQ(inputs[9][0], 9.0f);
}

TEST_F(SearchDrivingTest, TwoInputNetGivesOnlyTheFirst) {
  std::string out;
  auto c = Make(Param(0, 3, true), &out);
  const auto inputs = ConverterTestAccess::SearchInputs(*c);
  ASSERT_EQ(inputs.size(), 3u);
  // Items of x (non-negative), not of z.
  EXPECT_EQ(inputs[2][1], 2.25f);
}

}  // namespace
}  // namespace qzdl::modelConverter
