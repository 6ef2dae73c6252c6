// Layers that select, repeat or relabel elements without arithmetic:
// "Gather", "Tile", "Crop", "Squeeze" and "ExpandDims". Axes may be negative
// (counted from the end) wherever an axis is named.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// "Gather": picks entries along `axis` by the constant `indices` (negative
// ones count from the end of the axis). The axis is replaced by the indices'
// shape: [count] by default, `indices_dims` when given, or nothing at all
// with `scalar_index` (one index; the axis disappears).
template <typename T>
class GatherLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int Axis() const { return axis_; }
  const std::vector<int>& Indices() const { return indices_; }
  bool ScalarIndex() const { return scalar_index_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  int axis_ = 0;
  std::vector<int> indices_;
  std::vector<int> indices_dims_;
  bool scalar_index_ = false;
  // Set at Reshape: indices made non-negative, and the input as
  // outer x axis x inner.
  std::vector<int64_t> resolved_;
  int64_t outer_ = 1, axis_dim_ = 1, inner_ = 1;
};

// "Tile": repeats the whole input `repeats[k]` times along every axis k
// (one entry per axis, the batch included).
template <typename T>
class TileLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  const std::vector<int>& Repeats() const { return repeats_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  std::vector<int> repeats_;
};

// "Crop": a strided window per axis, as ONNX Slice: on axis axes[k] (k by
// default) the positions starts[k], starts[k] + steps[k], ... up to but not
// including ends[k]. Negative starts and ends count from the end of the
// axis; values past either end are clamped, so very large (or very
// negative) ends mean "to the end" (or, with a negative step, "to the
// front"). Steps default to 1 and may be negative but not 0. Every axis of
// the result must keep at least one element.
template <typename T>
class CropLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  const std::vector<int>& Starts() const { return starts_; }
  const std::vector<int>& Ends() const { return ends_; }
  const std::vector<int>& Axes() const { return axes_; }
  const std::vector<int>& Steps() const { return steps_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  std::vector<int> starts_, ends_, axes_, steps_;
  bool has_axes_ = false;
  // Set at Reshape, per input axis: first position and step.
  std::vector<int64_t> first_, step_;
};

// "Squeeze": removes the listed size-1 axes, or every size-1 axis when
// `axes` is absent or empty. At least one axis must remain.
template <typename T>
class SqueezeLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
  const std::vector<int>& Axes() const { return axes_; }

 protected:
  void Run() override;

 private:
  std::vector<int> axes_;
};

// "ExpandDims": inserts size-1 axes at the positions `axes` of the output
// (ONNX Unsqueeze); negative positions count from the end of the output.
template <typename T>
class ExpandDimsLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  bool InPlaceSafe() const override { return true; }
  const std::vector<int>& Axes() const { return axes_; }

 protected:
  void Run() override;

 private:
  std::vector<int> axes_;
};

}  // namespace qzdl
