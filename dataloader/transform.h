// Transforms of one input tensor on its way from a file to the net: channel
// reversal, grey conversion and bilinear resizing. Tensors are laid out
// [batch, channel, height, width] with one plane per channel.
// See docs/calibration-data.md, section "Transforms".
#pragma once

#include <vector>

#include "runtime/data.h"

namespace dataLoader {

// Values of BasicTransform::type.
enum TransformType {
  kSkippedTransform = 0,  // ComposeTransform leaves such an entry out
  kResizeTransform = 2,
  kReverseChannelTransform = 11,
  kRgb2GrayTransform = 12,
};

class BasicTransform {
 public:
  BasicTransform() = default;
  explicit BasicTransform(int type) : type(type) {}
  BasicTransform(const BasicTransform&) = delete;
  BasicTransform& operator=(const BasicTransform&) = delete;

  // Returns the tensor that holds the result (this transform's `output`,
  // valid until the next call). The base class copies the input unchanged.
  virtual qzdl::Data<float>* operator()(qzdl::Data<float>* input);
  // Shape of the result for an input shape; the base class keeps `dims`.
  virtual std::vector<int> get_output_dims(const std::vector<int>& dims);
  virtual ~BasicTransform();

  // Result tensor, made at the first call and reused; owned by the transform.
  qzdl::Data<float>* output = nullptr;
  // TransformType code; 0 for the base class.
  int type = kSkippedTransform;

 protected:
  // Makes `output` hold get_output_dims(input dims), zero-filled when it is
  // (re)allocated, and returns that shape.
  std::vector<int> PrepareOutput(qzdl::Data<float>* input);
};

// Swaps planes 0 and 2 (BGR <-> RGB). A one-channel tensor is copied.
class ReverseChannel : public BasicTransform {
 public:
  ReverseChannel() : BasicTransform(kReverseChannelTransform) {}
  qzdl::Data<float>* operator()(qzdl::Data<float>* input) override;
};

// Grey value 0.299 R + 0.589 G + 0.114 B, in double, capped at 255, written
// to each of `channels` output planes. A one-channel input is copied.
class RGB2GRAY : public BasicTransform {
 public:
  explicit RGB2GRAY(bool bgr_input = true, int channels = 1)
      : BasicTransform(kRgb2GrayTransform), bgr_input(bgr_input), channels(channels) {}
  qzdl::Data<float>* operator()(qzdl::Data<float>* input) override;
  std::vector<int> get_output_dims(const std::vector<int>& dims) override;

  // True when plane 0 of the input is blue and plane 2 red.
  bool bgr_input;
  // Number of output planes per batch element.
  int channels;
};

// Bilinear interpolation with half-pixel centres, in single precision.
class Resize : public BasicTransform {
 public:
  Resize(int height, int width, int channels)
      : BasicTransform(kResizeTransform), height(height), width(width), channels(channels) {}
  qzdl::Data<float>* operator()(qzdl::Data<float>* input) override;
  std::vector<int> get_output_dims(const std::vector<int>& dims) override;

  int height;
  int width;
  int channels;
};

// The transform chain of one data item, in order of application. It holds
// the pointers only; the transforms live to the end of the run.
struct TransformHandle {
  std::vector<BasicTransform*> transforms;

  bool empty() const { return transforms.empty(); }
  // Appends unconditionally.
  void Add(BasicTransform* transform) { transforms.push_back(transform); }
  // Appends unless the pointer is null or the transform's type is 0.
  void AddUnlessSkipped(BasicTransform* transform) {
    if (transform != nullptr && transform->type != kSkippedTransform)
      transforms.push_back(transform);
  }
  // `dims` passed through each transform's get_output_dims in order.
  std::vector<int> GetOutputDims(std::vector<int> dims) const;
  // Runs the chain on `source`; returns the last result (`source` itself for
  // an empty chain).
  qzdl::Data<float>* Apply(qzdl::Data<float>* source) const;
};

}  // namespace dataLoader
