// The whole-net search (docs/quantization-search.md, "The whole-net search
// (-e)"): a hybrid 8-bit net is improved against the float net on a set of
// inputs, first by trying other ranges for its tensors, then by keeping the
// layers that cost the most in float, until the cosine similarity of its
// outputs reaches a target.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "runtime/net.h"

namespace qzdl {

// An 8-bit net loaded from a hybrid description and a model file, with the
// names of both (the search writes the improved pair back under them or
// under others).
class HybridNet {
 public:
  HybridNet(std::unique_ptr<Net<unsigned char>> net, std::string jsonPath, std::string modelPath)
      : net_(std::move(net)), json_path_(std::move(jsonPath)), model_path_(std::move(modelPath)) {}
  HybridNet(const HybridNet&) = delete;
  HybridNet& operator=(const HybridNet&) = delete;

  // The net; it owns its configuration (INT8Config).
  Net<unsigned char>* GetNet() const { return net_.get(); }
  const std::string& JsonPath() const { return json_path_; }
  const std::string& ModelPath() const { return model_path_; }

 private:
  std::unique_ptr<Net<unsigned char>> net_;
  std::string json_path_;
  std::string model_path_;
};

// Loads a net description with a "quantization" section (docs/quantized-
// model.md) and a model file: float weights, quantized weights or a serial
// model (a name ending in "fb"), as CreateQuantizedNet does. The bool and the
// int are reserved: callers pass false and 0, and they change nothing.
// Throws NetFormatError naming the file and what is wrong. The caller owns
// the result (delete).
HybridNet* CreateHybridNet(const std::string& jsonPath, const std::string& modelPath, bool, int);

// The whole-net search. `inputs` holds items of the net's FIRST input, each
// Count(1) floats of it (one sample); the other inputs of a multi-input net
// get zeros in both nets (a notice is printed). `floatNet` is the float net
// on the same description and the float weights; it is run on the items and
// left at its batch. Ranges from `candidates` (by tensor name; may be null)
// are tried first, then layers are kept in float, until the cosine
// similarity of the hybrid net's outputs against the float net's reaches
// `expectantCos`. When something changed, the description (hybrid mode) is
// written to `jsonPath` and the model to `outputPath` (the serial form when
// it ends in ".fb"), both whole or neither; otherwise no file is touched.
// Empty `inputs` change nothing. Throws std::invalid_argument for an item
// of the wrong size, NetFormatError when a file cannot be written.
void OptimizeInt8Net(HybridNet* hybrid, Net<float>* floatNet,
                     std::vector<std::vector<float>>& inputs, double expectantCos,
                     std::string jsonPath, std::string outputPath,
                     std::map<std::string, std::vector<std::pair<float, float>>>* candidates);

}  // namespace qzdl
