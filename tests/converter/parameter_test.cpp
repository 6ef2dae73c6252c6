// In-process tests of the parameter record, the option parser, the parameter
// file and the rectification. Paths that end the process run in a forked
// child.
#include "converter/parameter.h"

#include <getopt.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "quantization/calibration_method.h"
#include "support/net_builder.h"
#include "tools/expected_output.h"
#include "tools/process_runner.h"

namespace qzdl::modelConverter {
namespace {

using test::CountLines;
using test::HasLine;
using test::ReadFile;
using test::RunForked;
using test::WriteFile;

class ParameterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = test::TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    json_ = dir_ + "/net.json";
    model_ = dir_ + "/net.bin";
    other_json_ = dir_ + "/other.json";
    other_model_ = dir_ + "/other.bin";
    for (const std::string& path : {json_, model_, other_json_, other_model_}) WriteFile(path, "");
  }

  // The three paths that let rectification pass, then `args`.
  std::vector<std::string> WithPaths(std::vector<std::string> args) const {
    std::vector<std::string> all = {"-j", json_, "-m", model_, "-o", dir_ + "/out.bin"};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }

  // Runs ParseArgs in this process; `out` receives what it printed.
  static ConverterParam Parse(const std::vector<std::string>& args, std::string* out = nullptr) {
    std::vector<std::string> words = {"qzdl_NewConverter"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    ConverterParam param;
    optind = 0;  // a fresh scan for every call
    const std::string printed =
        test::CaptureStdout([&] { ParseArgs(static_cast<int>(words.size()), argv.data(), param); });
    if (out != nullptr) *out = printed;
    return param;
  }

  // Runs ParseArgs in a child, for the paths that end the process.
  static test::ProcessResult ParseForked(const std::vector<std::string>& args) {
    return RunForked([&] {
      std::vector<std::string> words = {"qzdl_NewConverter"};
      words.insert(words.end(), args.begin(), args.end());
      std::vector<char*> argv;
      for (std::string& w : words) argv.push_back(w.data());
      argv.push_back(nullptr);
      ConverterParam param;
      optind = 0;
      ParseArgs(static_cast<int>(words.size()), argv.data(), param);
    });
  }

  std::string dir_, json_, model_, other_json_, other_model_;
};

TEST_F(ParameterTest, DefaultsOfTheRecord) {
  ConverterParam p;
  EXPECT_EQ(p.optimize_input_limit, 10);
  EXPECT_EQ(p.expectant_cos_unset, -1e9);
  EXPECT_EQ(p.json_file, "");
  EXPECT_EQ(p.model_file, "");
  EXPECT_EQ(p.output_name, "");
  EXPECT_EQ(p.calibration_mode, 0);
  EXPECT_EQ(p.calibration_set, "");
  EXPECT_EQ(p.data_folder, "");
  EXPECT_EQ(p.calibration_type, "img");
  EXPECT_EQ(p.binary_set, "");
  EXPECT_EQ(p.txt_file, "");
  EXPECT_EQ(p.random_input, 0);
  EXPECT_EQ(p.calibration_loader, "");
  EXPECT_EQ(p.quantize_layer_type, "");
  EXPECT_FALSE(p.same_config);
  uint32_t bits = 0;
  std::memcpy(&bits, &p.coverage, sizeof bits);
  EXPECT_EQ(bits, 0x3F7FFCB9u);
  EXPECT_FALSE(p.symmetrical);
  EXPECT_FALSE(p.debug);
  EXPECT_FALSE(p.rgb);
  EXPECT_FALSE(p.nonuniform);
  EXPECT_FALSE(p.frugal);
  EXPECT_EQ(p.calibrate_weight, 0);
  EXPECT_FALSE(p.radical);
  EXPECT_FALSE(p.quant_calibrate);
  EXPECT_EQ(p.expectant_cos, -1e9);
  EXPECT_FALSE(p.weight_tuning);
  EXPECT_EQ(p.max_data_num, -1);
  EXPECT_TRUE(p.quantize_layer_types.empty());
}

TEST_F(ParameterTest, ModeNamesMatchTheObserverTable) {
  EXPECT_EQ(calibration_mode_string, staticQuantization::observerTypeString);
  ASSERT_EQ(calibration_mode_string.size(), 10u);
  EXPECT_EQ(calibration_mode_string[4], "MeanSquareError");
  EXPECT_EQ(calibration_mode_string[9], "Preset");
  EXPECT_EQ(CalibrationModeName(8), "CosineSearch");
  EXPECT_EQ(CalibrationModeName(10), "Unknown");
  EXPECT_EQ(CalibrationModeName(-1), "Unknown");
}

TEST_F(ParameterTest, OptionTableHas27RowsInOrder) {
  const char* names[] = {"help",
                         "json",
                         "model",
                         "calibration_mode",
                         "calibration_set",
                         "calibration_type",
                         "calibration_loader",
                         "max_data_num",
                         "random_input",
                         "nonuniform",
                         "binary_set",
                         "txt_file",
                         "output",
                         "same_config",
                         "coverage",
                         "symmetrical",
                         "debug",
                         "rgb",
                         "calibrate_weight",
                         "frugal",
                         "radical",
                         "expectant_cos",
                         "quant_calibrate",
                         "weight_tuning",
                         "quantize_layer_type",
                         "load_parameter",
                         "dump_parameter"};
  const char letters[] = "hjmcstlxaubTofvydrwgieqnLIO";
  for (int i = 0; i < 27; ++i) {
    SCOPED_TRACE(i);
    EXPECT_STREQ(long_options[i].name, names[i]);
    EXPECT_EQ(long_options[i].val, letters[i]);
    EXPECT_EQ(long_options[i].flag, nullptr);
    EXPECT_EQ(long_options[i].has_arg, i == 0 ? no_argument : required_argument);
  }
  EXPECT_EQ(long_options[27].name, nullptr);
}

TEST_F(ParameterTest, EveryOptionReachesItsField) {
  std::string out;
  ConverterParam p = Parse(
      WithPaths({"-c", "3",  "-s", "list.txt", "-t", "npy", "-l",      "preset.json", "-x",
                 "7",  "-a", "4",  "-u",       "1",  "-b",  "set.bin", "-T",          "set.txt",
                 "-f", "1",  "-v", "0.9",      "-y", "1",   "-d",      "1",           "-r",
                 "1",  "-w", "2",  "-g",       "1",  "-i",  "1",       "-e",          "0.99",
                 "-q", "1",  "-n", "1",        "-L", "ReLU"}),
      &out);
  EXPECT_EQ(p.json_file, json_);
  EXPECT_EQ(p.model_file, model_);
  EXPECT_EQ(p.output_name, dir_ + "/out.bin");
  EXPECT_EQ(p.calibration_mode, 3);
  EXPECT_EQ(p.calibration_set, "list.txt");
  EXPECT_EQ(p.calibration_type, "npy");
  EXPECT_EQ(p.calibration_loader, "preset.json");
  EXPECT_EQ(p.max_data_num, 7);
  EXPECT_EQ(p.random_input, 4);
  EXPECT_TRUE(p.nonuniform);
  EXPECT_EQ(p.binary_set, "set.bin");
  EXPECT_EQ(p.txt_file, "set.txt");
  EXPECT_TRUE(p.same_config);
  EXPECT_EQ(p.coverage, 0.9f);
  EXPECT_TRUE(p.symmetrical);
  EXPECT_TRUE(p.debug);
  EXPECT_TRUE(p.rgb);
  EXPECT_EQ(p.calibrate_weight, 2);
  EXPECT_TRUE(p.frugal);
  EXPECT_TRUE(p.radical);
  // Through a 32-bit float.
  EXPECT_EQ(p.expectant_cos, static_cast<double>(0.99f));
  EXPECT_NE(p.expectant_cos, 0.99);
  EXPECT_TRUE(p.quant_calibrate);
  EXPECT_TRUE(p.weight_tuning);
  EXPECT_EQ(p.quantize_layer_type, "ReLU");
  EXPECT_EQ(p.quantize_layer_types, std::set<std::string>{"ReLU"});
  // -T is the only option that prints.
  EXPECT_EQ(out,
            "converterParam.txt_file: set.txt\n"
            "Rectify converter parameters now:\n"
            "Quantize Layer Type: ReLU, \n"
            "Rectify finished.\n");
}

TEST_F(ParameterTest, LongNamesWorkBehindOneDash) {
  ConverterParam p = Parse({"-json", json_, "--model", model_, "-output", "o", "-calibration_mode",
                            "5", "--random_input", "3"});
  EXPECT_EQ(p.json_file, json_);
  EXPECT_EQ(p.model_file, model_);
  EXPECT_EQ(p.output_name, "o");
  EXPECT_EQ(p.calibration_mode, 5);
  EXPECT_EQ(p.random_input, 3);
}

TEST_F(ParameterTest, BooleansAreNumbers) {
  EXPECT_TRUE(Parse(WithPaths({"--frugal", "1"})).frugal);
  EXPECT_TRUE(Parse(WithPaths({"-g", "7"})).frugal);
  EXPECT_FALSE(Parse(WithPaths({"--frugal", "true"})).frugal);
  EXPECT_FALSE(Parse(WithPaths({"-g", "0"})).frugal);
  // One word: the argument is the whole word, which converts to 0.
  EXPECT_FALSE(Parse(WithPaths({"--frugal=1"})).frugal);
  EXPECT_FALSE(Parse(WithPaths({"-g1"})).frugal);
  EXPECT_FALSE(Parse(WithPaths({"-d", "yes"})).debug);
}

TEST_F(ParameterTest, NumbersHaveNoErrorCheck) {
  ConverterParam p = Parse(WithPaths({"-x", "abc", "-a", "12abc", "-v", "x", "-w", "-3"}));
  EXPECT_EQ(p.max_data_num, 0);
  EXPECT_EQ(p.random_input, 12);
  EXPECT_EQ(p.coverage, 0.0f);
  EXPECT_EQ(p.calibrate_weight, -3);
  // One word: the text starts with the option itself.
  EXPECT_EQ(Parse(WithPaths({"--calibration_mode=4"})).calibration_mode, 0);
  EXPECT_EQ(Parse(WithPaths({"-c4"})).calibration_mode, 0);
}

TEST_F(ParameterTest, ModeIsNotRangeChecked) {
  EXPECT_EQ(Parse(WithPaths({"-c", "9"})).calibration_mode, 9);
  EXPECT_EQ(Parse(WithPaths({"-c", "12"})).calibration_mode, 12);
}

TEST_F(ParameterTest, ExpectantCosEqualToTheSentinelCountsAsUnset) {
  ConverterParam p = Parse(WithPaths({"-e", "-1e9"}));
  EXPECT_EQ(p.expectant_cos, p.expectant_cos_unset);
  EXPECT_NE(Parse(WithPaths({"-e", "0"})).expectant_cos, -1e9);
}

TEST_F(ParameterTest, WordsBehindTheOptionsAreIgnored) {
  ConverterParam p = Parse(WithPaths({"-c", "2", "left", "over"}));
  EXPECT_EQ(p.calibration_mode, 2);
  EXPECT_EQ(p.json_file, json_);
}

TEST_F(ParameterTest, ParameterFileOverridesTheCommandLineInEitherOrder) {
  ConverterParam file_param;
  file_param.json_file = other_json_;
  file_param.model_file = other_model_;
  file_param.output_name = "from_file";
  file_param.calibration_mode = staticQuantization::Entropy;
  file_param.dumpJsonFile(dir_ + "/params.json");

  ConverterParam before =
      Parse({"-I", dir_ + "/params.json", "-j", json_, "-m", model_, "-c", "3"});
  ConverterParam after = Parse({"-j", json_, "-m", model_, "-c", "3", "-I", dir_ + "/params.json"});
  for (const ConverterParam* p : {&before, &after}) {
    EXPECT_EQ(p->json_file, other_json_);
    EXPECT_EQ(p->model_file, other_model_);
    EXPECT_EQ(p->output_name, "from_file");
    EXPECT_EQ(p->calibration_mode, 2);
  }
}

TEST_F(ParameterTest, HelpPrintsUsageAndEndsWith255) {
  for (const char* word : {"-h", "--help", "-help"}) {
    SCOPED_TRACE(word);
    test::ProcessResult r = ParseForked(WithPaths({word}));
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, test::kUsageText);
  }
}

