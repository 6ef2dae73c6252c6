// Layers that reverse or repeat elements along axes, without arithmetic:
// "Flip" and "Repeat". Axes may be negative (counted from the end).
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// "Flip": reverses the order of the elements along each axis of `axes`
// (torch.flip); any rank, shape unchanged.
template <typename T>
class FlipLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  const std::vector<int>& Axes() const { return axes_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  std::vector<int> axes_;
  // Set at Reshape, per input axis: reversed or not, size, stride.
  std::vector<char> flipped_;
  std::vector<int64_t> dims_, strides_;
};

// "Repeat": repeats each element `repeats` times in place along `axis`
// (numpy.repeat, torch.repeat_interleave with one count): on axis of size d,
// output position i reads input position i / repeats, and the axis becomes
// d * repeats long.
template <typename T>
class RepeatLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int Axis() const { return axis_; }
  int Repeats() const { return repeats_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  int axis_ = 0;
  int repeats_ = 1;
  // Set at Reshape: the input as outer x axis x inner.
  int64_t outer_ = 1, axis_dim_ = 1, inner_ = 1;
};

}  // namespace qzdl
