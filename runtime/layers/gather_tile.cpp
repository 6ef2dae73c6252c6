#include "runtime/layers/gather_tile.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string>

#include "runtime/kernels/parallel.h"
#include "runtime/layers/reshape.h"

namespace qzdl {

namespace {

// Tile and Crop index with fixed arrays; tensors never have more axes.
constexpr int kMaxAxes = 8;
using Index = std::array<int64_t, kMaxAxes>;

std::string Describe(const Data<float>* x) {
  return "input \"" + x->GetName() + "\" of shape " + DimsToString(x->GetDims());
}

// An array param that must be present and non-empty.
std::vector<int> RequiredInts(const ParamReader& param, const std::string& key) {
  if (!param.Has(key)) param.Fail("missing param \"" + key + "\"");
  std::vector<int> v = param.Ints(key, {});
  if (v.empty()) param.Fail("param \"" + key + "\" must not be empty");
  return v;
}

// Resolves the axes of `key` against `rank` (negative ones count from the
// end); fails on an axis out of range or named twice.
std::vector<int> ResolveAxes(const Layer<float>& layer, const std::string& key,
                             const std::vector<int>& axes, int rank, const std::string& against) {
  std::vector<int> out;
  std::vector<bool> seen(rank, false);
  for (int a : axes) {
    const int axis = a < 0 ? a + rank : a;
    if (axis < 0 || axis >= rank)
      layer.Fail("param \"" + key + "\" " + DimsToString(axes) + ": axis " + std::to_string(a) +
                 " is out of range for " + against);
    if (seen[axis])
      layer.Fail("param \"" + key + "\" " + DimsToString(axes) + " names axis " +
                 std::to_string(axis) + " twice");
    seen[axis] = true;
    out.push_back(axis);
  }
  return out;
}

// Input offset of row `row` of the output (all axes but the last), where
// output position i on axis k reads input position first[k] + i * step[k]
// (when `wrap`, position i % in_dims[k] with first 0 and step 1).
int64_t RowOffset(int64_t row, int rank, const int64_t* out_dims, const int64_t* in_dims,
                  const int64_t* in_strides, const int64_t* first, const int64_t* step, bool wrap) {
  int64_t offset = 0;
  for (int k = rank - 2; k >= 0; --k) {
    const int64_t i = row % out_dims[k];
    row /= out_dims[k];
    offset += (wrap ? i % in_dims[k] : first[k] + i * step[k]) * in_strides[k];
  }
  return offset;
}

}  // namespace

// ---- Gather ---------------------------------------------------------------

template <>
void GatherLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  axis_ = param.Int("axis", 0);
  indices_ = RequiredInts(param, "indices");
  scalar_index_ = param.Bool("scalar_index", false);
  if (scalar_index_ && indices_.size() != 1)
    param.Fail("param \"scalar_index\" needs exactly one index, \"indices\" has " +
               std::to_string(indices_.size()));
  if (param.Has("indices_dims")) {
    if (scalar_index_)
      param.Fail("params \"indices_dims\" and \"scalar_index\" exclude each other");
    indices_dims_ = param.Ints("indices_dims", {});
    int64_t count = 1;
    bool ok = !indices_dims_.empty();
    for (int d : indices_dims_) {
      if (d < 1) ok = false;
      count *= std::max(d, 1);
      if (count > INT_MAX) ok = false;
    }
    if (!ok || count != static_cast<int64_t>(indices_.size()))
      param.Fail("param \"indices_dims\" " + DimsToString(indices_dims_) +
                 " must be positive sizes whose product is the number of indices, " +
                 std::to_string(indices_.size()));
  }
}

template <>
void GatherLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const std::vector<int> in_dims = x->GetDims();
  const int rank = x->NumAxes();
  const int axis = axis_ < 0 ? axis_ + rank : axis_;
  if (axis < 0 || axis >= rank)
    this->Fail("param \"axis\" is " + std::to_string(axis_) + ", out of range for " + Describe(x));
  const int dim = in_dims[axis];
  resolved_.clear();
  for (int index : indices_) {
    const int64_t i = index < 0 ? static_cast<int64_t>(index) + dim : index;
    if (i < 0 || i >= dim)
      this->Fail("index " + std::to_string(index) + " is out of range for axis " +
                 std::to_string(axis) + " (size " + std::to_string(dim) + ") of " + Describe(x));
    resolved_.push_back(i);
  }
  std::vector<int> out_dims(in_dims.begin(), in_dims.begin() + axis);
  if (!scalar_index_) {
    if (indices_dims_.empty())
      out_dims.push_back(static_cast<int>(indices_.size()));
    else
      out_dims.insert(out_dims.end(), indices_dims_.begin(), indices_dims_.end());
  }
  out_dims.insert(out_dims.end(), in_dims.begin() + axis + 1, in_dims.end());
  if (out_dims.empty())
    this->Fail("a scalar index on the only axis of " + Describe(x) + " leaves no axis");
  outer_ = x->Count(0) / x->Count(axis);
  axis_dim_ = dim;
  inner_ = x->Count(axis + 1);
  this->out()->Resize(out_dims);
}

