// Mean-square-error search: the squared-error kernels against the plain loop,
// the search against a literal transcription of its definition, the observer,
// and the cosine-similarity search.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "quantization/functional.h"
#include "quantization/functional_search.h"
#include "quantization/kernels/mse_kernels.h"
#include "quantization/mse_observer.h"
#include "quantization/utils.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using kernels::SquaredErrorKernel;
using quant_test::Bits;
using quant_test::FromBits;
using quant_test::kInf;
using quant_test::kNaN;

std::vector<const SquaredErrorKernel*> Kernels() {
  int n = 0;
  const SquaredErrorKernel* table = kernels::AvailableSquaredErrorKernels(&n);
  std::vector<const SquaredErrorKernel*> out;
  for (int i = 0; i < n; ++i) out.push_back(&table[i]);
  return out;
}

// The search exactly as defined, one candidate after the other.
void ReferenceMeanSquareError(const float* data, unsigned long count, float& min, float& max,
                              int steps, bool symmetric) {
  std::vector<float> nz;
  for (unsigned long i = 0; i < count; ++i) {
    if (std::fabs(static_cast<double>(data[i])) >= 1e-06) nz.push_back(data[i]);
  }
  const float vmin = *std::min_element(nz.begin(), nz.end());
  const float vmax = *std::max_element(nz.begin(), nz.end());
  float max_scale;
  if (symmetric) {
    max_scale = (2.0f * std::max(std::fabs(vmin), std::fabs(vmax))) / 255.0f;
  } else {
    max_scale = (vmax - vmin) / 255.0f;
  }
  const float delta = max_scale / float(steps);
  double best_error = DBL_MAX;
  float best_scale = 0.0f;
  float best_zero = 0.0f;
  for (unsigned long i = 0; i < static_cast<unsigned long>(steps); ++i) {
    const float scale = std::fma(-delta, float(i), max_scale);
    float zero = 0.0f;
    if (!symmetric) zero = -RoundClip<float>((vmin + vmax) / (scale + scale));
    double error = 0.0;
    for (const float x : nz) {
      const float t = x / scale;
      const float u = t + zero;
      const float q = RoundClip<float>(u) - zero;
      const float d = std::fma(-scale, q, x);
      error = std::fma(double(d), double(d), error);
    }
    if (best_error >= error) {
      best_error = error;
      best_scale = scale;
      best_zero = zero;
    }
  }
  const float lo = (-128.0 - best_zero) * best_scale;
  const float hi = (127.0 - best_zero) * best_scale;
  min = lo > vmin ? lo : vmin;
  max = hi < vmax ? hi : vmax;
}

// Activation-like data: post-ReLU (about half exact zeros), signed with
// outliers, and values around the 1e-6 cut.
std::vector<float> MakeData(int kind, size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) {
    switch (kind) {
      case 0:  // post-ReLU
        x = std::max(0.0f, normal(rng) * 2.5f + 0.3f);
        break;
      case 1:  // signed, heavy tail
        x = normal(rng) * (uniform(rng) < 0.01f ? 20.0f : 1.0f);
        break;
      case 2:  // tiny values around the cut
        x = (uniform(rng) - 0.5f) * 4e-6f;
        if (uniform(rng) < 0.2f) x = normal(rng) * 1e-3f;
        break;
      case 3:  // integers, negative only
        x = -static_cast<float>(1 + static_cast<int>(uniform(rng) * 300.0f));
        break;
      default:  // large and asymmetric
        x = normal(rng) * 3e4f + 1e5f;
        break;
    }
  }
  v[n / 2] = kind == 2 ? 1e-3f : v[n / 2];  // at least one element survives the cut
  return v;
}

// ---- RoundClip lanes ----

TEST(SquaredErrorKernels, GenericIsAlwaysAvailableAndLast) {
  const auto ks = Kernels();
  ASSERT_FALSE(ks.empty());
  EXPECT_EQ(std::string("generic"), ks.back()->name);
  EXPECT_EQ(ks.front(), &kernels::BestSquaredErrorKernel());
  for (const auto* k : ks) {
    EXPECT_GT(k->lanes, 0);
    EXPECT_LE(k->lanes, kernels::kMaxSquaredErrorLanes);
  }
}

