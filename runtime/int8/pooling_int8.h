// "Pooling" in the 8-bit net, on codes (docs/int8.md). Average pooling sums
// the zero-point-subtracted codes of each window and requantizes the sum
// once with M = s_x / (s_y * count), count being the float layer's window
// count. Max pooling takes the largest code of each window (codes are in
// the order of their real values) and moves it to the output grid with a
// table when the grids differ, which gives what the float layer gives on
// the dequantized input, quantized.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/int8/int8_layer.h"

namespace qzdl {

class PoolingInt8Layer : public Int8Layer {
 public:
  // Also finds the window counts of the new shape; attributes made for
  // other counts are dropped, so the next forward makes them again.
  void Reshape() override;

 protected:
  bool Prepared() override;
  // max: uint8 "table" [1, 256] (input codes on the output grid). ave: int32
  // "count", "multiplier", "shift", one per distinct window count.
  void Prepare() override;
  void RunCodes() override;

 private:
  bool IsMax() const;
  void DropAttributes();

  PoolShape shape_;
  std::vector<int64_t> counts_;
  AveragePoolQuantization average_;
  bool identity_ = false;  // max pooling on one grid: no table
};

}  // namespace qzdl