TEST_F(ParameterTest, UnknownOptionAndMissingArgumentEndWithUsage) {
  test::ProcessResult unknown = ParseForked(WithPaths({"--no_such_option", "1"}));
  ASSERT_TRUE(unknown.exited);
  EXPECT_EQ(unknown.status, 255);
  EXPECT_EQ(unknown.out, test::kUsageText);
  EXPECT_NE(unknown.err.find("no_such_option"), std::string::npos) << unknown.err;

  test::ProcessResult missing = ParseForked(WithPaths({"-c"}));
  ASSERT_TRUE(missing.exited);
  EXPECT_EQ(missing.status, 255);
  EXPECT_EQ(missing.out, test::kUsageText);
  EXPECT_NE(missing.err.find("requires an argument"), std::string::npos) << missing.err;
}

TEST_F(ParameterTest, DumpWritesTheValuesBeforeRectification) {
  const std::string dump = dir_ + "/dump.json";
  // No -j: rectification fails, but only after the dump.
  test::ProcessResult r =
      ParseForked({"-m", model_, "-o", "out", "-g", "1", "-c", "4", "-O", dump});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 255);
  const std::string text = ReadFile(dump);
  EXPECT_NE(text.find("\"frugal\": true"), std::string::npos) << text;
  EXPECT_NE(text.find("\"calibration_mode\": 4"), std::string::npos) << text;
  EXPECT_NE(text.find("\"json_file\": \"\""), std::string::npos) << text;
}