#if !defined(__x86_64__)
// Off x86-64 (NEON on 64-bit Arm) the portable kernel is the only one, so
// every test over Kernels() and the range search run it.
TEST(SquaredErrorKernels, OnlyTheGenericKernelOffX86) {
  ASSERT_EQ(1u, Kernels().size());
  EXPECT_EQ(std::string("generic"), kernels::BestSquaredErrorKernel().name);
}
#endif

TEST(SquaredErrorKernels, RoundClipLanesMatchRoundClip) {
  std::vector<float> in;
  // Every half-integer of the grid and its neighbours, both signs.
  for (int k = -140; k <= 140; ++k) {
    const float h = static_cast<float>(k) + 0.5f;
    uint32_t b = Bits(h);
    for (int d = -40; d <= 40; ++d) in.push_back(FromBits(b + d));
    in.push_back(static_cast<float>(k));
  }
  // Specials and the clamp edges.
  for (float x :
       {0.0f,           -0.0f,      kNaN,        -kNaN,       kInf,         -kInf,   FLT_MAX,
        -FLT_MAX,       FLT_MIN,    -FLT_MIN,    1e-45f,      -1e-45f,      126.5f,  -126.5f,
        127.0f,         -127.0f,    127.49999f,  -127.5f,     128.0f,       -128.0f, 2147483648.0f,
        -2147483648.0f, 8388607.5f, -8388607.5f, 0.49999997f, -0.49999997f, 0.5f,    -0.5f}) {
    in.push_back(x);
  }
  // A sweep over all bit patterns.
  for (uint64_t b = 0; b < (1ull << 32); b += 104729) in.push_back(FromBits(uint32_t(b)));
  for (const auto* k : Kernels()) {
    std::vector<float> out(in.size());
    k->round_clip(in.data(), out.data(), in.size());
    int mismatches = 0;
    for (size_t i = 0; i < in.size(); ++i) {
      if (Bits(out[i]) != Bits(RoundClip<float>(in[i])) && ++mismatches <= 5) {
        ADD_FAILURE() << k->name << ": RoundClip(" << in[i] << " = 0x" << std::hex << Bits(in[i])
                      << ") gave " << out[i] << ", want " << RoundClip<float>(in[i]);
      }
    }
    EXPECT_EQ(0, mismatches) << k->name;
  }
}

// ---- squared errors: every kernel against the plain loop ----

void ExpectSameErrors(const std::vector<double>& want, const std::vector<double>& got,
                      const std::string& what) {
  ASSERT_EQ(want.size(), got.size());
  for (size_t j = 0; j < want.size(); ++j) {
    if (std::isnan(want[j]) && std::isnan(got[j])) continue;
    EXPECT_EQ(Bits(want[j]), Bits(got[j]))
        << what << " candidate " << j << ": want " << want[j] << ", got " << got[j];
  }
}

// Runs a kernel over any number of candidates, `lanes` at a time.
std::vector<double> RunKernel(const SquaredErrorKernel& k, const std::vector<float>& data,
                              const std::vector<float>& scales, const std::vector<float>& zeros) {
  std::vector<double> errors(scales.size());
  for (size_t first = 0; first < scales.size(); first += k.lanes) {
    float s[kernels::kMaxSquaredErrorLanes];
    float z[kernels::kMaxSquaredErrorLanes];
    double e[kernels::kMaxSquaredErrorLanes];
    for (int l = 0; l < k.lanes; ++l) {
      const size_t j = std::min(first + l, scales.size() - 1);
      s[l] = scales[j];
      z[l] = zeros[j];
    }
    k.run(data.data(), data.size(), s, z, e);
    for (int l = 0; l < k.lanes && first + l < scales.size(); ++l) errors[first + l] = e[l];
  }
  return errors;
}

TEST(SquaredErrorKernels, MatchThePlainLoopOnRandomGrids) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
  for (int kind = 0; kind < 5; ++kind) {
    const std::vector<float> data = MakeData(kind, 3001, 100 + kind);
    std::vector<float> scales, zeros;
    for (int j = 0; j < 97; ++j) {
      scales.push_back(std::exp2((uniform(rng) - 0.5f) * 30.0f));
      zeros.push_back(std::round((uniform(rng) - 0.5f) * 254.0f));
    }
    std::vector<double> want(scales.size());
    kernels::SquaredErrorsScalar(data.data(), data.size(), scales.data(), zeros.data(),
                                 static_cast<int>(scales.size()), want.data());
    for (const auto* k : Kernels()) {
      ExpectSameErrors(want, RunKernel(*k, data, scales, zeros),
                       std::string(k->name) + " kind " + std::to_string(kind));
    }
  }
}

