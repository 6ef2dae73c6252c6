#include "runtime/layers/concat.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void ConcatLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, -1, 1, 1);
  axis_ = param.Int("axis", 1);
}

template <>
void ConcatLayer<float>::Reshape() {
  const auto& inputs = this->GetInputs();
  const Data<float>* first = inputs[0];
  const int rank = first->NumAxes();
  const int axis = axis_ < 0 ? axis_ + rank : axis_;
  if (axis < 0 || axis >= rank)
    this->Fail("param \"axis\" is " + std::to_string(axis_) + ", out of range for input \"" +
               first->GetName() + "\" of shape " + DimsToString(first->GetDims()));
  std::vector<int> dims = first->GetDims();
  int64_t total = 0;
  slice_.assign(inputs.size(), 0);
  for (size_t k = 0; k < inputs.size(); ++k) {
    const std::vector<int> d = inputs[k]->GetDims();
    bool same = static_cast<int>(d.size()) == rank;
    for (int j = 0; same && j < rank; ++j) same = j == axis || d[j] == dims[j];
    if (!same)
      this->Fail("input \"" + inputs[k]->GetName() + "\" has shape " + DimsToString(d) +
                 ", which does not match input \"" + first->GetName() + "\" of shape " +
                 DimsToString(dims) + " on the axes other than axis " + std::to_string(axis));
    total += d[axis];
    slice_[k] = inputs[k]->Count(axis);
  }
  if (total > INT32_MAX)
    this->Fail("the output would be too large on axis " + std::to_string(axis));
  outer_ = first->Count(0) / first->Count(axis);
  per_image_ = axis == 1;
  dims[axis] = static_cast<int>(total);
  this->out()->Resize(dims);
}

template <>
template <typename E, typename Input>
void ConcatLayer<float>::Move(Input input, E* y) const {
  int64_t out_slice = 0;
  for (int64_t s : slice_) out_slice += s;
  int64_t offset = 0;
  for (size_t k = 0; k < slice_.size(); ++k) {
    const E* x = input(k);
    const int64_t slice = slice_[k];
    const int64_t at = offset;
    if (outer_ == 1) {
      // One block: split it across threads instead of the outer loop.
      if (x != y + at)
        ParallelFor(slice, [=](int64_t begin, int64_t end) {
          std::memcpy(y + at + begin, x + begin, sizeof(E) * (end - begin));
        });
      offset += slice;
      continue;
    }
    // Written in place by a producer that spaced its images.
    if (x == y + at) {
      offset += slice;
      continue;
    }
    ParallelFor(
        outer_,
        [=](int64_t begin, int64_t end) {
          for (int64_t o = begin; o < end; ++o)
            std::memcpy(y + o * out_slice + at, x + o * slice, sizeof(E) * slice);
        },
        std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, slice)));
    offset += slice;
  }
}

template <>
void ConcatLayer<float>::Run() {
  const auto& inputs = this->GetInputs();
  Move([&](size_t k) -> const float* { return inputs[k]->GetCpuData(); },
       this->out()->GetCpuData());
}

template <>
void ConcatLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                   const std::vector<uint8_t*>& outputs, uint8_t) {
  Move([&](size_t k) { return inputs[k]; }, outputs[0]);
}

}  // namespace qzdl
