#include "runtime/create_net.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <type_traits>

#include "runtime/errors.h"
#include "runtime/file_read.h"
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
  if (!error.empty()) {
    const std::string net_file = SourceNames::NetPath();
    Fail("Parse json file failed: " + error + (net_file.empty() ? "" : "\n" + FileLine(net_file)));
  }
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
  // An unreadable net file reaches the parser as empty text.
  const std::string text = ReadFileOrEmpty(netPath);

  std::string model, error;
  if (!ReadWholeFile(modelPath, &model, &error)) {
    // A folder opens but cannot be read; only a path that cannot be opened
    // at all is "Can't open".
    if (error != std::strerror(EISDIR) && error != std::strerror(EINVAL))
      Fail("Can't open model file.\n" + FileLine(modelPath) + "\n");
    Fail("read bin file error\n" + FileLine(modelPath) + "\n");
  }
  // The length is taken as a signed 32-bit count.
  if (model.size() > static_cast<size_t>(INT_MAX))
    Fail("read bin file error\n" + FileLine(modelPath) + "\n");
  const int length = static_cast<int>(model.size());

  SourceNames names(netPath, modelPath);
  return CreateNetFromContent<T>(text, model.data(), length, frugal, optimize, reshapeArg,
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
  SourceNames names(netPath, modelPath);
  Optimizer<T>* net = BuildNet<T>(ReadFileOrEmpty(netPath));
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