template <>
template <typename E>
void GatherLayer<float>::Move(const E* x, E* y) const {
  const int64_t* index = resolved_.data();
  const int64_t count = static_cast<int64_t>(resolved_.size());
  const int64_t axis_dim = axis_dim_, inner = inner_;
  // One task per output row of `inner` elements.
  ParallelFor(
      outer_ * count,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t o = r / count, k = r % count;
          std::memcpy(y + r * inner, x + (o * axis_dim + index[k]) * inner,
                      static_cast<size_t>(inner) * sizeof(E));
        }
      },
      std::max<int64_t>(1, kParallelGrain / inner));
}

template <>
void GatherLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void GatherLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                   const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

// ---- Tile -----------------------------------------------------------------

template <>
void TileLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  repeats_ = RequiredInts(param, "repeats");
  for (int r : repeats_)
    if (r < 1)
      param.Fail("param \"repeats\" " + DimsToString(repeats_) + " must be positive counts");
}

template <>
void TileLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const int rank = x->NumAxes();
  if (static_cast<int>(repeats_.size()) != rank)
    this->Fail("param \"repeats\" " + DimsToString(repeats_) + " has " +
               std::to_string(repeats_.size()) + " entries but " + Describe(x) + " has " +
               std::to_string(rank) + " axes");
  if (rank > kMaxAxes)
    this->Fail(Describe(x) + " has " + std::to_string(rank) + " axes, at most " +
               std::to_string(kMaxAxes) + " are supported");
  std::vector<int> out_dims(rank);
  for (int k = 0; k < rank; ++k) {
    const int64_t d = static_cast<int64_t>(x->GetDim(k)) * repeats_[k];
    if (d > INT_MAX)
      this->Fail("param \"repeats\" " + DimsToString(repeats_) + " makes axis " +
                 std::to_string(k) + " of " + Describe(x) + " too large");
    out_dims[k] = static_cast<int>(d);
  }
  this->out()->Resize(out_dims);
}

template <>
template <typename E>
void TileLayer<float>::Move(const E* x, E* y) const {
  const Data<float>* in = this->in();
  const int rank = in->NumAxes();
  Index in_dims{}, out_dims{}, in_strides{};
  for (int k = 0; k < rank; ++k) {
    in_dims[k] = in->GetDim(k);
    out_dims[k] = this->out()->GetDim(k);
    in_strides[k] = in->Count(k + 1);
  }
  const int64_t in_row = in_dims[rank - 1], out_row = out_dims[rank - 1];
  const int64_t rows = this->out()->Count(0) / out_row;
  // One task per output row: the input row it repeats, copied end to end.
  ParallelFor(
      rows,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const E* src = x + RowOffset(r, rank, out_dims.data(), in_dims.data(), in_strides.data(),
                                       nullptr, nullptr, true);
          E* dst = y + r * out_row;
          for (int64_t p = 0; p < out_row; p += in_row)
            std::memcpy(dst + p, src, static_cast<size_t>(in_row) * sizeof(E));
        }
      },
      std::max<int64_t>(1, kParallelGrain / out_row));
}

template <>
void TileLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void TileLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                 const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

// ---- Crop -----------------------------------------------------------------

template <>
void CropLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  starts_ = RequiredInts(param, "starts");
  ends_ = RequiredInts(param, "ends");
  const size_t n = starts_.size();
  auto same_length = [&](const std::string& key, const std::vector<int>& v) {
    if (v.size() != n)
      param.Fail("param \"" + key + "\" has " + std::to_string(v.size()) + " entries, \"starts\" " +
                 std::to_string(n));
  };
  same_length("ends", ends_);
  has_axes_ = param.Has("axes");
  axes_ = param.Ints("axes", {});
  if (has_axes_) same_length("axes", axes_);
  steps_ = param.Ints("steps", std::vector<int>(n, 1));
  same_length("steps", steps_);
  for (int s : steps_)
    if (s == 0) param.Fail("param \"steps\" " + DimsToString(steps_) + " must not contain 0");
}

template <>
void CropLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const int rank = x->NumAxes();
  if (rank > kMaxAxes)
    this->Fail(Describe(x) + " has " + std::to_string(rank) + " axes, at most " +
               std::to_string(kMaxAxes) + " are supported");
  std::vector<int> axes = axes_;
  if (!has_axes_)
    for (size_t k = 0; k < starts_.size(); ++k) axes.push_back(static_cast<int>(k));
  axes = ResolveAxes(*this, "axes", axes, rank, Describe(x));
  std::vector<int> out_dims = x->GetDims();
  first_.assign(rank, 0);
  step_.assign(rank, 1);
  for (size_t k = 0; k < axes.size(); ++k) {
    const int axis = axes[k];
    const int64_t dim = out_dims[axis], step = steps_[k];
    int64_t start = starts_[k], end = ends_[k];
    if (start < 0) start += dim;
    if (end < 0) end += dim;
    int64_t len;
    if (step > 0) {
      start = std::min(std::max<int64_t>(start, 0), dim);
      end = std::min(std::max<int64_t>(end, 0), dim);
      len = end > start ? (end - start + step - 1) / step : 0;
    } else {
      start = std::min(std::max<int64_t>(start, 0), dim - 1);
      end = std::min(std::max<int64_t>(end, -1), dim - 1);
      len = start > end ? (start - end - step - 1) / -step : 0;
    }
    if (len == 0)
      this->Fail("start " + std::to_string(starts_[k]) + ", end " + std::to_string(ends_[k]) +
                 " and step " + std::to_string(step) + " select nothing on axis " +
                 std::to_string(axis) + " of " + Describe(x));
    first_[axis] = start;
    step_[axis] = step;
    out_dims[axis] = static_cast<int>(len);
  }
  this->out()->Resize(out_dims);
}

