// The stages of a conversion that stand between the driver's fixed steps, and
// the driver's calls into the data loader, the searcher and the weights tuner.
#include <algorithm>

#include "converter/converter.h"
#include "dataloader/data_loader.h"
#include "quantization/mse_observer.h"
#include "quantization/searcher.h"
#include "quantization/utils.h"
#include "quantization/weights_tuner.h"
#include "runtime/create_net.h"
#include "runtime/file_read.h"
#include "runtime/int8/hybrid_net.h"

namespace qzdl {
namespace modelConverter {

using staticQuantization::AdaQuantSearcher;
using staticQuantization::AdaQuantSeqSearcher;
using staticQuantization::CosineSearcher;

// The tuner exists whenever -n asks for it; a searcher for the modes that
// search layer by layer. Mode 8 with -e leaves its candidates to the
// whole-net search instead.
void Converter::InitSearcher() {
  if (param.weight_tuning) weights_tuner = new WeightsTuner(float_net, data_loader);
  const int mode = param.calibration_mode;
  const bool wanted = mode == staticQuantization::AdaQuantSequential ||
                      mode == staticQuantization::AdaQuant ||
                      (mode == staticQuantization::CosineSearch &&
                       param.expectant_cos == param.expectant_cos_unset);
  if (!wanted) return;

  std::string error;
  const json11::Json json = json11::Json::parse(ReadFileOrEmpty(param.json_file), error);
  int8_net = new Net<unsigned char>(json, "int8", nullptr);
  // Both nets read and write one configuration.
  int8_net->SetInt8Config(float_net->GetInt8Config());
  int8_net->LoadWeights(param.model_file);
  if (mode == staticQuantization::CosineSearch) {
    searcher = new CosineSearcher(float_net, int8_net, data_loader);
  } else if (mode == staticQuantization::AdaQuantSequential) {
    searcher = new AdaQuantSeqSearcher(float_net, int8_net, data_loader);
  } else {
    searcher = new AdaQuantSearcher(float_net, int8_net, data_loader);
  }
}

// The whole-net search of the runtime, on the model just written: a fresh
// float net, the hybrid net as saved, the first items of the first input and
// the candidates of every tensor of method 8.
void Converter::StaticSearch() {
  const ConverterParam p = param;
  Net<float>* fresh = CreateNet<float>(p.json_file, p.model_file, false, false, 0, 1);
  HybridNet* hybrid = CreateHybridNet(
      staticQuantization::SwapPath(staticQuantization::AddHybrid(p.json_file), p.output_name),
      p.model_file, false, 0);
  std::map<std::string, std::vector<std::pair<float, float>>> candidates = SearchCandidates();
  std::vector<std::vector<float>> inputs = SearchInputs(p);
  const std::string hybrid_path =
      staticQuantization::SwapPath(staticQuantization::AddHybrid(p.json_file), p.output_name);
  OptimizeInt8Net(hybrid, fresh, inputs, p.expectant_cos, hybrid_path, p.output_name, &candidates);
  delete hybrid;
  delete fresh;
}

std::map<std::string, std::vector<std::pair<float, float>>> Converter::SearchCandidates() {
  std::map<std::string, std::vector<std::pair<float, float>>> candidates;
  for (const auto& entry : observers) {
    if (entry.second->GetObserverType() != staticQuantization::CosineSearch) continue;
    candidates[entry.first] =
        static_cast<staticQuantization::EnumObserver*>(entry.second)->GetCandidates();
  }
  return candidates;
}

// At most `optimize_input_limit` items of the first net input, each copied
// whole.
std::vector<std::vector<float>> Converter::SearchInputs(const ConverterParam& p) {
  const int64_t item = float_net->GetInputData(0)->Count(1);
  const std::string name = float_net->GetInputDataName(0);
  std::vector<std::vector<float>> inputs;
  for (int i = 0; i < std::min<long>(p.optimize_input_limit, data_loader->GetSize()); ++i) {
    const float* sample = data_loader->Get(name, i);
    inputs.emplace_back(sample, sample + item);
  }
  return inputs;
}

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

void Converter::SearcherInit() { searcher->Init(); }

void Converter::HandCachedDataToTuner() {
  weights_tuner->ImportCachedData(searcher->ExportCachedData());
}

void Converter::TunerInit() { weights_tuner->Init(); }

void Converter::SearcherSearchInput(const std::string& name, Observer* observer) {
  searcher->SearchOneInput(name, observer);
}

void Converter::SearcherSearchLayer(const std::string& layer_name,
                                    std::map<std::string, Observer*> map) {
  searcher->SearchOneLayer(layer_name, map);
}

void Converter::TunerSearchLayer(const std::string& layer_name,
                                 std::map<std::string, Observer*> map) {
  weights_tuner->SearchOneLayer(layer_name, map);
}

}  // namespace modelConverter
}  // namespace qzdl
