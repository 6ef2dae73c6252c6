#include "converter/converter.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "quantization/observer.h"
#include "quantization/utils.h"
#include "runtime/create_net.h"
#include "runtime/file_read.h"

namespace qzdl {
namespace modelConverter {

namespace {

// The name of a method in the observers' table; "Unknown" outside it.
std::string MethodName(int method) {
  const std::vector<std::string>& names = staticQuantization::observerTypeString;
  if (method < 0 || method >= static_cast<int>(names.size())) return "Unknown";
  return names[method];
}

// The words of "config.json", compared exactly. The search-driven methods have
// no word: they reach a tensor only through the calibration mode.
const std::map<std::string, CalibrationMethod>& MethodWords() {
  static const std::map<std::string, CalibrationMethod> words = {
      {"NAIVE", staticQuantization::Naive},         {"MEAN", staticQuantization::Average},
      {"ENTROPY", staticQuantization::Entropy},     {"COVERAGE", staticQuantization::Coverage},
      {"MES", staticQuantization::MeanSquareError}, {"HISTOGRAM", staticQuantization::Histogram},
  };
  return words;
}

// Modes that cannot run in frugal mode fall back to the peak method there.
bool FallsBackToPeak(int mode) {
  return mode == staticQuantization::MeanSquareError || mode == staticQuantization::CosineSearch;
}

}  // namespace

bool ExceedsElementLimit(int64_t count) { return count > kElementLimit; }

bool ExceedsBatchLimit(uint64_t count, uint64_t items) {
  return count * items > static_cast<uint64_t>(kElementLimit);
}

bool ReshapeFixesBatch(const json11::Json& layer_json) {
  return layer_json["param"]["shapes"][0].int_value() == 1;
}

void OpenFrugalForBatch(ConverterParam& param) {
  if (param.frugal) return;
  param.frugal = true;
  printf("Warning: Network dose not support inference with batch != 1, open frugal mode now.\n");
  if (FallsBackToPeak(param.calibration_mode)) {
    printf(
        "Warning: Network dose not support inference with batch != 1, calibration method will be "
        "changed to Peak.\n");
    param.calibration_mode = staticQuantization::Naive;
  }
}

void OpenFrugalForSize(ConverterParam& param) {
  if (param.frugal) return;
  param.frugal = true;
  printf("Warning: Network is too large, open frugal mode now.\n");
  if (FallsBackToPeak(param.calibration_mode)) {
    printf("Warning: Network is too large, calibration method will be changed to Peak.\n");
    param.calibration_mode = staticQuantization::Naive;
  }
}

uint64_t RoundCount(uint64_t items, uint64_t batch) { return batch == 0 ? 0 : items / batch; }

Converter::Converter(const ConverterParam& converterParam) {
  param = converterParam;
  float_net = CreateNet<float>(param.json_file, param.model_file, true, false, 0, 1);

  for (Layer<float>* layer : float_net->GetLayers()) {
    if (layer->GetType() == "Reshape" && ReshapeFixesBatch(layer->GetJson())) {
      OpenFrugalForBatch(param);
    }
    for (Data<float>* output : layer->GetOutputs()) {
      if (ExceedsElementLimit(output->Count(0))) OpenFrugalForSize(param);
    }
  }

  Status(param);

  // The mode asked for, not the one the checks above may have changed: the
  // observers keep the method that was asked for.
  AssignCalibrationMethods(converterParam.calibration_mode);

  GenerateDataLoader();
  InitObservers();
  InitWeightObservers();
  InitSearcher();
  LoadPresetConfig();
}

void Converter::AssignCalibrationMethods(CalibrationMethod mode) {
  for (int i = 0; i < float_net->GetInputCount(); ++i) {
    calibration_methods[float_net->GetInputDataName(i)] = staticQuantization::Naive;
  }
  printf("Assign all data`s calibration method to: %s\n", MethodName(mode).c_str());
  // An output that bears the name of a net input takes the mode as well.
  for (Layer<float>* layer : float_net->GetLayers()) {
    for (Data<float>* output : layer->GetOutputs()) calibration_methods[output->GetName()] = mode;
  }

  // Per-tensor choices from "config.json" in the current directory. A missing
  // or broken file, or one without the section, changes nothing.
  std::string error;
  const json11::Json config = json11::Json::parse(ReadFileOrEmpty("config.json"), error);
  const json11::Json& section = config["CalibrationMethod"];
  // The walk is over the net's tensors: names in the file that are no tensor
  // are ignored. Every tensor the file names gets the line, even when the word
  // is unknown and the method stays as it was.
  for (auto& entry : calibration_methods) {
    const json11::Json& value = section[entry.first];
    if (value.is_null()) continue;
    auto word = MethodWords().find(value.string_value());
    if (word != MethodWords().end()) entry.second = word->second;
    printf("Data %s`s calibration method has been changed to: %s.\n", entry.first.c_str(),
           MethodName(entry.second).c_str());
  }
}

void Converter::Convert() {
  if (data_loader == nullptr) {
    printf("Failed to load input data.\n");
    exit(-1);
  }
  CheckSampleCounts();

  // The second size check: a tensor at the batch of the whole data set. The
  // observers and the searcher exist already and stay as they are.
  for (Layer<float>* layer : float_net->GetLayers()) {
    for (Data<float>* output : layer->GetOutputs()) {
      if (ExceedsBatchLimit(static_cast<uint64_t>(output->Count(0)),
                            static_cast<uint64_t>(DataSize()))) {
        OpenFrugalForSize(param);
      }
    }
  }

  const int batch = param.frugal ? 1 : static_cast<int>(DataSize());
  float_net->ReshapeBatchNum(batch, 0);

  if (searcher != nullptr) {
    SearcherInit();
    // The tuner takes the searcher's cache instead of building its own.
    if (weights_tuner != nullptr) HandCachedDataToTuner();
  } else if (weights_tuner != nullptr) {
    TunerInit();
  }

  const int total = static_cast<int>(observers.size());
  for (uint64_t round = 0; round < RoundCount(DataSize(), batch); ++round) {
    const int rounds = static_cast<int>(RoundCount(DataSize(), batch));
    printf("\n[%d/%d] Calibration round %d:\n", static_cast<int>(round) + 1, rounds,
           static_cast<int>(round) + 1);
    int n = 0;

    for (int i = 0; i < float_net->GetInputCount(); ++i) {
      Data<float>* data = float_net->GetInputData(i);
      const std::string name = data->GetName();
      float_net->SetFloatInputData(NextBatch(name, batch), i);
      ObserveTensor(name, data);
      if (searcher != nullptr) SearcherSearchInput(name, observers[name]);
      PrintProgress(++n, total, name);
    }

    // One layer at a time, so that every output can be seen right after it
    // has been computed.
    for (Layer<float>* layer : float_net->GetLayers()) {
      layer->Forward();
      for (Data<float>* output : layer->GetOutputs()) {
        const std::string name = output->GetName();
        ObserveTensor(name, output);
        PrintProgress(++n, total, name);
      }
      if (searcher != nullptr) {
        const int mode = param.calibration_mode;
        const bool by_inputs =
            mode == staticQuantization::AdaQuantSequential || mode == staticQuantization::AdaQuant;
        std::map<std::string, Observer*> map =
            ObserverMap(by_inputs ? layer->GetInputs() : layer->GetOutputs());
        if (!map.empty()) SearcherSearchLayer(layer->GetName(), map);
      }
      if (param.weight_tuning) {
        std::map<std::string, Observer*> map = ObserverMap(layer->GetOutputs());
        if (!map.empty()) TunerSearchLayer(layer->GetName(), map);
      }
    }
  }

  CalibrateWeight();
  FinishCalibration();
  // The model is written before any search.
  SaveQuantizedModel();
  if (param.expectant_cos != param.expectant_cos_unset) StaticSearch();
}

void Converter::ObserveTensor(const std::string& name, Data<float>* data) {
  Observer* observer = observers[name];
  observer->Observe(data->GetCpuData(), static_cast<unsigned long>(data->Count(0)));
  if (param.quant_calibrate) {
    // The net runs on the fake-quantized values from here on.
    float min = 0.0f;
    float max = 0.0f;
    observer->Extract(min, max);
    staticQuantization::FakeQuantization(data->GetCpuData(),
                                         static_cast<unsigned long>(data->Count(0)), min, max, 8);
  }
}

void Converter::PrintProgress(int n, int total, const std::string& name) {
  Observer* observer = observers[name];
  printf("[%d/%d]observing data: \"%s\" with %s; %s\n", n, total, name.c_str(),
         observer->GetObserverTypeString().c_str(), observer->PrintDetails().c_str());
  fflush(stdout);
}

std::map<std::string, Observer*> Converter::ObserverMap(const std::vector<Data<float>*>& tensors) {
  std::map<std::string, Observer*> map;
  for (Data<float>* tensor : tensors) map[tensor->GetName()] = observers[tensor->GetName()];
  return map;
}

}  // namespace modelConverter
}  // namespace qzdl
