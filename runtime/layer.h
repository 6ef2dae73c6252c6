// Base class of all layers, and the helpers layer families share.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/data.h"
#include "runtime/errors.h"
#include "runtime/json11.h"
#include "runtime/kernels/epilogue.h"
#include "runtime/quant_config.h"

namespace qzdl {

class ChannelAffine;  // runtime/layers/normalization.h

// Reads a layer's "param" object with type checks. Every failure throws a
// NetFormatError naming the file, the layer and the param.
class ParamReader {
 public:
  ParamReader(const json11::Json& param, std::string layer_name, std::string layer_type);

  bool Has(const std::string& key) const;
  int Int(const std::string& key, int def) const;
  int RequiredInt(const std::string& key) const;
  float Float(const std::string& key, float def) const;
  float RequiredFloat(const std::string& key) const;
  bool Bool(const std::string& key, bool def) const;
  std::string String(const std::string& key, const std::string& def) const;
  std::vector<int> Ints(const std::string& key, const std::vector<int>& def) const;
  std::vector<float> Floats(const std::string& key, const std::vector<float>& def) const;
  // A string param restricted to `choices`.
  std::string Choice(const std::string& key, const std::string& def,
                     const std::vector<std::string>& choices) const;

  [[noreturn]] void Fail(const std::string& what) const;

 private:
  const json11::Json& Get(const std::string& key) const;
  json11::Json param_;
  std::string layer_name_;
  std::string layer_type_;
};

// What a layer expects in the weights file: a blob name and its dims.
// Optional blobs (e.g. a bias that may be absent) are listed only when the
// layer's params say they exist.
struct WeightSpec {
  std::string name;
  std::vector<int> dims;
};

// State every layer of a net can see.
struct NetContext {
  INT8Config* int8_config = nullptr;
  bool frugal = false;
  // 8-bit nets: requantize with double multipliers (docs/int8.md).
  bool high_accuracy = false;
  // Inference mode (Net::SetInferenceMode): the weights change only through
  // the net's loading functions or a new call to SetInferenceMode, each of
  // which steps the epoch; a layer may keep weights it prepared (reordered
  // for a library) while the epoch stays.
  bool inference = false;
  uint64_t weights_epoch = 0;
};

template <typename T>
class Layer {
 public:
  // The four operations callers reach through the table of virtual functions
  // come first, in this order; nothing may be declared virtual before them.

  // Runs this layer on the present contents of its inputs. In frugal mode it
  // also allocates missing outputs first and frees inputs it is the last
  // reader of afterwards.
  virtual void Forward();
  // Type with its main parameter in brackets, e.g. "Pooling(max)".
  virtual std::string GetTypeDetail();
  // Output channels of the weights: dim 0 of weight 0, or 0 without weights.
  virtual int GetChannelNum();
  // The layer's description as it stood in the net JSON.
  virtual json11::Json GetJson();

  virtual ~Layer();

  // The data type the layer writes its outputs with, as last settled by
  // SyncDataType: "float" or "int8" ("float" throughout a float net).
  virtual std::string GetOutputDataType() { return output_data_type_; }
  // Brings the layer in line with the data types of its tensors after
  // ChangeDataType: private copies of in-place inputs take the type of the
  // tensor they copy, and the output type is taken from the first output.
  virtual void SyncDataType();

  // Parses and validates "param"; called once when the net is built.
  virtual void LoadParam(const ParamReader& param) = 0;
  // Sets output shapes from input shapes and checks them; sizes workspace.
  // Called at build time (before weights exist) and at every reshape.
  virtual void Reshape() = 0;
  // Blobs this layer needs, known after the first Reshape.
  virtual std::vector<WeightSpec> WeightSpecs() { return {}; }
  // Whether the kernel may read and write the same buffer.
  virtual bool InPlaceSafe() const { return false; }
  // True when the call changed the layer's quantization record.
  virtual bool AdjustInt8Config() { return false; }
  // Fused execution (Net::SetInferenceMode): asks the layer to apply
  // `affine`'s per-channel arithmetic (when not null) and then `e` to its
  // only output and to write the result into `dst` instead, at every run
  // until it is called again with an inactive epilogue and no affine. False
  // when the layer cannot; it then stays as it was.
  virtual bool FuseEpilogue(const Epilogue&, Data<T>*, ChannelAffine* = nullptr) { return false; }

