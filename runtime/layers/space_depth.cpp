#include "runtime/layers/space_depth.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {

// `block` as read from param `key`, checked.
int CheckBlockSize(const ParamReader& param, const std::string& key, int block) {
  if (block < 1)
    param.Fail("param \"" + key + "\" must be at least 1, got " + std::to_string(block));
  return block;
}

}  // namespace

// ---- DepthToSpace ---------------------------------------------------------

template <>
void DepthToSpaceLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  if (this->GetType() == "ShufflePixel") {
    // PyTorch's PixelShuffle: DepthToSpace in CRD order under its own name.
    block_key_ = "upscale_factor";
    block_ = CheckBlockSize(param, block_key_, param.RequiredInt("upscale_factor"));
    crd_ = true;
    return;
  }
  block_ = CheckBlockSize(param, "blocksize", param.RequiredInt("blocksize"));
  crd_ = param.Choice("mode", "DCR", {"DCR", "CRD"}) == "CRD";
}

template <>
std::string DepthToSpaceLayer<float>::GetTypeDetail() {
  if (this->GetType() == "ShufflePixel") return this->GetType();
  return crd_ ? "DepthToSpace(CRD)" : "DepthToSpace(DCR)";
}

template <>
void DepthToSpaceLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const Data<float>* x = this->in();
  const int64_t bb = static_cast<int64_t>(block_) * block_;
  const int64_t h = static_cast<int64_t>(x->GetDim(2)) * block_;
  const int64_t w = static_cast<int64_t>(x->GetDim(3)) * block_;
  if (x->GetDim(1) % bb != 0)
    this->Fail("input \"" + x->GetName() + "\" of shape " + DimsToString(x->GetDims()) + " has " +
               std::to_string(x->GetDim(1)) + " channels, not a multiple of " + block_key_ +
               "^2 = " + std::to_string(bb));
  if (h > INT32_MAX || w > INT32_MAX)
    this->Fail(block_key_ + " " + std::to_string(block_) + " makes the spatial size of input \"" +
               x->GetName() + "\" of shape " + DimsToString(x->GetDims()) + " too large");
  this->out()->Resize({x->GetDim(0), static_cast<int>(x->GetDim(1) / bb), static_cast<int>(h),
                       static_cast<int>(w)});
}

template <>
template <typename E>
void DepthToSpaceLayer<float>::Move(const E* x, E* y) const {
  const Data<float>* out = this->out();
  const int64_t b = block_, oc = out->GetDim(1), oh = out->GetDim(2), ow = out->GetDim(3);
  const int64_t ih = oh / b, iw = ow / b;
  const bool crd = crd_;
  // One task per output row (n, c, row); the row reads b input rows.
  ParallelFor(
      out->GetDim(0) * oc * oh,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t row = r % oh, c = (r / oh) % oc, n = r / (oh * oc);
          const int64_t h = row / b, i = row % b;
          E* dst = y + r * ow;
          for (int64_t j = 0; j < b; ++j) {
            const int64_t ic = crd ? (c * b + i) * b + j : (i * b + j) * oc + c;
            const E* src = x + ((n * oc * b * b + ic) * ih + h) * iw;
            for (int64_t w = 0; w < iw; ++w) dst[w * b + j] = src[w];
          }
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, ow)));
}

template <>
void DepthToSpaceLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void DepthToSpaceLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                         const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

// ---- SpaceToDepth ---------------------------------------------------------

template <>
void SpaceToDepthLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  block_ = CheckBlockSize(param, "blocksize", param.RequiredInt("blocksize"));
}

template <>
void SpaceToDepthLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const Data<float>* x = this->in();
  if (x->GetDim(2) % block_ != 0 || x->GetDim(3) % block_ != 0)
    this->Fail("input \"" + x->GetName() + "\" of shape " + DimsToString(x->GetDims()) +
               ": height and width must be multiples of blocksize " + std::to_string(block_));
  const int64_t c = static_cast<int64_t>(x->GetDim(1)) * block_ * block_;
  if (c > INT32_MAX)
    this->Fail("blocksize " + std::to_string(block_) + " makes the channel count of input \"" +
               x->GetName() + "\" of shape " + DimsToString(x->GetDims()) + " too large");
  this->out()->Resize(
      {x->GetDim(0), static_cast<int>(c), x->GetDim(2) / block_, x->GetDim(3) / block_});
}

template <>
template <typename E>
void SpaceToDepthLayer<float>::Move(const E* x, E* y) const {
  const Data<float>* in = this->in();
  const Data<float>* out = this->out();
  const int64_t b = block_, ic = in->GetDim(1), iw = in->GetDim(3);
  const int64_t oc = out->GetDim(1), oh = out->GetDim(2), ow = out->GetDim(3);
  // One task per output row (n, channel, row).
  ParallelFor(
      out->GetDim(0) * oc * oh,
      [=](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t h = r % oh, co = (r / oh) % oc, n = r / (oh * oc);
          const int64_t c = co % ic, offset = co / ic, i = offset / b, j = offset % b;
          const E* src = x + ((n * ic + c) * oh * b + h * b + i) * iw + j;
          E* dst = y + r * ow;
          for (int64_t w = 0; w < ow; ++w) dst[w] = src[w * b];
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, ow)));
}

template <>
void SpaceToDepthLayer<float>::Run() {
  Move(this->in()->GetCpuData(), this->out()->GetCpuData());
}

template <>
void SpaceToDepthLayer<float>::MoveCodes(const std::vector<const uint8_t*>& inputs,
                                         const std::vector<uint8_t*>& outputs, uint8_t fill) {
  Move(inputs[0], outputs[0]);
}

}  // namespace qzdl
