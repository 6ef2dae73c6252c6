#include "runtime/create_net.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <type_traits>

#include "runtime/errors.h"
#include "runtime/layer_types.h"
#include "runtime/log.h"

namespace qzdl {

template <typename T>
Optimizer<T>::Optimizer(const json11::Json& net, std::string dataType) : Net<T>() {
  this->Init(net, dataType, nullptr);
  bool* switches[] = {&doAlignment,        &mergeConvBnScRelu,       &mergeEltwiseRelu,
                      &mergeSwish,         &mergeAllActivation,      &replaceBroadcastEltwise,
                      &replaceConvFC,      &removeInplaceLayer,      &removeUselessLayer};
  const char* keys[] = {"doAlignment",        "mergeConvBnScRelu",       "mergeEltwiseRelu",
                        "mergeSwish",         "mergeAllActivation",      "replaceBroadcastEltwise",
                        "replaceConvFC",      "removeInplaceLayer",      "removeUselessLayer"};
  for (int i = 0; i < 9; ++i) {
    *switches[i] = true;
    const json11::Json& value = net[keys[i]];
    // Any value that is not a JSON boolean reads as false; null keeps the default.
    if (value.type() != json11::Json::NUL) *switches[i] = value.bool_value();
  }
}

template class Optimizer<float>;

template <typename T>
std::string NetTypeWord() {
  return std::is_same<T, unsigned char>::value ? "int8" : "float";
}

namespace {

[[noreturn]] void Fail(const std::string& message) {
  throw_exception(message, new QZDLInitException());
}

// Steps shared by the content and serial paths once the weights are in.
template <typename T>
void FinishNet(Optimizer<T>* net, bool frugal, bool optimize, int reshapeArg) {
  net->SetFrugalMode(frugal);
  if (optimize) {
    net->Reshape(false, 0);
    net->Optimize(true, true, false, true, false, false);
  }
  net->Reshape(true, reshapeArg);
  // Repeat until a whole walk changes nothing; there is deliberately no bound.
  bool changed = true;
  while (changed) {
    changed = false;
    for (Layer<T>* layer : net->GetLayers()) changed |= layer->AdjustInt8Config();
  }
}

template <typename T>
Optimizer<T>* BuildNet(const std::string& netText) {
  std::string error;
  json11::Json json = json11::Json::parse(netText, error, json11::STANDARD);
  if (!error.empty()) Fail("Parse json file failed: " + error);
  try {
    return new Optimizer<T>(json, NetTypeWord<T>());
  } catch (const NetFormatError& e) {
    Fail(e.what());
  }
}

}  // namespace

template <typename T>
Net<T>* CreateNet(std::string const& netPath, std::string const& modelPath, bool frugal,
                  bool optimize, int reshapeArg, int spareArg) {
  // Throws std::out_of_range for a path shorter than two characters.
  const std::string tail = modelPath.substr(modelPath.size() - 2);
  if (tail == "fb")
    return CreateNetSerial<T>(netPath, modelPath, frugal, optimize, reshapeArg, spareArg);
  return CreateNet<T>(netPath, modelPath, NetTypeWord<T>(), frugal, optimize, reshapeArg,
                      spareArg);
}

template <typename T>
Net<T>* CreateNet(std::string const& netPath, std::string const& modelPath,
                  std::string const& netDataType, bool frugal, bool optimize, int reshapeArg,
                  int spareArg) {
  if (netDataType != "float") Fail("the defined net type isn't same as the param \"netDataType\"");
  if (!IsFileExist(netPath.c_str())) Fail("Net file \"" + netPath + "\" not found.\n");
  if (!IsFileExist(modelPath.c_str())) Fail("Model file \"" + modelPath + "\" not found.\n");
  std::ifstream netFile(netPath);
  std::stringstream text;
  text << netFile.rdbuf();

  std::ifstream model(modelPath, std::ios::binary);
  if (!model.is_open()) Fail("Can't open model file.\n");
  model.seekg(0, std::ios::end);
  const int length = static_cast<int>(model.tellg());
  model.seekg(0, std::ios::beg);
  // A length that does not fit (or a directory, which has none) cannot be read whole.
  if (length < 0) Fail("read bin file error\n");
  std::unique_ptr<char[]> buffer(new char[length > 0 ? length : 1]);
  model.read(buffer.get(), length);
  if (model.gcount() < length) Fail("read bin file error\n");
  model.close();

  SourceNames names(netPath, modelPath);
  return CreateNetFromContent<T>(text.str(), buffer.get(), length, frugal, optimize, reshapeArg,
                                 spareArg);
}

template <typename T>
Net<T>* CreateNetFromContent(std::string const& netText, char* model, int modelLength, bool frugal,
                             bool optimize, int reshapeArg, int) {
  Optimizer<T>* net = BuildNet<T>(netText);
  try {
    if (NetTypeWord<T>() == "float") {
      net->LoadWeights(model, modelLength);
    } else {
      net->LoadQuantizationWeights(model, modelLength);
    }
    FinishNet(net, frugal, optimize, reshapeArg);
  } catch (const NetFormatError& e) {
    delete net;
    Fail(e.what());
  }
  if (net->GetHighAccuracyDoubleMultiplier()) net->SetHighAccuracyDoubleMultiplier();
  return net;
}

template <typename T>
Net<T>* CreateNetSerial(std::string const& netPath, std::string const& modelPath, bool frugal,
                        bool optimize, int reshapeArg, int) {
  std::ifstream netFile(netPath);
  std::stringstream text;
  text << netFile.rdbuf();
  SourceNames names(netPath, modelPath);
  Optimizer<T>* net = BuildNet<T>(text.str());
  try {
    net->LoadSerialWeights(modelPath);
    FinishNet(net, frugal, optimize, reshapeArg);
  } catch (const NetFormatError& e) {
    delete net;
    Fail(e.what());
  }
  // A net from a serial model never gets the high-accuracy multiplier.
  return net;
}

template Net<float>* CreateNet<float>(std::string const&, std::string const&, bool, bool, int,
                                      int);
template Net<float>* CreateNet<float>(std::string const&, std::string const&, std::string const&,
                                      bool, bool, int, int);
template Net<float>* CreateNetSerial<float>(std::string const&, std::string const&, bool, bool,
                                            int, int);
template Net<float>* CreateNetFromContent<float>(std::string const&, char*, int, bool, bool, int,
                                                 int);
template std::string NetTypeWord<float>();

}  // namespace qzdl
