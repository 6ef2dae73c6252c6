#include "runtime/layers/reduce.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

constexpr int kMaxAxes = 8;
using Index = std::array<int64_t, kMaxAxes>;

// Input offset of position `pos` in the row-major space of `dims`.
int64_t OffsetOf(int64_t pos, const int64_t* dims, const int64_t* strides, int n) {
  int64_t offset = 0;
  for (int k = n - 1; k >= 0; --k) {
    offset += (pos % dims[k]) * strides[k];
    pos /= dims[k];
  }
  return offset;
}

// Advances an odometer over the first n axes of `dims` and returns the
// change of the input offset (back to 0 after the last position).
int64_t Step(Index& idx, const int64_t* dims, const int64_t* strides, int n) {
  int64_t delta = 0;
  for (int k = n - 1; k >= 0; --k) {
    delta += strides[k];
    if (++idx[k] < dims[k]) return delta;
    delta -= idx[k] * strides[k];
    idx[k] = 0;
  }
  return delta;
}

// What one output gathers. Sums and products in double, in the order of
// the reduced positions; a NaN among the values of a maximum or minimum
// makes it NaN.
struct SumAcc {
  double s = 0.0;
  void Add(float v) { s += v; }
  float Get(double scale) const { return static_cast<float>(s * scale); }
};
struct ProdAcc {
  double p = 1.0;
  void Add(float v) { p *= v; }
  float Get(double) const { return static_cast<float>(p); }
};
struct MaxAcc {
  float m = -std::numeric_limits<float>::infinity();
  bool nan = false;
  void Add(float v) {
    nan |= v != v;
    m = v > m ? v : m;
  }
  float Get(double) const { return nan ? std::numeric_limits<float>::quiet_NaN() : m; }
};
struct MinAcc {
  float m = std::numeric_limits<float>::infinity();
  bool nan = false;
  void Add(float v) {
    nan |= v != v;
    m = v < m ? v : m;
  }
  float Get(double) const { return nan ? std::numeric_limits<float>::quiet_NaN() : m; }
};

}  // namespace

template <>
void ReduceLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (this->GetType() == "Reduce") {
    if (!param.Has("operation")) param.Fail("missing param \"operation\"");
    const std::vector<std::string> names = {"sum", "mean", "max", "min", "prod"};
    op_name_ = param.Choice("operation", "sum", names);
    const Op ops[] = {Op::kSum, Op::kMean, Op::kMax, Op::kMin, Op::kProd};
    for (size_t i = 0; i < names.size(); ++i)
      if (names[i] == op_name_) op_ = ops[i];
  }
  axes_ = param.Ints("axes", {});
  keepdims_ = param.Bool("keepdims", true);
}

template <>
std::string ReduceLayer<float>::GetTypeDetail() {
  return this->GetType() == "Reduce" ? "Reduce(" + op_name_ + ")" : this->GetType();
}

template <>
void ReduceLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const std::vector<int> in_dims = x->GetDims();
  const int rank = x->NumAxes();
  const std::string input = "input \"" + x->GetName() + "\" of shape " + DimsToString(in_dims);
  if (rank > kMaxAxes)
    this->Fail(input + " has " + std::to_string(rank) + " axes, at most " +
               std::to_string(kMaxAxes) + " are supported");
  std::vector<bool> reduced(rank, axes_.empty());
  for (int a : axes_) {
    const int axis = a < 0 ? a + rank : a;
    if (axis < 0 || axis >= rank)
      this->Fail("param \"axes\" " + DimsToString(axes_) + ": axis " + std::to_string(a) +
                 " is out of range for " + input);
    if (reduced[axis])
      this->Fail("param \"axes\" " + DimsToString(axes_) + " names axis " + std::to_string(axis) +
                 " twice");
    reduced[axis] = true;
  }
  std::vector<int> out_dims;
  for (int k = 0; k < rank; ++k) {
    if (!reduced[k])
      out_dims.push_back(in_dims[k]);
    else if (keepdims_)
      out_dims.push_back(1);
  }
  if (out_dims.empty())
    this->Fail("reducing every axis of " + input +
               " without keepdims leaves no axis; set keepdims or keep an axis");

  kept_dims_.clear();
  kept_strides_.clear();
  red_dims_.clear();
  red_strides_.clear();
  reduce_count_ = 1;
  int64_t stride = x->Count(0);
  int last_kind = -1;  // 0 kept, 1 reduced, of the previous axis taken
  for (int k = 0; k < rank; ++k) {
    stride /= in_dims[k];
    if (reduced[k]) reduce_count_ *= in_dims[k];
    if (in_dims[k] == 1) continue;
    const int kind = reduced[k] ? 1 : 0;
    std::vector<int64_t>& dims = kind ? red_dims_ : kept_dims_;
    std::vector<int64_t>& strides = kind ? red_strides_ : kept_strides_;
    if (kind == last_kind) {
      dims.back() *= in_dims[k];
      strides.back() = stride;
    } else {
      dims.push_back(in_dims[k]);
      strides.push_back(stride);
    }
    last_kind = kind;
  }
  if (kept_dims_.empty()) {
    kept_dims_.push_back(1);
    kept_strides_.push_back(0);
  }
  if (red_dims_.empty()) {
    red_dims_.push_back(1);
    red_strides_.push_back(0);
  }
  this->out()->Resize(out_dims);
}

template <>
void ReduceLayer<float>::Run() {
  switch (op_) {
    case Op::kMean:
    case Op::kSum: return RunWith<SumAcc>();
    case Op::kMax: return RunWith<MaxAcc>();
    case Op::kMin: return RunWith<MinAcc>();
    case Op::kProd: return RunWith<ProdAcc>();
  }
}

