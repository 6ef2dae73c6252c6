// Numeric functions behind the observers: peak, entropy (KL) search and the
// histogram helpers shared by the entropy and histogram observers.
#pragma once

#include <vector>

namespace qzdl {
namespace staticQuantization {

// Smallest and largest element. With count 0, min = FLT_MAX, max = -FLT_MAX.
// A NaN never becomes `max` but does become `min` until the next element.
void CalibrationWithPeak(float const* data, unsigned long count, float& min, float& max);

// Chooses, by least KL divergence, the clipping window of a symmetric
// histogram of `bins` bins, and converts it to a range measured from
// max(|min|, |max|). `levels` is the number of grid levels (255 at 8 bits).
void CalibrationWithEntropy(std::vector<int> const& histogram, float min, float max, float& opt_min,
                            float& opt_max, int bins, int levels);

// Adds counts of the elements inside [min, max] to `histogram` (`bins` bins).
void HistC(float const* data, unsigned long count, int bins, float min, float max,
           std::vector<int>& histogram);

// Moves `old_histogram` onto the bins of a histogram `downsample` / `upsample`
// times wider, starting `start_index` fine bins up, and adds `new_histogram`.
std::vector<int> HistCombine(std::vector<int> new_histogram, std::vector<int> old_histogram,
                             int bins, int upsample, int downsample, int start_index);

// Gives empty entries `eps` and takes it proportionally from the others.
void SmoothDistribute(std::vector<double>& distribution, double eps);

}  // namespace staticQuantization
}  // namespace qzdl
