// Pooling against the ONNX node and PyTorch-converted test data, against a
// plain reference on random shapes, and its param and shape checks.
#include "runtime/layers/pooling.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "elementwise_test_support.h"

namespace qzdl {
namespace {

using json11::Json;
using test::Tensor;

// Max pooling selects input values: exact. Average pooling sums in double
// and divides once: within 1e-6 absolute + 1e-5 relative of the reference.
constexpr double kAveAtol = 1e-6, kAveRtol = 1e-5;

struct OnnxPoolCase {
  std::string group;
  std::string name;
  Json::object param;
  double atol = kAveAtol;  // the expected output of one case has 4 decimals
};

std::vector<OnnxPoolCase> OnnxPoolCases() {
  // ONNX attributes mapped by hand: kernel_shape -> kernel, strides ->
  // stride, pads [top, left, bottom, right] -> pad_*, auto_pad SAME_* ->
  // the explicit pads it stands for, count_include_pad (ONNX default 0).
  return {
      {"node", "test_maxpool_2d_default", {{"pool", "max"}, {"kernel_size", 2}}},
      {"node",
       "test_maxpool_2d_ceil",
       {{"pool", "max"}, {"kernel_size", 3}, {"stride", 2}, {"ceil_mode", true}}},
      {"node",
       "test_maxpool_2d_ceil_output_size_reduce_by_one",
       {{"pool", "max"}, {"kernel_size", 1}, {"stride", 2}, {"ceil_mode", true}}},
      {"node", "test_maxpool_2d_pads", {{"pool", "max"}, {"kernel_size", 3}, {"pad", 2}}},
      {"node",
       "test_maxpool_2d_precomputed_pads",
       {{"pool", "max"}, {"kernel_h", 5}, {"kernel_w", 5}, {"pad", 2}}},
      {"node",
       "test_maxpool_2d_precomputed_same_upper",
       {{"pool", "max"}, {"kernel_size", 3}, {"stride", 2}, {"pad", 1}}},
      {"node",
       "test_maxpool_2d_precomputed_strides",
       {{"pool", "max"}, {"kernel_size", 2}, {"stride_h", 2}, {"stride_w", 2}}},
      {"node",
       "test_maxpool_2d_same_lower",
       {{"pool", "max"}, {"kernel_size", 2}, {"pad_top", 1}, {"pad_left", 1}}},
      {"node",
       "test_maxpool_2d_same_upper",
       {{"pool", "max"}, {"kernel_size", 2}, {"pad_bottom", 1}, {"pad_right", 1}}},
      {"node", "test_maxpool_2d_strides", {{"pool", "max"}, {"kernel_size", 5}, {"stride", 3}}},
      {"node",
       "test_averagepool_2d_ceil",
       {{"pool", "ave"},
        {"kernel_size", 3},
        {"stride", 2},
        {"ceil_mode", true},
        {"count_include_pad", false}}},
      {"node",
       "test_averagepool_2d_ceil_last_window_starts_on_pad",
       {{"pool", "ave"},
        {"kernel_size", 3},
        {"stride", 3},
        {"pad", 1},
        {"ceil_mode", true},
        {"count_include_pad", true}},
       1e-4},
      {"node",
       "test_averagepool_2d_default",
       {{"pool", "ave"}, {"kernel_size", 2}, {"count_include_pad", false}}},
      {"node",
       "test_averagepool_2d_pads",
       {{"pool", "ave"}, {"kernel_size", 3}, {"pad", 2}, {"count_include_pad", false}}},
      {"node",
       "test_averagepool_2d_pads_count_include_pad",
       {{"pool", "ave"}, {"kernel_size", 3}, {"pad", 2}, {"count_include_pad", true}}},
      {"node",
       "test_averagepool_2d_precomputed_pads",
       {{"pool", "ave"}, {"kernel_size", 5}, {"pad", 2}, {"count_include_pad", false}}},
      {"node",
       "test_averagepool_2d_precomputed_pads_count_include_pad",
       {{"pool", "ave"}, {"kernel_size", 5}, {"pad", 2}}},  // default: padding counted
      {"node",
       "test_averagepool_2d_precomputed_same_upper",
       {{"pool", "ave"},
        {"kernel_size", 3},
        {"stride", 2},
        {"pad_top", 1},
        {"pad_bottom", 1},
        {"pad_left", 1},
        {"pad_right", 1},
        {"count_include_pad", false}}},
      {"node",
       "test_averagepool_2d_precomputed_strides",
       {{"pool", "ave"}, {"kernel_size", 2}, {"stride", 2}}},
      {"node",
       "test_averagepool_2d_same_lower",
       {{"pool", "ave"},
        {"kernel_size", 2},
        {"pad_top", 1},
        {"pad_left", 1},
        {"count_include_pad", false}}},
      {"node",
       "test_averagepool_2d_same_upper",
       {{"pool", "ave"},
        {"kernel_size", 2},
        {"pad_bottom", 1},
        {"pad_right", 1},
        {"count_include_pad", false}}},
      {"node", "test_averagepool_2d_strides", {{"pool", "ave"}, {"kernel_size", 5}, {"stride", 3}}},
      {"node", "test_globalaveragepool", {{"pool", "ave"}, {"global_pooling", true}}},
      {"node", "test_globalaveragepool_precomputed", {{"pool", "ave"}, {"global_pooling", true}}},
      {"node", "test_globalmaxpool", {{"pool", "max"}, {"global_pooling", true}}},
      {"node", "test_globalmaxpool_precomputed", {{"pool", "max"}, {"global_pooling", true}}},
      {"pytorch-converted",
       "test_MaxPool2d",
       {{"pool", "max"}, {"kernel_size", 3}, {"stride", 2}, {"pad", 1}}},
      {"pytorch-converted", "test_AvgPool2d", {{"pool", "ave"}, {"kernel_size", 2}, {"stride", 2}}},
      {"pytorch-converted",
       "test_AvgPool2d_stride",
       {{"pool", "ave"}, {"kernel_size", 2}, {"stride", 2}}},
  };
}

TEST(PoolingLayer, MatchesOnnxCases) {
  for (const OnnxPoolCase& c : OnnxPoolCases()) {
    SCOPED_TRACE(c.name);
    const Tensor x = test::ToTensor(test::OnnxData(c.group, c.name, "input_0"));
    const test::OnnxTensor want = test::OnnxData(c.group, c.name, "output_0");
    const Tensor got = test::RunLayer("Pooling", c.param, {x});
    EXPECT_EQ(got.dims, want.IntDims());
    if (c.param.at("pool").string_value() == "max") {
      EXPECT_EQ(got.values, want.values);
    } else {
      EXPECT_LE(test::ToleranceRatio(got.values, want.values, c.atol, kAveRtol), 1.0);
    }
  }
}

// Plain reference: walks every kernel position of every window.
Tensor ReferencePool(const Tensor& x, bool is_max, int kh, int kw, int sh, int sw, int pt, int pb,
                     int pl, int pr, bool ceil_mode, bool include_pad) {
  const int n = x.dims[0], c = x.dims[1], h = x.dims[2], w = x.dims[3];
  auto out_size = [&](int in, int k, int s, int p0, int p1) {
    const int span = in + p0 + p1 - k;
    int o = (ceil_mode ? (span + s - 1) / s : span / s) + 1;
    if (ceil_mode && (o - 1) * s >= in + p0) --o;
    return o;
  };
  const int oh = out_size(h, kh, sh, pt, pb), ow = out_size(w, kw, sw, pl, pr);
  Tensor y{{n, c, oh, ow}, {}};
  for (int p = 0; p < n * c; ++p)
    for (int i = 0; i < oh; ++i)
      for (int j = 0; j < ow; ++j) {
        double best = -std::numeric_limits<double>::infinity(), sum = 0;
        int valid = 0, padded = 0;
        for (int a = 0; a < kh; ++a)
          for (int b = 0; b < kw; ++b) {
            const int r = i * sh - pt + a, q = j * sw - pl + b;
            if (r < h + pb && q < w + pr) ++padded;
            if (r < 0 || r >= h || q < 0 || q >= w) continue;
            const float v = x.values[(static_cast<size_t>(p) * h + r) * w + q];
            best = std::max(best, static_cast<double>(v));
            sum += v;
            ++valid;
          }
        y.values.push_back(
            static_cast<float>(is_max ? best : sum / (include_pad ? padded : valid)));
      }
  return y;
}

TEST(PoolingLayer, MatchesReferenceOnRandomShapes) {
  uint32_t seed = 1;
  for (int trial = 0; trial < 60; ++trial) {
    std::mt19937 gen(seed++);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); };
    const int kh = pick(1, 4), kw = pick(1, 4);
    const int pt = pick(0, kh - 1), pb = pick(0, kh - 1), pl = pick(0, kw - 1),
              pr = pick(0, kw - 1);
    const int h = pick(std::max(1, kh - pt - pb), 11), w = pick(std::max(1, kw - pl - pr), 11);
    const int sh = pick(1, 3), sw = pick(1, 3);
    const bool is_max = trial % 2 == 0, ceil_mode = (trial / 2) % 2 == 1,
               include_pad = (trial / 4) % 2 == 1;
    SCOPED_TRACE("trial " + std::to_string(trial));
    const Tensor x = test::RandomTensor({pick(1, 2), pick(1, 3), h, w}, seed * 7);
    Json::object param = {{"pool", is_max ? "max" : "ave"},
                          {"kernel_h", kh},
                          {"kernel_w", kw},
                          {"stride_h", sh},
                          {"stride_w", sw},
                          {"pad_top", pt},
                          {"pad_bottom", pb},
                          {"pad_left", pl},
                          {"pad_right", pr},
                          {"ceil_mode", ceil_mode},
                          {"count_include_pad", include_pad}};
    const Tensor got = test::RunLayer("Pooling", param, {x});
    const Tensor want =
        ReferencePool(x, is_max, kh, kw, sh, sw, pt, pb, pl, pr, ceil_mode, include_pad);
    ASSERT_EQ(got.dims, want.dims);
    if (is_max) {
      EXPECT_EQ(got.values, want.values);
    } else {
      EXPECT_LE(test::ToleranceRatio(got.values, want.values, kAveAtol, kAveRtol), 1.0);
    }
  }
}

