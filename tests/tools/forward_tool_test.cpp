// The output files of qzdl_forward (--outputs-dir): replaced whole, and a
// failure to write one reported with its reason.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

class ForwardTool : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    const auto files = PlainNet().WriteFiles(dir_);  // output "b": 1 x 3 x 4 x 4 floats
    json_ = files.first;
    weights_ = files.second;
  }

  ProcessResult Forward(const std::string& outputs_dir) {
    return RunProgram(
        QZDL_FORWARD,
        {json_, weights_, "--warmup", "0", "--repeat", "1", "--outputs-dir", outputs_dir}, dir_);
  }

  std::string dir_, json_, weights_;
};

TEST_F(ForwardTool, OutputFilesAreReplacedWhole) {
  const std::string fresh = dir_ + "/fresh", again = dir_ + "/again";
  ASSERT_EQ(mkdir(fresh.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(again.c_str(), 0755), 0);
  const ProcessResult first = Forward(fresh);
  ASSERT_TRUE(first.exited);
  EXPECT_EQ(first.status, 0) << first.err;
  const std::string bytes = ReadFile(fresh + "/b.f32");
  EXPECT_EQ(bytes.size(), 48 * sizeof(float));

  WriteFile(again + "/b.f32",
            "an earlier output that is longer than the new one, "
            "so that an overwrite in place would show its tail: "
            "....................................................."
            ".....................................................");
  const ProcessResult second = Forward(again);
  ASSERT_TRUE(second.exited);
  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(second.err, "");
  EXPECT_EQ(ReadFile(again + "/b.f32"), bytes);
  EXPECT_EQ(system(("test \"$(ls -A '" + again + "')\" = b.f32").c_str()), 0);
}

TEST_F(ForwardTool, AnUnwritableOutputIsReportedWithTheReason) {
  const std::string missing = dir_ + "/missing";
  const ProcessResult r = Forward(missing);
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "qzdl_forward: cannot write \"" + missing + "/b.f32\": No such file or directory\n");
}

}  // namespace
}  // namespace qzdl::test
