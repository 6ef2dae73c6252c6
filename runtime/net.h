// A net: layers in execution order over named tensors.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "runtime/data.h"
#include "runtime/json11.h"
#include "runtime/layer.h"
#include "runtime/quant_config.h"

namespace qzdl {

struct QuantizedBlob;  // runtime/int8/quantized_weights.h

template <typename T>
class Net {
 public:
  Net();
  // Builds the net at once (as Init does); used for 8-bit nets.
  Net(const json11::Json& net, std::string dataType, void* context);
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;
  virtual ~Net();

  // Builds layers and tensors from a net description; shapes are inferred
  // and checked. Throws NetFormatError on any defect of the description.
  void Init(const json11::Json& net, std::string dataType, void* context);

  std::vector<Layer<T>*>& GetLayers() { return layers_; }
  Layer<T>* GetLayer(std::string name);

  int GetInputCount() const { return static_cast<int>(inputs_.size()); }
  Data<T>* GetInputData(int index);
  Data<T>* GetInputData(const std::string& name);
  std::string& GetInputDataName(int index) { return input_names_.at(index); }

  int GetOutCount() const { return static_cast<int>(outputs_.size()); }
  int GetOutputCount(int index);
  Data<T>* GetOutputData(int index);
  std::string& GetOutputDataName(int index) { return output_names_.at(index); }
  float* GetFloatOutputData(int index);

  // Stores a float batch into input `index`. In an 8-bit net an "int8" input
  // gets the codes of the values on its grid, a "float" one the values.
  void SetFloatInputData(float* data, int index);
  void SetFloatInputDataByName(float* data, const std::string& name);

  void ForwardAll();
  // Runs layers from `from` up to but not including `to`; the flag is unused.
  void ForwardFromTo(int from, int to, bool);

  // Recomputes shapes. `allocate` also gives every tensor storage for the new
  // shapes (in frugal mode only the net inputs; the rest comes on demand).
  // A positive `batch` first sets the batch of every net input.
  void Reshape(bool allocate, int batch);
  // Sets the batch of every net input and reshapes with storage. The second
  // argument is unused.
  void ReshapeBatchNum(int batch, int);
  // Frugal mode: a forward frees each intermediate tensor after its last
  // reader has run, and tensors get storage when their producer runs.
  void SetFrugalMode(bool frugal);
  bool GetFrugalMode() const { return context_.frugal; }
  // Inference mode, for callers that read only the net's outputs (and the
  // tensors that no fusion skips): an activation that alone reads a
  // convolution's or an element-wise layer's output is computed on that
  // layer's output tiles, and the activation layer does not run; the tensor
  // between them then holds nothing meaningful (docs/runtime.md, "Fused
  // execution"). Off by default; fusion is left out in frugal mode and in
  // 8-bit nets. In this mode layers may also keep weights they prepared
  // (reordered) until weights are loaded again or the mode is set again: a
  // caller that writes weights directly calls SetInferenceMode after. Returns
  // the number of fused pairs.
  int SetInferenceMode(bool on);
  bool GetInferenceMode() const { return inference_mode_; }
  // Tensors inference mode hands from layer to layer in channel blocks at
  // the current shapes (docs/runtime.md, "Fused execution").
  int BlockedHandoffs() const { return blocked_handoffs_; }

  // The current configuration: the net's own empty one until SetInt8Config
  // hands it another, which stays owned by the caller.
  INT8Config* GetInt8Config() { return context_.int8_config; }
  void SetInt8Config(INT8Config* config);

  void LoadWeights(char* bytes, int length);
  // The float weights file at `path`, or the serial model when the name
  // ends in "fb" (an 8-bit net keeps the float values and quantizes them
  // under its configuration when it computes). Throws NetFormatError naming
  // the file.
  void LoadWeights(std::string path);
  void LoadQuantizationWeights(char* bytes, int length);
  void LoadSerialWeights(std::string path);

