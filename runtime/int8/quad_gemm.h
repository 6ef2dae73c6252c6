// An exact u8 x s8 GEMM on the VNNI dot product (vpdpbusd), with the
// requantization of each output fused into the loop that sums it.
//
// The input codes x are the unsigned side, as they are, and the weights
// shifted to w' = w - 128 the signed one. Four neighbours along the
// reduction are packed into one int32 lane (the element of the lowest index
// in the lowest byte); one vpdpbusd adds the four products of a lane to an
// int32 sum with no intermediate saturation. With d = 128 - zw:
//
//   sum (x - zx)(w - zw) = sum x w' + d * sum x - zx * sum w' - zx * d * K
//
// Every term is taken modulo 2^32. For K <= kMaxQuadK the true sum lies
// within 65025 * K < 2^31, so the wrapped result is exact. Where the bias
// cannot make bias + sum leave the int32 range (|bias| + 65025 * K <
// 2^31, the usual case), it is added modulo 2^32 too, else with the
// reference's int32 saturation. Each block of 8 rows x 32 columns is then
// requantized while it is in registers (the 32-bit lane form of
// RequantizeRow32, multipliers with shift >= 33) and stored as codes; rows
// of other multipliers (the double mode, large multipliers) get their exact
// sums written out for RequantizeRow32.
//
// Layouts (int32 lanes, each four bytes):
// - A, the weights: panels of kQuadRows rows; panel i holds, for each quad
//   index kq, the quads of rows 8i .. 8i + 7 (rows past the end hold 0).
// - B, the input: [kquads][ldb] (ldb a multiple of kQuadColumns; columns
//   past the tile and bytes past K hold 0), and each column's sum of codes.
#pragma once

#include <cstdint>

#include "runtime/int8/requantize.h"

namespace qzdl {

constexpr int kQuadRows = 8;
constexpr int kQuadColumns = 32;
// The longest reduction whose exact sums fit int32.
constexpr int64_t kMaxQuadK = 33025;

inline int64_t QuadCount(int64_t k) { return (k + 3) / 4; }
inline int64_t QuadPanels(int64_t rows) { return (rows + kQuadRows - 1) / kQuadRows; }
inline int64_t QuadColumnsPadded(int64_t n) {
  return (n + kQuadColumns - 1) / kQuadColumns * kQuadColumns;
}
// int32 lanes of the packed weights of `rows` rows of K.
inline int64_t QuadWeightLanes(int64_t rows, int64_t k) {
  return QuadPanels(rows) * QuadCount(k) * kQuadRows;
}

// Packs rows [0, rows) of K weight codes, read by `code(r, k)`, shifted to
// code - 128 as int8, into panels at `packed` (QuadWeightLanes).
template <typename Code>
void PackQuadWeights(int rows, int64_t k_dim, Code code, int32_t* packed) {
  const int64_t kquads = QuadCount(k_dim);
  for (int64_t p = 0; p < QuadPanels(rows); ++p) {
    int32_t* panel = packed + p * kquads * kQuadRows;
    for (int64_t kq = 0; kq < kquads; ++kq) {
      for (int i = 0; i < kQuadRows; ++i) {
        const int64_t r = p * kQuadRows + i;
        uint32_t lane = 0;
        for (int b = 0; b < 4; ++b) {
          const int64_t k = 4 * kq + b;
          if (r < rows && k < k_dim) {
            const int v = int(code(static_cast<int>(r), k)) - 128;
            lane |= uint32_t(uint8_t(int8_t(v))) << (8 * b);
          }
        }
        panel[kq * kQuadRows + i] = static_cast<int32_t>(lane);
      }
    }
  }
}

// Whether the quad GEMM runs here: AVX-512BW and VNNI, checked at run time,
// and neither turned off (QZDL_CPU_DISABLE "avx512" or "vnni").
bool HaveQuadGemm();

// dst [kquads][ldb] = quads of the codes src[k][p] (rows of `ld` codes) for
// p < np, and colsum[p] = the sum over k of src[k][p]; columns [np, extent)
// and bytes past k are 0, columns from `extent` (a multiple of 16, at most
// ldb) are not written. `vector` false keeps the portable loop (tests).
void PackQuadColumns(const uint8_t* src, int64_t ld, int k, int np, int extent, int ldb,
                     int32_t* dst, int32_t* colsum, bool vector = true);

// How the sums of one output row become codes.
enum QuadRowKind : int32_t {
  kQuadFolded = 0,      // the bias is in `fixed`; 32-bit lane requantization
  kQuadSaturating = 1,  // bias added with int32 saturation; the same requantization
  kQuadRaw = 2,         // the exact sum (no bias) written out for RequantizeRow32
};
struct QuadRow {
  int32_t d = 0;      // 128 - zw, times each column's sum of codes
  int32_t fixed = 0;  // -zx * sum w' - zx * d * K (+ the bias when folded), modulo 2^32
  int32_t bias = 0;
  int32_t multiplier = 0;
  int32_t half = 0;  // 2^(shift - 33) + the output zero point * 2^down
  int32_t down = 0;  // shift - 32
  int32_t kind = kQuadRaw;
};
// The row of an output channel: K, the input zero point, the channel's
// weight zero point, sum of weight codes, bias and requantizer, and the
// output zero point.
QuadRow MakeQuadRow(int64_t k, int32_t x_zero, int32_t w_zero, int32_t w_code_sum, int32_t bias,
                    const Requantizer& r, int32_t y_zero);

// Where the codes go: row r (from the first row of the call) at
// y + r * y_stride, columns [0, np); kQuadRaw rows' sums at
// raw + r * raw_stride.
struct QuadOutput {
  const QuadRow* rows = nullptr;
  int row_count = 0;
  uint8_t* y = nullptr;
  int64_t y_stride = 0;
};

// The codes of rows [0, panels * kQuadRows) ∩ [0, out.row_count) and
// columns [0, np) of A * B over kquads quads. `c` is scratch of
// panels * kQuadRows rows of ldb int32 (sums carried between blocks of the
// reduction; kQuadRaw rows' exact sums at the end). `vector` false keeps
// the portable loop (tests).
void QuadGemm(int64_t panels, int64_t kquads, const int32_t* a, const int32_t* b, int ldb,
              const int32_t* colsum, int np, int32_t* c, const QuadOutput& out, bool vector = true);

}  // namespace qzdl
