#include "quantization/calibration_method.h"

namespace qzdl {
namespace staticQuantization {

std::vector<std::string> observerTypeString = {"Naive",
                                               "Average",
                                               "Entropy",
                                               "Coverage",
                                               "MeanSquareError",
                                               "Histogram",
                                               "AdaQuantSequential",
                                               "AdaQuant",
                                               "CosineSearch",
                                               "Preset"};

}  // namespace staticQuantization
}  // namespace qzdl
