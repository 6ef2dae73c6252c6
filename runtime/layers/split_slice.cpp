#include "runtime/layers/split_slice.h"

#include <cstring>
#include <string>

#include "runtime/kernels/parallel.h"
#include "runtime/layers/reshape.h"

namespace qzdl {

// ---------------------------------------------------------------------------
// Split

template <>
void SplitLayer<float>::LoadParam(const ParamReader&) {
  this->ExpectCounts(1, 1, 1, -1);
}

template <>
void SplitLayer<float>::Reshape() {
  for (Data<float>* o : this->GetOutputs())
    if (o != this->in()) o->Resize(this->in()->GetDims());
}

template <>
void SplitLayer<float>::Run() {
  const float* x = this->in()->GetCpuData();
  const int64_t count = this->in()->Count(0);
  for (Data<float>* o : this->GetOutputs()) ParallelCopyFloats(o->GetCpuData(), x, count);
}

template <>
void SplitLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                  const std::vector<uint8_t*>& outputs, uint8_t) {
  for (uint8_t* y : outputs) ParallelCopy(y, inputs[0], this->in()->Count(0));
}

// ---------------------------------------------------------------------------
// Slice

template <>
void SliceLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, -1);
  axis_ = param.Int("axis", 1);
  slice_points_ = param.Ints("slice_point", {});
  const int outputs = static_cast<int>(this->GetOutputs().size());
  if (param.Has("slice_point")) {
    const std::string text = "param \"slice_point\" " + DimsToString(slice_points_);
    if (static_cast<int>(slice_points_.size()) != outputs - 1)
      param.Fail(text + " makes " + std::to_string(slice_points_.size() + 1) +
                 " pieces but the layer has " + std::to_string(outputs) + " output(s)");
    for (size_t i = 0; i < slice_points_.size(); ++i)
      if (slice_points_[i] < 1 || (i > 0 && slice_points_[i] <= slice_points_[i - 1]))
        param.Fail(text + " must be ascending positive positions");
  }
}

template <>
void SliceLayer<float>::Reshape() {
  const std::vector<int> in_dims = this->in()->GetDims();
  const int rank = static_cast<int>(in_dims.size());
  const std::string input =
      "input \"" + this->in()->GetName() + "\" of shape " + DimsToString(in_dims);
  const int axis = axis_ < 0 ? axis_ + rank : axis_;
  if (axis < 0 || axis >= rank)
    this->Fail("axis " + std::to_string(axis_) + " is not an axis of " + input);
  axis_dim_ = in_dims[axis];
  const int outputs = static_cast<int>(this->GetOutputs().size());
  starts_.assign(outputs, 0);
  lengths_.assign(outputs, 0);
  if (!slice_points_.empty()) {
    if (slice_points_.back() >= axis_dim_)
      this->Fail("slice_point " + DimsToString(slice_points_) + " does not fit axis " +
                 std::to_string(axis) + " of " + input + " (size " + std::to_string(axis_dim_) +
                 ")");
    for (int k = 0; k < outputs; ++k) {
      starts_[k] = k == 0 ? 0 : slice_points_[k - 1];
      lengths_[k] = (k + 1 < outputs ? slice_points_[k] : axis_dim_) - starts_[k];
    }
  } else {
    if (axis_dim_ % outputs != 0)
      this->Fail("axis " + std::to_string(axis) + " of " + input + " has size " +
                 std::to_string(axis_dim_) + ", which does not divide evenly into " +
                 std::to_string(outputs) + " outputs");
    for (int k = 0; k < outputs; ++k) {
      lengths_[k] = axis_dim_ / outputs;
      starts_[k] = k * lengths_[k];
    }
  }
  outer_ = 1;
  for (int i = 0; i < axis; ++i) outer_ *= in_dims[i];
  inner_ = this->in()->Count(axis + 1);
  for (int k = 0; k < outputs; ++k) {
    std::vector<int> dims = in_dims;
    dims[axis] = lengths_[k];
    this->out(k)->Resize(dims);
  }
}

template <>
template <typename E, typename Output>
void SliceLayer<float>::Move(const E* x, Output output) const {
  const int64_t outer = outer_, inner = inner_, in_row = axis_dim_ * inner_;
  for (size_t k = 0; k < lengths_.size(); ++k) {
    E* y = output(k);
    const int64_t row = lengths_[k] * inner;
    const E* src = x + starts_[k] * inner;
    if (outer == 1) {
      ParallelCopy(y, src, row);
      continue;
    }
    ParallelFor(
        outer,
        [=](int64_t begin, int64_t end) {
          for (int64_t o = begin; o < end; ++o)
            std::memcpy(y + o * row, src + o * in_row, static_cast<size_t>(row) * sizeof(E));
        },
        std::max<int64_t>(1, kParallelGrain / row));
  }
}

template <>
void SliceLayer<float>::Run() {
  Move(static_cast<const float*>(this->in()->GetCpuData()),
       [this](size_t k) { return this->out(static_cast<int>(k))->GetCpuData(); });
}

template <>
void SliceLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                  const std::vector<uint8_t*>& outputs, uint8_t) {
  Move(inputs[0], [&](size_t k) { return outputs[k]; });
}

}  // namespace qzdl