TEST(SquaredErrorKernels, MatchThePlainLoopOnSpecialValues) {
  // Zero, subnormal, huge, infinite, NaN and negative scales; signed zeros and
  // clamp-edge zero points; data with infinities and signed zeros.
  const std::vector<float> scales = {0.0f,  -0.0f, 1e-45f, 1e-40f, FLT_MIN, 1e-20f, 0.01f,
                                     0.5f,  1.0f,  3.0f,   1e20f,  FLT_MAX, kInf,   kNaN,
                                     -0.1f, -kInf, 2.0f,   2.0f,   0.003f};
  const std::vector<float> zeros = {0.0f,    -0.0f, 127.0f, -127.0f, 5.0f,   -3.0f, 0.0f,
                                    -0.0f,   1.0f,  -1.0f,  0.0f,    126.0f, 0.0f,  0.0f,
                                    -127.0f, 7.0f,  -0.0f,  0.0f,    -100.0f};
  std::vector<float> data = MakeData(1, 257, 3);
  for (float x : {kInf, -kInf, 0.0f, -0.0f, FLT_MAX, -FLT_MAX, 1e-45f, 0.25f, -0.75f, 254.5f}) {
    data.push_back(x);
  }
  std::vector<double> want(scales.size());
  kernels::SquaredErrorsScalar(data.data(), data.size(), scales.data(), zeros.data(),
                               static_cast<int>(scales.size()), want.data());
  for (const auto* k : Kernels())
    ExpectSameErrors(want, RunKernel(*k, data, scales, zeros), k->name);
}

TEST(SquaredErrorKernels, HandExample) {
  // Scale 2, zero 0: q(1) = RoundClip(0.5) = 1 (half away) -> d = -1;
  // q(0) = 0 -> d = 0; q(3) = RoundClip(1.5) = 2 -> d = -1. Sum 2.
  // Zero point -3 shifts the grid: q(1) = RoundClip(0.5 - 3) - (-3) = -3 + 3
  // = 0 -> d = 1; q(0) = 0; q(3) = RoundClip(-1.5) + 3 = 1 -> d = 1.
  const float data[] = {1.0f, 0.0f, 3.0f};
  const float scales[] = {2.0f, 2.0f};
  const float zeros[] = {0.0f, -3.0f};
  double want[2] = {-1.0, -1.0};
  kernels::SquaredErrorsScalar(data, 3, scales, zeros, 2, want);
  EXPECT_EQ(2.0, want[0]);
  EXPECT_EQ(2.0, want[1]);
  for (const auto* k : Kernels()) {
    const std::vector<double> got =
        RunKernel(*k, std::vector<float>(data, data + 3), std::vector<float>(scales, scales + 2),
                  std::vector<float>(zeros, zeros + 2));
    EXPECT_EQ(2.0, got[0]) << k->name;
    EXPECT_EQ(2.0, got[1]) << k->name;
  }
}

TEST(SquaredErrorKernels, ExactHalvesNeedTheTrueDivision) {
  // Elements x next to (k + 0.5) * s where x / s and x * (1 / s) round to
  // different floats, one of them the half k + 0.5 itself: RoundClip then
  // goes up for one and down for the other, so a reciprocal would change q.
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  int scales_tried = 0;
  int scales_used = 0;
  while (scales_used < 6 && ++scales_tried < 10000) {
    const float s = std::exp2(u(rng) * 16.0f - 12.0f);
    const float r = 1.0f / s;
    std::vector<float> data;
    for (int k = -126; k <= 126; ++k) {
      const float half = static_cast<float>(k) + (k < 0 ? -0.5f : 0.5f);
      const uint32_t b = Bits(half * s);
      for (int d = -3; d <= 3; ++d) {
        const float x = FromBits(b + d);
        const float t = x / s;
        const float m = x * r;
        if (t != m && (t == half || m == half)) data.push_back(x);
      }
    }
    if (data.size() < 4) continue;
    ++scales_used;
    double want = 0.0;
    for (const float x : data) {
      const float q = RoundClip<float>(x / s);
      const float d = std::fma(-s, q, x);
      want = std::fma(double(d), double(d), want);
    }
    double plain = 0.0;
    const float zero = 0.0f;
    kernels::SquaredErrorsScalar(data.data(), data.size(), &s, &zero, 1, &plain);
    EXPECT_EQ(Bits(want), Bits(plain)) << "plain loop, scale " << s;
    for (const auto* k : Kernels()) {
      const std::vector<double> got = RunKernel(*k, data, {s}, {0.0f});
      EXPECT_EQ(Bits(want), Bits(got[0])) << k->name << " scale " << s;
    }
  }
  EXPECT_EQ(6, scales_used);
}

// ---- the search ----

TEST(CalibrationWithMeanSquareError, SymmetricOnMinusOneToThree) {
  // max_scale is 6/255: with one step the only grid is that one, its reach is
  // [-128, 127] * 6/255, and the range is cut to the data.
  const float data[] = {-1.0f, 0.5f, 3.0f};
  float min = 0.0f, max = 0.0f;
  CalibrationWithMeanSquareError(data, 3, min, max, 1, true);
  EXPECT_EQ(-1.0f, min);
  EXPECT_EQ(static_cast<float>(127.0 * (6.0f / 255.0f)), max);
  // With the full ladder the range never leaves [-1, 3].
  std::vector<float> v = {-1.0f, 3.0f};
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> u(-1.0f, 3.0f);
  for (int i = 0; i < 2000; ++i) v.push_back(u(rng));
  CalibrationWithMeanSquareError(v.data(), v.size(), min, max, 500, true);
  EXPECT_GE(min, -1.0f);
  EXPECT_LE(max, 3.0f);
  float rmin, rmax;
  ReferenceMeanSquareError(v.data(), v.size(), rmin, rmax, 500, true);
  EXPECT_SAME_BITS(rmin, min);
  EXPECT_SAME_BITS(rmax, max);
}

TEST(CalibrationWithMeanSquareError, AsymmetricZeroPointClampsAndMinusOneTwentyEight) {
  // Data in [1, 2]: scale 1/255, zero = -RoundClip(1.5 * 255) = -127. The
  // grid reaches (-128 + 127) * scale below 0, so the minimum is the data's;
  // the maximum is (127 + 127) * scale, inside the data.
  const float data[] = {1.0f, 1.25f, 2.0f};
  float min = 0.0f, max = 0.0f;
  CalibrationWithMeanSquareError(data, 3, min, max, 1, false);
  EXPECT_EQ(1.0f, min);
  EXPECT_EQ(static_cast<float>(254.0 * (1.0f / 255.0f)), max);
}

TEST(CalibrationWithMeanSquareError, NegligibleElementsAreLeftOut) {
  // 9.9999997e-7 (the float nearest 1e-6) is below 1e-6 in double and left
  // out; without the cut the range would reach it.
  const float data[] = {9.9999997e-7f, -5e-7f, 2.0f, 3.0f};
  float min = 0.0f, max = 0.0f;
  CalibrationWithMeanSquareError(data, 4, min, max, 10, false);
  float rmin, rmax;
  const float kept[] = {2.0f, 3.0f};
  ReferenceMeanSquareError(kept, 2, rmin, rmax, 10, false);
  EXPECT_SAME_BITS(rmin, min);
  EXPECT_SAME_BITS(rmax, max);
  EXPECT_EQ(2.0f, min);
}

TEST(CalibrationWithMeanSquareErrorDeathTest, NaNEndsTheProcessSilently) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const float data[] = {1.0f, kNaN, 2.0f};
  float min = 0.0f, max = 0.0f;
  EXPECT_EXIT(CalibrationWithMeanSquareError(data, 3, min, max, 500, false),
              ::testing::ExitedWithCode(255), "^$");
  MeanSquareErrorObserver observer(true);
  EXPECT_EXIT(observer.Observe(data, 3), ::testing::ExitedWithCode(255), "^$");
}

TEST(CalibrationWithMeanSquareErrorDeathTest, NothingLeftEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const float zeros[] = {0.0f, 1e-7f, -0.0f};
  float min = 0.0f, max = 0.0f;
  EXPECT_DEATH(CalibrationWithMeanSquareError(zeros, 3, min, max, 500, false), "");
  EXPECT_DEATH(CalibrationWithMeanSquareError(zeros, 0, min, max, 500, true), "");
}

