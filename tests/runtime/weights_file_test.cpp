#include "runtime/weights_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "runtime/errors.h"
#include "runtime/serial_weights.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

std::vector<WeightBlob> Sample() {
  return {{"conv1", "weight", {2, 1, 1, 2}, {1.0f, -2.0f, 3.5f, 0.0f}},
          {"conv1", "bias", {2}, {0.25f, -0.25f}},
          {"fc", "weight", {0}, {}}};
}

std::string ErrorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const NetFormatError& e) {
    return e.what();
  }
  return "<no error>";
}

TEST(WeightsFile, RoundTrip) {
  const std::string bytes = SerializeWeights(Sample());
  EXPECT_EQ(bytes.substr(0, 4), "QZWT");
  const auto blobs = ParseWeights(bytes.data(), static_cast<int64_t>(bytes.size()), "w");
  ASSERT_EQ(blobs.size(), 3u);
  EXPECT_EQ(blobs[0].layer, "conv1");
  EXPECT_EQ(blobs[0].name, "weight");
  EXPECT_EQ(blobs[0].dims, (std::vector<int>{2, 1, 1, 2}));
  EXPECT_EQ(blobs[0].values, Sample()[0].values);
  EXPECT_EQ(blobs[1].values, Sample()[1].values);
  EXPECT_TRUE(blobs[2].values.empty());
}

TEST(WeightsFile, LayoutIsLittleEndian) {
  const std::string bytes = SerializeWeights({{"l", "w", {1}, {1.0f}}});
  const unsigned char expected[] = {'Q', 'Z', 'W', 'T', 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,
                                    1,   0,   0,   0,   'l', 1, 0, 0, 0, 'w', 1, 0, 0, 0, 1, 0,
                                    0,   0,   0,   0,   0,   0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                    0x80, 0x3f};
  ASSERT_EQ(bytes.size(), sizeof expected);
  EXPECT_EQ(std::memcmp(bytes.data(), expected, sizeof expected), 0);
}

TEST(WeightsFile, EmptyBufferHoldsNoBlobs) {
  EXPECT_TRUE(ParseWeights(nullptr, 0, "w").empty());
}

TEST(WeightsFile, EveryTruncationIsReported) {
  const std::string bytes = SerializeWeights(Sample());
  for (size_t n = 1; n < bytes.size(); ++n) {
    const std::string msg = ErrorOf([&] { ParseWeights(bytes.data(), n, "Model file \"m.bin\""); });
    EXPECT_EQ(msg.rfind("Model file \"m.bin\": ", 0), 0u) << n << ": " << msg;
    EXPECT_NE(msg.find(n < 4 ? "the header" : "truncated"), std::string::npos) << n << ": " << msg;
  }
}

TEST(WeightsFile, TruncationNamesLayerAndBlob) {
  const std::string bytes = SerializeWeights(Sample());
  const std::string msg = ErrorOf([&] { ParseWeights(bytes.data(), 60, "Model file \"m.bin\""); });
  EXPECT_EQ(msg, "Model file \"m.bin\": truncated while reading layer \"conv1\" blob \"weight\" (at byte 59)");
}

TEST(WeightsFile, BadMagicVersionAndTrailingBytes) {
  std::string bytes = SerializeWeights(Sample());
  std::string bad = bytes;
  bad[0] = 'X';
  EXPECT_EQ(ErrorOf([&] { ParseWeights(bad.data(), bad.size(), "w"); }),
            "w: not a weights file (bad magic number) (at byte 0)");
  bad = bytes;
  bad[4] = 9;
  EXPECT_EQ(ErrorOf([&] { ParseWeights(bad.data(), bad.size(), "w"); }),
            "w: unsupported weights file version 9 (at byte 8)");
  bad = bytes + "zz";
  EXPECT_EQ(ErrorOf([&] { ParseWeights(bad.data(), bad.size(), "w"); }),
            "w: 2 unexpected trailing bytes (at byte " + std::to_string(bytes.size()) + ")");
}

