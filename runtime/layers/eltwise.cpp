#include "runtime/layers/eltwise.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "runtime/kernels/broadcast.h"
#include "runtime/kernels/epilogue.h"
#include "runtime/kernels/parallel.h"

namespace qzdl {

// ---- Eltwise --------------------------------------------------------------

template <>
void EltwiseLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(2, -1, 1, 1);
  const std::string op = param.Choice("operation", "sum", {"sum", "prod", "max"});
  op_ = op == "sum" ? Op::kSum : (op == "prod" ? Op::kProd : Op::kMax);
  const size_t n = this->GetInputs().size();
  if (param.Has("coeff") && op_ != Op::kSum)
    param.Fail("param \"coeff\" applies only to operation \"sum\", not \"" + op + "\"");
  coeff_ = param.Floats("coeff", std::vector<float>(n, 1.0f));
  if (coeff_.size() != n)
    param.Fail("param \"coeff\" has " + std::to_string(coeff_.size()) + " value(s) for " +
               std::to_string(n) + " inputs");
}

template <>
void EltwiseLayer<float>::Reshape() {
  const auto& inputs = this->GetInputs();
  const std::vector<int> dims = inputs[0]->GetDims();
  for (size_t k = 1; k < inputs.size(); ++k)
    if (inputs[k]->GetDims() != dims)
      this->Fail("input \"" + inputs[k]->GetName() + "\" has shape " +
                 DimsToString(inputs[k]->GetDims()) + ", but input \"" + inputs[0]->GetName() +
                 "\" has shape " + DimsToString(dims) + "; all inputs must have the same shape");
  sources_.assign(inputs.size(), nullptr);
  this->out()->Resize(dims);
}

template <>
std::string EltwiseLayer<float>::GetTypeDetail() {
  return op_ == Op::kSum ? "Eltwise(sum)" : (op_ == Op::kProd ? "Eltwise(prod)" : "Eltwise(max)");
}

namespace {

// acc[i] = sum over inputs k of coeff[k] * src[k][s + i] for i < n, in input
// order (without coefficients when `coeff` is null): the sums of Eltwise and
// Mean.
void SumBlock(const float* const* src, const float* coeff, int64_t num, int64_t s, int64_t n,
              float* acc) {
  const float* x0 = src[0] + s;
  if (coeff == nullptr) {
    std::copy(x0, x0 + n, acc);
  } else {
    for (int64_t i = 0; i < n; ++i) acc[i] = coeff[0] * x0[i];
  }
  for (int64_t k = 1; k < num; ++k) {
    const float* xk = src[k] + s;
    if (coeff == nullptr) {
      for (int64_t i = 0; i < n; ++i) acc[i] += xk[i];
    } else {
      const float c = coeff[k];
      for (int64_t i = 0; i < n; ++i) acc[i] += c * xk[i];
    }
  }
}

}  // namespace

template <>
bool EltwiseLayer<float>::FuseEpilogue(const Epilogue& e, Data<float>* dst, ChannelAffine* affine) {
  // Blocks of elements cross channels: no per-channel affine here.
  if (affine != nullptr) return false;
  epilogue_ = e;
  fused_dst_ = e.Active() ? dst : nullptr;
  return true;
}

template <>
void EltwiseLayer<float>::Run() {
  const auto& inputs = this->GetInputs();
  for (size_t k = 0; k < inputs.size(); ++k) sources_[k] = inputs[k]->GetCpuData();
  const float* const* src = sources_.data();
  const float* coeff = coeff_.data();
  const int64_t num = static_cast<int64_t>(sources_.size());
  const Op op = op_;
  const Epilogue epilogue = epilogue_;
  float* y = (fused_dst_ != nullptr ? fused_dst_ : this->out())->GetCpuData();
  // Each block of elements is read from every input before it is written, so
  // the output may share its buffer with any input.
  ParallelFor(inputs[0]->Count(0), [=](int64_t begin, int64_t end) {
    constexpr int64_t kBlock = 256;
    float acc[kBlock];
    for (int64_t s = begin; s < end; s += kBlock) {
      const int64_t n = std::min(kBlock, end - s);
      const float* x0 = src[0] + s;
      switch (op) {
        case Op::kSum:
          SumBlock(src, coeff, num, s, n, acc);
          break;
        case Op::kProd:
          for (int64_t i = 0; i < n; ++i) acc[i] = x0[i];
          for (int64_t k = 1; k < num; ++k) {
            const float* xk = src[k] + s;
            for (int64_t i = 0; i < n; ++i) acc[i] *= xk[i];
          }
          break;
        case Op::kMax:
          for (int64_t i = 0; i < n; ++i) acc[i] = x0[i];
          for (int64_t k = 1; k < num; ++k) {
            const float* xk = src[k] + s;
            for (int64_t i = 0; i < n; ++i) acc[i] = std::max(acc[i], xk[i]);
          }
          break;
      }
      ApplyEpilogue(epilogue, acc, n);
      std::copy(acc, acc + n, y + s);
    }
  });
}

