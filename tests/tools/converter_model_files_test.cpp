// What a conversion writes, through the converter executable: the quantized
// weights under exactly the output name (or with ".fb" in the serial form),
// the hybrid description beside it, the data types of -L, the files a failed
// write leaves (none), and a converted model run by qzdl_run.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "dataloader/sample_files.h"
#include "runtime/int8/quantized_weights.h"
#include "runtime/json11.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

class ConverterModelFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(std::string("model_files_") +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
    chmod(dir_.c_str(), 0755);
    ASSERT_EQ(mkdir((dir_ + "/out").c_str(), 0755), 0);
  }

  // x [1, 1, 2, 2] -> p = Power(x) ; s = Sigmoid(x) ; r = Reshape(p, s) -> y
  // -> conv (1x1, 2 channels) -> c.
  static NetBuilder SmallNet() {
    NetBuilder b;
    b.Input("x", {1, 1, 2, 2})
        .Layer("pw", "Power", {"x"}, {"p"}, {{"scale", 2.0}})
        .Layer("sg", "Sigmoid", {"x"}, {"s"})
        .Layer("rs", "Reshape", {"p", "s"}, {"y"}, {{"shapes", json11::Json::array{0, 1, 2, 2}}})
        .Layer("conv", "Convolution", {"y"}, {"c"}, {{"num_output", 2}, {"kernel_size", 1}})
        .Weight("conv", "weight", {2, 1, 1, 1}, {0.5f, -1.5f})
        .Weight("conv", "bias", {2}, {0.25f, 0.0f});
    return b;
  }

  // Converts with random data; `json_name` names the net file in dir_.
  ProcessResult Convert(const std::string& output, std::vector<std::string> extra = {},
                        const std::string& json_name = "net.json", int uid = -1) {
    const auto files = SmallNet().WriteFiles(dir_);
    if (json_name != "net.json") rename(files.first.c_str(), (dir_ + "/" + json_name).c_str());
    std::vector<std::string> args = {
        "-j", dir_ + "/" + json_name, "-m", files.second, "-o", output, "-a", "2"};
    args.insert(args.end(), extra.begin(), extra.end());
    return uid < 0 ? RunProgram(QZDL_CONVERTER_EXE, args, dir_)
                   : RunProgramAs(uid, QZDL_CONVERTER_EXE, args, dir_);
  }

  // The data type of each tensor in a saved description, in its order.
  static std::vector<std::pair<std::string, std::string>> DataTypes(const std::string& path) {
    std::string error;
    const json11::Json json = json11::Json::parse(ReadFile(path), error);
    EXPECT_EQ(error, "") << path;
    std::vector<std::pair<std::string, std::string>> types;
    for (const json11::Json& t : json["quantization"]["tensors"].array_items())
      types.push_back({t["name"].string_value(), t["data_type"].string_value()});
    return types;
  }

  static std::vector<QuantizedBlob> Blobs(const std::string& path) {
    const std::string bytes = ReadFile(path);
    return ParseQuantizedWeights(bytes.data(), int64_t(bytes.size()), path);
  }

  std::string dir_;
};

using Types = std::vector<std::pair<std::string, std::string>>;

TEST_F(ConverterModelFilesTest, WeightsUnderExactlyTheOutputName) {
  const ProcessResult r = Convert(dir_ + "/out/model.weights.xyz");
  ASSERT_TRUE(r.exited) << r.out << r.err;
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(FolderNames(dir_ + "/out"),
            (std::vector<std::string>{"model.weights.xyz", "net_hybrid.json"}));
  EXPECT_EQ(ReadFile(dir_ + "/out/model.weights.xyz").substr(0, 4), "QZQW");
  // Without -d there is no table.
  EXPECT_EQ(r.out.find("Quantization information:"), std::string::npos);
}

TEST_F(ConverterModelFilesTest, NonuniformAppendsFbToTheWholeName) {
  const ProcessResult r = Convert(dir_ + "/out/m.fb", {"-u", "1"});
  ASSERT_TRUE(r.exited) << r.out << r.err;
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(FolderNames(dir_ + "/out"), (std::vector<std::string>{"m.fb.fb", "net_hybrid.json"}));
  EXPECT_EQ(ReadFile(dir_ + "/out/m.fb.fb").substr(4, 4), "QZSM");
}

