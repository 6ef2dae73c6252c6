#include "runtime/kernels/batch_matmul.h"

#include <algorithm>

#include "runtime/kernels/gemm.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

constexpr int kRowBlock = 64;   // rows of Y per tile
constexpr int kColBlock = 128;  // columns of Y per tile
// Below this many multiply-adds a product runs on one thread: the fork
// costs more (attention heads of a few dozen rows are far below it).
constexpr int64_t kSerialWork = 1 << 16;

// Splits `total` into equal blocks of at most about `cap` (multiples of 16).
int Block(int total, int cap) {
  if (total <= cap) return total;
  const int tiles = NumBlocks(total, cap);
  const int64_t even = (int64_t(NumBlocks(total, tiles)) + 15) / 16 * 16;
  return static_cast<int>(std::min<int64_t>(total, even));
}

}  // namespace

void BatchMatMulGeometry::SliceOffsets(int64_t batch, int64_t* oa, int64_t* ob) const {
  int64_t a = 0, b = 0, rest = batch;
  for (size_t j = batch_dims.size(); j-- > 0;) {
    const int64_t idx = rest % batch_dims[j];
    rest /= batch_dims[j];
    a += idx * stride_a[j];
    b += idx * stride_b[j];
  }
  *oa = a;
  *ob = b;
}

BatchMatMulMismatch PlanBatchMatMul(const std::vector<int>& a, const std::vector<int>& b,
                                    bool trans_a, bool trans_b, BatchMatMulGeometry* g) {
  const int ra = static_cast<int>(a.size()), rb = static_cast<int>(b.size());
  const bool a1 = ra == 1, b1 = rb == 1;
  if (a1 && b1) return BatchMatMulMismatch::kScalar;
  if ((a1 && trans_a) || (b1 && trans_b)) return BatchMatMulMismatch::kTransposed1d;
  // The matrix of a 1-d A is one row, that of a 1-d B one column.
  const int m = a1 ? 1 : (trans_a ? a[ra - 1] : a[ra - 2]);
  const int ka = a1 ? a[0] : (trans_a ? a[ra - 2] : a[ra - 1]);
  const int kb = b1 ? b[0] : (trans_b ? b[rb - 1] : b[rb - 2]);
  const int n = b1 ? 1 : (trans_b ? b[rb - 2] : b[rb - 1]);
  if (ka != kb) return BatchMatMulMismatch::kInner;

  // Batch axes aligned on the right, missing ones read as 1.
  const int ba = a1 ? 0 : ra - 2, bb = b1 ? 0 : rb - 2;
  const int axes = std::max(ba, bb);
  g->m = m, g->n = n, g->k = ka;
  g->trans_a = trans_a, g->trans_b = trans_b;
  g->batch_dims.assign(axes, 1);
  g->stride_a.assign(axes, 0);
  g->stride_b.assign(axes, 0);
  int64_t sa = int64_t(m) * ka, sb = int64_t(ka) * n;
  for (int j = axes - 1; j >= 0; --j) {
    const int da = j - (axes - ba) >= 0 ? a[j - (axes - ba)] : 1;
    const int db = j - (axes - bb) >= 0 ? b[j - (axes - bb)] : 1;
    if (da != db && da != 1 && db != 1) return BatchMatMulMismatch::kBatch;
    g->batch_dims[j] = std::max(da, db);
    if (da != 1) g->stride_a[j] = sa;
    if (db != 1) g->stride_b[j] = sb;
    sa *= da;
    sb *= db;
  }
  g->batches = 1;
  g->out_dims.clear();
  for (int64_t d : g->batch_dims) {
    g->batches *= d;
    g->out_dims.push_back(static_cast<int>(d));
  }
  if (!a1) g->out_dims.push_back(m);
  if (!b1) g->out_dims.push_back(n);
  return BatchMatMulMismatch::kFits;
}

void ReferenceBatchMatMul(const BatchMatMulGeometry& g, const float* a, const float* b, float* y) {
  for (int64_t s = 0; s < g.batches; ++s) {
    int64_t oa = 0, ob = 0;
    g.SliceOffsets(s, &oa, &ob);
    for (int i = 0; i < g.m; ++i) {
      for (int j = 0; j < g.n; ++j) {
        double sum = 0.0;
        for (int p = 0; p < g.k; ++p) {
          const float av = g.trans_a ? a[oa + int64_t(p) * g.m + i] : a[oa + int64_t(i) * g.k + p];
          const float bv = g.trans_b ? b[ob + int64_t(j) * g.k + p] : b[ob + int64_t(p) * g.n + j];
          sum += double(av) * bv;
        }
        y[(s * g.m + i) * g.n + j] = static_cast<float>(sum);
      }
    }
  }
}

void BatchMatMulForward(const BatchMatMulGeometry& g, const float* a, const float* b, float* y) {
  const int m = g.m, n = g.n, k = g.k;
  const int row_block = Block(m, kRowBlock), col_block = Block(n, kColBlock);
  const int row_tiles = NumBlocks(m, row_block), col_tiles = NumBlocks(n, col_block);
  const int64_t tiles = int64_t(row_tiles) * col_tiles;
  const int64_t slice_y = int64_t(m) * n;
  const int lda = g.trans_a ? m : k, ldb = g.trans_b ? k : n;
  const double work = double(g.batches) * slice_y * k;
  const int threads = work < kSerialWork ? 1 : ParallelThreads();
  ParallelItems(g.batches * tiles, threads, [&](int64_t item, int) {
    const int64_t s = item / tiles, t = item % tiles;
    const int m0 = static_cast<int>(t / col_tiles) * row_block;
    const int n0 = static_cast<int>(t % col_tiles) * col_block;
    const int rows = std::min(row_block, m - m0), cols = std::min(col_block, n - n0);
    int64_t oa = 0, ob = 0;
    g.SliceOffsets(s, &oa, &ob);
    const float* pa = a + oa + (g.trans_a ? int64_t(m0) : int64_t(m0) * k);
    const float* pb = b + ob + (g.trans_b ? int64_t(n0) * k : int64_t(n0));
    float* py = y + s * slice_y + int64_t(m0) * n + n0;
    SgemmTile(g.trans_a, g.trans_b, rows, cols, k, 1.0f, pa, lda, pb, ldb, 0.0f, py, n);
  });
}

}  // namespace qzdl
