#include "runtime/create_net.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <stdexcept>
#include <cstring>

#include "runtime/layer_types.h"
#include "runtime/log.h"
#include "runtime/serial_weights.h"
#include "support/net_builder.h"
#include "support/test_layers.h"

namespace qzdl {
namespace {

// The message part of the last log line in `out`.
std::string LoggedMessage(const std::string& out) {
  static const std::regex line(R"(\[[^\]]* \]: ([\s\S]*)\n$)");
  std::smatch m;
  if (!std::regex_search(out, m, line)) return "<no log line in: " + out + ">";
  return m[1].str();
}

// Runs a creation call that must fail; returns the logged message.
template <typename Fn>
std::string CreationFailure(Fn fn) {
  std::exception* thrown = nullptr;
  const std::string out = test::CaptureStdout([&] {
    try {
      fn();
    } catch (std::exception* e) {
      thrown = e;
    }
  });
  EXPECT_NE(thrown, nullptr) << "no exception pointer was thrown";
  if (thrown != nullptr) {
    EXPECT_NE(dynamic_cast<QZDLInitException*>(thrown), nullptr);
    EXPECT_STREQ(thrown->what(), "CreatNet Error");
    delete thrown;
  }
  return LoggedMessage(out);
}

class CreateNetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::RegisterTestLayers();
    dir_ = test::TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
  }
  test::NetBuilder AffineNet() {
    test::NetBuilder b;
    b.Input("data", {1, 2, 1, 2})
        .Layer("affine", "TestAffine", {"data"}, {"out"}, {{"has_bias", true}})
        .Weight("affine", "weight", {2}, {2.0f, 3.0f})
        .Weight("affine", "bias", {2}, {1.0f, -1.0f});
    return b;
  }
  std::string dir_;
};

TEST_F(CreateNetTest, ShortModelPathThrowsOutOfRangeBeforeTouchingFiles) {
  std::string out = test::CaptureStdout([] {
    EXPECT_THROW(CreateNet<float>("/no/such/net.json", "b", true, false, 0, 1), std::out_of_range);
    EXPECT_THROW(CreateNet<float>("/no/such/net.json", "", true, false, 0, 1), std::out_of_range);
  });
  EXPECT_EQ(out, "");  // nothing was logged: no file check ran
}

TEST_F(CreateNetTest, SerialPathWithMissingNetFileFailsInTheParser) {
  const std::string missing = dir_ + "/missing.json";
  std::string err;
  json11::Json::parse("", err);
  // The quoted message, then the file on a line of its own.
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(missing, dir_ + "/m.fb", true, false, 0, 1); }),
            "Parse json file failed: " + err + "\nfile \"" + missing + "\"");
  // Any path ending in the two letters takes that road: no dot is needed.
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(missing, dir_ + "/mxfb", true, false, 0, 1); }),
            "Parse json file failed: " + err + "\nfile \"" + missing + "\"");
}

TEST_F(CreateNetTest, WeightsPathWithMissingNetFileNamesTheNetFile) {
  const std::string missing = dir_ + "/missing.json";
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(missing, dir_ + "/m.bin", true, false, 0, 1); }),
            "Net file \"" + missing + "\" not found.\n");
}

TEST_F(CreateNetTest, MissingModelFile) {
  auto files = AffineNet().WriteFiles(dir_);
  const std::string missing = dir_ + "/none.bin";
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(files.first, missing, true, false, 0, 1); }),
            "Model file \"" + missing + "\" not found.\n");
}

TEST_F(CreateNetTest, NetTypeMustBeFloat) {
  auto files = AffineNet().WriteFiles(dir_);
  EXPECT_EQ(CreationFailure([&] {
              CreateNet<float>(files.first, files.second, "int8", true, false, 0, 1);
            }),
            "the defined net type isn't same as the param \"netDataType\"");
}

