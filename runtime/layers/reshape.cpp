#include "runtime/layers/reshape.h"

#include <array>
#include <climits>
#include <cstring>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// Permute supports as many axes as a tensor may have.
constexpr int kMaxAxes = 8;
// Edge of the square tiles of the transposing permute.
constexpr int64_t kTile = 32;

// Product of dims, or -1 past the range of int64.
int64_t Product(const std::vector<int>& dims) {
  int64_t count = 1;
  for (int d : dims) {
    if (d > 0 && count > INT64_MAX / d) return -1;
    count *= d;
  }
  return count;
}

// "24" or "more than 9223372036854775807".
std::string CountText(const std::vector<int>& dims) {
  const int64_t count = Product(dims);
  return count < 0 ? "more than " + std::to_string(INT64_MAX) : std::to_string(count);
}

}  // namespace

void ParallelCopyFloats(float* dst, const float* src, int64_t n) { ParallelCopy(dst, src, n); }

// ---------------------------------------------------------------------------
// Reshape

template <>
void ReshapeLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 2, 1, 1);
  if (!param.Has("shapes")) param.Fail("missing param \"shapes\"");
  shapes_ = param.Ints("shapes", {});
  const std::string text = "param \"shapes\" " + DimsToString(shapes_);
  if (shapes_.empty()) param.Fail("param \"shapes\" must not be empty");
  if (shapes_.size() > kMaxAxes)
    param.Fail(text + " has " + std::to_string(shapes_.size()) + " entries, at most " +
               std::to_string(kMaxAxes) + " axes are supported");
  int inferred = 0;
  for (size_t i = 0; i < shapes_.size(); ++i) {
    if (shapes_[i] < -1)
      param.Fail(text + ": entry " + std::to_string(i) + " is " + std::to_string(shapes_[i]) +
                 "; an entry is positive, 0 (copy the input's dimension) or -1 (inferred)");
    if (shapes_[i] == -1) ++inferred;
  }
  if (inferred > 1) param.Fail(text + " has more than one -1");
}

template <>
void ReshapeLayer<float>::Reshape() {
  const std::vector<int> in_dims = this->in()->GetDims();
  const int64_t count = this->in()->Count(0);
  const std::string input = "input \"" + this->in()->GetName() + "\" of shape " +
                            DimsToString(in_dims) + " (" + std::to_string(count) + " elements)";
  std::vector<int> dims(shapes_.size());
  int infer = -1;
  for (size_t i = 0; i < shapes_.size(); ++i) {
    if (shapes_[i] == 0) {
      if (i >= in_dims.size())
        this->Fail("shapes " + DimsToString(shapes_) + ": entry " + std::to_string(i) +
                   " is 0 but " + input + " has no axis " + std::to_string(i));
      dims[i] = in_dims[i];
    } else if (shapes_[i] == -1) {
      infer = static_cast<int>(i);
      dims[i] = 1;
    } else {
      dims[i] = shapes_[i];
    }
  }
  const std::string head = "cannot reshape " + input + " with shapes " + DimsToString(shapes_);
  if (infer >= 0) {
    const int64_t known = Product(dims);  // with 1 at the inferred entry
    if (known < 0 || count % known != 0)
      this->Fail(head + ": " + std::to_string(count) + " is not a multiple of " + CountText(dims));
    // The count may pass 2^31 - 1, but one dim is an int.
    if (count / known > INT_MAX)
      this->Fail(head + ": entry " + std::to_string(infer) + " would be " +
                 std::to_string(count / known) + ", more than " + std::to_string(INT_MAX) +
                 " on one axis");
    dims[infer] = static_cast<int>(count / known);
  } else if (Product(dims) != count) {
    this->Fail(head + ": that makes " + DimsToString(dims) + " (" + CountText(dims) + " elements)");
  }
  this->out()->Resize(dims);
}

template <>
void ReshapeLayer<float>::Run() {
  ParallelCopyFloats(this->out()->GetCpuData(), this->in()->GetCpuData(), this->in()->Count(0));
}

