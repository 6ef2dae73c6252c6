#include "runtime/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace qzdl {

namespace {

// Small writes are gathered into one write() of this size.
constexpr size_t kBufferBytes = 256 * 1024;

// ---- The table of temporary files, reachable from a signal handler ----

constexpr int kSlots = 16;
constexpr size_t kSlotPathBytes = 4096;
enum SlotState : int { kFree = 0, kFilling = 1, kLive = 2 };

// A slot is claimed (kFree -> kFilling), filled, then published (kLive). The
// handler only reads kLive slots of its own process: a forked child that
// inherits the table must not remove its parent's files.
struct TempSlot {
  std::atomic<int> state;
  pid_t owner;
  char path[kSlotPathBytes];
};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs lock-free flags");

TempSlot g_slots[kSlots];  // static storage: all kFree

// The slot now holding `path`, or -1 when the table is full or the path too
// long (the file is then still removed on failure, only not on a signal).
int RegisterTemp(const std::string& path) {
  if (path.size() >= kSlotPathBytes) return -1;
  for (int i = 0; i < kSlots; ++i) {
    int expected = kFree;
    if (!g_slots[i].state.compare_exchange_strong(expected, kFilling)) continue;
    std::memcpy(g_slots[i].path, path.c_str(), path.size() + 1);
    g_slots[i].owner = getpid();
    g_slots[i].state.store(kLive, std::memory_order_release);
    return i;
  }
  return -1;
}

void UnregisterTemp(int slot) {
  if (slot >= 0) g_slots[slot].state.store(kFree, std::memory_order_release);
}

extern "C" void RemoveTempsAndReraise(int sig) {
  RemoveInFlightTempFiles();
  // The default action, once the handler returns and the signal is unblocked.
  struct sigaction default_action = {};
  default_action.sa_handler = SIG_DFL;
  sigemptyset(&default_action.sa_mask);
  sigaction(sig, &default_action, nullptr);
  raise(sig);
}

extern "C" void RemoveTempsAtExit() { RemoveInFlightTempFiles(); }

// The handler for the signals that end a run, for each whose action is the
// default (again) when a writer starts: a program's own handler is left
// alone. Once per process, the clean-up at exit().
void InstallCleanup() {
  static std::once_flag once;
  std::call_once(once, [] { std::atexit(RemoveTempsAtExit); });
  for (int sig : {SIGHUP, SIGINT, SIGTERM}) {
    struct sigaction current;
    if (sigaction(sig, nullptr, &current) != 0) continue;
    if ((current.sa_flags & SA_SIGINFO) != 0 || current.sa_handler != SIG_DFL) continue;
    struct sigaction action = {};
    action.sa_handler = RemoveTempsAndReraise;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
  }
}

// ---- File system helpers ----

// 0, or the errno of the failing write().
int WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Makes a rename in `folder` durable. Some file systems refuse to sync a
// folder; the file itself is on disk either way, so that is not an error.
void SyncFolder(const std::string& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  ::close(fd);
}

}  // namespace

void RemoveInFlightTempFiles() {
  const pid_t self = getpid();
  for (TempSlot& slot : g_slots) {
    if (slot.state.load(std::memory_order_acquire) == kLive && slot.owner == self) {
      unlink(slot.path);
    }
  }
}

std::string AtomicTempPath(const std::string& path) {
  return path + ".tmp." + std::to_string(getpid());
}

