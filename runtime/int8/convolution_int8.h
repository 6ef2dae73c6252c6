// "Convolution" in the 8-bit net, computed in integers (docs/int8.md): codes
// of the input minus its zero point times weight codes minus each channel's
// zero point, summed with the int32 bias and requantized once per output
// channel. Weights are quantized per output channel on the configuration's
// weight records for the layer where present, else on each channel's own
// range. A "float" input or output falls back on the float kernel.
#pragma once

#include "runtime/int8/float_island_layer.h"
#include "runtime/int8/reference.h"

namespace qzdl {

class ConvolutionInt8Layer : public FloatIslandLayer {
 protected:
  void Run() override;

 private:
  // Builds the attribute tensors from the float weights and the grids of
  // the configuration: "weight" (codes), "weight_zero", "bias", "multiplier",
  // "shift" (int32 per output channel), "weight_scale" (float per channel).
  void Prepare();

  ChannelQuantization q_;
  int32_t input_zero_ = 0;
};

}  // namespace qzdl
