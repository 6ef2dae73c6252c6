#include "runtime/layers/convolution.h"

#include <climits>
#include <cstdint>
#include <initializer_list>

#include "runtime/layers/normalization.h"

namespace qzdl {

namespace {

// The value of the first key present (most specific first), or `def`, with
// the key it came from for messages.
struct Picked {
  int value;
  std::string key;
};

Picked Pick(const ParamReader& param, std::initializer_list<const char*> keys, int def) {
  for (const char* key : keys)
    if (param.Has(key)) return {param.Int(key, 0), key};
  return {def, *keys.begin()};
}

int AtLeast(const ParamReader& param, const Picked& p, int min) {
  if (p.value < min)
    param.Fail("param \"" + p.key + "\" must be >= " + std::to_string(min) + ", got " +
               std::to_string(p.value));
  return p.value;
}

std::string Pair(int64_t h, int64_t w) { return std::to_string(h) + "x" + std::to_string(w); }

// The GEMM library takes its dimensions and strides as ints, and so do the
// kernels' tap indices: a patch of (input channel, tap) values of a
// convolution, or a column of (output channel, tap) values of a
// deconvolution, must fit one.
template <typename T>
void CheckGemmRows(const Layer<T>& layer, const std::string& what, int channels,
                   const ConvParams& p) {
  const int64_t n = int64_t(channels) * p.kernel_h * p.kernel_w;
  if (n > INT_MAX)
    layer.Fail(what + " of " + std::to_string(channels) + " channels per group x kernel " +
               Pair(p.kernel_h, p.kernel_w) + " = " + std::to_string(n) +
               " values is more than 2147483647, the most a GEMM dimension takes");
}

// Checks the input of a convolution or deconvolution layer against the
// params and, once they exist, the weights.
template <typename T>
void CheckInput(const Layer<T>& layer, const Data<T>& in, const ConvParams& p,
                const std::vector<Data<T>*>& weights) {
  const int channels = in.GetDim(1);
  if (channels % p.group != 0)
    layer.Fail("input \"" + in.GetName() + "\" has " + std::to_string(channels) +
               " channels, not divisible by group " + std::to_string(p.group));
  if (!weights.empty() && weights[0]->GetDim(1) != channels / p.group)
    layer.Fail("input \"" + in.GetName() + "\" has shape " + DimsToString(in.GetDims()) +
               ", but the weights " + DimsToString(weights[0]->GetDims()) + " expect " +
               std::to_string(weights[0]->GetDim(1) * p.group) + " channels");
}

std::vector<WeightSpec> ConvWeightBlobs(const ConvParams& p, int in_channels) {
  std::vector<WeightSpec> blobs{
      {"weight", {p.num_output, in_channels / p.group, p.kernel_h, p.kernel_w}}};
  if (p.bias_term) blobs.push_back({"bias", {p.num_output}});
  return blobs;
}

}  // namespace

ConvGeometry InputGeometry(const std::vector<int>& dims, const ConvParams& p) {
  ConvGeometry g;
  g.batch = dims[0];
  g.in_c = dims[1];
  g.in_h = dims[2];
  g.in_w = dims[3];
  g.out_c = p.num_output;
  g.kernel_h = p.kernel_h;
  g.kernel_w = p.kernel_w;
  g.stride_h = p.stride_h;
  g.stride_w = p.stride_w;
  g.pad_top = p.pad_top;
  g.pad_bottom = p.pad_bottom;
  g.pad_left = p.pad_left;
  g.pad_right = p.pad_right;
  g.dilation_h = p.dilation_h;
  g.dilation_w = p.dilation_w;
  g.group = p.group;
  return g;
}

ConvParams ReadConvParams(const ParamReader& param, bool deconvolution) {
  ConvParams p;
  p.num_output = param.RequiredInt("num_output");
  AtLeast(param, {p.num_output, "num_output"}, 1);
  if (!param.Has("kernel_size") && !(param.Has("kernel_h") && param.Has("kernel_w")))
    param.Fail("missing param \"kernel_size\" (or both \"kernel_h\" and \"kernel_w\")");
  p.kernel_h = AtLeast(param, Pick(param, {"kernel_h", "kernel_size"}, 0), 1);
  p.kernel_w = AtLeast(param, Pick(param, {"kernel_w", "kernel_size"}, 0), 1);
  p.stride_h = AtLeast(param, Pick(param, {"stride_h", "stride"}, 1), 1);
  p.stride_w = AtLeast(param, Pick(param, {"stride_w", "stride"}, 1), 1);
  p.pad_top = AtLeast(param, Pick(param, {"pad_top", "pad_h", "pad"}, 0), 0);
  p.pad_bottom = AtLeast(param, Pick(param, {"pad_bottom", "pad_h", "pad"}, 0), 0);
  p.pad_left = AtLeast(param, Pick(param, {"pad_left", "pad_w", "pad"}, 0), 0);
  p.pad_right = AtLeast(param, Pick(param, {"pad_right", "pad_w", "pad"}, 0), 0);
  p.dilation_h = AtLeast(param, Pick(param, {"dilation_h", "dilation"}, 1), 1);
  p.dilation_w = AtLeast(param, Pick(param, {"dilation_w", "dilation"}, 1), 1);
  p.group = AtLeast(param, Pick(param, {"group"}, 1), 1);
  p.bias_term = param.Bool("bias_term", true);
  if (p.num_output % p.group != 0)
    param.Fail("param \"num_output\" (" + std::to_string(p.num_output) +
               ") must be divisible by \"group\" (" + std::to_string(p.group) + ")");
  if (deconvolution) {
    const Picked oh = Pick(param, {"output_pad_h", "output_pad"}, 0);
    const Picked ow = Pick(param, {"output_pad_w", "output_pad"}, 0);
    p.output_pad_h = AtLeast(param, oh, 0);
    p.output_pad_w = AtLeast(param, ow, 0);
    // An output pad adds rows that no stride step or dilated tap could reach
    // otherwise; more would only append bias.
    if (p.output_pad_h >= p.stride_h && p.output_pad_h >= p.dilation_h)
      param.Fail("param \"" + oh.key + "\" (" + std::to_string(p.output_pad_h) +
                 ") must be smaller than stride_h (" + std::to_string(p.stride_h) +
                 ") or dilation_h (" + std::to_string(p.dilation_h) + ")");
    if (p.output_pad_w >= p.stride_w && p.output_pad_w >= p.dilation_w)
      param.Fail("param \"" + ow.key + "\" (" + std::to_string(p.output_pad_w) +
                 ") must be smaller than stride_w (" + std::to_string(p.stride_w) +
                 ") or dilation_w (" + std::to_string(p.dilation_w) + ")");
  }
  return p;
}

// ---------------------------------------------------------------------------
// Convolution

template <>
std::string ConvolutionLayer<float>::GetTypeDetail() {
  return this->GetType() + "(" + Pair(params_.kernel_h, params_.kernel_w) + ")";
}

template <>
void ConvolutionLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  params_ = ReadConvParams(param, false);
}

template <>
void ConvolutionLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const ConvParams& p = params_;
  CheckInput(*this, *this->in(), p, this->GetWeights());
  ConvGeometry g = InputGeometry(this->in()->GetDims(), p);
  const int64_t padded_h = int64_t(g.in_h) + p.pad_top + p.pad_bottom;
  const int64_t padded_w = int64_t(g.in_w) + p.pad_left + p.pad_right;
  const int64_t extent_h = int64_t(p.dilation_h) * (p.kernel_h - 1) + 1;
  const int64_t extent_w = int64_t(p.dilation_w) * (p.kernel_w - 1) + 1;
  if (padded_h > INT_MAX / 2 || padded_w > INT_MAX / 2 || extent_h > INT_MAX / 2 ||
      extent_w > INT_MAX / 2)
    this->Fail("kernel, dilation or pads are too large");
  if (extent_h > padded_h || extent_w > padded_w)
    this->Fail("kernel extent " + Pair(extent_h, extent_w) + " (kernel " +
               Pair(p.kernel_h, p.kernel_w) + ", dilation " + Pair(p.dilation_h, p.dilation_w) +
               ") is larger than the padded input " + Pair(padded_h, padded_w));
  CheckGemmRows(*this, "a patch", g.InPerGroup(), p);
  g.out_h = g.ConvOutH();
  g.out_w = g.ConvOutW();
  this->out()->Resize({g.batch, g.out_c, g.out_h, g.out_w});
  geometry_ = g;
  // Only the depthwise kernel walks planes beyond the int range.
  if (!kernel_.Configure(g, p.bias_term))
    this->Fail("output plane " + Pair(g.out_h, g.out_w) + " of " + std::to_string(g.OutPlane()) +
               " positions is more than 2147483647, the most a GEMM dimension takes; only a " +
               "depthwise convolution runs on such planes");
}

template <>
std::vector<WeightSpec> ConvolutionLayer<float>::WeightSpecs() {
  return ConvWeightBlobs(params_, this->in()->GetDim(1));
}

