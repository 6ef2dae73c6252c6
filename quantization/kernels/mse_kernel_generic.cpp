// Portable squared-error kernel: four-lane vector extensions, which are SSE2
// on x86-64 and NEON on 64-bit Arm. The fused steps use NEON's fused
// multiply-add on Arm and std::fma elsewhere.
#include <cmath>
#include <cstdint>

#include "quantization/kernels/mse_kernels.h"
#if defined(__aarch64__)
#include <arm_neon.h>
#endif

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

namespace qzdl {
namespace staticQuantization {
namespace kernels {
namespace generic {
namespace {

#define QZDL_MSE_TARGET
#define QZDL_MSE_INLINE inline __attribute__((always_inline))

struct Ops {
  static constexpr int kWidth = 4;
  static constexpr int kGroups = 4;
  typedef float F __attribute__((vector_size(16)));
  typedef int32_t I __attribute__((vector_size(16)));
  typedef double D __attribute__((vector_size(16)));

  // x - (+0) is x for every x, -0 and NaN included: a plain broadcast.
  static QZDL_MSE_INLINE F Broadcast(float x) { return x - F{}; }
  static QZDL_MSE_INLINE F MaxOrSecond(F a, F b) { return a > b ? a : b; }
  static QZDL_MSE_INLINE F MinOrSecond(F a, F b) { return a < b ? a : b; }
#if defined(__aarch64__)
  static QZDL_MSE_INLINE F Trunc(F a) { return (F)vrndq_f32((float32x4_t)a); }
#else
  static QZDL_MSE_INLINE F Trunc(F a) {
    return __builtin_convertvector(__builtin_convertvector(a, I), F);
  }
#endif
#if defined(__aarch64__)
  static QZDL_MSE_INLINE F Fma(F a, F b, F c) {
    return (F)vfmaq_f32((float32x4_t)c, (float32x4_t)a, (float32x4_t)b);
  }
  static QZDL_MSE_INLINE D FmaD(D a, D b, D c) {
    return (D)vfmaq_f64((float64x2_t)c, (float64x2_t)a, (float64x2_t)b);
  }
#else
  static QZDL_MSE_INLINE F Fma(F a, F b, F c) {
    return F{std::fma(a[0], b[0], c[0]), std::fma(a[1], b[1], c[1]), std::fma(a[2], b[2], c[2]),
             std::fma(a[3], b[3], c[3])};
  }
  static QZDL_MSE_INLINE D FmaD(D a, D b, D c) {
    return D{std::fma(a[0], b[0], c[0]), std::fma(a[1], b[1], c[1])};
  }
#endif

#if defined(__aarch64__)
  static QZDL_MSE_INLINE D Low(F v) { return (D)vcvt_f64_f32(vget_low_f32((float32x4_t)v)); }
  static QZDL_MSE_INLINE D High(F v) { return (D)vcvt_high_f64_f32((float32x4_t)v); }
#else
  static QZDL_MSE_INLINE D Low(F v) { return D{v[0], v[1]}; }
  static QZDL_MSE_INLINE D High(F v) { return D{v[2], v[3]}; }
#endif
};

#include "quantization/kernels/mse_kernel_body.inc"

#undef QZDL_MSE_TARGET
#undef QZDL_MSE_INLINE

}  // namespace

const SquaredErrorKernel kKernel = {"generic", Ops::kWidth* Ops::kGroups, SquaredErrorsSimd,
                                    RoundClipSimd};

}  // namespace generic
}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl
