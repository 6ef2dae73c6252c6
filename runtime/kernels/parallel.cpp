#include "runtime/kernels/parallel.h"

#include <omp.h>
#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace qzdl {

namespace {

using ItemFn = void (*)(void*, int64_t, int);
using JoinFn = void (*)(void*, int);
using Clock = std::chrono::steady_clock;

// A share of a loop's items is one word: an epoch (which loop) and the
// items not yet claimed. A thread claims an item by decrementing the word
// with a compare-and-swap against the epoch it saw, so a thread that comes
// late, after the loop has ended, can only fail to claim: it never runs an
// item of a loop it did not see, nor one of the next loop with the last
// one's function. The epoch has 24 bits: a claim could go wrong only for a
// thread stalled between reading a word and swapping it while 16 million
// loops ran and the word came back to the very same value.
constexpr int kRemainingBits = 40;
constexpr uint64_t kRemainingMask = (uint64_t(1) << kRemainingBits) - 1;
constexpr uint64_t kEpochMask = (uint64_t(1) << (64 - kRemainingBits)) - 1;
constexpr int kMaxWorkers = 255;

// After a loop, pool threads poll for the next one this long, then sleep:
// within a forward the next layer's loop comes within microseconds, and a
// sleeping thread takes tens of microseconds to wake.
constexpr auto kSpinTime = std::chrono::microseconds(200);
// But polling only pays on a machine with a core to spare. On a loaded one
// a polling thread burns the time slice it then lacks for work (and, where
// the scheduler shares time between sessions, the time of our own calling
// thread), while a sleeping one is woken promptly. A pool thread takes the
// machine for loaded when it was descheduled while polling (its clock
// jumped) or was preempted kContendedSwitches times within
// kContendedWindow, and then sleeps at once for kNoSpinTime.
constexpr auto kPreemptedGap = std::chrono::microseconds(50);
constexpr long kContendedSwitches = 3;
constexpr auto kContendedWindow = std::chrono::milliseconds(20);
constexpr auto kNoSpinTime = std::chrono::milliseconds(100);
// The calling thread polls this long for items that pool threads still
// run, then yields its core between polls (the thread it waits for may
// need it).
constexpr auto kWaitSpinTime = std::chrono::microseconds(50);

uint64_t EpochOf(uint64_t word) { return word >> kRemainingBits; }
uint64_t RemainingOf(uint64_t word) { return word & kRemainingMask; }

// True while the thread runs items: pool threads always, the calling thread
// for the length of a loop. Loops started there run serially.
thread_local bool t_in_item = false;

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield" ::: "memory");
#endif
}

// Times this thread was preempted (Linux; elsewhere 0, never "loaded").
long InvoluntarySwitches() {
#if defined(RUSAGE_THREAD)
  rusage usage;
  if (getrusage(RUSAGE_THREAD, &usage) == 0) return usage.ru_nivcsw;
#endif
  return 0;
}

// For the scope: this thread's OpenMP thread count, and the in-item flag.
// oneDNN then runs its calls on this thread (it asks omp_get_max_threads()).
class ItemScope {
 public:
  ItemScope() : saved_threads_(omp_get_max_threads()), saved_in_item_(t_in_item) {
    if (saved_threads_ != 1) omp_set_num_threads(1);
    t_in_item = true;
  }
  ~ItemScope() {
    if (saved_threads_ != 1) omp_set_num_threads(saved_threads_);
    t_in_item = saved_in_item_;
  }

 private:
  int saved_threads_;
  bool saved_in_item_;
};

class Pool {
 public:
  // Runs the loop with the pool's help; false (nothing run) when another
  // thread's loop holds the pool.
  bool TryRun(int64_t items, int threads, void* ctx, ItemFn item, JoinFn join);

 private:
  // Items of one thread's share: at the start a contiguous run, which its
  // owner claims from the front; once a thread's own share is used up it
  // claims from the others' (so on a quiet machine threads keep their part
  // of the data in their caches from layer to layer, and on a loaded one the
  // running threads take over the share of a parked one).
  struct alignas(64) Share {
    std::atomic<uint64_t> word{0};  // epoch | items not yet claimed
    std::atomic<int64_t> end{0};    // one past its last item
  };
  // What a pool thread knows of the machine's load.
  struct Contention {
    Clock::time_point no_spin_until{};
    Clock::time_point window_start{};
    long window_switches = 0;
  };

