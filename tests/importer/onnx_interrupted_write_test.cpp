// qzdl_onnx2net replaces its outputs whole: a run that fails to write, or
// that is killed at any moment, leaves each output file as it was before or
// as a complete run writes it.
#include <dirent.h>
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "support/net_builder.h"
#include "tools/interrupted_run.h"

namespace qzdl::test {
namespace {

// x [1, k] -> Gemm -> Relu -> Gemm -> y: 2 k^2 + 2 k weights, enough for a
// run that takes a noticeable time (k = 768: 4.7 MB of weights).
std::string LargeModel(int k) {
  onnx::ModelProto m = EmptyModel();
  onnx::GraphProto* g = m.mutable_graph();
  AddFloatInput(g, "x", {1, k});
  g->add_output()->set_name("y");
  auto add_init = [&](const std::string& name, std::vector<int64_t> dims, uint32_t seed) {
    auto* t = g->add_initializer();
    t->set_name(name);
    t->set_data_type(onnx::TensorProto::FLOAT);
    int64_t n = 1;
    for (int64_t d : dims) t->add_dims(d), n *= d;
    const std::vector<float> v = RandomVector(static_cast<size_t>(n), seed, -0.05f, 0.05f);
    t->set_raw_data(std::string(reinterpret_cast<const char*>(v.data()), v.size() * 4));
  };
  auto add_node = [&](const std::string& op, std::vector<std::string> inputs,
                      const std::string& out) {
    auto* n = g->add_node();
    n->set_op_type(op);
    n->set_name(out);
    for (const auto& i : inputs) n->add_input(i);
    n->add_output(out);
    if (op == "Gemm") {
      auto* a = n->add_attribute();
      a->set_name("transB");
      a->set_type(onnx::AttributeProto::INT);
      a->set_i(1);
    }
  };
  add_init("w1", {k, k}, 1);
  add_init("b1", {k}, 2);
  add_init("w2", {k, k}, 3);
  add_init("b2", {k}, 4);
  add_node("Gemm", {"x", "w1", "b1"}, "h");
  add_node("Relu", {"h"}, "r");
  add_node("Gemm", {"r", "w2", "b2"}, "y");
  return m.SerializeAsString();
}

// The model and the complete outputs are made once for all tests; each test
// has an output folder of its own.
class OnnxInterruptedWrite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new std::string(TempDir("interrupted_write"));
    model_ = new std::string(*dir_ + "/model.onnx");
    std::ofstream(*model_, std::ios::binary) << LargeModel(768);
    // The complete outputs, from a run into a folder of their own.
    const std::string ref = *dir_ + "/ref";
    mkdir(ref.c_str(), 0755);
    seconds_ = TimeRun(QZDL_ONNX2NET, Args(ref));
    outputs_ = new std::vector<OutputFile>;
    for (const char* name : {"net.json", "net.bin", "net.fb"}) {
      OutputFile f;
      f.name = name;
      f.old_contents = std::string("an earlier ") + name + "\n";
      f.new_contents = ReadFile(ref + "/" + name);
      outputs_->push_back(f);
    }
  }
  static void TearDownTestSuite() {
    delete dir_;
    delete model_;
    delete outputs_;
  }

  void SetUp() override {
    ASSERT_GT(outputs_->at(0).new_contents.size(), 0u);
    ASSERT_GT(outputs_->at(1).new_contents.size(), 4u << 20);
    ASSERT_GT(outputs_->at(2).new_contents.size(), 4u << 20);
    out_ = *dir_ + "/" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_EQ(mkdir(out_.c_str(), 0755), 0);
  }

  static std::vector<std::string> Args(const std::string& folder) {
    return {*model_, folder + "/net.json", folder + "/net.bin", "--serial", folder + "/net.fb"};
  }

  InterruptedRuns Plan(int sig) const {
    InterruptedRuns plan;
    plan.program = QZDL_ONNX2NET;
    plan.args = Args(out_);
    plan.dir = out_;
    plan.outputs = *outputs_;
    plan.signal = sig;
    return plan;
  }

  void PutOldOutputs() const {
    for (const OutputFile& f : *outputs_) {
      std::ofstream(out_ + "/" + f.name, std::ios::binary) << f.old_contents;
    }
  }

  std::vector<std::string> OutputFolder() const {
    std::vector<std::string> names;
    if (DIR* d = opendir(out_.c_str())) {
      while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') names.push_back(e->d_name);
      }
      closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::string* dir_;
  static std::string* model_;
  static double seconds_;
  static std::vector<OutputFile>* outputs_;
  std::string out_;
};

std::string* OnnxInterruptedWrite::dir_ = nullptr;
std::string* OnnxInterruptedWrite::model_ = nullptr;
double OnnxInterruptedWrite::seconds_ = 0;
std::vector<OutputFile>* OnnxInterruptedWrite::outputs_ = nullptr;

TEST_F(OnnxInterruptedWrite, KilledRunsLeaveOldOrCompleteFiles) {
  // Before, during and after the import, then at moments of the writing
  // itself. None of the runs takes longer than a complete one.
  InterruptedRuns plan = Plan(SIGKILL);
  plan.after_start = Spread(7, 1.2 * seconds_);
  plan.after_first_temporary = {0,     0.0005, 0.001, 0.002, 0.003, 0.004,
                                0.006, 0.008,  0.011, 0.015, 0.025};
  const InterruptionCounts counts = RunInterrupted(plan);
  std::cout << "SIGKILL, a complete run taking " << seconds_ << " s: " << counts.Summary() << "\n";
  EXPECT_EQ(counts.runs, 18);
}

TEST_F(OnnxInterruptedWrite, TerminatedRunsLeaveNoTemporaryFile) {
  InterruptedRuns plan = Plan(SIGTERM);
  plan.after_start = Spread(3, 1.2 * seconds_);
  plan.after_first_temporary = {0, 0.001, 0.003, 0.006, 0.012};
  const InterruptionCounts counts = RunInterrupted(plan);
  std::cout << "SIGTERM, a complete run taking " << seconds_ << " s: " << counts.Summary() << "\n";
  EXPECT_EQ(counts.runs, 8);
  EXPECT_EQ(counts.temporary, 0);
}

TEST_F(OnnxInterruptedWrite, AFileThatCannotBeWrittenReplacesNone) {
  PutOldOutputs();
  const std::string fb = out_ + "/missing/net.fb";
  const ToolRun run = RunOnnx2Net("'" + *model_ + "' '" + out_ + "/net.json' '" + out_ +
                                  "/net.bin' --serial '" + fb + "'");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "qzdl_onnx2net: cannot write \"" + fb + "\": No such file or directory\n");
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(ReadFile(out_ + "/net.json"), outputs_->at(0).old_contents);
  EXPECT_EQ(ReadFile(out_ + "/net.bin"), outputs_->at(1).old_contents);
  EXPECT_EQ(OutputFolder(), std::vector<std::string>({"net.bin", "net.fb", "net.json"}));
}

TEST_F(OnnxInterruptedWrite, ACompleteRunReplacesEveryFileAndLeavesNothingElse) {
  PutOldOutputs();
  TimeRun(QZDL_ONNX2NET, Args(out_));
  for (const OutputFile& f : *outputs_) {
    EXPECT_TRUE(ReadFile(out_ + "/" + f.name) == f.new_contents) << f.name;
  }
  EXPECT_EQ(OutputFolder(), std::vector<std::string>({"net.bin", "net.fb", "net.json"}));
}

}  // namespace
}  // namespace qzdl::test