template <>
bool ConvolutionLayer<float>::FuseEpilogue(const Epilogue& e, Data<float>* dst,
                                           ChannelAffine* affine) {
  if (affine != nullptr && affine->AffineChannels() != params_.num_output) return false;
  epilogue_ = e;
  affine_ = affine;
  affine_epoch_ = ~uint64_t(0);
  if (affine != nullptr) {
    // Sized here, filled at the first run (and after weights change).
    shift_.assign(params_.num_output, 0.0f);
    mult_.assign(params_.num_output, 0.0f);
    add_.assign(params_.num_output, 0.0f);
    epilogue_.shift = shift_.data();
    epilogue_.mult = mult_.data();
    epilogue_.add = add_.data();
  } else {
    epilogue_.shift = epilogue_.mult = epilogue_.add = nullptr;
  }
  fused_dst_ = epilogue_.Active() ? dst : nullptr;
  return true;
}

template <>
void ConvolutionLayer<float>::Run() {
  const float* bias = params_.bias_term ? this->weight(1)->GetCpuData() : nullptr;
  Data<float>* y = fused_dst_ != nullptr ? fused_dst_ : this->out();
  const NetContext* ctx = this->context();
  if (affine_ != nullptr && ctx != nullptr && affine_epoch_ != ctx->weights_epoch) {
    for (int c = 0; c < params_.num_output; ++c)
      affine_->AffineOf(c, &shift_[c], &mult_[c], &add_[c]);
    affine_epoch_ = ctx->weights_epoch;
  }
  const bool same_weights =
      ctx != nullptr && ctx->inference && ctx->weights_epoch == weights_epoch_;
  kernel_.Run(this->in()->GetCpuData(), this->weight(0)->GetCpuData(), bias, y->GetCpuData(),
              epilogue_, same_weights);
  if (ctx != nullptr) weights_epoch_ = ctx->weights_epoch;
}

// ---------------------------------------------------------------------------
// Deconvolution

template <>
std::string DeconvolutionLayer<float>::GetTypeDetail() {
  return this->GetType() + "(" + Pair(params_.kernel_h, params_.kernel_w) + ")";
}

template <>
void DeconvolutionLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(1, 1, 1, 1);
  params_ = ReadConvParams(param, true);
}

template <>
void DeconvolutionLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  const ConvParams& p = params_;
  CheckInput(*this, *this->in(), p, this->GetWeights());
  ConvGeometry g = InputGeometry(this->in()->GetDims(), p);
  auto out_size = [](int64_t in, int64_t stride, int64_t pad_sum, int64_t dilation, int64_t kernel,
                     int64_t output_pad) {
    return (in - 1) * stride - pad_sum + dilation * (kernel - 1) + 1 + output_pad;
  };
  const int64_t out_h = out_size(g.in_h, p.stride_h, int64_t(p.pad_top) + p.pad_bottom,
                                 p.dilation_h, p.kernel_h, p.output_pad_h);
  const int64_t out_w = out_size(g.in_w, p.stride_w, int64_t(p.pad_left) + p.pad_right,
                                 p.dilation_w, p.kernel_w, p.output_pad_w);
  if (out_h < 1 || out_w < 1)
    this->Fail("output would be " + Pair(out_h, out_w) + ": the pads (top " +
               std::to_string(p.pad_top) + ", bottom " + std::to_string(p.pad_bottom) + ", left " +
               std::to_string(p.pad_left) + ", right " + std::to_string(p.pad_right) +
               ") remove more than the deconvolution produces");
  const int64_t reach_h = (int64_t(g.in_h) - 1) * p.stride_h + int64_t(p.dilation_h) * p.kernel_h;
  const int64_t reach_w = (int64_t(g.in_w) - 1) * p.stride_w + int64_t(p.dilation_w) * p.kernel_w;
  if (out_h > INT_MAX / 2 || out_w > INT_MAX / 2 || reach_h > INT_MAX / 2 || reach_w > INT_MAX / 2)
    this->Fail("output would be " + Pair(out_h, out_w) + ", which is too large");
  g.out_h = static_cast<int>(out_h);
  g.out_w = static_cast<int>(out_w);
  CheckGemmRows(*this, "a column", g.OutPerGroup(), p);
  if (g.InPlane() > INT_MAX)
    this->Fail("input plane " + Pair(g.in_h, g.in_w) + " of " + std::to_string(g.InPlane()) +
               " positions is more than 2147483647, the most a GEMM dimension takes");
  this->out()->Resize({g.batch, g.out_c, g.out_h, g.out_w});
  geometry_ = g;
  if (!kernel_.Configure(g, p.bias_term)) this->Fail("no kernel takes this shape");
}

template <>
std::vector<WeightSpec> DeconvolutionLayer<float>::WeightSpecs() {
  return ConvWeightBlobs(params_, this->in()->GetDim(1));
}

template <>
void DeconvolutionLayer<float>::Run() {
  const float* bias = params_.bias_term ? this->weight(1)->GetCpuData() : nullptr;
  kernel_.Run(this->in()->GetCpuData(), this->weight(0)->GetCpuData(), bias,
              this->out()->GetCpuData());
}

}  // namespace qzdl
