// The converter executable's final ranges, read from its "-d 1" table: the
// fixed ranges of bounded layer types, overload protection, presets of -l,
// and ranges tied across layers. Each net takes one input "x" whose values
// are given exactly by a NumPy file, so that every observed range is known.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dataloader/sample_files.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

// One row of the table, formatted as the converter formats it.
std::string Row(const std::string& type, const std::string& name, float min, float max) {
  char line[512];
  snprintf(line, sizeof line, "%-30s%-70s%-15f%-15f", type.c_str(), name.c_str(), min, max);
  return line;
}

class ConverterRangesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(std::string("ranges_") +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
    ASSERT_EQ(mkdir((dir_ + "/out").c_str(), 0755), 0);
  }

  // Converts `net` with input x = `x` (shape [1, 1, 1, n]) and the table on.
  ProcessResult Convert(const NetBuilder& net, const std::vector<float>& x,
                        std::vector<std::string> extra = {}) {
    const auto files = net.WriteFiles(dir_);
    WriteNpy(dir_ + "/x.npy", {1, 1, 1, x.size()}, x);
    WriteFile(dir_ + "/list.txt", dir_ + "/x.npy\n");
    std::vector<std::string> args = {
        "-j", files.first,        "-m", files.second, "-o", dir_ + "/out/m.bin",
        "-s", dir_ + "/list.txt", "-t", "npy",        "-d", "1"};
    args.insert(args.end(), extra.begin(), extra.end());
    ProcessResult r = RunProgram(QZDL_CONVERTER_EXE, args, dir_);
    EXPECT_TRUE(r.exited) << r.out << r.err;
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    return r;
  }

  std::string Preset(const std::string& json) {
    const std::string path = dir_ + "/preset.json";
    WriteFile(path, json);
    return path;
  }

  // The (min, max) of tensor `name` in the table row of `type`.
  static std::pair<float, float> Range(const std::string& out, const std::string& type,
                                       const std::string& name) {
    const std::string head = Row(type, name, 0, 0).substr(0, 100);
    const size_t at = out.find("\n" + head);
    if (at == std::string::npos) return {NAN, NAN};
    return {std::strtof(out.c_str() + at + 101, nullptr),
            std::strtof(out.c_str() + at + 116, nullptr)};
  }

  static NetBuilder Input(int n) {
    NetBuilder b;
    b.Input("x", {1, 1, 1, n});
    return b;
  }

  // a = x, b = 2x + 2; on x in [-1, 1]: a in [-1, 1], b in [0, 4].
  static NetBuilder TwoBranches(NetBuilder b) {
    b.Layer("pa", "Power", {"x"}, {"a"}, {{"power", 1.0}, {"scale", 1.0}, {"shift", 0.0}})
        .Layer("pb", "Power", {"x"}, {"b"}, {{"power", 1.0}, {"scale", 2.0}, {"shift", 2.0}});
    return b;
  }

  std::string dir_;
};

TEST_F(ConverterRangesTest, BoundedTypesGetTheirFixedRanges) {
  // x in [0, 6]: the softmax's own output is far inside [0, 1]; the Elu's
  // observed range is [0, 6]; x == x everywhere, so "equal" saw only 1s.
  NetBuilder b = Input(4);
  b.Layer("sm", "Softmax", {"x"}, {"s"}, {{"axis", 3}})
      .Layer("elu", "Elu", {"x"}, {"e"})
      .Layer("eq", "BroadcastOp", {"x", "x"}, {"q"}, {{"operation", "equal"}})
      .Layer("add", "BroadcastOp", {"x", "x"}, {"d"}, {{"operation", "add"}})
      .Layer("th", "TanH", {"x"}, {"t"})
      .Layer("sg", "Sigmoid", {"x"}, {"g"})
      .Layer("rx", "ReLUX", {"x"}, {"r"}, {{"threshold", 3.5}});
  const ProcessResult r = Convert(b, {0.0f, 2.0f, 4.0f, 6.0f});
  EXPECT_TRUE(HasLine(r.out, "Quantization information:")) << r.out;
  EXPECT_TRUE(HasLine(
      r.out, Row("LayerType", "DataName", 0, 0).substr(0, 100) + "Min            Max            "))
      << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("InputData", "x", 0, 6))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Softmax", "s", 0, 1))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Elu", "e", -1, 6))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("BroadcastOp", "q", 0, 1))) << r.out;
  // Another kind keeps what it saw.
  EXPECT_TRUE(HasLine(r.out, Row("BroadcastOp", "d", 0, 12))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("TanH", "t", -1, 1))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Sigmoid", "g", 0, 1))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("ReLUX", "r", 0, 3.5f))) << r.out;
}

