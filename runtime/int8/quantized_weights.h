// The quantized weights file: what an 8-bit net loads and saves. A
// little-endian container of named blobs like the float weights file, whose
// blobs hold 8-bit codes, int32 values (biases) or float32 values (layers
// that run in float), each with the grids of its channels:
//
//   header : magic "QZQW" | u32 version (1) | u32 blob count | u32 reserved (0)
//   blob   : u32 n | n bytes layer name
//            u32 n | n bytes blob name
//            u32 rank | rank x i32 dims
//            u32 element type (0 = float32, 1 = uint8 codes, 2 = int32)
//            u64 element count | the values (4, 1 or 4 bytes each)
//            u32 grid count: 0, 1 (one grid for the whole blob), or one per
//              channel (dims[0], or dims[last] for a transposed inner
//              product) | per grid:
//              f32 min | f32 max | f32 scale | i32 zero point (0 .. 255)
//
// Every length is checked against the bytes that remain before it is used;
// a defect is a NetFormatError naming the file, the blob and the byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qzdl {

constexpr uint32_t kQuantizedWeightsVersion = 1;

enum class BlobType : uint32_t { kFloat32 = 0, kUint8 = 1, kInt32 = 2 };

// The grid of one channel: the range it was made from and its scale and
// zero point.
struct ChannelGrid {
  float min = 0, max = 0, scale = 0;
  int32_t zero = 0;
};

struct QuantizedBlob {
  std::string layer;
  std::string name;
  std::vector<int> dims;
  BlobType type = BlobType::kUint8;
  // The values as stored, little-endian: count x 1 or 4 bytes.
  std::string bytes;
  std::vector<ChannelGrid> grids;
};

// Bytes per element of `type`.
int BlobElementBytes(BlobType type);

// Whether a blob of shape `dims` may carry `grids` grids: none, one for the
// whole blob, or one per channel, the channels being the first axis or (as
// for a transposed inner product's [K, outputs] weights) the last.
bool GridCountFits(uint64_t grids, const std::vector<int>& dims);

// Parses a whole file image. Throws NetFormatError naming `source`.
std::vector<QuantizedBlob> ParseQuantizedWeights(const char* bytes, int64_t length,
                                                 const std::string& source);

// The file image of `blobs`.
std::string SerializeQuantizedWeights(const std::vector<QuantizedBlob>& blobs);

}  // namespace qzdl
