// Saving an 8-bit net and loading it back: the quantized weights (file and
// serial form) and the description with its quantization section give a
// net that computes the same codes; hybrid nets keep their float parts;
// data types, frugal refills and the loader's errors.
#include "runtime/int8/quantized_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "example_int8_net.h"
#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "runtime/int8/int8_layer.h"
#include "runtime/int8/quantized_weights.h"
#include "runtime/serial_weights.h"

namespace qzdl {
namespace {

using namespace test_int8;

class QuantizedModelTest : public Int8NetTest {
 protected:
  void SetUp() override {
    Int8NetTest::SetUp();
    dir_ = test::TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
  }

  // The output codes (or float bytes) of a net on the fixture's input.
  static std::string OutputBytes(Net<unsigned char>* net, const std::vector<float>& input) {
    net->SetFloatInputData(const_cast<float*>(input.data()), 0);
    net->ForwardAll();
    const Data<unsigned char>* y = net->GetOutputData(0);
    return std::string(reinterpret_cast<const char*>(y->GetCpuData()), y->GetSize());
  }

  // Marks "conv2" (written by conv2 and, in place, relu3) as float.
  void MakeConv2Float() {
    int8_net_->GetData("conv2")->ChangeDataType("float");
    for (Layer<unsigned char>* layer : int8_net_->GetLayers()) layer->SyncDataType();
  }

  std::vector<QuantizedBlob> SavedBlobs(const std::string& path) {
    const std::string bytes = test::ReadFile(path);
    return ParseQuantizedWeights(bytes.data(), int64_t(bytes.size()), path);
  }

  static const QuantizedBlob* Find(const std::vector<QuantizedBlob>& blobs,
                                   const std::string& layer, const std::string& name) {
    for (const QuantizedBlob& b : blobs)
      if (b.layer == layer && b.name == name) return &b;
    return nullptr;
  }

