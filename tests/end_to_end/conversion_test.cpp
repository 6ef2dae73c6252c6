// Whole conversions as a user runs them: the converter with each of the
// calibration methods 0 to 5 writes the quantized model, qzdl_run loads and
// runs it, and its output is compared with the float net's on a calibration
// sample. The cosines go to the test log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/bench_models.h"
#include "dataloader/sample_files.h"
#include "runtime/json11.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

// The cosine of qzdl_run's "compare:" line, or -2 without one.
double ComparedCosine(const std::string& out) {
  const size_t at = out.find("cosine ");
  return at == std::string::npos ? -2.0 : std::atof(out.c_str() + at + 7);
}

// The plain methods, 0 to 5.
std::vector<std::vector<std::string>> PlainMethods() {
  std::vector<std::vector<std::string>> modes;
  for (int mode = 0; mode <= 5; ++mode) modes.push_back({"-c", std::to_string(mode)});
  return modes;
}

// Converts `json`/`model` (input `input` of `dims`) with each of `modes`
// (converter options) on `samples` calibration items of uniform values in
// [lo, hi), runs each result on the first item and returns the cosines
// against the float net; `logs` gets each conversion's output.
std::vector<double> ConvertEveryMethod(
    const std::string& dir, const std::string& json, const std::string& model,
    const std::string& input, const std::vector<size_t>& dims, int samples, float lo, float hi,
    const std::string& label, const std::vector<std::vector<std::string>>& modes = PlainMethods(),
    std::vector<std::string>* logs = nullptr) {
  size_t count = 1;
  for (size_t d : dims) count *= d;
  std::string list;
  for (int i = 0; i < samples; ++i) {
    const std::string path = dir + "/s" + std::to_string(i) + ".npy";
    WriteNpy(path, dims, RandomVector(count, 100 + i, lo, hi));
    list += path + "\n";
  }
  WriteFile(dir + "/list.txt", list);
  const std::string first = input + "=" + dir + "/s0.npy";
  ProcessResult f =
      RunProgram(QZDL_RUN, {json, model, "--input", first, "--out-dir", dir + "/float"}, dir, 300);
  EXPECT_EQ(f.status, 0) << f.out << f.err;
  std::vector<double> cosines;
  for (size_t m = 0; m < modes.size(); ++m) {
    std::string mode;
    for (const std::string& arg : modes[m]) mode += (mode.empty() ? "" : " ") + arg;
    const std::string out = dir + "/out" + std::to_string(m);
    mkdir(out.c_str(), 0755);
    std::vector<std::string> args = {
        "-j", json, "-m", model, "-o", out + "/m.bin", "-s", dir + "/list.txt", "-t", "npy"};
    args.insert(args.end(), modes[m].begin(), modes[m].end());
    const ProcessResult c = RunProgram(QZDL_CONVERTER_EXE, args, dir, 900);
    if (logs != nullptr) logs->push_back(c.out);
    EXPECT_TRUE(c.exited && c.status == 0) << "mode " << mode << "\n" << c.out << c.err;
    const std::string hybrid =
        out + "/" + json.substr(json.rfind('/') + 1, json.rfind('.') - json.rfind('/') - 1) +
        "_hybrid.json";
    struct stat st;
    EXPECT_EQ(stat((out + "/m.bin").c_str(), &st), 0) << mode;
    EXPECT_EQ(stat(hybrid.c_str(), &st), 0) << hybrid;
    const ProcessResult q = RunProgram(
        QZDL_RUN, {hybrid, out + "/m.bin", "--input", first, "--compare-dir", dir + "/float"}, dir,
        300);
    EXPECT_EQ(q.status, 0) << q.out << q.err;
    cosines.push_back(ComparedCosine(q.out));
    printf("%s, %s: quantized model against float, cosine %.6f\n", label.c_str(), mode.c_str(),
           cosines.back());
  }
  return cosines;
}