TEST(CalibrationWithMeanSquareError, NoStepsKeepsTheInitialBest) {
  // No candidate: best scale and zero stay 0, so lo = -0 and hi = 0, cut to
  // the data's extremes.
  const float data[] = {-2.0f, 3.0f};
  float min = 7.0f, max = 7.0f;
  CalibrationWithMeanSquareError(data, 2, min, max, 0, false);
  EXPECT_SAME_BITS(-0.0f, min);
  EXPECT_SAME_BITS(0.0f, max);
}

struct SearchCase {
  int kind;
  size_t n;
  int steps;
  bool symmetric;
};

TEST(CalibrationWithMeanSquareError, EveryKernelMatchesTheDefinitionBitForBit) {
  const SearchCase cases[] = {{0, 20000, 500, false}, {0, 20000, 500, true}, {1, 9999, 500, false},
                              {1, 9999, 500, true},   {2, 5000, 500, false}, {3, 4096, 500, false},
                              {3, 4096, 499, true},   {4, 3000, 37, false},  {1, 1, 500, false},
                              {1, 33, 1, true},       {0, 777, 65, false},   {4, 100, 500, true}};
  int seed = 11;
  for (const SearchCase& c : cases) {
    const std::vector<float> data = MakeData(c.kind, c.n, seed++);
    float want_min, want_max;
    ReferenceMeanSquareError(data.data(), data.size(), want_min, want_max, c.steps, c.symmetric);
    const std::string what = "kind " + std::to_string(c.kind) + " n " + std::to_string(c.n) +
                             " steps " + std::to_string(c.steps) +
                             (c.symmetric ? " symmetric" : "");
    float min = 0.0f, max = 0.0f;
    CalibrationWithMeanSquareError(data.data(), data.size(), min, max, c.steps, c.symmetric);
    EXPECT_SAME_BITS(want_min, min) << what;
    EXPECT_SAME_BITS(want_max, max) << what;
    for (const auto* k : Kernels()) {
      CalibrationWithMeanSquareError(*k, data.data(), data.size(), min, max, c.steps, c.symmetric);
      EXPECT_SAME_BITS(want_min, min) << what << " " << k->name;
      EXPECT_SAME_BITS(want_max, max) << what << " " << k->name;
    }
  }
}

// Kernels with made-up errors, to see the choice among equal and NaN errors.
void AllEqualErrors(const float*, unsigned long, const float*, const float*, double* errors) {
  for (int k = 0; k < 8; ++k) errors[k] = 1.0;
}
float g_only_scale = 0.0f;
void NaNExceptOneScale(const float*, unsigned long, const float* scales, const float*,
                       double* errors) {
  for (int k = 0; k < 8; ++k) errors[k] = scales[k] == g_only_scale ? 5.0 : std::nan("");
}

TEST(CalibrationWithMeanSquareError, OfEqualErrorsTheLastToArriveWins) {
  // One thread: candidates arrive in order, and >= lets the last one win. 20
  // candidates in groups of 8 (the last group has 4).
  const float data[] = {-1.0f, 3.0f};
  const float max_scale = 6.0f / 255.0f;
  const float delta = max_scale / 20.0f;
  const kernels::SquaredErrorKernel equal = {"equal", 8, AllEqualErrors, nullptr};
  const int saved = omp_get_max_threads();
  omp_set_num_threads(1);
  float min = 0.0f, max = 0.0f;
  CalibrationWithMeanSquareError(equal, data, 2, min, max, 20, true);
  const float last = std::fma(-delta, 19.0f, max_scale);
  EXPECT_EQ(static_cast<float>(-128.0 * last), min);
  EXPECT_EQ(static_cast<float>(127.0 * last), max);

  // NaN errors never win (best_error >= NaN is false).
  g_only_scale = std::fma(-delta, 15.0f, max_scale);
  const kernels::SquaredErrorKernel nans = {"nans", 8, NaNExceptOneScale, nullptr};
  CalibrationWithMeanSquareError(nans, data, 2, min, max, 20, true);
  omp_set_num_threads(saved);
  EXPECT_EQ(static_cast<float>(-128.0 * g_only_scale), min);
  EXPECT_EQ(static_cast<float>(127.0 * g_only_scale), max);
}

