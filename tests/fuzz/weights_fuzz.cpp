// The weights file: the parser alone, then the same bytes as the weights of a
// small net, so that blobs that parse but do not fit their layers are caught
// at creation.
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "runtime/errors.h"
#include "runtime/weights_file.h"
#include "small_net.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  try {
    qzdl::ParseWeights(reinterpret_cast<const char*>(data), static_cast<int64_t>(size), "fuzz.bin");
  } catch (const qzdl::NetFormatError&) {
  }
  const std::string weights(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<qzdl::Net<float>> net(
      qzdl_fuzz::TryCreateNet(qzdl_fuzz::kSmallNet, weights, false));
  if (net) net->ForwardAll();
  return 0;
}
