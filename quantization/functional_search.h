// Numeric functions behind the coverage, mean-square-error and cosine ranges
// (see docs/quantization-search.md).
#pragma once

#include <utility>
#include <vector>

namespace qzdl {
namespace staticQuantization {

namespace kernels {
struct SquaredErrorKernel;
}

// nth_min = nth_max = trunc((1.0 - double(ratio)) * 0.5 * double(total)), in
// double and in this order; margin = 10 if nth_min <= 10, else nth_min.
void ConfigureNth(unsigned long total, float ratio, unsigned long& nth_min, unsigned long& nth_max,
                  unsigned long& margin);

// Merges `data` into the stores of the min_size smallest and max_size
// largest elements seen so far, and sets `min` to the (min_size - margin)-th
// entry of the ascending min store and `max` to the (max_size - margin)-th
// entry of the descending max store (0-based). With both sizes 0 it is
// CalibrationWithPeak. The stores are updated in place, without copying the
// data.
//
// Expected: 1 <= margin <= min_size and margin <= max_size when the sizes are
// not both 0 (ConfigureNth gives this). A side whose index falls outside its
// store leaves that bound unchanged.
void CalibrationWithCoverage(float const* data, unsigned long count, float& min, float& max,
                             unsigned int min_size, unsigned int max_size, unsigned int margin,
                             float* min_store, float* max_store);

// Tries `steps` grid steps from the data's full range down to 1/steps of it,
// in parallel, and keeps the one with the smallest squared error; the range
// is the chosen grid's reach [-128, 127] steps around its zero point, cut to
// the data's extremes. Elements with |x| < 1e-6 (in double) are left out. A
// NaN ends the process with exit(-1) and no message; data with nothing left
// (count 0 or all elements negligible) ends it with abort().
void CalibrationWithMeanSquareError(float const* data, unsigned long count, float& min, float& max,
                                    int steps, bool symmetric);

// The same search with a given squared-error kernel (for tests and benchmarks;
// every kernel gives the same result).
void CalibrationWithMeanSquareError(const kernels::SquaredErrorKernel& kernel, float const* data,
                                    unsigned long count, float& min, float& max, int steps,
                                    bool symmetric);

// Searches the range of best cosine similarity between the data and its 8-bit
// fake quantization: `steps` ranges shrinking towards 0 from the data's
// extremes, then 100 finer ones around the best minimum. `min` and `max` keep
// the caller's values if no candidate scores above 0; `similarity` is the
// best score.
void CalibrationWithCosineSim(float const* data, unsigned long count, float& min, float& max,
                              int steps, float& similarity);

// The second pass's candidates, in order: for i from 0 to 49,
// (min - i * step_min, vmax - i * step_max) then (min + i * step_min,
// vmax + i * step_max), each product and each sum rounded to float on its own
// (not fused). `step_min` and `step_max` are already the hundredths of the
// coarse steps; the pair for i = 0 comes twice.
std::vector<std::pair<float, float>> CosineSimFineCandidates(float min, float vmax, float step_min,
                                                             float step_max);

}  // namespace staticQuantization
}  // namespace qzdl