TEST(CalibrationWithMeanSquareError, ThreadCountDoesNotChangeTheResult) {
  // Without equal errors the choice does not depend on the order of arrival.
  const std::vector<float> data = MakeData(1, 30000, 5);
  std::vector<std::pair<float, float>> results;
  const int saved = omp_get_max_threads();
  for (int threads : {1, 2, 3, 4}) {
    omp_set_num_threads(threads);
    float min = 0.0f, max = 0.0f;
    CalibrationWithMeanSquareError(data.data(), data.size(), min, max, 500, false);
    results.emplace_back(min, max);
  }
  omp_set_num_threads(saved);
  for (const auto& r : results) {
    EXPECT_SAME_BITS(results[0].first, r.first);
    EXPECT_SAME_BITS(results[0].second, r.second);
  }
}

// ---- the observer ----

TEST(MeanSquareErrorObserver, TypeAndSettings) {
  MeanSquareErrorObserver observer(true);
  EXPECT_EQ(4, observer.GetObserverType());
  EXPECT_EQ("MeanSquareError", observer.GetObserverTypeString());
  EXPECT_TRUE(observer.symmetric);
  EXPECT_EQ(8, observer.bits);
  EXPECT_EQ(500, observer.steps);
  EXPECT_TRUE(observer.IsInitial());
  MeanSquareErrorObserver plain;
  EXPECT_FALSE(plain.symmetric);
  EXPECT_EQ(500, plain.steps);
}

TEST(MeanSquareErrorObserver, OnlyTheFirstDataCount) {
  // Frugal mode would show one item per call: the range is the first item's,
  // while one call on the concatenation gives the whole set's range.
  const std::vector<float> a = MakeData(1, 4000, 21);
  std::vector<float> b = MakeData(1, 4000, 22);
  for (float& x : b) x *= 3.0f;
  MeanSquareErrorObserver frugal(false);
  frugal.Observe(a.data(), a.size());
  frugal.Observe(b.data(), b.size());
  float min, max;
  frugal.Extract(min, max);
  float want_min, want_max;
  ReferenceMeanSquareError(a.data(), a.size(), want_min, want_max, 500, false);
  EXPECT_SAME_BITS(want_min, min);
  EXPECT_SAME_BITS(want_max, max);
  // The limits follow all the data all the same.
  EXPECT_EQ(*std::min_element(b.begin(), b.end()), frugal.min_lower);

  std::vector<float> all = a;
  all.insert(all.end(), b.begin(), b.end());
  MeanSquareErrorObserver batch(false);
  batch.Observe(all.data(), all.size());
  batch.Extract(min, max);
  ReferenceMeanSquareError(all.data(), all.size(), want_min, want_max, 500, false);
  EXPECT_SAME_BITS(want_min, min);
  EXPECT_SAME_BITS(want_max, max);
}

// ---- cosine similarity ----

double ReferenceCosine(const float* data, unsigned long count, float cmin, float cmax) {
  std::vector<float> y(data, data + count);
  FakeQuantization(y.data(), count, cmin, cmax, 8);
  double xx = 0.0, xy = 0.0, yy = 0.0;
  for (unsigned long j = 0; j < count; ++j) {
    const float a = data[j] * data[j];
    const float b = data[j] * y[j];
    const float c = y[j] * y[j];
    xx += a;
    xy += b;
    yy += c;
  }
  if ((xx == 0.0 && yy == 0.0) || count == 0) return 1.0;
  return xy / std::sqrt(xx * yy);
}

// The search as defined, candidates scored in list order.
void ReferenceCosineSim(const float* data, unsigned long count, float& min, float& max, int steps,
                        float& similarity, int* coarse_candidates = nullptr,
                        float* coarse_max = nullptr) {
  float vmin, vmax;
  CalibrationWithPeak(data, count, vmin, vmax);
  float step_min = vmin / float(steps);
  float step_max = vmax / float(steps);
  std::vector<std::pair<float, float>> list;
  for (int i = 0; i < steps; ++i) {
    list.emplace_back(std::fma(-float(i), step_min, vmin), std::fma(-float(i), step_max, vmax));
  }
  if (coarse_candidates) *coarse_candidates = static_cast<int>(list.size());
  double best = 0.0;
  auto score = [&] {
    for (const auto& c : list) {
      const double cosine = ReferenceCosine(data, count, c.first, c.second);
      if (best < cosine) {
        best = cosine;
        min = c.first;
        max = c.second;
      }
    }
  };
  score();
  if (coarse_max) *coarse_max = max;
  list.clear();
  step_min = step_min / 100.0;
  step_max = step_max / 100.0;
  for (int i = 0; i < 50; ++i) {
    // Not fused: each product and each sum rounded on its own.
    const float off_min = float(i) * step_min;
    const float off_max = float(i) * step_max;
    list.emplace_back(min - off_min, vmax - off_max);
    list.emplace_back(min + off_min, vmax + off_max);
  }
  score();
  similarity = static_cast<float>(best);
}