TEST_F(CreateNetTest, UnopenableModelFile) {
  auto files = AffineNet().WriteFiles(dir_);
  // A socket exists for stat but cannot be opened for reading.
  const std::string sock = dir_ + "/model.sock";
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  ASSERT_LT(sock.size(), sizeof(addr.sun_path));
  std::strcpy(addr.sun_path, sock.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(files.first, sock, true, false, 0, 1); }),
            "Can't open model file.\nfile \"" + sock + "\"\n");
  close(fd);
}

TEST_F(CreateNetTest, ModelThatCannotBeReadWhole) {
  auto files = AffineNet().WriteFiles(dir_);
  // A folder opens but cannot be read.
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(files.first, dir_, true, false, 0, 1); }),
            "read bin file error\nfile \"" + dir_ + "\"\n");
}

TEST_F(CreateNetTest, BrokenJsonReportsTheParserText) {
  std::ofstream(dir_ + "/bad.json") << "{\"layers\": [";
  std::ofstream(dir_ + "/w.bin");
  std::string err;
  json11::Json::parse("{\"layers\": [", err);
  EXPECT_EQ(CreationFailure([&] {
              CreateNet<float>(dir_ + "/bad.json", dir_ + "/w.bin", true, false, 0, 1);
            }),
            "Parse json file failed: " + err + "\nfile \"" + dir_ + "/bad.json\"");
}

TEST_F(CreateNetTest, NonNetJsonReachesInit) {
  std::ofstream(dir_ + "/list.json") << "[1, 2, 3]";
  std::ofstream(dir_ + "/w.bin");
  const std::string net = dir_ + "/list.json";
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(net, dir_ + "/w.bin", true, false, 0, 1); }),
            "Net file \"" + net + "\": the net description must be a JSON object");
}

TEST_F(CreateNetTest, EmptyWeightsFileIsReadAndHandedOn) {
  test::NetBuilder b;
  b.Input("data", {1, 2}).Layer("relu", "ReLU", {"data"}, {"out"});
  auto files = b.WriteFiles(dir_);
  std::ofstream(files.second, std::ios::trunc).close();
  std::unique_ptr<Net<float>> net(CreateNet<float>(files.first, files.second, false, false, 0, 1));
  ASSERT_NE(net, nullptr);
  EXPECT_EQ(net->GetLayers().size(), 1u);
  // A net that needs weights is told what is missing.
  auto affine = AffineNet().WriteFiles(dir_ + "/..", "affine_empty");
  std::ofstream(affine.second, std::ios::trunc).close();
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(affine.first, affine.second, false, false, 0, 1); }),
            "Model file \"" + affine.second +
                "\": layer \"affine\": blob \"weight\" is missing (expected shape [2])");
}

TEST_F(CreateNetTest, LoadsRunsAndReportsOutputs) {
  auto files = AffineNet().WriteFiles(dir_);
  std::unique_ptr<Net<float>> net(CreateNet<float>(files.first, files.second, false, false, 0, 1));
  std::vector<float> x = {1, 2, 3, 4};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  const float* y = net->GetFloatOutputData(0);
  EXPECT_EQ(std::vector<float>(y, y + 4), (std::vector<float>{3, 5, 8, 11}));
  EXPECT_EQ(net->GetOutputCount(0), 4);
}

TEST_F(CreateNetTest, OptimizeFalseReshapesOnce) {
  auto b = AffineNet();
  test::TestLayerCounters::reshape_calls = 0;
  auto net = b.Build();
  // One shape pass while the net is built, one Reshape(true, n) after it.
  EXPECT_EQ(test::TestLayerCounters::reshape_calls, 2);
  std::string w = b.WeightsBytes();
  test::TestLayerCounters::reshape_calls = 0;
  std::unique_ptr<Net<float>> optimized(CreateNetFromContent<float>(
      b.JsonText(), w.data(), static_cast<int>(w.size()), false, true, 0, 1));
  EXPECT_EQ(test::TestLayerCounters::reshape_calls, 3);
}

