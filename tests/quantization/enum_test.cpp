// The enumerating observer: its members, its candidates, and that only the
// first data count.
#include <gtest/gtest.h>

#include <cfloat>
#include <random>
#include <utility>
#include <vector>

#include "quantization/coverage_observer.h"
#include "quantization/entropy_observer.h"
#include "quantization/functional_search.h"
#include "quantization/mse_observer.h"
#include "quantization/observer.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::Bits;

std::vector<float> Activation(size_t n, uint32_t seed, float scale) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = normal(rng) * scale;
  return v;
}

TEST(EnumObserver, SevenMembersInOrder) {
  EnumObserver observer;
  EXPECT_EQ(8, observer.GetObserverType());
  EXPECT_EQ("CosineSearch", observer.GetObserverTypeString());
  EXPECT_TRUE(observer.IsInitial());
  EXPECT_TRUE(observer.candidates.empty());
  ASSERT_EQ(7u, observer.observers.size());
  const int types[] = {0, 1, 2, 3, 3, 3, 3};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(types[i], observer.observers[i]->GetObserverType()) << i;
  const uint32_t ratios[] = {0x3F7EB852u, 0x3F7FDF3Bu, 0x3F7FFCB9u, 0x3F7FFFACu};
  for (int i = 0; i < 4; ++i) {
    const auto* c = static_cast<CoverageObserver*>(observer.observers[3 + i]);
    EXPECT_EQ(ratios[i], Bits(c->coverage_ratio)) << i;
    EXPECT_EQ(1, c->total);
  }
  const auto* entropy = static_cast<EntropyObserver*>(observer.observers[2]);
  EXPECT_EQ(8, entropy->bits);
  EXPECT_EQ(23205, entropy->bins);
  EXPECT_EQ(128, entropy->upsample);
  for (Observer* member : observer.observers) EXPECT_EQ("", member->name);
}

TEST(EnumObserver, SetTotalReachesOnlyTheCoverageMembers) {
  EnumObserver observer;
  observer.SetTotal(12);
  for (int i = 3; i < 7; ++i) {
    EXPECT_EQ(12, static_cast<CoverageObserver*>(observer.observers[i])->total) << i;
  }
}

TEST(EnumObserver, CandidatesAreTheMembersRangesOnTheFirstBatch) {
  const std::vector<float> first = Activation(50000, 1, 1.0f);
  const std::vector<float> second = Activation(50000, 2, 10.0f);
  EnumObserver observer;
  observer.Observe(first.data(), first.size());
  observer.Observe(second.data(), second.size());

  // Fresh observers of the same kinds, shown the first batch only.
  PeakValueObserver peak;
  AverageObserver average;
  EntropyObserver entropy(8, 23205, 128);
  CoverageObserver c0(0.995f), c1(0.9995f), c2(0.99995f), c3(0.999995f);
  Observer* fresh[] = {&peak, &average, &entropy, &c0, &c1, &c2, &c3};
  const std::vector<std::pair<float, float>> candidates = observer.GetCandidates();
  ASSERT_EQ(7u, candidates.size());
  for (int i = 0; i < 7; ++i) {
    fresh[i]->Observe(first.data(), first.size());
    float min, max;
    fresh[i]->Extract(min, max);
    EXPECT_SAME_BITS(min, candidates[i].first) << i;
    EXPECT_SAME_BITS(max, candidates[i].second) << i;
    // The members saw the first batch only.
    float member_min, member_max;
    observer.observers[i]->Extract(member_min, member_max);
    EXPECT_SAME_BITS(min, member_min) << i;
    EXPECT_SAME_BITS(max, member_max) << i;
  }
  // The coverage ranges nest: the higher the ratio, the wider.
  for (int i = 3; i < 6; ++i) {
    EXPECT_GE(candidates[i].first, candidates[i + 1].first);
    EXPECT_LE(candidates[i].second, candidates[i + 1].second);
  }
  // The default is the 0.9995 member's.
  float min, max;
  observer.Extract(min, max);
  EXPECT_SAME_BITS(candidates[4].first, min);
  EXPECT_SAME_BITS(candidates[4].second, max);
  // The limits follow both batches.
  float env_min, env_max;
  PeakValueObserver both;
  both.Observe(first.data(), first.size());
  both.Observe(second.data(), second.size());
  both.Extract(env_min, env_max);
  EXPECT_EQ(env_min, observer.min_lower);
  EXPECT_EQ(env_max, observer.max_upper);
}

TEST(EnumObserver, SetValAndCandidatesCopy) {
  const std::vector<float> data = Activation(2000, 3, 1.0f);
  EnumObserver observer;
  observer.Observe(data.data(), data.size());
  std::vector<std::pair<float, float>> copy = observer.GetCandidates();
  copy.clear();
  EXPECT_EQ(7u, observer.GetCandidates().size());
  observer.SetVal(-0.25f, 0.75f);
  float min, max;
  observer.Extract(min, max);
  EXPECT_EQ(-0.25f, min);
  EXPECT_EQ(0.75f, max);
  // A stored choice stands: more data change nothing.
  observer.Observe(data.data(), data.size());
  observer.Extract(min, max);
  EXPECT_EQ(-0.25f, min);
  EXPECT_EQ(0.75f, max);
  EXPECT_EQ(7u, observer.candidates.size());
}

TEST(EnumObserver, FrugalTotalWidensTheCoverageStores) {
  // With SetTotal(items) the coverage members size their stores for the
  // whole run, but only the first item reaches them.
  const std::vector<float> item = Activation(10000, 4, 1.0f);
  EnumObserver observer;
  observer.SetTotal(4);
  observer.Observe(item.data(), item.size());
  const auto* c = static_cast<CoverageObserver*>(observer.observers[3]);
  unsigned long nth_min, nth_max, margin;
  ConfigureNth(40000, 0.995f, nth_min, nth_max, margin);
  EXPECT_EQ(nth_min + margin, c->min_store_size);
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
