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
#include "runtime/layers/batch_matrix_mul.h"
#include "runtime/layers/concat.h"
#include "runtime/layers/constant.h"
#include "runtime/layers/convolution.h"
#include "runtime/layers/detection.h"
#include "runtime/layers/eltwise.h"
#include "runtime/layers/flip_repeat.h"
#include "runtime/layers/gather_tile.h"
#include "runtime/layers/inner_product.h"
#include "runtime/layers/instance_norm.h"
#include "runtime/layers/dynamic_quantize.h"
#include "runtime/layers/conv3d.h"
#include "runtime/layers/conv_integer.h"
#include "runtime/layers/gemm_layer.h"
#include "runtime/layers/layer_norm.h"
#include "runtime/layers/recurrent.h"
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
      // conv_integer
      {"ConvInteger", &Make<ConvIntegerLayer<float>>},
      // batch_matrix_mul
      {"BatchMatrixMul", &Make<BatchMatrixMulLayer<float>>},
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
      // layer_norm
      {"LayerNorm", &Make<LayerNormLayer<float>>},
      // conv3d
      {"Conv3D", &Make<Conv3DLayer<float>>},
      // gemm_layer
      {"Gemm", &Make<GemmLayer<float>>},
      // dynamic_quantize
      {"DynamicQuantizeLinear", &Make<DynamicQuantizeLinearLayer<float>>},
      // recurrent
      {"LSTM", &Make<LSTMLayer<float>>},
      {"BiLSTM", &Make<LSTMLayer<float>>},
      {"Gru", &Make<GruLayer<float>>},
      // reduce
      {"ReduceMean", &Make<ReduceMeanLayer<float>>},
      {"Reduce", &Make<ReduceLayer<float>>},
      {"ReduceArgs", &Make<ReduceArgsLayer<float>>},
      // space_depth
      {"DepthToSpace", &Make<DepthToSpaceLayer<float>>},
      {"SpaceToDepth", &Make<SpaceToDepthLayer<float>>},
      {"ShufflePixel", &Make<DepthToSpaceLayer<float>>},
      // flip_repeat
      {"Flip", &Make<FlipLayer<float>>},
      {"Repeat", &Make<RepeatLayer<float>>},
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
      {"Arange", &Make<ArangeLayer<float>>},
      // pooling
      {"Pooling", &Make<PoolingLayer<float>>},
      // softmax
      {"Softmax", &Make<SoftmaxLayer<float>>},
      {"SoftmaxMask", &Make<SoftmaxMaskLayer<float>>},
      // eltwise
      {"Eltwise", &Make<EltwiseLayer<float>>},
      {"BroadcastOp", &Make<BroadcastOpLayer<float>>},
      {"BinaryOp", &Make<BroadcastOpLayer<float>>},  // the same layer under the other name
      {"Mean", &Make<MeanLayer<float>>},
      // concat
      {"Concat", &Make<ConcatLayer<float>>},
      // normalization
      {"BatchNormal", &Make<BatchNormalLayer<float>>},
      {"Scale", &Make<ScaleLayer<float>>},
      // Both names load; "L2Normalization" is the one written by the importer
      // and named by the converter's type tables.
      {"L2Normalize", &Make<L2NormalizeLayer<float>>},
      {"L2Normalization", &Make<L2NormalizeLayer<float>>},
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
      {"ReflectionPadding", &Make<PaddingLayer<float>>},
      {"ReplicationPadding", &Make<PaddingLayer<float>>},
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

