#include "runtime/int8/quantized_model.h"

#include <cmath>
#include <cstring>
#include <memory>

#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "runtime/int8/grid.h"
#include "runtime/int8/int8_layer.h"
#include "runtime/int8/quantized_weights.h"
#include "runtime/serial_weights.h"
#include "runtime/weights_file.h"

namespace qzdl {

namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw NetFormatError(SourceNames::Net() + ": " + what);
}

// A finite number or a failure naming the tensor and the key.
float Bound(const json11::Json& entry, const char* key, const std::string& tensor) {
  const json11::Json& v = entry[key];
  if (!v.is_number() || !std::isfinite(v.number_value()))
    Fail("quantization: " + tensor + ": \"" + key + "\" must be a finite number");
  return static_cast<float>(v.number_value());
}

// Grids and data types of the section into the net's configuration.
void ApplySection(const json11::Json& section, Net<unsigned char>* net) {
  if (!section.is_object()) Fail("\"quantization\" must be an object");
  const json11::Json& version = section["version"];
  if (!version.is_number() || version.number_value() != kQuantizedModelVersion)
    Fail("quantization: unsupported version " + version.dump() + " (this runtime reads " +
         std::to_string(kQuantizedModelVersion) + ")");
  const bool hybrid = section["hybrid"].bool_value();
  const json11::Json& tensors = section["tensors"];
  if (!tensors.is_array()) Fail("quantization: \"tensors\" must be an array");
  INT8Config* config = net->GetInt8Config();
  for (const json11::Json& entry : tensors.array_items()) {
    const std::string name = entry["name"].string_value();
    Data<unsigned char>* t = net->GetData(name);
    if (t == nullptr) Fail("quantization: \"" + name + "\" is not a tensor of the net");
    const float lo = Bound(entry, "min", "tensor \"" + name + "\""),
                hi = Bound(entry, "max", "tensor \"" + name + "\"");
    if (lo > hi) Fail("quantization: tensor \"" + name + "\": \"min\" is above \"max\"");
    config->addDataConfig(name, lo, hi);
    const std::string type = hybrid ? entry["data_type"].string_value() : "int8";
    if (type != "int8" && type != "float")
      Fail("quantization: tensor \"" + name + "\": \"data_type\" must be \"int8\" or \"float\"");
    if (type != t->GetDataType()) t->ChangeDataType(type);
  }
  for (Layer<unsigned char>* layer : net->GetLayers()) layer->SyncDataType();
  // Weight grids: float weights are quantized on them, as they were saved.
  const json11::Json& weights = section["weights"];
  if (!weights.is_null() && !weights.is_array()) Fail("quantization: \"weights\" must be an array");
  for (const json11::Json& entry : weights.array_items()) {
    const std::string name = entry["layer"].string_value();
    Layer<unsigned char>* layer = net->GetLayer(name);
    if (layer == nullptr)
      Fail("quantization: weights of \"" + name + "\", which is not a layer of the net");
    const int index = layer->WeightIndex(entry["blob"].string_value());
    if (index < 0)
      Fail("quantization: layer \"" + name + "\" has no weight \"" + entry["blob"].string_value() +
           "\"");
    int channel = 0;
    const std::string what = "weights of \"" + name + "\"";
    for (const json11::Json& grid : entry["channels"].array_items()) {
      const float lo = Bound(grid, "min", what), hi = Bound(grid, "max", what);
      net->GetInt8Config()->addWeightConfig(name, index, channel++, lo, hi);
    }
  }
}

std::vector<QuantizedBlob> ReadBlobs(const std::string& path) {
  std::string bytes, error;
  if (!ReadWholeFile(path, &bytes, &error))
    throw NetFormatError(SourceNames::Model() + ": cannot be read: " + error);
  if (path.size() >= 2 && path.compare(path.size() - 2, 2, "fb") == 0)
    return ParseSerialQuantized(bytes.data(), bytes.size(), SourceNames::Model());
  if (bytes.size() >= 4 && std::memcmp(bytes.data(), "QZWT", 4) == 0) {
    // Float weights: quantized under the grids when the net computes.
    std::vector<QuantizedBlob> blobs;
    for (WeightBlob& w : ParseWeights(bytes.data(), int64_t(bytes.size()), SourceNames::Model())) {
      QuantizedBlob b;
      b.layer = w.layer, b.name = w.name, b.dims = w.dims, b.type = BlobType::kFloat32;
      b.bytes.assign(reinterpret_cast<const char*>(w.values.data()),
                     w.values.size() * sizeof(float));
      blobs.push_back(std::move(b));
    }
    return blobs;
  }
  return ParseQuantizedWeights(bytes.data(), int64_t(bytes.size()), SourceNames::Model());
}

}  // namespace

bool IsQuantizedDescription(const json11::Json& net) {
  return net.is_object() && !net[kQuantizationKey].is_null();
}

Net<unsigned char>* CreateQuantizedNet(const std::string& netPath, const std::string& modelPath) {
  const SourceNames names(netPath, modelPath);
  std::string text, error;
  if (!ReadWholeFile(netPath, &text, &error)) Fail("cannot be read: " + error);
  const json11::Json json = json11::Json::parse(text, error, json11::STANDARD);
  if (!error.empty()) Fail("Parse json file failed: " + error);
  if (!IsQuantizedDescription(json))
    Fail(
        "has no \"quantization\" section: it describes a float net (run it with its float "
        "weights, or convert it first)");
  auto net = std::make_unique<Net<unsigned char>>(json, "int8", nullptr);
  ApplySection(json[kQuantizationKey], net.get());
  net->Reshape(true, 0);
  if (net->GetHighAccuracyDoubleMultiplier()) net->SetHighAccuracyDoubleMultiplier();
  net->LoadQuantizedBlobs(ReadBlobs(modelPath));
  // Requantizers, tables and weight codes are made here, not at the first
  // forward.
  PrepareInt8Layers(*net);
  return net.release();
}

std::vector<float> RealValues(Net<unsigned char>& net, const Data<unsigned char>& t) {
  const int64_t n = t.Count(0);
  std::vector<float> values(static_cast<size_t>(n));
  if (t.GetCpuData() == nullptr) return values;
  if (t.GetDataType() == "float") {
    std::memcpy(values.data(), t.GetCpuData(), values.size() * sizeof(float));
    return values;
  }
  const QuantizationConfig* grid = net.GetInt8Config()->GetDataConfig(t.GetName());
  for (int64_t i = 0; i < n; ++i)
    values[i] = RealOf(t.GetCpuData()[i], grid->getScale(), grid->getZeroPoint());
  return values;
}

}  // namespace qzdl
