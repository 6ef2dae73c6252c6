// Replacing files through a temporary file and a rename: the contents, the
// temporary file's name and place, what a failure leaves behind, and the
// clean-up on signals and exit.
#include "runtime/atomic_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/net_builder.h"

namespace qzdl {
namespace {

using Names = std::vector<std::string>;

// The tests' own files are read and written with plain streams
// (test::ReadFile, test::WriteFile), not through the code under test.
using test::FolderNames;
using test::ReadFile;
using test::WriteFile;

// Bytes that show a misplaced or missing piece: every position differs from
// its neighbours, and there are zero bytes.
std::string Pattern(size_t n, uint32_t seed) {
  std::string s(n, '\0');
  uint32_t x = seed;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1664525u + 1013904223u;
    s[i] = static_cast<char>(x >> 24);
  }
  return s;
}

std::string Pid() { return std::to_string(getpid()); }

TEST(AtomicFile, WritesANewFile) {
  const std::string dir = test::TempDir("atomic_new");
  const std::string contents = Pattern(1000, 1);
  std::string error = "untouched";
  ASSERT_TRUE(WriteFileAtomically(dir + "/out.bin", contents, &error));
  EXPECT_EQ(error, "untouched");
  EXPECT_EQ(ReadFile(dir + "/out.bin"), contents);
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

TEST(AtomicFile, ReplacesAnExistingFileAndAnEmptyOneToo) {
  const std::string dir = test::TempDir("atomic_replace");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "the old contents, longer than the new ones");
  ASSERT_TRUE(WriteFileAtomically(path, "new"));
  EXPECT_EQ(ReadFile(path), "new");
  ASSERT_TRUE(WriteFileAtomically(path, ""));
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

TEST(AtomicFile, StreamsThroughATemporaryFileBesideTheTarget) {
  const std::string dir = test::TempDir("atomic_stream");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  AtomicFileWriter writer(path);
  ASSERT_TRUE(writer.ok()) << writer.error();
  EXPECT_EQ(writer.path(), path);
  EXPECT_EQ(writer.temp_path(), path + ".tmp." + Pid());
  EXPECT_EQ(AtomicTempPath(path), path + ".tmp." + Pid());
  // Small pieces that are gathered, one larger than the buffer, and pieces
  // that fill it unevenly.
  std::string expected;
  const std::vector<size_t> sizes = {10, 1, 3 << 20, 100000, 100000, 100000, 7, 0, 262144, 5};
  for (size_t k = 0; k < sizes.size(); ++k) {
    const std::string piece = Pattern(sizes[k], static_cast<uint32_t>(k + 2));
    ASSERT_TRUE(writer.Write(piece));
    expected += piece;
  }
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin", "out.bin.tmp." + Pid()}));
  ASSERT_TRUE(writer.Finish());
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(ReadFile(writer.temp_path()), expected);
  ASSERT_TRUE(writer.Commit()) << writer.error();
  EXPECT_TRUE(writer.ok());
  EXPECT_EQ(writer.error(), "");
  EXPECT_EQ(ReadFile(path).size(), expected.size());
  EXPECT_TRUE(ReadFile(path) == expected);
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
  EXPECT_TRUE(writer.Commit());  // a second commit changes nothing
  EXPECT_FALSE(writer.Write("late"));
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

TEST(AtomicFile, WithoutCommitTheOldFileStays) {
  const std::string dir = test::TempDir("atomic_no_commit");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  {
    AtomicFileWriter writer(path);
    ASSERT_TRUE(writer.Write(Pattern(1 << 20, 3)));
    ASSERT_TRUE(writer.Finish());
    EXPECT_EQ(FolderNames(dir), Names({"out.bin", "out.bin.tmp." + Pid()}));
  }
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

TEST(AtomicFile, DiscardRemovesTheTemporaryFile) {
  const std::string dir = test::TempDir("atomic_discard");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  AtomicFileWriter writer(path);
  ASSERT_TRUE(writer.Write("new"));
  writer.Discard();
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
  EXPECT_FALSE(writer.Commit());
  EXPECT_EQ(writer.error(), "cannot write \"" + path + "\": discarded before it was complete");
  EXPECT_EQ(ReadFile(path), "old");
}

TEST(AtomicFile, MissingFolderIsReportedWithTheReason) {
  const std::string dir = test::TempDir("atomic_missing");
  const std::string path = dir + "/no/such/out.bin";
  std::string error;
  EXPECT_FALSE(WriteFileAtomically(path, "x", &error));
  EXPECT_EQ(error, "cannot write \"" + path + "\": No such file or directory");
  AtomicFileWriter writer(path);
  EXPECT_FALSE(writer.ok());
  EXPECT_FALSE(writer.Write("x"));
  EXPECT_FALSE(writer.Commit());
  EXPECT_EQ(writer.error(), error);
  EXPECT_EQ(FolderNames(dir), Names());
}

TEST(AtomicFile, UncreatableTemporaryFileKeepsTheOldFile) {
  // A folder where the temporary file would go: refused even for root.
  const std::string dir = test::TempDir("atomic_blocked");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  ASSERT_EQ(mkdir(AtomicTempPath(path).c_str(), 0755), 0);
  std::string error;
  EXPECT_FALSE(WriteFileAtomically(path, "new", &error));
  EXPECT_EQ(error, "cannot write \"" + path + "\": Is a directory");
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin", "out.bin.tmp." + Pid()}));  // the blocking folder
  EXPECT_EQ(FolderNames(AtomicTempPath(path)), Names());
}

// Writes `contents` to `path` as a user who may not write into its folder:
// this process itself, or, when it runs as root (who may write anywhere), a
// child that has given up root for "nobody" (uid/gid 65534). Returns the
// writer's result and error text.
std::pair<bool, std::string> WriteAsUnprivileged(const std::string& path,
                                                 const std::string& contents) {
  std::string error;
  if (geteuid() != 0) {
    const bool written = WriteFileAtomically(path, contents, &error);
    return {written, error};
  }
  int fds[2];
  if (pipe(fds) != 0) return {true, "pipe failed"};
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
    const bool written = WriteFileAtomically(path, contents, &error);
    if (write(fds[1], error.data(), error.size()) != static_cast<ssize_t>(error.size())) _exit(4);
    _exit(written ? 0 : 1);
  }
  close(fds[1]);
  char buffer[512];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) error.append(buffer, n);
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) <= 1) << "child status " << status;
  return {WIFEXITED(status) && WEXITSTATUS(status) == 0, error};
}

