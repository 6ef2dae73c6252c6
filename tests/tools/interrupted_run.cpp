#include "tools/interrupted_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "support/net_builder.h"

namespace qzdl::test {

namespace {

using Clock = std::chrono::steady_clock;

// Forks and runs `program args` with standard output and error on /dev/null.
// Everything the child needs is prepared before the fork.
pid_t Start(const std::string& program, const std::vector<std::string>& args) {
  std::vector<std::string> words = {program};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, 1);
      dup2(null, 2);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

void Sleep(double seconds) {
  if (seconds > 0) std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Waits until `path` exists or the child ends (then true, with `status`).
bool WaitForFileOrEnd(const std::string& path, pid_t pid, int* status) {
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  while (Clock::now() < deadline) {
    if (access(path.c_str(), F_OK) == 0) return false;
    if (waitpid(pid, status, WNOHANG) == pid) return true;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return false;
}

void SetUpFolder(const InterruptedRuns& plan) {
  for (const std::string& name : FolderNames(plan.dir)) unlink((plan.dir + "/" + name).c_str());
  for (const OutputFile& out : plan.outputs) {
    WriteFile(plan.dir + "/" + out.name, out.old_contents);
  }
}

// Checks the folder after run `pid` ended with `status`, and counts the result.
void Check(const InterruptedRuns& plan, pid_t pid, int status, const std::string& when,
           InterruptionCounts* counts) {
  SCOPED_TRACE("signal " + std::to_string(plan.signal) + " " + when);
  ++counts->runs;
  const bool finished = WIFEXITED(status);
  if (finished) {
    ++counts->finished;
    EXPECT_EQ(WEXITSTATUS(status), 0);
  } else {
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == plan.signal) << "status " << status;
  }
  int old_count = 0, new_count = 0;
  for (const OutputFile& out : plan.outputs) {
    const std::string got = ReadFile(plan.dir + "/" + out.name);
    if (got == out.old_contents) {
      ++old_count;
    } else if (got == out.new_contents) {
      ++new_count;
    } else {
      ADD_FAILURE() << out.name << " is torn: " << got.size() << " bytes, neither the old "
                    << out.old_contents.size() << " nor the new " << out.new_contents.size();
    }
  }
  bool temporaries = false;
  for (const std::string& name : FolderNames(plan.dir)) {
    bool known = false;
    for (const OutputFile& out : plan.outputs) {
      if (name == out.name) known = true;
      if (name == out.name + ".tmp." + std::to_string(pid)) {
        // Only a signal that cannot be caught may leave one.
        EXPECT_EQ(plan.signal, SIGKILL) << "temporary file left: " << name;
        EXPECT_FALSE(finished) << "temporary file left: " << name;
        temporaries = known = true;
      }
    }
    EXPECT_TRUE(known) << "stray file " << name;
  }
  if (finished) {
    EXPECT_EQ(new_count, static_cast<int>(plan.outputs.size()));
  }
  if (new_count == static_cast<int>(plan.outputs.size())) {
    ++counts->replaced;
  } else if (new_count > 0) {
    ++counts->mixed;
  } else if (old_count == static_cast<int>(plan.outputs.size())) {
    ++(temporaries ? counts->temporary : counts->untouched);
  }
}

}  // namespace

std::string InterruptionCounts::Summary() const {
  std::ostringstream s;
  s << runs << " runs: " << untouched << " untouched, " << temporary
    << " untouched with temporary files, " << mixed << " partly replaced, " << replaced
    << " replaced (" << finished << " finished before the signal)";
  return s.str();
}

InterruptionCounts RunInterrupted(const InterruptedRuns& plan) {
  InterruptionCounts counts;
  const std::string first = plan.outputs.at(0).name;
  for (double delay : plan.after_start) {
    SetUpFolder(plan);
    const pid_t pid = Start(plan.program, plan.args);
    if (pid < 0) {
      ADD_FAILURE() << "fork failed";
      continue;
    }
    Sleep(delay);
    kill(pid, plan.signal);  // harmless when it has ended: it is not reaped yet
    int status = 0;
    waitpid(pid, &status, 0);
    Check(plan, pid, status, std::to_string(delay) + " s after the start", &counts);
  }
  for (double delay : plan.after_first_temporary) {
    SetUpFolder(plan);
    const pid_t pid = Start(plan.program, plan.args);
    if (pid < 0) {
      ADD_FAILURE() << "fork failed";
      continue;
    }
    const std::string temporary = plan.dir + "/" + first + ".tmp." + std::to_string(pid);
    int status = 0;
    if (!WaitForFileOrEnd(temporary, pid, &status)) {
      Sleep(delay);
      kill(pid, plan.signal);
      waitpid(pid, &status, 0);
    }
    Check(plan, pid, status, std::to_string(delay) + " s into the writing", &counts);
  }
  return counts;
}

double TimeRun(const std::string& program, const std::vector<std::string>& args) {
  const auto start = Clock::now();
  const pid_t pid = Start(program, args);
  int status = -1;
  if (pid > 0) waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << program << ": status " << status;
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::vector<double> Spread(int count, double until) {
  std::vector<double> moments;
  for (int k = 0; k < count; ++k) moments.push_back(count > 1 ? until * k / (count - 1) : 0);
  return moments;
}

}  // namespace qzdl::test
