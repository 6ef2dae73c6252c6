// File-name helpers and the two steps that turn a tensor into histogram data.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "quantization/utils.h"
#include "tests/quantization/quant_test_util.h"

namespace qzdl {
namespace staticQuantization {
namespace {

using quant_test::FromBits;
using quant_test::kInf;
using quant_test::kNaN;
using Words = std::vector<std::string>;

TEST(AddHybrid, KeepsTheExtension) {
  EXPECT_EQ("a/model_hybrid.bin", AddHybrid("a/model.bin"));
  EXPECT_EQ("net_hybrid.json", AddHybrid("net.json"));
  EXPECT_EQ("a.b_hybrid.c", AddHybrid("a.b.c"));
}

TEST(AddHybrid, WithoutDotNoUnderscore) {
  EXPECT_EQ("modelhybrid", AddHybrid("model"));
  EXPECT_EQ("hybrid", AddHybrid(""));
  EXPECT_EQ("_hybrid.bin", AddHybrid(".bin"));
}

TEST(AddHybrid, ScanDoesNotStopAtSlash) {
  EXPECT_EQ("dir_hybrid.old/model", AddHybrid("dir.old/model"));
}

TEST(Split, StrtokSemantics) {
  EXPECT_EQ((Words{"a", "b"}), split("a//b/", "/"));
  EXPECT_EQ((Words{"a", "b", "c"}), split("a-b_c", "-_"));
  EXPECT_EQ(Words{}, split("", "/"));
  EXPECT_EQ(Words{}, split("///", "/"));
  EXPECT_EQ((Words{"abs", "x"}), split("/abs/x", "/"));
  // The delimiters are a set of characters, not a substring.
  EXPECT_EQ((Words{"a", "c"}), split("abbc", "bx"));
  // No delimiters: one token.
  EXPECT_EQ(Words{"a/b"}, split("a/b", ""));
}

TEST(Split, StringsEndAtNul) {
  const std::string text("a/b\0c/d", 7);
  EXPECT_EQ((Words{"a", "b"}), split(text, "/"));
  const std::string delims("-\0/", 3);
  EXPECT_EQ(Words{"a/b"}, split("a/b", delims));
}

TEST(SwapPath, ReplacesTheLastComponent) {
  EXPECT_EQ("out/dir/model.bin", SwapPath("in/model.bin", "out/dir/old.bin"));
  EXPECT_EQ("/abs/m.bin", SwapPath("m.bin", "/abs/x"));
  EXPECT_EQ("b", SwapPath("a/b", "c"));
  EXPECT_EQ("/x/y/f", SwapPath("/p/q/f", "//x//y/z/"));
}

TEST(SwapPath, TextTestNotPosition) {
  // A directory named like the file gets no separator behind it.
  EXPECT_EQ("/a/cc", SwapPath("x/c", "/a/c/b"));
}

TEST(AssignNonZeroDataToVector, DropsNearZerosKeepsOrderAndInfinities) {
  const float one_e6 = 1e-6f;                 // 9.9999997e-7 < 1e-6 in double
  const float above = FromBits(0x358637BEu);  // next float up, 1.0000001e-6
  const float data[] = {1e-7f, 2.0f, 0.0f, -0.0f, one_e6, -one_e6, above, kInf, -kInf, -3e-6f};
  const std::vector<float> kept = AssignNonZeroDataToVector(data, 10);
  const std::vector<float> expected = {2.0f, above, kInf, -kInf, -3e-6f};
  EXPECT_EQ(expected, kept);
  EXPECT_TRUE(AssignNonZeroDataToVector(data, 0).empty());
}

TEST(AssignNonZeroDataToVectorDeathTest, NaNExitsSilently) {
  const float data[] = {1.0f, kNaN, 2.0f};
  EXPECT_EXIT(AssignNonZeroDataToVector(data, 3), ::testing::ExitedWithCode(255), "^$");
}

TEST(AssignDataToBins, SymmetricAroundZero) {
  // [-1, 4] with 10 bins: m = 4, bins cover [-4, 4] in steps of 0.8.
  const std::vector<float> data = {-3.0f, -1.0f, 0.0f, 1.7f, 4.0f, 4.5f};
  const std::vector<int> counts = AssignDataToBins(data, 10, -1.0f, 4.0f);
  const std::vector<int> expected = {0, 0, 0, 1, 0, 1, 0, 1, 0, 1};
  EXPECT_EQ(expected, counts);
}

TEST(AssignDataToBins, ZeroPeakPutsEverythingInBinZero) {
  const std::vector<float> data = {0.0f, -0.0f, 0.0f, 1.0f};
  const std::vector<int> counts = AssignDataToBins(data, 5, 0.0f, 0.0f);
  EXPECT_EQ((std::vector<int>{3, 0, 0, 0, 0}), counts);
}

TEST(AssignDataToBins, EmptyDataGivesZeros) {
  EXPECT_EQ(std::vector<int>(7, 0), AssignDataToBins({}, 7, -1.0f, 1.0f));
}

TEST(AssignDataToBins, NaNLandsInBinZero) {
  const std::vector<float> data = {kNaN, 0.9f};
  const std::vector<int> counts = AssignDataToBins(data, 4, -1.0f, 1.0f);
  EXPECT_EQ((std::vector<int>{1, 0, 0, 1}), counts);
}

TEST(AssignDataToBins, SinglePrecisionShift) {
  // x + m is rounded to single precision first: -1e-8 + 1 becomes 1.0 and
  // lands in bin 1, where the double sum 0.99999999 would give bin 0.
  const std::vector<float> data = {-1e-8f};
  EXPECT_EQ((std::vector<int>{0, 1}), AssignDataToBins(data, 2, -1.0f, 1.0f));
}

TEST(ToVector, CopiesTheBuffer) {
  float f[] = {1.0f, -2.0f, 3.5f};
  EXPECT_EQ((std::vector<float>{1.0f, -2.0f, 3.5f}), ToVector(f, 3));
  unsigned char c[] = {1, 200};
  EXPECT_EQ((std::vector<unsigned char>{1, 200}), ToVector(c, 2));
  EXPECT_TRUE(ToVector(f, 0).empty());
}

}  // namespace
}  // namespace staticQuantization
}  // namespace qzdl