namespace {

template <class L>
std::unique_ptr<Layer<unsigned char>> Make8() {
  return std::make_unique<L>();
}

// Edited by hand: how a type computes in the 8-bit net (docs/int8.md). A
// type of the float table that is not here runs as a float island.
const std::map<std::string, LayerFactory<unsigned char>>& Int8Table() {
  static const std::map<std::string, LayerFactory<unsigned char>> table = {
      // integer arithmetic
      {"Convolution", &Make8<ConvolutionInt8Layer>},
      {"Deconvolution", &Make8<DeconvolutionInt8Layer>},
      {"InnerProduct", &Make8<InnerProductInt8Layer>},
      {"Eltwise", &Make8<EltwiseInt8Layer>},
      {"BroadcastOp", &Make8<BroadcastOpInt8Layer>},  // div, equal: float island
      {"BinaryOp", &Make8<BroadcastOpInt8Layer>},
      {"Pooling", &Make8<PoolingInt8Layer>},          // ave in integers, max moves codes
      // unary activations: a table of 256 codes
      {"ReLU", &Make8<TableInt8Layer>},
      {"ReLUX", &Make8<TableInt8Layer>},
      {"LeakyRelu", &Make8<TableInt8Layer>},
      {"PReLU", &Make8<TableInt8Layer>},
      {"Elu", &Make8<TableInt8Layer>},
      {"Sigmoid", &Make8<TableInt8Layer>},
      {"TanH", &Make8<TableInt8Layer>},
      {"Swish", &Make8<TableInt8Layer>},
      {"Mish", &Make8<TableInt8Layer>},
      {"Gelu", &Make8<TableInt8Layer>},
      {"Softplus", &Make8<TableInt8Layer>},
      {"Selu", &Make8<TableInt8Layer>},
      {"HardSigmoid", &Make8<TableInt8Layer>},
      {"Clip", &Make8<TableInt8Layer>},
      {"Power", &Make8<TableInt8Layer>},
      {"UnaryOp", &Make8<TableInt8Layer>},
      {"Dropout", &Make8<TableInt8Layer>},
      // data movers: codes moved by the float layer's kernel
      {"Reshape", &Make8<MoverInt8Layer>},
      {"Flatten", &Make8<MoverInt8Layer>},
      {"Permute", &Make8<MoverInt8Layer>},
      {"Concat", &Make8<MoverInt8Layer>},
      {"Slice", &Make8<MoverInt8Layer>},
      {"Split", &Make8<MoverInt8Layer>},
      {"Crop", &Make8<MoverInt8Layer>},
      {"Gather", &Make8<MoverInt8Layer>},
      {"Tile", &Make8<MoverInt8Layer>},
      {"Squeeze", &Make8<MoverInt8Layer>},
      {"ExpandDims", &Make8<MoverInt8Layer>},
      {"ShuffleChannel", &Make8<MoverInt8Layer>},
      {"DepthToSpace", &Make8<MoverInt8Layer>},
      {"SpaceToDepth", &Make8<MoverInt8Layer>},
      {"ShufflePixel", &Make8<MoverInt8Layer>},
      {"Flip", &Make8<MoverInt8Layer>},
      {"Repeat", &Make8<MoverInt8Layer>},
      {"Upsample", &Make8<MoverInt8Layer>},  // bilinear: float island
      {"Padding", &Make8<MoverInt8Layer>},
      {"ZeroPadding", &Make8<MoverInt8Layer>},
      {"ReflectionPadding", &Make8<MoverInt8Layer>},
      {"ReplicationPadding", &Make8<MoverInt8Layer>},
      // float island, named so that no integer kernel is assumed: both
      // operands are activations, each on a grid of its own
      {"BatchMatrixMul", &Make8<FloatIslandLayer>},
  };
  return table;
}

}  // namespace

// The 8-bit net knows every type of the float table.
template <>
std::unique_ptr<Layer<unsigned char>> CreateLayer<unsigned char>(const std::string& type) {
  if (FloatTable().count(type) == 0) return nullptr;
  auto it = Int8Table().find(type);
  if (it != Int8Table().end()) return it->second();
  return std::make_unique<FloatIslandLayer>();
}

template <>
std::vector<std::string> RegisteredLayerTypes<unsigned char>() {
  return RegisteredLayerTypes<float>();
}

}  // namespace qzdl
