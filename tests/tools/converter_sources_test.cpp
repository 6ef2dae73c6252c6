// The converter executable with each calibration source: list files of
// images and of NPY files, a folder from a parameter file, binary and text
// sets, random data and the default set calibration.bin, found in the working
// directory or below QZDL_SDK_PATH. A run with data passes the data check and
// enters the calibration rounds; in frugal mode (-g 1) the round count is the
// number of items, which shows what the source delivered.
//
// The program runs on a pseudo-terminal, so that its standard output is
// line-buffered and every line it finished is seen, whatever way it ends.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "dataloader/sample_files.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

const char kFailedToLoad[] = "Failed to load input data.";
const char kNoDefaultSet[] =
    " ]: Can't find calibration.bin. Please run \"source QZNPU1/env_setup.sh\" first.\n";
const size_t kDefaultSetBytes = 100 * 224 * 224 * 3;

// Runs the converter on a pseudo-terminal in raw mode in `dir`, with
// QZDL_SDK_PATH set to `sdk_path`, or removed when it is null. Standard output
// and standard error arrive together in `out`.
ProcessResult RunOnTerminal(const std::vector<std::string>& args, const std::string& dir,
                            const char* sdk_path, int timeout_seconds = 90) {
  std::vector<std::string> words{QZDL_CONVERTER_EXE};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  struct termios raw = {};
  cfmakeraw(&raw);
  fflush(stdout);
  fflush(stderr);
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, &raw, nullptr);
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(127);
    if (sdk_path != nullptr) {
      setenv("QZDL_SDK_PATH", sdk_path, 1);
    } else {
      unsetenv("QZDL_SDK_PATH");
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  ProcessResult result;
  if (pid < 0) return result;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  char buffer[4096];
  while (true) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      result.timed_out = true;
      break;
    }
    struct pollfd p = {master, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = read(master, buffer, sizeof(buffer));
    if (n > 0) {
      result.out.append(buffer, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;  // the terminal closed: the program ended
    }
  }
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) {
    result.exited = true;
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signaled = true;
    result.signal = WTERMSIG(status);
  }
  return result;
}

class ConverterSourcesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir(std::string("sources_") +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
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

  // The three paths, then `args`, in the run directory.
  ProcessResult Run(std::vector<std::string> args, const char* sdk_path = nullptr) {
    std::vector<std::string> all = {"-j", json_, "-m", model_, "-o", run_dir_ + "/out.bin"};
    all.insert(all.end(), args.begin(), args.end());
    return RunOnTerminal(all, run_dir_, sdk_path);
  }

  // `n` one-colour pictures of assorted sizes, and a list naming them.
  std::string ImageList(int n, const std::string& stem = "list") {
    std::string text;
    for (int i = 0; i < n; ++i) {
      const std::string path = run_dir_ + "/" + stem + std::to_string(i) + ".ppm";
      WritePpm(path, 3 + i, 5, static_cast<unsigned char>(10 * i), 100, 200);
      text += path + "\n";
    }
    WriteText(run_dir_ + "/" + stem + ".txt", text);
    return run_dir_ + "/" + stem + ".txt";
  }

  // A binary set of `records` samples of the plain net's 48 floats.
  std::string BinarySet(int records) {
    const std::string path = run_dir_ + "/set.bin";
    WriteFloats(path, Ramp(static_cast<size_t>(records) * 48), 12);
    return path;
  }

  // calibration.bin of 100 records in `dir`.
  static void WriteDefaultSet(const std::string& dir) {
    std::string bytes(kDefaultSetBytes, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 7) % 251);
    WriteText(dir + "/calibration.bin", bytes);
  }

  // Passed the data check and entered the rounds: "[1/rounds] Calibration
  // round 1:", and no ending of the data path.
  static void ExpectRounds(const ProcessResult& r, int rounds) {
    ASSERT_FALSE(r.timed_out) << r.out;
    EXPECT_EQ(r.out.find(kFailedToLoad), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Expect Count()"), std::string::npos) << r.out;
    EXPECT_TRUE(r.exited) << r.out;
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(HasLine(r.out, "[1/" + std::to_string(rounds) + "] Calibration round 1:")) << r.out;
    // Every input is observed in every round, by a peak observer.
    EXPECT_NE(r.out.find("observing data: \"data\" with Naive; "), std::string::npos) << r.out;
  }

  // Stopped at the data check: status 255 and the message as the last line.
  static void ExpectNoData(const ProcessResult& r) {
    ASSERT_FALSE(r.timed_out) << r.out;
    ASSERT_TRUE(r.exited) << r.out;
    EXPECT_EQ(r.status, 255);
    const std::string tail = std::string(kFailedToLoad) + "\n";
    ASSERT_GE(r.out.size(), tail.size()) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail) << r.out;
    EXPECT_EQ(r.out.find("Calibration round"), std::string::npos) << r.out;
  }

  std::string dir_, net_dir_, run_dir_, json_, model_;
};

TEST_F(ConverterSourcesTest, ListOfImages) {
  const std::string list = ImageList(3);
  ExpectRounds(Run({"-s", list}), 1);
  ExpectRounds(Run({"-s", list, "-g", "1"}), 3);
}

TEST_F(ConverterSourcesTest, ListOfNpyFiles) {
  std::string text;
  for (int i = 0; i < 2; ++i) {
    const std::string path = run_dir_ + "/s" + std::to_string(i) + ".npy";
    WriteNpy(path, {1, 3, 4, 4}, Ramp(48, static_cast<float>(i)));
    text += path + "\n";
  }
  WriteText(run_dir_ + "/list.txt", text);
  ExpectRounds(Run({"-s", run_dir_ + "/list.txt", "-t", "npy", "-g", "1"}), 2);
  // An array of any shape with the item's element count.
  WriteNpy(run_dir_ + "/flat.npy", {48}, Ramp(48));
  WriteText(run_dir_ + "/flat.txt", run_dir_ + "/flat.npy\n");
  ExpectRounds(Run({"-s", run_dir_ + "/flat.txt", "-t", "npy"}), 1);
}

TEST_F(ConverterSourcesTest, NpyOfAnotherCountEndsTheRun) {
  WriteNpy(run_dir_ + "/five.npy", {5}, Ramp(5));
  WriteText(run_dir_ + "/list.txt", run_dir_ + "/five.npy\n");
  ProcessResult r = Run({"-s", run_dir_ + "/list.txt", "-t", "npy"});
  ASSERT_TRUE(r.exited) << r.out;
  EXPECT_EQ(r.status, 255);
  EXPECT_TRUE(HasLine(r.out,
                      "Expect Count()=48 shape=[1, 3, 4, 4] for input \"data\", bug got "
                      "Count()=5 shape=[1, 5] instead."))
      << r.out;
  // The fetch of round 1 met it.
  EXPECT_TRUE(HasLine(r.out, "[1/1] Calibration round 1:")) << r.out;
}

TEST_F(ConverterSourcesTest, FolderFromTheParameterFile) {
  const std::string folder = run_dir_ + "/pictures";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  for (int i = 0; i < 4; ++i) WritePpm(folder + "/p" + std::to_string(i) + ".ppm", 6, 2, 1, 2, 3);
  auto params = [&](const std::string& data_folder, const std::string& data_list) {
    WriteText(run_dir_ + "/params.json",
              R"({"json_file": ")" + json_ + R"(", "model_file": ")" + model_ +
                  R"(", "output_name": "out.bin", "data_type": "img", "data_folder": ")" +
                  data_folder + R"(", "data_list": ")" + data_list +
                  R"(", "frugal": true, "coverage": 0.99995, "expectant_cos": -1000000000,)" +
                  R"( "max_data_num": -1})");
    return RunOnTerminal({"-I", "params.json"}, run_dir_, nullptr);
  };
  ExpectRounds(params(folder + "/", ""), 4);
  // A folder wins over a list.
  ExpectRounds(params(folder + "/", ImageList(2)), 4);

  // Without the final slash the sample paths run the names together, and the
  // first load names the file it cannot read.
  ProcessResult r = params(folder, "");
  ASSERT_FALSE(r.timed_out);
  ASSERT_TRUE(r.exited) << r.out;
  EXPECT_EQ(r.status, 255);
  EXPECT_NE(r.out.find(" ]: ReadImg: cannot decode image file \"" + folder + "p"), std::string::npos)
      << r.out;
}

TEST_F(ConverterSourcesTest, FolderThatIsNoDirectory) {
  WriteText(run_dir_ + "/params.json",
            R"({"json_file": ")" + json_ + R"(", "model_file": ")" + model_ +
                R"(", "output_name": "out.bin", "data_type": "img", "data_folder": "nowhere/",)" +
                R"( "expectant_cos": -1000000000, "max_data_num": -1})");
  ProcessResult r = RunOnTerminal({"-I", "params.json"}, run_dir_, nullptr);
  ASSERT_FALSE(r.timed_out);
  EXPECT_TRUE(HasLine(r.out, "not a valid directory: nowhere/")) << r.out;
  // No samples: zero rounds.
  EXPECT_EQ(r.out.find("Calibration round"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find(kFailedToLoad), std::string::npos) << r.out;
}

TEST_F(ConverterSourcesTest, BinarySet) {
  const std::string set = BinarySet(5);
  ExpectRounds(Run({"-b", set}), 1);
  ExpectRounds(Run({"-b", set, "-g", "1"}), 5);
}

TEST_F(ConverterSourcesTest, TextSet) {
  std::string text;
  for (float v : Ramp(48)) text += std::to_string(v) + " ";
  WriteText(run_dir_ + "/set.txt", text + "\n");
  ProcessResult r = Run({"-T", run_dir_ + "/set.txt", "-g", "1"});
  ExpectRounds(r, 1);
  EXPECT_TRUE(HasLine(r.out, "converterParam.txt_file: " + run_dir_ + "/set.txt")) << r.out;
}

TEST_F(ConverterSourcesTest, RandomData) {
  ExpectRounds(Run({"-a", "3", "-g", "1"}), 3);
  ExpectRounds(Run({"-a", "3"}), 1);
}

TEST_F(ConverterSourcesTest, DefaultSetInTheWorkingDirectory) {
  WriteDefaultSet(run_dir_);
  ProcessResult r = Run({"-g", "1"});
  ExpectRounds(r, 100);
  EXPECT_EQ(r.out.find("Can't find calibration.bin"), std::string::npos) << r.out;
  // A limit of 7 leaves 7 items, though 100 sessions were read.
  ExpectRounds(Run({"-g", "1", "-x", "7"}), 7);
}

TEST_F(ConverterSourcesTest, DefaultSetBelowTheSdkPath) {
  const std::string sdk = dir_ + "/sdk";
  ASSERT_EQ(mkdir(sdk.c_str(), 0755), 0);
  WriteDefaultSet(sdk);
  ExpectRounds(Run({"-g", "1"}, sdk.c_str()), 100);
}

TEST_F(ConverterSourcesTest, WorkingDirectoryComesFirst) {
  WriteDefaultSet(run_dir_);
  // The path would name no file: it is not looked at.
  ProcessResult r = Run({"-g", "1"}, (dir_ + "/no_sdk_here").c_str());
  ExpectRounds(r, 100);
  EXPECT_EQ(r.out.find("Can't find calibration.bin"), std::string::npos) << r.out;
}

TEST_F(ConverterSourcesTest, NoDefaultSetAnywhere) {
  const std::string empty_sdk = dir_ + "/empty_sdk";
  ASSERT_EQ(mkdir(empty_sdk.c_str(), 0755), 0);
  for (const char* sdk : {static_cast<const char*>(nullptr), "", empty_sdk.c_str()}) {
    SCOPED_TRACE(sdk == nullptr ? "unset" : sdk);
    ProcessResult r = Run({}, sdk);
    ExpectNoData(r);
    // The log line comes right before the end.
    const size_t log = r.out.find(kNoDefaultSet);
    ASSERT_NE(log, std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(log + strlen(kNoDefaultSet)), std::string(kFailedToLoad) + "\n");
  }
}

TEST_F(ConverterSourcesTest, ShortDefaultSetIsNotNoticed) {
  WriteText(run_dir_ + "/calibration.bin", std::string(1000, '\x40'));
  ExpectRounds(Run({"-g", "1"}), 100);
}

TEST_F(ConverterSourcesTest, FirstSourceThatApplies) {
  const std::string list = ImageList(2);
  const std::string set = BinarySet(5);
  // A list before a binary set, a binary set before random data, a text set
  // before random data.
  ExpectRounds(Run({"-s", list, "-b", set, "-g", "1"}), 2);
  ExpectRounds(Run({"-a", "10", "-b", set, "-g", "1"}), 5);
  WriteText(run_dir_ + "/set.txt", "1 2 3");
  ExpectRounds(Run({"-a", "10", "-T", run_dir_ + "/set.txt", "-g", "1"}), 1);
}

TEST_F(ConverterSourcesTest, MaximumInEverySource) {
  const char kLimitError[] = "Error: maximum limit of data loader must be larger than 0.";
  const std::string set = BinarySet(9);
  // 0 and the default -1 call no SetMaximum.
  ProcessResult zero = Run({"-b", set, "-g", "1", "-x", "0"});
  ExpectRounds(zero, 9);
  EXPECT_EQ(zero.out.find(kLimitError), std::string::npos);

  ExpectRounds(Run({"-s", ImageList(7), "-g", "1", "-x", "5"}), 5);
  ExpectRounds(Run({"-b", set, "-g", "1", "-x", "5"}), 5);
  // Text sets and random data ignore the limit, though it is set.
  WriteText(run_dir_ + "/set.txt", "1 2 3");
  ProcessResult text = Run({"-T", run_dir_ + "/set.txt", "-g", "1", "-x", "5"});
  ExpectRounds(text, 1);
  EXPECT_EQ(text.out.find(kLimitError), std::string::npos);
  ExpectRounds(Run({"-a", "9", "-g", "1", "-x", "5"}), 9);
  WriteDefaultSet(run_dir_);
  ExpectRounds(Run({"-g", "1", "-x", "5"}), 5);

  const std::string folder = run_dir_ + "/seven/";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  for (int i = 0; i < 7; ++i) WritePpm(folder + std::to_string(i) + ".ppm", 2, 2, 1, 2, 3);
  WriteText(run_dir_ + "/params.json",
            R"({"json_file": ")" + json_ + R"(", "model_file": ")" + model_ +
                R"(", "output_name": "out.bin", "data_type": "img", "data_folder": ")" + folder +
                R"(", "frugal": true, "expectant_cos": -1000000000, "max_data_num": 5})");
  ExpectRounds(RunOnTerminal({"-I", "params.json"}, run_dir_, nullptr), 5);
}

TEST_F(ConverterSourcesTest, UnknownDataTypeMakesNoLoader) {
  ProcessResult r = Run({"-s", ImageList(2), "-t", "jpg"});
  ExpectNoData(r);
  EXPECT_TRUE(HasLine(r.out, "  --calibration_type:   jpg"));
  // Nothing between the method line and the end.
  EXPECT_NE(r.out.find("Assign all data`s calibration method to: Naive\n" +
                       std::string(kFailedToLoad) + "\n"),
            std::string::npos)
      << r.out;
}

TEST_F(ConverterSourcesTest, GreyInputGetsTheGreyConversionForImagesOnly) {
  NetBuilder grey;
  grey.Input("data", {1, 1, 4, 4}).Layer("relu", "ReLU", {"data"}, {"out"});
  UseNet(grey);
  // Colour pictures reach a one-channel input through the grey conversion,
  // with or without the channel reversal.
  const std::string list = ImageList(2);
  ExpectRounds(Run({"-s", list}), 1);
  ExpectRounds(Run({"-s", list, "-r", "1"}), 1);

  // NPY data get no transforms, whatever -r says: 16 floats fit, 48 do not.
  WriteNpy(run_dir_ + "/g.npy", {16}, Ramp(16));
  WriteText(run_dir_ + "/g.txt", run_dir_ + "/g.npy\n");
  ExpectRounds(Run({"-s", run_dir_ + "/g.txt", "-t", "npy", "-r", "1"}), 1);
  WriteNpy(run_dir_ + "/c.npy", {3, 4, 4}, Ramp(48));
  WriteText(run_dir_ + "/c.txt", run_dir_ + "/c.npy\n");
  ProcessResult r = Run({"-s", run_dir_ + "/c.txt", "-t", "npy", "-r", "1"});
  ASSERT_TRUE(r.exited) << r.out;
  EXPECT_EQ(r.status, 255);
  EXPECT_TRUE(HasLine(r.out,
                      "Expect Count()=16 shape=[1, 1, 4, 4] for input \"data\", bug got "
                      "Count()=48 shape=[1, 48] instead."))
      << r.out;
}

TEST_F(ConverterSourcesTest, MissingListEntryWarnsThenFailsAtItsLoad) {
  WriteText(run_dir_ + "/list.txt", "nowhere.ppm\r\n");
  ProcessResult r = Run({"-s", "list.txt"});
  ASSERT_FALSE(r.timed_out);
  EXPECT_TRUE(HasLine(r.out, "[WARNING] file not exist nowhere.ppm in list.txt")) << r.out;
  ASSERT_TRUE(r.exited) << r.out;
  EXPECT_EQ(r.status, 255);
  EXPECT_NE(r.out.find(" ]: ReadImg: cannot decode image file \"nowhere.ppm\""), std::string::npos)
      << r.out;
}

TEST_F(ConverterSourcesTest, MissingOrShortBinarySet) {
  ProcessResult missing = Run({"-b", run_dir_ + "/absent.bin"});
  ASSERT_FALSE(missing.timed_out);
  EXPECT_NE(missing.out.find(" ]: read bin file error\n"), std::string::npos) << missing.out;
  ASSERT_TRUE(missing.signaled) << missing.out;
  EXPECT_EQ(missing.signal, SIGABRT);

  // Less than one record: no items and no round, but no failure either.
  WriteFloats(run_dir_ + "/short.bin", Ramp(47));
  ProcessResult short_set = Run({"-b", run_dir_ + "/short.bin"});
  ASSERT_FALSE(short_set.timed_out);
  EXPECT_EQ(short_set.out.find("Calibration round"), std::string::npos) << short_set.out;
  EXPECT_EQ(short_set.out.find(kFailedToLoad), std::string::npos) << short_set.out;
  EXPECT_EQ(short_set.out.find("read bin file error"), std::string::npos) << short_set.out;
}

TEST_F(ConverterSourcesTest, ExampleNetWithItsDemoSet) {
  // The first command of the README, from the repository root.
  const std::string root = QZDL_SOURCE_DIR;
  ProcessResult r =
      RunOnTerminal({"-j", "examples/small_cnn/net.json", "-m", "examples/small_cnn/net.bin", "-o",
                     run_dir_ + "/small_cnn_int8.bin", "-s",
                     "examples/small_cnn/calibration/list.txt", "-g", "1"},
                    root, nullptr);
  ExpectRounds(r, 8);
  EXPECT_EQ(r.out.find("[WARNING]"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace qzdl::test