  // The tensor a fused layer writes instead of its output (FuseEpilogue's
  // `dst`), or null.
  virtual Data<T>* FusedDestination() const { return nullptr; }
  // Channel-blocked hand-off between layers (inference mode): the channel
  // block (8 or 16) of a layout in which the layer can read its only input
  // / write the tensor it writes without reordering, else 0. SetBlocked
  // makes it do so at every run until it is called again; a tensor so
  // stored holds its NCHW values permuted, in as many bytes.
  virtual int InputBlock() const { return 0; }
  virtual int OutputBlock() const { return 0; }
  virtual void SetBlocked(bool /*input*/, bool /*output*/) {}
  // Asks the layer to write image n of the tensor it writes `stride`
  // floats after image n - 1 (0: dense again), so that it can write into
  // its place in a concat's output. False when it cannot (then only 0 is
  // accepted, as a no-op).
  virtual bool SetOutputImageStride(int64_t stride) { return stride == 0; }
  // Whether the layer computes element by element over inputs of its
  // output's shape with nothing per channel, so that it runs on any layout
  // its inputs and output share.
  virtual bool LayoutAgnostic() const { return false; }

  // An activation whose work the layer before it does: Forward skips it.
  void SetFusedAway(bool fused) { fused_away_ = fused; }
  bool FusedAway() const { return fused_away_; }

  std::string GetName() const { return name_; }
  std::string GetType() const { return type_; }
  std::vector<Data<T>*>& GetInputs() { return inputs_; }
  std::vector<Data<T>*>& GetOutputs() { return outputs_; }
  std::vector<Data<T>*>& GetWeights() { return weights_; }
  // Position of a weight blob by name, or -1.
  int WeightIndex(const std::string& name) const;

  // Wiring done by the net.
  void Bind(const json11::Json& json, const std::string& name, const std::string& type,
            NetContext* context);
  void SetInputs(std::vector<Data<T>*> inputs) { inputs_ = std::move(inputs); }
  void SetOutputs(std::vector<Data<T>*> outputs) { outputs_ = std::move(outputs); }
  // Creates the weight tensors from WeightSpecs().
  void CreateWeights();
  // Inputs this layer frees after Forward in frugal mode.
  void SetReleaseAfterForward(std::vector<Data<T>*> tensors) { release_ = std::move(tensors); }
  // For an input that is also an output but whose kernel cannot alias: the
  // net gives a private copy to read from.
  void SetStaging(int input_index, Data<T>* shared, Data<T>* staging);
  // Gives staged inputs the current shape and data type of the tensors
  // they copy.
  void SyncStaging();

  [[noreturn]] void Fail(const std::string& what) const;

  // 8-bit layers: the tensors derived from the weights and the configuration
  // (quantized weights, int32 biases, requantization constants), by name.
  // They are made at the first forward that finds the maps empty. A caller
  // that changes the configuration deletes them and empties the maps; the
  // layer deletes what is left when it goes.
  std::map<std::string, Data<unsigned char>*>& GetUint8AttrDatas() { return uint8_attrs_; }
  std::map<std::string, Data<float>*>& GetFloatAttrDatas() { return float_attrs_; }
  std::map<std::string, Data<int>*>& GetInt32AttrDatas() { return int32_attrs_; }
  // What a caller that changes the configuration does: deletes every
  // attribute tensor and empties the three maps, so that the next forward
  // rebuilds them.
  void DeleteAttrDatas();

 protected:
  // The kernel. Inputs and outputs are allocated and shaped.
  virtual void Run() = 0;

  NetContext* context() const { return context_; }
  // Shortcut for the common single-input, single-output case.
  Data<T>* in(int i = 0) const { return inputs_[i]; }
  Data<T>* out(int i = 0) const { return outputs_[i]; }
  Data<T>* weight(int i) const { return weights_[i]; }
  // Fails unless the layer has between min and max inputs/outputs.
  void ExpectCounts(int min_inputs, int max_inputs, int min_outputs, int max_outputs) const;
  // Fails unless input i has exactly `rank` axes.
  void ExpectRank(int input, int rank) const;

 private:
  json11::Json json_;
  std::string name_;
  std::string type_;
  NetContext* context_ = nullptr;
  std::vector<Data<T>*> inputs_;
  std::vector<Data<T>*> outputs_;
  std::vector<Data<T>*> weights_;
  std::vector<std::unique_ptr<Data<T>>> owned_weights_;
  std::vector<std::string> weight_names_;
  std::vector<Data<T>*> release_;
  struct Staging {
    int input_index;
    Data<T>* shared;
    Data<T>* staging;
  };
  std::vector<Staging> staging_;
  std::map<std::string, Data<unsigned char>*> uint8_attrs_;
  std::map<std::string, Data<float>*> float_attrs_;
  std::map<std::string, Data<int>*> int32_attrs_;
  std::string output_data_type_;
  bool fused_away_ = false;
};

extern template class Layer<float>;
extern template class Layer<unsigned char>;

}  // namespace qzdl
