// Where a net's data comes from: the choice among the sources, the default
// set calibration.bin, and the transforms that image inputs need.
// See docs/calibration-data.md, sections "Sources" and "Default set".
#include "dataloader/data_source.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "dataloader/transform.h"
#include "runtime/image/qz_session.h"
#include "runtime/log.h"

namespace dataLoader {

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
DataLoader* LoadDefaultSet(qzdl::Net<float>* net, int max_data_num) {
  std::ifstream file(DefaultSetPath(), std::ios::binary);
  if (!file.is_open()) {
    qzdl::qlogInstance.QZLOG(
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
  auto* loader = new DataLoader(net, Image);
  if (max_data_num > 0) loader->SetMaximum(max_data_num);
  loader->LoadFromSharedMemoryAnonymous(sessions);
  return loader;
}

}  // namespace

void AddInputTransforms(DataLoader* loader, qzdl::Net<float>* net, bool rgb) {
  for (int i = 0; i < net->GetInputCount(); ++i) {
    const std::string name = net->GetInputDataName(i);
    if (rgb) loader->AddTransform(name, new ReverseChannel());
    // The flag of the grey conversion says whether plane 0 is blue.
    if (net->GetInputData(i)->GetDim(1) == 1) {
      loader->AddTransform(name, new RGB2GRAY(!rgb, 1));
    }
  }
}

bool FileFormat(const std::string& calibration_type, DataFormat* format) {
  if (calibration_type == "img") {
    *format = Image;
  } else if (calibration_type == "npy") {
    *format = Npy;
  } else {
    return false;
  }
  return true;
}

DataLoader* NewFileLoader(qzdl::Net<float>* net, DataFormat format,
                          const DataSourceOptions& options) {
  auto* loader = new DataLoader(net, format);
  if (options.max_data_num > 0) loader->SetMaximum(options.max_data_num);
  if (format == Image) AddInputTransforms(loader, net, options.rgb);
  return loader;
}

DataLoader* CreateDataLoader(qzdl::Net<float>* net, const DataSourceOptions& options) {
  const bool limited = options.max_data_num > 0;
  DataLoader* loader = nullptr;
  if (!options.calibration_set.empty() || !options.data_folder.empty()) {
    DataFormat format;
    // No loader and no message; the caller reports the missing data.
    if (!FileFormat(options.calibration_type, &format)) return nullptr;
    loader = NewFileLoader(net, format, options);
    // A folder wins over a list, and only the first input receives its files.
    if (!options.data_folder.empty()) {
      loader->LoadFolder(net->GetInputDataName(0), options.data_folder);
    } else {
      loader->LoadFromListAnonymous(options.calibration_set);
    }
  } else if (!options.binary_set.empty()) {
    loader = new DataLoader(net, Binary);
    if (limited) loader->SetMaximum(options.max_data_num);
    loader->LoadFromBinaryAnonymous(options.binary_set);
  } else if (!options.txt_file.empty()) {
    loader = new DataLoader(net, Text);
    if (limited) loader->SetMaximum(options.max_data_num);
    loader->LoadFromTxtAnonymous(options.txt_file);
  } else if (options.random_input != 0) {
    loader = new DataLoader(net, Random);
    if (limited) loader->SetMaximum(options.max_data_num);
    loader->GenerateRandom(options.random_input);
  } else {
    loader = LoadDefaultSet(net, options.max_data_num);
    // Without the file there is no loader to attach transforms to.
    if (loader != nullptr) AddInputTransforms(loader, net, options.rgb);
  }
  return loader;
}

}  // namespace dataLoader
