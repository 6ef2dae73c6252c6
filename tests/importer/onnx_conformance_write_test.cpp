// The list of passing cases that qzdl_onnx_conformance writes (--write-pass):
// replaced whole, and a failure to write it named with its reason.
#include <gtest/gtest.h>
#include <onnx/onnx_pb.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <string>
#include <vector>

#include "importer/onnx_test_util.h"
#include "support/net_builder.h"

namespace qzdl::test {
namespace {

const char kHeader[] =
    "# ONNX test cases that import and match their stored outputs on the float runtime.\n"
    "# Written by scripts/onnx_conformance.sh; CTest runs them (qzdl_onnx_conformance).\n";

onnx::TensorProto Tensor(const std::string& name, const std::vector<float>& values) {
  onnx::TensorProto t;
  t.set_name(name);
  t.set_data_type(onnx::TensorProto::FLOAT);
  for (int64_t d : {1, 2, 3}) t.add_dims(d);
  for (float v : values) t.add_float_data(v);
  return t;
}

// ROOT/node/test_relu_case: a Relu with one data set.
std::string MakeRoot(const std::string& dir) {
  const std::string root = dir + "/cases";
  const std::string data = root + "/node/test_relu_case/test_data_set_0";
  EXPECT_EQ(system(("mkdir -p '" + data + "'").c_str()), 0);
  onnx::ModelProto m;
  m.set_ir_version(7);
  m.add_opset_import()->set_version(13);
  onnx::GraphProto* g = m.mutable_graph();
  auto declare = [](onnx::ValueInfoProto* info, const char* name) {
    info->set_name(name);
    auto* type = info->mutable_type()->mutable_tensor_type();
    type->set_elem_type(onnx::TensorProto::FLOAT);
    for (int d : {1, 2, 3}) type->mutable_shape()->add_dim()->set_dim_value(d);
  };
  declare(g->add_input(), "x");
  declare(g->add_output(), "y");
  auto* n = g->add_node();
  n->set_op_type("Relu");
  n->add_input("x");
  n->add_output("y");
  std::ofstream(root + "/node/test_relu_case/model.onnx", std::ios::binary)
      << m.SerializeAsString();
  std::ofstream(data + "/input_0.pb", std::ios::binary)
      << Tensor("x", {-1, 2, -3, 4, 0, 6}).SerializeAsString();
  std::ofstream(data + "/output_0.pb", std::ios::binary)
      << Tensor("y", {0, 2, 0, 4, 0, 6}).SerializeAsString();
  return root;
}

ToolRun RunConformance(const std::string& root, const std::string& pass_file) {
  const std::string dir = TempDir("conformance_io");
  const std::string cmd = std::string("'") + QZDL_ONNX_CONFORMANCE + "' --root '" + root +
                          "' --folder node --jobs 1 --write-pass '" + pass_file + "' >'" + dir +
                          "/out' 2>'" + dir + "/err'";
  const int raw = system(cmd.c_str());
  ToolRun run;
  run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  run.out = ReadFile(dir + "/out");
  run.err = ReadFile(dir + "/err");
  return run;
}

TEST(OnnxConformanceWrite, PassListReplacesTheOldOneWhole) {
  const std::string dir = TempDir("conformance_pass");
  const std::string root = MakeRoot(dir);
  const std::string lists = dir + "/lists";
  ASSERT_EQ(mkdir(lists.c_str(), 0755), 0);
  std::ofstream(lists + "/pass.txt") << "an older list\nnode/gone\n";
  const ToolRun run = RunConformance(root, lists + "/pass.txt");
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(ReadFile(lists + "/pass.txt"), std::string(kHeader) + "node/test_relu_case\n");
  EXPECT_EQ(system(("test \"$(ls -A '" + lists + "')\" = pass.txt").c_str()), 0);
}

TEST(OnnxConformanceWrite, UnwritablePassListIsReportedWithTheReason) {
  const std::string dir = TempDir("conformance_no_folder");
  const std::string root = MakeRoot(dir);
  const std::string pass = dir + "/missing/pass.txt";
  const ToolRun run = RunConformance(root, pass);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "qzdl_onnx_conformance: cannot write \"" + pass + "\": No such file or directory\n");
}

}  // namespace
}  // namespace qzdl::test
