// qzdl_make_calibration_bin replaces its output whole: the set it writes,
// what a failure to write reports, and what a run killed at any moment
// leaves behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "support/net_builder.h"
#include "tools/interrupted_run.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

constexpr size_t kSetBytes = 100 * 224 * 224 * 3;

void PutU16(std::string& s, uint32_t v) {
  s += static_cast<char>(v & 0xff);
  s += static_cast<char>((v >> 8) & 0xff);
}
void PutU32(std::string& s, uint32_t v) {
  PutU16(s, v & 0xffff);
  PutU16(s, v >> 16);
}

// An uncompressed 24-bit BMP of w x h pixels with a pattern set by `seed`.
std::string Bmp(int w, int h, int seed) {
  const uint32_t row = (static_cast<uint32_t>(w) * 3 + 3) & ~3u;
  const uint32_t pixels = row * static_cast<uint32_t>(h);
  std::string s = "BM";
  PutU32(s, 54 + pixels);
  PutU32(s, 0);
  PutU32(s, 54);
  PutU32(s, 40);
  PutU32(s, static_cast<uint32_t>(w));
  PutU32(s, static_cast<uint32_t>(h));
  PutU16(s, 1);
  PutU16(s, 24);
  for (int k = 0; k < 6; ++k) PutU32(s, 0);
  for (int y = 0; y < h; ++y) {
    std::string line(row, '\0');
    for (int x = 0; x < w; ++x) {
      line[3 * x] = static_cast<char>(x * 7 + seed * 31);
      line[3 * x + 1] = static_cast<char>(y * 5 + seed * 17);
      line[3 * x + 2] = static_cast<char>((x ^ y) + seed);
    }
    s += line;
  }
  return s;
}

class MakeCalibrationBinTool : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    images_ = dir_ + "/images";
    out_ = dir_ + "/out";
    ASSERT_EQ(mkdir(images_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(out_.c_str(), 0755), 0);
    // Fewer than 100: the records are used again from the first on.
    for (int k = 0; k < 24; ++k) {
      char name[32];
      snprintf(name, sizeof name, "/image_%02d.bmp", k);
      std::ofstream(images_ + name, std::ios::binary) << Bmp(320, 240, k);
    }
  }

  std::string dir_, images_, out_;
};

TEST_F(MakeCalibrationBinTool, ReplacesTheOldSetAndLeavesNothingElse) {
  const std::string set = out_ + "/calibration.bin";
  WriteFile(set, "an earlier set");
  const ProcessResult r = RunProgram(QZDL_MAKE_CALIBRATION_BIN, {images_, set}, dir_);
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            set + ": 100 records of 224 x 224 x 3 bytes from 24 image(s) in " + images_ + "\n");
  const std::string bytes = ReadFile(set);
  ASSERT_EQ(bytes.size(), kSetBytes);
  // Record 24 is record 0 again.
  const size_t record = 224 * 224 * 3;
  EXPECT_TRUE(bytes.compare(24 * record, record, bytes, 0, record) == 0);
  EXPECT_FALSE(bytes.compare(record, record, bytes, 0, record) == 0);
  EXPECT_EQ(system(("test \"$(ls -A '" + out_ + "')\" = calibration.bin").c_str()), 0);
}

TEST_F(MakeCalibrationBinTool, AnUnwritableOutputIsReportedWithTheReason) {
  const std::string set = out_ + "/missing/calibration.bin";
  const ProcessResult r = RunProgram(QZDL_MAKE_CALIBRATION_BIN, {images_, set}, dir_);
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "cannot write \"" + set + "\": No such file or directory\n");
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(system(("test -z \"$(ls -A '" + out_ + "')\"").c_str()), 0);
}

class InterruptedCalibrationBin : public MakeCalibrationBinTool {
 protected:
  InterruptedRuns Plan(int sig) {
    const std::string ref = dir_ + "/ref";
    EXPECT_EQ(mkdir(ref.c_str(), 0755), 0);
    seconds_ = TimeRun(QZDL_MAKE_CALIBRATION_BIN, {images_, ref + "/calibration.bin"});
    InterruptedRuns plan;
    plan.program = QZDL_MAKE_CALIBRATION_BIN;
    plan.args = {images_, out_ + "/calibration.bin"};
    plan.dir = out_;
    plan.outputs = {{"calibration.bin", "an earlier set\n", ReadFile(ref + "/calibration.bin")}};
    EXPECT_EQ(plan.outputs[0].new_contents.size(), kSetBytes);
    plan.signal = sig;
    return plan;
  }
  double seconds_ = 0;
};

TEST_F(InterruptedCalibrationBin, KilledRunsLeaveTheOldOrTheCompleteSet) {
  InterruptedRuns plan = Plan(SIGKILL);
  plan.after_start = Spread(6, 1.2 * seconds_);
  plan.after_first_temporary = {0, 0.001, 0.002, 0.004, 0.006, 0.009, 0.013, 0.020, 0.030};
  const InterruptionCounts counts = RunInterrupted(plan);
  std::cout << "SIGKILL, a complete run taking " << seconds_ << " s: " << counts.Summary() << "\n";
  EXPECT_EQ(counts.runs, 15);
}

TEST_F(InterruptedCalibrationBin, TerminatedRunsLeaveNoTemporaryFile) {
  InterruptedRuns plan = Plan(SIGTERM);
  plan.after_start = Spread(3, 1.2 * seconds_);
  plan.after_first_temporary = {0, 0.002, 0.005, 0.010};
  const InterruptionCounts counts = RunInterrupted(plan);
  std::cout << "SIGTERM, a complete run taking " << seconds_ << " s: " << counts.Summary() << "\n";
  EXPECT_EQ(counts.runs, 7);
  EXPECT_EQ(counts.temporary, 0);
}

}  // namespace
}  // namespace qzdl::test
