// Moving blocks of pixels between the spatial axes and the channels of 4-d
// NCHW data: "DepthToSpace" (also as "ShufflePixel") and "SpaceToDepth".
// Both only move elements.
#pragma once

#include <string>

#include "runtime/layer.h"
#include "runtime/layers/element_mover.h"

namespace qzdl {

// "DepthToSpace": [N, C * b * b, H, W] -> [N, C, H * b, W * b] with b the
// `blocksize`. With `mode` "DCR" (depth-column-row, the default) output
// channel c at offset (i, j) of a block comes from input channel
// (i * b + j) * C + c; with "CRD" from c * b * b + i * b + j.
// "ShufflePixel" (PyTorch's PixelShuffle) is the same layer in CRD order,
// with the block size in param `upscale_factor`.
template <typename T>
class DepthToSpaceLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // "DepthToSpace(DCR)", "DepthToSpace(CRD)" or "ShufflePixel".
  std::string GetTypeDetail() override;
  int BlockSize() const { return block_; }
  bool Crd() const { return crd_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  int block_ = 1;
  bool crd_ = false;
  std::string block_key_ = "blocksize";  // the param named in messages
};

// "SpaceToDepth": [N, C, H * b, W * b] -> [N, C * b * b, H, W]; the inverse
// of DepthToSpace in DCR mode: output channel (i * b + j) * C + c holds the
// input pixels at offset (i, j) of each block of channel c.
template <typename T>
class SpaceToDepthLayer : public Layer<T>, public ElementMover {
 public:
  void MoveCodes(const std::vector<const uint8_t*>& inputs, const std::vector<uint8_t*>& outputs,
                 uint8_t fill) override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int BlockSize() const { return block_; }

 protected:
  void Run() override;

 private:
  // Run's kernel on any element type.
  template <typename E>
  void Move(const E* x, E* y) const;
  int block_ = 1;
};

}  // namespace qzdl
