// Failures of qzdl_onnx2net, run as the real executable: one clear message,
// exit status 1, and no output file.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "importer/onnx_test_util.h"
#include "support/net_builder.h"

namespace qzdl::test {
namespace {

struct Outputs {
  std::string dir, json, bin, fb;
  explicit Outputs(const std::string& name)
      : dir(TempDir(name)), json(dir + "/net.json"), bin(dir + "/net.bin"), fb(dir + "/net.fb") {}
  std::string Args() const { return "'" + json + "' '" + bin + "' --serial '" + fb + "'"; }
  void ExpectNone() const {
    EXPECT_FALSE(FileExists(json)) << json;
    EXPECT_FALSE(FileExists(bin)) << bin;
    EXPECT_FALSE(FileExists(fb)) << fb;
  }
};

void ExpectFailure(const std::string& model, const std::string& message,
                   const std::string& extra = "") {
  Outputs out(model.substr(model.find_last_of('/') + 1));
  const ToolRun run = RunOnnx2Net("'" + model + "' " + out.Args() + extra);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "qzdl_onnx2net: " + message + "\n");
  EXPECT_EQ(run.out, "");
  out.ExpectNone();
}

TEST(OnnxErrors, TruncatedFile) {
  const std::string path = Fixture("truncated.onnx");
  ExpectFailure(path, "\"" + path +
                          "\" is not a valid ONNX model: its data does not parse as an ONNX "
                          "ModelProto (truncated, or another format)");
}

TEST(OnnxErrors, NotOnnx) {
  const std::string path = TempDir("not_onnx") + "/model.onnx";
  std::ofstream(path) << "{\"inputs\": [], \"layers\": []}\n";
  ExpectFailure(path, "\"" + path +
                          "\" is not a valid ONNX model: its data does not parse as an ONNX "
                          "ModelProto (truncated, or another format)");
}

TEST(OnnxErrors, MissingFile) {
  const std::string path = TempDir("missing") + "/absent.onnx";
  ExpectFailure(path, "cannot read \"" + path + "\": No such file or directory");
}

TEST(OnnxErrors, ComputedConstantBeyondTheLimit) {
  // VGG-19's first fully connected weight, 411 MB, passes the default limit
  // (onnx_light_models_test.cpp) but not a limit of 256 MiB.
  const std::string vgg = std::string(QZDL_ONNX_TESTS_DIR) + "/light/light_vgg19.onnx";
  ExpectFailure(vgg,
                "node \"ConstantOfShape_31\" (ConstantOfShape): would have shape [4096, 25088] of "
                "float, 411041792 bytes, beyond the limit of 268435456 bytes for a constant "
                "computed while importing (qzdl_onnx2net --max-constant-mib raises it)",
                " --max-constant-mib 256");
}

TEST(OnnxErrors, BadConstantLimit) {
  for (const char* value : {"0", "-1", "12x", "", "4294967297"}) {
    ExpectFailure(Fixture("unknown_op.onnx"),
                  std::string("--max-constant-mib \"") + value +
                      "\" is not a whole number from 1 to 4294967296",
                  std::string(" --max-constant-mib '") + value + "'");
  }
}

TEST(OnnxErrors, ModelThatIsAFolder) {
  const std::string path = TempDir("folder_model") + "/model.onnx";
  ASSERT_EQ(system(("mkdir '" + path + "'").c_str()), 0);
  ExpectFailure(path, "cannot read \"" + path + "\": Is a directory");
}

TEST(OnnxErrors, ConstantInputFiles) {
  const std::string dir = TempDir("constant_input_files");
  const std::string model = Fixture("torch_cnn.onnx");
  std::ofstream(dir + "/empty.pb").flush();
  ExpectFailure(model,
                "constant input \"input\" (from \"" + dir +
                    "/empty.pb\") has no element type (an empty or damaged TensorProto)",
                " --constant-input 'input=" + dir + "/empty.pb'");
  std::ofstream(dir + "/junk.pb") << "\xff\xff\xff";
  ExpectFailure(
      model, "constant input \"input\" (from \"" + dir + "/junk.pb\") is not a valid TensorProto",
      " --constant-input 'input=" + dir + "/junk.pb'");
  ExpectFailure(model, "cannot read \"" + dir + "\": Is a directory",
                " --constant-input 'input=" + dir + "'");
}

TEST(OnnxErrors, UnknownOperator) {
  ExpectFailure(Fixture("unknown_op.onnx"),
                "node \"foo\" (FooBar): operator \"FooBar\" is not supported");
}

TEST(OnnxErrors, UnsupportedAttributeValue) {
  ExpectFailure(Fixture("bad_attr.onnx"),
                "node \"resize\" (Resize): attribute \"mode\" value \"cubic\" is not supported "
                "(supported: \"nearest\", \"linear\")");
}

TEST(OnnxErrors, MissingInitializer) {
  ExpectFailure(Fixture("missing_initializer.onnx"),
                "node \"conv\" (Conv): input \"W\" is not a graph input, an initializer or an "
                "output of an earlier node");
}

TEST(OnnxErrors, InputWithoutShape) {
  ExpectFailure(Fixture("no_shape.onnx"),
                "graph input \"x\" has no shape; give one with --input-shape x=N,C,H,W");
}

TEST(OnnxErrors, InputShapeForUnknownInput) {
  ExpectFailure(Fixture("no_shape.onnx"), "--input-shape names \"y\", which is not a graph input",
                " --input-shape y=1,2");
}

TEST(OnnxErrors, MalformedInputShape) {
  ExpectFailure(Fixture("no_shape.onnx"), "--input-shape \"x=1,0\" is not NAME=D0,D1,...",
                " --input-shape x=1,0");
}

TEST(OnnxErrors, FailureKeepsOlderOutputs) {
  // A failed run neither removes nor rewrites files that were there before.
  Outputs out("keeps_old");
  std::ofstream(out.json) << "old";
  const ToolRun run = RunOnnx2Net("'" + Fixture("unknown_op.onnx") + "' " + out.Args());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(ReadFile(out.json), "old");
  EXPECT_FALSE(FileExists(out.bin));
}

TEST(OnnxErrors, InputShapeOptionMakesItWork) {
  Outputs out("with_shape");
  const ToolRun run =
      RunOnnx2Net("'" + Fixture("no_shape.onnx") + "' " + out.Args() + " --input-shape x=2,3");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_TRUE(FileExists(out.json));
  EXPECT_TRUE(FileExists(out.bin));
  EXPECT_TRUE(FileExists(out.fb));
  EXPECT_NE(ReadFile(out.json).find("{\"name\": \"x\", \"dims\": [2, 3]}"), std::string::npos)
      << ReadFile(out.json);
}

TEST(OnnxErrors, BadCommandLine) {
  const ToolRun run = RunOnnx2Net("only_one_argument.onnx");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err.rfind("usage: qzdl_onnx2net", 0), 0u) << run.err;
}

}  // namespace
}  // namespace qzdl::test
