#include "runtime/layers/gemm_layer.h"

#include <cmath>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void GemmLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 3, 1, 1);
  computed_b_ = this->GetInputs().size() > 1;
  // With B as an input, N comes from its shape; a num_output given must agree.
  n_ = computed_b_ ? param.Int("num_output", 0) : param.RequiredInt("num_output");
  if (n_ < 1 && !(computed_b_ && !param.Has("num_output")))
    param.Fail("param \"num_output\" must be at least 1, got " + std::to_string(n_));
  want_n_ = n_;
  trans_a_ = param.Bool("transA", false);
  trans_b_ = param.Bool("transB", false);
  alpha_ = param.Float("alpha", 1.0f);
  beta_ = param.Float("beta", 1.0f);
  if (!std::isfinite(alpha_) || !std::isfinite(beta_))
    param.Fail("params \"alpha\" and \"beta\" must be finite");
  bias_term_ = param.Bool("bias_term", !computed_b_);
  if (computed_b_ && bias_term_)
    param.Fail("param \"bias_term\" must be false when B is an input (C is the third input)");
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
  if (computed_b_) {
    const Data<float>* b = this->in(1);
    if (b->NumAxes() != 2)
      this->Fail("input \"" + b->GetName() + "\" has shape " + DimsToString(b->GetDims()) +
                 "; B must have 2 axes");
    const int bk = trans_b_ ? b->GetDim(1) : b->GetDim(0);
    n_ = trans_b_ ? b->GetDim(0) : b->GetDim(1);
    if (bk != k_ || (want_n_ > 0 && n_ != want_n_))
      this->Fail("inputs \"" + a->GetName() + "\" of shape " + DimsToString(a->GetDims()) +
                 " and \"" + b->GetName() + "\" of shape " + DimsToString(b->GetDims()) +
                 " do not make a product" +
                 (want_n_ > 0 ? " of " + std::to_string(want_n_) + " columns" : std::string()));
    c_row_ = c_col_ = 0;
    if (this->GetInputs().size() > 2) {
      // C broadcasts to [M, N] as numpy does: its last axis along N, the one
      // before along M; an axis of 1 repeats.
      const std::vector<int> cd = this->in(2)->GetDims();
      const int rows = cd.size() >= 2 ? cd[cd.size() - 2] : 1, cols = cd.back();
      if (cd.size() > 2 || (rows != 1 && rows != m_) || (cols != 1 && cols != n_))
        this->Fail("input \"" + this->in(2)->GetName() + "\" of shape " + DimsToString(cd) +
                   " does not broadcast to the product's [" + std::to_string(m_) + ", " +
                   std::to_string(n_) + "]");
      c_col_ = cols == 1 ? 0 : 1;
      c_row_ = rows == 1 ? 0 : cols;
    }
  }
  this->out()->Resize({m_, n_});
}

template <>
std::vector<WeightSpec> GemmLayer<float>::WeightSpecs() {
  if (computed_b_) return {};
  std::vector<WeightSpec> specs = {
      {"B", trans_b_ ? std::vector<int>{n_, k_} : std::vector<int>{k_, n_}}};
  if (bias_term_) specs.push_back({"C", {n_}});
  return specs;
}

template <>
void GemmLayer<float>::Run() {
  const float* a = this->in()->GetCpuData();
  const float* b = computed_b_ ? this->in(1)->GetCpuData() : this->weight(0)->GetCpuData();
  const float* c = computed_b_
                       ? (this->GetInputs().size() > 2 ? this->in(2)->GetCpuData() : nullptr)
                   : bias_term_ ? this->weight(1)->GetCpuData()
                                : nullptr;
  // Strides of C along M and N (a weight C is one value per column).
  const int64_t c_row = computed_b_ ? c_row_ : 0, c_col = computed_b_ ? c_col_ : 1;
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
          acc +=
              double(ta ? a[p * M + i] : a[i * K + p]) * double(tb ? b[j * K + p] : b[p * N + j]);
        y[i * N + j] = static_cast<float>(alpha * acc +
                                          (c != nullptr ? beta * c[i * c_row + j * c_col] : 0.0));
      }
    }
  });
}

}  // namespace qzdl
