// The whole-net search on small nets: a candidate range that repairs a bad
// range is taken, layers are kept in float when ranges do not suffice, the
// printed lines and the written files say what happened, and the files load
// back into a net that computes the reported cosine.
#include "runtime/int8/hybrid_net.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/errors.h"
#include "runtime/int8/quantized_model.h"
#include "support/net_builder.h"
#include "support/tensor_ranges.h"

namespace qzdl {
namespace {

using Candidates = std::map<std::string, std::vector<std::pair<float, float>>>;

constexpr int kItems = 6;
constexpr int kWidth = 8;

std::string Fixed(double v) {
  char text[32];
  snprintf(text, sizeof text, "%.6f", v);
  return text;
}

std::string Range(float lo, float hi) {
  char text[64];
  snprintf(text, sizeof text, "[%g, %g]", double(lo), double(hi));
  return text;
}

bool Exists(const std::string& path) { return std::ifstream(path).good(); }

class HybridNetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = test::TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    for (int i = 0; i < kItems; ++i)
      items_.push_back(test::RandomVector(kWidth, 100 + i, -1.0f, 1.0f));
  }

  // data [1, 8] -> fc1 (8) -> relu1 -> fc2 (4) -> out; a second input "aux"
  // is added to the data first when asked; relu1 writes "fc1" in place when
  // asked, else "r1".
  void MakeNet(bool two_inputs, bool in_place = false) {
    builder_ = test::NetBuilder();
    builder_.Input("data", {1, kWidth});
    std::string x = "data";
    if (two_inputs) {
      builder_.Input("aux", {1, kWidth});
      builder_.Layer("sum", "Eltwise", {"data", "aux"}, {"sum"}, {{"operation", "sum"}});
      x = "sum";
    }
    builder_.Layer("fc1", "InnerProduct", {x}, {"fc1"}, {{"num_output", kWidth}})
        .Weight("fc1", "weight", {kWidth, kWidth}, test::RandomVector(64, 7, -0.8f, 0.8f))
        .Weight("fc1", "bias", {kWidth}, test::RandomVector(kWidth, 8, -0.2f, 0.2f))
        .Layer("relu1", "ReLU", {"fc1"}, {in_place ? "fc1" : "r1"})
        .Layer("fc2", "InnerProduct", {in_place ? "fc1" : "r1"}, {"out"}, {{"num_output", 4}})
        .Weight("fc2", "weight", {4, kWidth}, test::RandomVector(32, 9, -0.8f, 0.8f))
        .Weight("fc2", "bias", {4}, test::RandomVector(4, 10, -0.2f, 0.2f));
    files_ = builder_.WriteFiles(dir_);
    float_net_ = builder_.Build();
  }

  // Every tensor's range over the items, then the hybrid description with
  // `bad` (and `bad2`) widened 100 times, and its quantized weights.
  void WriteHybrid(const std::string& bad, const std::string& bad2 = "") {
    INT8Config config;
    float_net_->ReshapeBatchNum(1, 0);
    test::TensorRanges seen;
    std::vector<float> zeros(kWidth, 0.0f);
    for (std::vector<float>& item : items_) {
      float_net_->SetFloatInputData(item.data(), 0);
      for (int i = 1; i < float_net_->GetInputCount(); ++i)
        float_net_->SetFloatInputData(zeros.data(), i);
      seen.Run(*float_net_);
    }
    const auto& ranges = seen.Ranges();
    for (const auto& kv : ranges) {
      float lo = kv.second.first, hi = kv.second.second;
      if (kv.first == bad || kv.first == bad2) lo *= 100, hi *= 100;
      config.addDataConfig(kv.first, lo, hi);
    }
    good_ = ranges.at(bad);
    if (!bad2.empty()) good2_ = ranges.at(bad2);
    bad_ = {config.GetDataConfig(bad)->getMin(), config.GetDataConfig(bad)->getMax()};
    std::string error;
    const json11::Json desc = json11::Json::parse(test::ReadFile(files_.first), error);
    ASSERT_EQ(error, "");
    Net<unsigned char> net(desc, "int8", nullptr);
    net.SetInt8Config(&config);
    net.LoadWeights(files_.second);
    net.Reshape(true, 0);
    net.SetHybridMode(true);
    json_ = dir_ + "/net_hybrid.json";
    model_ = dir_ + "/m.bin";
    net.SaveJson(json_);
    net.SaveWeights(model_, false);
  }

