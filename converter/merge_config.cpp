#include "converter/merge_config.h"

namespace qzdl {
namespace mergeConfig {

MergeConfigIndicator::MergeConfigIndicator()
    : independent{"Arange",
                  "AttentionQuantization",
                  "BatchMatrix",
                  "BatchNormal",
                  "BiLSTM",
                  "BinaryOp",
                  "BroadcastOp",
                  "ChannelWise",
                  "Conv3D",
                  "Convolution",
                  "Deconvolution",
                  "DetectionOutput",
                  "Eltwise",
                  "Elu",
                  "Gelu",
                  "Gemm",
                  "Gru",
                  "InnerProduct",
                  "InstanceNormalization",
                  "L2Normalization",
                  "LayerNorm",
                  "LeakyRelu",
                  "Lrn",
                  "LSTM",
                  "Mean",
                  "Mish",
                  "Normalize",
                  "Power",
                  "PReLU",
                  "ReLUX",
                  "Requantize",
                  "Scale",
                  "Selu",
                  "Sigmoid",
                  "Softmax",
                  "SoftmaxMask",
                  "SoftmaxTopK",
                  "Softplus",
                  "Swish",
                  "TanH",
                  "UnaryOp",
                  "ReduceMean",
                  "BatchMatrixMul",
                  "LogSoftmax"},
      follow{"ReLU",
             "Pooling",
             "Dropout",
             "Flatten",
             "Split",
             "Permute",
             "Reshape",
             "DepthToSpace",
             "Slice",
             "Padding",
             "Trim",
             "Upsample",
             "ShuffleChannel",
             "ShufflePixel",
             "MergeBatch",
             "ZeroPadding",
             "SliceLike",
             "SliceAxis",
             "Tile",
             "ExpandDims",
             "Repeat",
             "Flip",
             "ReflectionPadding",
             "ReplicationPadding",
             "Crop",
             "SpaceToDepth",
             "Squeeze",
             "ReduceArgs",
             "Gather"},
      merge{"Concat"} {}

void FindAllShareConfigLayer(MergeConfigIndicator* indicator,
                             std::map<std::string, graph_node> graph, std::string const& layerName,
                             std::set<int>& found) {
  const graph_node node = graph[layerName];
  if (found.count(node.index)) return;
  if (indicator->merge.count(node.type) == 0 && indicator->follow.count(node.type) == 0) return;
  found.insert(node.index);
  for (const std::string& name : node.inputs)
    FindAllShareConfigLayer(indicator, graph, name, found);
  for (const std::string& name : node.outputs)
    FindAllShareConfigLayer(indicator, graph, name, found);
}

void FindAllShareDataTypeLayer(MergeConfigIndicator* indicator,
                               std::map<std::string, graph_node> graph,
                               std::string const& layerName, std::set<int>& found) {
  const graph_node node = graph[layerName];
  if (found.count(node.index)) return;
  found.insert(node.index);
  auto visit = [&](const std::string& name) {
    const graph_node& neighbour = graph[name];
    if (indicator->follow.count(neighbour.type) && !found.count(neighbour.index))
      FindAllShareDataTypeLayer(indicator, graph, name, found);
  };
  for (const std::string& name : node.inputs) visit(name);
  for (const std::string& name : node.outputs) visit(name);
}

}  // namespace mergeConfig
}  // namespace qzdl
