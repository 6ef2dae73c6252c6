#include "runtime/int8/int8_layer.h"

#include <cstring>

namespace qzdl {

bool Int8Layer::ComputesInIntegers() {
  for (Data<unsigned char>* t : GetInputs())
    if (t->GetDataType() != "int8") return false;
  for (Data<unsigned char>* t : GetOutputs())
    if (t->GetDataType() != "int8") return false;
  return true;
}

void Int8Layer::Run() {
  if (!ComputesInIntegers()) {
    FloatIslandLayer::Run();
    return;
  }
  EnsurePrepared();
  RunCodes();
}

int PrepareInt8Layers(Net<unsigned char>& net) {
  int prepared = 0;
  for (Layer<unsigned char>* layer : net.GetLayers()) {
    auto* int8 = dynamic_cast<Int8Layer*>(layer);
    if (int8 == nullptr || !int8->ComputesInIntegers()) continue;
    int8->EnsurePrepared();
    ++prepared;
  }
  return prepared;
}

CodeGrid Int8Layer::GridOf(const Data<unsigned char>* t) const {
  const QuantizationConfig* q = context()->int8_config->GetDataConfig(t->GetName());
  return {q->getScale(), q->getZeroPoint()};
}

void Int8Layer::StoreTables(const std::vector<CodeTable>& tables) {
  Data<unsigned char>* t =
      Attr(GetUint8AttrDatas(), "table", {static_cast<int>(tables.size()), 256});
  for (size_t k = 0; k < tables.size(); ++k)
    std::memcpy(t->GetCpuData() + k * 256, tables[k].data(), 256);
}

namespace {

void StoreZeros(Data<int>* t, const std::vector<CodeGrid>& inputs) {
  for (size_t k = 0; k < inputs.size(); ++k) t->GetCpuData()[k] = inputs[k].zero;
}

}  // namespace

void Int8Layer::StoreSumAttrs(const std::vector<CodeGrid>& inputs, const SumQuantization& q) {
  const int n = static_cast<int>(inputs.size());
  StoreZeros(Attr(GetInt32AttrDatas(), "input_zero", {n}), inputs);
  int* m = Attr(GetInt32AttrDatas(), "multiplier", {n, 2})->GetCpuData();
  for (int k = 0; k < n; ++k) {
    m[2 * k] = static_cast<int>(q.multiplier[k] >> 32);
    m[2 * k + 1] = static_cast<int>(static_cast<uint32_t>(q.multiplier[k]));
  }
  Attr(GetInt32AttrDatas(), "shift", {1})->GetCpuData()[0] = q.shift;
}

void Int8Layer::StoreProductAttrs(const std::vector<CodeGrid>& inputs, const Requantizer& r) {
  const int n = static_cast<int>(inputs.size());
  StoreZeros(Attr(GetInt32AttrDatas(), "input_zero", {n}), inputs);
  Attr(GetInt32AttrDatas(), "multiplier", {1})->GetCpuData()[0] = r.multiplier;
  Attr(GetInt32AttrDatas(), "shift", {1})->GetCpuData()[0] = r.shift;
}

}  // namespace qzdl
