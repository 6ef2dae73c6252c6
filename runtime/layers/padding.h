// Padding of the H and W axes of NCHW data.
#pragma once

#include <string>
#include <vector>

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// "Padding": adds pad_top / pad_bottom rows and pad_left / pad_right columns.
// `mode` "constant" fills with `value`, "reflect" mirrors without repeating
// the border (pads must be smaller than the padded axis), "edge" repeats the
// border. "ZeroPadding" is the same layer restricted to constant zeros,
// "ReflectionPadding" to mode reflect and "ReplicationPadding" to mode edge.
template <typename T>
class PaddingLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::string GetTypeDetail() override;
  const std::string& Mode() const { return mode_; }
  float FillValue() const override { return value_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y, E fill) const;
  std::string mode_ = "constant";
  float value_ = 0.0f;
  int top_ = 0;
  int bottom_ = 0;
  int left_ = 0;
  int right_ = 0;
  // Source row of each output row and source column of each output column;
  // -1 marks the constant fill.
  std::vector<int> src_y_;
  std::vector<int> src_x_;
};

}  // namespace qzdl