TEST(CalibrationWithCosineSim, MatchesTheDefinition) {
  const int saved = omp_get_max_threads();
  for (int kind : {0, 1, 3}) {
    const std::vector<float> data = MakeData(kind, 3000, 40 + kind);
    float want_min = 0.0f, want_max = 0.0f, want_sim = 0.0f;
    ReferenceCosineSim(data.data(), data.size(), want_min, want_max, 50, want_sim);
    // One thread: the same order of arrival as the definition.
    omp_set_num_threads(1);
    float min = 0.0f, max = 0.0f, sim = 0.0f;
    CalibrationWithCosineSim(data.data(), data.size(), min, max, 50, sim);
    EXPECT_SAME_BITS(want_min, min) << kind;
    EXPECT_SAME_BITS(want_max, max) << kind;
    EXPECT_SAME_BITS(want_sim, sim) << kind;
    // More threads: the best score is the same, whichever equal candidate won.
    omp_set_num_threads(3);
    CalibrationWithCosineSim(data.data(), data.size(), min, max, 50, sim);
    EXPECT_SAME_BITS(want_sim, sim) << kind;
    EXPECT_SAME_BITS(float(ReferenceCosine(data.data(), data.size(), min, max)), sim) << kind;
  }
  omp_set_num_threads(saved);
}

TEST(CalibrationWithCosineSim, FineMaximaStayOnTheDataMaximum) {
  // A large bulk in [-1, 1] with one outlier at -30: the coarse pass shrinks
  // both ends, so its winner's maximum is below the data's 1, and a fine
  // candidate, its maximum centred on the data's maximum, does better.
  std::mt19937 rng(9);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::vector<float> data(100000);
  for (float& x : data) x = u(rng);
  data[10] = -30.0f;
  float want_min = 0.0f, want_max = 0.0f, want_sim = 0.0f, coarse_max = 0.0f;
  ReferenceCosineSim(data.data(), data.size(), want_min, want_max, 50, want_sim, nullptr,
                     &coarse_max);
  const float vmax = *std::max_element(data.begin(), data.end());
  ASSERT_LT(coarse_max, vmax);
  ASSERT_NE(coarse_max, want_max);  // the fine pass won
  const int saved = omp_get_max_threads();
  omp_set_num_threads(1);
  float min = 0.0f, max = 0.0f, sim = 0.0f;
  CalibrationWithCosineSim(data.data(), data.size(), min, max, 50, sim);
  omp_set_num_threads(saved);
  EXPECT_SAME_BITS(want_min, min);
  EXPECT_SAME_BITS(want_max, max);
  EXPECT_SAME_BITS(want_sim, sim);
}

TEST(CalibrationWithCosineSim, OneStepHasOneCoarseCandidateTheExtremes) {
  const float data[] = {-2.0f, -0.3f, 0.1f, 0.7f, 4.0f};
  int coarse = 0;
  float want_min = 0.0f, want_max = 0.0f, want_sim = 0.0f, coarse_max = 0.0f;
  ReferenceCosineSim(data, 5, want_min, want_max, 1, want_sim, &coarse, &coarse_max);
  EXPECT_EQ(1, coarse);
  EXPECT_EQ(4.0f, coarse_max);  // the one coarse candidate: the extremes
  float min = 0.0f, max = 0.0f, sim = 0.0f;
  CalibrationWithCosineSim(data, 5, min, max, 1, sim);
  EXPECT_SAME_BITS(want_sim, sim);
  EXPECT_SAME_BITS(float(ReferenceCosine(data, 5, min, max)), sim);
  // The maximum side stays centred on the data's maximum (4), moving by
  // hundredths of it; the minimum around the coarse winner, the extreme -2.
  EXPECT_LE(std::fabs(max - 4.0f), 49 * 0.04f + 1e-5f);
  EXPECT_LE(std::fabs(min + 2.0f), 49 * 0.02f + 1e-5f);
}

