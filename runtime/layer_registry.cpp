#include "runtime/layer_registry.h"

#include <map>

#include "runtime/int8/activation_int8.h"
#include "runtime/int8/eltwise_int8.h"
#include "runtime/int8/float_island_layer.h"
#include "runtime/int8/mover_int8.h"
#include "runtime/int8/pooling_int8.h"
#include "runtime/int8/weighted_int8.h"
#include "runtime/layers/activation.h"
#include "runtime/layers/activation_extra.h"
#include "runtime/layers/concat.h"
#include "runtime/layers/constant.h"
#include "runtime/layers/convolution.h"
#include "runtime/layers/detection.h"
#include "runtime/layers/eltwise.h"
#include "runtime/layers/gather_tile.h"
#include "runtime/layers/inner_product.h"
#include "runtime/layers/instance_norm.h"
#include "runtime/layers/log_softmax.h"
#include "runtime/layers/lrn.h"
#include "runtime/layers/math.h"
#include "runtime/layers/normalization.h"
#include "runtime/layers/padding.h"
#include "runtime/layers/pooling.h"
#include "runtime/layers/reduce.h"
#include "runtime/layers/reshape.h"
#include "runtime/layers/shuffle_channel.h"
#include "runtime/layers/softmax.h"
#include "runtime/layers/space_depth.h"
#include "runtime/layers/split_slice.h"
#include "runtime/layers/upsample.h"