TEST(AtomicFile, ReadOnlyFolderKeepsTheOldFile) {
  const std::string dir = test::TempDir("atomic_read_only");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  ASSERT_EQ(chmod(dir.c_str(), 0555), 0);
  const auto [written, error] = WriteAsUnprivileged(path, "new");
  chmod(dir.c_str(), 0755);
  EXPECT_FALSE(written);
  EXPECT_EQ(error, "cannot write \"" + path + "\": Permission denied");
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

// Lowers the largest file size this process may write, as a full disk would
// stop a write, and puts it back.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    old_handler_ = signal(SIGXFSZ, SIG_IGN);  // the write then fails with EFBIG
    rlimit lower = saved_;
    lower.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &lower);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    signal(SIGXFSZ, old_handler_);
  }

 private:
  rlimit saved_;
  void (*old_handler_)(int);
};

TEST(AtomicFile, FailedWriteMidwayKeepsTheOldFile) {
  const std::string dir = test::TempDir("atomic_full");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  std::string error;
  bool written = true;
  {
    FileSizeLimit limit(1 << 20);
    written = WriteFileAtomically(path, Pattern(3 << 20, 4), &error);
  }
  EXPECT_FALSE(written);
  EXPECT_EQ(error, "cannot write \"" + path + "\": File too large");
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));

  // The same through small buffered pieces: the failure shows at a later
  // write or at Commit().
  {
    FileSizeLimit limit(1 << 20);
    AtomicFileWriter writer(path);
    for (int k = 0; k < 40; ++k) writer.Write(Pattern(50000, 5));
    EXPECT_FALSE(writer.Commit());
    EXPECT_EQ(writer.error(), "cannot write \"" + path + "\": File too large");
  }
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

TEST(AtomicFile, KeepsThePermissionsOfTheReplacedFile) {
  const std::string dir = test::TempDir("atomic_mode");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(WriteFileAtomically(path, "new"));
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(ReadFile(path), "new");
}

