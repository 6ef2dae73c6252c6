// Every file-taking option of every tool, given a missing path, a folder, an
// empty file, a truncated file and an unreadable file (the tool run as the
// unprivileged user "nobody" when the tests run as root). Whatever the tool
// does, it never crashes, never prints an exception text of the C++ library
// alone, and every failure names the file. The parameter file of -I and
// config.json are the exceptions the converter prescribes: a file that
// cannot be read there is empty text, with no message (the -I run then ends
// in rectification, config.json changes nothing).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

enum class Variant { kMissing, kFolder, kEmpty, kTruncated, kUnreadable };
const char* VariantName(Variant v) {
  switch (v) {
    case Variant::kMissing:
      return "missing";
    case Variant::kFolder:
      return "folder";
    case Variant::kEmpty:
      return "empty";
    case Variant::kTruncated:
      return "truncated";
    default:
      return "unreadable";
  }
}
const Variant kVariants[] = {Variant::kMissing, Variant::kFolder, Variant::kEmpty,
                             Variant::kTruncated, Variant::kUnreadable};

// Texts by which the C++ library reports its own exceptions.
const char* kLibraryTexts[] = {
    "basic_filebuf", "basic_ios",         "ios_base",          "std::bad_alloc",  "basic_string",
    "vector::",      "std::length_error", "std::out_of_range", "std::logic_error"};

class FileOptionSweep : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("QZDL_SDK_PATH");
    dir_ = TempDir("sweep");
    chmod(dir_.c_str(), 0777);  // the unprivileged runs write their outputs here too
    const auto files = PlainNet().WriteFiles(dir_);
    json_ = files.first;
    model_ = files.second;
    picture_ = std::string(QZDL_SOURCE_DIR) + "/examples/small_cnn/calibration/picture_00.png";
    list_ = Write("list.txt", picture_ + "\n" + picture_ + "\n");
    std::string floats;
    for (int i = 0; i < 96; ++i) floats += std::to_string(i % 7 * 0.25) + " ";
    text_set_ = Write("set.txt", floats);
    binary_set_ = Write("set.bin", std::string(96 * sizeof(float), '\x3e'));
    preset_ = Write("preset.json", "{\"presetConfig\": {\"data\": [-1.0, 1.0]}}");
    params_ = Write("params.json", "{\"json_file\": \"" + json_ + "\", \"model_file\": \"" +
                                       model_ + "\", \"output_name\": \"" + dir_ +
                                       "/p.bin\", \"random_size\": 1}");
    onnx_ = std::string(QZDL_TEST_DATA_DIR) + "/onnx/torch_cnn.onnx";
    onnx_input_ = std::string(QZDL_TEST_DATA_DIR) + "/onnx/torch_cnn_input.pb";
  }

  std::string Write(const std::string& name, const std::string& text) {
    WriteFile(dir_ + "/" + name, text);
    return dir_ + "/" + name;
  }

  // A bad stand-in for the file `good`, in a folder of its own.
  std::string Bad(Variant v, const std::string& good, const std::string& name) {
    const std::string folder = TempDir(std::string("sweep_") + VariantName(v) + "_" + name);
    chmod(folder.c_str(), 0777);
    const std::string path = folder + "/" + name;
    const std::string bytes = ReadFile(good);
    switch (v) {
      case Variant::kMissing:
        break;
      case Variant::kFolder:
        mkdir(path.c_str(), 0755);
        break;
      case Variant::kEmpty:
        WriteFile(path, "");
        break;
      case Variant::kTruncated:
        WriteFile(path, bytes.substr(0, bytes.size() / 2));
        break;
      case Variant::kUnreadable:
        WriteFile(path, bytes);
        chmod(path.c_str(), 0);
        break;
    }
    return path;
  }

  // Runs `program` (as "nobody" for unreadable files when root) and checks
  // the rules. `names_file` false: a failure need not name the file.
  ProcessResult Check(Variant v, const std::string& label, const std::string& program,
                      const std::vector<std::string>& args, const std::string& bad,
                      bool names_file = true) {
    SCOPED_TRACE(label + " given a " + VariantName(v) + " path " + bad);
    const bool drop = v == Variant::kUnreadable && getuid() == 0;
    const ProcessResult r =
        drop ? RunProgramAs(65534, program, args, dir_, 120) : RunProgram(program, args, dir_, 120);
    const std::string all = r.out + r.err;
    EXPECT_FALSE(r.timed_out) << all;
    if (r.signaled) {
      EXPECT_EQ(r.signal, SIGABRT) << "a crash, not an abnormal end by design\n" << all;
    }
    for (const char* text : kLibraryTexts) {
      if (all.find(text) == std::string::npos) continue;
      // An exception text of the library is acceptable only beside the file.
      EXPECT_NE(all.find(bad), std::string::npos) << "\"" << text << "\" alone:\n" << all;
    }
    const bool failed = !r.exited || r.status != 0;
    if (failed && names_file) {
      EXPECT_NE(all.find(bad), std::string::npos) << all;
    }
    return r;
  }

  // The converter with a good command line, `replace` standing for one option.
  std::vector<std::string> ConverterArgs(const std::string& option, const std::string& value) {
    std::vector<std::string> args = {"-j", json_, "-m", model_, "-o", dir_ + "/out.bin",
                                     "-s", list_};
    bool replaced = false;
    for (size_t i = 0; i + 1 < args.size(); i += 2) {
      if (args[i] == option) args[i + 1] = value, replaced = true;
    }
    if (!replaced) args.insert(args.end(), {option, value});
    if (option == "-b" || option == "-T") args.erase(args.begin() + 6, args.begin() + 8);
    return args;
  }

  std::string dir_, json_, model_, picture_, list_, text_set_, binary_set_, preset_, params_, onnx_,
      onnx_input_;
};

