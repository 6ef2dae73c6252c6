// The quantized weights file reader: any bytes either parse or are refused
// with a NetFormatError; what parses serializes back to the same bytes (the
// reserved header word as 0), and
// loads into a small hybrid 8-bit net (or is refused with a NetFormatError)
// that then runs.
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "runtime/errors.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/int8/quantized_weights.h"
#include "small_net.h"

namespace {

std::string QuantizedNetPath() {
  std::string text = qzdl_fuzz::kSmallNet;
  text.insert(text.size() - 1, std::string(", ") + qzdl_fuzz::kSmallQuantizedSection);
  return qzdl_fuzz::WriteInput(reinterpret_cast<const uint8_t*>(text.data()), text.size(),
                               "net_hybrid.json");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  const char* bytes = reinterpret_cast<const char*>(data);
  try {
    const auto blobs = qzdl::ParseQuantizedWeights(bytes, static_cast<int64_t>(size), "fuzz.bin");
    // The reserved header word is read and not kept: it serializes as 0.
    std::string expected(bytes, size);
    expected.replace(12, 4, std::string(4, '\0'));
    if (qzdl::SerializeQuantizedWeights(blobs) != expected) std::abort();
  } catch (const qzdl::NetFormatError&) {
    return 0;
  }
  static const std::string net_path = QuantizedNetPath();
  const std::string model_path = qzdl_fuzz::WriteInput(data, size, "model.bin");
  try {
    std::unique_ptr<qzdl::Net<unsigned char>> net(qzdl::CreateQuantizedNet(net_path, model_path));
    net->ForwardAll();
  } catch (const qzdl::NetFormatError&) {
  }
  return 0;
}
