// The quad GEMM with its requantizing epilogue against the reference's
// arithmetic (int64 sums, Requantize), bit for bit: its VNNI loop where the
// CPU has one, and its portable loop everywhere.
#include "runtime/int8/quad_gemm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

#include "runtime/int8/requantize.h"

namespace qzdl {
namespace {

struct Case {
  int rows = 0, k = 0, np = 0;
  std::vector<uint8_t> w, x;  // w [rows][k], x [k][np]
  int32_t x_zero = 0, y_zero = 0;
  std::vector<int32_t> w_zero, bias;
  std::vector<Requantizer> r;
};

// The reference's codes: bias + sum (x - zx)(w - zw) saturated to int32,
// requantized.
std::vector<uint8_t> Expected(const Case& c) {
  std::vector<uint8_t> y(size_t(c.rows) * c.np);
  for (int o = 0; o < c.rows; ++o) {
    for (int p = 0; p < c.np; ++p) {
      int64_t s = c.bias[o];
      for (int k = 0; k < c.k; ++k)
        s += int64_t(int(c.x[size_t(k) * c.np + p]) - c.x_zero) *
             (int(c.w[size_t(o) * c.k + k]) - c.w_zero[o]);
      s = std::clamp<int64_t>(s, INT32_MIN, INT32_MAX);
      y[size_t(o) * c.np + p] = Requantize(static_cast<int32_t>(s), c.r[o], c.y_zero);
    }
  }
  return y;
}

// The kernel as the convolution runs it: weights packed, columns packed
// and summed, the GEMM with its epilogue, RequantizeRow32 for raw rows.
std::vector<uint8_t> Run(const Case& c, bool vector) {
  const int64_t kquads = QuadCount(c.k), panels = QuadPanels(c.rows);
  std::vector<int32_t> a(size_t(QuadWeightLanes(c.rows, c.k)));
  PackQuadWeights(
      c.rows, c.k, [&](int r, int64_t k) { return c.w[size_t(r) * c.k + k]; }, a.data());
  const int ldb = static_cast<int>(QuadColumnsPadded(c.np));
  std::vector<int32_t> b(size_t(std::max<int64_t>(1, kquads) * ldb), -1), colsum(ldb, -1);
  PackQuadColumns(c.x.data(), c.np, c.k, c.np, ldb, ldb, b.data(), colsum.data(), vector);
  std::vector<QuadRow> rows(c.rows);
  for (int o = 0; o < c.rows; ++o) {
    int32_t sum = 0;
    for (int k = 0; k < c.k; ++k) sum += c.w[size_t(o) * c.k + k];
    rows[o] = MakeQuadRow(c.k, c.x_zero, c.w_zero[o], sum, c.bias[o], c.r[o], c.y_zero);
  }
  std::vector<uint8_t> y(size_t(c.rows) * c.np, 0);
  std::vector<int32_t> scratch(size_t(panels * kQuadRows * ldb));
  QuadOutput out;
  out.rows = rows.data();
  out.row_count = c.rows;
  out.y = y.data();
  out.y_stride = c.np;
  QuadGemm(panels, kquads, a.data(), b.data(), ldb, colsum.data(), c.np, scratch.data(), out,
           vector);
  for (int o = 0; o < c.rows; ++o) {
    if (rows[o].kind == kQuadRaw)
      RequantizeRow32(scratch.data() + int64_t(o) * ldb, c.np, c.bias[o], c.r[o], c.y_zero,
                      y.data() + int64_t(o) * c.np);
  }
  return y;
}

void ExpectMatches(const Case& c, const char* what) {
  const std::vector<uint8_t> want = Expected(c);
  for (bool vector : {false, true}) {
    if (vector && !HaveQuadGemm()) continue;
    const std::vector<uint8_t> got = Run(c, vector);
    int differ = 0;
    for (size_t i = 0; i < got.size(); ++i) differ += got[i] != want[i];
    EXPECT_EQ(differ, 0) << what << ": " << c.rows << " x " << c.k << " x " << c.np
                         << (vector ? ", VNNI loop" : ", portable loop");
  }
}

Case RandomCase(int rows, int k, int np, std::mt19937& rng, bool use_double) {
  std::uniform_int_distribution<int> code(0, 255);
  std::uniform_int_distribution<int> bias(-400000, 400000);
  std::uniform_real_distribution<double> scale(1e-7, 2e-4);
  Case c;
  c.rows = rows, c.k = k, c.np = np;
  for (int i = 0; i < rows * k; ++i) c.w.push_back(static_cast<uint8_t>(code(rng)));
  for (int i = 0; i < k * np; ++i) c.x.push_back(static_cast<uint8_t>(code(rng)));
  c.x_zero = code(rng);
  c.y_zero = code(rng);
  // Every kind of row: ordinary multipliers, large ones (shift < 33), 0,
  // saturating ones, biases at the ends of the int32 range.
  const double reals[] = {0.0, 0.3, 1.0, 3e9};
  const int32_t extreme[] = {INT32_MAX - 5, INT32_MIN + 5};
  for (int o = 0; o < rows; ++o) {
    c.w_zero.push_back(code(rng));
    c.bias.push_back(o % 11 == 7 ? extreme[o % 2] : bias(rng));
    c.r.push_back(MakeRequantizer(o % 13 == 5 ? reals[o % 4] : scale(rng), use_double));
  }
  return c;
}

TEST(QuadGemm, MatchesTheReference) {
  std::mt19937 rng(11);
  // Rows beyond one panel and short of the next, reductions not a multiple
  // of 4, longer than one block of 256 quads, columns beyond one block of 32
  // and not a multiple of 16, and MobileNetV2's pointwise shapes.
  const int shapes[][3] = {{1, 1, 1},     {8, 4, 32},     {9, 5, 17},     {16, 24, 49},
                           {24, 144, 64}, {13, 27, 100},  {30, 1030, 70}, {7, 3000, 33},
                           {96, 16, 196}, {160, 960, 49}, {64, 384, 160}};
  for (const auto& s : shapes) {
    for (bool use_double : {false, true}) {
      ExpectMatches(RandomCase(s[0], s[1], s[2], rng, use_double),
                    use_double ? "double" : "fixed point");
    }
  }
}

TEST(QuadGemm, LongestExactReduction) {
  // 33025 products of 255 x 255 (and of 255 x -255): sums of
  // +-2147450625, the ends of what fits int32, with biases that may not fold.
  for (int sign : {1, -1}) {
    Case c;
    c.rows = 2, c.k = static_cast<int>(kMaxQuadK), c.np = 3;
    c.x.assign(size_t(c.k) * c.np, 255);
    c.w.assign(size_t(c.rows) * c.k, sign > 0 ? 255 : 0);
    c.x_zero = 0;
    c.y_zero = 128;
    c.w_zero = {sign > 0 ? 0 : 255, sign > 0 ? 0 : 255};
    c.bias = {0, sign * 40000};
    c.r = {MakeRequantizer(1.0 / (int64_t{1} << 24), false),
           MakeRequantizer(1.0 / (int64_t{1} << 24), false)};
    const std::vector<uint8_t> want = Expected(c);
    EXPECT_EQ(want[0], sign > 0 ? 255 : 0);
    ExpectMatches(c, "longest reduction");
  }
}

TEST(QuadGemm, RoundsTiesUp) {
  // Sums on rounding ties of the multiplier 2^-20: bias + sum = 100.5 * 2^20
  // gives 101, one less gives 100.
  Case c;
  c.rows = 2, c.k = 600, c.np = 5;
  c.x.assign(size_t(c.k) * c.np, 255);
  c.w.assign(size_t(c.rows) * c.k, 255);
  const int64_t sum = int64_t(255) * 255 * c.k;
  const int64_t tie = int64_t(201) << 19;
  c.w_zero = {0, 0};
  c.bias = {static_cast<int32_t>(tie - sum), static_cast<int32_t>(tie - 1 - sum)};
  c.r = {MakeRequantizer(1.0 / (1 << 20), false), MakeRequantizer(1.0 / (1 << 20), false)};
  const std::vector<uint8_t> want = Expected(c);
  EXPECT_EQ(want[0], 101);
  EXPECT_EQ(want[c.np], 100);
  ExpectMatches(c, "ties");
}

}  // namespace
}  // namespace qzdl