TEST_F(ParameterTest, OneWordFormsStoreTheWholeWord) {
  const std::string dump = dir_ + "/dump.json";
  test::ProcessResult r = ParseForked(
      {"--json=" + json_, "-m" + model_, "-o", "out", "--calibration_mode=4", "-O", dump});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 255);
  const std::string text = ReadFile(dump);
  EXPECT_NE(text.find("\"json_file\": \"--json=" + json_ + "\""), std::string::npos) << text;
  EXPECT_NE(text.find("\"model_file\": \"-m" + model_ + "\""), std::string::npos) << text;
  EXPECT_NE(text.find("\"calibration_mode\": 0"), std::string::npos) << text;
  EXPECT_TRUE(HasLine(r.out, "Rectify converter parameters now:"));
  EXPECT_NE(r.out.find("]: Net file or model file not found, please check your input.\n"),
            std::string::npos)
      << r.out;
}

// ---- The parameter file ----

TEST_F(ParameterTest, DumpOfTheDefaults) {
  ConverterParam p;
  p.dumpJsonFile(dir_ + "/d.json");
  EXPECT_EQ(ReadFile(dir_ + "/d.json"), test::kDefaultParameterFile);
}

TEST_F(ParameterTest, DumpAndLoadRoundTrip) {
  ConverterParam p;
  p.json_file = "a.json";
  p.model_file = "a.bin";
  p.output_name = "o.bin";
  p.calibration_mode = staticQuantization::Histogram;
  p.calibration_set = "list";
  p.data_folder = "folder";
  p.calibration_type = "npy";
  p.binary_set = "b";
  p.txt_file = "t";
  p.random_input = 5;
  p.calibration_loader = "pre";
  p.quantize_layer_type = "ReLU,Pooling";
  p.same_config = true;
  p.coverage = 0.5f;
  p.symmetrical = true;
  p.debug = true;
  p.rgb = true;
  p.nonuniform = true;
  p.frugal = true;
  p.calibrate_weight = 2;
  p.radical = true;
  p.quant_calibrate = true;
  p.expectant_cos = 0.123456789012345;
  p.weight_tuning = true;
  p.max_data_num = 9;
  p.optimize_input_limit = 3;      // not part of the file
  p.quantize_layer_types = {"x"};  // nor this
  p.dumpJsonFile(dir_ + "/d.json");

  ConverterParam q;
  q.loadFromJsonFile(dir_ + "/d.json");
  EXPECT_EQ(q.json_file, "a.json");
  EXPECT_EQ(q.model_file, "a.bin");
  EXPECT_EQ(q.output_name, "o.bin");
  EXPECT_EQ(q.calibration_mode, 5);
  EXPECT_EQ(q.calibration_set, "list");
  EXPECT_EQ(q.data_folder, "folder");
  EXPECT_EQ(q.calibration_type, "npy");
  EXPECT_EQ(q.binary_set, "b");
  EXPECT_EQ(q.txt_file, "t");
  EXPECT_EQ(q.random_input, 5);
  EXPECT_EQ(q.calibration_loader, "pre");
  EXPECT_EQ(q.quantize_layer_type, "ReLU,Pooling");
  EXPECT_TRUE(q.same_config);
  EXPECT_EQ(q.coverage, 0.5f);
  EXPECT_TRUE(q.symmetrical);
  EXPECT_TRUE(q.debug);
  EXPECT_TRUE(q.rgb);
  EXPECT_TRUE(q.nonuniform);
  EXPECT_TRUE(q.frugal);
  EXPECT_EQ(q.calibrate_weight, 2);
  EXPECT_TRUE(q.radical);
  EXPECT_TRUE(q.quant_calibrate);
  // Full double precision through the file.
  EXPECT_EQ(q.expectant_cos, 0.123456789012345);
  EXPECT_TRUE(q.weight_tuning);
  EXPECT_EQ(q.max_data_num, 9);
  EXPECT_EQ(q.optimize_input_limit, 10);
  EXPECT_TRUE(q.quantize_layer_types.empty());
  EXPECT_EQ(q.expectant_cos_unset, -1e9);
}

