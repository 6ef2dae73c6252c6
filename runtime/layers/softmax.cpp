#include "runtime/layers/softmax.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "runtime/kernels/parallel.h"

namespace qzdl {

template <>
void SoftmaxLayer<float>::LoadParam(const ParamReader& param) {
  // "SoftmaxMask" takes the mask as a second input.
  const int inputs = this->GetType() == "SoftmaxMask" ? 2 : 1;
  this->ExpectCounts(inputs, inputs, 1, 1);
  axis_ = param.Int("axis", 1);
}

template <>
void SoftmaxLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const int rank = x->NumAxes();
  const int axis = axis_ < 0 ? axis_ + rank : axis_;
  if (axis < 0 || axis >= rank)
    this->Fail("param \"axis\" is " + std::to_string(axis_) + ", out of range for input \"" +
               x->GetName() + "\" of shape " + DimsToString(x->GetDims()));
  dim_ = x->GetDim(axis);
  inner_ = x->Count(axis + 1);
  outer_ = x->Count(0) / (dim_ * inner_);
  this->out()->Resize(x->GetDims());
}

template <>
void SoftmaxLayer<float>::Run() {
  const float* x = this->in()->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int64_t dim = dim_, inner = inner_;
  // A task handles up to kBlock neighbouring columns (positions on the inner
  // axes) of one outer index; each column is reduced by one task in a fixed
  // order. Every column is read completely before it is written, so x and y
  // may be the same buffer.
  constexpr int64_t kBlock = 64;
  const int64_t blocks = (inner + kBlock - 1) / kBlock;
  const int64_t tasks = outer_ * blocks;
  ParallelFor(
      tasks,
      [=](int64_t begin, int64_t end) {
        float mx[kBlock];
        float sum[kBlock];
        for (int64_t t = begin; t < end; ++t) {
          const int64_t o = t / blocks;
          const int64_t i0 = (t % blocks) * kBlock;
          const int64_t n = std::min(kBlock, inner - i0);
          const float* xo = x + o * dim * inner + i0;
          float* yo = y + o * dim * inner + i0;
          for (int64_t i = 0; i < n; ++i) {
            mx[i] = xo[i];
            sum[i] = 0.0f;
          }
          for (int64_t d = 1; d < dim; ++d)
            for (int64_t i = 0; i < n; ++i) mx[i] = std::max(mx[i], xo[d * inner + i]);
          for (int64_t d = 0; d < dim; ++d)
            for (int64_t i = 0; i < n; ++i) {
              const float e = std::exp(xo[d * inner + i] - mx[i]);
              yo[d * inner + i] = e;
              sum[i] += e;
            }
          for (int64_t d = 0; d < dim; ++d)
            for (int64_t i = 0; i < n; ++i) yo[d * inner + i] /= sum[i];
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, dim * std::min(kBlock, inner))));
}

// ---- SoftmaxMask -----------------------------------------------------------

template <>
void SoftmaxMaskLayer<float>::Reshape() {
  SoftmaxLayer<float>::Reshape();
  const Data<float>* x = this->in(0);
  const Data<float>* mask = this->in(1);
  const int rank = x->NumAxes(), mrank = mask->NumAxes();
  // The mask broadcasts to x: aligned on the trailing axes, each of its dims
  // equal to x's or 1.
  bool fits = mrank <= rank;
  mask_strides_.assign(static_cast<size_t>(rank), 0);
  int64_t stride = 1;
  for (int k = mrank - 1; fits && k >= 0; --k) {
    const int xk = rank - mrank + k;
    const int md = mask->GetDim(k);
    if (md != 1 && md != x->GetDim(xk)) fits = false;
    mask_strides_[xk] = md == 1 ? 0 : stride;
    stride *= md;
  }
  if (!fits)
    this->Fail("mask \"" + mask->GetName() + "\" of shape " + DimsToString(mask->GetDims()) +
               " does not broadcast to input \"" + x->GetName() + "\" of shape " +
               DimsToString(x->GetDims()));
  const std::vector<int> dims = x->GetDims();
  dims_.assign(dims.begin(), dims.end());
}

template <>
void SoftmaxMaskLayer<float>::Run() {
  const float* x = this->in(0)->GetCpuData();
  const float* mask = this->in(1)->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int64_t dim = dim_, inner = inner_;
  // Read through pointers: Run allocates nothing.
  const int64_t* dims = dims_.data();
  const int64_t* strides = mask_strides_.data();
  const size_t rank = dims_.size();
  // The mask's element of x's element e.
  auto mask_at = [dims, strides, rank, mask](int64_t e) {
    int64_t offset = 0;
    for (size_t k = rank; k-- > 0;) {
      offset += e % dims[k] * strides[k];
      e /= dims[k];
    }
    return mask[offset];
  };
  // One task per column: the maximum and the sum over the kept positions
  // (mask not 0), in order; masked positions give 0, and so does a column
  // with no kept position.
  ParallelFor(outer_ * inner, [=](int64_t begin, int64_t end) {
    for (int64_t t = begin; t < end; ++t) {
      const int64_t o = t / inner, i = t % inner;
      const int64_t base = o * dim * inner + i;
      float mx = -std::numeric_limits<float>::infinity();
      bool any = false;
      for (int64_t d = 0; d < dim; ++d) {
        if (mask_at(base + d * inner) == 0.0f) continue;
        mx = any ? std::max(mx, x[base + d * inner]) : x[base + d * inner];
        any = true;
      }
      float sum = 0.0f;
      for (int64_t d = 0; d < dim; ++d) {
        const int64_t e = base + d * inner;
        const float v = any && mask_at(e) != 0.0f ? std::exp(x[e] - mx) : 0.0f;
        y[e] = v;
        sum += v;
      }
      if (!any) continue;
      for (int64_t d = 0; d < dim; ++d) y[base + d * inner] /= sum;
    }
  });
}

}  // namespace qzdl
