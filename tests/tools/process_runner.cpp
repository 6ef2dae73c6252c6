#include "tools/process_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace qzdl::test {

namespace {

int OpenForOutput(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
}

// Under an emulator (the cross build's tests, docs/arm64.md) programs run
// about ten times slower, and the emulator adds its own line about a
// program that ended by a signal to standard error; neither is the
// program's doing.
#if defined(QZDL_TESTS_EMULATED)
constexpr int kTimeScale = 10;
#else
constexpr int kTimeScale = 1;
#endif

std::string WithoutEmulatorLines(std::string err) {
  const std::string marker = "qemu: uncaught target signal";
  for (size_t at = err.find(marker); at != std::string::npos; at = err.find(marker, at)) {
    if (at != 0 && err[at - 1] != '\n') {
      ++at;
      continue;
    }
    const size_t end = err.find('\n', at);
    err.erase(at, end == std::string::npos ? std::string::npos : end + 1 - at);
  }
  return err;
}

// Waits for `pid`, killing it after the timeout, and fills the status fields.
void Wait(pid_t pid, int timeout_seconds, ProcessResult& result) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds * kTimeScale);
  int status = 0;
  while (true) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0) return;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      result.timed_out = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (WIFEXITED(status)) {
    result.exited = true;
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signaled = true;
    result.signal = WTERMSIG(status);
  }
}

}  // namespace

ProcessResult RunProgram(const std::string& program, const std::vector<std::string>& args,
                         const std::string& dir, int timeout_seconds) {
  return RunProgramAs(-1, program, args, dir, timeout_seconds);
}

ProcessResult RunProgramAs(int uid, const std::string& program,
                           const std::vector<std::string>& args, const std::string& dir,
                           int timeout_seconds) {
  // The captures go to files of their own, not into `dir`: tests that run
  // programs in one shared folder (a fixture folder) may run at once.
  const char* base = getenv("TEST_TMPDIR");
  std::string out_path = std::string(base ? base : "/tmp") + "/qzdl_run_out_XXXXXX";
  std::string err_path = std::string(base ? base : "/tmp") + "/qzdl_run_err_XXXXXX";
  const int out = mkstemp(out_path.data());
  const int err = mkstemp(err_path.data());
  ProcessResult result;
  if (out < 0 || err < 0) {
    result.err = "cannot make the capture files in " + std::string(base ? base : "/tmp");
    return result;
  }
  std::vector<std::string> words{program};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(127);
    dup2(out, 1);
    dup2(err, 2);
    // The open captures stay writable after the change of user.
    if (uid >= 0 && (setgid(uid) != 0 || setuid(uid) != 0)) _exit(126);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(out);
  close(err);
  Wait(pid, timeout_seconds, result);
  result.out = ReadFile(out_path);
  result.err = WithoutEmulatorLines(ReadFile(err_path));
  std::remove(out_path.c_str());
  std::remove(err_path.c_str());
  return result;
}

ProcessResult RunForked(const std::function<void()>& fn, int timeout_seconds) {
  const std::string dir = TempDir("forked");
  const std::string out_path = dir + "/stdout";
  const std::string err_path = dir + "/stderr";
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int out = OpenForOutput(out_path);
    const int err = OpenForOutput(err_path);
    if (out < 0 || err < 0) _exit(127);
    dup2(out, 1);
    dup2(err, 2);
    fn();
    fflush(stdout);
    fflush(stderr);
    _exit(0);
  }
  ProcessResult result;
  Wait(pid, timeout_seconds, result);
  result.out = ReadFile(out_path);
  result.err = WithoutEmulatorLines(ReadFile(err_path));
  return result;
}

int CountLines(const std::string& text, const std::string& line) {
  std::istringstream in(text);
  std::string got;
  int count = 0;
  while (std::getline(in, got)) count += got == line ? 1 : 0;
  return count;
}

bool HasLine(const std::string& text, const std::string& line) {
  return CountLines(text, line) > 0;
}

NetBuilder PlainNet() {
  NetBuilder b;
  b.Input("data", {1, 3, 4, 4})
      .Layer("relu1", "ReLU", {"data"}, {"a"})
      .Layer("sig", "Sigmoid", {"a"}, {"b"});
  return b;
}

NetBuilder ReshapeNet(const std::vector<int>& shapes) {
  json11::Json::array s(shapes.begin(), shapes.end());
  NetBuilder b;
  b.Input("data", {1, 3, 4, 4})
      .Layer("flat", "Reshape", {"data"}, {"flat"}, {{"shapes", s}})
      .Layer("relu", "ReLU", {"flat"}, {"out"});
  return b;
}

}  // namespace qzdl::test
