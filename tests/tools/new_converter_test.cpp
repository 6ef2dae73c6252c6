// Tests of the converter executable: the command line, the parameter file,
// rectification, the constructor's checks and reports, and the end of a run
// without calibration data. Each test runs the real program in a temporary
// working directory and checks standard output, standard error and the status.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <regex>
#include <string>
#include <vector>

#include "support/big_memory.h"
#include "support/net_builder.h"
#include "tools/expected_output.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

const char kFailedToLoad[] = "Failed to load input data.";
// Without any named source the default set is looked for, and its absence is
// logged (time stamp replaced by StampFree) before the data check fails.
const char kNoDefaultSet[] =
    "[<time> ]: Can't find calibration.bin. Please run \"source QZNPU1/env_setup.sh\" first.\n";

// The output with every log line's time stamp replaced by "<time>".
std::string StampFree(const std::string& out) {
  static const std::regex stamp(
      R"(\[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4} \]: )");
  return std::regex_replace(out, stamp, "[<time> ]: ");
}

class NewConverterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Runs must not find a default calibration set through the caller's environment.
    unsetenv("QZDL_SDK_PATH");
    dir_ = TempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    net_dir_ = dir_ + "/net";
    run_dir_ = dir_ + "/run";
    ASSERT_EQ(mkdir(net_dir_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(run_dir_.c_str(), 0755), 0);
    UseNet(PlainNet());
  }

  void UseNet(const NetBuilder& net) {
    auto files = net.WriteFiles(net_dir_);
    json_ = files.first;
    model_ = files.second;
  }

  ProcessResult Run(const std::vector<std::string>& args) {
    return RunProgram(QZDL_CONVERTER_EXE, args, run_dir_);
  }

  // The three paths, then `args`.
  ProcessResult RunWithNet(std::vector<std::string> args) {
    std::vector<std::string> all = {"-j", json_, "-m", model_, "-o", run_dir_ + "/out.bin"};
    all.insert(all.end(), args.begin(), args.end());
    return Run(all);
  }

  // A run that got through the constructor and stopped at the data check.
  static void ExpectNoDataEnd(const ProcessResult& r) {
    ASSERT_FALSE(r.timed_out);
    ASSERT_TRUE(r.exited) << "signal " << r.signal << "\n" << r.out << r.err;
    EXPECT_EQ(r.status, 255);
    EXPECT_TRUE(HasLine(r.out, "CONVERTER PARAMETERS: ")) << r.out;
    const std::string tail = std::string(kFailedToLoad) + "\n";
    ASSERT_GE(r.out.size(), tail.size());
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail) << r.out;
  }

  std::string dir_, net_dir_, run_dir_, json_, model_;
};

TEST_F(NewConverterTest, HelpPrintsUsageAndEndsWith255) {
  for (const char* word : {"-h", "--help"}) {
    SCOPED_TRACE(word);
    ProcessResult r = Run({word});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, kUsageText);
    EXPECT_EQ(r.err, "");
  }
}

TEST_F(NewConverterTest, BadOptionsEndWithUsage) {
  ProcessResult unknown = RunWithNet({"--bogus", "1"});
  ASSERT_TRUE(unknown.exited);
  EXPECT_EQ(unknown.status, 255);
  EXPECT_EQ(unknown.out, kUsageText);
  EXPECT_NE(unknown.err.find("unrecognized option"), std::string::npos) << unknown.err;

  ProcessResult missing = RunWithNet({"-e"});
  ASSERT_TRUE(missing.exited);
  EXPECT_EQ(missing.status, 255);
  EXPECT_EQ(missing.out, kUsageText);
  EXPECT_NE(missing.err.find("requires an argument"), std::string::npos) << missing.err;
}

TEST_F(NewConverterTest, WholeRunWithoutDataSource) {
  ProcessResult r = RunWithNet({});
  ExpectNoDataEnd(r);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(StampFree(r.out),
            "Rectify converter parameters now:\n"
            "Rectify finished.\n"
            "CONVERTER PARAMETERS: \n"
            "  --json:               \"" +
                json_ +
                "\"\n"
                "  --model:              \"" +
                model_ +
                "\"\n"
                "  --output:             \"" +
                run_dir_ +
                "/out.bin\"\n"
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
                "  --quantize_layer_type:\n"
                "Assign all data`s calibration method to: Naive\n" +
                std::string(kNoDefaultSet) + "Failed to load input data.\n");
}

TEST_F(NewConverterTest, FrugalWordForms) {
  ProcessResult one_word = RunWithNet({"--frugal=1"});
  ExpectNoDataEnd(one_word);
  EXPECT_TRUE(HasLine(one_word.out, "  --frugal:             false"));

  ProcessResult two_words = RunWithNet({"--frugal", "1"});
  ExpectNoDataEnd(two_words);
  EXPECT_TRUE(HasLine(two_words.out, "  --frugal:             true"));

  ProcessResult word_true = RunWithNet({"--frugal", "true"});
  ExpectNoDataEnd(word_true);
  EXPECT_TRUE(HasLine(word_true.out, "  --frugal:             false"));
}

TEST_F(NewConverterTest, UnlistedOptionsShowInStatus) {
  ProcessResult r = RunWithNet({"-i", "1", "-T", "set.txt"});
  EXPECT_TRUE(HasLine(r.out, "  --radical:            true"));
  EXPECT_TRUE(HasLine(r.out, "  --txt_file:           \"set.txt\""));
  // -T prints before rectification starts.
  EXPECT_EQ(r.out.rfind("converterParam.txt_file: set.txt\nRectify converter parameters now:\n", 0),
            0u)
      << r.out;
}

TEST_F(NewConverterTest, SentinelCosineCountsAsNotGiven) {
  ProcessResult unset = RunWithNet({"-e", "-1e9"});
  ExpectNoDataEnd(unset);
  EXPECT_TRUE(HasLine(unset.out, "  --expectant_cos:      false"));

  ProcessResult given = RunWithNet({"-e", "0.98"});
  ExpectNoDataEnd(given);
  EXPECT_TRUE(HasLine(given.out, "  --expectant_cos:      true"));
  EXPECT_EQ(given.out.find("0.98"), std::string::npos);
}

TEST_F(NewConverterTest, ModesBeyondTheMenu) {
  ProcessResult preset = RunWithNet({"-c", "9"});
  ExpectNoDataEnd(preset);
  EXPECT_TRUE(HasLine(preset.out, "  --calibration_mode:   Preset"));
  EXPECT_TRUE(HasLine(preset.out, "Assign all data`s calibration method to: Preset"));

  ProcessResult beyond = RunWithNet({"-c", "10"});
  ExpectNoDataEnd(beyond);
  EXPECT_TRUE(HasLine(beyond.out, "  --calibration_mode:   Unknown"));
}

TEST_F(NewConverterTest, ParameterFileOverridesPathsInEitherOrder) {
  const std::string params = dir_ + "/params.json";
  WriteFile(params, R"({"json_file": ")" + json_ + R"(", "model_file": ")" + model_ +
                        R"(", "output_name": "from_file.bin", "data_type": "npy",)" +
                        R"( "expectant_cos": -1000000000, "max_data_num": -1})");
  const std::vector<std::vector<std::string>> orders = {
      {"-I", params, "-j", "nowhere.json", "-m", "nowhere.bin"},
      {"-j", "nowhere.json", "-m", "nowhere.bin", "-I", params}};
  for (const auto& args : orders) {
    ProcessResult r = Run(args);
    ExpectNoDataEnd(r);
    EXPECT_TRUE(HasLine(r.out, "  --json:               \"" + json_ + "\""));
    EXPECT_TRUE(HasLine(r.out, "  --output:             \"from_file.bin\""));
    EXPECT_TRUE(HasLine(r.out, "  --calibration_type:   npy"));
    // Keys the file leaves out read as zero.
    EXPECT_TRUE(HasLine(r.out, "  --coverage:           0.000000"));
    EXPECT_TRUE(HasLine(r.out, "  --expectant_cos:      false"));
  }
}

TEST_F(NewConverterTest, MissingParameterFileWipesThePaths) {
  ProcessResult r = RunWithNet({"-I", "missing.json"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.out.rfind("Rectify converter parameters now:\n[", 0), 0u) << r.out;
  EXPECT_NE(r.out.find(" ]: Please implement input model, input json and output file name.\n"),
            std::string::npos)
      << r.out;
  EXPECT_FALSE(HasLine(r.out, "CONVERTER PARAMETERS: "));
}

TEST_F(NewConverterTest, DumpComesBeforeTheRectificationFailure) {
  ProcessResult r = Run({"-m", model_, "-o", "out.bin", "-O", "dump.json"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 255);
  EXPECT_NE(r.out.find(" ]: Please implement input model, input json and output file name.\n"),
            std::string::npos)
      << r.out;
  std::string expected = kDefaultParameterFile;
  const std::string model_key = R"("model_file": "")";
  const std::string output_key = R"("output_name": "")";
  expected.replace(expected.find(model_key), model_key.size(),
                   R"("model_file": ")" + model_ + "\"");
  expected.replace(expected.find(output_key), output_key.size(), R"("output_name": "out.bin")");
  EXPECT_EQ(ReadFile(run_dir_ + "/dump.json"), expected);
}

TEST_F(NewConverterTest, DumpedFileKeepsTheSentinel) {
  ProcessResult first = RunWithNet({"-O", "dump.json", "-c", "1", "-e", "0.99"});
  ExpectNoDataEnd(first);
  const std::string dumped = ReadFile(run_dir_ + "/dump.json");
  // The values before rectification: Average has not turned frugal on yet.
  EXPECT_NE(dumped.find(R"("frugal": false)"), std::string::npos) << dumped;
  EXPECT_NE(dumped.find(R"("expectant_cos": 0.99000000953674316)"), std::string::npos) << dumped;
  EXPECT_EQ(dumped.back(), '}');

  ProcessResult plain = RunWithNet({"-O", "plain.json"});
  ExpectNoDataEnd(plain);
  EXPECT_NE(ReadFile(run_dir_ + "/plain.json").find(R"("expectant_cos": -1000000000)"),
            std::string::npos);
  ProcessResult again = Run({"-I", "plain.json"});
  ExpectNoDataEnd(again);
  EXPECT_TRUE(HasLine(again.out, "  --expectant_cos:      false"));
}

TEST_F(NewConverterTest, DumpReplacesTheOldFileWhole) {
  WriteFile(run_dir_ + "/dump.json", std::string(2000, 'x'));
  ProcessResult r = Run({"-O", "dump.json"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(ReadFile(run_dir_ + "/dump.json"), kDefaultParameterFile);
  // Nothing else is left in the folder: no temporary file.
  EXPECT_EQ(system(("test \"$(ls -A '" + run_dir_ + "')\" = dump.json").c_str()), 0);
}

TEST_F(NewConverterTest, DumpThatCannotBeWrittenIsReportedAndTheRunGoesOn) {
  ProcessResult r = RunWithNet({"-O", "missing/dump.json"});
  ExpectNoDataEnd(r);
  EXPECT_EQ(r.err,
            "Warning: parameter file not written: cannot write \"missing/dump.json\": No such "
            "file or directory\n");
}

TEST_F(NewConverterTest, AverageTurnsFrugalOn) {
  const char message[] =
      "Average calibration method will use frugal inference mode, frugal shall be enabled";
  ProcessResult off = RunWithNet({"-c", "1", "-g", "0"});
  ExpectNoDataEnd(off);
  EXPECT_EQ(CountLines(off.out, message), 1);
  EXPECT_TRUE(HasLine(off.out, "  --frugal:             true"));

  ProcessResult on = RunWithNet({"-c", "1", "-g", "1"});
  ExpectNoDataEnd(on);
  EXPECT_EQ(CountLines(on.out, message), 0);
  EXPECT_TRUE(HasLine(on.out, "  --frugal:             true"));
}

TEST_F(NewConverterTest, MeanSquareErrorTurnsFrugalOff) {
  const char message[] =
      "MeanSquareError, AdaQuant and CosineSearch calibration method dose not support frugal "
      "inference, frugal shall be disabled.";
  ProcessResult asked = RunWithNet({"-c", "4", "-g", "1"});
  ExpectNoDataEnd(asked);
  EXPECT_EQ(CountLines(asked.out, message), 1);
  EXPECT_TRUE(HasLine(asked.out, "  --frugal:             false"));

  ProcessResult alone = RunWithNet({"-c", "4"});
  ExpectNoDataEnd(alone);
  EXPECT_EQ(CountLines(alone.out, message), 0);
}

TEST_F(NewConverterTest, NaiveAndCoverageKeepFrugal) {
  for (const char* mode : {"0", "3"}) {
    SCOPED_TRACE(mode);
    ProcessResult r = RunWithNet({"-c", mode, "-g", "1"});
    ExpectNoDataEnd(r);
    EXPECT_TRUE(HasLine(r.out, "  --frugal:             true"));
    EXPECT_EQ(r.out.rfind("Rectify converter parameters now:\nRectify finished.\n", 0), 0u);
  }
}

TEST_F(NewConverterTest, LayerTypeSplitting) {
  const std::pair<const char*, const char*> cases[] = {
      {"Convolution,,Pooling", "Quantize Layer Type: , Convolution, Pooling, "},
      {"Convolution,", "Quantize Layer Type: Convolution, "},
      {"Convolution, Pooling", "Quantize Layer Type:  Pooling, Convolution, "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    ProcessResult r = RunWithNet({"-L", c.first});
    ExpectNoDataEnd(r);
    EXPECT_TRUE(HasLine(r.out, c.second)) << r.out;
    EXPECT_TRUE(HasLine(r.out, std::string("  --quantize_layer_type:") + c.first));
  }
}

TEST_F(NewConverterTest, ConfigFileInTheWorkingDirectory) {
  WriteFile(run_dir_ + "/config.json",
            R"({"CalibrationMethod": {"data": "MEAN", "a": "mes", "b": 4, "ghost": "HISTOGRAM"}})");
  ProcessResult r = RunWithNet({"-c", "2"});
  ExpectNoDataEnd(r);
  const std::string expected =
      "Assign all data`s calibration method to: Entropy\n"
      "Data a`s calibration method has been changed to: Entropy.\n"
      "Data b`s calibration method has been changed to: Entropy.\n"
      "Data data`s calibration method has been changed to: Average.\n" +
      std::string(kNoDefaultSet) + kFailedToLoad + "\n";
  const std::string out = StampFree(r.out);
  ASSERT_GE(out.size(), expected.size());
  EXPECT_EQ(out.substr(out.size() - expected.size()), expected) << out;
  EXPECT_EQ(r.out.find("ghost"), std::string::npos);
}

// Paths and tensor names are bytes in the user's encoding: "\xe9" is e-acute in
// Latin-1 and no UTF-8. Files written and read by the converter keep it.
TEST_F(NewConverterTest, ParameterFileKeepsLatin1Paths) {
  const std::string folder = dir_ + "/n\xe9t";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  const auto files = PlainNet().WriteFiles(folder);
  ProcessResult first =
      Run({"-j", files.first, "-m", files.second, "-o", "out\xe9.bin", "-O", "params.json"});
  ExpectNoDataEnd(first);
  const std::string dumped = ReadFile(run_dir_ + "/params.json");
  EXPECT_NE(dumped.find("\"json_file\": \"" + files.first + "\""), std::string::npos) << dumped;
  EXPECT_NE(dumped.find("\"output_name\": \"out\xe9.bin\""), std::string::npos) << dumped;

  ProcessResult again = Run({"-I", "params.json"});
  ExpectNoDataEnd(again);
  EXPECT_TRUE(HasLine(again.out, "  --json:               \"" + files.first + "\"")) << again.out;
  EXPECT_TRUE(HasLine(again.out, "  --model:              \"" + files.second + "\""));
  EXPECT_TRUE(HasLine(again.out, "  --output:             \"out\xe9.bin\""));
}

TEST_F(NewConverterTest, NetWithALatin1TensorNameLoads) {
  NetBuilder net;
  net.Input("data", {1, 3, 4, 4}).Layer("relu\xe9", "ReLU", {"data"}, {"caf\xe9"});
  UseNet(net);
  ASSERT_NE(ReadFile(json_).find("\"caf\xe9\""), std::string::npos);
  WriteFile(run_dir_ + "/config.json", "{\"CalibrationMethod\": {\"caf\xe9\": \"MEAN\"}}");
  ProcessResult r = RunWithNet({});
  ExpectNoDataEnd(r);
  EXPECT_EQ(r.out.find("Parse json file failed"), std::string::npos) << r.out;
  EXPECT_TRUE(HasLine(r.out, "Data caf\xe9`s calibration method has been changed to: Average."))
      << r.out;
}

// One key that is no UTF-8 does not make the whole file unreadable.
TEST_F(NewConverterTest, ConfigFileWithALatin1KeyIsRead) {
  WriteFile(run_dir_ + "/config.json",
            "{\"CalibrationMethod\": {\"caf\xe9\": \"MES\", \"b\": \"MEAN\"}}");
  ProcessResult r = RunWithNet({});
  ExpectNoDataEnd(r);
  EXPECT_TRUE(HasLine(r.out, "Data b`s calibration method has been changed to: Average.")) << r.out;
  EXPECT_EQ(CountLines(r.out, "Data b`s calibration method has been changed to: Average."), 1);
  EXPECT_EQ(r.out.find("caf"), std::string::npos);
}

TEST_F(NewConverterTest, ConfigFileBesideTheNetIsNotRead) {
  WriteFile(net_dir_ + "/config.json", R"({"CalibrationMethod": {"a": "MEAN"}})");
  ProcessResult r = RunWithNet({"-c", "2"});
  ExpectNoDataEnd(r);
  EXPECT_EQ(r.out.find("has been changed"), std::string::npos) << r.out;
}

TEST_F(NewConverterTest, ReshapeToBatchOneOpensFrugalMode) {
  UseNet(ReshapeNet({1, -1}));
  ProcessResult r = RunWithNet({});
  ExpectNoDataEnd(r);
  EXPECT_EQ(CountLines(r.out,
                       "Warning: Network dose not support inference with batch != 1, "
                       "open frugal mode now."),
            1);
  EXPECT_TRUE(HasLine(r.out, "  --frugal:             true"));
}

TEST_F(NewConverterTest, ReshapeWithMeanSquareError) {
  UseNet(ReshapeNet({1, -1}));
  ProcessResult r = RunWithNet({"-c", "4"});
  ExpectNoDataEnd(r);
  const std::string warnings =
      "Warning: Network dose not support inference with batch != 1, open frugal mode now.\n"
      "Warning: Network dose not support inference with batch != 1, calibration method will be "
      "changed to Peak.\n"
      "CONVERTER PARAMETERS: \n";
  EXPECT_NE(r.out.find(warnings), std::string::npos) << r.out;
  EXPECT_TRUE(HasLine(r.out, "  --calibration_mode:   Naive"));
  EXPECT_TRUE(HasLine(r.out, "  --frugal:             true"));
  EXPECT_TRUE(HasLine(r.out, "Assign all data`s calibration method to: MeanSquareError"));
}

TEST_F(NewConverterTest, ReshapeWithAdaQuantKeepsTheMode) {
  UseNet(ReshapeNet({1, -1}));
  ProcessResult r = RunWithNet({"-c", "6"});
  ExpectNoDataEnd(r);
  EXPECT_EQ(r.out.find("changed to Peak"), std::string::npos);
  EXPECT_TRUE(HasLine(r.out, "  --calibration_mode:   AdaQuantSequential"));
  EXPECT_TRUE(HasLine(r.out, "  --frugal:             true"));
}

TEST_F(NewConverterTest, TensorBeyondTheIntRangeOpensFrugalMode) {
  // 46341 x 46341 = 2147488281 elements, more than 2^31 - 1. The net is
  // created in frugal mode, so the tensor gets no storage.
  NetBuilder big;
  big.Input("data", {1, 1, 2, 2})
      .Layer("up", "Upsample", {"data"}, {"big"}, {{"out_h", 46341}, {"out_w", 46341}})
      .Layer("relu", "ReLU", {"big"}, {"out"});
  UseNet(big);
  const char kTooLarge[] = "Warning: Network is too large, open frugal mode now.";
  ProcessResult plain = RunWithNet({});
  ExpectNoDataEnd(plain);
  EXPECT_EQ(CountLines(plain.out, kTooLarge), 1) << plain.out;
  EXPECT_TRUE(HasLine(plain.out, "  --frugal:             true"));

  ProcessResult mse = RunWithNet({"-c", "4"});
  ExpectNoDataEnd(mse);
  const std::string warnings = std::string(kTooLarge) +
                               "\n"
                               "Warning: Network is too large, calibration method will be changed "
                               "to Peak.\n"
                               "CONVERTER PARAMETERS: \n";
  EXPECT_NE(mse.out.find(warnings), std::string::npos) << mse.out;
  EXPECT_TRUE(HasLine(mse.out, "  --calibration_mode:   Naive"));
  EXPECT_TRUE(HasLine(mse.out, "  --frugal:             true"));
}

TEST_F(NewConverterTest, TensorBeyondTheIntRangeIsCalibrated) {
  NetBuilder big;
  big.Input("data", {1, 1, 2, 2})
      .Layer("up", "Upsample", {"data"}, {"big"}, {{"out_h", 46341}, {"out_w", 46341}})
      .Layer("relu", "ReLU", {"big"}, {"big"});
  UseNet(big);
  // One random item, so one round that fills the 8.6 GB tensor.
  BigMemoryLock lock;
  if (AvailableMemory() < kBigTestMemory)
    GTEST_SKIP() << "needs 10 GB of available memory for a tensor of 8.6 GB";
  ProcessResult r = RunWithNet({"-a", "1"});
  ASSERT_FALSE(r.timed_out);
  ASSERT_TRUE(r.exited) << "signal " << r.signal << "\n" << r.out << r.err;
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(CountLines(r.out, "Warning: Network is too large, open frugal mode now."), 1);
  EXPECT_TRUE(HasLine(r.out, "[1/1] Calibration round 1:")) << r.out;
  // The tensor is observed as the Upsample's output and again after the ReLU.
  EXPECT_NE(r.out.find("[2/2]observing data: \"big\" with Naive; min: "), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("[3/2]observing data: \"big\" with Naive; min: "), std::string::npos)
      << r.out;
}

TEST_F(NewConverterTest, FailingNetCreationAborts) {
  WriteFile(json_, "{ this is not json");
  ProcessResult r = RunWithNet({});
  ASSERT_FALSE(r.timed_out);
  ASSERT_TRUE(r.signaled) << "status " << r.status << "\n" << r.out;
  EXPECT_EQ(r.signal, SIGABRT);
  EXPECT_TRUE(HasLine(r.out, "Rectify finished."));
  EXPECT_NE(r.out.find(" ]: Parse json file failed"), std::string::npos) << r.out;
  EXPECT_FALSE(HasLine(r.out, "CONVERTER PARAMETERS: "));
}

TEST_F(NewConverterTest, MissingNetFileIsCaughtByRectification) {
  ProcessResult r = Run({"-j", net_dir_ + "/absent.json", "-m", model_, "-o", "out.bin"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 255);
  // The quoted message, then the missing file on a line of its own.
  EXPECT_NE(r.out.find(" ]: Net file or model file not found, please check your input.\nfile \"" +
                       net_dir_ + "/absent.json\"\n"),
            std::string::npos)
      << r.out;
}

}  // namespace
}  // namespace qzdl::test
