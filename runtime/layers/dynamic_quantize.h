// "DynamicQuantizeLinear": ONNX's DynamicQuantizeLinear on float values.
// From the whole input's range, widened to hold 0:
//   scale = (max - min) / 255 (1 when max == min)
//   zero  = clamp(round(0 - min / scale), 0, 255)
//   y     = clamp(round(x / scale) + zero, 0, 255)
// with ties rounded to even. Outputs: y (the codes, as floats, the input's
// shape), scale [1] and zero [1]. Imported ConvInteger nodes then compute on
// y - zero in float (docs/onnx-import.md).
#pragma once

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
class DynamicQuantizeLinearLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;

 protected:
  void Run() override;
};

}  // namespace qzdl
