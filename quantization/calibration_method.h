// Calibration methods and their names, shared by the command line, the
// per-tensor method assignment and the observers.
#pragma once

#include <string>
#include <vector>

namespace qzdl {
namespace staticQuantization {

enum CalibrationMethod : int {
  Naive = 0,
  Average = 1,
  Entropy = 2,
  Coverage = 3,
  MeanSquareError = 4,
  Histogram = 5,
  AdaQuantSequential = 6,
  AdaQuant = 7,
  CosineSearch = 8,
  Preset = 9,
};

// "Naive", "Average", "Entropy", "Coverage", "MeanSquareError", "Histogram",
// "AdaQuantSequential", "AdaQuant", "CosineSearch", "Preset": indexed by the
// method and by an observer's type.
extern std::vector<std::string> observerTypeString;

}  // namespace staticQuantization
}  // namespace qzdl
