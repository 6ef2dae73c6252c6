// For tests that fill a tensor of more than 2^31 - 1 floats (8.6 GB): how
// much memory the machine has free, and a lock that keeps such tests from
// running at the same time, also from different test programs that ctest
// runs in parallel.
#pragma once

#include <cstdint>

namespace qzdl::test {

// MemAvailable of /proc/meminfo in bytes (0 when unknown).
int64_t AvailableMemory();

// An exclusive lock on a file in the temp folder, held for the object's life.
class BigMemoryLock {
 public:
  BigMemoryLock();
  ~BigMemoryLock();
  BigMemoryLock(const BigMemoryLock&) = delete;
  BigMemoryLock& operator=(const BigMemoryLock&) = delete;

 private:
  int fd_ = -1;
};

// What such a test needs free before it starts.
constexpr int64_t kBigTestMemory = int64_t(10) << 30;

}  // namespace qzdl::test
