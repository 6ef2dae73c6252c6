#include "runtime/file_read.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace qzdl {

namespace {

bool Failed(int err, std::string* out, std::string* error) {
  out->clear();
  if (error != nullptr) *error = std::strerror(err);
  return false;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string* out, std::string* error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Failed(errno, out, error);
  struct stat st;
  if (fstat(fd, &st) != 0) {
    const int err = errno;
    close(fd);
    return Failed(err, out, error);
  }
  if (!S_ISREG(st.st_mode)) {
    close(fd);
    return Failed(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, out, error);
  }
  out->clear();
  // Read to the end rather than to st_size: a file may change while read.
  char chunk[1 << 16];
  try {
    out->reserve(static_cast<size_t>(st.st_size));
    for (;;) {
      const ssize_t got = read(fd, chunk, sizeof chunk);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        const int err = errno;
        close(fd);
        return Failed(err, out, error);
      }
      if (got == 0) break;
      out->append(chunk, static_cast<size_t>(got));
    }
  } catch (const std::bad_alloc&) {
    close(fd);
    return Failed(ENOMEM, out, error);
  }
  close(fd);
  return true;
}

std::string ReadFileOrEmpty(const std::string& path) {
  std::string text;
  ReadWholeFile(path, &text);
  return text;
}

}  // namespace qzdl
