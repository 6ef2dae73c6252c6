// Selection of the squared-error kernel and the scalar loop it must match.
#include "quantization/kernels/mse_kernels.h"

#include <cmath>

#include "quantization/utils.h"

namespace qzdl {
namespace staticQuantization {
namespace kernels {

namespace {

struct KernelTable {
  SquaredErrorKernel kernels[3];
  int n = 0;
};

KernelTable MakeTable() {
  KernelTable t;
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) t.kernels[t.n++] = avx512::kKernel;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
    t.kernels[t.n++] = avx2::kKernel;
  }
#endif
  t.kernels[t.n++] = generic::kKernel;
  return t;
}

const KernelTable& Table() {
  static const KernelTable table = MakeTable();
  return table;
}

}  // namespace

const SquaredErrorKernel* AvailableSquaredErrorKernels(int* n) {
  *n = Table().n;
  return Table().kernels;
}

const SquaredErrorKernel& BestSquaredErrorKernel() { return Table().kernels[0]; }

void SquaredErrorsScalar(const float* data, unsigned long count, const float* scales,
                         const float* zeros, int n, double* errors) {
  for (int j = 0; j < n; ++j) {
    const float scale = scales[j];
    const float zero = zeros[j];
    double error = 0.0;
    for (unsigned long i = 0; i < count; ++i) {
      const float x = data[i];
      float v = x / scale;
      v = v + zero;
      const float q = RoundClip<float>(v) - zero;
      const float d = std::fma(-scale, q, x);
      const double dd = d;
      error = std::fma(dd, dd, error);
    }
    errors[j] = error;
  }
}

}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl
