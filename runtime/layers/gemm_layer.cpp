#include "runtime/layers/gemm_layer.h"

#include <cmath>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void GemmLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  n_ = param.RequiredInt("num_output");
  if (n_ < 1) param.Fail("param \"num_output\" must be at least 1, got " + std::to_string(n_));
  trans_a_ = param.Bool("transA", false);
  trans_b_ = param.Bool("transB", false);
  alpha_ = param.Float("alpha", 1.0f);
  beta_ = param.Float("beta", 1.0f);
  if (!std::isfinite(alpha_) || !std::isfinite(beta_))
    param.Fail("params \"alpha\" and \"beta\" must be finite");
  bias_term_ = param.Bool("bias_term", true);
}

template <>
void GemmLayer<float>::Reshape() {
  const Data<float>* a = this->in();
  if (a->NumAxes() != 2)
    this->Fail("input \"" + a->GetName() + "\" has shape " + DimsToString(a->GetDims()) +
               "; it must have 2 axes");
  const int k = trans_a_ ? a->GetDim(0) : a->GetDim(1);
  if (!this->GetWeights().empty() && k != k_)
    this->Fail("input \"" + a->GetName() + "\" now gives K = " + std::to_string(k) +
               ", the weights were made for " + std::to_string(k_));
  m_ = trans_a_ ? a->GetDim(1) : a->GetDim(0);
  k_ = k;
  this->out()->Resize({m_, n_});
}

template <>
std::vector<WeightSpec> GemmLayer<float>::WeightSpecs() {
  std::vector<WeightSpec> specs = {{"B", trans_b_ ? std::vector<int>{n_, k_} : std::vector<int>{k_, n_}}};
  if (bias_term_) specs.push_back({"C", {n_}});
  return specs;
}

template <>
void GemmLayer<float>::Run() {
  const float* a = this->in()->GetCpuData();
  const float* b = this->weight(0)->GetCpuData();
  const float* c = bias_term_ ? this->weight(1)->GetCpuData() : nullptr;
  float* y = this->out()->GetCpuData();
  const int64_t M = m_, N = n_, K = k_;
  const bool ta = trans_a_, tb = trans_b_;
  const double alpha = alpha_, beta = beta_;
  // One task per output row; each element sums its products in double in
  // K order and is rounded once.
  ParallelFor(M, [=](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) {
      for (int64_t j = 0; j < N; ++j) {
        double acc = 0.0;
        for (int64_t p = 0; p < K; ++p)
          acc += double(ta ? a[p * M + i] : a[i * K + p]) * double(tb ? b[j * K + p] : b[p * N + j]);
        y[i * N + j] = static_cast<float>(alpha * acc + (c != nullptr ? beta * c[j] : 0.0));
      }
    }
  });
}

}  // namespace qzdl
