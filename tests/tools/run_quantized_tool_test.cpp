// qzdl_run on a quantized model as a user runs it: the example net with a
// configuration made from its own tensor ranges, saved by the 8-bit net,
// runs from its description and quantized weights, and its output stays
// close to the float net's.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "runtime/atomic_file.h"
#include "runtime/int8/example_int8_net.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/run_support.h"
#include "tools/process_runner.h"

namespace qzdl {
namespace {

using namespace test_int8;

class RunQuantizedTool : public Int8NetTest {
 protected:
  void SetUp() override {
    Int8NetTest::SetUp();
    dir_ = test::TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    // The fixture's input and the float net's output, as files.
    const std::vector<int> in_dims = float_net_->GetInputData(0)->GetDims();
    ASSERT_TRUE(MakeAndWrite(dir_ + "/in", "data.npy", NpyFloatBytes(input_.data(), in_dims)));
    ASSERT_TRUE(MakeAndWrite(dir_ + "/float", "prob.npy",
                             NpyFloatBytes(want_.data(), float_net_->GetOutputData(0)->GetDims())));
  }

  static bool MakeAndWrite(const std::string& folder, const std::string& name,
                           const std::string& bytes) {
    std::system(("mkdir -p '" + folder + "'").c_str());
    return WriteFileAtomically(folder + "/" + name, bytes);
  }

  test::ProcessResult Run(std::vector<std::string> args) {
    return test::RunProgram(QZDL_RUN, args, dir_);
  }

  // The cosine of the "compare:" line of the output.
  static double ComparedCosine(const std::string& out) {
    const size_t at = out.find("cosine ");
    return at == std::string::npos ? -1.0 : std::atof(out.c_str() + at + 7);
  }

  std::string dir_;
};

TEST_F(RunQuantizedTool, RunsAQuantizedModelCloseToTheFloatNet) {
  int8_net_->SaveWeights(dir_ + "/q.bin", false);
  int8_net_->SetHybridMode(true);
  int8_net_->SaveJson(dir_ + "/net_hybrid.json");
  const test::ProcessResult r =
      Run({dir_ + "/net_hybrid.json", dir_ + "/q.bin", "--batch", std::to_string(kBatch),
           "--inputs-dir", dir_ + "/in", "--compare-dir", dir_ + "/float", "--out-dir",
           dir_ + "/out", "--warmup", "0"});
  ASSERT_TRUE(r.exited);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(test::HasLine(r.out, "quantized net: " + dir_ + "/net_hybrid.json")) << r.out;
  const double cosine = ComparedCosine(r.out);
  std::printf("qzdl_run, quantized example net against float: cosine %.6f\n", cosine);
  EXPECT_GE(cosine, 0.99) << r.out;
  // The written output is the 8-bit net's, dequantized.
  std::vector<float> written;
  std::string error;
  ASSERT_TRUE(ReadNpyFloats(dir_ + "/out/prob.npy", &written, &error)) << error;
  int8_net_->SetFloatInputData(input_.data(), 0);
  int8_net_->ForwardAll();
  EXPECT_EQ(written, RealValues(*int8_net_, *int8_net_->GetOutputData(0)));
}

TEST_F(RunQuantizedTool, ABrokenQuantizedModelIsOneLine) {
  int8_net_->SaveJson(dir_ + "/net_hybrid.json");
  ASSERT_TRUE(WriteFileAtomically(dir_ + "/q.bin", "QZQW\x01"));
  const test::ProcessResult r = Run({dir_ + "/net_hybrid.json", dir_ + "/q.bin"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qzdl_run: cannot create the quantized net: Model file \"" + dir_ +
                       "/q.bin\": truncated while reading the header (at byte 0)\n");
}

}  // namespace
}  // namespace qzdl
