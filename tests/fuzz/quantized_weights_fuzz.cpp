// The quantized weights file reader: any bytes either parse or are refused
// with a NetFormatError; what parses serializes back to the same bytes.
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "runtime/errors.h"
#include "runtime/int8/quantized_weights.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  const char* bytes = reinterpret_cast<const char*>(data);
  try {
    const auto blobs = qzdl::ParseQuantizedWeights(bytes, static_cast<int64_t>(size), "fuzz.bin");
    if (qzdl::SerializeQuantizedWeights(blobs) != std::string(bytes, size)) std::abort();
  } catch (const qzdl::NetFormatError&) {
  }
  return 0;
}
