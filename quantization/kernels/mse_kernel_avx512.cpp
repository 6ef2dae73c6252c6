// Squared-error kernel for x86-64 with AVX-512F: sixteen candidates per
// vector, two vectors per pass. Chosen at run time (mse_kernels.cpp).
#if defined(__x86_64__)

#include <immintrin.h>

#include <cstdint>

#include "quantization/kernels/mse_kernels.h"

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
// GCC 12 reports the deliberately undefined pass-through operand of the
// AVX-512 conversion intrinsics.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace qzdl {
namespace staticQuantization {
namespace kernels {
namespace avx512 {
namespace {

#define QZDL_MSE_TARGET __attribute__((target("avx512f")))
#define QZDL_MSE_INLINE inline __attribute__((always_inline)) QZDL_MSE_TARGET

struct Ops {
  static constexpr int kWidth = 16;
  static constexpr int kGroups = 2;
  typedef float F __attribute__((vector_size(64)));
  typedef int32_t I __attribute__((vector_size(64)));
  typedef double D __attribute__((vector_size(64)));

  // x - (+0) is x for every x, -0 and NaN included: a plain broadcast.
  static QZDL_MSE_INLINE F Broadcast(float x) { return x - F{}; }
  // VMAXPS/VMINPS return the second operand unless the comparison holds.
  static QZDL_MSE_INLINE F MaxOrSecond(F a, F b) { return (F)_mm512_max_ps((__m512)a, (__m512)b); }
  static QZDL_MSE_INLINE F MinOrSecond(F a, F b) { return (F)_mm512_min_ps((__m512)a, (__m512)b); }
  static QZDL_MSE_INLINE F Trunc(F a) {
    return (F)_mm512_roundscale_ps((__m512)a, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  }
  static QZDL_MSE_INLINE F Fma(F a, F b, F c) {
    return (F)_mm512_fmadd_ps((__m512)a, (__m512)b, (__m512)c);
  }
  static QZDL_MSE_INLINE D FmaD(D a, D b, D c) {
    return (D)_mm512_fmadd_pd((__m512d)a, (__m512d)b, (__m512d)c);
  }
  static QZDL_MSE_INLINE D Low(F v) {
    return (D)_mm512_cvtps_pd(_mm512_castps512_ps256((__m512)v));
  }
  static QZDL_MSE_INLINE D High(F v) {
    return (D)_mm512_cvtps_pd(
        _mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd((__m512)v), 1)));
  }
};

#include "quantization/kernels/mse_kernel_body.inc"

#undef QZDL_MSE_TARGET
#undef QZDL_MSE_INLINE

}  // namespace

const SquaredErrorKernel kKernel = {"avx512", Ops::kWidth* Ops::kGroups, SquaredErrorsSimd,
                                    RoundClipSimd};

}  // namespace avx512
}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl

#endif  // __x86_64__