  void Grow(int workers);
  void WorkerMain(int slot);
  // Claims and runs items of loop `epoch` until none is left (or `slot` is
  // beyond the loop's thread count); returns how many.
  int64_t Take(uint64_t epoch, int slot);
  // Waits until a loop other than `epoch` starts; returns its epoch.
  uint64_t WaitForLoop(uint64_t epoch, Contention* contention);

  std::mutex run_mutex_;  // one loop at a time
  uint64_t epoch_ = 0;    // under run_mutex_; 0 before the first loop
  int workers_ = 0;       // under run_mutex_

  Share shares_[kMaxWorkers + 1];
  alignas(64) std::atomic<uint64_t> start_{0};  // the epoch of the last loop started
  alignas(64) std::atomic<int64_t> done_{0};    // items finished by pool threads
  // The loop's description, written before the loop starts. Atomic because
  // a late thread may read them while the next loop writes them; it then
  // fails its claim and drops what it read.
  alignas(64) std::atomic<int> threads_{1};
  std::atomic<void*> ctx_{nullptr};
  std::atomic<ItemFn> item_{nullptr};
  std::atomic<JoinFn> join_{nullptr};

  alignas(64) std::mutex sleep_mutex_;
  std::condition_variable wake_;
  std::atomic<int> sleepers_{0};
};

int64_t Pool::Take(uint64_t epoch, int slot) {
  // The next loop's when loop `epoch` has ended: every claim below then
  // fails.
  const int threads = threads_.load(std::memory_order_acquire);
  if (slot >= threads) return 0;
  bool joined = false;
  int64_t ran = 0;
  for (int k = 0; k < threads; ++k) {
    Share& share = shares_[(slot + k) % threads];
    uint64_t word = share.word.load(std::memory_order_acquire);
    while (EpochOf(word) == epoch && RemainingOf(word) != 0) {
      // Read before the claim; this loop's exactly when the claim succeeds
      // (the next loop's are written only once all items are done).
      const int64_t end = share.end.load(std::memory_order_acquire);
      void* const ctx = ctx_.load(std::memory_order_acquire);
      const ItemFn item = item_.load(std::memory_order_acquire);
      const JoinFn join = join_.load(std::memory_order_acquire);
      if (!share.word.compare_exchange_weak(word, word - 1, std::memory_order_acq_rel,
                                            std::memory_order_acquire))
        continue;
      if (!joined) {
        joined = true;
        if (join != nullptr) join(ctx, slot);
      }
      item(ctx, end - static_cast<int64_t>(RemainingOf(word)), slot);
      ++ran;
      word = share.word.load(std::memory_order_acquire);
    }
  }
  if (ran > 0 && slot != 0) done_.fetch_add(ran, std::memory_order_acq_rel);
  return ran;
}

uint64_t Pool::WaitForLoop(uint64_t epoch, Contention* contention) {
  uint64_t started = start_.load(std::memory_order_acquire);
  if (started != epoch) return started;
  Clock::time_point last = Clock::now();
  if (last >= contention->no_spin_until) {
    const Clock::time_point until = last + kSpinTime;
    for (;;) {
      for (int k = 0; k < 64; ++k) {
        CpuRelax();
        started = start_.load(std::memory_order_acquire);
        if (started != epoch) return started;
      }
      const Clock::time_point now = Clock::now();
      if (now - last > kPreemptedGap) {
        contention->no_spin_until = now + kNoSpinTime;
        break;
      }
      if (now >= until) break;
      last = now;
    }
  }
  std::unique_lock<std::mutex> lock(sleep_mutex_);
  // Sequentially consistent with the store of start_ and the load of
  // sleepers_ in TryRun: either this thread sees the new loop or TryRun
  // sees it asleep and wakes it.
  sleepers_.fetch_add(1);
  while ((started = start_.load()) == epoch) wake_.wait(lock);
  sleepers_.fetch_sub(1);
  return started;
}