TEST_F(FileOptionSweep, Converter) {
  struct Option {
    std::string flag, good, name;
  };
  const std::vector<Option> options = {
      {"-j", json_, "net.json"},      {"-m", model_, "net.bin"},    {"-s", list_, "list.txt"},
      {"-b", binary_set_, "set.bin"}, {"-T", text_set_, "set.txt"}, {"-l", preset_, "preset.json"},
      {"-I", params_, "params.json"}};
  for (const Option& o : options) {
    for (Variant v : kVariants) {
      const std::string bad = Bad(v, o.good, o.name);
      const ProcessResult r = Check(v, "qzdl_NewConverter " + o.flag, QZDL_CONVERTER_EXE,
                                    ConverterArgs(o.flag, bad), bad, o.flag != "-I");
      if (o.flag == "-I") {
        // Read as a null value (empty and truncated text are broken JSON
        // too): every field reset, so the run stops in rectification.
        EXPECT_EQ(r.status, 255) << r.out << r.err;
        EXPECT_NE(r.out.find("Please implement input model, input json and output file name."),
                  std::string::npos)
            << r.out;
      }
    }
  }
  // -O names an output: a folder, a path in a missing folder, one in a folder
  // the user may not write.
  for (Variant v : {Variant::kMissing, Variant::kFolder, Variant::kUnreadable}) {
    std::string bad = Bad(v, params_, "dump.json");
    if (v == Variant::kMissing) bad += "/below/dump.json";
    if (v == Variant::kUnreadable) chmod(bad.substr(0, bad.rfind('/')).c_str(), 0555);
    const ProcessResult r =
        Check(v, "qzdl_NewConverter -O", QZDL_CONVERTER_EXE, ConverterArgs("-O", bad), bad);
    // A dump that cannot be written is a warning naming the file; the run goes on.
    EXPECT_NE((r.out + r.err).find(bad), std::string::npos) << r.out << r.err;
  }
}

