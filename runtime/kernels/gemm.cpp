#include "runtime/kernels/gemm.h"

#include <cstdlib>
#include <string>

#include "runtime/kernels/cpu_features.h"

#if defined(QZDL_HAVE_DNNL)
#include <dnnl.h>
#else
#include <cblas.h>
#endif

namespace qzdl {

void SgemmTile(bool trans_a, bool trans_b, int m, int n, int k, float alpha, const float* a,
               int lda, const float* b, int ldb, float beta, float* c, int ldc) {
  if (m <= 0 || n <= 0) return;
#if defined(QZDL_HAVE_DNNL)
  // Inside an active OpenMP region oneDNN runs the call on this thread.
  dnnl_sgemm(trans_a ? 'T' : 'N', trans_b ? 'T' : 'N', m, n, k, alpha, a, lda, b, ldb, beta, c,
             ldc);
#else
  // OpenBLAS splits a call over rows and columns only, never over k, so a
  // threaded call sums each element in the same order as a serial one.
  cblas_sgemm(CblasRowMajor, trans_a ? CblasTrans : CblasNoTrans,
              trans_b ? CblasTrans : CblasNoTrans, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
#endif
}

bool HaveExactU8S8Gemm() {
  static const bool have = [] {
    const char* choice = std::getenv("QZDL_INT8_GEMM");
    if (choice != nullptr && std::string(choice) == "float") return false;
#if defined(QZDL_HAVE_DNNL) && defined(__x86_64__) && defined(__GNUC__)
    return __builtin_cpu_supports("avx512vnni") != 0 && CpuPathAllowed("vnni");
#else
    return false;
#endif
  }();
  return have;
}

void U8S8GemmTile(bool trans_a, bool trans_b, int m, int n, int k, const uint8_t* a, int lda,
                  const int8_t* b, int ldb, int32_t* c, int ldc) {
  if (m <= 0 || n <= 0) return;
#if defined(QZDL_HAVE_DNNL)
  const int32_t zero = 0;
  dnnl_gemm_u8s8s32(trans_a ? 'T' : 'N', trans_b ? 'T' : 'N', 'F', m, n, k, 1.0f, a, lda, 0, b, ldb,
                    0, 0.0f, c, ldc, &zero);
#else
  (void)trans_a, (void)trans_b, (void)k, (void)a, (void)lda, (void)b, (void)ldb, (void)c, (void)ldc;
  std::abort();  // never called: HaveExactU8S8Gemm() is false
#endif
}

const char* GemmBackendName() {
#if defined(QZDL_HAVE_DNNL)
  static const std::string name = [] {
    const dnnl_version_t* v = dnnl_version();
    return "oneDNN " + std::to_string(v->major) + "." + std::to_string(v->minor) + "." +
           std::to_string(v->patch);
  }();
  return name.c_str();
#else
  static const std::string name =
      std::string("OpenBLAS (") + openblas_get_config() + ", core " + openblas_get_corename() + ")";
  return name.c_str();
#endif
}

}  // namespace qzdl