  // The cosine of a saved pair against the float net on the items, computed
  // here on a batch of all items (the other inputs zero).
  double CosineOf(const std::string& json, const std::string& model) {
    std::unique_ptr<Net<unsigned char>> net(CreateQuantizedNet(json, model));
    net->ReshapeBatchNum(kItems, 0);
    std::vector<float> all;
    for (const std::vector<float>& item : items_) all.insert(all.end(), item.begin(), item.end());
    net->SetFloatInputData(all.data(), 0);
    std::vector<float> zeros(all.size(), 0.0f);
    for (int i = 1; i < net->GetInputCount(); ++i) net->SetFloatInputData(zeros.data(), i);
    net->ForwardAll();
    const std::vector<float> got = RealValues(*net, *net->GetOutputData(0));
    float_net_->ReshapeBatchNum(kItems, 0);
    float_net_->SetFloatInputData(all.data(), 0);
    for (int i = 1; i < float_net_->GetInputCount(); ++i)
      float_net_->SetFloatInputData(zeros.data(), i);
    float_net_->ForwardAll();
    const float* want = float_net_->GetFloatOutputData(0);
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < got.size(); ++i)
      ab += double(got[i]) * want[i], aa += double(got[i]) * got[i],
          bb += double(want[i]) * want[i];
    return ab / std::sqrt(aa * bb);
  }

  // Runs the search on a fresh load of the saved pair; returns its output.
  std::string Optimize(double target, Candidates* candidates, const std::string& json,
                       const std::string& model) {
    std::unique_ptr<HybridNet> hybrid(CreateHybridNet(json_, model_, false, 0));
    const std::string log = test::CaptureStdout([&] {
      OptimizeInt8Net(hybrid.get(), float_net_.get(), items_, target, json, model, candidates);
    });
    // SHOW_LOG=1 shows every search's lines when a test is being looked into.
    if (std::getenv("SHOW_LOG") != nullptr) fprintf(stderr, "%s", log.c_str());
    return log;
  }

  static json11::Json TensorEntry(const std::string& json, const std::string& name) {
    std::string error;
    const json11::Json saved = json11::Json::parse(test::ReadFile(json), error);
    for (const json11::Json& t : saved["quantization"]["tensors"].array_items())
      if (t["name"].string_value() == name) return t;
    return json11::Json();
  }

  std::string dir_, json_, model_;
  test::NetBuilder builder_;
  std::pair<std::string, std::string> files_;
  std::unique_ptr<Net<float>> float_net_;
  std::vector<std::vector<float>> items_;
  std::pair<float, float> good_, bad_, good2_;
};

TEST_F(HybridNetTest, AGoodCandidateRangeIsTaken) {
  MakeNet(false);
  WriteHybrid("fc1");
  const double before = CosineOf(json_, model_);
  for (const std::string ext : {".bin", ".bin.fb"}) {
    SCOPED_TRACE(ext);
    const std::string json = dir_ + "/out_hybrid" + ext + ".json", model = dir_ + "/out" + ext;
    Candidates candidates{{"fc1", {{bad_.first * 0.5f, bad_.second * 0.5f}, good_}},
                          {"nothing", {{0.0f, 1.0f}}}};
    const std::string log = Optimize(0.999, &candidates, json, model);
    const double after = CosineOf(json, model);
    ASSERT_GT(after, 0.999);
    ASSERT_LT(before, 0.99);
    EXPECT_EQ(log, "whole-net search: cosine " + Fixed(before) +
                       " against the float net on 6 inputs, target 0.999000\n"
                       "whole-net search: trying the candidate ranges of 1 tensor\n"
                       "  tensor \"fc1\": range " +
                       Range(bad_.first, bad_.second) + " -> " + Range(good_.first, good_.second) +
                       ", cosine " + Fixed(after) +
                       "\n"
                       "whole-net search: cosine " +
                       Fixed(before) + " -> " + Fixed(after) +
                       ", target 0.999000 reached\n"
                       "  ranges changed: \"fc1\" " +
                       Range(bad_.first, bad_.second) + " -> " + Range(good_.first, good_.second) +
                       "\n"
                       "  layers in float: none\n"
                       "  wrote \"" +
                       json + "\" and \"" + model + "\"\n");
    const json11::Json fc1 = TensorEntry(json, "fc1");
    EXPECT_EQ(float(fc1["min"].number_value()), good_.first);
    EXPECT_EQ(float(fc1["max"].number_value()), good_.second);
    EXPECT_EQ(fc1["data_type"].string_value(), "int8");
  }
}

