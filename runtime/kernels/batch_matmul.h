// Products of matrices stacked along leading batch axes, with numpy-style
// broadcasting of those axes: the kernels of the BatchMatrixMul layer
// (docs/layers/batch_matrix_mul.md).
#pragma once

#include <cstdint>
#include <vector>

namespace qzdl {

// One product Y = op(A) x op(B) per batch slice. A slice of A is stored as
// [M, K] ([K, M] with trans_a), one of B as [K, N] ([N, K] with trans_b); a
// slice of Y is [M, N], the slices of Y one after the other.
struct BatchMatMulGeometry {
  int m = 0, n = 0, k = 0;
  bool trans_a = false, trans_b = false;
  // The broadcast batch axes of Y, with the distance in elements between
  // neighbouring slices of A and of B along each (0 where that operand has
  // 1 there or lacks the axis, so its slice repeats).
  std::vector<int64_t> batch_dims;
  std::vector<int64_t> stride_a, stride_b;
  int64_t batches = 1;  // product of batch_dims
  // Dims of Y: batch_dims, then M unless A is 1-d, then N unless B is 1-d.
  std::vector<int> out_dims;

  // The offsets in A and B of the slices that batch slice `batch` of Y reads.
  void SliceOffsets(int64_t batch, int64_t* oa, int64_t* ob) const;
};

// Why two shapes cannot be multiplied (kFits when they can).
enum class BatchMatMulMismatch {
  kFits,
  kScalar,        // both operands 1-d: the product would have no axis
  kTransposed1d,  // a transpose asked of a 1-d operand
  kInner,         // K of A and K of B differ
  kBatch,         // the batch axes do not broadcast
};

// Plans the product of A of dims `a` and B of dims `b` (each at least one
// axis). A 1-d A [K] is read as [1, K] and a 1-d B [K] as [K, 1], and the
// added axis is left out of Y, as numpy's matmul does. On a mismatch the
// geometry is left unspecified.
BatchMatMulMismatch PlanBatchMatMul(const std::vector<int>& a, const std::vector<int>& b,
                                    bool trans_a, bool trans_b, BatchMatMulGeometry* g);

// Plain loops with sums in double precision: slow, obviously correct, the
// yardstick of the fast kernel.
void ReferenceBatchMatMul(const BatchMatMulGeometry& g, const float* a, const float* b, float* y);

// The GEMM library per tile of each batch slice, tiles spread over the
// runtime's threads. Tile shapes depend only on the problem and every output
// element is summed in one call, so results do not depend on the thread
// count. Does not allocate.
void BatchMatMulForward(const BatchMatMulGeometry& g, const float* a, const float* b, float* y);

}  // namespace qzdl
