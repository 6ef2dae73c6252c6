#include "runtime/layers/constant.h"

#include <climits>
#include <cstdint>
#include <string>

#include "runtime/layers/reshape.h"

namespace qzdl {

template <>
void ConstantLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(0, 0, 1, 1);
  if (!param.Has("dims")) param.Fail("missing param \"dims\"");
  dims_ = param.Ints("dims", {});
  // The values come from the weights, read from a buffer of at most 2^31 - 1
  // bytes: a larger constant could never be loaded.
  bool ok = !dims_.empty() && dims_.size() <= 8;
  int64_t count = 1;
  for (int d : dims_) {
    if (d < 1) ok = false;
    count *= ok ? d : 1;
    if (count > INT_MAX) ok = false;
  }
  if (!ok)
    param.Fail("param \"dims\" " + DimsToString(dims_) +
               " must be 1 to 8 positive sizes of at most " + std::to_string(INT_MAX) +
               " elements in all");
}

template <>
void ConstantLayer<float>::Reshape() {
  this->out()->Resize(dims_);
}

template <>
std::vector<WeightSpec> ConstantLayer<float>::WeightSpecs() {
  return {{"value", dims_}};
}

template <>
void ConstantLayer<float>::Run() {
  ParallelCopyFloats(this->out()->GetCpuData(), this->weight(0)->GetCpuData(),
                     this->out()->Count(0));
}

}  // namespace qzdl
