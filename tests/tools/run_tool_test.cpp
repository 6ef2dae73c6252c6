// qzdl_run as a user runs it: output files (NumPy, replaced whole, the
// folder made when missing), inputs and references from files, and the
// one-line errors for what it cannot do.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/run_support.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

class RunTool : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    const auto files = PlainNet().WriteFiles(dir_);  // "data" 1x3x4x4 -> "b" 1x3x4x4
    json_ = files.first;
    weights_ = files.second;
  }

  ProcessResult Run(std::vector<std::string> extra) {
    std::vector<std::string> args = {json_, weights_, "--warmup", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    return RunProgram(QZDL_RUN, args, dir_);
  }

  // The float32 values of an .npy file written by the tool.
  static std::vector<float> NpyValues(const std::string& path) {
    std::vector<float> v;
    std::string error;
    EXPECT_TRUE(ReadNpyFloats(path, &v, &error)) << path << ": " << error;
    return v;
  }

  std::string dir_, json_, weights_;
};

TEST_F(RunTool, WritesOneNpyPerOutputAndMakesTheFolder) {
  const std::string out = dir_ + "/new/deeper";
  const ProcessResult r = Run({"--out-dir", out});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const std::string bytes = ReadFile(out + "/b.npy");
  // NumPy's own layout: a 64-byte-aligned header, then the values.
  ASSERT_EQ(bytes.size(), 128 + 48 * sizeof(float));
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x93NUMPY\x01\x00", 8));
  EXPECT_EQ(bytes.substr(10, 64), "{'descr': '<f4', 'fortran_order': False, 'shape': (1, 3, 4, 4), ");
  EXPECT_EQ(bytes[127], '\n');
  const std::vector<float> b = NpyValues(out + "/b.npy");
  ASSERT_EQ(b.size(), 48u);
  // The fixed input pattern through ReLU then Sigmoid.
  for (size_t k = 0; k < b.size(); ++k) {
    const float x = std::sin(0.37f * k) * 0.5f + 0.5f;
    EXPECT_FLOAT_EQ(b[k], 1.0f / (1.0f + std::exp(-std::max(x, 0.0f)))) << k;
  }
  EXPECT_EQ(r.out.rfind("output \"b\" [1, 3, 4, 4] sum ", 0), 0u) << r.out;
}

TEST_F(RunTool, OutputFilesAreReplacedWhole) {
  const std::string again = dir_ + "/again";
  ASSERT_EQ(mkdir(again.c_str(), 0755), 0);
  const ProcessResult first = Run({"--out-dir", dir_ + "/fresh"});
  ASSERT_EQ(first.status, 0) << first.err;
  const std::string bytes = ReadFile(dir_ + "/fresh/b.npy");
  WriteFile(again + "/b.npy", std::string(4000, '.'));
  const ProcessResult second = Run({"--outputs-dir", again});  // the other spelling
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(ReadFile(again + "/b.npy"), bytes);
  EXPECT_EQ(system(("test \"$(ls -A '" + again + "')\" = b.npy").c_str()), 0);
}

TEST_F(RunTool, AnUnwritableOutputFolderIsReported) {
  WriteFile(dir_ + "/plain", "a file, not a folder");
  const ProcessResult r = Run({"--out-dir", dir_ + "/plain/sub"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qzdl_run: cannot make the output folder \"" + dir_ +
                       "/plain/sub\": Not a directory\n");
}

TEST_F(RunTool, InputsAndReferencesFromFiles) {
  std::vector<float> x(48);
  for (size_t k = 0; k < x.size(); ++k) x[k] = static_cast<float>(k) / 48 - 0.5f;
  const std::string in = dir_ + "/in";
  ASSERT_EQ(mkdir(in.c_str(), 0755), 0);
  WriteFile(in + "/data.npy", NpyFloatBytes(x.data(), {1, 3, 4, 4}));
  const ProcessResult first = Run({"--inputs-dir", in, "--out-dir", dir_ + "/ref"});
  ASSERT_EQ(first.status, 0) << first.err;
  const std::vector<float> b = NpyValues(dir_ + "/ref/b.npy");
  ASSERT_EQ(b.size(), 48u);
  EXPECT_FLOAT_EQ(b[0], 0.5f);  // sigmoid(relu(-0.5))
  // The same input as raw float32 through --input, compared with the first run.
  WriteFile(dir_ + "/x.f32", std::string(reinterpret_cast<const char*>(x.data()), 48 * 4));
  const ProcessResult second = Run({"--input", "data=" + dir_ + "/x.f32", "--compare-dir", dir_ + "/ref"});
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_TRUE(HasLine(second.out,
                      "compare: output \"b\" [1, 3, 4, 4] max_abs 0 max_rel 0 cosine 1.000000000"))
      << second.out;
}

TEST_F(RunTool, BadInputsAreOneLine) {
  WriteFile(dir_ + "/short.f32", std::string(12, '\0'));
  ProcessResult r = Run({"--input", "data=" + dir_ + "/short.f32"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qzdl_run: \"" + dir_ +
                       "/short.f32\" holds 3 floats; input \"data\" of shape [1, 3, 4, 4] takes 48\n");
  r = Run({"--input", "data=" + dir_});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qzdl_run: cannot read input \"data\" from \"" + dir_ + "\": Is a directory\n");
  r = Run({"--input", "nosuch=" + dir_ + "/short.f32"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qzdl_run: --input names \"nosuch\", which is not a net input\n");
  r = Run({"--inputs-dir", dir_ + "/none"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qzdl_run: cannot read input \"data\" from \"" + dir_ +
                       "/none/data.f32\": No such file or directory\n");
  r = Run({"--batch", "0"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qzdl_run: --batch \"0\" is not a whole number from 1 to 1000000000\n");
}

TEST_F(RunTool, ABatchTheNetCannotTakeIsOneLine) {
  const auto files = ReshapeNet({1, 48}).WriteFiles(dir_, "fixed");
  const ProcessResult r =
      RunProgram(QZDL_RUN, {files.first, files.second, "--batch", "3"}, dir_);
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("qzdl_run: cannot run at batch 3: Net file \"" + files.first + "\": ", 0),
            0u)
      << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

TEST_F(RunTool, ANetThatCannotBeCreatedIsReported) {
  const ProcessResult r = RunProgram(QZDL_RUN, {dir_ + "/missing.json", weights_}, dir_);
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("]: Net file \"" + dir_ + "/missing.json\" not found.\n"), std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, "qzdl_run: cannot create the net from \"" + dir_ + "/missing.json\" and \"" +
                       weights_ + "\"\n");
}

}  // namespace
}  // namespace qzdl::test
