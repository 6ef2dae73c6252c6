#include "runtime/layers/shuffle_channel.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void ShuffleChannelLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (!param.Has("group")) param.Fail("missing param \"group\"");
  group_ = param.Int("group", 1);
  if (group_ < 1) param.Fail("param \"group\" must be >= 1, got " + std::to_string(group_));
}

template <>
void ShuffleChannelLayer<float>::Reshape() {
  const std::vector<int> dims = this->in()->GetDims();
  if (dims.size() < 2)
    this->Fail("input \"" + this->in()->GetName() + "\" of shape " + DimsToString(dims) +
               " has no channel axis");
  if (dims[1] % group_ != 0)
    this->Fail("channels of input \"" + this->in()->GetName() + "\" of shape " +
               DimsToString(dims) + " (" + std::to_string(dims[1]) +
               ") are not divisible by group " + std::to_string(group_));
  this->out()->Resize(dims);
}

template <>
template <typename E>
void ShuffleChannelLayer<float>::Move(const E* x, E* y) const {
  const int64_t channels = this->in()->GetDim(1);
  const int64_t plane = this->in()->Count(2);
  const int64_t group = group_, per_group = channels / group_;
  const int64_t planes = this->in()->Count(0) / plane;  // N * C
  ParallelFor(
      planes,
      [=](int64_t begin, int64_t end) {
        for (int64_t p = begin; p < end; ++p) {
          const int64_t n = p / channels, c = p % channels;  // output channel c = j * group + i
          const int64_t j = c / group, i = c % group;
          const E* src = x + (n * channels + i * per_group + j) * plane;
          std::memcpy(y + p * plane, src, static_cast<size_t>(plane) * sizeof(E));
        }
      },
      std::max<int64_t>(1, kParallelGrain / plane));
}

template <>
void ShuffleChannelLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void ShuffleChannelLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                           const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

}  // namespace qzdl
