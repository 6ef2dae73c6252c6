// One observer per tensor, by the tensor's calibration method.
#include "converter/converter.h"
#include "dataloader/data_loader.h"
#include "quantization/coverage_observer.h"
#include "quantization/entropy_observer.h"
#include "quantization/histogram_observer.h"
#include "quantization/mse_observer.h"
#include "quantization/observer.h"

namespace qzdl {
namespace modelConverter {

using namespace qzdl::staticQuantization;

namespace {

Observer* MakeObserver(int method, const ConverterParam& param) {
  switch (method) {
    case Average:
      return new AverageObserver();
    case Entropy:
      return new EntropyObserver(8, 23205, 128);
    case Coverage: {
      Observer* observer = new CoverageObserver(0.9995f);
      dynamic_cast<CoverageObserver*>(observer)->SetCoverageRatio(param.coverage);
      return observer;
    }
    case MeanSquareError:
      return new MeanSquareErrorObserver(param.symmetrical, 8, 500);
    case Histogram:
      return new HistogramObserver(2048, 256, 128);
    case CosineSearch:
      return new EnumObserver();
    default:
      // Naive, and the two AdaQuant modes whose ranges start from the peak.
      // Preset observers come from the preset file alone; a tensor left with
      // method 9 or an unknown value also starts from the peak.
      return new PeakValueObserver();
  }
}

}  // namespace

void Converter::InitObservers() {
  for (const auto& entry : calibration_methods) {
    Observer* observer = MakeObserver(entry.second, param);
    observers[entry.first] = observer;
    observer->name = entry.first;
  }

  // Coverage stores are sized by the number of rounds still to come. Without
  // a data loader there are none; Convert reports that.
  int rounds = data_loader != nullptr ? static_cast<int>(data_loader->GetSize()) : 0;
  if (!param.frugal && rounds != 0) rounds = rounds / rounds;
  for (const auto& entry : observers) {
    if (entry.second->GetObserverType() == Coverage)
      dynamic_cast<CoverageObserver*>(entry.second)->SetTotal(rounds);
    if (entry.second->GetObserverType() == CosineSearch)
      dynamic_cast<EnumObserver*>(entry.second)->SetTotal(rounds);
  }
}

}  // namespace modelConverter
}  // namespace qzdl