TEST_F(FileOptionSweep, ConfigJsonInTheWorkingDirectory) {
  for (Variant v : kVariants) {
    const std::string good =
        Write("good_config.json", "{\"CalibrationMethod\": {\"b\": \"MEAN\"}}");
    const std::string bad = Bad(v, good, "config.json");
    const std::string run_dir = bad.substr(0, bad.rfind('/'));
    SCOPED_TRACE(std::string("config.json ") + VariantName(v));
    const bool drop = v == Variant::kUnreadable && getuid() == 0;
    const std::vector<std::string> args = {"-j", json_, "-m", model_, "-o", dir_ + "/out.bin",
                                           "-a", "1"};
    const ProcessResult r = drop ? RunProgramAs(65534, QZDL_CONVERTER_EXE, args, run_dir, 120)
                                 : RunProgram(QZDL_CONVERTER_EXE, args, run_dir, 120);
    // Unreadable, broken or a folder: no change and no print.
    EXPECT_TRUE(r.exited) << r.out << r.err;
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("calibration method has been changed"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
  }
}

TEST_F(FileOptionSweep, Run) {
  const std::string out_dir = dir_ + "/outs";
  std::string values(48 * sizeof(float), '\0');
  const std::string input = Write("data.f32", values);
  for (Variant v : kVariants) {
    std::string bad = Bad(v, json_, "net.json");
    Check(v, "qzdl_run net", QZDL_RUN, {bad, model_}, bad);
    bad = Bad(v, model_, "net.bin");
    Check(v, "qzdl_run weights", QZDL_RUN, {json_, bad}, bad);
    bad = Bad(v, input, "data.f32");
    Check(v, "qzdl_run --input", QZDL_RUN, {json_, model_, "--input", "data=" + bad}, bad);
    // A folder of inputs holding a bad "data.f32".
    bad = Bad(v, input, "data.f32");
    Check(v, "qzdl_run --inputs-dir", QZDL_RUN,
          {json_, model_, "--inputs-dir", bad.substr(0, bad.rfind('/'))}, bad);
    bad = Bad(v, input, "b.f32");
    Check(v, "qzdl_run --compare-dir", QZDL_RUN,
          {json_, model_, "--compare-dir", bad.substr(0, bad.rfind('/'))}, bad);
  }
}

#ifdef QZDL_ONNX2NET
TEST_F(FileOptionSweep, Onnx2Net) {
  for (Variant v : kVariants) {
    std::string bad = Bad(v, onnx_, "model.onnx");
    Check(v, "qzdl_onnx2net model", QZDL_ONNX2NET, {bad, dir_ + "/o.json", dir_ + "/o.bin"}, bad);
    bad = Bad(v, onnx_input_, "x.pb");
    Check(v, "qzdl_onnx2net --constant-input", QZDL_ONNX2NET,
          {onnx_, dir_ + "/o.json", dir_ + "/o.bin", "--constant-input", "input=" + bad}, bad);
  }
  // Outputs in a folder that does not exist, or onto a folder.
  for (Variant v : {Variant::kMissing, Variant::kFolder}) {
    std::string bad = Bad(v, onnx_, "o.json");
    if (v == Variant::kMissing) bad += "/below/o.json";
    Check(v, "qzdl_onnx2net out.json", QZDL_ONNX2NET, {onnx_, bad, dir_ + "/o.bin"}, bad);
  }
}
#endif

TEST_F(FileOptionSweep, MakeCalibrationBin) {
  for (Variant v : {Variant::kMissing, Variant::kEmpty, Variant::kTruncated}) {
    // The image folder: missing, or holding a bad picture.
    const std::string bad = Bad(v, picture_, "picture.png");
    const std::string folder = v == Variant::kMissing ? bad : bad.substr(0, bad.rfind('/'));
    Check(v, "qzdl_make_calibration_bin", QZDL_MAKE_CALIBRATION_BIN,
          {folder, dir_ + "/calibration.bin"}, v == Variant::kMissing ? bad : folder);
  }
}

}  // namespace
}  // namespace qzdl::test