template <>
template <typename E>
void CropLayer<float>::Move(const E* x, E* y) const {
  const Data<float>* in = this->in();
  const int rank = in->NumAxes();
  Index in_dims{}, out_dims{}, in_strides{}, first{}, step{};
  for (int k = 0; k < rank; ++k) {
    in_dims[k] = in->GetDim(k);
    out_dims[k] = this->out()->GetDim(k);
    in_strides[k] = in->Count(k + 1);
    first[k] = first_[k];
    step[k] = step_[k];
  }
  const int64_t row = out_dims[rank - 1];
  const int64_t rows = this->out()->Count(0) / row;
  const int64_t last_first = first[rank - 1], last_step = step[rank - 1];
  // One task per output row.
  ParallelFor(
      rows,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const E* src = x + last_first +
                         RowOffset(r, rank, out_dims.data(), in_dims.data(), in_strides.data(),
                                   first.data(), step.data(), false);
          E* dst = y + r * row;
          if (last_step == 1) {
            std::memcpy(dst, src, static_cast<size_t>(row) * sizeof(E));
          } else {
            for (int64_t i = 0; i < row; ++i) dst[i] = src[i * last_step];
          }
        }
      },
      std::max<int64_t>(1, kParallelGrain / row));
}

template <>
void CropLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void CropLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                 const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

// ---- Squeeze --------------------------------------------------------------

template <>
void SqueezeLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  axes_ = param.Ints("axes", {});
}

template <>
void SqueezeLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const std::vector<int> in_dims = x->GetDims();
  const int rank = x->NumAxes();
  std::vector<bool> drop(rank, false);
  if (axes_.empty()) {
    for (int k = 0; k < rank; ++k) drop[k] = in_dims[k] == 1;
  } else {
    for (int axis : ResolveAxes(*this, "axes", axes_, rank, Describe(x))) {
      if (in_dims[axis] != 1)
        this->Fail("axis " + std::to_string(axis) + " of " + Describe(x) + " has size " +
                   std::to_string(in_dims[axis]) + "; only size-1 axes can be removed");
      drop[axis] = true;
    }
  }
  std::vector<int> out_dims;
  for (int k = 0; k < rank; ++k)
    if (!drop[k]) out_dims.push_back(in_dims[k]);
  if (out_dims.empty()) this->Fail("removing the axes would leave no axis of " + Describe(x));
  this->out()->Resize(out_dims);
}

template <>
void SqueezeLayer<float>::Run() {
  ParallelCopyFloats(this->out()->GetCpuData(), this->in()->GetCpuData(), this->in()->Count(0));
}

template <>
void SqueezeLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                    const std::vector<uint8_t*>& outputs, uint8_t) {
  for (uint8_t* y : outputs) ParallelCopy(y, inputs[0], this->in()->Count(0));
}

// ---- ExpandDims -----------------------------------------------------------

template <>
void ExpandDimsLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  axes_ = RequiredInts(param, "axes");
}

template <>
void ExpandDimsLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  const std::vector<int> in_dims = x->GetDims();
  const int rank = x->NumAxes() + static_cast<int>(axes_.size());
  if (rank > kMaxAxes)
    this->Fail("param \"axes\" " + DimsToString(axes_) + " would give " + Describe(x) + " " +
               std::to_string(rank) + " axes, at most " + std::to_string(kMaxAxes) +
               " are supported");
  std::vector<bool> inserted(rank, false);
  for (int axis :
       ResolveAxes(*this, "axes", axes_, rank, "an output of " + std::to_string(rank) + " axes"))
    inserted[axis] = true;
  std::vector<int> out_dims;
  size_t next = 0;
  for (int k = 0; k < rank; ++k) out_dims.push_back(inserted[k] ? 1 : in_dims[next++]);
  this->out()->Resize(out_dims);
}

template <>
void ExpandDimsLayer<float>::Run() {
  ParallelCopyFloats(this->out()->GetCpuData(), this->in()->GetCpuData(), this->in()->Count(0));
}

template <>
void ExpandDimsLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                       const std::vector<uint8_t*>& outputs, uint8_t) {
  for (uint8_t* y : outputs) ParallelCopy(y, inputs[0], this->in()->Count(0));
}

}  // namespace qzdl