namespace qzdl {

namespace {

template <class L>
std::unique_ptr<Layer<float>> Make() {
  return std::make_unique<L>();
}

// Edited by hand: one row per type name, grouped by layer family.
std::map<std::string, LayerFactory<float>>& FloatTable() {
  static std::map<std::string, LayerFactory<float>> table = {
      // convolution
      {"Convolution", &Make<ConvolutionLayer<float>>},
      {"Deconvolution", &Make<DeconvolutionLayer<float>>},
      {"InnerProduct", &Make<InnerProductLayer<float>>},
      // activation
      {"ReLU", &Make<ReluLayer<float>>},
      {"ReLUX", &Make<ReluXLayer<float>>},
      {"LeakyRelu", &Make<LeakyReluLayer<float>>},
      {"PReLU", &Make<PReluLayer<float>>},
      {"Elu", &Make<EluLayer<float>>},
      {"Sigmoid", &Make<SigmoidLayer<float>>},
      {"TanH", &Make<TanHLayer<float>>},
      {"Swish", &Make<SwishLayer<float>>},
      // activation_extra
      {"Mish", &Make<MishLayer<float>>},
      {"Gelu", &Make<GeluLayer<float>>},
      {"Softplus", &Make<SoftplusLayer<float>>},
      {"Selu", &Make<SeluLayer<float>>},
      {"HardSigmoid", &Make<HardSigmoidLayer<float>>},
      // log_softmax
      {"LogSoftmax", &Make<LogSoftmaxLayer<float>>},
      // lrn
      {"Lrn", &Make<LrnLayer<float>>},
      // instance_norm
      {"InstanceNormalization", &Make<InstanceNormalizationLayer<float>>},
      // reduce
      {"ReduceMean", &Make<ReduceMeanLayer<float>>},
      // space_depth
      {"DepthToSpace", &Make<DepthToSpaceLayer<float>>},
      {"SpaceToDepth", &Make<SpaceToDepthLayer<float>>},
      // gather_tile
      {"Gather", &Make<GatherLayer<float>>},
      {"Tile", &Make<TileLayer<float>>},
      {"Crop", &Make<CropLayer<float>>},
      {"Squeeze", &Make<SqueezeLayer<float>>},
      {"ExpandDims", &Make<ExpandDimsLayer<float>>},
      // math
      {"UnaryOp", &Make<UnaryOpLayer<float>>},
      {"Power", &Make<PowerLayer<float>>},
      {"Clip", &Make<ClipLayer<float>>},
      // constant
      {"Constant", &Make<ConstantLayer<float>>},
      // pooling
      {"Pooling", &Make<PoolingLayer<float>>},
      // softmax
      {"Softmax", &Make<SoftmaxLayer<float>>},
      // eltwise
      {"Eltwise", &Make<EltwiseLayer<float>>},
      {"BroadcastOp", &Make<BroadcastOpLayer<float>>},
      // concat
      {"Concat", &Make<ConcatLayer<float>>},
      // normalization
      {"BatchNormal", &Make<BatchNormalLayer<float>>},
      {"Scale", &Make<ScaleLayer<float>>},
      {"L2Normalize", &Make<L2NormalizeLayer<float>>},
      // detection
      {"DetectionOutput", &Make<DetectionOutputLayer<float>>},
      {"PriorBox", &Make<PriorBoxLayer<float>>},
      // reshape
      {"Dropout", &Make<DropoutLayer<float>>},
      {"Flatten", &Make<FlattenLayer<float>>},
      {"Permute", &Make<PermuteLayer<float>>},
      {"Reshape", &Make<ReshapeLayer<float>>},
      // split_slice
      {"Slice", &Make<SliceLayer<float>>},
      {"Split", &Make<SplitLayer<float>>},
      // upsample
      {"Upsample", &Make<UpsampleLayer<float>>},
      // padding
      {"Padding", &Make<PaddingLayer<float>>},
      {"ZeroPadding", &Make<PaddingLayer<float>>},
      // shuffle_channel
      {"ShuffleChannel", &Make<ShuffleChannelLayer<float>>},
  };
  return table;
}

}  // namespace

template <>
std::unique_ptr<Layer<float>> CreateLayer<float>(const std::string& type) {
  auto it = FloatTable().find(type);
  return it == FloatTable().end() ? nullptr : it->second();
}

template <>
std::vector<std::string> RegisteredLayerTypes<float>() {
  std::vector<std::string> names;
  for (const auto& kv : FloatTable()) names.push_back(kv.first);
  return names;
}

template <>
void RegisterLayerTypeForTesting<float>(const std::string& type, LayerFactory<float> factory) {
  FloatTable()[type] = factory;
}

// The 8-bit net knows every type of the table: convolution in integers, the
// others as float islands until their integer kernels land (docs/int8.md).
template <>
std::unique_ptr<Layer<unsigned char>> CreateLayer<unsigned char>(const std::string& type) {
  if (FloatTable().count(type) == 0) return nullptr;
  if (type == "Convolution") return std::make_unique<ConvolutionInt8Layer>();
  if (type == "InnerProduct") return std::make_unique<InnerProductInt8Layer>();
  if (type == "Deconvolution") return std::make_unique<DeconvolutionInt8Layer>();
  if (type == "Eltwise") return std::make_unique<EltwiseInt8Layer>();
  if (type == "BroadcastOp") return std::make_unique<BroadcastOpInt8Layer>();
  if (type == "Pooling") return std::make_unique<PoolingInt8Layer>();
  for (const char* t : {"ReLU", "ReLUX", "LeakyRelu", "PReLU", "Elu", "Sigmoid", "TanH", "Swish",
                        "Mish", "Gelu", "Softplus", "Selu", "HardSigmoid", "Clip", "Power",
                        "UnaryOp", "Dropout"})
    if (type == t) return std::make_unique<TableInt8Layer>();
  for (const char* t : {"Reshape", "Flatten", "Permute", "Concat", "Slice", "Split", "Crop",
                        "Gather", "Tile", "Squeeze", "ExpandDims", "ShuffleChannel",
                        "DepthToSpace", "SpaceToDepth", "Upsample", "Padding", "ZeroPadding"})
    if (type == t) return std::make_unique<MoverInt8Layer>();
  return std::make_unique<FloatIslandLayer>();
}

template <>
std::vector<std::string> RegisteredLayerTypes<unsigned char>() {
  return RegisteredLayerTypes<float>();
}

}  // namespace qzdl
