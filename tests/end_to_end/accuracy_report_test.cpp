// The README's first command without the build: the digits example converted
// with the entropy method and compared with its float net on the 300
// held-out pictures by qzdl_run --compare, as scripts/demo.sh does. The
// trained net must keep its accuracy through quantization.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "runtime/json11.h"
#include "support/net_builder.h"
#include "tools/process_runner.h"

namespace qzdl::test {
namespace {

TEST(DigitsAccuracyReport, TheEntropyMethodKeepsTheAccuracy) {
  const std::string dir = TempDir("digits_accuracy_report");
  const std::string ex = "examples/digits";
  const ProcessResult c =
      RunProgram(QZDL_CONVERTER_EXE,
                 {"-j", ex + "/net.json", "-m", ex + "/net.bin", "-o", dir + "/digits.bin", "-s",
                  ex + "/calibration/list.txt", "-t", "npy", "-c", "2"},
                 QZDL_SOURCE_DIR, 300);
  ASSERT_TRUE(c.exited && c.status == 0) << c.out << c.err;
  const ProcessResult r =
      RunProgram(QZDL_RUN,
                 {"--compare", ex + "/net.json", ex + "/net.bin", dir + "/net_hybrid.json",
                  dir + "/digits.bin", "--list", ex + "/eval/list.txt", "--worst", "5", "--json",
                  dir + "/report.json"},
                 QZDL_SOURCE_DIR, 300);
  ASSERT_TRUE(r.exited && r.status == 0) << r.out << r.err;
  std::printf("%s", r.out.c_str());
  EXPECT_TRUE(HasLine(r.out, "tensors, worst first (5 of 16):")) << r.out;

  std::string error;
  const json11::Json j = json11::Json::parse(ReadFile(dir + "/report.json"), error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(j["items"].int_value(), 300);
  EXPECT_TRUE(j["labelled"].bool_value());
  const json11::Json& top1 = j["top1"];
  EXPECT_EQ(top1["output"].string_value(), "logits");
  // The trained float net: 295 of the 300 held-out pictures.
  EXPECT_EQ(top1["float_correct"].int_value(), 295);
  EXPECT_GE(top1["quantized_correct"].int_value(), 292);
  EXPECT_GE(top1["agreement"].number_value(), 0.99);
  EXPECT_GE(j["outputs"][0]["cosine"].number_value(), 0.999);
  EXPECT_GE(j["outputs"][0]["sqnr_db"].number_value(), 28.0);
  EXPECT_EQ(j["tensors"].array_items().size(), 16u);
}

}  // namespace
}  // namespace qzdl::test
