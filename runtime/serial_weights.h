// Serial model files (names ending in "fb"): the weights of a net in a
// FlatBuffers container (schema serial_model.fbs, identifier "QZSM").
#pragma once

#include <string>
#include <vector>

#include "runtime/weights_file.h"

namespace qzdl {

constexpr unsigned kSerialVersion = 1;

// Reads and verifies a serial model file. Throws NetFormatError naming the
// file on a missing file, a buffer that does not verify, or a bad blob.
std::vector<WeightBlob> ReadSerialWeights(const std::string& path);
// The same for a buffer in memory.
std::vector<WeightBlob> ParseSerialWeights(const void* bytes, size_t length,
                                           const std::string& source);
// The serial image of `blobs`.
std::string SerializeSerialWeights(const std::vector<WeightBlob>& blobs);

}  // namespace qzdl