TEST_F(ParameterTest, DumpedSentinelLoadsBackAsUnset) {
  ConverterParam p;
  p.dumpJsonFile(dir_ + "/d.json");
  ConverterParam q;
  q.expectant_cos = 0.5;
  q.loadFromJsonFile(dir_ + "/d.json");
  EXPECT_EQ(q.expectant_cos, q.expectant_cos_unset);
}

TEST_F(ParameterTest, MissingKeysResetTheirFields) {
  WriteFile(dir_ + "/p.json", R"({"json_file": "j", "frugal": 1, "coverage": "0.5"})");
  ConverterParam p;
  p.model_file = "kept?";
  p.calibration_mode = staticQuantization::Entropy;
  p.frugal = true;
  p.loadFromJsonFile(dir_ + "/p.json");
  EXPECT_EQ(p.json_file, "j");
  EXPECT_EQ(p.model_file, "");
  EXPECT_EQ(p.calibration_mode, 0);
  EXPECT_EQ(p.calibration_type, "");
  EXPECT_EQ(p.max_data_num, 0);
  // A value of another JSON type reads like a missing one.
  EXPECT_FALSE(p.frugal);
  EXPECT_EQ(p.coverage, 0.0f);
  // Missing "expectant_cos" reads 0.0, which differs from the sentinel.
  EXPECT_EQ(p.expectant_cos, 0.0);
  EXPECT_NE(p.expectant_cos, p.expectant_cos_unset);
}

