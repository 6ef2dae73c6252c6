// The weights file: a little-endian binary container of named float blobs.
//
//   header  : magic "QZWT" | u32 version (1) | u32 blob count | u32 reserved (0)
//   blob    : u32 n | n bytes layer name
//             u32 n | n bytes blob name
//             u32 rank | rank x i32 dims
//             u32 element type (0 = float32)
//             u64 element count | count x f32 values
//
// Every length is checked against the bytes that remain before it is used.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/atomic_file.h"  // WriteFileAtomically, used with these files

namespace qzdl {

struct WeightBlob {
  std::string layer;
  std::string name;
  std::vector<int> dims;
  std::vector<float> values;
};

constexpr uint32_t kWeightsVersion = 1;

// Parses a whole buffer. Throws NetFormatError naming `source` on any defect.
std::vector<WeightBlob> ParseWeights(const char* bytes, int64_t length, const std::string& source);

// The file image of `blobs`.
std::string SerializeWeights(const std::vector<WeightBlob>& blobs);

}  // namespace qzdl
