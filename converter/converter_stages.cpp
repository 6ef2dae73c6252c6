// The stages of a conversion that stand between the driver's fixed steps, and
// the driver's calls into the data loader, the searcher and the weights tuner.
//
// The searcher and the tuner are not built yet: their stages and calls do
// nothing, so the ranges are the observers' own.
#include "converter/converter.h"
#include "dataloader/data_loader.h"

namespace qzdl {
namespace modelConverter {

void Converter::InitSearcher() {}

void Converter::StaticSearch() {}

long Converter::DataSize() { return data_loader->GetSize(); }

// Every net input is fed one sample per item of the set, so all inputs need
// the same number of samples (a list dealt over two inputs may leave one
// short).
void Converter::CheckSampleCounts() {
  std::string counts;
  bool differ = false;
  const long first = data_loader->GetSize(float_net->GetInputData(0)->GetName());
  for (int i = 0; i < float_net->GetInputCount(); ++i) {
    const std::string name = float_net->GetInputData(i)->GetName();
    const long n = data_loader->GetSize(name);
    differ |= n != first;
    counts += (i ? ", " : "") + std::string("\"") + name + "\" " + std::to_string(n);
  }
  if (!differ) return;
  printf("Error: the net inputs have different numbers of calibration samples: %s.\n",
         counts.c_str());
  fflush(stdout);
  exit(-1);
}

float* Converter::NextBatch(const std::string& name, int batch) {
  return data_loader->GetBatch(name, batch);
}

void Converter::SearcherInit() {}

void Converter::HandCachedDataToTuner() {}

void Converter::TunerInit() {}

void Converter::SearcherSearchInput(const std::string& name, Observer* observer) {}

void Converter::SearcherSearchLayer(const std::string& layer_name,
                                    std::map<std::string, Observer*> map) {}

void Converter::TunerSearchLayer(const std::string& layer_name,
                                 std::map<std::string, Observer*> map) {}

}  // namespace modelConverter
}  // namespace qzdl
