// The last act of a conversion: an 8-bit net from the same description,
// sharing the finished configuration, decides which tensors stay float,
// quantizes the float weights and writes the quantized weights and the
// hybrid description beside them.
#include <cstdio>
#include <memory>
#include <set>

#include "converter/converter.h"
#include "converter/merge_config.h"
#include "quantization/utils.h"
#include "runtime/errors.h"
#include "runtime/file_read.h"

namespace qzdl {
namespace modelConverter {

namespace {

void MarkAll(const std::vector<Data<unsigned char>*>& tensors, const char* type) {
  for (Data<unsigned char>* t : tensors) t->ChangeDataType(type);
}

// -L: tensors of the listed layer types, and of the data-moving layers
// around them, are "int8"; the other layers' outputs and the net inputs are
// "float". Later marks overwrite earlier ones.
void MarkDataTypes(Net<unsigned char>* net, const std::set<std::string>& types,
                   const std::map<std::string, mergeConfig::graph_node>& graph) {
  for (int i = 0; i < net->GetInputCount(); ++i) net->GetInputData(i)->ChangeDataType("float");
  std::vector<Layer<unsigned char>*>& layers = net->GetLayers();
  for (Layer<unsigned char>* layer : layers) {
    if (types.count(layer->GetType())) continue;
    MarkAll(layer->GetOutputs(), "float");
    layer->SyncDataType();
  }
  mergeConfig::MergeConfigIndicator indicator;
  for (Layer<unsigned char>* layer : layers) {
    if (types.count(layer->GetType()) == 0) continue;
    std::set<int> found;
    mergeConfig::FindAllShareDataTypeLayer(&indicator, graph, layer->GetName(), found);
    for (int index : found) {
      Layer<unsigned char>* other = layers.at(index);
      if (other->GetType() == "Reshape") {
        if (!other->GetInputs().empty()) other->GetInputs()[0]->ChangeDataType("int8");
        if (!other->GetOutputs().empty()) other->GetOutputs()[0]->ChangeDataType("int8");
      } else {
        MarkAll(other->GetInputs(), "int8");
        MarkAll(other->GetOutputs(), "int8");
      }
      other->SyncDataType();
    }
    MarkAll(layer->GetInputs(), "int8");
    MarkAll(layer->GetOutputs(), "int8");
    layer->SyncDataType();
  }
}

}  // namespace

void Converter::SaveQuantizedModel() const {
  const SourceNames names(param.json_file, param.model_file);
  // The float net was made from the same file, so it parses.
  std::string error;
  const json11::Json json =
      json11::Json::parse(ReadFileOrEmpty(param.json_file), error, json11::STANDARD);
  // Never destroyed: the process ends soon after.
  auto* net = new Net<unsigned char>(json, "int8", nullptr);
  net->SetInt8Config(float_net->GetInt8Config());
  if (!param.quantize_layer_types.empty())
    MarkDataTypes(net, param.quantize_layer_types, merge_graph);
  net->LoadWeights(param.model_file);
  net->Reshape(true, 0);
  if (param.nonuniform) {
    net->SaveSerialWeights(param.output_name + ".fb");
  } else {
    net->SaveWeights(param.output_name, false);
  }
  net->SetHybridMode(true);
  net->SaveJson(staticQuantization::SwapPath(staticQuantization::AddHybrid(param.json_file),
                                             param.output_name));

  if (!param.debug) return;
  INT8Config* config = float_net->GetInt8Config();
  printf("\nQuantization information:\n");
  printf("%-30s%-70s%-15s%-15s\n", "LayerType", "DataName", "Min", "Max");
  for (int i = 0; i < float_net->GetInputCount(); ++i) {
    const std::string name = float_net->GetInputData(i)->GetName();
    const QuantizationConfig* q = config->GetDataConfig(name);
    printf("%-30s%-70s%-15f%-15f\n", "InputData", name.c_str(), q->getMin(), q->getMax());
  }
  for (Layer<float>* layer : float_net->GetLayers()) {
    for (Data<float>* out : layer->GetOutputs()) {
      const QuantizationConfig* q = config->GetDataConfig(out->GetName());
      printf("%-30s%-70s%-15f%-15f\n", layer->GetType().c_str(), out->GetName().c_str(),
             q->getMin(), q->getMax());
    }
  }
}

}  // namespace modelConverter
}  // namespace qzdl
