// The runtime's parallel loops (runtime/kernels/parallel.h): every item runs
// exactly once, on a slot below the thread count, and loops nested in items,
// loops started by several threads at once and loops in a forked child all
// complete.
#include "runtime/kernels/parallel.h"

#include <gtest/gtest.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

namespace qzdl {
namespace {

class ParallelTest : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = omp_get_max_threads(); }
  void TearDown() override { omp_set_num_threads(saved_); }
  int saved_ = 1;
};

TEST_F(ParallelTest, EveryItemRunsOnceOnASlotBelowTheThreadCount) {
  for (int threads : {1, 2, 3, 4}) {
    omp_set_num_threads(threads);
    for (int64_t items : {0, 1, 2, 3, 7, 64, 1000}) {
      std::vector<std::atomic<int>> runs(items);
      std::vector<std::atomic<int>> joins(threads + 1);
      std::atomic<int> bad_slot{0};
      ParallelItems(
          items, threads, [&](int slot) { joins[std::min(slot, threads)]++; },
          [&](int64_t i, int slot) {
            if (slot < 0 || slot >= threads) bad_slot++;
            runs[i]++;
          });
      for (int64_t i = 0; i < items; ++i) EXPECT_EQ(runs[i].load(), 1) << threads << " " << i;
      EXPECT_EQ(bad_slot.load(), 0);
      for (int s = 0; s < threads; ++s) EXPECT_LE(joins[s].load(), 1);
      EXPECT_EQ(joins[threads].load(), 0);
    }
  }
}

TEST_F(ParallelTest, TheLoopThreadCountCapsTheSlots) {
  omp_set_num_threads(4);
  std::atomic<int> max_slot{0};
  for (int round = 0; round < 50; ++round) {
    ParallelItems(100, 2, [&](int64_t, int slot) {
      int seen = max_slot.load();
      while (slot > seen && !max_slot.compare_exchange_weak(seen, slot)) {
      }
    });
  }
  EXPECT_LT(max_slot.load(), 2);
}

TEST_F(ParallelTest, ParallelForCoversTheRangeInChunks) {
  omp_set_num_threads(2);
  const int64_t n = 5 * kParallelGrain + 17;
  std::vector<std::atomic<int>> hits(n);
  ParallelFor(n, [&](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) hits[i]++;
  });
  for (int64_t i = 0; i < n; ++i) ASSERT_EQ(hits[i].load(), 1) << i;
}

TEST_F(ParallelTest, ItemsSeeOneThreadAndNestedLoopsRunInline) {
  omp_set_num_threads(2);
  std::atomic<int> wrong{0}, nested{0};
  ParallelItems(16, 2, [&](int64_t, int slot) {
    if (ParallelThreads() != 1 || omp_get_max_threads() != 1) wrong++;
    const std::thread::id self = std::this_thread::get_id();
    ParallelItems(8, 2, [&](int64_t, int inner_slot) {
      if (inner_slot != 0 || std::this_thread::get_id() != self) wrong++;
      nested++;
    });
  });
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(nested.load(), 16 * 8);
  EXPECT_EQ(omp_get_max_threads(), 2);  // restored on the calling thread
  EXPECT_EQ(ParallelThreads(), 2);
}

TEST_F(ParallelTest, InsideAnOpenMPRegionLoopsRunInline) {
  omp_set_num_threads(2);
  std::atomic<int> count{0}, wrong{0};
#pragma omp parallel num_threads(2)
  {
    ParallelItems(10, 2, [&](int64_t, int slot) {
      if (slot != 0) wrong++;
      count++;
    });
  }
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(count.load(), 10 * omp_get_max_threads());
}

TEST_F(ParallelTest, LoopsFromSeveralThreadsAtOnceAllComplete) {
  omp_set_num_threads(2);
  std::atomic<int64_t> total{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 4; ++t) {
    callers.emplace_back([&] {
      for (int round = 0; round < 200; ++round)
        ParallelItems(37, 2, [&](int64_t i, int) { total += i + 1; });
    });
  }
  for (std::thread& t : callers) t.join();
  EXPECT_EQ(total.load(), int64_t(4) * 200 * (37 * 38 / 2));
}

TEST_F(ParallelTest, ManyShortLoopsInARow) {
  omp_set_num_threads(2);
  std::vector<int> out(3);
  int64_t sum = 0;
  for (int round = 0; round < 20000; ++round) {
    ParallelItems(3, 2, [&](int64_t i, int) { out[i] = round + static_cast<int>(i); });
    sum += out[0] + out[1] + out[2];
  }
  int64_t want = 0;
  for (int round = 0; round < 20000; ++round) want += 3 * round + 3;
  EXPECT_EQ(sum, want);
}

TEST_F(ParallelTest, AForkedChildRunsLoops) {
  omp_set_num_threads(2);
  std::atomic<int> count{0};
  ParallelItems(64, 2, [&](int64_t, int) { count++; });  // the pool exists
  ASSERT_EQ(count.load(), 64);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::atomic<int> in_child{0};
    ParallelItems(64, 2, [&](int64_t, int) { in_child++; });
    _exit(in_child.load() == 64 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace qzdl