TEST_F(ConverterModelFilesTest, ANetFileWithoutADotGetsHybridAppended) {
  const ProcessResult r = Convert(dir_ + "/out/m.bin", {}, "netfile");
  ASSERT_TRUE(r.exited) << r.out << r.err;
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(FolderNames(dir_ + "/out"), (std::vector<std::string>{"m.bin", "netfilehybrid"}));
}

TEST_F(ConverterModelFilesTest, WithoutLayerTypesEverythingIsInt8) {
  ASSERT_EQ(Convert(dir_ + "/out/m.bin").status, 0);
  EXPECT_EQ(DataTypes(dir_ + "/out/net_hybrid.json"),
            (Types{{"x", "int8"}, {"p", "int8"}, {"s", "int8"}, {"y", "int8"}, {"c", "int8"}}));
  EXPECT_EQ(Blobs(dir_ + "/out/m.bin")[0].type, BlobType::kUint8);
}

TEST_F(ConverterModelFilesTest, LayerTypesThatMatchNothingLeaveAllFloat) {
  ASSERT_EQ(Convert(dir_ + "/out/m.bin", {"-L", "Nothing"}).status, 0);
  EXPECT_EQ(
      DataTypes(dir_ + "/out/net_hybrid.json"),
      (Types{{"x", "float"}, {"p", "float"}, {"s", "float"}, {"y", "float"}, {"c", "float"}}));
  for (const QuantizedBlob& b : Blobs(dir_ + "/out/m.bin")) EXPECT_EQ(b.type, BlobType::kFloat32);
}

TEST_F(ConverterModelFilesTest, AListedReshapeTakesAllItsInputs) {
  // Listed: both inputs of the Reshape, its output.
  ASSERT_EQ(Convert(dir_ + "/out/m.bin", {"-L", "Reshape"}).status, 0);
  EXPECT_EQ(DataTypes(dir_ + "/out/net_hybrid.json"),
            (Types{{"x", "float"}, {"p", "int8"}, {"s", "int8"}, {"y", "int8"}, {"c", "float"}}));
  // Reached from a listed neighbour: its first input and output only.
  ASSERT_EQ(Convert(dir_ + "/out/m.bin", {"-L", "Power"}).status, 0);
  EXPECT_EQ(DataTypes(dir_ + "/out/net_hybrid.json"),
            (Types{{"x", "int8"}, {"p", "int8"}, {"s", "float"}, {"y", "int8"}, {"c", "float"}}));
  // The convolution computes in integers only when its tensors are int8.
  ASSERT_EQ(Convert(dir_ + "/out/m.bin", {"-L", "Convolution"}).status, 0);
  EXPECT_EQ(DataTypes(dir_ + "/out/net_hybrid.json"),
            (Types{{"x", "float"}, {"p", "int8"}, {"s", "float"}, {"y", "int8"}, {"c", "int8"}}));
  EXPECT_EQ(Blobs(dir_ + "/out/m.bin")[0].type, BlobType::kUint8);
}

TEST_F(ConverterModelFilesTest, AnOutputThatCannotBeWrittenLeavesNothing) {
  ProcessResult r = Convert(dir_ + "/missing/m.bin");
  EXPECT_FALSE(r.exited && r.status == 0) << r.out << r.err;
  EXPECT_NE(r.err.find("cannot write the quantized weights file \"" + dir_ +
                       "/missing/m.bin\": No such file or directory"),
            std::string::npos)
      << r.err;
  // The calibration's output before the failure is kept.
  EXPECT_NE(r.out.find("Calibration round 1:"), std::string::npos) << r.out;
  struct stat st;
  EXPECT_NE(stat((dir_ + "/missing").c_str(), &st), 0);
  if (getuid() != 0) GTEST_SKIP() << "the read-only case runs as root only";
  // A folder its user cannot write to.
  ASSERT_EQ(chmod((dir_ + "/out").c_str(), 0555), 0);
  r = Convert(dir_ + "/out/m.bin", {}, "net.json", 65534);
  EXPECT_FALSE(r.exited && r.status == 0) << r.out << r.err;
  EXPECT_NE(r.err.find("cannot write the quantized weights file \"" + dir_ +
                       "/out/m.bin\": Permission denied"),
            std::string::npos)
      << r.err;
  EXPECT_TRUE(FolderNames(dir_ + "/out").empty());
  chmod((dir_ + "/out").c_str(), 0755);
}

}  // namespace
}  // namespace qzdl::test
