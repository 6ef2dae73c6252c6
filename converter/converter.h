// The conversion driver: owns the float net, the calibration data, the
// observers and the searchers, and runs the stages of one conversion in order.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "converter/merge_config.h"
#include "converter/parameter.h"
#include "quantization/calibration_method.h"
#include "quantization/observer.h"
#include "runtime/data.h"
#include "runtime/json11.h"
#include "runtime/layer.h"
#include "runtime/net.h"
#include "runtime/quant_config.h"

namespace dataLoader {
class DataLoader;
}  // namespace dataLoader

namespace qzdl {
namespace staticQuantization {
class Searcher;
class WeightsTuner;
}  // namespace staticQuantization

namespace modelConverter {

using qzdl::staticQuantization::Observer;
using qzdl::staticQuantization::PerChannelObserver;
using qzdl::staticQuantization::Searcher;
using qzdl::staticQuantization::WeightsTuner;

// The size limit of both checks: a tensor, or a tensor times the number of
// calibration items, above this many elements makes the run frugal.
constexpr int64_t kElementLimit = 0x7FFFFFFF;

// First size check: one tensor at the net's own batch, counted signed.
bool ExceedsElementLimit(int64_t count);
// Second size check: a tensor's count times the number of calibration items,
// multiplied as unsigned 64-bit numbers.
bool ExceedsBatchLimit(uint64_t count, uint64_t items);
// Whether a "Reshape" layer's description fixes the batch at 1: element 0 of
// param.shapes, read as an integer, is 1.
bool ReshapeFixesBatch(const json11::Json& layer_json);
// Turns frugal mode on for a net that cannot run at another batch than 1,
// with its warnings. Does nothing when frugal is on already.
void OpenFrugalForBatch(ConverterParam& param);
// Turns frugal mode on for a net that is too large, with its warnings. Does
// nothing when frugal is on already.
void OpenFrugalForSize(ConverterParam& param);
// Calibration rounds for `items` samples at `batch` per round, rounded down;
// an empty batch (an empty set in batch mode) gives no round.
uint64_t RoundCount(uint64_t items, uint64_t batch);

class Converter {
 public:
  // Creates the float net, runs the batch and size checks, prints Status,
  // assigns a calibration method to every tensor and creates the data loader,
  // the observers, the weight observers, the searchers and the presets.
  explicit Converter(const ConverterParam& converterParam);

  // Runs the calibration rounds, then calibrates the weights, finishes the
  // ranges, saves the model and, if a cosine was asked for, searches.
  void Convert();

 private:
  friend class ConverterTestAccess;

  // Ends the run (status 255) with a line naming every input and its sample
  // count when the inputs have different numbers of samples.
  void CheckSampleCounts();

  // Method assignment: net inputs Naive, layer outputs `mode`, then the
  // per-tensor choices of "config.json" in the current directory.
  void AssignCalibrationMethods(CalibrationMethod mode);

  // One tensor seen by its observer; with quant_calibrate the tensor is then
  // pushed through the observer's range in place.
  void ObserveTensor(const std::string& name, Data<float>* data);
  // "[n/total]observing data: ..." for one tensor, then a flush.
  void PrintProgress(int n, int total, const std::string& name);
  // Tensor name to observer for the given tensors.
  std::map<std::string, Observer*> ObserverMap(const std::vector<Data<float>*>& tensors);

  // Stages (converter_stages.cpp and the files that grow from it).
  void GenerateDataLoader();
  void InitObservers();
  void InitWeightObservers();
  void InitSearcher();
  void LoadPresetConfig();
  void CalibrateWeight();
  void FinishCalibration();
  void SaveQuantizedModel() const;
  void StaticSearch();
  // What StaticSearch hands to the runtime: the candidates of the tensors of
  // method 8, and the first items of the first net input.
  std::map<std::string, std::vector<std::pair<float, float>>> SearchCandidates();
  std::vector<std::vector<float>> SearchInputs(const ConverterParam& p);
  INT8Config* DumpQuantizationConfig();
  void MergeInt8Config();

  // Calls into the data loader, the searcher and the tuner
  // (converter_stages.cpp).
  long DataSize();
  float* NextBatch(const std::string& name, int batch);
  void SearcherInit();
  void HandCachedDataToTuner();
  void TunerInit();
  void SearcherSearchInput(const std::string& name, Observer* observer);
  void SearcherSearchLayer(const std::string& layer_name, std::map<std::string, Observer*> map);
  void TunerSearchLayer(const std::string& layer_name, std::map<std::string, Observer*> map);

  Net<float>* float_net = nullptr;
  Net<unsigned char>* int8_net = nullptr;
  dataLoader::DataLoader* data_loader = nullptr;
  ConverterParam param;
  std::map<std::string, CalibrationMethod> calibration_methods;
  std::map<std::string, Observer*> observers;
  std::map<std::string, std::vector<PerChannelObserver*>> weight_observers;
  Searcher* searcher = nullptr;
  WeightsTuner* weights_tuner = nullptr;
  std::map<std::string, int> spare_counts;
  std::vector<std::string> spare_names;
  std::vector<float> spare_values;
  // Layer name to its node of the share-config graph: built by
  // MergeInt8Config, read by SaveQuantizedModel.
  std::map<std::string, mergeConfig::graph_node> merge_graph;
};

}  // namespace modelConverter
}  // namespace qzdl
