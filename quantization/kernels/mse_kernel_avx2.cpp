// Squared-error kernel for x86-64 with AVX2 and FMA: eight candidates per
// vector, two vectors per pass. Chosen at run time (mse_kernels.cpp).
#if defined(__x86_64__)

#include <immintrin.h>

#include <cstdint>

#include "quantization/kernels/mse_kernels.h"

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

namespace qzdl {
namespace staticQuantization {
namespace kernels {
namespace avx2 {
namespace {

#define QZDL_MSE_TARGET __attribute__((target("avx2,fma")))
#define QZDL_MSE_INLINE inline __attribute__((always_inline)) QZDL_MSE_TARGET

struct Ops {
  static constexpr int kWidth = 8;
  static constexpr int kGroups = 2;
  typedef float F __attribute__((vector_size(32)));
  typedef int32_t I __attribute__((vector_size(32)));
  typedef double D __attribute__((vector_size(32)));

  // x - (+0) is x for every x, -0 and NaN included: a plain broadcast.
  static QZDL_MSE_INLINE F Broadcast(float x) { return x - F{}; }
  // MAXPS/MINPS return the second operand unless the comparison holds.
  static QZDL_MSE_INLINE F MaxOrSecond(F a, F b) { return (F)_mm256_max_ps((__m256)a, (__m256)b); }
  static QZDL_MSE_INLINE F MinOrSecond(F a, F b) { return (F)_mm256_min_ps((__m256)a, (__m256)b); }
  static QZDL_MSE_INLINE F Trunc(F a) {
    return (F)_mm256_round_ps((__m256)a, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  }
  static QZDL_MSE_INLINE F Fma(F a, F b, F c) {
    return (F)_mm256_fmadd_ps((__m256)a, (__m256)b, (__m256)c);
  }
  static QZDL_MSE_INLINE D FmaD(D a, D b, D c) {
    return (D)_mm256_fmadd_pd((__m256d)a, (__m256d)b, (__m256d)c);
  }
  static QZDL_MSE_INLINE D Low(F v) {
    return (D)_mm256_cvtps_pd(_mm256_castps256_ps128((__m256)v));
  }
  static QZDL_MSE_INLINE D High(F v) {
    return (D)_mm256_cvtps_pd(_mm256_extractf128_ps((__m256)v, 1));
  }
};

#include "quantization/kernels/mse_kernel_body.inc"

#undef QZDL_MSE_TARGET
#undef QZDL_MSE_INLINE

}  // namespace

const SquaredErrorKernel kKernel = {"avx2", Ops::kWidth* Ops::kGroups, SquaredErrorsSimd,
                                    RoundClipSimd};

}  // namespace avx2
}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl

#endif  // __x86_64__