// Data in [-0.5, 1] with 10 steps: the fine steps are -0.05f / 100.0 and
// 0.1f / 100.0 in float. For i = 30 and 37 a fused multiply-add would round
// differently from the product rounded, then the sum rounded.
TEST(CalibrationWithCosineSim, FineCandidatesAreNotFused) {
  const float step_min = static_cast<float>(-0.5f / 10.0f / 100.0);
  const float step_max = static_cast<float>(1.0f / 10.0f / 100.0);
  ASSERT_EQ(0xBA03126Fu, Bits(step_min));
  ASSERT_EQ(0x3A83126Fu, Bits(step_max));
  const std::vector<std::pair<float, float>> c =
      CosineSimFineCandidates(-0.5f, 1.0f, step_min, step_max);
  ASSERT_EQ(100u, c.size());
  // i = 30, minus side: -0.5 - 30 * step_min and 1 - 30 * step_max.
  EXPECT_EQ(0xBEF851ECu, Bits(c[60].first));
  EXPECT_EQ(0x3F7851ECu, Bits(c[60].second));
  EXPECT_EQ(0xBEF851EBu, Bits(std::fma(-30.0f, step_min, -0.5f)));  // fused: 1 ulp off
  EXPECT_EQ(0x3F7851EBu, Bits(std::fma(-30.0f, step_max, 1.0f)));
  // i = 37, plus side.
  EXPECT_EQ(0xBF04BC6Au, Bits(c[75].first));
  EXPECT_EQ(0x3F84BC6Au, Bits(c[75].second));
  EXPECT_EQ(0xBF04BC6Bu, Bits(std::fma(37.0f, step_min, -0.5f)));
  EXPECT_EQ(0x3F84BC6Bu, Bits(std::fma(37.0f, step_max, 1.0f)));
  // Every pair, against the two roundings spelt out with volatile temporaries.
  for (int i = 0; i < 50; ++i) {
    volatile float off_min = float(i) * step_min;
    volatile float off_max = float(i) * step_max;
    volatile float lo_minus = -0.5f - off_min, hi_minus = 1.0f - off_max;
    volatile float lo_plus = -0.5f + off_min, hi_plus = 1.0f + off_max;
    EXPECT_SAME_BITS(float(lo_minus), c[2 * i].first) << i;
    EXPECT_SAME_BITS(float(hi_minus), c[2 * i].second) << i;
    EXPECT_SAME_BITS(float(lo_plus), c[2 * i + 1].first) << i;
    EXPECT_SAME_BITS(float(hi_plus), c[2 * i + 1].second) << i;
  }
  // The pair for i = 0 comes twice: the best minimum and the data's maximum.
  EXPECT_EQ(c[0], c[1]);
  EXPECT_EQ(std::make_pair(-0.5f, 1.0f), c[0]);
}

TEST(CalibrationWithCosineSim, NoScoreAboveZeroKeepsTheCallersRange) {
  // A NaN makes every cosine NaN, and NaN never beats 0.
  const float data[] = {1.0f, kNaN, 2.0f};
  float min = -5.0f, max = 6.0f, sim = 9.0f;
  CalibrationWithCosineSim(data, 3, min, max, 10, sim);
  EXPECT_EQ(-5.0f, min);
  EXPECT_EQ(6.0f, max);
  EXPECT_SAME_BITS(0.0f, sim);
}

TEST(CalibrationWithCosineSim, EmptyDataScoresOne) {
  // Every candidate scores 1; on one thread the first, the initial pair of
  // the peak (FLT_MAX, -FLT_MAX), arrives first and stays.
  const int saved = omp_get_max_threads();
  omp_set_num_threads(1);
  float min = 1.0f, max = 2.0f, sim = 0.0f;
  CalibrationWithCosineSim(nullptr, 0, min, max, 3, sim);
  omp_set_num_threads(saved);
  EXPECT_SAME_BITS(FLT_MAX, min);
  EXPECT_SAME_BITS(-FLT_MAX, max);
  EXPECT_EQ(1.0f, sim);
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
