#include "runtime/layers/conv3d.h"

#include <string>

#include "runtime/kernels/parallel.h"

namespace qzdl {

namespace {
constexpr const char* kAxis[3] = {"d", "h", "w"};
constexpr const char* kBegin[3] = {"pad_front", "pad_top", "pad_left"};
constexpr const char* kEnd[3] = {"pad_back", "pad_bottom", "pad_right"};
}  // namespace

template <>
void Conv3DLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  num_output_ = param.RequiredInt("num_output");
  if (num_output_ < 1)
    param.Fail("param \"num_output\" must be at least 1, got " + std::to_string(num_output_));
  group_ = param.Int("group", 1);
  if (group_ < 1 || num_output_ % group_ != 0)
    param.Fail("param \"group\" " + std::to_string(group_) + " must be positive and divide " +
               "num_output " + std::to_string(num_output_));
  bias_term_ = param.Bool("bias_term", true);
  for (int a = 0; a < 3; ++a) {
    const std::string axis = kAxis[a];
    kernel_[a] = param.RequiredInt("kernel_" + axis);
    stride_[a] = param.Int("stride_" + axis, 1);
    dilation_[a] = param.Int("dilation_" + axis, 1);
    pad_begin_[a] = param.Int(kBegin[a], 0);
    pad_end_[a] = param.Int(kEnd[a], 0);
    if (kernel_[a] < 1 || stride_[a] < 1 || dilation_[a] < 1 || pad_begin_[a] < 0 ||
        pad_end_[a] < 0 || kernel_[a] > 65536 || dilation_[a] > 65536 || pad_begin_[a] > 65536 ||
        pad_end_[a] > 65536)
      param.Fail("params of axis " + axis +
                 ": kernel, stride and dilation must be in [1, 65536] and pads in [0, 65536]");
  }
}

template <>
void Conv3DLayer<float>::Reshape() {
  const Data<float>* x = this->in();
  if (x->NumAxes() != 5)
    this->Fail("input \"" + x->GetName() + "\" has shape " + DimsToString(x->GetDims()) +
               "; it must be [N, C, D, H, W]");
  const int channels = x->GetDim(1);
  if (channels % group_ != 0)
    this->Fail("input \"" + x->GetName() + "\" has " + std::to_string(channels) +
               " channels, which group " + std::to_string(group_) + " does not divide");
  if (!this->GetWeights().empty() && channels != channels_)
    this->Fail("input \"" + x->GetName() + "\" now has " + std::to_string(channels) +
               " channels, the weights were made for " + std::to_string(channels_));
  channels_ = channels;
  std::vector<int> dims = {x->GetDim(0), num_output_};
  for (int a = 0; a < 3; ++a) {
    in_[a] = x->GetDim(2 + a);
    const int64_t extent = int64_t(dilation_[a]) * (kernel_[a] - 1) + 1;
    const int64_t padded = int64_t(in_[a]) + pad_begin_[a] + pad_end_[a];
    if (padded < extent)
      this->Fail("the kernel (extent " + std::to_string(extent) + ") is larger than axis " +
                 kAxis[a] + " of input \"" + x->GetName() + "\" with its pads (" +
                 std::to_string(padded) + ")");
    out_[a] = static_cast<int>((padded - extent) / stride_[a] + 1);
    dims.push_back(out_[a]);
  }
  this->out()->Resize(dims);
}

template <>
std::vector<WeightSpec> Conv3DLayer<float>::WeightSpecs() {
  std::vector<WeightSpec> specs = {
      {"weight", {num_output_, channels_ / group_, kernel_[0], kernel_[1], kernel_[2]}}};
  if (bias_term_) specs.push_back({"bias", {num_output_}});
  return specs;
}

template <>
void Conv3DLayer<float>::Run() {
  const float* x = this->in()->GetCpuData();
  const float* w = this->weight(0)->GetCpuData();
  const float* bias = bias_term_ ? this->weight(1)->GetCpuData() : nullptr;
  float* y = this->out()->GetCpuData();
  const int batch = this->in()->GetDim(0), M = num_output_, G = group_;
  const int cin_g = channels_ / G, m_g = M / G;
  const std::array<int, 3> K = kernel_, S = stride_, Dl = dilation_, P = pad_begin_, I = in_, O = out_;
  const int64_t in_plane = int64_t(I[0]) * I[1] * I[2], out_plane = int64_t(O[0]) * O[1] * O[2];
  const int64_t taps = int64_t(K[0]) * K[1] * K[2];
  // One task per output plane (item, channel): every output sums its
  // window in double, channel by channel and tap by tap, padding read as 0.
  ParallelFor(int64_t(batch) * M, [=](int64_t begin, int64_t end) {
    for (int64_t t = begin; t < end; ++t) {
      const int n = static_cast<int>(t / M), m = static_cast<int>(t % M), g = m / m_g;
      const float* wm = w + int64_t(m) * cin_g * taps;
      float* ym = y + t * out_plane;
      for (int od = 0; od < O[0]; ++od)
        for (int oh = 0; oh < O[1]; ++oh)
          for (int ow = 0; ow < O[2]; ++ow) {
            double acc = bias != nullptr ? bias[m] : 0.0;
            for (int c = 0; c < cin_g; ++c) {
              const float* xc = x + (int64_t(n) * channels_ + int64_t(g) * cin_g + c) * in_plane;
              const float* wc = wm + int64_t(c) * taps;
              for (int kd = 0; kd < K[0]; ++kd) {
                // int64: the padded axis may pass 2^31 - 1.
                const int64_t id = int64_t(od) * S[0] - P[0] + int64_t(kd) * Dl[0];
                if (id < 0 || id >= I[0]) continue;
                for (int kh = 0; kh < K[1]; ++kh) {
                  const int64_t ih = int64_t(oh) * S[1] - P[1] + int64_t(kh) * Dl[1];
                  if (ih < 0 || ih >= I[1]) continue;
                  for (int kw = 0; kw < K[2]; ++kw) {
                    const int64_t iw = int64_t(ow) * S[2] - P[2] + int64_t(kw) * Dl[2];
                    if (iw < 0 || iw >= I[2]) continue;
                    acc += double(wc[(int64_t(kd) * K[1] + kh) * K[2] + kw]) *
                           xc[(id * I[1] + ih) * I[2] + iw];
                  }
                }
              }
            }
            ym[(int64_t(od) * O[1] + oh) * O[2] + ow] = static_cast<float>(acc);
          }
    }
  });
}

}  // namespace qzdl
