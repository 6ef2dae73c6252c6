// Channel reversal, grey conversion and bilinear resizing of float tensors.
#include "dataloader/transform.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace dataLoader {

using qzdl::Data;

namespace {

// Pixels of one plane of a [batch, channel, height, width] tensor.
int64_t PlanePixels(const Data<float>* t) {
  return static_cast<int64_t>(t->GetDim(2)) * static_cast<int64_t>(t->GetDim(3));
}

void CopyFloats(float* to, const float* from, int64_t count) {
  if (count > 0 && to != from) std::memcpy(to, from, static_cast<size_t>(count) * sizeof(float));
}

// A shape with at least four axes, the new ones 1, so that the channel,
// height and width slots can be set.
std::vector<int> AtLeastFourAxes(const std::vector<int>& dims) {
  std::vector<int> shape = dims;
  if (shape.size() < 4) shape.resize(4, 1);
  return shape;
}

}  // namespace

BasicTransform::~BasicTransform() { delete output; }

std::vector<int> BasicTransform::get_output_dims(const std::vector<int>& dims) { return dims; }

std::vector<int> BasicTransform::PrepareOutput(Data<float>* input) {
  std::vector<int> shape = get_output_dims(input->GetDims());
  if (output == nullptr) {
    output = new Data<float>();
    output->Resize(shape);
    output->Reallocate(0.0f);
  } else if (output->GetDims() != shape) {
    output->ClearData();
    output->Resize(shape);
    output->Reallocate(0.0f);
  }
  return shape;
}

Data<float>* BasicTransform::operator()(Data<float>* input) {
  PrepareOutput(input);
  CopyFloats(output->GetCpuData(), input->GetCpuData(),
             std::min(input->Count(0), output->Count(0)));
  return output;
}

Data<float>* ReverseChannel::operator()(Data<float>* input) {
  PrepareOutput(input);
  const int64_t n = PlanePixels(input);
  float* out = output->GetCpuData();
  float* in = input->GetCpuData();
  // Fewer than three planes (other than one) cannot be reversed; such a
  // tensor is copied as well.
  if (output->GetDim(1) == 1 || input->Count(0) < 3 * n) {
    CopyFloats(out, in, input->Count(0));
  } else if (in == out) {
    std::vector<float> temp(in, in + n);
    std::memcpy(out, in + 2 * n, static_cast<size_t>(n) * sizeof(float));
    std::memcpy(out + 2 * n, temp.data(), static_cast<size_t>(n) * sizeof(float));
  } else {
    CopyFloats(out, in + 2 * n, n);
    CopyFloats(out + n, in + n, n);
    CopyFloats(out + 2 * n, in, n);
  }
  return output;
}

std::vector<int> RGB2GRAY::get_output_dims(const std::vector<int>& dims) {
  std::vector<int> shape = dims;
  if (shape.size() < 2) shape.resize(2, 1);
  shape[1] = channels;
  return shape;
}

Data<float>* RGB2GRAY::operator()(Data<float>* input) {
  const std::vector<int> shape = PrepareOutput(input);
  const int64_t n = PlanePixels(input);
  const float* in = input->GetCpuData();
  float* out = output->GetCpuData();
  const int batch = shape[0];
  const bool grey_input = input->GetDim(1) == 1;
  for (int b = 0; b < batch; ++b) {
    if (grey_input) {
      if ((b + 1) * n > input->Count(0)) break;
      for (int c = 0; c < channels; ++c) {
        CopyFloats(out + (static_cast<int64_t>(channels) * b + c) * n, in + b * n, n);
      }
      continue;
    }
    // Element b's planes are taken at 3 * b * N whatever the channel count.
    const int64_t base = 3 * static_cast<int64_t>(b) * n;
    if (base + 3 * n > input->Count(0)) break;  // too few planes: left at zero
    const float* red = in + (bgr_input ? base + 2 * n : base);
    const float* green = in + base + n;
    const float* blue = in + (bgr_input ? base : base + 2 * n);
    for (int c = 0; c < channels; ++c) {
      float* target = out + (static_cast<int64_t>(channels) * b + c) * n;
      for (int64_t i = 0; i < n; ++i) {
        double v = static_cast<double>(green[i]) * 0.589;
        v = std::fma(static_cast<double>(blue[i]), 0.114, v);
        v = std::fma(static_cast<double>(red[i]), 0.299, v);
        target[i] = v < 255.0 ? static_cast<float>(v) : 255.0f;
      }
    }
  }
  return output;
}

