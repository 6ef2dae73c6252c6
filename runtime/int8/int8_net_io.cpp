// What an 8-bit net writes and reads back: the quantized weights (file or
// serial model) and the net description with its quantization section
// (docs/model-format.md).
#include <cstring>
#include <map>
#include <set>

#include "runtime/atomic_file.h"
#include "runtime/errors.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/int8/quantized_weights.h"
#include "runtime/int8/weighted_int8.h"
#include "runtime/net.h"
#include "runtime/serial_weights.h"

namespace qzdl {

namespace {

std::string BlobName(Layer<unsigned char>* layer, const Data<unsigned char>* w) {
  return w->GetName().substr(layer->GetName().size() + 1);
}

QuantizedBlob FloatBlob(Layer<unsigned char>* layer, const Data<unsigned char>* w) {
  QuantizedBlob blob;
  blob.layer = layer->GetName();
  blob.name = BlobName(layer, w);
  blob.dims = w->GetDims();
  blob.type = BlobType::kFloat32;
  blob.bytes.assign(reinterpret_cast<const char*>(w->GetCpuData()),
                    static_cast<size_t>(w->Count(0)) * sizeof(float));
  return blob;
}

// The blobs of every layer with weights, in layer order: codes with their
// channel grids and int32 biases for a layer that computes in integers,
// float32 values for the others.
std::vector<QuantizedBlob> CollectBlobs(Net<unsigned char>& net, const std::string& path) {
  std::vector<QuantizedBlob> blobs;
  for (Layer<unsigned char>* layer : net.GetLayers()) {
    const std::vector<Data<unsigned char>*>& weights = layer->GetWeights();
    for (const Data<unsigned char>* w : weights) {
      if (w->GetCpuData() == nullptr)
        throw NetFormatError("cannot write \"" + path + "\": layer \"" + layer->GetName() +
                             "\" has no weights loaded");
    }
    auto* weighted = dynamic_cast<WeightedInt8Layer*>(layer);
    if (weighted == nullptr || weights.empty() || !weighted->ComputesInIntegers()) {
      for (const Data<unsigned char>* w : weights) blobs.push_back(FloatBlob(layer, w));
      continue;
    }
    weighted->EnsurePrepared();
    QuantizedBlob codes;
    codes.layer = layer->GetName();
    codes.name = BlobName(layer, weights[0]);
    codes.dims = weights[0]->GetDims();
    codes.type = BlobType::kUint8;
    const Data<unsigned char>* attr = layer->GetUint8AttrDatas().at("weight");
    codes.bytes.assign(reinterpret_cast<const char*>(attr->GetCpuData()),
                       static_cast<size_t>(attr->Count(0)));
    codes.grids = weighted->WeightGrids();
    blobs.push_back(std::move(codes));
    for (size_t i = 1; i < weights.size(); ++i) {
      if (i > 1) {
        blobs.push_back(FloatBlob(layer, weights[i]));
        continue;
      }
      QuantizedBlob bias;
      bias.layer = layer->GetName();
      bias.name = BlobName(layer, weights[1]);
      bias.dims = weights[1]->GetDims();
      bias.type = BlobType::kInt32;
      const Data<int>* b = layer->GetInt32AttrDatas().at("bias");
      bias.bytes.assign(reinterpret_cast<const char*>(b->GetCpuData()),
                        static_cast<size_t>(b->Count(0)) * sizeof(int32_t));
      blobs.push_back(std::move(bias));
    }
  }
  return blobs;
}

void WriteOrThrow(const std::string& path, const std::string& bytes, const std::string& what) {
  std::string error;
  if (WriteFileAtomically(path, bytes, &error)) return;
  // The writer's text is 'cannot write "<path>": <reason>'.
  const std::string prefix = "cannot write \"" + path + "\": ";
  if (error.compare(0, prefix.size(), prefix) == 0) error = error.substr(prefix.size());
  throw NetFormatError("cannot write the " + what + " \"" + path + "\": " + error);
}

json11::Json GridJson(const QuantizationConfig& q) {
  return json11::Json::object{{"min", double(q.getMin())},
                              {"max", double(q.getMax())},
                              {"scale", double(q.getScale())},
                              {"zero_point", int(q.getZeroPoint())}};
}

}  // namespace

std::string QuantizedWeightsBytes(Net<unsigned char>& net, bool serial, const std::string& path) {
  return serial ? SerializeSerialQuantized(CollectBlobs(net, path))
                : SerializeQuantizedWeights(CollectBlobs(net, path));
}

template <>
void Net<unsigned char>::SaveWeights(std::string path, bool) {
  WriteOrThrow(path, QuantizedWeightsBytes(*this, false, path), "quantized weights file");
}

template <>
void Net<unsigned char>::SaveSerialWeights(std::string path) {
  WriteOrThrow(path, QuantizedWeightsBytes(*this, true, path), "serial model file");
}

template <>
void Net<unsigned char>::SaveJson(std::string path) {
  WriteOrThrow(path, QuantizedDescriptionText(*this), "net description");
}

std::string QuantizedDescriptionText(Net<unsigned char>& net) {
  INT8Config* config = net.GetInt8Config();
  const bool hybrid_mode = net.GetHybridMode();
  json11::Json::array tensors;
  std::set<std::string> seen;
  auto add = [&](const Data<unsigned char>* t) {
    if (!seen.insert(t->GetName()).second) return;
    json11::Json::object entry = GridJson(*config->GetDataConfig(t->GetName())).object_items();
    entry["name"] = t->GetName();
    entry["data_type"] = hybrid_mode ? t->GetDataType() : std::string("int8");
    tensors.push_back(entry);
  };
  for (int i = 0; i < net.GetInputCount(); ++i) add(net.GetInputData(i));
  json11::Json::array weights;
  for (Layer<unsigned char>* layer : net.GetLayers()) {
    for (const Data<unsigned char>* t : layer->GetOutputs()) add(t);
    auto* weighted = dynamic_cast<WeightedInt8Layer*>(layer);
    if (weighted == nullptr || layer->GetWeights().empty() ||
        layer->GetWeights()[0]->GetCpuData() == nullptr ||
        (hybrid_mode && !weighted->ComputesInIntegers()))
      continue;
    weighted->EnsurePrepared();
    json11::Json::array channels;
    for (const ChannelGrid& g : weighted->WeightGrids()) {
      channels.push_back(json11::Json::object{{"min", double(g.min)},
                                              {"max", double(g.max)},
                                              {"scale", double(g.scale)},
                                              {"zero_point", int(g.zero)}});
    }
    weights.push_back(json11::Json::object{
        {"layer", layer->GetName()},
        {"blob", layer->GetWeights()[0]->GetName().substr(layer->GetName().size() + 1)},
        {"channels", channels}});
  }
  json11::Json::object root = net.Description().object_items();
  root[kQuantizationKey] = json11::Json::object{{"version", kQuantizedModelVersion},
                                                {"hybrid", hybrid_mode},
                                                {"tensors", tensors},
                                                {"weights", weights}};
  return json11::Json(root).dump() + "\n";
}

template <>
void Net<unsigned char>::LoadQuantizedBlobs(const std::vector<QuantizedBlob>& blobs) {
  const std::string source = SourceNames::Model();
  LoadedBlobs loaded;
  // Integer layers whose weights came as codes: the weight and bias blobs.
  std::map<WeightedInt8Layer*, std::pair<const QuantizedBlob*, const QuantizedBlob*>> saved;
  for (const QuantizedBlob& blob : blobs) {
    int index = 0;
    Data<unsigned char>* w = WeightFor(blob.layer, blob.name, blob.dims, loaded, &index);
    Layer<unsigned char>* layer = GetLayer(blob.layer);
    const std::string label = "layer \"" + blob.layer + "\": blob \"" + blob.name + "\"";
    if (blob.type == BlobType::kFloat32) {
      std::memcpy(w->GetCpuData(), blob.bytes.data(), blob.bytes.size());
      continue;
    }
    auto* weighted = dynamic_cast<WeightedInt8Layer*>(layer);
    const char* kind = blob.type == BlobType::kUint8 ? "codes" : "int32 values";
    if (weighted == nullptr || !weighted->ComputesInIntegers())
      throw NetFormatError(source + ": " + label + " holds " + kind +
                           ", but the layer runs in float " +
                           "in this net (its weights must be float32)");
    if (index > 1 || (index == 0) != (blob.type == BlobType::kUint8))
      throw NetFormatError(source + ": " + label + " holds " + kind + "; an integer layer takes " +
                           "codes for its weight and int32 values for its bias");
    if (index == 0 && blob.grids.size() != static_cast<size_t>(weighted->OutputChannels()))
      throw NetFormatError(source + ": " + label + " needs one grid per output channel, has " +
                           std::to_string(blob.grids.size()));
    (index == 0 ? saved[weighted].first : saved[weighted].second) = &blob;
  }
  CheckAllWeightsLoaded(loaded);
  for (const auto& kv : saved) {
    WeightedInt8Layer* layer = kv.first;
    const std::string label = "layer \"" + layer->GetName() + "\"";
    if (kv.second.first == nullptr)
      throw NetFormatError(source + ": " + label + ": an int32 bias needs the weight as codes");
    const bool has_bias = layer->GetWeights().size() > 1;
    if (has_bias && kv.second.second == nullptr)
      throw NetFormatError(source + ": " + label + ": weight codes need an int32 bias");
    layer->AdoptSaved(*kv.second.first, kv.second.second);
  }
}

}  // namespace qzdl
