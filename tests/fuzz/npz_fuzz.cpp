// NPZ archives (stored or deflated members) into the reader: the whole
// archive, then one member by name. Thrown errors are the documented outcome.
#include <stdexcept>

#include "dataloader/cnpy.h"
#include "fuzz_support.h"

namespace {

void Touch(cnpy::NpyArray& array) {
  volatile unsigned sum = 0;
  const char* bytes = array.data<char>();
  for (size_t i = 0; i < array.byteCount(); ++i) sum += static_cast<unsigned char>(bytes[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = qzdl_fuzz::WriteInput(data, size, "input.npz");
  try {
    cnpy::NpzArrays arrays = cnpy::npz_load(path);
    for (auto& member : arrays) Touch(member.second);
  } catch (const std::exception&) {
  }
  try {
    cnpy::NpyArray array = cnpy::npz_load(path, "arr_0");
    Touch(array);
  } catch (const std::exception&) {
  }
  return 0;
}
