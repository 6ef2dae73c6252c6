// qzdl_run --compare with the converter's data options: the example net's
// pictures (examples/small_cnn) through -s, with labels and -r, a binary set,
// a text set and random data, converted once by the converter executable. A
// source of the converter must give the same report as an item list of .npy
// files holding the values the converter's loader makes of it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/image/qz_session.h"
#include "runtime/run_support.h"
#include "tools/process_runner.h"

namespace qzdl {
namespace {

const std::string kSource = QZDL_SOURCE_DIR;
const std::string kPictures = "examples/small_cnn/calibration/";
constexpr int kItems = 8;
constexpr int kFloats = 3 * 32 * 32;

// The planes of a 32 x 32 picture as the converter's loader delivers them:
// blue, green, red; or red first with -r 1.
std::vector<float> Planes(const std::string& path, bool rgb) {
  qzg::QZSession* session = qzg::QZSession::CreateSession();
  session->ReadImg(path.c_str());
  std::vector<unsigned char> bytes(kFloats);
  session->BufferImg(bytes.data(), 32, 32, qzg::QZSAMP_BGR24);
  session->Destroy();
  std::vector<float> planes(kFloats);
  qzg::RGB_Split(bytes.data(), planes.data(), nullptr, nullptr, 32, 32, rgb ? 1 : 0);
  return planes;
}

std::string Picture(int k) { return kPictures + "picture_0" + std::to_string(k) + ".png"; }

class CompareInputs : public ::testing::Test {
 protected:
  // The example net converted from its pictures; the pictures as .npy files
  // (BGR and RGB planes) and as a binary set.
  static void SetUpTestSuite() {
    dir_ = test::TempDir("compare_inputs");
    const test::ProcessResult c =
        test::RunProgram(QZDL_CONVERTER_EXE,
                         {"-j", "examples/small_cnn/net.json", "-m", "examples/small_cnn/net.bin",
                          "-o", dir_ + "/small.bin", "-s", kPictures + "list.txt"},
                         kSource);
    ASSERT_EQ(c.status, 0) << c.out << c.err;
    std::string set;
    for (int k = 0; k < kItems; ++k) {
      for (bool rgb : {false, true}) {
        const std::vector<float> planes = Planes(kSource + "/" + Picture(k), rgb);
        const std::string npy = dir_ + "/" + (rgb ? "rgb" : "bgr") + std::to_string(k) + ".npy";
        test::WriteFile(npy, NpyFloatBytes(planes.data(), {1, 3, 32, 32}));
        if (!rgb) set.append(reinterpret_cast<const char*>(planes.data()), kFloats * 4);
      }
    }
    test::WriteFile(dir_ + "/set.bin", set);
  }

  // qzdl_run --compare of the example net and its conversion, then `args`,
  // run in the source folder (the lists' paths are relative to it).
  static test::ProcessResult Compare(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"--compare", "examples/small_cnn/net.json",
                                    "examples/small_cnn/net.bin", dir_ + "/net_hybrid.json",
                                    dir_ + "/small.bin"};
    all.insert(all.end(), args.begin(), args.end());
    return test::RunProgram(QZDL_RUN, all, kSource);
  }

  // The report of a run that must succeed, without its first line (which
  // names the source).
  static std::string Body(const test::ProcessResult& r) {
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");
    return r.out.substr(r.out.find('\n') + 1);
  }

  static std::string FirstLine(const test::ProcessResult& r) {
    return r.out.substr(0, r.out.find('\n'));
  }

  static std::string Header(int items, const std::string& source) {
    return "compare: float net examples/small_cnn/net.json against quantized net " + dir_ +
           "/net_hybrid.json on " + std::to_string(items) + " items of " + source;
  }

  // A list of the .npy files ("bgr" or "rgb"), each line ending in `label`
  // when that is not empty.
  static std::string NpyList(const std::string& name, const std::string& planes,
                             const std::vector<std::string>& labels) {
    std::string text;
    for (int k = 0; k < kItems; ++k) {
      text += dir_ + "/" + planes + std::to_string(k) + ".npy";
      text += labels.empty() ? "\n" : "\t" + labels[k] + "\n";
    }
    test::WriteFile(dir_ + "/" + name, text);
    return dir_ + "/" + name;
  }

  // A converter list of the pictures with a tab and a label per line.
  static std::string LabelledPictures(const std::string& name,
                                      const std::vector<std::string>& labels) {
    std::string text;
    for (int k = 0; k < kItems; ++k) text += Picture(k) + "\t" + labels[k] + "\n";
    test::WriteFile(dir_ + "/" + name, text);
    return dir_ + "/" + name;
  }

  static void ExpectError(const test::ProcessResult& r, const std::string& message) {
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.err, "qzdl_run: " + message + "\n");
  }

  static std::string dir_;
};

std::string CompareInputs::dir_;

const std::vector<std::string> kLabels = {"2", "2", "7", "2", "0", "2", "5", "2"};

TEST_F(CompareInputs, AListOfImagesReadsAsTheConverterReadsIt) {
  const test::ProcessResult images = Compare({"-s", kPictures + "list.txt", "--worst", "0"});
  EXPECT_EQ(FirstLine(images), Header(kItems, kPictures + "list.txt"));
  const std::string body = Body(images);
  EXPECT_EQ(body, Body(Compare({"--list", NpyList("bgr.txt", "bgr", {}), "--worst", "0"})));
  EXPECT_TRUE(test::HasLine(body, "outputs, float net against 8-bit net over 8 items:")) << body;
  EXPECT_TRUE(test::HasLine(body, "tensors, worst first (8 of 8):")) << body;
  // The long names and the image type said outright.
  EXPECT_EQ(Body(Compare({"--calibration_set", kPictures + "list.txt", "--calibration_type", "img",
                          "--worst", "0"})),
            body);
}

