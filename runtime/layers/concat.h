// "Concat": joins its inputs along one axis.
#pragma once

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

template <typename T>
class ConcatLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // The axis as given (may be negative).
  int Axis() const { return axis_; }
  // Whether each input is one block of the output (a single outer block,
  // e.g. a batch of 1 on the channel axis), as of the last Reshape; input k
  // then starts at Offset(k) elements into the output.
  bool Contiguous() const { return outer_ == 1; }
  // Whether the blocks are one per image (the axis after the batch).
  bool PerImage() const { return per_image_; }
  // Floats per block of the output: the sum of the inputs' blocks.
  int64_t OutBlock() const {
    int64_t sum = 0;
    for (int64_t s : slice_) sum += s;
    return sum;
  }
  int64_t Offset(size_t k) const {
    int64_t at = 0;
    for (size_t j = 0; j < k && j < slice_.size(); ++j) at += slice_[j];
    return at;
  }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type; input(k) is the data of input k. An
  // input already in its place in y (a view, see Contiguous and PerImage)
  // is not copied.
  template <typename E, typename Input>
  void Move(Input input, E* y) const;
  int axis_ = 1;
  // Set at Reshape: product of the axes before the concat axis, and of the
  // concat axis and those after it, per input.
  int64_t outer_ = 1;
  bool per_image_ = false;
  std::vector<int64_t> slice_;
};

}  // namespace qzdl
