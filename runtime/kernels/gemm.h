// Single-precision GEMM behind convolution and inner product.
//
// The backend is oneDNN's sgemm on x86-64 and OpenBLAS elsewhere (see
// docs/gemm-backend.md). Callers split their work into tiles whose shapes
// depend only on the problem and call SgemmTile from inside an OpenMP
// parallel loop; the library then runs each tile on the calling thread, so
// every output element is summed in one fixed order whatever the thread count.
#pragma once

#include <cstdint>

namespace qzdl {

// C[m x n] = alpha * op(A) * op(B) + beta * C, all row-major. op(A) is m x k,
// op(B) is k x n; lda/ldb/ldc are the row strides of A, B and C as stored.
void SgemmTile(bool trans_a, bool trans_b, int m, int n, int k, float alpha, const float* a,
               int lda, const float* b, int ldb, float beta, float* c, int ldc);

// Whether U8S8GemmTile may run here: oneDNN on a CPU with the AVX-512 VNNI
// dot product (vpdpbusd sums u8 x s8 products into int32 without rounding or
// saturating). Without it oneDNN pairs products in saturating 16-bit sums,
// which is not exact, so the 8-bit kernels must not call it. The environment
// variable QZDL_INT8_GEMM=float turns it off (for comparisons).
bool HaveExactU8S8Gemm();

// C[m x n] (int32, row-major) = op(A) * op(B), A unsigned and B signed
// 8-bit, no offsets; exact only where HaveExactU8S8Gemm() holds.
void U8S8GemmTile(bool trans_a, bool trans_b, int m, int n, int k, const uint8_t* a, int lda,
                  const int8_t* b, int ldb, int32_t* c, int ldc);

// "oneDNN 2.6.3" or "OpenBLAS 0.3.21 ..." for logs and benchmarks.
const char* GemmBackendName();

// Splits [0, total) into pieces of `block` (the last may be shorter). The
// sum is 64-bit: total may be close to 2^31 - 1.
inline int NumBlocks(int total, int block) {
  return static_cast<int>((int64_t(total) + block - 1) / block);
}

}  // namespace qzdl
