#include "runtime/int8/activation_int8.h"

#include <vector>

#include "runtime/int8/grid.h"
#include "runtime/int8/lookup_table.h"
#include "runtime/kernels/parallel.h"
#include "runtime/layer_registry.h"
#include "runtime/layers/activation.h"

namespace qzdl {

void TableInt8Layer::LoadParam(const ParamReader& param) {
  FloatIslandLayer::LoadParam(param);
  table_twin_ = CreateLayer<float>(GetType());
  table_twin_->Bind(GetJson(), GetName(), GetType(), &table_context_);
  table_twin_->SetInputs({&table_in_});
  table_twin_->SetOutputs({&table_out_});
  table_twin_->LoadParam(param);
}

int TableInt8Layer::TableRows() {
  const auto* prelu = dynamic_cast<PReluLayer<float>*>(Twin());
  if (prelu == nullptr || prelu->ChannelShared()) return 1;
  return GetInputs()[0]->GetDim(1);
}

void TableInt8Layer::Prepare() {
  const CodeGrid in = GridOf(GetInputs()[0]);
  const CodeGrid out = GridOf(GetOutputs()[0]);
  const int rows = TableRows();
  table_in_.Resize({1, rows, 256});
  table_twin_->Reshape();
  if (!table_weights_made_) {
    table_twin_->CreateWeights();
    table_weights_made_ = true;
  }
  std::vector<Data<float>*>& weights = table_twin_->GetWeights();
  for (size_t i = 0; i < weights.size() && i < GetWeights().size(); ++i)
    weights[i]->ShareData(reinterpret_cast<float*>(GetWeights()[i]->GetCpuData()));
  table_in_.Reallocate();
  table_out_.Reallocate();
  float* x = table_in_.GetCpuData();
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < 256; ++c)
      x[r * 256 + c] = RealOf(static_cast<uint8_t>(c), in.scale, in.zero);
  table_twin_->Forward();
  std::vector<CodeTable> tables(rows);
  const float* y = table_out_.GetCpuData();
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < 256; ++c) tables[r][c] = CodeOf(y[r * 256 + c], out.scale, out.zero);
  StoreTables(tables);
}

void TableInt8Layer::RunCodes() {
  const Data<unsigned char>* t = GetUint8AttrDatas().find("table")->second;
  const Data<unsigned char>* in = GetInputs()[0];
  const uint8_t* table = t->GetCpuData();
  const uint8_t* x = in->GetCpuData();
  uint8_t* y = GetOutputs()[0]->GetCpuData();
  const int64_t rows = t->GetDim(0);
  if (rows == 1) {
    ApplyCodeTable(table, x, y, in->Count(0));
    return;
  }
  // One table per channel (axis 1).
  const int64_t inner = in->Count(2);
  const int64_t planes = inner > 0 ? in->Count(0) / inner : 0;
  ParallelFor(
      planes,
      [=](int64_t begin, int64_t end) {
        for (int64_t p = begin; p < end; ++p) {
          const uint8_t* tp = table + (p % rows) * 256;
          LookupCodes(tp, x + p * inner, y + p * inner, inner);
        }
      },
      std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(inner, 1)));
}

}  // namespace qzdl
