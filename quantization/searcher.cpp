// What the searchers share: the nets, the placeholder ranges, the cache of
// float activations, and the installing of the net inputs' ranges.
#include "quantization/searcher.h"

#include <cstdio>

#include "dataloader/data_loader.h"
#include "quantization/observer.h"
#include "quantization/utils.h"

namespace qzdl {
namespace staticQuantization {

Searcher::Searcher(Net<float>* float_net, Net<unsigned char>* int8_net,
                   dataLoader::DataLoader* data_loader)
    : float_net(float_net),
      int8_net(int8_net),
      int8_config(nullptr),
      data_loader(data_loader),
      range_preserving_types{"Concat",    "DepthToSpace", "Dropout", "ExpandDims",     "Flatten",
                             "Flip",      "MergeBatch",   "Padding", "Permute",        "Pooling",
                             "ReLU",      "Repeat",       "Reshape", "ShuffleChannel", "Slice",
                             "SliceAxis", "SliceLike",    "Split",   "Tile",           "Trim",
                             "Upsample",  "ZeroPadding"} {
  // From here on both nets read and write one configuration.
  if (float_net->GetInt8Config() != int8_net->GetInt8Config()) {
    int8_net->SetInt8Config(float_net->GetInt8Config());
  }
  int8_config = float_net->GetInt8Config();
}

void Searcher::Init() {
  printf("Initialize quantization config searcher.\n");
  float_net->SetFrugalMode(false);
  float_net->Reshape(true, 0);

  // A distinct range per tensor, in net order with the inputs first, so that
  // a tensor no search reaches is recognisable by its range.
  float d = 0.1f;
  auto placeholder = [&](const std::string& name) {
    int8_config->addDataConfig(name, -1.0f - d, d + 1.0f);
    d = static_cast<float>(static_cast<double>(d) + 0.1);
  };
  for (int i = 0; i < float_net->GetInputCount(); ++i) placeholder(float_net->GetInputDataName(i));
  for (Layer<float>* layer : float_net->GetLayers()) {
    for (Data<float>* output : layer->GetOutputs()) placeholder(output->GetName());
  }

  const int batch = float_net->GetInputData(0)->GetDim(0);
  int8_net->SetFrugalMode(false);
  int8_net->Reshape(true, 0);
  int8_net->ReshapeBatchNum(batch, 0);

  printf("Collecting all float activation ... ");
  FeedAndCacheInputs(float_net, data_loader, float_activations);
  float_net->ForwardAll();
  // Taken after the whole pass: a tensor that a later layer rewrites in place
  // is cached as rewritten.
  for (Layer<float>* layer : float_net->GetLayers()) {
    for (Data<float>* output : layer->GetOutputs()) {
      float_activations[output->GetName()] =
          ToVector(output->GetCpuData(), static_cast<unsigned long>(output->Count(0)));
    }
  }
  printf("done!\n");
}

void FeedAndCacheInputs(Net<float>* net, dataLoader::DataLoader* data_loader,
                        std::map<std::string, std::vector<float>>& cache) {
  for (int i = 0; i < net->GetInputCount(); ++i) {
    const std::string name = net->GetInputDataName(i);
    net->SetFloatInputDataByName(data_loader->GetAll(name), name);
    Data<float>* input = net->GetInputData(i);
    cache[name] = ToVector(input->GetCpuData(), static_cast<unsigned long>(input->Count(0)));
  }
}

void Searcher::ClearInt8Layer(Layer<unsigned char>* layer) {
  for (auto& entry : layer->GetUint8AttrDatas()) {
    if (entry.second == nullptr) continue;
    entry.second->ClearData();
    delete entry.second;
  }
  for (auto& entry : layer->GetFloatAttrDatas()) {
    if (entry.second == nullptr) continue;
    entry.second->ClearData();
    delete entry.second;
  }
  for (auto& entry : layer->GetInt32AttrDatas()) {
    if (entry.second == nullptr) continue;
    entry.second->ClearData();
    delete entry.second;
  }
  layer->GetUint8AttrDatas().clear();
  layer->GetFloatAttrDatas().clear();
  layer->GetInt32AttrDatas().clear();
}

std::pair<float, float> Searcher::InstallInputRange(const std::string& input_name,
                                                    Observer* observer) {
  float min = 0.0f;
  float max = 0.0f;
  observer->Extract(min, max);
  int8_config->addDataConfig(input_name, min, max);
  int8_net->SetFloatInputDataByName(data_loader->GetAll(input_name), input_name);
  return {min, max};
}

void CosineSearcher::SearchOneInput(const std::string& input_name, Observer* observer) {
  const std::pair<float, float> range = InstallInputRange(input_name, observer);
  // The float net runs on what the 8-bit net sees.
  Data<float>* d = float_net->GetInputData(input_name);
  FakeQuantization(d->GetCpuData(), static_cast<unsigned long>(d->Count(0)), range.first,
                   range.second, 8);
}

void CosineSimSearcher::SearchOneInput(const std::string& input_name, Observer* observer) {
  InstallInputRange(input_name, observer);
}

void AdaQuantSearcher::SearchOneInput(const std::string& input_name, Observer* observer) {
  InstallInputRange(input_name, observer);
}

void AdaQuantSeqSearcher::SearchOneInput(const std::string& input_name, Observer* observer) {
  InstallInputRange(input_name, observer);
}

}  // namespace staticQuantization
}  // namespace qzdl
