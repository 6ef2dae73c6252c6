#include "runtime/net.h"

#include <climits>
#include <cstring>
#include <new>
#include <stdexcept>
#include <type_traits>

#include "runtime/checked_math.h"
#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "runtime/fusion.h"
#include "runtime/int8/grid.h"
#include "runtime/layer_registry.h"
#include "runtime/serial_weights.h"
#include "runtime/weights_file.h"

namespace qzdl {

namespace {

[[noreturn]] void FailNet(const std::string& what) {
  throw NetFormatError(SourceNames::Net() + ": " + what);
}

std::vector<int> ReadDims(const json11::Json& dims, const std::string& what) {
  if (!dims.is_array() || dims.array_items().empty() || dims.array_items().size() > 8)
    FailNet(what + " must be an array of 1 to 8 positive integers");
  std::vector<int> out;
  for (const auto& d : dims.array_items()) {
    const double v = d.number_value();
    if (!d.is_number() || v < 1 || v > INT_MAX || v != static_cast<int>(v))
      FailNet(what + " must be an array of 1 to 8 positive integers");
    out.push_back(d.int_value());
  }
  return out;
}

std::vector<std::string> ReadNames(const json11::Json& layer, const std::string& key,
                                   const std::string& layer_label) {
  const json11::Json& v = layer[key];
  if (v.is_null()) return {};
  if (!v.is_array()) FailNet(layer_label + ": \"" + key + "\" must be an array of tensor names");
  std::vector<std::string> names;
  for (const auto& n : v.array_items()) {
    if (!n.is_string() || n.string_value().empty())
      FailNet(layer_label + ": \"" + key + "\" must be an array of tensor names");
    names.push_back(n.string_value());
  }
  return names;
}

// Whether the element count of `dims` stays within int64, the type every
// count, offset and loop over a tensor's elements is held in. Each dim is an
// int, but the count may well pass 2^31 - 1.
bool CountFits(const std::vector<int>& dims, std::string* why = nullptr) {
  try {
    CheckedProduct(dims);
    return true;
  } catch (const ShapeOverflow& e) {
    if (why != nullptr) *why = e.what();
    return false;
  }
}

// An output needs at least one axis, dims of at least 1 and an element count
// within int64.
template <typename T>
void CheckShape(const Layer<T>& layer, const Data<T>& t) {
  const std::vector<int> dims = t.GetDims();
  bool ok = !dims.empty();
  for (int d : dims) ok = ok && d >= 1;
  if (!ok || !CountFits(dims))
    layer.Fail("output \"" + t.GetName() + "\" would have invalid shape " + DimsToString(dims));
}

// Shape inference of one layer. Layers size their workspace here, so an
// absurd shape can exhaust memory: that is reported like any bad shape.
template <typename T>
void ReshapeLayer(Layer<T>& layer) {
  try {
    layer.Reshape();
  } catch (const std::bad_alloc&) {
    std::string shapes;
    for (Data<T>* in : layer.GetInputs())
      shapes += (shapes.empty() ? "" : ", ") + DimsToString(in->GetDims());
    layer.Fail("not enough memory for its work buffers at input shape(s) " + shapes);
  } catch (const std::length_error&) {
    layer.Fail("work buffers too large for its input shapes");
  }
}

}  // namespace

template <typename T>
Net<T>::Net() {
  context_.int8_config = &own_config_;
}

template <typename T>
Net<T>::Net(const json11::Json& net, std::string dataType, void* context) : Net() {
  Init(net, std::move(dataType), context);
}

template <typename T>
Net<T>::~Net() = default;

template <typename T>
void Net<T>::Init(const json11::Json& net, std::string dataType, void*) {
  data_type_ = dataType;
  description_ = net;
  net_file_ = SourceNames::NetPath();
  model_file_ = SourceNames::ModelPath();
  if (!net.is_object()) FailNet("the net description must be a JSON object");
  const json11::Json& inputs = net["inputs"];
  if (!inputs.is_array() || inputs.array_items().empty())
    FailNet("\"inputs\" must be a non-empty array of {\"name\", \"dims\"} objects");
  for (const auto& input : inputs.array_items()) {
    const std::string name = input["name"].string_value();
    if (name.empty()) FailNet("every net input needs a non-empty \"name\"");
    if (tensors_.count(name)) FailNet("net input \"" + name + "\" is listed twice");
    auto data = std::make_unique<Data<T>>(name);
    const std::string what = "\"dims\" of net input \"" + name + "\"";
    data->Resize(ReadDims(input["dims"], what));
    std::string why;
    if (!CountFits(data->GetDims(), &why)) FailNet(what + ": " + why);
    inputs_.push_back(data.get());
    input_names_.push_back(name);
    tensors_[name] = std::move(data);
  }

  const json11::Json& layers = net["layers"];
  if (!layers.is_array() || layers.array_items().empty())
    FailNet("\"layers\" must be a non-empty array");
  std::set<std::string> layer_names;
  int position = 0;
  for (const auto& desc : layers.array_items()) {
    const std::string at = "layer " + std::to_string(position++);
    if (!desc.is_object()) FailNet(at + " is not an object");
    const std::string name = desc["name"].string_value();
    if (name.empty()) FailNet(at + " has no \"name\"");
    if (!layer_names.insert(name).second) FailNet("layer name \"" + name + "\" is used twice");
    const std::string type = desc["type"].string_value();
    const std::string label = "layer \"" + name + "\"";
    if (type.empty()) FailNet(label + " has no \"type\"");
    std::unique_ptr<Layer<T>> layer = CreateLayer<T>(type);
    if (!layer) FailNet(label + ": unknown layer type \"" + type + "\"");
    layer->Bind(desc, name, type, &context_);

    std::vector<Data<T>*> ins;
    for (const std::string& t : ReadNames(desc, "inputs", label + " (" + type + ")")) {
      auto it = tensors_.find(t);
      if (it == tensors_.end())
        layer->Fail("input \"" + t + "\" is neither a net input nor an output of an earlier layer");
      ins.push_back(it->second.get());
    }
    std::vector<Data<T>*> outs;
    std::vector<int> in_place;  // input positions that are also outputs
    const std::vector<std::string> out_names =
        ReadNames(desc, "outputs", label + " (" + type + ")");
    if (out_names.empty()) layer->Fail("has no outputs");
    std::set<std::string> seen_outputs;
    for (const std::string& t : out_names) {
      if (!seen_outputs.insert(t).second) layer->Fail("output \"" + t + "\" is listed twice");
      auto it = tensors_.find(t);
      if (it == tensors_.end()) {
        auto data = std::make_unique<Data<T>>(t);
        outs.push_back(data.get());
        tensors_[t] = std::move(data);
        continue;
      }
      // An existing name is written again only in place: the layer reads it too.
      bool read_here = false;
      for (size_t i = 0; i < ins.size(); ++i)
        if (ins[i] == it->second.get()) {
          read_here = true;
          in_place.push_back(static_cast<int>(i));
        }
      if (!read_here)
        layer->Fail("output \"" + t +
                    "\" already exists; a layer may rewrite a tensor only in place");
      outs.push_back(it->second.get());
    }
    layer->SetInputs(ins);
    layer->SetOutputs(outs);

    const json11::Json& param = desc["param"];
    if (!param.is_null() && !param.is_object()) layer->Fail("\"param\" must be an object");
    layer->LoadParam(ParamReader(param, name, type));

    std::vector<std::vector<int>> before;
    for (int i : in_place) before.push_back(ins[i]->GetDims());
    ReshapeLayer(*layer);
    for (size_t k = 0; k < in_place.size(); ++k)
      if (ins[in_place[k]]->GetDims() != before[k])
        layer->Fail("writes \"" + ins[in_place[k]]->GetName() +
                    "\" in place but changes its shape from " + DimsToString(before[k]) + " to " +
                    DimsToString(ins[in_place[k]]->GetDims()));
    for (Data<T>* o : outs) CheckShape(*layer, *o);
    layer->CreateWeights();
    if (!layer->InPlaceSafe()) {
      for (int i : in_place) {
        auto staging = std::make_unique<Data<T>>(ins[i]->GetName());
        layer->SetStaging(i, ins[i], staging.get());
        staging_.push_back(std::move(staging));
      }
    }
    layers_.push_back(layer.get());
    owned_layers_.push_back(std::move(layer));
  }

  ComputeOutputsAndLifetimes(net);
  high_accuracy_flag_ = net["highAccuracyDoubleMultiplier"].bool_value();
}

template <typename T>
void Net<T>::ComputeOutputsAndLifetimes(const json11::Json& net) {
  // Last layer that reads / writes each tensor (through its shared name).
  std::map<Data<T>*, int> last_read, last_write;
  for (int i = 0; i < static_cast<int>(layers_.size()); ++i) {
    for (Data<T>* t : layers_[i]->GetInputs()) last_read[t] = i;
    for (Data<T>* t : layers_[i]->GetOutputs()) last_write[t] = i;
  }
  // Staged inputs are private copies; map them back to the shared tensor.
  for (const auto& s : staging_) {
    Data<T>* shared = tensors_[s->GetName()].get();
    auto it = last_read.find(s.get());
    if (it != last_read.end()) last_read[shared] = std::max(last_read[shared], it->second);
  }

  const json11::Json& listed = net["outputs"];
  if (!listed.is_null()) {
    if (!listed.is_array()) FailNet("\"outputs\" must be an array of tensor names");
    for (const auto& n : listed.array_items()) {
      auto it = tensors_.find(n.string_value());
      if (!n.is_string() || it == tensors_.end())
        FailNet("net output \"" + n.string_value() + "\" is not a tensor of the net");
      outputs_.push_back(it->second.get());
      output_names_.push_back(n.string_value());
    }
  } else {
    // Outputs: tensors that no layer reads after the last layer that writes
    // them (an in-place layer that is the last to read also rewrites them).
    for (int i = 0; i < static_cast<int>(layers_.size()); ++i) {
      for (Data<T>* o : layers_[i]->GetOutputs()) {
        auto r = last_read.find(o);
        if (last_write[o] == i && (r == last_read.end() || r->second <= i)) {
          outputs_.push_back(o);
          output_names_.push_back(o->GetName());
        }
      }
    }
  }

  // Frugal release: after its last reader, an intermediate tensor goes.
  std::set<Data<T>*> keep(inputs_.begin(), inputs_.end());
  keep.insert(outputs_.begin(), outputs_.end());
  std::vector<std::vector<Data<T>*>> release(layers_.size());
  for (const auto& kv : last_read) {
    Data<T>* t = kv.first;
    if (keep.count(t) || tensors_.count(t->GetName()) == 0 || tensors_[t->GetName()].get() != t)
      continue;
    const int i = kv.second;
    auto w = last_write.find(t);
    if (w != last_write.end() && w->second > i) continue;
    bool written_here = false;
    for (Data<T>* o : layers_[i]->GetOutputs()) written_here |= (o == t);
    if (!written_here) release[i].push_back(t);
  }
  for (size_t i = 0; i < layers_.size(); ++i) layers_[i]->SetReleaseAfterForward(release[i]);
}

template <typename T>
Layer<T>* Net<T>::GetLayer(std::string name) {
  for (Layer<T>* l : layers_)
    if (l->GetName() == name) return l;
  return nullptr;
}

template <typename T>
Data<T>* Net<T>::GetInputData(int index) {
  return inputs_.at(index);
}

template <typename T>
Data<T>* Net<T>::GetInputData(const std::string& name) {
  for (size_t i = 0; i < inputs_.size(); ++i)
    if (input_names_[i] == name) return inputs_[i];
  return nullptr;
}

template <typename T>
Data<T>* Net<T>::GetData(const std::string& name) {
  auto it = tensors_.find(name);
  return it == tensors_.end() ? nullptr : it->second.get();
}

template <typename T>
int Net<T>::GetOutputCount(int index) {
  return static_cast<int>(outputs_.at(index)->Count(0));
}

template <typename T>
Data<T>* Net<T>::GetOutputData(int index) {
  return outputs_.at(index);
}

template <typename T>
float* Net<T>::GetFloatOutputData(int index) {
  return reinterpret_cast<float*>(outputs_.at(index)->GetCpuData());
}

template <typename T>
void Net<T>::SetFloatInputData(float* data, int index) {
  Data<T>* input = inputs_.at(index);
  if (input->GetCpuData() == nullptr) input->Reallocate();
  std::memcpy(input->GetCpuData(), data, sizeof(float) * input->Count(0));
}

template <typename T>
void Net<T>::SetFloatInputDataByName(float* data, const std::string& name) {
  for (size_t i = 0; i < inputs_.size(); ++i)
    if (input_names_[i] == name) return SetFloatInputData(data, static_cast<int>(i));
}

template <typename T>
void Net<T>::ForwardAll() {
  for (Layer<T>* l : layers_) l->Forward();
}

template <typename T>
void Net<T>::ForwardFromTo(int from, int to, bool) {
  from = std::max(from, 0);
  to = std::min(to, static_cast<int>(layers_.size()));
  for (int i = from; i < to; ++i) layers_[i]->Forward();
}

template <typename T>
void Net<T>::Reshape(bool allocate, int batch) {
  const SourceNames names(net_file_, model_file_);
  if (batch > 0) {
    // All inputs are checked before any changes.
    std::vector<std::vector<int>> shapes;
    for (Data<T>* in : inputs_) {
      std::vector<int> dims = in->GetDims();
      dims[0] = batch;
      std::string why;
      if (!CountFits(dims, &why))
        throw NetFormatError(SourceNames::Net() + ": batch " + std::to_string(batch) +
                             " does not fit net input \"" + in->GetName() + "\": " + why);
      shapes.push_back(dims);
    }
    for (size_t i = 0; i < inputs_.size(); ++i) inputs_[i]->Resize(shapes[i]);
  }
  for (Layer<T>* l : layers_) {
    l->SyncStaging();
    ReshapeLayer(*l);
    for (Data<T>* o : l->GetOutputs()) CheckShape(*l, *o);
  }
  if (allocate) {
    AllocateStorage();
  } else {
    // Old storage may no longer fit the new shapes.
    for (auto& kv : tensors_) kv.second->ClearData();
    for (auto& s : staging_) s->ClearData();
    viewed_.clear();
    ApplyViews();
  }
}

template <typename T>
void Net<T>::AllocateStorage() {
  std::set<Data<T>*> inputs(inputs_.begin(), inputs_.end());
  for (auto& kv : tensors_) {
    Data<T>* t = kv.second.get();
    if (!inputs.count(t) && context_.frugal) {
      t->ClearData();
      continue;
    }
    try {
      t->Reallocate();
    } catch (const std::bad_alloc&) {
      throw NetFormatError(SourceNames::Net() + ": not enough memory for tensor \"" + t->GetName() +
                           "\" of shape " + DimsToString(t->GetDims()));
    }
  }
  for (auto& s : staging_) s->ClearData();
  // Views into the old storage are gone with it.
  viewed_.clear();
  ApplyViews();
}

template <typename T>
void Net<T>::ReshapeBatchNum(int batch, int) {
  if (batch < 0) {
    const SourceNames names(net_file_, model_file_);
    throw NetFormatError(SourceNames::Net() + ": batch size must not be negative, got " +
                         std::to_string(batch));
  }
  if (batch > 0) return Reshape(true, batch);
  // An empty batch: every tensor keeps its item shape with a batch of 0 and
  // no storage; a forward then has nothing to do.
  for (auto& kv : tensors_) {
    std::vector<int> dims = kv.second->GetDims();
    if (!dims.empty()) dims[0] = 0;
    kv.second->Resize(dims);
    kv.second->ClearData();
  }
  for (auto& s : staging_) s->ClearData();
}

template <typename T>
void Net<T>::SetFrugalMode(bool frugal) {
  context_.frugal = frugal;
  // Frugal mode gives tensors storage when their producer runs, and a fused
  // layer writes into its activation's output: the two do not mix.
  ApplyFusion();
}

template <typename T>
int Net<T>::SetInferenceMode(bool on) {
  inference_mode_ = context_.inference = on;
  // Weights written since the last call are read again.
  ++context_.weights_epoch;
  return ApplyFusion();
}

template <typename T>
int Net<T>::ApplyFusion() {
  if constexpr (std::is_same_v<T, float>) {
    const int fused = PlanFusion(layers_, KeptNames(), inference_mode_ && !context_.frugal);
    ApplyViews();
    return fused;
  }
  return 0;
}

template <typename T>
std::vector<std::string> Net<T>::KeptNames() const {
  std::vector<std::string> keep(input_names_);
  keep.insert(keep.end(), output_names_.begin(), output_names_.end());
  return keep;
}

template <typename T>
void Net<T>::ApplyViews() {
  if constexpr (std::is_same_v<T, float>) {
    const std::vector<std::string> keep = KeptNames();
    PlanConcatViews(layers_, keep, inference_mode_ && !context_.frugal, &viewed_);
    blocked_handoffs_ = PlanBlockedLayouts(layers_, keep, inference_mode_ && !context_.frugal);
  }
}

template <typename T>
void Net<T>::SetInt8Config(INT8Config* config) {
  context_.int8_config = config != nullptr ? config : &own_config_;
}

template <typename T>
Data<T>* Net<T>::WeightFor(const std::string& layer_name, const std::string& blob_name,
                           const std::vector<int>& dims, LoadedBlobs& loaded, int* index) {
  const std::string source = SourceNames::Model();
  Layer<T>* layer = GetLayer(layer_name);
  const std::string label = "layer \"" + layer_name + "\": blob \"" + blob_name + "\"";
  if (layer == nullptr)
    throw NetFormatError(source + ": " + label + " belongs to no layer of the net");
  const int at = layer->WeightIndex(blob_name);
  if (at < 0)
    throw NetFormatError(source + ": " + label + " is not a weight of a " + layer->GetType() +
                         " layer with these params");
  if (!loaded[layer_name].insert(blob_name).second)
    throw NetFormatError(source + ": " + label + " appears twice");
  Data<T>* w = layer->GetWeights()[at];
  if (w->GetDims() != dims)
    throw NetFormatError(source + ": " + label + " has shape " + DimsToString(dims) +
                         ", expected " + DimsToString(w->GetDims()));
  if (index != nullptr) *index = at;
  // Weights are float values in either kind of net.
  w->ChangeDataType("float");
  w->Reallocate();
  return w;
}

template <typename T>
void Net<T>::CheckAllWeightsLoaded(const LoadedBlobs& loaded) {
  for (Layer<T>* layer : layers_) {
    for (Data<T>* w : layer->GetWeights()) {
      const std::string blob_name = w->GetName().substr(layer->GetName().size() + 1);
      auto it = loaded.find(layer->GetName());
      if (it == loaded.end() || !it->second.count(blob_name))
        throw NetFormatError(SourceNames::Model() + ": layer \"" + layer->GetName() +
                             "\": blob \"" + blob_name + "\" is missing (expected shape " +
                             DimsToString(w->GetDims()) + ")");
    }
  }
}

template <typename T>
void Net<T>::ApplyWeights(const std::vector<WeightBlob>& blobs) {
  ++context_.weights_epoch;  // layers that keep prepared weights redo them
  LoadedBlobs loaded;
  for (const WeightBlob& blob : blobs) {
    Data<T>* w = WeightFor(blob.layer, blob.name, blob.dims, loaded);
    std::memcpy(w->GetCpuData(), blob.values.data(), blob.values.size() * sizeof(float));
  }
  CheckAllWeightsLoaded(loaded);
}

template <typename T>
void Net<T>::LoadWeights(char* bytes, int length) {
  ApplyWeights(ParseWeights(bytes, length, SourceNames::Model()));
}

template <typename T>
void Net<T>::LoadQuantizationWeights(char* bytes, int length) {
  // The container is the same; an 8-bit net quantizes the float blobs with
  // its configuration when it builds its kernels.
  LoadWeights(bytes, length);
}

template <typename T>
void Net<T>::LoadSerialWeights(std::string path) {
  ApplyWeights(ReadSerialWeights(path));
}

template <typename T>
void Net<T>::LoadWeights(std::string path) {
  const SourceNames names(net_file_, path);
  // As net creation does: a name ending in "fb" is a serial model.
  if (path.size() >= 2 && path.compare(path.size() - 2, 2, "fb") == 0) {
    ApplyWeights(ReadSerialWeights(path));
    return;
  }
  std::string bytes, error;
  if (!ReadWholeFile(path, &bytes, &error)) {
    throw NetFormatError(SourceNames::Model() + ": cannot be read: " + error);
  }
  ApplyWeights(
      ParseWeights(bytes.data(), static_cast<int64_t>(bytes.size()), SourceNames::Model()));
}

template <>
void Net<unsigned char>::SetFloatInputData(float* data, int index) {
  Data<unsigned char>* input = inputs_.at(index);
  if (input->GetCpuData() == nullptr) input->Reallocate();
  const int64_t n = input->Count(0);
  if (input->GetDataType() == "float") {
    std::memcpy(input->GetCpuData(), data, sizeof(float) * n);
    return;
  }
  const QuantizationConfig* grid = context_.int8_config->GetDataConfig(input->GetName());
  unsigned char* codes = input->GetCpuData();
  for (int64_t i = 0; i < n; ++i)
    codes[i] = CodeOf(data[i], grid->getScale(), grid->getZeroPoint());
}

template class Net<float>;
template class Net<unsigned char>;

}  // namespace qzdl
