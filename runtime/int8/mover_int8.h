// Data movers in the 8-bit net (docs/int8.md): Reshape, Flatten, Permute,
// Concat, Slice, Split, Crop, Gather, Tile, Squeeze, ExpandDims,
// ShuffleChannel, DepthToSpace, ShufflePixel, SpaceToDepth, Flip, Repeat,
// nearest Upsample and the paddings move codes with the float layer's own
// kernel (ElementMover), so nothing is converted through float. Where an
// input's grid differs from the output's, codes are moved to the output grid
// by a table of CodeOf(RealOf(c)) (before moving, or after it for layers with
// several outputs); padding is filled with the code of the fill value on the
// output grid (the zero point for zeros). The result is the float island's,
// bit for bit.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/int8/int8_layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

class MoverInt8Layer : public Int8Layer {
 public:
  void LoadParam(const ParamReader& param) override;
  // Also sizes the buffers of inputs that are moved to the output grid.
  void Reshape() override;
  // A mover only when the params make the float layer one (nearest
  // upsampling, not bilinear).
  bool ComputesInIntegers() override;

 protected:
  bool Prepared() override { return HasTables(); }
  // uint8 "table" [rows, 256]: input k on the output grid (row k) for a
  // layer with one output, input on output k's grid (row k) for one with
  // several.
  void Prepare() override;
  void RunCodes() override;

 private:
  ElementMover* mover_ = nullptr;
  // Which rows of the table are not the identity.
  std::vector<bool> convert_;
  uint8_t fill_ = 0;
  std::vector<std::vector<uint8_t>> converted_;  // inputs on the output grid
  std::vector<const uint8_t*> inputs_;
  std::vector<uint8_t*> outputs_;
};

}  // namespace qzdl
