// Splitting work over threads.
//
// The float runtime runs its parallel loops on a pool of its own rather than
// in OpenMP regions. An OpenMP region ends in a barrier that waits for every
// thread of the team, also for one that the scheduler has parked before it
// even started: on a machine shared with other jobs each layer then waits a
// scheduler time slice (milliseconds) for it. Here the calling thread works
// too, items are claimed one at a time, and the call returns as soon as
// every item is done: a thread that has not woken up by then is not waited
// for, and the running threads take over its share.
//
// Each item is run by exactly one thread, so results do not depend on the
// thread count or on which thread ran what.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>

namespace qzdl {

// Below this many elements a loop runs on one thread: the fork costs more.
constexpr int64_t kParallelGrain = 16384;

// How many threads a loop started here may use: the calling thread's OpenMP
// thread count (OMP_NUM_THREADS, omp_set_num_threads), and 1 inside an item
// of a parallel loop or inside an OpenMP parallel region.
int ParallelThreads();

// Runs item(ctx, i, slot) for every i in [0, items), on the calling thread
// and on at most threads - 1 pool threads. `slot`, in [0, threads), names the
// running thread for the length of the call (for per-thread scratch);
// join(ctx, slot), when not null, runs once on each thread that takes part,
// before its first item. Inside items, libraries threaded with OpenMP
// (oneDNN) see one thread and stay on the thread that called them. Returns
// when every item has run. The low-level form; see ParallelItems.
void ParallelRun(int64_t items, int threads, void* ctx,
                 void (*item)(void* ctx, int64_t i, int slot),
                 void (*join)(void* ctx, int slot) = nullptr);

// fn(i, slot) for i in [0, items), as ParallelRun, on at most
// min(threads, ParallelThreads()) threads.
template <typename Fn>
void ParallelItems(int64_t items, int threads, Fn&& fn) {
  using F = std::remove_reference_t<Fn>;
  ParallelRun(items, threads, const_cast<void*>(static_cast<const void*>(&fn)),
              [](void* ctx, int64_t i, int slot) { (*static_cast<F*>(ctx))(i, slot); });
}

// The same with a join step: init(slot) once per taking-part thread.
template <typename Init, typename Fn>
void ParallelItems(int64_t items, int threads, Init&& init, Fn&& fn) {
  struct Both {
    std::remove_reference_t<Init>* init;
    std::remove_reference_t<Fn>* fn;
  } both{&init, &fn};
  ParallelRun(
      items, threads, &both,
      [](void* ctx, int64_t i, int slot) { (*static_cast<Both*>(ctx)->fn)(i, slot); },
      [](void* ctx, int slot) { (*static_cast<Both*>(ctx)->init)(slot); });
}

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
  ParallelItems(chunks, ParallelThreads(),
                [&](int64_t c, int) { fn(c * grain, std::min(n, (c + 1) * grain)); });
}

}  // namespace qzdl
