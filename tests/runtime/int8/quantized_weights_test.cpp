// The quantized weights file: round trips of every element type and grid
// layout, and the exact message of every defect.
#include "runtime/int8/quantized_weights.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "runtime/errors.h"
#include "runtime/weights_file.h"

namespace qzdl {
namespace {

std::vector<QuantizedBlob> Sample() {
  QuantizedBlob w;
  w.layer = "conv1";
  w.name = "weight";
  w.dims = {2, 1, 1, 3};
  w.type = BlobType::kUint8;
  w.bytes = std::string("\x00\x80\xff\x01\x02\x03", 6);
  w.grids = {{-1.0f, 1.0f, 2.0f / 255, 128}, {0.0f, 3.0f, 3.0f / 255, 0}};
  QuantizedBlob b;
  b.layer = "conv1";
  b.name = "bias";
  b.dims = {2};
  b.type = BlobType::kInt32;
  const int32_t bias[2] = {-7, 1 << 20};
  b.bytes.assign(reinterpret_cast<const char*>(bias), 8);
  QuantizedBlob f;
  f.layer = "norm";
  f.name = "scale";
  f.dims = {3};
  f.type = BlobType::kFloat32;
  const float values[3] = {0.5f, -2.0f, 1e-3f};
  f.bytes.assign(reinterpret_cast<const char*>(values), 12);
  f.grids = {{-2.0f, 0.5f, 2.5f / 255, 204}};
  return {w, b, f};
}

std::string Error(const std::string& image) {
  try {
    ParseQuantizedWeights(image.data(), static_cast<int64_t>(image.size()), "Model file \"q.bin\"");
  } catch (const NetFormatError& e) {
    return e.what();
  }
  return "";
}

TEST(QuantizedWeights, RoundTrip) {
  const std::vector<QuantizedBlob> blobs = Sample();
  const std::string image = SerializeQuantizedWeights(blobs);
  const std::vector<QuantizedBlob> back =
      ParseQuantizedWeights(image.data(), static_cast<int64_t>(image.size()), "q");
  ASSERT_EQ(back.size(), 3u);
  for (size_t i = 0; i < back.size(); ++i) {
    EXPECT_EQ(back[i].layer, blobs[i].layer);
    EXPECT_EQ(back[i].name, blobs[i].name);
    EXPECT_EQ(back[i].dims, blobs[i].dims);
    EXPECT_EQ(back[i].type, blobs[i].type);
    EXPECT_EQ(back[i].bytes, blobs[i].bytes);
    ASSERT_EQ(back[i].grids.size(), blobs[i].grids.size());
    for (size_t g = 0; g < back[i].grids.size(); ++g) {
      EXPECT_EQ(std::memcmp(&back[i].grids[g], &blobs[i].grids[g], sizeof(ChannelGrid)), 0);
    }
  }
  EXPECT_EQ(SerializeQuantizedWeights(back), image);
  EXPECT_EQ(image.substr(0, 8), std::string("QZQW\x01\x00\x00\x00", 8));
  // A file without blobs.
  const std::string empty = SerializeQuantizedWeights({});
  EXPECT_EQ(empty.size(), 16u);
  EXPECT_TRUE(ParseQuantizedWeights(empty.data(), 16, "q").empty());
}

TEST(QuantizedWeights, Defects) {
  const std::string good = SerializeQuantizedWeights(Sample());
  EXPECT_EQ(Error(""), "Model file \"q.bin\": truncated while reading the header (at byte 0)");
  EXPECT_EQ(Error("QZQX" + good.substr(4)),
            "Model file \"q.bin\": not a quantized weights file (bad magic number) (at byte 0)");
  EXPECT_EQ(Error(SerializeWeights({})),
            "Model file \"q.bin\": a float weights file, not a quantized one (at byte 0)");
  std::string v2 = good;
  v2[4] = 2;
  EXPECT_EQ(Error(v2),
            "Model file \"q.bin\": unsupported quantized weights file version 2 (at byte 8)");
  // The last blob's one grid (16 bytes) is cut: refused before it is read.
  EXPECT_EQ(Error(good.substr(0, good.size() - 3)),
            "Model file \"q.bin\": truncated while reading layer \"norm\" blob \"scale\" "
            "grids (at byte " + std::to_string(good.size() - 16) + ")");
  EXPECT_EQ(Error(good + "xy"), "Model file \"q.bin\": 2 unexpected trailing bytes (at byte " +
                                    std::to_string(good.size()) + ")");

  std::vector<QuantizedBlob> blobs = Sample();
  blobs[0].grids.push_back({});  // 3 grids for [2, 1, 1, 3]: per last axis, accepted
  EXPECT_EQ(ParseQuantizedWeights(SerializeQuantizedWeights(blobs).data(),
                                  SerializeQuantizedWeights(blobs).size(), "w")[0].grids.size(), 3u);
  blobs[0].grids.push_back({});  // 4 grids
  EXPECT_NE(Error(SerializeQuantizedWeights(blobs))
                .find("Model file \"q.bin\": layer \"conv1\" blob \"weight\": 4 grids for shape "
                      "[2, 1, 1, 3] (0, 1 or one per index of the first or the last axis) (at byte "),
            std::string::npos);
  blobs = Sample();
  blobs[0].grids[1].zero = 256;
  EXPECT_NE(Error(SerializeQuantizedWeights(blobs))
                .find("layer \"conv1\" blob \"weight\": grid 1 has zero point 256, outside 0 .. 255"),
            std::string::npos);
  blobs = Sample();
  blobs[1].bytes.resize(4);  // one int32 for shape [2]
  EXPECT_NE(Error(SerializeQuantizedWeights(blobs))
                .find("layer \"conv1\" blob \"bias\": holds 1 values for shape [2]"),
            std::string::npos);
  // An unknown element type: the type word follows the blob's dims.
  std::string bad_type = SerializeQuantizedWeights({Sample()[2]});
  const size_t type_at = 16 + 4 + 4 + 4 + 5 + 4 + 4;
  ASSERT_EQ(bad_type[type_at], 0);
  bad_type[type_at] = 9;
  EXPECT_NE(Error(bad_type).find("layer \"norm\" blob \"scale\": unknown element type 9"),
            std::string::npos)
      << Error(bad_type);
}

}  // namespace
}  // namespace qzdl
