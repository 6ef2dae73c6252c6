// Net descriptions: JSON text, then (after the first NUL byte, if any) the
// weights file, into net creation. A net that is created is run once, so
// that shapes accepted at creation are also safe to compute. The input's
// length picks frugal mode (odd) or not (even), as the converter and the
// runner each use one.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  const char* begin = reinterpret_cast<const char*>(data);
  const char* end = begin + size;
  const char* nul = static_cast<const char*>(std::memchr(begin, 0, size));
  const std::string text(begin, nul != nullptr ? nul : end);
  const std::string weights(nul != nullptr ? nul + 1 : end, end);
  std::unique_ptr<qzdl::Net<float>> net(qzdl_fuzz::TryCreateNet(text, weights, size % 2 == 1));
  if (net) net->ForwardAll();
  return 0;
}