TEST_F(HybridNetTest, ATargetAlreadyMetChangesNothing) {
  MakeNet(false);
  WriteHybrid("fc1");
  const std::string json_before = test::ReadFile(json_), model_before = test::ReadFile(model_);
  const double before = CosineOf(json_, model_);
  Candidates candidates{{"fc1", {good_}}};
  const std::string log = Optimize(0.5, &candidates, json_, model_);
  EXPECT_EQ(log, "whole-net search: cosine " + Fixed(before) +
                     " against the float net on 6 inputs, target 0.500000\n"
                     "whole-net search: cosine " +
                     Fixed(before) + " -> " + Fixed(before) +
                     ", target 0.500000 reached\n"
                     "  ranges changed: none\n"
                     "  layers in float: none\n"
                     "  nothing changed; \"" +
                     json_ + "\" and \"" + model_ + "\" are left as they are\n");
  EXPECT_EQ(test::ReadFile(json_), json_before);
  EXPECT_EQ(test::ReadFile(model_), model_before);
  EXPECT_EQ(test::FolderNames(dir_),
            (std::vector<std::string>{"m.bin", "net.bin", "net.json", "net_hybrid.json"}));
}

TEST_F(HybridNetTest, LayersAreKeptInFloatWhenRangesDoNotSuffice) {
  MakeNet(false);
  WriteHybrid("fc1");
  const std::string json = dir_ + "/out.json", model = dir_ + "/out.bin";
  const std::string log = Optimize(0.999, nullptr, json, model);
  const double after = CosineOf(json, model);
  EXPECT_NE(log.find("whole-net search: keeping layers in float, largest gain first (3 layers in "
                     "8 bits)\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(", target 0.999000 reached\n  ranges changed: none\n  layers in float: "
                     "\"fc1\"\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("  layer \"fc1\" in float: cosine "), std::string::npos) << log;
  EXPECT_NE(log.find(" -> " + Fixed(after) + ", kept\n"), std::string::npos) << log;
  EXPECT_EQ(TensorEntry(json, "fc1")["data_type"].string_value(), "float");
  EXPECT_EQ(TensorEntry(json, "r1")["data_type"].string_value(), "int8");
  std::unique_ptr<Net<unsigned char>> back(CreateQuantizedNet(json, model));
  EXPECT_EQ(back->GetLayer("fc1")->GetOutputDataType(), "float");
}

TEST_F(HybridNetTest, AnUnreachableTargetIsReported) {
  MakeNet(false);
  WriteHybrid("fc1");
  const std::string json = dir_ + "/out.json", model = dir_ + "/out.bin";
  Candidates candidates{{"fc1", {good_}}};
  const std::string log = Optimize(1.0, &candidates, json, model);
  const double before = CosineOf(json_, model_), after = CosineOf(json, model);
  EXPECT_LT(after, 1.0);
  EXPECT_NE(log.find("whole-net search: cosine " + Fixed(before) + " -> " + Fixed(after) +
                     ", target 1.000000 not reached: no candidate or layer left\n"
                     "  ranges changed: \"fc1\" "),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("  wrote \"" + json + "\" and \"" + model + "\"\n"), std::string::npos);
}

TEST_F(HybridNetTest, EmptyInputsChangeNothing) {
  MakeNet(false);
  WriteHybrid("fc1");
  std::vector<std::vector<float>> none;
  std::unique_ptr<HybridNet> hybrid(CreateHybridNet(json_, model_, false, 0));
  Candidates candidates{{"fc1", {good_}}};
  const std::string log = test::CaptureStdout([&] {
    OptimizeInt8Net(hybrid.get(), float_net_.get(), none, 0.999, dir_ + "/o.json", dir_ + "/o.bin",
                    &candidates);
  });
  EXPECT_EQ(log, "whole-net search: no inputs given; nothing is measured or changed\n");
  EXPECT_FALSE(Exists(dir_ + "/o.json"));
  EXPECT_FALSE(Exists(dir_ + "/o.bin"));
}

TEST_F(HybridNetTest, AnItemOfTheWrongSizeIsNamed) {
  MakeNet(false);
  WriteHybrid("fc1");
  items_[2].pop_back();
  std::unique_ptr<HybridNet> hybrid(CreateHybridNet(json_, model_, false, 0));
  try {
    OptimizeInt8Net(hybrid.get(), float_net_.get(), items_, 0.999, dir_ + "/o.json",
                    dir_ + "/o.bin", nullptr);
    FAIL() << "no error";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()),
              "whole-net search: input item 2 has 7 values; the net's first input \"data\" takes "
              "8 per item");
  }
  EXPECT_FALSE(Exists(dir_ + "/o.json"));
}

