// qzdl_run --compare as a user runs it: the report of the accuracy report
// fixture (tests/fixtures/accuracy_report), its JSON file, and one line on
// standard error, status 1, for each kind of bad input.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/json11.h"
#include "tools/process_runner.h"

namespace qzdl {
namespace {

const std::string kFixture = std::string(QZDL_TEST_DATA_DIR) + "/accuracy_report";
const std::string kDigits = std::string(QZDL_SOURCE_DIR) + "/examples/digits";

class CompareTool : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = test::TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
  }

  // qzdl_run --compare with the fixture's four files, then `args`, run in
  // the fixture folder (the list's paths are relative to it).
  static test::ProcessResult Compare(const std::vector<std::string>& args,
                                     const std::string& quant_json = "net_hybrid.json",
                                     const std::string& quant_model = "q.bin") {
    std::vector<std::string> all = {"--compare", "net.json", "net.bin", quant_json, quant_model};
    all.insert(all.end(), args.begin(), args.end());
    return test::RunProgram(QZDL_RUN, all, kFixture);
  }

  // The one line on standard error, status 1.
  static void ExpectError(const test::ProcessResult& r, const std::string& message) {
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.err, "qzdl_run: " + message + "\n");
  }

  std::string dir_;
};

TEST_F(CompareTool, ReportsTheFixture) {
  const test::ProcessResult r =
      Compare({"--list", "list.txt", "--worst", "1", "--json", dir_ + "/report.json"});
  ASSERT_TRUE(r.exited);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "compare: float net net.json against quantized net net_hybrid.json on 5 items of "
            "list.txt\n"
            "outputs, float net against 8-bit net over 5 items:\n"
            "  \"out\" [1, 6]: cosine 0.997201, SQNR 20.96 dB, max abs error 0.4; worst item 3 "
            "(cosine 0.998919)\n"
            "top-1 of \"out\": float 60.00 % (3), 8-bit 40.00 % (2), agreement 80.00 % (4)\n"
            "tensors, worst first (1 of 2):\n"
            "   SQNR dB    cosine    max abs type  float range            grid range          "
            "    clipped  tensor\n"
            "     16.48  0.991683        0.6 int8  -1.6 .. 2.4            -1 .. 2             "
            "    16.667%  data [1, 6] (read by ReLU only)\n"
            "  (read by ReLU only: negative values clipped by the grid are zeroed by the ReLU "
            "anyway; see its output)\n");
  std::string error;
  const json11::Json j = json11::Json::parse(test::ReadFile(dir_ + "/report.json"), error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(j["items"].int_value(), 5);
  EXPECT_EQ(j["tensors"].array_items().size(), 2u);  // all of them, whatever --worst says
  EXPECT_EQ(j["top1"]["quantized_correct"].int_value(), 2);
  EXPECT_EQ(j["quantized_net"].string_value(), "net_hybrid.json");
}