TEST(AtomicFile, ASymbolicLinkStaysAndItsFileIsReplaced) {
  const std::string dir = test::TempDir("atomic_link");
  WriteFile(dir + "/real.bin", "old");
  ASSERT_EQ(symlink("real.bin", (dir + "/link.bin").c_str()), 0);
  ASSERT_TRUE(WriteFileAtomically(dir + "/link.bin", "new"));
  struct stat status;
  ASSERT_EQ(lstat((dir + "/link.bin").c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  EXPECT_EQ(ReadFile(dir + "/real.bin"), "new");
  EXPECT_EQ(FolderNames(dir), Names({"link.bin", "real.bin"}));
}

TEST(AtomicFile, AFifoIsWrittenInPlace) {
  const std::string dir = test::TempDir("atomic_fifo");
  const std::string path = dir + "/pipe";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  AtomicFileWriter writer(path);
  EXPECT_EQ(writer.temp_path(), "");
  writer.Write("through the pipe");
  EXPECT_TRUE(writer.Commit()) << writer.error();
  char buffer[64] = {};
  EXPECT_EQ(read(reader, buffer, sizeof buffer), 16);
  EXPECT_EQ(std::string(buffer), "through the pipe");
  close(reader);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
  EXPECT_EQ(FolderNames(dir), Names({"pipe"}));
}

TEST(AtomicFile, AFolderCannotBeReplaced) {
  const std::string dir = test::TempDir("atomic_folder");
  ASSERT_EQ(mkdir((dir + "/sub").c_str(), 0755), 0);
  std::string error;
  EXPECT_FALSE(WriteFileAtomically(dir + "/sub", "x", &error));
  EXPECT_EQ(error, "cannot write \"" + dir + "/sub\": Is a directory");
  EXPECT_EQ(FolderNames(dir), Names({"sub"}));
}

TEST(AtomicFile, SeveralFilesAreAllWrittenBeforeAnyIsReplaced) {
  const std::string dir = test::TempDir("atomic_several");
  const std::string a = dir + "/a.json", b = dir + "/b.bin";
  WriteFile(a, "A1");
  WriteFile(b, "B1");
  ASSERT_TRUE(WriteFilesAtomically({{a, "A2"}, {b, "B2"}}));
  EXPECT_EQ(ReadFile(a), "A2");
  EXPECT_EQ(ReadFile(b), "B2");
  // The second file cannot be written: the first is not replaced either.
  const std::string missing = dir + "/missing/c.fb";
  std::string error;
  EXPECT_FALSE(WriteFilesAtomically({{a, "A3"}, {b, "B3"}, {missing, "C3"}}, &error));
  EXPECT_EQ(error, "cannot write \"" + missing + "\": No such file or directory");
  EXPECT_EQ(ReadFile(a), "A2");
  EXPECT_EQ(ReadFile(b), "B2");
  EXPECT_EQ(FolderNames(dir), Names({"a.json", "b.bin"}));
}

TEST(AtomicFile, APathGivenTwiceGetsTheLaterContents) {
  const std::string dir = test::TempDir("atomic_twice");
  const std::string a = dir + "/a.bin";
  ASSERT_TRUE(WriteFilesAtomically({{a, "first"}, {dir + "/b.bin", "b"}, {a, "second"}}));
  EXPECT_EQ(ReadFile(a), "second");
  EXPECT_EQ(ReadFile(dir + "/b.bin"), "b");
  EXPECT_EQ(FolderNames(dir), Names({"a.bin", "b.bin"}));
}

TEST(AtomicFile, AForkedChildLeavesItsParentsTemporaryFile) {
  const std::string dir = test::TempDir("atomic_fork");
  const std::string path = dir + "/out.bin";
  AtomicFileWriter writer(path);
  ASSERT_TRUE(writer.Write("parent"));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    RemoveInFlightTempFiles();
    raise(SIGTERM);  // the inherited handler, if installed, must not remove it either
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(FolderNames(dir), Names({"out.bin.tmp." + Pid()}));
  ASSERT_TRUE(writer.Commit()) << writer.error();
  EXPECT_EQ(ReadFile(path), "parent");
}

// ---- Signals and exit, each in a child process ----

// In the child: a writer with a temporary file that holds data, then `sig`.
void WriteThenRaise(const std::string& path, int sig) {
  // As a program starts, whatever the test runner's signal settings are.
  for (int s : {SIGHUP, SIGINT, SIGTERM}) signal(s, SIG_DFL);
  AtomicFileWriter writer(path);
  writer.Write(Pattern(3 << 20, 6));
  if (!writer.Finish() || access(writer.temp_path().c_str(), F_OK) != 0) _exit(3);
  raise(sig);
  _exit(4);  // not reached
}

TEST(AtomicFileDeathTest, SignalsRemoveTheTemporaryFileAndStillEndTheRun) {
  const std::string dir = test::TempDir("atomic_signals");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(sig);
    EXPECT_EXIT(WriteThenRaise(path, sig), ::testing::KilledBySignal(sig), "");
    EXPECT_EQ(ReadFile(path), "old");
    EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
  }
}

extern "C" void OwnHandler(int) {
  RemoveInFlightTempFiles();
  _exit(7);
}

TEST(AtomicFileDeathTest, AProgramsOwnHandlerIsKept) {
  const std::string dir = test::TempDir("atomic_own_handler");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  EXPECT_EXIT(
      {
        signal(SIGTERM, OwnHandler);
        AtomicFileWriter writer(path);
        writer.Write("new");
        if (access(writer.temp_path().c_str(), F_OK) != 0) _exit(3);
        raise(SIGTERM);
        _exit(4);
      },
      ::testing::ExitedWithCode(7), "");
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

TEST(AtomicFileDeathTest, ExitRemovesTheTemporaryFile) {
  const std::string dir = test::TempDir("atomic_exit");
  const std::string path = dir + "/out.bin";
  WriteFile(path, "old");
  EXPECT_EXIT(
      {
        AtomicFileWriter writer(path);
        writer.Write("new");
        if (access(writer.temp_path().c_str(), F_OK) != 0) _exit(3);
        exit(5);  // no destructor runs for `writer`
      },
      ::testing::ExitedWithCode(5), "");
  EXPECT_EQ(ReadFile(path), "old");
  EXPECT_EQ(FolderNames(dir), Names({"out.bin"}));
}

}  // namespace
}  // namespace qzdl
