#include "runtime/layers/flip_repeat.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

std::string Describe(const Data<float>* x) {
  return "input \"" + x->GetName() + "\" of shape " + DimsToString(x->GetDims());
}

}  // namespace

// ---- Flip -----------------------------------------------------------------

template <>
void FlipLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (!param.Has("axes")) param.Fail("missing param \"axes\"");
  axes_ = param.Ints("axes", {});
}

template <>
void FlipLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const int rank = x->NumAxes();
  flipped_.assign(rank, 0);
  dims_.resize(rank);
  strides_.resize(rank);
  for (int k = 0; k < rank; ++k) {
    dims_[k] = x->GetDim(k);
    strides_[k] = x->Count(k + 1);
  }
  for (int a : axes_) {
    const int axis = a < 0 ? a + rank : a;
    if (axis < 0 || axis >= rank)
      this->Fail("param \"axes\" " + DimsToString(axes_) + ": axis " + std::to_string(a) +
                 " is out of range for " + Describe(x));
    if (flipped_[axis])
      this->Fail("param \"axes\" " + DimsToString(axes_) + " names axis " + std::to_string(axis) +
                 " twice");
    flipped_[axis] = 1;
  }
  this->out()->Resize(x->GetDims());
}

template <>
template <typename E>
void FlipLayer<float>::Move(const E* x, E* y) const {
  const Data<float>* in = this->in();
  const int rank = in->NumAxes();
  const int64_t count = in->Count(0);
  if (count == 0) return;
  if (rank == 0) {
    y[0] = x[0];
    return;
  }
  const int64_t* dims = dims_.data();
  const int64_t* strides = strides_.data();
  const char* flipped = flipped_.data();
  const int64_t row = dims[rank - 1];
  const bool reverse_row = flipped[rank - 1];
  // One task per output row: the input row it reads, copied or reversed.
  ParallelFor(
      count / row,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          int64_t rest = r, offset = 0;
          for (int k = rank - 2; k >= 0; --k) {
            const int64_t i = rest % dims[k];
            rest /= dims[k];
            offset += (flipped[k] ? dims[k] - 1 - i : i) * strides[k];
          }
          const E* src = x + offset;
          E* dst = y + r * row;
          if (reverse_row)
            std::reverse_copy(src, src + row, dst);
          else
            std::memcpy(dst, src, static_cast<size_t>(row) * sizeof(E));
        }
      },
      std::max<int64_t>(1, kParallelGrain / row));
}

template <>
void FlipLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void FlipLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                 const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

// ---- Repeat ---------------------------------------------------------------

template <>
void RepeatLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  axis_ = param.RequiredInt("axis");
  repeats_ = param.RequiredInt("repeats");
  if (repeats_ < 1)
    param.Fail("param \"repeats\" must be at least 1, got " + std::to_string(repeats_));
}

template <>
void RepeatLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const int rank = x->NumAxes();
  const int axis = axis_ < 0 ? axis_ + rank : axis_;
  if (axis < 0 || axis >= rank)
    this->Fail("param \"axis\" is " + std::to_string(axis_) + ", out of range for " + Describe(x));
  std::vector<int> out_dims = x->GetDims();
  const int64_t d = static_cast<int64_t>(out_dims[axis]) * repeats_;
  if (d > INT_MAX)
    this->Fail("param \"repeats\" " + std::to_string(repeats_) + " makes axis " +
               std::to_string(axis) + " of " + Describe(x) + " too large");
  out_dims[axis] = static_cast<int>(d);
  outer_ = x->Count(0) == 0 ? 0 : x->Count(0) / x->Count(axis);
  axis_dim_ = x->GetDim(axis);
  inner_ = x->Count(axis + 1);
  this->out()->Resize(out_dims);
}

template <>
template <typename E>
void RepeatLayer<float>::Move(const E* x, E* y) const {
  const int64_t axis_dim = axis_dim_, inner = inner_, repeats = repeats_;
  if (inner == 0) return;
  // One task per input slice (outer, position on the axis): written
  // `repeats` times, one after the other.
  ParallelFor(
      outer_ * axis_dim,
      [=](int64_t begin, int64_t end) {
        for (int64_t s = begin; s < end; ++s) {
          const E* src = x + s * inner;
          E* dst = y + s * repeats * inner;
          if (inner == 1) {
            std::fill(dst, dst + repeats, src[0]);
            continue;
          }
          for (int64_t k = 0; k < repeats; ++k)
            std::memcpy(dst + k * inner, src, static_cast<size_t>(inner) * sizeof(E));
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, inner * repeats)));
}

template <>
void RepeatLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void RepeatLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                   const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

}  // namespace qzdl