template <>
void ReshapeLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                    const std::vector<uint8_t*>& outputs, uint8_t) {
  for (uint8_t* y : outputs) ParallelCopy(y, inputs[0], this->in()->Count(0));
}

// ---------------------------------------------------------------------------
// Flatten

template <>
void FlattenLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  axis_ = param.Int("axis", 1);
  end_axis_ = param.Int("end_axis", -1);
}

template <>
void FlattenLayer<float>::Reshape() {
  const std::vector<int> in_dims = this->in()->GetDims();
  const int rank = static_cast<int>(in_dims.size());
  const int first = axis_ < 0 ? axis_ + rank : axis_;
  const int last = end_axis_ < 0 ? end_axis_ + rank : end_axis_;
  if (first < 0 || first >= rank || last < first || last >= rank)
    this->Fail("axis " + std::to_string(axis_) + " and end_axis " + std::to_string(end_axis_) +
               " do not select a range of axes of input \"" + this->in()->GetName() +
               "\" of shape " + DimsToString(in_dims));
  std::vector<int> dims(in_dims.begin(), in_dims.begin() + first);
  int64_t merged = 1;
  for (int i = first; i <= last; ++i) merged *= in_dims[i];
  if (merged > INT_MAX)
    this->Fail("merging axes " + std::to_string(first) + " to " + std::to_string(last) +
               " of input \"" + this->in()->GetName() + "\" of shape " + DimsToString(in_dims) +
               " gives more than " + std::to_string(INT_MAX) + " elements on one axis");
  dims.push_back(static_cast<int>(merged));
  dims.insert(dims.end(), in_dims.begin() + last + 1, in_dims.end());
  this->out()->Resize(dims);
}

template <>
void FlattenLayer<float>::Run() {
  ParallelCopyFloats(this->out()->GetCpuData(), this->in()->GetCpuData(), this->in()->Count(0));
}

template <>
void FlattenLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                    const std::vector<uint8_t*>& outputs, uint8_t) {
  for (uint8_t* y : outputs) ParallelCopy(y, inputs[0], this->in()->Count(0));
}

// ---------------------------------------------------------------------------
// Permute

template <>
void PermuteLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (!param.Has("order")) param.Fail("missing param \"order\"");
  order_ = param.Ints("order", {});
  const int n = static_cast<int>(order_.size());
  bool ok = n >= 1 && n <= kMaxAxes;
  std::vector<bool> seen(order_.size(), false);
  for (int axis : order_) {
    if (axis < 0 || axis >= n || seen[axis]) {
      ok = false;
      break;
    }
    seen[axis] = true;
  }
  if (!ok)
    param.Fail("param \"order\" " + DimsToString(order_) + " is not a permutation of 0.." +
               std::to_string(n - 1) + " (1 to " + std::to_string(kMaxAxes) + " axes)");
}

template <>
void PermuteLayer<float>::Reshape() {
  const std::vector<int> in_dims = this->in()->GetDims();
  const int rank = static_cast<int>(in_dims.size());
  if (static_cast<int>(order_.size()) != rank)
    this->Fail("param \"order\" " + DimsToString(order_) + " has " + std::to_string(order_.size()) +
               " entries but input \"" + this->in()->GetName() + "\" of shape " +
               DimsToString(in_dims) + " has " + std::to_string(rank) + " axes");
  std::vector<int64_t> strides(rank, 1);
  for (int i = rank - 2; i >= 0; --i) strides[i] = strides[i + 1] * in_dims[i + 1];
  std::vector<int> out_dims(rank);
  dims_.clear();
  in_strides_.clear();
  for (int k = 0; k < rank; ++k) {
    const int axis = order_[k];
    out_dims[k] = in_dims[axis];
    if (in_dims[axis] == 1) continue;  // size-1 axes do not move anything
    // An axis that follows its input neighbour merges into the previous one.
    if (!dims_.empty() && in_strides_.back() == strides[axis] * in_dims[axis]) {
      dims_.back() *= in_dims[axis];
      in_strides_.back() = strides[axis];
    } else {
      dims_.push_back(in_dims[axis]);
      in_strides_.push_back(strides[axis]);
    }
  }
  if (dims_.empty()) {
    dims_.push_back(1);
    in_strides_.push_back(1);
  }
  tile_axis_ = -1;
  if (in_strides_.back() != 1)
    for (size_t k = 0; k < in_strides_.size(); ++k)
      if (in_strides_[k] == 1) tile_axis_ = static_cast<int>(k);
  this->out()->Resize(out_dims);
}

