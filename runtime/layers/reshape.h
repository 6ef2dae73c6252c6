// Layers that change the shape or the order of elements without arithmetic:
// Reshape, Flatten, Permute and Dropout (identity at inference).
//
// Every tensor owns its storage in this runtime, so Reshape and Flatten cannot
// hand out a view of their input: they copy the elements, which keep their
// order. When the net runs them in place (same tensor in and out, which the
// net allows only when the shape stays the same) there is nothing to copy.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// Copies n floats; large copies are split over threads in fixed chunks.
// Shared by the data-movement layers (reshape, split/slice, padding, ...).
void ParallelCopyFloats(float* dst, const float* src, int64_t n);

// "Reshape": output dims from `shapes`, which includes the batch as entry 0.
// 0 copies the input's dimension at that position, -1 (at most once) is
// inferred from the element count, a positive entry is taken as is. With
// shapes[0] = 0 the net follows any batch; a positive shapes[0] fixes it.
// A second input (a shape tensor left by some converters) is accepted and not
// read: the shape comes from `shapes` alone.
template <typename T>
class ReshapeLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
  const std::vector<int>& Shapes() const { return shapes_; }

 protected:
  void Run() override;

 private:
  std::vector<int> shapes_;
};

// "Flatten": merges axes axis..end_axis (negative values count from the end)
// into one. Defaults axis 1, end_axis -1 give N x (C*H*W).
template <typename T>
class FlattenLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }

 protected:
  void Run() override;

 private:
  int axis_ = 1;
  int end_axis_ = -1;
};

// "Permute": output axis k is input axis order[k]; `order` lists every axis.
// Axes that stay neighbours are merged first, so an NCHW -> NHWC permute runs
// as a batch of 2-d transposes, done in cache-sized tiles.
template <typename T>
class PermuteLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  const std::vector<int>& Order() const { return order_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  std::vector<int> order_;
  // The permute after merging: dims of the output (outer to inner) and the
  // input stride of each of them.
  std::vector<int64_t> dims_;
  std::vector<int64_t> in_strides_;
  // Output axis that is contiguous in the input; -1 when the last output axis
  // is the last input axis (the copy then runs in contiguous rows).
  int tile_axis_ = -1;
};

// "Dropout": identity at inference. `ratio` is accepted and not used.
template <typename T>
class DropoutLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }

 protected:
  void Run() override;
};

}  // namespace qzdl
