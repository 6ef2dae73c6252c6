// List files: one path per line, for one named input and for the inputs in
// turn. Only the list is read here; the samples it names are not opened, as
// the fuzzer may name any file on the machine. A data loader keeps its
// samples for the life of the process, so the samples per run are capped
// (SetMaximum) to keep a long run's memory bounded.
#include <memory>

#include "dataloader/data_loader.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  qzdl::Net<float>* net = qzdl_fuzz::TwoInputNet();
  const std::string path = qzdl_fuzz::WriteInput(data, size, "list.txt");
  {
    dataLoader::DataLoader loader(net, dataLoader::Image);
    loader.SetMaximum(8);
    loader.LoadFromList("a", path);
    (void)loader.GetSize();
  }
  {
    dataLoader::DataLoader loader(net, dataLoader::Image);
    loader.SetMaximum(3);
    loader.LoadFromListAnonymous(path);
    (void)loader.GetSize();
  }
  return 0;
}
