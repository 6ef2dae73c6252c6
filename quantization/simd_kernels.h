// Vectorised inner loops of the peak and histogram functions. They give
// exactly the results of the element-by-element definitions in
// functional.cpp and utils.cpp; they are written with the compiler's generic
// vector types, so they build for any target (NEON on 64-bit Arm, SSE2 on
// x86-64); on x86-64 with AVX2 a wider variant is chosen at run time.
#pragma once

#include <vector>

namespace qzdl {
namespace staticQuantization {
namespace kernels {

// Tests: with true, the portable variants are used even where a wider one
// exists, so that both can be checked on one machine.
void SetPortableOnly(bool portable);

// Smallest and largest element by plain comparisons, 16 lanes at a time.
// Returns false, with min and max unspecified, if the data hold a NaN. The
// sign of a zero result is not fixed here.
bool PeakWithoutNaN(const float* data, unsigned long count, float& min, float& max);

// Adds to counts[0 .. bins) every element x with neither x < lo nor x > hi,
// at index trunc(double(x + offset) * factor) clamped to [0, bins - 1] (NaN
// gives 0). With skip_small, elements with double(|x|) < 1e-6 are left out
// and a NaN element ends the process with exit(-1).
void BinElements(const float* data, unsigned long count, int bins, float lo, float hi, float offset,
                 double factor, bool skip_small, int* counts);

// AssignDataToBins(AssignNonZeroDataToVector(data, count), bins, min, max)
// in one pass and without the copy; a NaN ends the process as there.
std::vector<int> NonZeroBins(const float* data, unsigned long count, int bins, float min,
                             float max);

}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl
