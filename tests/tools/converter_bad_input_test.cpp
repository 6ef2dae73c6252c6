// The converter on bad input, run as the real executable with standard output
// redirected to a file: folders where files are expected, inputs with
// different sample counts, a batch the net cannot take, files that cannot be
// read. Never a crash; every abnormal end keeps what was printed before it,
// and every failure names its file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

const std::string kTerminate = "terminate called after throwing an instance of ";

class ConverterBadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("QZDL_SDK_PATH");
    dir_ = TempDir(std::string("bad_input_") +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
    run_dir_ = dir_ + "/run";
    ASSERT_EQ(mkdir(run_dir_.c_str(), 0755), 0);
    UseNet(PlainNet());
  }

  void UseNet(const NetBuilder& net) {
    auto files = net.WriteFiles(dir_);
    json_ = files.first;
    model_ = files.second;
  }

  // The three paths, then `args`, in the run directory; standard output and
  // standard error go to files.
  ProcessResult Run(std::vector<std::string> args) {
    std::vector<std::string> all = {"-j", json_, "-m", model_, "-o", run_dir_ + "/out.bin"};
    all.insert(all.end(), args.begin(), args.end());
    return RunProgram(QZDL_CONVERTER_EXE, all, run_dir_);
  }

  // A list of the example net's calibration pictures, `blank` lines empty.
  std::string PictureList(int lines, int blank = -1) {
    std::string text;
    for (int i = 0; i < lines; ++i) {
      if (i != blank) {
        text += std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn/calibration/picture_0" +
                std::to_string(i) + ".png";
      }
      text += "\n";
    }
    WriteFile(run_dir_ + "/list.txt", text);
    return run_dir_ + "/list.txt";
  }

  static void ExpectAbort(const ProcessResult& r) {
    ASSERT_FALSE(r.timed_out) << r.out;
    ASSERT_TRUE(r.signaled) << "status " << r.status << "\n" << r.out << r.err;
    EXPECT_EQ(r.signal, SIGABRT);
  }

  std::string dir_, run_dir_, json_, model_;
};

TEST_F(ConverterBadInputTest, ParameterFileThatIsAFolder) {
  // Read as empty text: a null value, every field reset.
  ProcessResult r = Run({"-I", dir_});
  ASSERT_TRUE(r.exited) << r.err;
  EXPECT_EQ(r.status, 255);
  EXPECT_NE(r.out.find(" ]: Please implement input model, input json and output file name.\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, "");
}

TEST_F(ConverterBadInputTest, FolderNamedConfigJsonChangesNothing) {
  ASSERT_EQ(mkdir((run_dir_ + "/config.json").c_str(), 0755), 0);
  ProcessResult r = Run({"-a", "1"});
  ASSERT_TRUE(r.exited) << r.err;
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_TRUE(HasLine(r.out, "[1/1] Calibration round 1:")) << r.out;
  EXPECT_EQ(r.out.find("calibration method has been changed"), std::string::npos);
  EXPECT_EQ(r.err, "");
}

TEST_F(ConverterBadInputTest, SerialModelThatIsAFolder) {
  const std::string folder = dir_ + "/weights.fb";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  model_ = folder;
  ProcessResult r = Run({"-a", "1"});
  ExpectAbort(r);
  EXPECT_NE(r.out.find(" ]: Model file \"" + folder + "\": cannot be read: Is a directory\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, kTerminate + "'std::exception*'\n  what():  CreatNet Error\n");
}

TEST_F(ConverterBadInputTest, InputsWithDifferentSampleCounts) {
  NetBuilder two;
  two.Input("aa", {1, 3, 4, 4})
      .Input("zz", {1, 3, 4, 4})
      .Layer("sum", "Eltwise", {"aa", "zz"}, {"s"}, {{"operation", "sum"}});
  UseNet(two);
  // Three lines dealt over two inputs: "aa" gets two samples, "zz" one.
  ProcessResult r = Run({"-s", PictureList(3)});
  ASSERT_TRUE(r.exited) << r.out << r.err;
  EXPECT_EQ(r.status, 255);
  const std::string tail =
      "Error: the net inputs have different numbers of calibration samples: \"aa\" 2, \"zz\" 1.\n";
  ASSERT_GE(r.out.size(), tail.size());
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST_F(ConverterBadInputTest, BatchTheNetCannotTakeKeepsTheLog) {
  // The batch is fixed at 2 by the Reshape.
  NetBuilder fixed;
  fixed.Input("data", {2, 3, 4, 4})
      .Layer("flat", "Reshape", {"data"}, {"flat"}, {{"shapes", json11::Json::array{2, 48}}})
      .Layer("relu", "ReLU", {"flat"}, {"out"});
  UseNet(fixed);
  ProcessResult r = Run({"-a", "3"});
  ExpectAbort(r);
  // Standard output went to a file and was flushed before the abort.
  EXPECT_TRUE(HasLine(r.out, "CONVERTER PARAMETERS: ")) << r.out;
  EXPECT_TRUE(HasLine(r.out, "Rectify finished.")) << r.out;
  EXPECT_EQ(r.err.rfind(kTerminate + "'qzdl::NetFormatError'\n  what():  Net file \"" + json_ +
                            "\": layer \"flat\" (Reshape): ",
                        0),
            0u)
      << r.err;
}

TEST_F(ConverterBadInputTest, MissingBinarySetNamesTheFile) {
  const std::string set = run_dir_ + "/absent.bin";
  ProcessResult r = Run({"-b", set});
  ExpectAbort(r);
  EXPECT_NE(r.out.find(" ]: read bin file error\nfile \"" + set + "\"\n"), std::string::npos)
      << r.out;
  EXPECT_TRUE(HasLine(r.out, "CONVERTER PARAMETERS: ")) << r.out;
}

TEST_F(ConverterBadInputTest, UnreadableNpyNamesTheFile) {
  const std::string npy = run_dir_ + "/short.npy";
  WriteFile(npy, "\x93NUMPY");  // fewer than the 11 bytes of a header
  WriteFile(run_dir_ + "/npy.txt", npy + "\n");
  ProcessResult r = Run({"-s", run_dir_ + "/npy.txt", "-t", "npy"});
  ExpectAbort(r);
  EXPECT_EQ(r.err, kTerminate + "'cnpy::FileError'\n  what():  parse_npy_header: failed fread\n" +
                       "file \"" + npy + "\"\n");
  EXPECT_TRUE(HasLine(r.out, "[1/1] Calibration round 1:")) << r.out;
}

TEST_F(ConverterBadInputTest, BlankListLineNamesTheListAndLine) {
  const std::string list = PictureList(3, 1);
  ProcessResult r = Run({"-s", list, "-g", "1"});
  ExpectAbort(r);
  EXPECT_NE(r.out.find(" ]: image sample \"data\" has neither a file nor a session (line 2 of "
                       "list \"" + list + "\" is empty)\n"),
            std::string::npos)
      << r.out;
}

}  // namespace
}  // namespace qzdl::test