TEST_F(ConverterRangesTest, DetectionOutputRangeIsItsClassCount) {
  // One prior: 4 regressions, 21 class scores, the prior box and variances.
  NetBuilder b = Input(33);
  b.Layer("cut", "Slice", {"x"}, {"loc", "conf", "pri"},
          {{"axis", 3}, {"slice_point", json11::Json::array{4, 25}}})
      .Layer("shape", "Reshape", {"pri"}, {"prior"}, {{"shapes", json11::Json::array{1, 2, 4}}})
      .Layer("det", "DetectionOutput", {"loc", "conf", "prior"}, {"d"}, {{"num_classes", 21}});
  std::vector<float> x(33, 0.0f);
  for (int i = 4; i < 25; ++i) x[i] = 1.0f / 21;
  const float box[8] = {0.1f, 0.1f, 0.5f, 0.5f, 0.1f, 0.1f, 0.2f, 0.2f};
  for (int i = 0; i < 8; ++i) x[25 + i] = box[i];
  const ProcessResult r = Convert(b, x);
  EXPECT_TRUE(HasLine(r.out, Row("DetectionOutput", "d", 0, 20))) << r.out;
}

TEST_F(ConverterRangesTest, APresetOnABoundedTypeGivesWay) {
  NetBuilder b = Input(4);
  b.Layer("sm", "Softmax", {"x"}, {"s"}, {{"axis", 3}});
  const ProcessResult r = Convert(
      b, {0.0f, 2.0f, 4.0f, 6.0f},
      {"-l",
       Preset(R"({"presetConfig": {"data": [{"dataName": "s", "min": [-5], "max": [7]}]}})")});
  EXPECT_TRUE(HasLine(r.out, Row("Softmax", "s", 0, 1))) << r.out;
}

// Many small values and one large: the coverage method (99 %) clips the large one,
// and overload protection lifts a convolution's maximum to half the peak.
TEST_F(ConverterRangesTest, OverloadProtectionOfConvolutionsOnly) {
  std::vector<float> x;
  for (int i = 0; i < 200; ++i) x.push_back(0.005f * i);
  x.push_back(100.0f);
  const int n = static_cast<int>(x.size());
  NetBuilder b = Input(n);
  b.Layer("conv", "Convolution", {"x"}, {"c"}, {{"num_output", 1}, {"kernel_size", 1}})
      .Weight("conv", "weight", {1, 1, 1, 1}, {1.0f})
      .Weight("conv", "bias", {1}, {0.0f})
      .Layer("deconv", "Deconvolution", {"x"}, {"dc"}, {{"num_output", 1}, {"kernel_size", 1}})
      .Weight("deconv", "weight", {1, 1, 1, 1}, {1.0f})
      .Weight("deconv", "bias", {1}, {0.0f});
  for (bool radical : {false, true}) {
    std::vector<std::string> extra = {"-c", "3", "-v", "0.99"};
    if (radical) extra.insert(extra.end(), {"-i", "1"});
    const ProcessResult r = Convert(b, x, extra);
    const auto conv = Range(r.out, "Convolution", "c");
    const auto deconv = Range(r.out, "Deconvolution", "dc");
    // The histogram range of the same data, unprotected.
    EXPECT_LT(deconv.second, 50.0f) << r.out;
    if (radical) {
      EXPECT_EQ(conv.second, deconv.second) << r.out;
    } else {
      EXPECT_EQ(conv.second, 50.0f) << r.out;
    }
  }
}

TEST_F(ConverterRangesTest, ConcatTiesItsTensors) {
  NetBuilder b = TwoBranches(Input(2));
  b.Layer("cat", "Concat", {"a", "b"}, {"c"}, {{"axis", 3}});
  ProcessResult r = Convert(b, {-1.0f, 1.0f});
  EXPECT_TRUE(HasLine(r.out, Row("Power", "a", -1, 4))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Power", "b", -1, 4))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Concat", "c", -1, 4))) << r.out;
  // Layer by layer (-q 1) a Concat is not merged: the inputs keep ranges of
  // their own (their values pass through the grid of x first).
  r = Convert(b, {-1.0f, 1.0f}, {"-q", "1"});
  const auto a = Range(r.out, "Power", "a"), bb = Range(r.out, "Power", "b");
  EXPECT_NEAR(a.second, 1.0f, 0.01f) << r.out;
  EXPECT_NEAR(bb.first, 0.0f, 0.01f) << r.out;
  const auto c = Range(r.out, "Concat", "c");
  EXPECT_NEAR(c.first, -1.0f, 0.01f) << r.out;
  EXPECT_NEAR(c.second, 4.0f, 0.02f) << r.out;
}