TEST_F(ParameterTest, MissingOrBrokenFileResetsEverything) {
  for (const std::string& path : {dir_ + "/none.json", dir_ + "/broken.json"}) {
    WriteFile(dir_ + "/broken.json", "{\"json_file\": ");
    ConverterParam p;
    p.json_file = "x";
    p.calibration_type = "img";
    p.loadFromJsonFile(path);
    EXPECT_EQ(p.json_file, "");
    EXPECT_EQ(p.calibration_type, "");
    EXPECT_EQ(p.max_data_num, 0);
    EXPECT_EQ(p.expectant_cos, 0.0);
  }
}

TEST_F(ParameterTest, CoverageIsNarrowedAndWidened) {
  WriteFile(dir_ + "/p.json", R"({"coverage": 0.1})");
  ConverterParam p;
  p.loadFromJsonFile(dir_ + "/p.json");
  EXPECT_EQ(p.coverage, 0.1f);
  p.dumpJsonFile(dir_ + "/d.json");
  EXPECT_NE(ReadFile(dir_ + "/d.json").find("\"coverage\": 0.10000000149011612"),
            std::string::npos);
}

// ---- Rectification ----

ConverterParam Rectified(ConverterParam p, std::string* out) {
  *out = test::CaptureStdout([&] { RectifyParameter(p); });
  return p;
}

