// Replacing files so that a reader, or a run that is killed, never sees a part
// of one: the new contents go to a temporary file in the target's folder,
// "<path>.tmp.<pid>", which is flushed to disk and then renamed over the
// target. Until the rename the old file is untouched; after it the new one is
// complete.
//
// While a temporary file exists its name is kept in a fixed table that an
// async-signal-safe handler can reach: on SIGINT, SIGTERM or SIGHUP the
// handler removes the temporary files of this process and lets the signal
// end the process as it would have without the handler. Each writer installs
// the handler for those of the three signals whose action is the default at
// that moment; a program with its own handler keeps it (and may call
// RemoveInFlightTempFiles from it). A normal exit() removes them as well. A
// SIGKILL cannot be caught and leaves "<path>.tmp.<pid>" behind; such a file
// is never read by the tools and is safe to delete.
//
// A target that exists and is not a regular file (a FIFO, a device) cannot be
// replaced; it is written in place. A symbolic link is followed: the file it
// points to is replaced and the link stays. A replaced file keeps the
// permission bits of the file it replaces.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace qzdl {

// Streams one file. The temporary file is created by the constructor; every
// call after a failure does nothing and returns false, so a caller may write
// everything and look at the result of Commit() alone. Destroying a writer
// that was not committed removes the temporary file and leaves the target as
// it was.
class AtomicFileWriter {
 public:
  explicit AtomicFileWriter(const std::string& path);
  ~AtomicFileWriter();
  AtomicFileWriter(const AtomicFileWriter&) = delete;
  AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

  bool Write(const void* data, size_t size);
  bool Write(const std::string& bytes) { return Write(bytes.data(), bytes.size()); }

  // Writes out what is buffered, flushes the temporary file to disk (fsync)
  // and closes it; the target is not touched yet. Commit() calls it.
  bool Finish();
  // Finish(), then renames the temporary file over the target and flushes
  // the folder. True when the target holds exactly what was written.
  bool Commit();
  // Removes the temporary file; the target stays as it was.
  void Discard();

  bool ok() const { return error_.empty(); }
  // After a failure: `cannot write "<path>": <reason>`, the reason being the
  // system's text for the error (strerror).
  const std::string& error() const { return error_; }
  // The target as given.
  const std::string& path() const { return path_; }
  // The temporary file ("" when the target is written in place).
  const std::string& temp_path() const { return temp_; }

 private:
  bool Fail(int error_number);
  bool Flush();
  void CloseAndRemove();

  std::string path_;    // as given, for messages
  std::string target_;  // what is renamed over (path_ with a symlink followed)
  std::string temp_;
  std::string error_;
  std::vector<char> buffer_;
  int fd_ = -1;
  int slot_ = -1;          // in the table of temporary files, -1 when not there
  bool own_temp_ = false;  // the temporary file exists and is ours to remove
  bool in_place_ = false;
  bool finished_ = false;
  bool committed_ = false;
};

// Writes `contents` to `path` through a temporary file and a rename. Returns
// false on failure, leaving the old file as it was and no temporary file;
// `error`, when given, then receives AtomicFileWriter::error().
bool WriteFileAtomically(const std::string& path, const std::string& contents,
                         std::string* error = nullptr);

// Writes several files (path, contents): all temporary files are written and
// flushed first, and only then renamed one after the other, so that a failure
// to write any of them replaces none and a killed run can at worst stop in
// the short series of renames.
bool WriteFilesAtomically(const std::vector<std::pair<std::string, std::string>>& files,
                          std::string* error = nullptr);

// The temporary file name used for `path` by this process.
std::string AtomicTempPath(const std::string& path);

// Removes the temporary files of unfinished writers of this process.
// Async-signal-safe: for a program's own signal handlers.
void RemoveInFlightTempFiles();

}  // namespace qzdl