TEST_F(CreateNetTest, ReshapeArgumentSetsTheBatch) {
  auto b = AffineNet();
  std::string w = b.WeightsBytes();
  std::unique_ptr<Net<float>> net(CreateNetFromContent<float>(
      b.JsonText(), w.data(), static_cast<int>(w.size()), false, false, 3, 1));
  EXPECT_EQ(net->GetInputData(0)->GetDim(0), 3);
  EXPECT_EQ(net->GetOutputData(0)->GetDim(0), 3);
}

TEST_F(CreateNetTest, AdjustFixedPointHasNoBound) {
  test::NetBuilder b;
  b.Input("data", {1, 1})
      .Layer("a", "TestSettle", {"data"}, {"x"}, {{"settle_after", 100000}})
      .Layer("b", "TestSettle", {"x"}, {"y"});
  test::TestLayerCounters::adjust_calls = 0;
  auto net = b.Build();
  // Layer a answers true 100000 times; every walk visits both layers, and one
  // more walk finds nothing changed.
  EXPECT_EQ(test::TestLayerCounters::adjust_calls, 2 * 100001);
}

TEST_F(CreateNetTest, SwitchesDefaultToTrue) {
  auto net = AffineNet().Build();
  auto* opt = dynamic_cast<Optimizer<float>*>(net.get());
  ASSERT_NE(opt, nullptr);
  for (bool s : {opt->doAlignment, opt->mergeConvBnScRelu, opt->mergeEltwiseRelu, opt->mergeSwish,
                 opt->mergeAllActivation, opt->replaceBroadcastEltwise, opt->replaceConvFC,
                 opt->removeInplaceLayer, opt->removeUselessLayer})
    EXPECT_TRUE(s);
}

TEST_F(CreateNetTest, SwitchValues) {
  auto with = [&](const json11::Json& value) {
    auto b = AffineNet();
    b.Top("mergeSwish", value);
    std::unique_ptr<Net<float>> net = b.Build();
    auto* opt = dynamic_cast<Optimizer<float>*>(net.get());
    EXPECT_TRUE(opt->doAlignment);
    EXPECT_TRUE(opt->removeUselessLayer);
    EXPECT_TRUE(opt->mergeAllActivation);
    return opt->mergeSwish;
  };
  EXPECT_FALSE(with(false));
  EXPECT_FALSE(with(1));
  EXPECT_FALSE(with("true"));
  EXPECT_TRUE(with(nullptr));
  EXPECT_TRUE(with(true));
}

TEST_F(CreateNetTest, AllNineSwitchKeysAreRead) {
  auto b = AffineNet();
  for (const char* key : {"doAlignment", "mergeConvBnScRelu", "mergeEltwiseRelu", "mergeSwish",
                          "mergeAllActivation", "replaceBroadcastEltwise", "replaceConvFC",
                          "removeInplaceLayer", "removeUselessLayer"})
    b.Top(key, false);
  auto net = b.Build();
  auto* opt = dynamic_cast<Optimizer<float>*>(net.get());
  for (bool s : {opt->doAlignment, opt->mergeConvBnScRelu, opt->mergeEltwiseRelu, opt->mergeSwish,
                 opt->mergeAllActivation, opt->replaceBroadcastEltwise, opt->replaceConvFC,
                 opt->removeInplaceLayer, opt->removeUselessLayer})
    EXPECT_FALSE(s);
}

TEST_F(CreateNetTest, HighAccuracyFlagFromTheNetJson) {
  auto b = AffineNet();
  b.Top("highAccuracyDoubleMultiplier", true);
  auto files = b.WriteFiles(dir_);
  std::unique_ptr<Net<float>> net(CreateNet<float>(files.first, files.second, false, false, 0, 1));
  EXPECT_TRUE(net->GetHighAccuracyDoubleMultiplier());
  EXPECT_TRUE(net->HighAccuracyDoubleMultiplierEnabled());
  auto plain = AffineNet().Build();
  EXPECT_FALSE(plain->GetHighAccuracyDoubleMultiplier());
  EXPECT_FALSE(plain->HighAccuracyDoubleMultiplierEnabled());
}