TEST_F(HybridNetTest, AFileThatCannotBeWrittenLeavesBothUnwritten) {
  MakeNet(false);
  WriteHybrid("fc1");
  Candidates candidates{{"fc1", {good_}}};
  try {
    Optimize(0.999, &candidates, dir_ + "/o.json", dir_ + "/missing/o.bin");
    FAIL() << "no error";
  } catch (const NetFormatError& e) {
    EXPECT_EQ(std::string(e.what()), "whole-net search: cannot write \"" + dir_ +
                                         "/missing/o.bin\": No such file or directory");
  }
  EXPECT_FALSE(Exists(dir_ + "/o.json"));
  EXPECT_EQ(test::FolderNames(dir_),
            (std::vector<std::string>{"m.bin", "net.bin", "net.json", "net_hybrid.json"}));
}

TEST_F(HybridNetTest, CreateHybridNetNamesTheFile) {
  MakeNet(false);
  try {
    delete CreateHybridNet(files_.first, files_.second, false, 0);
    FAIL() << "no error";
  } catch (const NetFormatError& e) {
    EXPECT_EQ(std::string(e.what()).rfind("Net file \"" + files_.first + "\": has no", 0), 0u)
        << e.what();
  }
}

TEST_F(HybridNetTest, TwoRunsWriteTheSameFiles) {
  MakeNet(false);
  WriteHybrid("fc1");
  Candidates candidates{{"fc1", {{bad_.first * 0.5f, bad_.second * 0.5f}, good_}},
                        {"r1", {{0.0f, 50.0f}}}};
  std::string logs[2];
  for (int run = 0; run < 2; ++run) {
    logs[run] = Optimize(0.99999, &candidates, dir_ + "/run" + std::to_string(run) + ".json",
                         dir_ + "/run" + std::to_string(run) + ".bin");
  }
  EXPECT_EQ(test::ReadFile(dir_ + "/run0.json"), test::ReadFile(dir_ + "/run1.json"));
  EXPECT_EQ(test::ReadFile(dir_ + "/run0.bin"), test::ReadFile(dir_ + "/run1.bin"));
  EXPECT_FALSE(test::ReadFile(dir_ + "/run0.bin").empty());
  size_t at = 0;
  while ((at = logs[0].find("run0", at)) != std::string::npos) logs[0].replace(at, 4, "run1");
  EXPECT_EQ(logs[0], logs[1]);
}

// A rejected range leaves the layers after it computed on it: the next
// trial runs them again. Here fc1's second candidate is rejected, and the
// trial of "out" (read and written by fc2 alone) must not see it.
TEST_F(HybridNetTest, ARejectedRangeIsNotSeenByLaterTrials) {
  MakeNet(false, true);
  WriteHybrid("fc1", "out");
  const std::string json = dir_ + "/out.json", model = dir_ + "/out.bin";
  Candidates candidates{
      {"data", {{-0.01f, 0.01f}}}, {"fc1", {good_, {-0.01f, 0.01f}}}, {"out", {good2_}}};
  const std::string log = Optimize(0.999, &candidates, json, model);
  const double after = CosineOf(json, model);
  EXPECT_EQ(log.find("tensor \"data\""), std::string::npos) << log;
  EXPECT_NE(log.find("  tensor \"fc1\": range " + Range(bad_.first, bad_.second) + " -> " +
                     Range(good_.first, good_.second) + ", cosine "),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("  tensor \"out\": range ["), std::string::npos) << log;
  EXPECT_NE(
      log.find(" -> " + Range(good2_.first, good2_.second) + ", cosine " + Fixed(after) + "\n"),
      std::string::npos)
      << log;
  EXPECT_NE(log.find(" -> " + Fixed(after) + ", target 0.999000 reached"), std::string::npos)
      << log;
}

TEST_F(HybridNetTest, OnlyTheFirstInputTakesTheItems) {
  MakeNet(true);
  WriteHybrid("fc1");
  const double before = CosineOf(json_, model_);
  const std::string json = dir_ + "/out.json", model = dir_ + "/out.bin";
  Candidates candidates{{"fc1", {good_}}};
  const std::string log = Optimize(0.999, &candidates, json, model);
  EXPECT_EQ(log.substr(0, log.find("trying")),
            "whole-net search: the net has 2 inputs; the items go to \"data\", the others get "
            "zeros\n"
            "whole-net search: cosine " +
                Fixed(before) + " against the float net on 6 inputs, target 0.999000\n" +
                "whole-net search: ");
  EXPECT_NE(log.find("reached\n"), std::string::npos) << log;
  EXPECT_NE(log.find(Fixed(before) + " -> " + Fixed(CosineOf(json, model))), std::string::npos)
      << log;
}

}  // namespace
}  // namespace qzdl