// ---- Mean -----------------------------------------------------------------

template <>
void MeanLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, -1, 1, 1);
}

template <>
void MeanLayer<float>::Reshape() {
  const auto& inputs = this->GetInputs();
  const std::vector<int> dims = inputs[0]->GetDims();
  for (size_t k = 1; k < inputs.size(); ++k)
    if (inputs[k]->GetDims() != dims)
      this->Fail("input \"" + inputs[k]->GetName() + "\" has shape " +
                 DimsToString(inputs[k]->GetDims()) + ", but input \"" + inputs[0]->GetName() +
                 "\" has shape " + DimsToString(dims) +
                 "; all inputs must have the same shape (no broadcasting)");
  sources_.assign(inputs.size(), nullptr);
  this->out()->Resize(dims);
}

template <>
void MeanLayer<float>::Run() {
  const auto& inputs = this->GetInputs();
  for (size_t k = 0; k < inputs.size(); ++k) sources_[k] = inputs[k]->GetCpuData();
  const float* const* src = sources_.data();
  const int64_t num = static_cast<int64_t>(sources_.size());
  const float divisor = static_cast<float>(num);
  float* y = this->out()->GetCpuData();
  // As Eltwise: every input is read for a block before the block is
  // written, so the output may share its buffer with any input. A division,
  // not a product with 1 / N, so that the result is the reference's bit for
  // bit.
  ParallelFor(inputs[0]->Count(0), [=](int64_t begin, int64_t end) {
    constexpr int64_t kBlock = 256;
    float acc[kBlock];
    for (int64_t s = begin; s < end; s += kBlock) {
      const int64_t n = std::min(kBlock, end - s);
      SumBlock(src, nullptr, num, s, n, acc);
      for (int64_t i = 0; i < n; ++i) y[s + i] = acc[i] / divisor;
    }
  });
}

// ---- BroadcastOp ----------------------------------------------------------

template <>
void BroadcastOpLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(2, 2, 1, 1);
  if (!param.Has("operation")) param.Fail("missing param \"operation\"");
  const std::vector<std::string> names = {"add",     "sub",  "mul",           "div",
                                          "equal",   "max",  "min",           "pow",
                                          "greater", "less", "greater_equal", "less_equal"};
  op_name_ = param.Choice("operation", "add", names);
  const Op ops[] = {Op::kAdd, Op::kSub, Op::kMul,     Op::kDiv,  Op::kEqual,        Op::kMax,
                    Op::kMin, Op::kPow, Op::kGreater, Op::kLess, Op::kGreaterEqual, Op::kLessEqual};
  for (size_t i = 0; i < names.size(); ++i)
    if (names[i] == op_name_) op_ = ops[i];
}

