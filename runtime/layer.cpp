#include "runtime/layer.h"

#include <cmath>
#include <cstring>
#include <type_traits>

namespace qzdl {

ParamReader::ParamReader(const json11::Json& param, std::string layer_name,
                         std::string layer_type)
    : param_(param), layer_name_(std::move(layer_name)), layer_type_(std::move(layer_type)) {}

void ParamReader::Fail(const std::string& what) const {
  throw NetFormatError(SourceNames::Net() + ": layer \"" + layer_name_ + "\" (" + layer_type_ +
                       "): " + what);
}

const json11::Json& ParamReader::Get(const std::string& key) const { return param_[key]; }

bool ParamReader::Has(const std::string& key) const { return !Get(key).is_null(); }

namespace {
bool IsWholeNumber(double v) {
  return std::isfinite(v) && std::floor(v) == v && v >= -2147483648.0 && v <= 2147483647.0;
}
}  // namespace

int ParamReader::Int(const std::string& key, int def) const {
  const json11::Json& v = Get(key);
  if (v.is_null()) return def;
  if (!v.is_number() || !IsWholeNumber(v.number_value()))
    Fail("param \"" + key + "\" must be an integer");
  return v.int_value();
}

int ParamReader::RequiredInt(const std::string& key) const {
  if (!Has(key)) Fail("missing param \"" + key + "\"");
  return Int(key, 0);
}

float ParamReader::Float(const std::string& key, float def) const {
  const json11::Json& v = Get(key);
  if (v.is_null()) return def;
  if (!v.is_number()) Fail("param \"" + key + "\" must be a number");
  return static_cast<float>(v.number_value());
}

float ParamReader::RequiredFloat(const std::string& key) const {
  if (!Has(key)) Fail("missing param \"" + key + "\"");
  return Float(key, 0.0f);
}

bool ParamReader::Bool(const std::string& key, bool def) const {
  const json11::Json& v = Get(key);
  if (v.is_null()) return def;
  if (v.is_bool()) return v.bool_value();
  if (v.is_number()) return v.number_value() != 0.0;
  Fail("param \"" + key + "\" must be true or false");
}

std::string ParamReader::String(const std::string& key, const std::string& def) const {
  const json11::Json& v = Get(key);
  if (v.is_null()) return def;
  if (!v.is_string()) Fail("param \"" + key + "\" must be a string");
  return v.string_value();
}

std::vector<int> ParamReader::Ints(const std::string& key, const std::vector<int>& def) const {
  const json11::Json& v = Get(key);
  if (v.is_null()) return def;
  if (v.is_number()) return {Int(key, 0)};
  if (!v.is_array()) Fail("param \"" + key + "\" must be an array of integers");
  std::vector<int> out;
  for (const auto& item : v.array_items()) {
    if (!item.is_number() || !IsWholeNumber(item.number_value()))
      Fail("param \"" + key + "\" must be an array of integers");
    out.push_back(item.int_value());
  }
  return out;
}

std::vector<float> ParamReader::Floats(const std::string& key,
                                       const std::vector<float>& def) const {
  const json11::Json& v = Get(key);
  if (v.is_null()) return def;
  if (v.is_number()) return {static_cast<float>(v.number_value())};
  if (!v.is_array()) Fail("param \"" + key + "\" must be an array of numbers");
  std::vector<float> out;
  for (const auto& item : v.array_items()) {
    if (!item.is_number()) Fail("param \"" + key + "\" must be an array of numbers");
    out.push_back(static_cast<float>(item.number_value()));
  }
  return out;
}

std::string ParamReader::Choice(const std::string& key, const std::string& def,
                                const std::vector<std::string>& choices) const {
  const std::string value = String(key, def);
  for (const auto& c : choices)
    if (c == value) return value;
  std::string list;
  for (const auto& c : choices) list += (list.empty() ? "\"" : ", \"") + c + "\"";
  Fail("param \"" + key + "\" is \"" + value + "\", expected one of " + list);
}

namespace {

// What a tensor that frugal mode freed reads as when it is given storage
// again: real zero, which in an 8-bit tensor is its zero point's code.
template <typename T>
T RefillValue(const Data<T>&, const NetContext*) {
  return T(0);
}

template <>
unsigned char RefillValue(const Data<unsigned char>& t, const NetContext* context) {
  if (t.GetDataType() == "float" || context == nullptr || context->int8_config == nullptr) return 0;
  return context->int8_config->GetDataConfig(t.GetName())->getZeroPoint();
}

}  // namespace

template <typename T>
Layer<T>::~Layer() {
  DeleteAttrDatas();
}

template <typename T>
void Layer<T>::DeleteAttrDatas() {
  for (auto& kv : uint8_attrs_) delete kv.second;
  for (auto& kv : float_attrs_) delete kv.second;
  for (auto& kv : int32_attrs_) delete kv.second;
  uint8_attrs_.clear();
  float_attrs_.clear();
  int32_attrs_.clear();
}

template <typename T>
void Layer<T>::Bind(const json11::Json& json, const std::string& name, const std::string& type,
                    NetContext* context) {
  json_ = json;
  name_ = name;
  type_ = type;
  context_ = context;
  output_data_type_ = std::is_same<T, unsigned char>::value ? "int8" : "float";
}

template <typename T>
void Layer<T>::SyncDataType() {
  SyncStaging();
  if (!outputs_.empty()) output_data_type_ = outputs_[0]->GetDataType();
}

template <typename T>
void Layer<T>::Fail(const std::string& what) const {
  throw NetFormatError(SourceNames::Net() + ": layer \"" + name_ + "\" (" + type_ + "): " + what);
}

template <typename T>
void Layer<T>::ExpectCounts(int min_inputs, int max_inputs, int min_outputs,
                            int max_outputs) const {
  const int ni = static_cast<int>(inputs_.size());
  const int no = static_cast<int>(outputs_.size());
  auto range = [](int lo, int hi) {
    return lo == hi ? std::to_string(lo)
                    : (hi < 0 ? "at least " + std::to_string(lo)
                              : std::to_string(lo) + " to " + std::to_string(hi));
  };
  if (ni < min_inputs || (max_inputs >= 0 && ni > max_inputs))
    Fail("expects " + range(min_inputs, max_inputs) + " input(s), has " + std::to_string(ni));
  if (no < min_outputs || (max_outputs >= 0 && no > max_outputs))
    Fail("expects " + range(min_outputs, max_outputs) + " output(s), has " + std::to_string(no));
}

template <typename T>
void Layer<T>::ExpectRank(int input, int rank) const {
  if (inputs_[input]->NumAxes() != rank)
    Fail("input \"" + inputs_[input]->GetName() + "\" must have " + std::to_string(rank) +
         " axes, has shape " + DimsToString(inputs_[input]->GetDims()));
}

template <typename T>
std::string Layer<T>::GetTypeDetail() {
  return type_;
}

template <typename T>
int Layer<T>::GetChannelNum() {
  return weights_.empty() ? 0 : weights_[0]->GetDim(0);
}

template <typename T>
json11::Json Layer<T>::GetJson() {
  return json_;
}

template <typename T>
int Layer<T>::WeightIndex(const std::string& name) const {
  for (size_t i = 0; i < weight_names_.size(); ++i)
    if (weight_names_[i] == name) return static_cast<int>(i);
  return -1;
}

template <typename T>
void Layer<T>::CreateWeights() {
  owned_weights_.clear();
  weights_.clear();
  weight_names_.clear();
  for (const WeightSpec& spec : WeightSpecs()) {
    auto blob = std::make_unique<Data<T>>(name_ + "/" + spec.name);
    blob->Resize(spec.dims);
    blob->ChangeDataType("float");
    weights_.push_back(blob.get());
    weight_names_.push_back(spec.name);
    owned_weights_.push_back(std::move(blob));
  }
}

template <typename T>
void Layer<T>::SetStaging(int input_index, Data<T>* shared, Data<T>* staging) {
  staging_.push_back({input_index, shared, staging});
  inputs_[input_index] = staging;
  SyncStaging();
}

template <typename T>
void Layer<T>::SyncStaging() {
  for (const Staging& s : staging_) {
    s.staging->Resize(s.shared->GetDims());
    if (s.staging->GetDataType() != s.shared->GetDataType())
      s.staging->ChangeDataType(s.shared->GetDataType());
  }
}

template <typename T>
void Layer<T>::Forward() {
  if (fused_away_) return;
  // A net reshaped to an empty batch has nothing to compute.
  for (Data<T>* t : inputs_)
    if (t->Count(0) == 0) return;
  for (Data<T>* t : outputs_)
    if (t->Count(0) == 0) return;
  const bool frugal = context_ != nullptr && context_->frugal;
  for (const Staging& s : staging_) {
    // The kernel cannot alias: it reads a private copy of the shared tensor.
    s.staging->Resize(s.shared->GetDims());
    if (s.staging->GetDataType() != s.shared->GetDataType())
      s.staging->ChangeDataType(s.shared->GetDataType());
    if (s.staging->GetCpuData() == nullptr) s.staging->Reallocate();
    if (s.shared->GetCpuData() != nullptr)
      std::memcpy(s.staging->GetCpuData(), s.shared->GetCpuData(), s.shared->GetSize());
  }
  if (frugal) {
    // Frugal mode allocates on demand: outputs here, and inputs that an
    // earlier frugal pass has already given up (they read as zeros).
    for (Data<T>* t : inputs_)
      if (t->GetCpuData() == nullptr) t->Reallocate(RefillValue(*t, context_));
    for (Data<T>* t : outputs_)
      if (t->GetCpuData() == nullptr) t->Reallocate();
  }
  Run();
  if (frugal)
    for (Data<T>* t : release_) t->ClearData();
}

template class Layer<float>;
template class Layer<unsigned char>;

}  // namespace qzdl