TEST_F(CompareInputs, LabelsBehindATab) {
  const test::ProcessResult r =
      Compare({"-s", LabelledPictures("labelled.txt", kLabels), "--worst", "1"});
  EXPECT_EQ(FirstLine(r), Header(kItems, dir_ + "/labelled.txt"));
  const std::string body = Body(r);
  EXPECT_EQ(body,
            Body(Compare({"--list", NpyList("bgr_labelled.txt", "bgr", kLabels), "--worst", "1"})));
  EXPECT_NE(body.find("\ntop-1 of \"prob\": float "), std::string::npos) << body;
}

TEST_F(CompareInputs, RgbPictures) {
  const std::string body = Body(Compare({"-s", kPictures + "list.txt", "-r", "1", "--worst", "0"}));
  EXPECT_EQ(body, Body(Compare({"--list", NpyList("rgb.txt", "rgb", {}), "--worst", "0"})));
  EXPECT_NE(body, Body(Compare({"-s", kPictures + "list.txt", "--rgb", "0", "--worst", "0"})));
}

TEST_F(CompareInputs, ABinarySet) {
  const test::ProcessResult r = Compare({"-b", dir_ + "/set.bin", "--worst", "0"});
  EXPECT_EQ(FirstLine(r), Header(kItems, dir_ + "/set.bin"));
  EXPECT_EQ(Body(r), Body(Compare({"--list", NpyList("bgr.txt", "bgr", {}), "--worst", "0"})));
  const test::ProcessResult three = Compare({"--binary_set", dir_ + "/set.bin", "-x", "3"});
  EXPECT_EQ(FirstLine(three), Header(3, dir_ + "/set.bin"));
  EXPECT_TRUE(test::HasLine(Body(three), "outputs, float net against 8-bit net over 3 items:"));
}

TEST_F(CompareInputs, ATextSetAndRandomData) {
  std::string text;
  for (int k = 0; k < kFloats; ++k) text += std::to_string(k % 256) + " ";
  test::WriteFile(dir_ + "/set.txt", text);
  const test::ProcessResult t = Compare({"-T", dir_ + "/set.txt"});
  EXPECT_EQ(FirstLine(t), Header(1, dir_ + "/set.txt"));
  EXPECT_TRUE(test::HasLine(Body(t), "outputs, float net against 8-bit net over 1 item:"));
  const test::ProcessResult a = Compare({"-a", "2"});
  EXPECT_EQ(FirstLine(a), Header(2, "random data"));
  EXPECT_TRUE(test::HasLine(Body(a), "outputs, float net against 8-bit net over 2 items:"));
  EXPECT_TRUE(test::HasLine(a.out, "top-1 of \"prob\": agreement 100.00 % (2)") ||
              test::HasLine(a.out, "top-1 of \"prob\": agreement 0.00 % (0)"))
      << a.out;  // every random item is the same tensor
}

TEST_F(CompareInputs, AMissingPicture) {
  test::WriteFile(dir_ + "/missing.txt", Picture(0) + "\t2\n" + kPictures + "missing.png\t3\n");
  ExpectError(Compare({"-s", dir_ + "/missing.txt"}),
              dir_ + "/missing.txt line 2: cannot read \"" + kPictures +
                  "missing.png\": No such file or directory");
}

TEST_F(CompareInputs, ALabelThatIsNotANumber) {
  ExpectError(
      Compare({"-s", LabelledPictures("seven.txt", {"2", "2", "seven", "2", "0", "2", "5", "2"})}),
      dir_ + "/seven.txt line 3: the label \"seven\" is not a whole number from 0");
}

TEST_F(CompareInputs, APictureThatDoesNotDecode) {
  test::WriteFile(dir_ + "/bad.txt", Picture(0) + "\n" + "examples/small_cnn/net.json\n");
  ExpectError(Compare({"-s", dir_ + "/bad.txt"}),
              dir_ +
                  "/bad.txt line 2: ReadImg: cannot decode image file "
                  "\"examples/small_cnn/net.json\": unknown image type");
}

TEST_F(CompareInputs, BadDataOptions) {
  ExpectError(Compare({"-s", kPictures + "list.txt", "-t", "jpg"}),
              "-t \"jpg\" is neither img nor npy");
  ExpectError(Compare({"-a", "0"}), "-a \"0\" is not a whole number from 1");
  ExpectError(Compare({"-a", "2", "-x", "many"}), "-x \"many\" is not a whole number from -1");
  ExpectError(Compare({"-s", kPictures + "list.txt", "-r", "yes"}), "-r \"yes\" is not 0 or 1");
  ExpectError(Compare({"-a", "2", "-r", "1"}), "-t and -r apply to the files of -s only");
  ExpectError(Compare({"-b", dir_ + "/none.bin"}),
              "cannot read the binary set \"" + dir_ + "/none.bin\": No such file or directory");
  // No source, or two.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-x", "2"},
        {"-a", "2", "-b", dir_ + "/set.bin"},
        {"-s", kPictures + "list.txt", "--list", dir_ + "/bgr.txt"}}) {
    const test::ProcessResult r = Compare(args);
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(r.err.rfind("usage: qzdl_run", 0), 0u) << r.err;
  }
}

}  // namespace
}  // namespace qzdl