class RectifyTest : public ParameterTest {
 protected:
  ConverterParam Base(int mode, bool frugal) const {
    ConverterParam p;
    p.json_file = json_;
    p.model_file = model_;
    p.output_name = "out";
    p.calibration_mode = static_cast<CalibrationMethod>(mode);
    p.frugal = frugal;
    return p;
  }
};

const char kAverageMessage[] =
    "Average calibration method will use frugal inference mode, frugal shall be enabled";
const char kNoFrugalMessage[] =
    "MeanSquareError, AdaQuant and CosineSearch calibration method dose not support frugal "
    "inference, frugal shall be disabled.";

TEST_F(RectifyTest, PlainRunPrintsTwoLines) {
  std::string out;
  ConverterParam p = Rectified(Base(0, false), &out);
  EXPECT_EQ(out, "Rectify converter parameters now:\nRectify finished.\n");
  EXPECT_FALSE(p.frugal);
}

TEST_F(RectifyTest, AverageTurnsFrugalOn) {
  std::string out;
  EXPECT_TRUE(Rectified(Base(1, false), &out).frugal);
  EXPECT_EQ(out, std::string("Rectify converter parameters now:\n") + kAverageMessage +
                     "\nRectify finished.\n");
  EXPECT_TRUE(Rectified(Base(1, true), &out).frugal);
  EXPECT_EQ(CountLines(out, kAverageMessage), 0);
}

TEST_F(RectifyTest, SearchModesTurnFrugalOff) {
  for (int mode : {4, 6, 7, 8}) {
    SCOPED_TRACE(mode);
    std::string out;
    EXPECT_FALSE(Rectified(Base(mode, true), &out).frugal);
    EXPECT_EQ(CountLines(out, kNoFrugalMessage), 1);
    EXPECT_FALSE(Rectified(Base(mode, false), &out).frugal);
    EXPECT_EQ(CountLines(out, kNoFrugalMessage), 0);
  }
}

TEST_F(RectifyTest, OtherModesKeepFrugal) {
  for (int mode : {0, 3, 5, 9}) {
    SCOPED_TRACE(mode);
    std::string out;
    EXPECT_TRUE(Rectified(Base(mode, true), &out).frugal);
    EXPECT_EQ(out, "Rectify converter parameters now:\nRectify finished.\n");
  }
}

TEST_F(RectifyTest, AdaQuantClearsQuantCalibrateAndWeightTuning) {
  const char quant[] =
      "Can not perform quant calibrate under AdaQuant or AdaQuantSequential, disable "
      "quantcalibrate now.";
  const char tuning[] =
      "Can not perform weight tuning under AdaQuant calibration method. Disable weight_tuning now";
  for (int mode : {6, 7}) {
    ConverterParam p = Base(mode, false);
    p.quant_calibrate = true;
    p.weight_tuning = true;
    std::string out;
    ConverterParam r = Rectified(p, &out);
    EXPECT_FALSE(r.quant_calibrate);
    EXPECT_FALSE(r.weight_tuning);
    EXPECT_EQ(out, std::string("Rectify converter parameters now:\n") + quant + "\n" + tuning +
                       "\nRectify finished.\n");
    Rectified(Base(mode, false), &out);
    EXPECT_EQ(out, "Rectify converter parameters now:\nRectify finished.\n");
  }
  // Other modes keep both.
  ConverterParam p = Base(8, false);
  p.quant_calibrate = true;
  p.weight_tuning = true;
  std::string out;
  ConverterParam r = Rectified(p, &out);
  EXPECT_TRUE(r.quant_calibrate);
  EXPECT_TRUE(r.weight_tuning);
}

TEST_F(RectifyTest, EntropyUnderFrugalWarnsOnly) {
  const char warning[] =
      "Warning: Entropy calibration method under frugal mode uses hist-combine, the result will be "
      "slightly different with entropy under batch mode";
  std::string out;
  EXPECT_TRUE(Rectified(Base(2, true), &out).frugal);
  EXPECT_EQ(CountLines(out, warning), 1);
  Rectified(Base(2, false), &out);
  EXPECT_EQ(CountLines(out, warning), 0);
}

