#include "runtime/layers/inner_product.h"

#include <climits>

#include "runtime/kernels/conv_kernels.h"

namespace qzdl {

template <>
std::string InnerProductLayer<float>::GetTypeDetail() {
  return this->GetType() + "(" + std::to_string(num_output_) + ")";
}

template <>
int InnerProductLayer<float>::GetChannelNum() {
  return this->GetWeights().empty() ? 0 : num_output_;
}

template <>
void InnerProductLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  num_output_ = param.RequiredInt("num_output");
  if (num_output_ < 1)
    param.Fail("param \"num_output\" must be >= 1, got " + std::to_string(num_output_));
  bias_term_ = param.Bool("bias_term", true);
  transpose_ = param.Bool("transpose", false);
}

template <>
void InnerProductLayer<float>::Reshape() {
  const Data<float>& in = *this->in();
  if (in.NumAxes() < 2)
    this->Fail("input \"" + in.GetName() + "\" must have at least 2 axes, has shape " +
               DimsToString(in.GetDims()));
  const int64_t k = in.Count(1);
  const auto& weights = this->GetWeights();
  if (!weights.empty()) {
    const int64_t expected = transpose_ ? weights[0]->GetDim(0) : weights[0]->GetDim(1);
    if (k != expected)
      this->Fail("input \"" + in.GetName() + "\" has shape " + DimsToString(in.GetDims()) + " (" +
                 std::to_string(k) + " values per item), but the weights " +
                 DimsToString(weights[0]->GetDims()) + " expect " + std::to_string(expected));
  }
  // Weights are read from a buffer of at most 2^31 - 1 bytes, so more values
  // could never be loaded; the limit also keeps k, a GEMM dimension, an int.
  if (k * num_output_ > INT_MAX)
    this->Fail("weights [" + std::to_string(num_output_) + ", " + std::to_string(k) +
               "] would have more than 2^31-1 elements");
  batch_ = in.GetDim(0);
  k_ = static_cast<int>(k);
  this->out()->Resize({batch_, num_output_});
}

template <>
std::vector<WeightSpec> InnerProductLayer<float>::WeightSpecs() {
  std::vector<WeightSpec> blobs;
  if (transpose_) {
    blobs.push_back({"weight", {k_, num_output_}});
  } else {
    blobs.push_back({"weight", {num_output_, k_}});
  }
  if (bias_term_) blobs.push_back({"bias", {num_output_}});
  return blobs;
}

template <>
void InnerProductLayer<float>::Run() {
  const float* bias = bias_term_ ? this->weight(1)->GetCpuData() : nullptr;
  InnerProductForward(batch_, k_, num_output_, transpose_, this->in()->GetCpuData(),
                      this->weight(0)->GetCpuData(), bias, this->out()->GetCpuData());
}

}  // namespace qzdl