void Pool::WorkerMain(int slot) {
  omp_set_num_threads(1);  // see ItemScope
  t_in_item = true;
  uint64_t epoch = 0;
  Contention contention;
  contention.window_switches = InvoluntarySwitches();
  for (;;) {
    epoch = WaitForLoop(epoch, &contention);
    Take(epoch, slot);
    // Between loops, so the cost (a system call) is off the critical path.
    const Clock::time_point now = Clock::now();
    const long switches = InvoluntarySwitches();
    if (switches - contention.window_switches >= kContendedSwitches) {
      contention.no_spin_until = now + kNoSpinTime;
      contention.window_start = now;
      contention.window_switches = switches;
    } else if (now - contention.window_start > kContendedWindow) {
      contention.window_start = now;
      contention.window_switches = switches;
    }
  }
}

void Pool::Grow(int workers) {
  // Detached: they sleep when idle and end with the process.
  for (; workers_ < std::min(workers, kMaxWorkers); ++workers_)
    std::thread([this, slot = workers_ + 1] { WorkerMain(slot); }).detach();
}

bool Pool::TryRun(int64_t items, int threads, void* ctx, ItemFn item, JoinFn join) {
  std::unique_lock<std::mutex> lock(run_mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return false;
  Grow(threads - 1);
  threads = std::min(threads, workers_ + 1);
  done_.store(0, std::memory_order_relaxed);
  threads_.store(threads, std::memory_order_relaxed);
  ctx_.store(ctx, std::memory_order_relaxed);
  item_.store(item, std::memory_order_relaxed);
  join_.store(join, std::memory_order_relaxed);
  epoch_ = (epoch_ + 1) & kEpochMask;
  if (epoch_ == 0) epoch_ = 1;
  for (int s = 0; s < threads; ++s) {
    const int64_t begin = items * s / threads, end = items * (s + 1) / threads;
    shares_[s].end.store(end, std::memory_order_relaxed);
    shares_[s].word.store((epoch_ << kRemainingBits) | static_cast<uint64_t>(end - begin),
                          std::memory_order_relaxed);
  }
  start_.store(epoch_);  // sequentially consistent, see WaitForLoop
  if (sleepers_.load() > 0) {
    std::lock_guard<std::mutex> sleep_lock(sleep_mutex_);
    wake_.notify_all();
  }
  int64_t own = 0;
  {
    ItemScope scope;
    own = Take(epoch_, 0);
  }
  // Items that pool threads claimed and still run. A thread that claimed
  // none (asleep, or parked by the scheduler) is not waited for.
  const int64_t others = items - own;
  if (done_.load(std::memory_order_acquire) < others) {
    const Clock::time_point until = Clock::now() + kWaitSpinTime;
    for (int k = 1; done_.load(std::memory_order_acquire) < others; ++k) {
      if (k % 64 != 0) {
        CpuRelax();
      } else if (Clock::now() >= until) {
        std::this_thread::yield();
        k = 0;
      }
    }
  }
  return true;
}

// The pool of this process: a forked child (which has no pool threads)
// starts a new one.
std::atomic<Pool*> g_pool{nullptr};

void ForgetPoolInChild() { g_pool.store(nullptr); }

Pool& GetPool() {
  Pool* pool = g_pool.load(std::memory_order_acquire);
  if (pool != nullptr) return *pool;
  static const int registered = pthread_atfork(nullptr, nullptr, ForgetPoolInChild);
  (void)registered;
  Pool* fresh = new Pool;  // never deleted: its threads outlive main
  if (g_pool.compare_exchange_strong(pool, fresh)) return *fresh;
  delete fresh;  // another thread was first; fresh has no threads yet
  return *pool;
}

}  // namespace

int ParallelThreads() {
  if (t_in_item || omp_in_parallel()) return 1;
  return std::max(1, omp_get_max_threads());
}

void ParallelRun(int64_t items, int threads, void* ctx, void (*item)(void*, int64_t, int),
                 void (*join)(void*, int)) {
  if (items <= 0) return;
  threads = std::min(threads, ParallelThreads());
  if (items < threads) threads = static_cast<int>(items);
  if (threads > 1 && static_cast<uint64_t>(items) <= kRemainingMask &&
      GetPool().TryRun(items, threads, ctx, item, join))
    return;
  ItemScope scope;
  if (join != nullptr) join(ctx, 0);
  for (int64_t i = 0; i < items; ++i) item(ctx, i, 0);
}

}  // namespace qzdl
