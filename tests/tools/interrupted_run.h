// Kills a tool while it runs, again and again at different moments, and
// checks that each of its output files is then exactly the file that was
// there before or exactly the complete new one: never a part of it.
#pragma once

#include <string>
#include <vector>

namespace qzdl::test {

// One output file of a run: what was there before, and what an uninterrupted
// run writes.
struct OutputFile {
  std::string name;  // in the output folder
  std::string old_contents;
  std::string new_contents;
};

struct InterruptedRuns {
  std::string program;
  std::vector<std::string> args;
  std::string dir;  // the output folder; emptied and set up again before each run
  std::vector<OutputFile> outputs;
  int signal = 0;  // SIGKILL, SIGTERM, ...
  // Moments to send the signal: seconds after the start, and seconds after
  // the first temporary file of `outputs[0]` appears (the writing phase).
  std::vector<double> after_start;
  std::vector<double> after_first_temporary;
};

// How the runs ended, for the test log; every one of them is legal.
struct InterruptionCounts {
  int runs = 0;
  int untouched = 0;  // every output old
  int temporary = 0;  // ... with temporary files left (only after SIGKILL)
  int mixed = 0;      // some outputs replaced, some not yet
  int replaced = 0;   // every output new
  int finished = 0;   // the tool ended before the signal
  std::string Summary() const;
};

// Runs `plan`; a torn output, a stray file, or (after a catchable signal) a
// temporary file left behind fails the current test.
InterruptionCounts RunInterrupted(const InterruptedRuns& plan);

// Seconds for `program args` to run to its end, with standard output and
// standard error discarded; fails the test when it does not end with 0.
double TimeRun(const std::string& program, const std::vector<std::string>& args);

// Spreads `count` moments evenly over [0, until].
std::vector<double> Spread(int count, double until);

}  // namespace qzdl::test