TEST(PoolingLayer, CountIncludePadDefaultsToTrue) {
  // 2x2 input of ones, 3x3 window, pad 1: the window covers 4 inputs of 9.
  const Tensor x{{1, 1, 2, 2}, {1, 1, 1, 1}};
  const Tensor counted =
      test::RunLayer("Pooling", {{"pool", "ave"}, {"kernel_size", 3}, {"pad", 1}}, {x});
  EXPECT_EQ(counted.dims, (std::vector<int>{1, 1, 2, 2}));
  EXPECT_EQ(counted.values, std::vector<float>(4, 4.0f / 9.0f));
  const Tensor not_counted = test::RunLayer(
      "Pooling", {{"pool", "ave"}, {"kernel_size", 3}, {"pad", 1}, {"count_include_pad", false}},
      {x});
  EXPECT_EQ(not_counted.values, std::vector<float>(4, 1.0f));
}

TEST(PoolingLayer, CeilModeRoundsOutputUp) {
  const Tensor x = test::RandomTensor({1, 1, 5, 5}, 3);
  const Tensor floor = test::RunLayer("Pooling", {{"kernel_size", 2}, {"stride", 2}}, {x});
  EXPECT_EQ(floor.dims, (std::vector<int>{1, 1, 2, 2}));
  const Tensor ceil =
      test::RunLayer("Pooling", {{"kernel_size", 2}, {"stride", 2}, {"ceil_mode", true}}, {x});
  EXPECT_EQ(ceil.dims, (std::vector<int>{1, 1, 3, 3}));
  // The last window holds the last input row and column alone.
  EXPECT_EQ(ceil.values[8], x.values[24]);
}