TEST_F(CreateNetTest, SerialModelLoadsButNeverSetsHighAccuracy) {
  auto b = AffineNet();
  b.Top("highAccuracyDoubleMultiplier", true);
  auto files = b.WriteFiles(dir_);
  const std::string fb = dir_ + "/net.fb";
  std::ofstream(fb, std::ios::binary) << SerializeSerialWeights(b.Blobs());
  std::unique_ptr<Net<float>> net(CreateNet<float>(files.first, fb, false, false, 0, 1));
  EXPECT_TRUE(net->GetHighAccuracyDoubleMultiplier());
  EXPECT_FALSE(net->HighAccuracyDoubleMultiplierEnabled());
  std::vector<float> x = {1, 2, 3, 4};
  net->SetFloatInputData(x.data(), 0);
  net->ForwardAll();
  EXPECT_EQ(net->GetFloatOutputData(0)[3], 11.0f);
}

TEST_F(CreateNetTest, SerialPathDoesNotCheckTheModelFileFirst) {
  auto files = AffineNet().WriteFiles(dir_);
  const std::string fb = dir_ + "/absent.fb";
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(files.first, fb, false, false, 0, 1); }),
            "Model file \"" + fb + "\": cannot be read: No such file or directory");
}

TEST_F(CreateNetTest, SerialModelThatIsAFolder) {
  auto files = AffineNet().WriteFiles(dir_);
  const std::string folder = dir_ + "/weights.fb";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(files.first, folder, false, false, 0, 1); }),
            "Model file \"" + folder + "\": cannot be read: Is a directory");
}

TEST_F(CreateNetTest, NetFileThatIsAFolderReachesTheParser) {
  auto files = AffineNet().WriteFiles(dir_);
  std::string err;
  json11::Json::parse("", err);
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(dir_, files.second, false, false, 0, 1); }),
            "Parse json file failed: " + err + "\nfile \"" + dir_ + "\"");
}

TEST_F(CreateNetTest, FrugalFlagIsPassedOn) {
  auto net = AffineNet().Build(true);
  EXPECT_TRUE(net->GetFrugalMode());
  EXPECT_FALSE(AffineNet().Build(false)->GetFrugalMode());
}

TEST_F(CreateNetTest, NetDescriptionErrorsNameFileAndLayer) {
  test::NetBuilder b;
  b.Input("data", {1, 2}).Layer("l1", "NoSuchType", {"data"}, {"out"});
  auto files = b.WriteFiles(dir_);
  EXPECT_EQ(CreationFailure([&] { CreateNet<float>(files.first, files.second, false, false, 0, 1); }),
            "Net file \"" + files.first + "\": layer \"l1\": unknown layer type \"NoSuchType\"");
  test::NetBuilder c;
  c.Input("data", {1, 2}).Layer("l1", "ReLU", {"nothing"}, {"out"});
  EXPECT_EQ(CreationFailure([&] { c.Build(); }),
            "net description: layer \"l1\" (ReLU): input \"nothing\" is neither a net input nor an "
            "output of an earlier layer");
}

TEST(LayerTypeTables, Contents) {
  EXPECT_EQ(QzaccLayer, (std::set<std::string>{"Convolution", "Pooling", "Deconvolution"}));
  ASSERT_EQ(need_trim_vec.size(), 23u);
  EXPECT_EQ(need_trim_vec.front(), "Reshape");
  EXPECT_EQ(need_trim_vec[7], "InnerProduct");
  EXPECT_EQ(need_trim_vec[17], "BroadcastOp");
  EXPECT_EQ(need_trim_vec.back(), "ReflectionPadding");
}

TEST(IsFileExistTest, FilesAndDirectories) {
  EXPECT_TRUE(IsFileExist("/"));
  EXPECT_FALSE(IsFileExist("/no/such/file"));
  EXPECT_FALSE(IsFileExist(nullptr));
}

}  // namespace
}  // namespace qzdl
