#include "runtime/int8/pooling_int8.h"

#include <algorithm>
#include <climits>

#include "runtime/int8/grid.h"

namespace qzdl {

namespace {

const PoolingLayer<float>& Pooling(const FloatIslandLayer* layer) {
  return *static_cast<PoolingLayer<float>*>(layer->Twin());
}

}  // namespace

bool PoolingInt8Layer::IsMax() const {
  return Pooling(this).GetMethod() == PoolingLayer<float>::Method::kMax;
}

void PoolingInt8Layer::DropAttributes() {
  for (auto& kv : GetUint8AttrDatas()) delete kv.second;
  for (auto& kv : GetInt32AttrDatas()) delete kv.second;
  GetUint8AttrDatas().clear();
  GetInt32AttrDatas().clear();
}

void PoolingInt8Layer::Reshape() {
  FloatIslandLayer::Reshape();
  shape_ = Pooling(this).Shape();
  if (IsMax()) return;
  std::vector<int64_t> counts = AveragePoolCounts(shape_);
  if (counts != counts_ && Prepared()) DropAttributes();
  counts_ = std::move(counts);
}

bool PoolingInt8Layer::Prepared() {
  return IsMax() ? HasTables() : GetInt32AttrDatas().count("count") != 0;
}

void PoolingInt8Layer::Prepare() {
  const CodeGrid in = GridOf(GetInputs()[0]);
  const CodeGrid out = GridOf(GetOutputs()[0]);
  if (IsMax()) {
    identity_ = in.scale == out.scale && in.zero == out.zero;
    StoreTables(
        {BuildCodeTable([](float v) { return v; }, in.scale, in.zero, out.scale, out.zero)});
    return;
  }
  average_ = MakeAveragePoolQuantization(counts_, in, out, HighAccuracy());
  const int n = static_cast<int>(counts_.size());
  int* count = Attr(GetInt32AttrDatas(), "count", {n})->GetCpuData();
  int* multiplier = Attr(GetInt32AttrDatas(), "multiplier", {n})->GetCpuData();
  int* shift = Attr(GetInt32AttrDatas(), "shift", {n})->GetCpuData();
  for (int k = 0; k < n; ++k) {
    // Only a global window over more than 2^31 - 1 elements is cut here.
    count[k] = static_cast<int>(std::min<int64_t>(counts_[k], INT32_MAX));
    multiplier[k] = average_.requantizer[k].multiplier;
    shift[k] = average_.requantizer[k].shift;
  }
}

void PoolingInt8Layer::RunCodes() {
  const uint8_t* x = GetInputs()[0]->GetCpuData();
  Data<unsigned char>* out = GetOutputs()[0];
  if (!IsMax()) {
    ReferenceAveragePoolU8(shape_, x, average_, out->GetCpuData());
    return;
  }
  MaxPoolKernel(shape_, x, out->GetCpuData());
  if (identity_) return;
  const uint8_t* table = GetUint8AttrDatas().find("table")->second->GetCpuData();
  ApplyCodeTable(table, out->GetCpuData(), out->GetCpuData(), out->Count(0));
}

}  // namespace qzdl
