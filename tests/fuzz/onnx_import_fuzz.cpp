// ONNX files into the importer. Import errors are reported by the tool and
// are expected; an imported net must then load in the runtime or be refused
// there with a message.
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "runtime/weights_file.h"
#include "importer/onnx_importer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  static const std::string base_dir = qzdl_fuzz::ScratchFolder();
  qzdl::OnnxImportOptions options;
  options.max_constant_bytes = qzdl_fuzz::kFuzzMaxConstantBytes;
  qzdl::OnnxImportResult result;
  try {
    result = qzdl::ImportOnnxBytes(std::string(reinterpret_cast<const char*>(data), size),
                                   "fuzz.onnx", base_dir, options);
  } catch (const qzdl::OnnxImportError&) {
    return 0;
  }
  std::unique_ptr<qzdl::Net<float>> net(
      qzdl_fuzz::TryCreateNet(result.net_json, qzdl::SerializeWeights(result.blobs), false));
  return 0;
}
