// Squared-error kernels of the mean-square-error range search.
//
// One call evaluates a fixed number of candidate grids (`lanes`) in a single
// pass over the data. Every candidate j has its own scale s[j] and zero point
// z[j] (a float holding an integer) and gets
//
//   error[j] = 0.0 (double); for each x in order:
//     q = RoundClip(x / s[j] + z[j]) - z[j]        single precision, true
//                                                   division, two roundings
//     d = fma(-s[j], q, x)                          single precision, fused
//     error[j] = fma(double(d), double(d), error[j])
//
// with RoundClip the round-half-away-from-zero clamp to [-127, 127] of
// quantization/utils.h. The SIMD kernels keep one candidate per vector lane,
// so every lane performs exactly this sequence and sums in element order:
// their results are bit-identical to SquaredErrorsScalar.
#pragma once

namespace qzdl {
namespace staticQuantization {
namespace kernels {

// Upper bound of SquaredErrorKernel::lanes.
constexpr int kMaxSquaredErrorLanes = 64;

struct SquaredErrorKernel {
  // "avx512", "avx2" or "generic" (the vector-extension build, NEON on
  // 64-bit Arm).
  const char* name;
  // Candidates per call.
  int lanes;
  // Evaluates exactly `lanes` candidates: scales[0..lanes), zeros[0..lanes)
  // -> errors[0..lanes).
  void (*run)(const float* data, unsigned long count, const float* scales, const float* zeros,
              double* errors);
  // RoundClip<float> of each of `n` values with the kernel's lane arithmetic.
  void (*round_clip)(const float* in, float* out, unsigned long n);
};

// The kernels this CPU can run, fastest first. Never empty: "generic" is
// always last.
const SquaredErrorKernel* AvailableSquaredErrorKernels(int* n);

// The first of AvailableSquaredErrorKernels.
const SquaredErrorKernel& BestSquaredErrorKernel();

// The plain loop over candidates and elements, for `n` candidates.
void SquaredErrorsScalar(const float* data, unsigned long count, const float* scales,
                         const float* zeros, int n, double* errors);

// Entry points of the per-instruction-set translation units.
namespace generic {
extern const SquaredErrorKernel kKernel;
}
#if defined(__x86_64__)
namespace avx2 {
extern const SquaredErrorKernel kKernel;
}
namespace avx512 {
extern const SquaredErrorKernel kKernel;
}
#endif

}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl
