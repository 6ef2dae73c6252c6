// The stages of a conversion that stand between the driver's fixed steps, and
// the driver's calls into the data loader, the searcher and the weights tuner.
//
// Stages still without work here leave the conversion's result as it is:
// the ranges are observed, and nothing is written yet.
#include "converter/converter.h"
#include "dataloader/data_loader.h"

namespace qzdl {
namespace modelConverter {

void Converter::InitWeightObservers() {}

void Converter::InitSearcher() {}

void Converter::LoadPresetConfig() {}

void Converter::CalibrateWeight() {}

void Converter::FinishCalibration() {}

void Converter::SaveQuantizedModel() const {}

void Converter::StaticSearch() {}

INT8Config* Converter::DumpQuantizationConfig() { return nullptr; }

void Converter::MergeInt8Config() {}

long Converter::DataSize() { return data_loader->GetSize(); }

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