AtomicFileWriter::AtomicFileWriter(const std::string& path) : path_(path), target_(path) {
  InstallCleanup();
  struct stat status;
  if (lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
    // Replace the file the link points to, not the link.
    if (char* real = realpath(path.c_str(), nullptr)) {
      target_ = real;
      std::free(real);
    }
  }
  bool replaces = false;
  mode_t mode = 0;
  if (stat(target_.c_str(), &status) == 0) {
    in_place_ = !S_ISREG(status.st_mode);
    replaces = !in_place_;
    mode = status.st_mode & 07777;
  }
  if (in_place_) {
    fd_ = ::open(target_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) Fail(errno);
    return;
  }
  temp_ = AtomicTempPath(target_);
  // Listed before it exists, so that no signal can come between the two.
  slot_ = RegisterTemp(temp_);
  fd_ = ::open(temp_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
  if (fd_ < 0) {
    const int error_number = errno;
    UnregisterTemp(slot_);
    slot_ = -1;
    Fail(error_number);
    return;
  }
  own_temp_ = true;
  if (replaces) fchmod(fd_, mode);  // best effort: the contents matter most
}

AtomicFileWriter::~AtomicFileWriter() {
  if (!committed_) CloseAndRemove();
}

bool AtomicFileWriter::Fail(int error_number) {
  error_ = "cannot write \"" + path_ + "\": " + std::strerror(error_number);
  CloseAndRemove();
  return false;
}

void AtomicFileWriter::CloseAndRemove() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (own_temp_) unlink(temp_.c_str());
  own_temp_ = false;
  UnregisterTemp(slot_);
  slot_ = -1;
  buffer_.clear();
}

bool AtomicFileWriter::Flush() {
  if (buffer_.empty()) return true;
  const int error_number = WriteAll(fd_, buffer_.data(), buffer_.size());
  buffer_.clear();
  return error_number == 0 || Fail(error_number);
}

bool AtomicFileWriter::Write(const void* data, size_t size) {
  if (!ok()) return false;
  if (finished_) return Fail(EBADF);  // a write after Finish() or Commit()
  const char* bytes = static_cast<const char*>(data);
  if (buffer_.size() + size <= kBufferBytes) {
    if (buffer_.capacity() < kBufferBytes) buffer_.reserve(kBufferBytes);
    buffer_.insert(buffer_.end(), bytes, bytes + size);
    return true;
  }
  if (!Flush()) return false;
  if (size >= kBufferBytes) {
    const int error_number = WriteAll(fd_, bytes, size);
    return error_number == 0 || Fail(error_number);
  }
  buffer_.insert(buffer_.end(), bytes, bytes + size);
  return true;
}

bool AtomicFileWriter::Finish() {
  if (!ok()) return false;
  if (finished_) return true;
  if (!Flush()) return false;
  if (!in_place_ && fsync(fd_) != 0) return Fail(errno);
  const int fd = fd_;
  fd_ = -1;
  // On Linux the descriptor is gone even when close() reports EINTR.
  if (::close(fd) != 0 && errno != EINTR) return Fail(errno);
  finished_ = true;
  return true;
}

bool AtomicFileWriter::Commit() {
  if (committed_) return true;
  if (!Finish()) return false;
  if (!in_place_) {
    if (std::rename(temp_.c_str(), target_.c_str()) != 0) return Fail(errno);
    own_temp_ = false;
    UnregisterTemp(slot_);
    slot_ = -1;
    SyncFolder(FolderOf(target_));
  }
  committed_ = true;
  return true;
}

void AtomicFileWriter::Discard() {
  if (committed_) return;
  CloseAndRemove();
  if (ok()) error_ = "cannot write \"" + path_ + "\": discarded before it was complete";
}

bool WriteFileAtomically(const std::string& path, const std::string& contents, std::string* error) {
  AtomicFileWriter writer(path);
  writer.Write(contents);
  if (writer.Commit()) return true;
  if (error != nullptr) *error = writer.error();
  return false;
}

bool WriteFilesAtomically(const std::vector<std::pair<std::string, std::string>>& files,
                          std::string* error) {
  std::vector<std::unique_ptr<AtomicFileWriter>> writers;
  for (size_t k = 0; k < files.size(); ++k) {
    const auto& file = files[k];
    // A path given twice gets the later contents, as with one write after
    // the other (the two would share a temporary file).
    bool later = false;
    for (size_t j = k + 1; j < files.size(); ++j) later = later || files[j].first == file.first;
    if (later) continue;
    writers.push_back(std::make_unique<AtomicFileWriter>(file.first));
    AtomicFileWriter& writer = *writers.back();
    writer.Write(file.second);
    if (!writer.Finish()) {
      if (error != nullptr) *error = writer.error();
      return false;  // the destructors remove every temporary file
    }
  }
  for (const auto& writer : writers) {
    if (!writer->Commit()) {
      if (error != nullptr) *error = writer->error();
      return false;
    }
  }
  return true;
}

}  // namespace qzdl