std::vector<int> Resize::get_output_dims(const std::vector<int>& dims) {
  std::vector<int> shape = AtLeastFourAxes(dims);
  shape[1] = channels;
  shape[2] = height;
  shape[3] = width;
  return shape;
}

namespace {

// One axis of the interpolation: the first source index, the weights of the
// next and of the first, and the step to the next source pixel.
struct Axis {
  int64_t i0;
  float f;
  float g;
  int64_t step;
};

std::vector<Axis> MakeAxis(int in, int out, int64_t step) {
  std::vector<Axis> axis(static_cast<size_t>(std::max(out, 0)));
  const float scale = static_cast<float>(in) / static_cast<float>(out);
  for (int o = 0; o < out; ++o) {
    const float s = std::fma(scale, static_cast<float>(o) + 0.5f, -0.5f);
    Axis& a = axis[static_cast<size_t>(o)];
    if (s < 0.0f) {
      a.i0 = 0;
      a.f = 0.0f;
      a.g = 1.0f;
    } else {
      a.i0 = static_cast<int64_t>(s);
      a.f = s - static_cast<float>(a.i0);
      a.g = 1.0f - a.f;
    }
    a.step = a.i0 < in - 1 ? step : 0;
  }
  return axis;
}

void InterpolatePlane(const float* in, int64_t in_w, const std::vector<Axis>& ys,
                      const std::vector<Axis>& xs, float* out) {
  for (const Axis& y : ys) {
    const float* row = in + y.i0 * in_w;
    for (const Axis& x : xs) {
      const float a = row[x.i0];
      const float b = row[x.i0 + x.step];
      const float c = row[x.i0 + y.step];
      const float d = row[x.i0 + y.step + x.step];
      const float bottom = std::fma(c, x.g, x.f * d) * y.f;
      *out++ = std::fma(std::fma(a, x.g, x.f * b), y.g, bottom);
    }
  }
}

}  // namespace

Data<float>* Resize::operator()(Data<float>* input) {
  const std::vector<int> shape = PrepareOutput(input);
  const int in_h = input->GetDim(2);
  const int in_w = input->GetDim(3);
  const int64_t in_plane = PlanePixels(input);
  const int64_t out_plane = static_cast<int64_t>(height) * width;
  if (in_h < 1 || in_w < 1 || height < 1 || width < 1 || input->GetCpuData() == nullptr) {
    return output;  // nothing to sample: the result stays zero
  }
  const std::vector<Axis> ys = MakeAxis(in_h, height, in_w);
  const std::vector<Axis> xs = MakeAxis(in_w, width, 1);
  const float* in = input->GetCpuData();
  float* out = output->GetCpuData();
  const int64_t in_planes = input->Count(0) / in_plane;
  const int batch = shape[0];
  if (input->GetDim(1) == 1 && channels == 3) {
    for (int b = 0; b < batch && b < in_planes; ++b) {
      float* first = out + 3 * static_cast<int64_t>(b) * out_plane;
      InterpolatePlane(in + b * in_plane, in_w, ys, xs, first);
      CopyFloats(first + out_plane, first, out_plane);
      CopyFloats(first + 2 * out_plane, first, out_plane);
    }
  } else {
    // Plane k of the output comes from plane k of the input; planes that the
    // input does not have stay zero.
    const int64_t planes = std::min<int64_t>(static_cast<int64_t>(batch) * channels, in_planes);
    for (int64_t k = 0; k < planes; ++k) {
      InterpolatePlane(in + k * in_plane, in_w, ys, xs, out + k * out_plane);
    }
  }
  return output;
}

std::vector<int> TransformHandle::GetOutputDims(std::vector<int> dims) const {
  for (BasicTransform* t : transforms) dims = t->get_output_dims(dims);
  return dims;
}

Data<float>* TransformHandle::Apply(Data<float>* source) const {
  Data<float>* current = source;
  for (BasicTransform* t : transforms) current = (*t)(current);
  return current;
}

}  // namespace dataLoader
