// Layers with several outputs taken from one input: Split (copies) and Slice
// (consecutive pieces along one axis).
#pragma once

#include <vector>

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// "Split": every output is a copy of the one input, with its shape. One of
// the outputs may be the input itself (nothing to copy for that one).
template <typename T>
class SplitLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }

 protected:
  void Run() override;
};

// "Slice": cuts the input along `axis` into consecutive pieces, one per
// output. `slice_point` lists the ascending cut positions (outputs = points
// + 1); without it the axis is divided evenly among the outputs.
template <typename T>
class SliceLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int Axis() const { return axis_; }
  const std::vector<int>& SlicePoints() const { return slice_points_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type; output(k) is the data of output k.
  template <typename E, typename Output>
  void Move(const E* x, Output output) const;
  int axis_ = 1;
  std::vector<int> slice_points_;
  // For the current shape: product of the dims before / after the axis, and
  // the start and length of each piece on the axis.
  int64_t outer_ = 1;
  int64_t inner_ = 1;
  int axis_dim_ = 1;
  std::vector<int> starts_;
  std::vector<int> lengths_;
};

}  // namespace qzdl