TEST_F(RectifyTest, LayerTypeSplitting) {
  struct Case {
    std::string text;
    std::set<std::string> types;
    std::string line;
  };
  const Case cases[] = {
      {"Convolution,,Pooling",
       {"", "Convolution", "Pooling"},
       "Quantize Layer Type: , Convolution, Pooling, "},
      {"Convolution,", {"Convolution"}, "Quantize Layer Type: Convolution, "},
      {"Convolution, Pooling",
       {"Convolution", " Pooling"},
       "Quantize Layer Type:  Pooling, Convolution, "},
      {",", {""}, "Quantize Layer Type: , "},
      {"ReLU,ReLU", {"ReLU"}, "Quantize Layer Type: ReLU, "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ConverterParam p = Base(0, false);
    p.quantize_layer_type = c.text;
    std::string out;
    ConverterParam r = Rectified(p, &out);
    EXPECT_EQ(r.quantize_layer_types, c.types);
    EXPECT_EQ(out, "Rectify converter parameters now:\n" + c.line + "\nRectify finished.\n");
  }
}

TEST_F(RectifyTest, EmptyPathEndsWith255) {
  for (int which = 0; which < 3; ++which) {
    SCOPED_TRACE(which);
    ConverterParam p = Base(0, false);
    (which == 0 ? p.json_file : which == 1 ? p.model_file : p.output_name).clear();
    test::ProcessResult r = RunForked([&] { RectifyParameter(p); });
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 255);
    EXPECT_TRUE(r.out.rfind("Rectify converter parameters now:\n[", 0) == 0) << r.out;
    EXPECT_NE(r.out.find(" ]: Please implement input model, input json and output file name.\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("Rectify finished."), std::string::npos);
  }
}

TEST_F(RectifyTest, AbsentFileEndsWith255) {
  for (int which = 0; which < 2; ++which) {
    ConverterParam p = Base(0, false);
    (which == 0 ? p.json_file : p.model_file) = dir_ + "/absent";
    test::ProcessResult r = RunForked([&] { RectifyParameter(p); });
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 255);
    EXPECT_NE(r.out.find(" ]: Net file or model file not found, please check your input.\n"),
              std::string::npos)
        << r.out;
  }
}

// ---- Reports ----

TEST_F(ParameterTest, StatusOfTheDefaults) {
  ConverterParam p;
  const std::string out = test::CaptureStdout([&] { Status(p); });
  EXPECT_EQ(out,
            "CONVERTER PARAMETERS: \n"
            "  --json:               \"\"\n"
            "  --model:              \"\"\n"
            "  --output:             \"\"\n"
            "  --calibration_mode:   Naive\n"
            "  --calibration_set:    \"\"\n"
            "  --calibration_type:   img\n"
            "  --calibration_loader: \"\"\n"
            "  --max_data_num:       -1\n"
            "  --random_input:       0\n"
            "  --nonuniform:         false\n"
            "  --binary_set:         \"\"\n"
            "  --txt_file:           \"\"\n"
            "  --same_config:        false\n"
            "  --coverage:           0.999950\n"
            "  --symmetrical:        false\n"
            "  --debug:              false\n"
            "  --rgb:                false\n"
            "  --calibrate_weight:   0\n"
            "  --frugal:             false\n"
            "  --radical:            false\n"
            "  --expectant_cos:      false\n"
            "  --quant_calibrate:    false\n"
            "  --weight_tuning:      false\n"
            "  --quantize_layer_type:\n");
}

TEST_F(ParameterTest, StatusShowsWhetherACosineWasAskedFor) {
  ConverterParam p;
  p.expectant_cos = 0.0;
  p.data_folder = "never shown";
  const std::string out = test::CaptureStdout([&] { Status(p); });
  EXPECT_TRUE(HasLine(out, "  --expectant_cos:      true"));
  EXPECT_EQ(out.find("never shown"), std::string::npos);
  EXPECT_EQ(out.find("0.000000"), std::string::npos);
}

TEST_F(ParameterTest, UsageText) {
  EXPECT_EQ(test::CaptureStdout([] { Usage(); }), test::kUsageText);
}

}  // namespace
}  // namespace qzdl::modelConverter