TEST(PoolingLayer, TypeDetailAndDefaults) {
  auto net = test::OneLayerNet("Pooling", {{"kernel_size", 2}}, {{1, 1, 4, 4}}).Build();
  auto* layer = dynamic_cast<PoolingLayer<float>*>(net->GetLayer("l"));
  ASSERT_NE(layer, nullptr);
  EXPECT_EQ(layer->GetTypeDetail(), "Pooling(max)");
  EXPECT_EQ(layer->StrideH(), 1);
  EXPECT_EQ(layer->PadTop(), 0);
  EXPECT_FALSE(layer->CeilMode());
  EXPECT_TRUE(layer->CountIncludePad());
  auto ave =
      test::OneLayerNet("Pooling", {{"pool", "ave"}, {"global_pooling", true}}, {{1, 2, 3, 5}})
          .Build();
  EXPECT_EQ(ave->GetLayer("l")->GetTypeDetail(), "Pooling(ave)");
  EXPECT_EQ(ave->GetOutputData(0)->GetDims(), (std::vector<int>{1, 2, 1, 1}));
}

TEST(PoolingLayer, RejectsBadParams) {
  const std::string prefix = "net description: layer \"l\" (Pooling): ";
  auto error = [](const Json::object& param, std::vector<int> dims = {1, 1, 6, 6}) {
    return test::BuildError(test::OneLayerNet("Pooling", param, {dims}));
  };
  EXPECT_EQ(error({{"pool", "max"}}),
            prefix + "missing param \"kernel_size\" (or both \"kernel_h\" and \"kernel_w\")");
  EXPECT_EQ(error({{"pool", "min"}, {"kernel_size", 2}}),
            prefix + "param \"pool\" is \"min\", expected one of \"max\", \"ave\"");
  EXPECT_EQ(error({{"kernel_size", 2}, {"kernel_h", 2}}),
            prefix + "give either \"kernel_size\" or \"kernel_h\" and \"kernel_w\", not both");
  EXPECT_EQ(error({{"kernel_size", 0}}), prefix + "param \"kernel_size\" must be >= 1, got 0");
  EXPECT_EQ(error({{"kernel_size", 2}, {"stride_w", 0}}),
            prefix + "param \"stride_w\" must be >= 1, got 0");
  EXPECT_EQ(error({{"kernel_size", 2}, {"pad_left", 2}}),
            prefix +
                "padding must be smaller than the kernel: kernel 2x2, pads top/bottom/left/right "
                "0/0/2/0");
  EXPECT_EQ(error({{"global_pooling", true}, {"kernel_size", 2}}),
            prefix + "global pooling takes its window from the input; remove the kernel params");
  EXPECT_EQ(error({{"global_pooling", true}, {"stride", 2}}),
            prefix + "global pooling takes no stride and no padding");
  EXPECT_EQ(error({{"kernel_h", 7}, {"kernel_w", 2}}),
            prefix + "the window (7) is larger than the height of the padded input (6)");
  EXPECT_EQ(error({{"kernel_size", 2}}, {1, 6, 6}),
            prefix + "input \"x0\" must have 4 axes, has shape [1, 6, 6]");
}