TEST_F(CompareTool, AFolderOfItemsHasNoLabels) {
  const test::ProcessResult r = Compare({"--dir", "items", "--worst", "0"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_TRUE(test::HasLine(r.out, "top-1 of \"out\": agreement 80.00 % (4)")) << r.out;
  EXPECT_TRUE(test::HasLine(r.out, "tensors, worst first (2 of 2):")) << r.out;
}

TEST_F(CompareTool, AListLineNamingAMissingFile) {
  test::WriteFile(dir_ + "/list.txt", "items/0.npy\t1\nitems/missing.npy\t2\n");
  ExpectError(Compare({"--list", dir_ + "/list.txt"}),
              dir_ +
                  "/list.txt line 2: cannot read \"items/missing.npy\": No such file or "
                  "directory");
}

TEST_F(CompareTool, ALabelThatIsNotANumber) {
  test::WriteFile(dir_ + "/list.txt", "items/0.npy seven\n");
  ExpectError(Compare({"--list", dir_ + "/list.txt"}),
              dir_ + "/list.txt line 1: the label \"seven\" is not a whole number from 0");
}

TEST_F(CompareTool, AMissingList) {
  ExpectError(Compare({"--list", dir_ + "/none.txt"}),
              "cannot read the list \"" + dir_ + "/none.txt\": No such file or directory");
}

TEST_F(CompareTool, AnItemOfTheWrongSize) {
  test::WriteFile(dir_ + "/list.txt", kDigits + "/eval/000.npy 2\n");
  ExpectError(Compare({"--list", dir_ + "/list.txt"}),
              dir_ + "/list.txt line 1: \"" + kDigits +
                  "/eval/000.npy\" holds 256 floats; input \"data\" [1, 6] takes 6");
}

TEST_F(CompareTool, ADescriptionThatDoesNotMatchItsWeights) {
  // The digits net converted, then paired with the fixture's weights, and
  // the fixture's description with the digits weights.
  const test::ProcessResult c = test::RunProgram(
      QZDL_CONVERTER_EXE,
      {"-j", kDigits + "/net.json", "-m", kDigits + "/net.bin", "-o", dir_ + "/digits.bin", "-s",
       kDigits + "/calibration/list.txt", "-t", "npy", "-c", "0"},
      QZDL_SOURCE_DIR);
  ASSERT_EQ(c.status, 0) << c.out << c.err;
  const test::ProcessResult r = test::RunProgram(
      QZDL_RUN,
      {"--compare", kDigits + "/net.json", kDigits + "/net.bin", dir_ + "/net_hybrid.json",
       kFixture + "/q.bin", "--list", kDigits + "/eval/list.txt"},
      QZDL_SOURCE_DIR);
  ExpectError(r, "cannot create the quantized net: Model file \"" + kFixture +
                     "/q.bin\": layer \"conv1\": blob \"weight\" is missing (expected shape "
                     "[16, 1, 3, 3])");
  ExpectError(Compare({"--list", "list.txt"}, "net_hybrid.json", dir_ + "/digits.bin"),
              "cannot create the quantized net: Model file \"" + dir_ +
                  "/digits.bin\": layer \"conv1\": blob \"weight\" belongs to no layer of the "
                  "net");
}

TEST_F(CompareTool, ModelsWithDifferentOutputs) {
  test::WriteFile(dir_ + "/y_hybrid.json",
                  R"({"inputs": [{"name": "data", "dims": [1, 6]}], "outputs": ["y"],
          "layers": [{"name": "relu", "type": "ReLU", "inputs": ["data"], "outputs": ["y"]}],
          "quantization": {"version": 1, "hybrid": true, "tensors": [
            {"name": "data", "data_type": "int8", "min": -1, "max": 2},
            {"name": "y", "data_type": "int8", "min": -1, "max": 2}]}})");
  ExpectError(Compare({"--list", "list.txt"}, dir_ + "/y_hybrid.json"),
              "the nets' outputs differ: output 1 of the float net is \"out\" [1, 6], of the "
              "quantized net \"y\" [1, 6]");
}

TEST_F(CompareTool, AFloatDescriptionAsTheQuantizedModel) {
  ExpectError(Compare({"--list", "list.txt"}, "net.json", "net.bin"),
              "cannot create the quantized net: Net file \"net.json\": has no \"quantization\" "
              "section: it describes a float net (run it with its float weights, or convert it "
              "first)");
}

TEST_F(CompareTool, AReportFileThatCannotBeWritten) {
  const test::ProcessResult r = Compare({"--list", "list.txt", "--json", dir_ + "/no/r.json"});
  ExpectError(r, "cannot write \"" + dir_ + "/no/r.json\": No such file or directory");
  EXPECT_TRUE(test::HasLine(r.out, "tensors, worst first (2 of 2):")) << r.out;
}

TEST_F(CompareTool, BadCommandLines) {
  ExpectError(Compare({"--list", "list.txt", "--worst", "x"}),
              "--worst \"x\" is not a whole number from 0");
  for (const std::vector<std::string>& args : {std::vector<std::string>{},
                                               {"--list", "list.txt", "--dir", "items"},
                                               {"--list"},
                                               {"--list", "list.txt", "--bogus", "1"}}) {
    const test::ProcessResult r = Compare(args);
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(r.err.rfind("usage: qzdl_run", 0), 0u) << r.err;
  }
}

}  // namespace
}  // namespace qzdl
