// Where the calibration data comes from: the choice among the sources, the
// default set calibration.bin, and the transforms that image inputs need.
// See docs/calibration-data.md, sections "Sources" and "Default set".
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "converter/converter.h"
#include "dataloader/data_loader.h"
#include "dataloader/transform.h"
#include "runtime/image/qz_session.h"
#include "runtime/log.h"

namespace qzdl {
namespace modelConverter {

namespace {

// calibration.bin: 100 images of 224 x 224 pixels of 3 bytes, no header.
constexpr int kDefaultSetImages = 100;
constexpr int kDefaultSetSide = 224;
constexpr size_t kDefaultSetRecordBytes = kDefaultSetSide * kDefaultSetSide * 3;

// calibration.bin in the current directory, or else below QZDL_SDK_PATH when
// that is set and not empty. The result may name no readable file.
std::string DefaultSetPath() {
  std::string path = "calibration.bin";
  if (access(path.c_str(), R_OK) != 0) {
    const char* sdk = getenv("QZDL_SDK_PATH");
    if (sdk != nullptr && sdk[0] != '\0') path = std::string(sdk) + "/calibration.bin";
  }
  return path;
}

// The default set: 100 image sessions, one per record, dealt out over the
// inputs. Null, after the log line, when the file cannot be opened.
dataLoader::DataLoader* LoadDefaultSet(Net<float>* net, int max_data_num) {
  std::ifstream file(DefaultSetPath(), std::ios::binary);
  if (!file.is_open()) {
    qlogInstance.QZLOG(
        "Can't find calibration.bin. Please run \"source QZNPU1/env_setup.sh\" first.");
    return nullptr;
  }
  std::vector<void*> sessions;
  for (int i = 0; i < kDefaultSetImages; ++i) {
    // The pixels stay allocated: the session may keep them. A short file is
    // not noticed; what it lacks reads as 0.
    unsigned char* pixels = new unsigned char[kDefaultSetRecordBytes]();
    file.read(reinterpret_cast<char*>(pixels), kDefaultSetRecordBytes);
    qzg::QZSession* session = qzg::QZSession::CreateSession();
    session->ReadXGX24(pixels, kDefaultSetSide, kDefaultSetSide, static_cast<qzg::QZSAMP>(2));
    sessions.push_back(session);
  }
  auto* loader = new dataLoader::DataLoader(net, dataLoader::Image);
  if (max_data_num > 0) loader->SetMaximum(max_data_num);
  loader->LoadFromSharedMemoryAnonymous(sessions);
  return loader;
}

// Image inputs: a channel reversal for RGB data, and a grey conversion for
// inputs of one channel, one instance per input.
void AddInputTransforms(dataLoader::DataLoader* loader, Net<float>* net, bool rgb) {
  for (int i = 0; i < net->GetInputCount(); ++i) {
    const std::string name = net->GetInputDataName(i);
    if (rgb) loader->AddTransform(name, new dataLoader::ReverseChannel());
    // The flag of the grey conversion says whether plane 0 is blue.
    if (net->GetInputData(i)->GetDim(1) == 1) {
      loader->AddTransform(name, new dataLoader::RGB2GRAY(!rgb, 1));
    }
  }
}

}  // namespace

void Converter::GenerateDataLoader() {
  using dataLoader::DataLoader;
  const bool limited = param.max_data_num > 0;

  if (!param.calibration_set.empty() || !param.data_folder.empty()) {
    dataLoader::DataFormat format;
    if (param.calibration_type == "img") {
      format = dataLoader::Image;
    } else if (param.calibration_type == "npy") {
      format = dataLoader::Npy;
    } else {
      // No loader and no message; Convert reports the missing data.
      return;
    }
    data_loader = new DataLoader(float_net, format);
    if (limited) data_loader->SetMaximum(param.max_data_num);
    if (format == dataLoader::Image) AddInputTransforms(data_loader, float_net, param.rgb);
    // A folder wins over a list, and only the first input receives its files.
    if (!param.data_folder.empty()) {
      data_loader->LoadFolder(float_net->GetInputDataName(0), param.data_folder);
    } else {
      data_loader->LoadFromListAnonymous(param.calibration_set);
    }
  } else if (!param.binary_set.empty()) {
    data_loader = new DataLoader(float_net, dataLoader::Binary);
    if (limited) data_loader->SetMaximum(param.max_data_num);
    data_loader->LoadFromBinaryAnonymous(param.binary_set);
  } else if (!param.txt_file.empty()) {
    data_loader = new DataLoader(float_net, dataLoader::Text);
    if (limited) data_loader->SetMaximum(param.max_data_num);
    data_loader->LoadFromTxtAnonymous(param.txt_file);
  } else if (param.random_input != 0) {
    data_loader = new DataLoader(float_net, dataLoader::Random);
    if (limited) data_loader->SetMaximum(param.max_data_num);
    data_loader->GenerateRandom(param.random_input);
  } else {
    data_loader = LoadDefaultSet(float_net, param.max_data_num);
    // Without the file there is no loader to attach transforms to.
    if (data_loader != nullptr) AddInputTransforms(data_loader, float_net, param.rgb);
  }
}

}  // namespace modelConverter
}  // namespace qzdl
