#include "runtime/layers/constant.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <sstream>
#include <string>

#include "runtime/kernels/parallel.h"
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

// ---- Arange ---------------------------------------------------------------

namespace {

// Six significant digits: messages name 1e+30, not thirty-one digits.
std::string Number(float v) {
  std::ostringstream out;
  out << v;
  return out.str();
}

}  // namespace

template <>
void ArangeLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(0, 1, 1, 1);
  start_ = param.Float("start", 0.0f);
  end_ = param.RequiredFloat("end");
  step_ = param.Float("step", 1.0f);
  if (!std::isfinite(start_) || !std::isfinite(end_) || !std::isfinite(step_))
    param.Fail("params \"start\", \"end\" and \"step\" must be finite numbers");
  if (step_ == 0.0f) param.Fail("param \"step\" must not be 0");
  const double count = std::max(std::ceil((double(end_) - double(start_)) / double(step_)), 0.0);
  if (count > INT_MAX)
    param.Fail("start " + Number(start_) + ", end " + Number(end_) + " and step " + Number(step_) +
               " make more than " + std::to_string(INT_MAX) + " elements");
  count_ = static_cast<int>(count);
}

template <>
void ArangeLayer<float>::Reshape() {
  this->out()->Resize({count_});
}

template <>
void ArangeLayer<float>::Run() {
  float* y = this->out()->GetCpuData();
  const double start = start_, step = step_;
  // From the index, not by adding up steps: no error builds up along the
  // tensor, and the result does not depend on the thread count.
  ParallelFor(count_, [=](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) y[i] = static_cast<float>(start + double(i) * step);
  });
}

}  // namespace qzdl