TEST(ConverterEndToEnd, ExampleNetWithEveryMethod) {
  const std::string dir = TempDir("end_to_end_example");
  const std::string src = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn";
  const std::vector<double> cosines =
      ConvertEveryMethod(dir, src + "/net.json", src + "/net.bin", "data", {1, 3, 32, 32}, 4, 0.0f,
                         255.0f, "example net");
  for (double c : cosines) EXPECT_GT(c, 0.9);
}

// Each search with its progress lines, on the example net.
TEST(ConverterEndToEnd, ExampleNetWithEverySearch) {
  const std::string dir = TempDir("end_to_end_example_search");
  const std::string src = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn";
  const std::vector<std::vector<std::string>> modes = {
      {"-c", "6"}, {"-c", "7"}, {"-c", "8"}, {"-c", "0", "-n", "1"}, {"-c", "8", "-e", "0.9999"}};
  const std::vector<std::string> progress = {
      "----Final error: ", "----Final error: ", "searching in 7_th candidate",
      "----Perform BiasTuning in channel 1, delta: ", "whole-net search: cosine "};
  std::vector<std::string> logs;
  const std::vector<double> cosines =
      ConvertEveryMethod(dir, src + "/net.json", src + "/net.bin", "data", {1, 3, 32, 32}, 4, 0.0f,
                         255.0f, "example net", modes, &logs);
  ASSERT_EQ(logs.size(), modes.size());
  for (size_t m = 0; m < modes.size(); ++m) {
    EXPECT_NE(logs[m].find(progress[m]), std::string::npos) << m << "\n" << logs[m];
    EXPECT_GT(cosines[m], 0.9) << m;
  }
  // The whole-net search ends with its summary.
  EXPECT_NE(logs[4].find("  layers in float: "), std::string::npos) << logs[4];
}

TEST(ConverterEndToEnd, ResNet18WithEveryMethod) {
  const std::string dir = TempDir("end_to_end_resnet18");
  const bench::BenchModel model = bench::MakeResNet18();
  WriteFile(dir + "/resnet18.json", model.JsonText());
  WriteFile(dir + "/resnet18.bin", model.WeightsBytes());
  const std::vector<double> cosines =
      ConvertEveryMethod(dir, dir + "/resnet18.json", dir + "/resnet18.bin", "data",
                         {1, 3, 224, 224}, 2, -1.0f, 1.0f, "ResNet-18");
  for (double c : cosines) EXPECT_GT(c, 0.5);
}

}  // namespace
}  // namespace qzdl::test

#if defined(QZDL_ONNX2NET)
namespace qzdl::test {
namespace {

// ResNet-50 of the ONNX test data, imported by the ONNX importer. Its
// weights are so small that every class gets 1/1000 after the softmax, which
// the 8-bit output grid of [0, 1] cannot tell from 0: the cosine says
// nothing here, so the test asks only that every method converts the
// imported net and that the result loads and runs.
TEST(ConverterEndToEnd, ImportedResNet50WithEveryMethod) {
  const std::string dir = TempDir("end_to_end_resnet50");
  const std::string onnx = std::string(QZDL_ONNX_TESTS_DIR) + "/light/light_resnet50.onnx";
  const ProcessResult import =
      RunProgram(QZDL_ONNX2NET, {onnx, dir + "/resnet50.json", dir + "/resnet50.bin"}, dir, 300);
  ASSERT_EQ(import.status, 0) << import.out << import.err;
  std::string error;
  const json11::Json net = json11::Json::parse(ReadFile(dir + "/resnet50.json"), error);
  ASSERT_EQ(error, "");
  const std::string input = net["inputs"][0]["name"].string_value();
  const std::vector<double> cosines =
      ConvertEveryMethod(dir, dir + "/resnet50.json", dir + "/resnet50.bin", input,
                         {1, 3, 224, 224}, 2, -1.0f, 1.0f, "imported ResNet-50");
  EXPECT_EQ(cosines.size(), 6u);
  for (double c : cosines) EXPECT_GE(c, -1.0);  // a compare line was printed
}

}  // namespace
}  // namespace qzdl::test
#endif
