// Quantized models: the net description an 8-bit net saves (the float
// description with a "quantization" section: every tensor's grid and data
// type, every integer layer's weight grids) and its quantized weights, loaded
// back into a ready 8-bit net (docs/model-format.md).
#pragma once

#include <string>
#include <vector>

#include "runtime/json11.h"
#include "runtime/net.h"

namespace qzdl {

constexpr const char* kQuantizationKey = "quantization";
constexpr int kQuantizedModelVersion = 1;

// Whether `net` (a parsed description) has a quantization section.
bool IsQuantizedDescription(const json11::Json& net);

// Builds an 8-bit net from a description with a quantization section and a
// model file: a quantized weights file, a serial model (a name ending in
// "fb") or float weights (quantized under the section's grids). The net owns
// its configuration, holds the section's grids and data types, and is
// shaped with storage at the description's batch. Throws NetFormatError
// naming the file and what is wrong.
Net<unsigned char>* CreateQuantizedNet(const std::string& netPath, const std::string& modelPath);

// What SaveJson writes, as text: the description with the quantization
// section (data types as the net's hybrid mode says).
std::string QuantizedDescriptionText(Net<unsigned char>& net);
// What SaveWeights (or, with `serial`, SaveSerialWeights) writes, as bytes;
// `path` is only named by errors. Lets a caller write several files whole
// or not at all (WriteFilesAtomically).
std::string QuantizedWeightsBytes(Net<unsigned char>& net, bool serial, const std::string& path);

// The real values of a tensor of an 8-bit net: its codes dequantized on its
// grid, or its floats.
std::vector<float> RealValues(Net<unsigned char>& net, const Data<unsigned char>& t);

}  // namespace qzdl