  bool GetHighAccuracyDoubleMultiplier() const { return high_accuracy_flag_; }
  void SetHighAccuracyDoubleMultiplier() { high_accuracy_ = context_.high_accuracy = true; }
  bool HighAccuracyDoubleMultiplierEnabled() const { return high_accuracy_; }

  // 8-bit nets (runtime/int8/int8_net_io.cpp, docs/model-format.md). In
  // hybrid mode SaveJson writes each tensor's data type, so that the saved
  // description keeps the net's float parts; out of it the description
  // says every tensor is "int8".
  void SetHybridMode(bool hybrid) { hybrid_mode_ = hybrid; }
  bool GetHybridMode() const { return hybrid_mode_; }
  // The quantized weights file, written whole or not at all. The flag is
  // ignored. Throws NetFormatError naming the file when it cannot be written.
  void SaveWeights(std::string path, bool);
  // The same blobs as a serial model file.
  void SaveSerialWeights(std::string path);
  // The net description with the quantization section.
  void SaveJson(std::string path);
  // Puts the blobs of a quantized weights file (or a float one read as
  // float32 blobs) into the layers; codes and int32 biases saved by an
  // integer layer are kept as they are.
  void LoadQuantizedBlobs(const std::vector<QuantizedBlob>& blobs);
  // The description the net was built from.
  const json11::Json& Description() const { return description_; }

  const std::string& DataType() const { return data_type_; }
  // Every tensor by name.
  Data<T>* GetData(const std::string& name);

 protected:
  void ApplyWeights(const std::vector<struct WeightBlob>& blobs);
  // Blob names loaded so far, by layer name.
  using LoadedBlobs = std::map<std::string, std::set<std::string>>;
  // The weight tensor that a blob of a weights file goes to, with storage
  // for floats, after the checks every file gets (the layer exists, takes
  // such a blob, has not had it yet, at this shape); `index` gets the
  // blob's position. Throws NetFormatError naming the model file.
  Data<T>* WeightFor(const std::string& layer, const std::string& blob,
                     const std::vector<int>& dims, LoadedBlobs& loaded, int* index = nullptr);
  // Fails naming the first weight the file did not give.
  void CheckAllWeightsLoaded(const LoadedBlobs& loaded);

 private:
  void ComputeOutputsAndLifetimes(const json11::Json& net);
  void AllocateStorage();
  int ApplyFusion();
  // The net's inputs and outputs: tensors no fusion or view may touch.
  std::vector<std::string> KeptNames() const;
  // Concat views and channel-blocked hand-offs of inference mode
  // (fusion.h), planned again whenever shapes or storage change.
  void ApplyViews();

  std::string data_type_;
  // The files the net was created from, named again by errors of later
  // reshapes (empty for nets made from memory).
  std::string net_file_, model_file_;
  NetContext context_;
  INT8Config own_config_;
  std::vector<std::unique_ptr<Layer<T>>> owned_layers_;
  std::vector<Layer<T>*> layers_;
  std::map<std::string, std::unique_ptr<Data<T>>> tensors_;
  std::vector<std::unique_ptr<Data<T>>> staging_;
  std::vector<Data<T>*> inputs_;
  std::vector<std::string> input_names_;
  std::vector<Data<T>*> outputs_;
  std::vector<std::string> output_names_;
  bool high_accuracy_flag_ = false;
  bool high_accuracy_ = false;
  bool hybrid_mode_ = false;
  bool inference_mode_ = false;
  std::vector<Data<T>*> viewed_;  // tensors stored in a concat's output
  int blocked_handoffs_ = 0;
  json11::Json description_;
};

// Codes of the values on the input's grid (net.cpp).
template <>
void Net<unsigned char>::SetFloatInputData(float* data, int index);
template <>
void Net<unsigned char>::SaveWeights(std::string path, bool);
template <>
void Net<unsigned char>::SaveSerialWeights(std::string path);
template <>
void Net<unsigned char>::SaveJson(std::string path);
template <>
void Net<unsigned char>::LoadQuantizedBlobs(const std::vector<QuantizedBlob>& blobs);

extern template class Net<float>;
extern template class Net<unsigned char>;

}  // namespace qzdl
