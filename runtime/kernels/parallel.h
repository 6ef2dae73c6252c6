// Splitting element-wise work over OpenMP threads.
#pragma once

#include <algorithm>
#include <cstdint>

namespace qzdl {

// Below this many elements a loop runs on one thread: the fork costs more.
constexpr int64_t kParallelGrain = 16384;

// Calls fn(begin, end) on contiguous chunks covering [0, n). Each element is
// handled by exactly one call, so results do not depend on the thread count.
// Chunks are handed out one at a time rather than in fixed shares, so that on
// a loaded machine a thread the scheduler has parked does not hold the others
// up: whoever is running takes the next chunk.
template <typename Fn>
void ParallelFor(int64_t n, Fn fn, int64_t grain = kParallelGrain) {
  if (n <= grain) {
    if (n > 0) fn(int64_t(0), n);
    return;
  }
  const int64_t chunks = (n + grain - 1) / grain;
#pragma omp parallel for schedule(dynamic, 1)
  for (int64_t c = 0; c < chunks; ++c) fn(c * grain, std::min(n, (c + 1) * grain));
}

}  // namespace qzdl