template <>
template <typename Acc>
void ReduceLayer<float>::RunWith() {
  const float* x = this->in()->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int nk = static_cast<int>(kept_dims_.size());
  const int nr = static_cast<int>(red_dims_.size());
  const int64_t* kd = kept_dims_.data();
  const int64_t* ks = kept_strides_.data();
  const int64_t* rd = red_dims_.data();
  const int64_t* rs = red_strides_.data();
  const int64_t out_count = this->out()->Count(0);
  const double inv = op_ == Op::kMean ? 1.0 / static_cast<double>(reduce_count_) : 1.0;
  // Each output gathers its inputs in the order of the reduced positions
  // (row-major over the reduced axes), within one task.

  if (ks[nk - 1] == 1) {
    // The innermost axis is kept: blocks of neighbouring outputs add rows
    // of the input together, one reduced position at a time.
    constexpr int64_t kBlock = 64;
    const int64_t row = kd[nk - 1];
    const int64_t rows = out_count / row;
    const int64_t blocks = (row + kBlock - 1) / kBlock;
    const int64_t red_positions = reduce_count_;
    ParallelFor(
        rows * blocks,
        [=](int64_t begin, int64_t end) {
          Acc acc[kBlock];
          for (int64_t t = begin; t < end; ++t) {
            const int64_t r = t / blocks;
            const int64_t i0 = (t % blocks) * kBlock;
            const int64_t len = std::min(kBlock, row - i0);
            const float* base = x + OffsetOf(r, kd, ks, nk - 1) + i0;
            for (int64_t i = 0; i < len; ++i) acc[i] = Acc();
            Index idx{};
            int64_t off = 0;
            for (int64_t p = 0; p < red_positions; ++p) {
              const float* src = base + off;
              for (int64_t i = 0; i < len; ++i) acc[i].Add(src[i]);
              off += Step(idx, rd, rs, nr);
            }
            float* dst = y + r * row + i0;
            for (int64_t i = 0; i < len; ++i) dst[i] = acc[i].Get(inv);
          }
        },
        std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, red_positions * kBlock)));
    return;
  }

  // The innermost axis is reduced: every output walks its positions with the
  // last reduced axis as the inner loop.
  const int64_t inner = rd[nr - 1], inner_stride = rs[nr - 1];
  const int64_t outer_positions = reduce_count_ / inner;
  ParallelFor(
      out_count,
      [=](int64_t begin, int64_t end) {
        for (int64_t o = begin; o < end; ++o) {
          const float* base = x + OffsetOf(o, kd, ks, nk);
          Acc acc;
          Index idx{};
          int64_t off = 0;
          for (int64_t p = 0; p < outer_positions; ++p) {
            const float* src = base + off;
            for (int64_t i = 0; i < inner; ++i) acc.Add(src[i * inner_stride]);
            off += Step(idx, rd, rs, nr - 1);
          }
          y[o] = acc.Get(inv);
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, reduce_count_)));
}

// ---- ReduceArgs -----------------------------------------------------------

template <>
void ReduceArgsLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (!param.Has("operation")) param.Fail("missing param \"operation\"");
  max_ = param.Choice("operation", "argmax", {"argmax", "argmin"}) == "argmax";
  axis_param_ = param.Int("axis", 0);
  keepdims_ = param.Bool("keepdims", true);
  last_ = param.Bool("select_last_index", false);
}

template <>
std::string ReduceArgsLayer<float>::GetTypeDetail() {
  return max_ ? "ReduceArgs(argmax)" : "ReduceArgs(argmin)";
}

template <>
void ReduceArgsLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const std::vector<int> in_dims = x->GetDims();
  const int rank = x->NumAxes();
  const int axis = axis_param_ < 0 ? axis_param_ + rank : axis_param_;
  if (axis < 0 || axis >= rank)
    this->Fail("param \"axis\" " + std::to_string(axis_param_) + " is out of range for input \"" +
               x->GetName() + "\" of shape " + DimsToString(in_dims));
  std::vector<int> out_dims;
  outer_ = inner_ = 1;
  for (int k = 0; k < rank; ++k) {
    if (k < axis) outer_ *= in_dims[k];
    if (k > axis) inner_ *= in_dims[k];
    if (k != axis) {
      out_dims.push_back(in_dims[k]);
    } else if (keepdims_) {
      out_dims.push_back(1);
    }
  }
  count_ = in_dims[axis];
  if (out_dims.empty())
    this->Fail("reducing the only axis of input \"" + x->GetName() + "\" of shape " +
               DimsToString(in_dims) + " without keepdims leaves no axis; set keepdims");
  this->out()->Resize(out_dims);
}

template <>
void ReduceArgsLayer<float>::Run() {
  const float* x = this->in()->GetCpuData();
  float* y = this->out()->GetCpuData();
  const int64_t inner = inner_, count = count_;
  const bool max = max_, last = last_;
  // A value replaces the best one when it is strictly better (or, for the
  // last index, at least as good). A NaN wins over every number, as in
  // NumPy and PyTorch: the index of the first NaN is the result.
  ParallelFor(
      outer_ * inner,
      [=](int64_t begin, int64_t end) {
        for (int64_t o = begin; o < end; ++o) {
          const float* src = x + (o / inner) * count * inner + o % inner;
          float best = src[0];
          int64_t at = 0;
          for (int64_t i = 1; i < count && best == best; ++i) {
            const float v = src[i * inner];
            if (v != v) {
              at = i;
              break;
            }
            const bool better = max ? (last ? v >= best : v > best) : (last ? v <= best : v < best);
            if (better) {
              best = v;
              at = i;
            }
          }
          y[o] = static_cast<float>(at);
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, count)));
}

}  // namespace qzdl