  std::string dir_;
};

TEST_F(QuantizedModelTest, SavedModelComputesTheSameCodes) {
  const std::string want = OutputBytes(int8_net_.get(), input_);
  for (bool serial : {false, true}) {
    const std::string weights = dir_ + (serial ? "/m.bin.fb" : "/m.bin");
    const std::string json = dir_ + "/m_hybrid.json";
    if (serial) {
      int8_net_->SaveSerialWeights(weights);
    } else {
      int8_net_->SaveWeights(weights, false);
    }
    int8_net_->SaveJson(json);
    std::unique_ptr<Net<unsigned char>> back(CreateQuantizedNet(json, weights));
    back->ReshapeBatchNum(kBatch, 0);
    EXPECT_EQ(OutputBytes(back.get(), input_), want) << (serial ? "serial" : "weights file");
    // Every tensor's grid came back.
    for (const auto& kv : config_.DataConfigs()) {
      const QuantizationConfig* q = back->GetInt8Config()->GetDataConfig(kv.first);
      EXPECT_EQ(q->getMin(), kv.second.getMin()) << kv.first;
      EXPECT_EQ(q->getMax(), kv.second.getMax()) << kv.first;
      EXPECT_EQ(q->getZeroPoint(), kv.second.getZeroPoint()) << kv.first;
    }
  }
}

TEST_F(QuantizedModelTest, LoadedModelIsPreparedBeforeItsFirstForward) {
  const std::string want = OutputBytes(int8_net_.get(), input_);
  int8_net_->SaveWeights(dir_ + "/m.bin", false);
  int8_net_->SaveJson(dir_ + "/m_hybrid.json");
  std::unique_ptr<Net<unsigned char>> back(
      CreateQuantizedNet(dir_ + "/m_hybrid.json", dir_ + "/m.bin"));
  int with_attrs = 0;
  for (Layer<unsigned char>* layer : back->GetLayers()) {
    auto* int8 = dynamic_cast<Int8Layer*>(layer);
    if (int8 == nullptr || !int8->ComputesInIntegers()) continue;
    EXPECT_FALSE(layer->GetInt32AttrDatas().empty() && layer->GetUint8AttrDatas().empty())
        << layer->GetName();
    ++with_attrs;
  }
  EXPECT_GT(with_attrs, 0);
  // After a caller drops them, one call prepares every such layer again.
  for (Layer<unsigned char>* layer : back->GetLayers()) layer->DeleteAttrDatas();
  EXPECT_EQ(PrepareInt8Layers(*back), with_attrs);
  back->ReshapeBatchNum(kBatch, 0);
  EXPECT_EQ(OutputBytes(back.get(), input_), want);
}

TEST_F(QuantizedModelTest, IntegerLayersSaveCodesAndInt32Biases) {
  int8_net_->SaveWeights(dir_ + "/m.bin", false);
  const std::vector<QuantizedBlob> blobs = SavedBlobs(dir_ + "/m.bin");
  const QuantizedBlob* w = Find(blobs, "conv1", "weight");
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(w->type, BlobType::kUint8);
  EXPECT_EQ(w->grids.size(), 16u);
  const Layer<unsigned char>* conv1 = int8_net_->GetLayers()[0];
  EXPECT_EQ(w->bytes,
            std::string(reinterpret_cast<const char*>(const_cast<Layer<unsigned char>*>(conv1)
                                                          ->GetUint8AttrDatas()["weight"]
                                                          ->GetCpuData()),
                        w->bytes.size()));
  const QuantizedBlob* b = Find(blobs, "conv1", "bias");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->type, BlobType::kInt32);
  EXPECT_TRUE(b->grids.empty());
  // A layer without an integer kernel keeps its float values.
  const QuantizedBlob* bn = Find(blobs, "bn1", "mean");
  ASSERT_NE(bn, nullptr);
  EXPECT_EQ(bn->type, BlobType::kFloat32);
  EXPECT_EQ(Find(blobs, "fc", "weight")->type, BlobType::kUint8);
}

TEST_F(QuantizedModelTest, HybridNetsKeepTheirFloatParts) {
  MakeConv2Float();
  const std::string want = OutputBytes(int8_net_.get(), input_);
  int8_net_->SetHybridMode(true);
  int8_net_->SaveWeights(dir_ + "/m.bin", false);
  int8_net_->SaveJson(dir_ + "/m_hybrid.json");
  const std::vector<QuantizedBlob> blobs = SavedBlobs(dir_ + "/m.bin");
  EXPECT_EQ(Find(blobs, "conv2", "weight")->type, BlobType::kFloat32);
  EXPECT_EQ(Find(blobs, "conv2", "weight")->grids.size(), 0u);
  EXPECT_EQ(Find(blobs, "conv2_dw", "weight")->type, BlobType::kUint8);

  std::unique_ptr<Net<unsigned char>> back(
      CreateQuantizedNet(dir_ + "/m_hybrid.json", dir_ + "/m.bin"));
  back->ReshapeBatchNum(kBatch, 0);
  EXPECT_EQ(back->GetData("conv2")->GetDataType(), "float");
  EXPECT_EQ(back->GetData("conv2_dw")->GetDataType(), "int8");
  EXPECT_EQ(back->GetLayer("conv2")->GetOutputDataType(), "float");
  EXPECT_EQ(back->GetLayer("pool2")->GetOutputDataType(), "int8");
  EXPECT_EQ(OutputBytes(back.get(), input_), want);

  // Out of hybrid mode the description says every tensor is "int8".
  int8_net_->SetHybridMode(false);
  int8_net_->SaveJson(dir_ + "/plain.json");
  std::string error;
  const json11::Json plain = json11::Json::parse(test::ReadFile(dir_ + "/plain.json"), error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(plain["quantization"]["hybrid"].bool_value(), false);
  for (const json11::Json& t : plain["quantization"]["tensors"].array_items())
    EXPECT_EQ(t["data_type"].string_value(), "int8") << t["name"].string_value();
}

TEST_F(QuantizedModelTest, TheDescriptionKeepsTheNetAndAddsGrids) {
  int8_net_->SetHybridMode(true);
  int8_net_->SaveJson(dir_ + "/m.json");
  std::string error;
  const json11::Json saved = json11::Json::parse(test::ReadFile(dir_ + "/m.json"), error);
  const json11::Json original = json11::Json::parse(test::ReadFile(kJson), error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(saved["layers"].dump(), original["layers"].dump());
  EXPECT_EQ(saved["inputs"].dump(), original["inputs"].dump());
  const json11::Json& q = saved["quantization"];
  EXPECT_EQ(q["version"].int_value(), 1);
  // The net input first, then each layer's outputs once, in layer order.
  std::vector<std::string> names;
  for (const json11::Json& t : q["tensors"].array_items())
    names.push_back(t["name"].string_value());
  EXPECT_EQ(names, (std::vector<std::string>{"data", "conv1", "pool1", "conv2_dw", "conv2", "pool2",
                                             "fc", "prob"}));
  const json11::Json& data = q["tensors"].array_items()[0];
  const QuantizationConfig* grid = config_.GetDataConfig("data");
  EXPECT_EQ(float(data["min"].number_value()), grid->getMin());
  EXPECT_EQ(float(data["max"].number_value()), grid->getMax());
  EXPECT_EQ(float(data["scale"].number_value()), grid->getScale());
  EXPECT_EQ(data["zero_point"].int_value(), grid->getZeroPoint());
  EXPECT_EQ(data["data_type"].string_value(), "int8");
  // Weight grids of the integer layers, one per output channel.
  ASSERT_EQ(q["weights"].array_items().size(), 4u);
  EXPECT_EQ(q["weights"][0]["layer"].string_value(), "conv1");
  EXPECT_EQ(q["weights"][0]["blob"].string_value(), "weight");
  EXPECT_EQ(q["weights"][0]["channels"].array_items().size(), 16u);
}

TEST_F(QuantizedModelTest, OutputDataTypeFollowsSyncDataType) {
  Layer<unsigned char>* conv2 = int8_net_->GetLayer("conv2");
  EXPECT_EQ(conv2->GetOutputDataType(), "int8");
  int8_net_->GetData("conv2")->ChangeDataType("float");
  EXPECT_EQ(conv2->GetOutputDataType(), "int8");
  conv2->SyncDataType();
  EXPECT_EQ(conv2->GetOutputDataType(), "float");
  EXPECT_EQ(float_net_->GetLayer("conv2")->GetOutputDataType(), "float");
}

TEST_F(QuantizedModelTest, AFrugalRefillHoldsTheCodeOfRealZero) {
  config_.addDataConfig("pool1", -1.0f, 3.0f);
  const unsigned char zero = config_.GetDataConfig("pool1")->getZeroPoint();
  ASSERT_EQ(zero, 64);
  Layer<unsigned char>* dw = int8_net_->GetLayer("conv2_dw");
  Data<unsigned char>* pool1 = int8_net_->GetData("pool1");
  Data<unsigned char>* out = int8_net_->GetData("conv2_dw");
  // conv2_dw on a pool1 of real zeros, and on one of code 0.
  auto run_on = [&](unsigned char code) {
    std::fill(pool1->GetCpuData(), pool1->GetCpuData() + pool1->Count(0), code);
    dw->Forward();
    return std::string(reinterpret_cast<const char*>(out->GetCpuData()), out->GetSize());
  };
  const std::string on_zero = run_on(zero), on_code0 = run_on(0);
  ASSERT_NE(on_zero, on_code0);

  int8_net_->SetFrugalMode(true);
  int8_net_->Reshape(true, 0);
  int8_net_->SetFloatInputData(input_.data(), 0);
  int8_net_->ForwardAll();
  ASSERT_EQ(pool1->GetCpuData(), nullptr);  // freed after its last reader
  ASSERT_EQ(out->GetCpuData(), nullptr);
  // The freed input is given storage again, holding real zero.
  int8_net_->ForwardFromTo(4, 5, false);
  EXPECT_EQ(dw->GetName(), int8_net_->GetLayers()[4]->GetName());
  ASSERT_NE(out->GetCpuData(), nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(out->GetCpuData()), out->GetSize()), on_zero);
}

TEST(QuantizedData, AFloatTypeGrowsOwnedStorage) {
  Data<unsigned char> d("t");
  d.Resize({2, 3});
  d.Reallocate();
  EXPECT_EQ(d.GetSize(), 6);
  d.ChangeDataType("float");
  EXPECT_EQ(d.GetSize(), 24);
  float* f = reinterpret_cast<float*>(d.GetCpuData());
  for (int i = 0; i < 6; ++i) f[i] = 1.5f * i;  // within the storage (ASan checks)
  EXPECT_EQ(f[5], 7.5f);
  d.Reallocate(0);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(f[i], 0.0f);
}

TEST_F(QuantizedModelTest, LoaderErrorsNameTheFileAndTheLayer) {
  try {
    delete CreateQuantizedNet(kJson, kWeights);
    FAIL() << "no error";
  } catch (const NetFormatError& e) {
    EXPECT_EQ(std::string(e.what()),
              "Net file \"" + kJson +
                  "\": has no \"quantization\" section: it describes a float net (run it with its "
                  "float weights, or convert it first)");
  }
  // Codes for a layer that the description keeps in float.
  int8_net_->SaveWeights(dir_ + "/m.bin", false);
  MakeConv2Float();
  int8_net_->SetHybridMode(true);
  int8_net_->SaveJson(dir_ + "/m.json");
  try {
    delete CreateQuantizedNet(dir_ + "/m.json", dir_ + "/m.bin");
    FAIL() << "no error";
  } catch (const NetFormatError& e) {
    EXPECT_EQ(std::string(e.what()),
              "Model file \"" + dir_ +
                  "/m.bin\": layer \"conv2\": blob \"weight\" holds codes, but the layer runs in "
                  "float in this net (its weights must be float32)");
  }
  // A tensor the net does not have.
  std::string text = test::ReadFile(dir_ + "/m.json");
  const size_t at = text.find("\"name\": \"pool2\"", text.find("\"quantization\""));
  ASSERT_NE(at, std::string::npos);
  text.replace(at, 15, "\"name\": \"pool9\"");
  ASSERT_TRUE(WriteFileAtomically(dir_ + "/bad.json", text, nullptr));
  try {
    delete CreateQuantizedNet(dir_ + "/bad.json", dir_ + "/m.bin");
    FAIL() << "no error";
  } catch (const NetFormatError& e) {
    EXPECT_EQ(
        std::string(e.what()),
        "Net file \"" + dir_ + "/bad.json\": quantization: \"pool9\" is not a tensor of the net");
  }
}

TEST_F(QuantizedModelTest, FloatWeightsAreQuantizedUnderTheSavedGrids) {
  const std::string want = OutputBytes(int8_net_.get(), input_);
  int8_net_->SaveJson(dir_ + "/m.json");
  std::unique_ptr<Net<unsigned char>> back(CreateQuantizedNet(dir_ + "/m.json", kWeights));
  back->ReshapeBatchNum(kBatch, 0);
  EXPECT_EQ(OutputBytes(back.get(), input_), want);
}

}  // namespace
}  // namespace qzdl