TEST(PoolingLayer, InPlaceWhenTheShapeStays) {
  // Not in-place safe: the net gives the layer a private copy of its input.
  const Tensor x = test::RandomTensor({2, 3, 9, 8}, 12);
  test::ExpectInPlaceSame("Pooling", {{"pool", "ave"}, {"kernel_size", 3}, {"pad", 1}}, {x});
  test::ExpectInPlaceSame("Pooling", {{"pool", "max"}, {"kernel_size", 3}, {"pad", 1}}, {x});
}

TEST(PoolingLayer, SurvivesBadParamValues) {
  test::ExpectBadParamsHandled("Pooling",
                               {{"pool", "ave"},
                                {"kernel_h", 3},
                                {"kernel_w", 2},
                                {"stride_h", 2},
                                {"stride_w", 1},
                                {"pad_top", 1},
                                {"pad_bottom", 1},
                                {"pad_left", 1},
                                {"pad_right", 0},
                                {"ceil_mode", true},
                                {"count_include_pad", false}},
                               {{1, 2, 7, 6}});
  test::ExpectBadParamsHandled("Pooling", {{"kernel_size", 2}, {"stride", 2}, {"pad", 1}},
                               {{1, 2, 7, 6}});
  test::ExpectBadParamsHandled("Pooling", {{"pool", "max"}, {"global_pooling", true}},
                               {{1, 2, 7, 6}});
}

struct PoolCase {
  int in_h, in_w, kernel, stride, pad;
};

PoolShape SquareShape(const PoolCase& c, int planes) {
  PoolShape s;
  s.planes = planes;
  s.in_h = c.in_h, s.in_w = c.in_w;
  s.kernel_h = s.kernel_w = c.kernel;
  s.stride_h = s.stride_w = c.stride;
  s.pad_top = s.pad_left = c.pad;
  s.pad_bottom = s.pad_right = c.pad;
  s.out_h = (c.in_h + 2 * c.pad - c.kernel) / c.stride + 1;
  s.out_w = (c.in_w + 2 * c.pad - c.kernel) / c.stride + 1;
  return s;
}

