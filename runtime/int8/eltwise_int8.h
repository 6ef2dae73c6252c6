// "Eltwise" and "BroadcastOp" in the 8-bit net, on codes (docs/int8.md):
// sums and differences as one requantized sum of the zero-point-subtracted
// inputs, products as one requantized integer product, maxima of the inputs
// moved to the output grid. BroadcastOp's "div" and "equal" run as float
// islands.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/int8/int8_layer.h"

namespace qzdl {

// "Eltwise": sum (with coefficients), prod or max of N inputs of one shape.
// The same bits as ReferenceEltwiseSumU8, split over threads: two inputs in
// the fixed-point mode run a vectorized loop (the same int64 sums and
// rounding), everything else the reference loop.
void EltwiseSumU8(const std::vector<const uint8_t*>& x, const std::vector<CodeGrid>& inputs,
                  const SumQuantization& q, int64_t count, uint8_t* y);

class EltwiseInt8Layer : public Int8Layer {
 public:
  void Reshape() override;
  // Each output element reads only the same element of every input.
  bool InPlaceSafe() const override { return true; }

 protected:
  bool Prepared() override;
  // sum: int32 "input_zero" [N], "multiplier" [N, 2] (the int64 multipliers'
  // high and low words), "shift" [1]; prod: "input_zero" [N], "multiplier"
  // [1], "shift" [1]; max: uint8 "table" [N, 256], each input's codes on the
  // output grid.
  void Prepare() override;
  void RunCodes() override;

 private:
  std::vector<CodeGrid> grids_;
  SumQuantization sum_;
  Requantizer product_;
  std::vector<CodeTable> to_output_;
  int32_t output_zero_ = 0;
  std::vector<const uint8_t*> sources_;  // sized in Reshape
};

// "BroadcastOp": add, sub and mul on codes with the float layer's broadcast.
class BroadcastOpInt8Layer : public Int8Layer {
 public:
  bool ComputesInIntegers() override;
  bool InPlaceSafe() const override { return true; }

 protected:
  bool Prepared() override;
  // add, sub: int32 "input_zero" [2], "multiplier" [2, 2], "shift" [1];
  // mul: "input_zero" [2], "multiplier" [1], "shift" [1].
  void Prepare() override;
  void RunCodes() override;

 private:
  std::vector<CodeGrid> grids_;
  SumQuantization sum_;
  Requantizer product_;
  int32_t output_zero_ = 0;
};

}  // namespace qzdl
