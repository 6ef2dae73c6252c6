#include "support/big_memory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace qzdl::test {

int64_t AvailableMemory() {
  std::ifstream info("/proc/meminfo");
  std::string line;
  while (std::getline(info, line)) {
    std::istringstream words(line);
    std::string key;
    int64_t kib = 0;
    if (words >> key >> kib && key == "MemAvailable:") return kib * 1024;
  }
  return 0;
}

BigMemoryLock::BigMemoryLock() {
  fd_ = open("/tmp/qzdl-tests-big-memory.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  // Without the file the tests still run, only not kept apart.
  if (fd_ >= 0) flock(fd_, LOCK_EX);
}

BigMemoryLock::~BigMemoryLock() {
  if (fd_ >= 0) close(fd_);
}

}  // namespace qzdl::test
