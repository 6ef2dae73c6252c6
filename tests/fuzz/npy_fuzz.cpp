// NPY files into the reader. The reader reports a damaged file by throwing
// (std::runtime_error and its relatives); the data loader lets that end the
// process, which is the documented outcome and not a finding here.
#include <stdexcept>

#include "dataloader/cnpy.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = qzdl_fuzz::WriteInput(data, size, "input.npy");
  try {
    cnpy::NpyArray array = cnpy::npy_load(path);
    // Every byte the array claims must be there.
    volatile unsigned sum = 0;
    const char* bytes = array.data<char>();
    for (size_t i = 0; i < array.byteCount(); ++i) sum += static_cast<unsigned char>(bytes[i]);
  } catch (const std::exception&) {
  }
  return 0;
}
