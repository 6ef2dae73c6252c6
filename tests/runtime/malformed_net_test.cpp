// Damaged net descriptions and weights must end in a creation error, never in
// a crash or an out-of-bounds access. Starts from the shipped example net and
// damages one thing at a time.
#include <gtest/gtest.h>

#include <random>

#include "runtime/create_net.h"
#include "runtime/weights_file.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

using test::ReadFile;

const std::string kExample = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn/";

// Creates and, if that works, runs the net. Returns "ok" or the logged message.
std::string TryNet(const std::string& json, std::string weights) {
  std::exception* thrown = nullptr;
  std::string out = test::CaptureStdout([&] {
    try {
      std::unique_ptr<Net<float>> net(CreateNetFromContent<float>(
          json, weights.data(), static_cast<int>(weights.size()), false, false, 0, 1));
      for (int i = 0; i < net->GetInputCount(); ++i) {
        std::vector<float> x(net->GetInputData(i)->Count(0), 0.5f);
        net->SetFloatInputData(x.data(), i);
      }
      net->ForwardAll();
    } catch (std::exception* e) {
      thrown = e;
    }
  });
  if (thrown == nullptr) return "ok";
  EXPECT_STREQ(thrown->what(), "CreatNet Error");
  delete thrown;
  return out;
}

TEST(MalformedNet, ExampleNetRuns) {
  EXPECT_EQ(TryNet(ReadFile(kExample + "net.json"), ReadFile(kExample + "net.bin")), "ok");
}

TEST(MalformedNet, EveryParamReplacedByBadValues) {
  const std::string text = ReadFile(kExample + "net.json");
  const std::string weights = ReadFile(kExample + "net.bin");
  std::string err;
  const json11::Json net = json11::Json::parse(text, err);
  ASSERT_TRUE(err.empty());
  const std::vector<json11::Json> bad = {
      -1,      0,   1000000000, 2.5, "x", json11::Json::array{}, json11::Json::array{-3, 0},
      nullptr, true};
  int cases = 0;
  const auto& layers = net["layers"].array_items();
  for (size_t li = 0; li < layers.size(); ++li) {
    for (const auto& kv : layers[li]["param"].object_items()) {
      for (const json11::Json& value : bad) {
        json11::Json::object param = layers[li]["param"].object_items();
        param[kv.first] = value;
        json11::Json::object layer = layers[li].object_items();
        layer["param"] = param;
        json11::Json::array new_layers = layers;
        new_layers[li] = layer;
        json11::Json::object top = net.object_items();
        top["layers"] = new_layers;
        TryNet(json11::Json(top).dump(), weights);  // must not crash
        ++cases;
      }
    }
  }
  EXPECT_GT(cases, 50);
}

TEST(MalformedNet, BadInputDims) {
  const std::string weights = ReadFile(kExample + "net.bin");
  std::string err;
  const json11::Json net = json11::Json::parse(ReadFile(kExample + "net.json"), err);
  for (const char* dims : {"[1, 3, 0, 32]", "[1, 3, 32]", "[1, 3, 1, 1]", "[1, 3, 100000, 100000]",
                           "[]", "[1, 5, 32, 32]", "\"x\""}) {
    json11::Json::object top = net.object_items();
    top["inputs"] = json11::Json::array{
        json11::Json::object{{"name", "data"}, {"dims", json11::Json::parse(dims, err)}}};
    EXPECT_NE(TryNet(json11::Json(top).dump(), weights), "ok") << dims;
  }
}

TEST(MalformedNet, TruncatedAndFlippedWeights) {
  const std::string text = ReadFile(kExample + "net.json");
  const std::string weights = ReadFile(kExample + "net.bin");
  std::mt19937 gen(7);
  for (int i = 0; i < 60; ++i) {
    const size_t n = std::uniform_int_distribution<size_t>(0, weights.size() - 1)(gen);
    const std::string out = TryNet(text, weights.substr(0, n));
    EXPECT_NE(out, "ok") << n;
  }
  for (int i = 0; i < 200; ++i) {
    std::string damaged = weights;
    const size_t at = std::uniform_int_distribution<size_t>(0, 200)(gen);
    damaged[at] = static_cast<char>(gen());
    TryNet(text, damaged);  // may still load if only a value changed
  }
}

TEST(MalformedNet, MissingAndReshapedBlobs) {
  const std::string text = ReadFile(kExample + "net.json");
  const std::string weights = ReadFile(kExample + "net.bin");
  const auto blobs = ParseWeights(weights.data(), weights.size(), "w");
  for (size_t skip = 0; skip < blobs.size(); ++skip) {
    std::vector<WeightBlob> fewer = blobs;
    fewer.erase(fewer.begin() + skip);
    const std::string out = TryNet(text, SerializeWeights(fewer));
    EXPECT_NE(out.find("weights: layer \"" + blobs[skip].layer + "\": blob \"" + blobs[skip].name +
                       "\" is missing"),
              std::string::npos)
        << out;
    std::vector<WeightBlob> reshaped = blobs;
    reshaped[skip].dims.push_back(1);
    const std::string out2 = TryNet(text, SerializeWeights(reshaped));
    EXPECT_NE(out2.find("blob \"" + blobs[skip].name + "\" has shape"), std::string::npos) << out2;
  }
}

TEST(MalformedNet, StructuralDamage) {
  for (const char* text :
       {"{}", "{\"inputs\": [], \"layers\": []}",
        "{\"inputs\": [{\"name\": \"d\", \"dims\": [1]}]}",
        "{\"inputs\": [{\"name\": \"d\", \"dims\": [1, 2]}], \"layers\": [{\"name\": \"a\"}]}",
        "{\"inputs\": [{\"name\": \"d\", \"dims\": [1, 2]}], \"layers\": [7]}",
        "{\"inputs\": [{\"name\": \"d\", \"dims\": [1, 2]}], \"layers\": [{\"name\": \"a\", "
        "\"type\": \"ReLU\", \"inputs\": [\"d\"], \"outputs\": []}]}",
        "{\"inputs\": [{\"name\": \"d\", \"dims\": [1, 2]}], \"layers\": [{\"name\": \"a\", "
        "\"type\": \"ReLU\", \"inputs\": [\"d\"], \"outputs\": [\"d2\"], \"param\": 3}]}"}) {
    EXPECT_NE(TryNet(text, ""), "ok") << text;
  }
}

}  // namespace
}  // namespace qzdl
