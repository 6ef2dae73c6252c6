// Serial model files (names ending in "fb"): the weights of a net in a
// FlatBuffers container (schema serial_model.fbs, identifier "QZSM").
#pragma once

#include <string>
#include <vector>

#include "runtime/int8/quantized_weights.h"
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

// Quantized models (8-bit nets): blobs of any element type with their grids.
// A float serial model reads as float32 blobs without grids; the float
// reader above refuses a quantized one.
std::vector<QuantizedBlob> ParseSerialQuantized(const void* bytes, size_t length,
                                                const std::string& source);
std::string SerializeSerialQuantized(const std::vector<QuantizedBlob>& blobs);

}  // namespace qzdl