// Runs MaxPoolKernel on x and counts the outputs whose bits differ from
// their window's std::max taken element by element in row-major order.
template <typename E>
int WindowMismatches(const PoolShape& s, const std::vector<E>& x) {
  std::vector<E> y(size_t(s.planes * s.out_h * s.out_w), E(7));
  MaxPoolKernel(s, x.data(), y.data());
  const E lowest = std::numeric_limits<E>::has_infinity ? -std::numeric_limits<E>::infinity()
                                                        : std::numeric_limits<E>::lowest();
  int differ = 0;
  for (int64_t p = 0; p < s.planes; ++p) {
    for (int64_t oy = 0; oy < s.out_h; ++oy) {
      for (int64_t ox = 0; ox < s.out_w; ++ox) {
        E m = lowest;
        for (int64_t i = oy * s.stride_h - s.pad_top; i < oy * s.stride_h - s.pad_top + s.kernel_h;
             ++i)
          for (int64_t j = ox * s.stride_w - s.pad_left;
               j < ox * s.stride_w - s.pad_left + s.kernel_w; ++j)
            if (i >= 0 && i < s.in_h && j >= 0 && j < s.in_w)
              m = std::max(m, x[size_t((p * s.in_h + i) * s.in_w + j)]);
        const E got = y[size_t((p * s.out_h + oy) * s.out_w + ox)];
        differ += std::memcmp(&got, &m, sizeof m) != 0;
      }
    }
  }
  return differ;
}

TEST(MaxPoolKernel, CodesMatchEveryWindowTakenAlone) {
  // The two-pass loop of 8-bit codes against each window's own maximum:
  // pads on every side, strides, kernels wider than the stride, a row of
  // one element, and rows wider than the two-pass buffer.
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> code(0, 255);
  for (const PoolCase& c :
       {PoolCase{112, 112, 3, 2, 1}, PoolCase{7, 9, 3, 2, 1}, PoolCase{5, 5, 2, 2, 0},
        PoolCase{6, 1, 3, 1, 1}, PoolCase{9, 8, 4, 3, 2}, PoolCase{3, 4100, 3, 2, 1}}) {
    const PoolShape s = SquareShape(c, 3);
    std::vector<uint8_t> x(size_t(s.planes * s.in_h * s.in_w));
    for (uint8_t& v : x) v = static_cast<uint8_t>(code(rng));
    EXPECT_EQ(WindowMismatches(s, x), 0) << c.in_h << "x" << c.in_w << " kernel " << c.kernel
                                         << " stride " << c.stride << " pad " << c.pad;
  }
}

TEST(MaxPoolKernel, FloatsKeepTheBitsOfEveryWindowTakenInRowMajorOrder) {
  // Interior columns run a tap at a time; every output must still be the
  // row-major std::max of its window: NaNs dropped, and of a -0 and a +0 the
  // one met first kept. Values from a small set, so that ties are common.
  std::mt19937 rng(5);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> pool = {-0.0f, 0.0f, -1.0f, nan, -2.5f, 0.0f, -0.0f, 1.0f};
  std::uniform_int_distribution<size_t> pick(0, pool.size() - 1);
  for (const PoolCase& c :
       {PoolCase{55, 55, 3, 2, 0}, PoolCase{13, 40, 3, 1, 1}, PoolCase{9, 33, 2, 2, 0},
        PoolCase{8, 37, 4, 3, 2}, PoolCase{5, 70, 5, 2, 2}, PoolCase{4, 3, 3, 1, 1}}) {
    const PoolShape s = SquareShape(c, 2);
    std::vector<float> x(size_t(s.planes * s.in_h * s.in_w));
    for (float& v : x) v = pool[pick(rng)];
    EXPECT_EQ(WindowMismatches(s, x), 0) << c.in_h << "x" << c.in_w << " kernel " << c.kernel
                                         << " stride " << c.stride << " pad " << c.pad;
  }
}

TEST(PoolingLayer, SameBitsWithOneOrTwoThreads) {
  const Tensor x = test::RandomTensor({2, 8, 48, 40}, 11);
  test::ExpectThreadIndependent("Pooling", {{"pool", "ave"}, {"kernel_size", 3}, {"pad", 1}}, {x});
  test::ExpectThreadIndependent("Pooling", {{"pool", "max"}, {"kernel_size", 3}, {"stride", 2}},
                                {x});
  test::ExpectThreadIndependent("Pooling", {{"pool", "ave"}, {"global_pooling", true}}, {x});
}

}  // namespace
}  // namespace qzdl