TEST(WeightsFile, CountMustMatchShape) {
  std::string bytes = SerializeWeights({{"l", "w", {3}, {1.0f, 2.0f}}});
  EXPECT_EQ(ErrorOf([&] { ParseWeights(bytes.data(), bytes.size(), "w"); }),
            "w: layer \"l\" blob \"w\": holds 2 values for shape [3] (at byte 46)");
}

TEST(WeightsFile, HugeLengthsAreCheckedBeforeUse) {
  std::string bytes = SerializeWeights({{"l", "w", {1}, {1.0f}}});
  // Claim a layer name of 4 GB.
  bytes[16] = bytes[17] = bytes[18] = bytes[19] = '\xff';
  EXPECT_EQ(ErrorOf([&] { ParseWeights(bytes.data(), bytes.size(), "w"); }),
            "w: truncated while reading blob 0 layer name (at byte 20)");
}

TEST(WeightsFile, AtomicWriteLeavesNoTemporary) {
  const std::string dir = test::TempDir("atomic");
  const std::string path = dir + "/w.bin";
  ASSERT_TRUE(WriteFileAtomically(path, "abc"));
  ASSERT_TRUE(WriteFileAtomically(path, "defg"));
  std::ifstream in(path);
  std::string text;
  in >> text;
  EXPECT_EQ(text, "defg");
  EXPECT_FALSE(WriteFileAtomically(dir + "/no/such/dir/w.bin", "x"));
  EXPECT_EQ(system(("test $(ls " + dir + " | wc -l) -eq 1").c_str()), 0);
}

TEST(SerialWeights, RoundTrip) {
  const std::string bytes = SerializeSerialWeights(Sample());
  EXPECT_EQ(bytes.substr(4, 4), "QZSM");
  const auto blobs = ParseSerialWeights(bytes.data(), bytes.size(), "s");
  ASSERT_EQ(blobs.size(), 3u);
  EXPECT_EQ(blobs[0].dims, Sample()[0].dims);
  EXPECT_EQ(blobs[0].values, Sample()[0].values);
  EXPECT_EQ(blobs[1].name, "bias");
}

TEST(SerialWeights, CorruptBuffersDoNotVerify) {
  const std::string bytes = SerializeSerialWeights(Sample());
  for (size_t n : {size_t(0), size_t(7), bytes.size() / 2}) {
    EXPECT_EQ(ErrorOf([&] { ParseSerialWeights(bytes.data(), n, "s"); }),
              "s: not a valid serial model (the container does not verify)");
  }
  std::string bad = bytes;
  bad[5] = 'X';
  EXPECT_EQ(ErrorOf([&] { ParseSerialWeights(bad.data(), bad.size(), "s"); }),
            "s: not a valid serial model (the container does not verify)");
}

class WeightsValidation : public ::testing::Test {
 protected:
  std::string Failure(const std::vector<WeightBlob>& blobs) {
    test::NetBuilder b;
    b.Input("data", {1, 2}).Layer("relu", "ReLU", {"data"}, {"out"});
    std::string w = SerializeWeights(blobs);
    std::exception* thrown = nullptr;
    std::string out = test::CaptureStdout([&] {
      try {
        CreateNetFromContent<float>(b.JsonText(), w.data(), static_cast<int>(w.size()), false,
                                    false, 0, 1);
      } catch (std::exception* e) {
        thrown = e;
      }
    });
    EXPECT_NE(thrown, nullptr);
    delete thrown;
    const size_t at = out.find("]: ");
    return at == std::string::npos ? out : out.substr(at + 3, out.size() - at - 4);
  }
};

TEST_F(WeightsValidation, BlobOfUnknownLayer) {
  EXPECT_EQ(Failure({{"conv9", "weight", {1}, {1.0f}}}),
            "weights: layer \"conv9\": blob \"weight\" belongs to no layer of the net");
}

TEST_F(WeightsValidation, BlobALayerDoesNotHave) {
  EXPECT_EQ(Failure({{"relu", "weight", {1}, {1.0f}}}),
            "weights: layer \"relu\": blob \"weight\" is not a weight of a ReLU layer with these "
            "params");
}

}  // namespace
}  // namespace qzdl