template <>
void BroadcastOpLayer<float>::Reshape() {
  const Data<float>* a = this->in(0);
  const Data<float>* b = this->in(1);
  const int rank = std::max(a->NumAxes(), b->NumAxes());
  // Both shapes padded on the left with 1 to the common rank.
  std::vector<int64_t> da(rank, 1), db(rank, 1);
  for (int k = 0; k < a->NumAxes(); ++k) da[rank - a->NumAxes() + k] = a->GetDims()[k];
  for (int k = 0; k < b->NumAxes(); ++k) db[rank - b->NumAxes() + k] = b->GetDims()[k];
  std::vector<int> out(rank);
  for (int k = 0; k < rank; ++k) {
    if (da[k] != db[k] && da[k] != 1 && db[k] != 1)
      this->Fail("inputs \"" + a->GetName() + "\" of shape " + DimsToString(a->GetDims()) +
                 " and \"" + b->GetName() + "\" of shape " + DimsToString(b->GetDims()) +
                 " cannot be broadcast together");
    out[k] = static_cast<int>(std::max(da[k], db[k]));
  }

  // Merge neighbouring axes that a and b both either follow or repeat.
  dims_.clear();
  std::vector<bool> rep_a, rep_b;
  for (int k = 0; k < rank; ++k) {
    if (out[k] == 1) continue;
    const bool ra = da[k] == 1, rb = db[k] == 1;
    if (!dims_.empty() && rep_a.back() == ra && rep_b.back() == rb) {
      dims_.back() *= out[k];
    } else {
      dims_.push_back(out[k]);
      rep_a.push_back(ra);
      rep_b.push_back(rb);
    }
  }
  if (dims_.empty()) {
    dims_.push_back(1);
    rep_a.push_back(false);
    rep_b.push_back(false);
  }
  const size_t m = dims_.size();
  stride_a_.assign(m, 0);
  stride_b_.assign(m, 0);
  int64_t sa = 1, sb = 1;
  for (size_t j = m; j-- > 0;) {
    if (!rep_a[j]) {
      stride_a_[j] = sa;
      sa *= dims_[j];
    }
    if (!rep_b[j]) {
      stride_b_[j] = sb;
      sb *= dims_[j];
    }
  }
  this->out()->Resize(out);
}

template <>
std::string BroadcastOpLayer<float>::GetTypeDetail() {
  return this->GetType() + "(" + op_name_ + ")";
}

namespace {

// y = fn(a, b) over the merged axes. A task is one piece of at most kPiece
// elements of one innermost row.
template <typename Fn>
void BroadcastKernel(const float* a, const float* b, float* y, int64_t count, BroadcastShape g,
                     Fn fn) {
  constexpr int64_t kPiece = 4096;
  const int64_t inner = g.dims[g.axes - 1];
  const int64_t ia = g.stride_a[g.axes - 1], ib = g.stride_b[g.axes - 1];
  const int64_t pieces = (inner + kPiece - 1) / kPiece;
  const int64_t rows = count / inner;
  ParallelFor(
      rows * pieces,
      [=](int64_t begin, int64_t end) {
        for (int64_t t = begin; t < end; ++t) {
          const int64_t row = t / pieces;
          const int64_t from = (t % pieces) * kPiece;
          const int64_t n = std::min(kPiece, inner - from);
          int64_t oa = 0, ob = 0;
          g.RowOffsets(row, &oa, &ob);
          const float* pa = a + oa + from * ia;
          const float* pb = b + ob + from * ib;
          float* py = y + row * inner + from;
          for (int64_t i = 0; i < n; ++i) py[i] = fn(pa[i * ia], pb[i * ib]);
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::min(inner, kPiece)));
}

}  // namespace

template <>
void BroadcastOpLayer<float>::Run() {
  const float* a = this->in(0)->GetCpuData();
  const float* b = this->in(1)->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int64_t count = this->out()->Count(0);
  const BroadcastShape g{dims_.data(), stride_a_.data(), stride_b_.data(),
                         static_cast<int64_t>(dims_.size())};
  switch (op_) {
    case Op::kAdd:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p + q; });
      break;
    case Op::kSub:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p - q; });
      break;
    case Op::kMul:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p * q; });
      break;
    case Op::kDiv:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p / q; });
      break;
    case Op::kEqual:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p == q ? 1.0f : 0.0f; });
      break;
    // A NaN on either side gives NaN, as PyTorch's maximum and minimum do.
    case Op::kMax:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) {
        return p != p || q != q ? std::numeric_limits<float>::quiet_NaN() : (p < q ? q : p);
      });
      break;
    case Op::kMin:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) {
        return p != p || q != q ? std::numeric_limits<float>::quiet_NaN() : (q < p ? q : p);
      });
      break;
    case Op::kPow:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return std::pow(p, q); });
      break;
    case Op::kGreater:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p > q ? 1.0f : 0.0f; });
      break;
    case Op::kLess:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p < q ? 1.0f : 0.0f; });
      break;
    case Op::kGreaterEqual:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p >= q ? 1.0f : 0.0f; });
      break;
    case Op::kLessEqual:
      BroadcastKernel(a, b, y, count, g, [](float p, float q) { return p <= q ? 1.0f : 0.0f; });
      break;
  }
}

}  // namespace qzdl