TEST_F(ConverterRangesTest, SameConfigTiesAnEltwise) {
  // e = a + b in [-1, 5]: wider than either input.
  NetBuilder b = TwoBranches(Input(2));
  b.Layer("sum", "Eltwise", {"a", "b"}, {"e"}, {{"operation", "sum"}});
  ProcessResult r = Convert(b, {-1.0f, 1.0f});
  EXPECT_TRUE(HasLine(r.out, Row("Power", "a", -1, 1))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Power", "b", 0, 4))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Eltwise", "e", -1, 5))) << r.out;
  r = Convert(b, {-1.0f, 1.0f}, {"-f", "1"});
  EXPECT_TRUE(HasLine(r.out, Row("Power", "a", -1, 5))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Power", "b", -1, 5))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Eltwise", "e", -1, 5))) << r.out;
}

TEST_F(ConverterRangesTest, AFollowLayerTakesItsInputsRange) {
  NetBuilder b = Input(2);
  b.Layer("relu", "ReLU", {"x"}, {"r"})
      .Layer("pool", "Pooling", {"r"}, {"p"}, {{"pool", "max"}, {"kernel_size", 1}});
  const ProcessResult r = Convert(b, {-3.0f, 5.0f});
  EXPECT_TRUE(HasLine(r.out, Row("InputData", "x", -3, 5))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("ReLU", "r", -3, 5))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Pooling", "p", -3, 5))) << r.out;
}

TEST_F(ConverterRangesTest, APresetSpreadsOverItsRegion) {
  NetBuilder b = TwoBranches(Input(2));
  b.Layer("cat", "Concat", {"a", "b"}, {"c"}, {{"axis", 3}}).Layer("relu", "ReLU", {"c"}, {"r"});
  // Outside what the data gives, and narrower elsewhere: taken as it stands.
  ProcessResult r = Convert(
      b, {-1.0f, 1.0f},
      {"-l",
       Preset(R"({"presetConfig": {"data": [{"dataName": "c", "min": [-10], "max": [2]}]}})")});
  for (const auto& row : {Row("Power", "a", -10, 2), Row("Power", "b", -10, 2),
                          Row("Concat", "c", -10, 2), Row("ReLU", "r", -10, 2)})
    EXPECT_TRUE(HasLine(r.out, row)) << row << "\n" << r.out;
  // Two presets in one region: the first name in order decides ("a" < "c").
  r = Convert(
      b, {-1.0f, 1.0f},
      {"-l", Preset(R"({"presetConfig": {"data": [{"dataName": "c", "min": [-10], "max": [2]},
                                 {"dataName": "a", "min": [-0.5], "max": [0.5]}]}})")});
  for (const auto& row : {Row("Power", "a", -0.5f, 0.5f), Row("Power", "b", -0.5f, 0.5f),
                          Row("Concat", "c", -0.5f, 0.5f), Row("ReLU", "r", -0.5f, 0.5f)})
    EXPECT_TRUE(HasLine(r.out, row)) << row << "\n" << r.out;
}

TEST_F(ConverterRangesTest, PresetFileEntries) {
  // No merge or follow layer: without presets every range is the observed one.
  NetBuilder b = TwoBranches(Input(2));
  ProcessResult r = Convert(b, {-1.0f, 1.0f});
  EXPECT_TRUE(HasLine(r.out, Row("Power", "a", -1, 1))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Power", "b", 0, 4))) << r.out;
  // "min" without "max": skipped; two entries for "b": the later wins; a
  // weight entry for an unknown layer: skipped.
  r = Convert(b, {-1.0f, 1.0f},
              {"-l", Preset(R"({"presetConfig": {"data": [{"dataName": "a", "axis": 1, "min": [-7]},
                {"dataName": "b", "min": [1], "max": [2]}, {"dataName": "b", "min": [-3], "max": [3]}],
                "weight": [{"layerName": "nosuch", "weightId": 0, "min": [0], "max": [1]}]}})")});
  EXPECT_TRUE(HasLine(r.out, Row("Power", "a", -1, 1))) << r.out;
  EXPECT_TRUE(HasLine(r.out, Row("Power", "b", -3, 3))) << r.out;
  // A tensor entry with an empty "min" makes the file malformed: nothing
  // of it is used.
  r = Convert(
      b, {-1.0f, 1.0f},
      {"-l", Preset(R"({"presetConfig": {"data": [{"dataName": "b", "min": [-3], "max": [3]},
                {"dataName": "a", "min": [], "max": [1]}]}})")});
  EXPECT_TRUE(HasLine(r.out, Row("Power", "b", 0, 4))) << r.out;
}

}  // namespace
}  // namespace qzdl::test
