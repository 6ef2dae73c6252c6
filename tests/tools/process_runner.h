// Runs the converter executable, or a function in a forked child, with its
// standard output and standard error captured, for tests of code that ends the
// process.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/net_builder.h"

namespace qzdl::test {

struct ProcessResult {
  bool exited = false;    // ended by exit or a return from main
  int status = -1;        // exit status when `exited`
  bool signaled = false;  // ended by a signal
  int signal = 0;         // the signal when `signaled`
  bool timed_out = false;
  std::string out;
  std::string err;
};

// Runs `program` with `args` (argv[1] on) in `dir`, killing it after
// `timeout_seconds`.
ProcessResult RunProgram(const std::string& program, const std::vector<std::string>& args,
                         const std::string& dir, int timeout_seconds = 60);

// The same as user and group `uid` (the caller must be root), e.g. 65534
// ("nobody") to run without the rights of root.
ProcessResult RunProgramAs(int uid, const std::string& program,
                           const std::vector<std::string>& args, const std::string& dir,
                           int timeout_seconds = 60);

// Runs `fn` in a forked child; the child ends with status 0 when `fn` returns.
ProcessResult RunForked(const std::function<void()>& fn, int timeout_seconds = 60);

// Whether `text` holds `line` as a whole line.
bool HasLine(const std::string& text, const std::string& line);
// How often `text` holds `line` as a whole line.
int CountLines(const std::string& text, const std::string& line);

// Small nets for the command-line tests, written as net.json / net.bin under
// `dir`.
//   Plain:   "data" [1,3,4,4] -> ReLU "relu1" -> "a" -> Sigmoid "sig" -> "b"
//   Reshape: "data" [1,3,4,4] -> Reshape "flat" (shapes as given) -> "flat"
//            -> ReLU "relu" -> "out"
NetBuilder PlainNet();
NetBuilder ReshapeNet(const std::vector<int>& shapes);

}  // namespace qzdl::test
