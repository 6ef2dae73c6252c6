#include "runtime/layers/batch_matrix_mul.h"

namespace qzdl {

template <>
std::string BatchMatrixMulLayer<float>::GetTypeDetail() {
  if (transpose_a_ && transpose_b_) return "BatchMatrixMul(transpose_a, transpose_b)";
  if (transpose_a_) return "BatchMatrixMul(transpose_a)";
  if (transpose_b_) return "BatchMatrixMul(transpose_b)";
  return "BatchMatrixMul";
}

template <>
void BatchMatrixMulLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(2, 2, 1, 1);
  transpose_a_ = param.Bool("transpose_a", false);
  transpose_b_ = param.Bool("transpose_b", false);
}

template <>
void BatchMatrixMulLayer<float>::Reshape() {
  const Data<float>* a = this->in(0);
  const Data<float>* b = this->in(1);
  const std::string pair = "inputs \"" + a->GetName() + "\" of shape " +
                           DimsToString(a->GetDims()) + " and \"" + b->GetName() + "\" of shape " +
                           DimsToString(b->GetDims());
  switch (PlanBatchMatMul(a->GetDims(), b->GetDims(), transpose_a_, transpose_b_, &geometry_)) {
    case BatchMatMulMismatch::kFits:
      break;
    case BatchMatMulMismatch::kScalar:
      this->Fail(pair +
                 " both have 1 axis: the product would be a scalar, which the runtime does "
                 "not hold");
    case BatchMatMulMismatch::kTransposed1d: {
      const bool on_a = transpose_a_ && a->NumAxes() == 1;
      const Data<float>* t = on_a ? a : b;
      this->Fail(std::string("param \"") + (on_a ? "transpose_a" : "transpose_b") +
                 "\" needs input \"" + t->GetName() + "\" to have at least 2 axes, has shape " +
                 DimsToString(t->GetDims()));
    }
    case BatchMatMulMismatch::kInner: {
      // K as each input holds it: a's last axis (its first with transpose_a,
      // its only one when 1-d), b's axis before the last (the last with
      // transpose_b, its only one when 1-d).
      const int ka =
          a->NumAxes() == 1 || !transpose_a_ ? a->GetDims().back() : a->GetDim(a->NumAxes() - 2);
      const int kb =
          b->NumAxes() == 1 || transpose_b_ ? b->GetDims().back() : b->GetDim(b->NumAxes() - 2);
      this->Fail(pair + " cannot be multiplied: the inner dimension is " + std::to_string(ka) +
                 " in \"" + a->GetName() + "\" and " + std::to_string(kb) + " in \"" +
                 b->GetName() + "\"");
    }
    case BatchMatMulMismatch::kBatch:
      this->Fail(pair +
                 " cannot be multiplied: their batch axes (all but the last two) cannot be "
                 "broadcast together");
  }
  this->out()->Resize(geometry_.out_dims);
}

template <>
void BatchMatrixMulLayer<float>::Run() {
  BatchMatMulForward(geometry_, this->in(0)->GetCpuData(), this->in(1)->GetCpuData(),
                     this->out()->GetCpuData());
}

}  // namespace qzdl
