// Text sets: whitespace-separated floats, one sample of each input in turn,
// read and fetched back.
#include "dataloader/data_loader.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  qzdl::Net<float>* net = qzdl_fuzz::TwoInputNet();
  const std::string path = qzdl_fuzz::WriteInput(data, size, "set.txt");
  dataLoader::DataLoader loader(net, dataLoader::Binary);
  loader.LoadFromTxtAnonymous(path);
  volatile float sum = 0;
  for (const char* name : {"a", "b"}) {
    const float* values = loader.Get(name, 0);
    const int count = name[0] == 'a' ? 4 : 2;
    for (int i = 0; i < count; ++i) sum += values[i];
  }
  return 0;
}