template <>
template <typename E>
void PermuteLayer<float>::Move(const E* x, E* y) const {
  const int r = static_cast<int>(dims_.size());
  std::array<int64_t, kMaxAxes> dims{}, in_strides{}, out_strides{};
  for (int k = 0; k < r; ++k) {
    dims[k] = dims_[k];
    in_strides[k] = in_strides_[k];
  }
  out_strides[r - 1] = 1;
  for (int k = r - 2; k >= 0; --k) out_strides[k] = out_strides[k + 1] * dims[k + 1];
  const int64_t total = out_strides[0] * dims[0];

  if (tile_axis_ < 0) {
    // The innermost output axis is contiguous in the input: copy rows.
    const int64_t row = dims[r - 1];
    const int64_t rows = total / row;
    ParallelFor(
        rows,
        [&](int64_t begin, int64_t end) {
          std::array<int64_t, kMaxAxes> idx{};
          int64_t rest = begin, offset = 0;
          for (int k = r - 2; k >= 0; --k) {
            idx[k] = rest % dims[k];
            rest /= dims[k];
            offset += idx[k] * in_strides[k];
          }
          for (int64_t i = begin; i < end; ++i) {
            std::memcpy(y + i * row, x + offset, static_cast<size_t>(row) * sizeof(E));
            for (int k = r - 2; k >= 0; --k) {  // next row index, odometer style
              offset += in_strides[k];
              if (++idx[k] < dims[k]) break;
              offset -= idx[k] * in_strides[k];
              idx[k] = 0;
            }
          }
        },
        std::max<int64_t>(1, kParallelGrain / row));
    return;
  }

  // A transpose between output axis a (contiguous in the input) and the last
  // output axis (contiguous in the output), in tiles; other axes outside.
  const int a = tile_axis_, last = r - 1;
  const int64_t tiles_a = (dims[a] + kTile - 1) / kTile;
  const int64_t tiles_l = (dims[last] + kTile - 1) / kTile;
  const int64_t others = total / (dims[a] * dims[last]);
  ParallelFor(
      others * tiles_a * tiles_l,
      [&](int64_t begin, int64_t end) {
        for (int64_t item = begin; item < end; ++item) {
          const int64_t tl = item % tiles_l;
          const int64_t ta = (item / tiles_l) % tiles_a;
          int64_t rest = item / (tiles_l * tiles_a);
          int64_t in_base = 0, out_base = 0;
          for (int k = last - 1; k >= 0; --k) {
            if (k == a) continue;
            const int64_t i = rest % dims[k];
            rest /= dims[k];
            in_base += i * in_strides[k];
            out_base += i * out_strides[k];
          }
          const int64_t a0 = ta * kTile, a1 = std::min(dims[a], a0 + kTile);
          const int64_t l0 = tl * kTile, l1 = std::min(dims[last], l0 + kTile);
          const int64_t in_l = in_strides[last], out_a = out_strides[a];
          for (int64_t i = a0; i < a1; ++i) {
            const E* src = x + in_base + i;
            E* dst = y + out_base + i * out_a;
            for (int64_t j = l0; j < l1; ++j) dst[j] = src[j * in_l];
          }
        }
      },
      std::max<int64_t>(1, kParallelGrain / (kTile * kTile)));
}

template <>
void PermuteLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void PermuteLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                    const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

// ---------------------------------------------------------------------------
// Dropout

template <>
void DropoutLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  param.Float("ratio", 0.5f);  // checked for type only; inference keeps every element
}

template <>
void DropoutLayer<float>::Reshape() {
  this->out()->Resize(this->in()->GetDims());
}

template <>
void DropoutLayer<float>::Run() {
  ParallelCopyFloats(this->out()->GetCpuData(), this->in()->GetCpuData(), this->in()->Count(0));
}

}  // namespace qzdl
