#include "runtime/int8/mover_int8.h"

#include "runtime/int8/grid.h"

namespace qzdl {

void MoverInt8Layer::LoadParam(const ParamReader& param) {
  FloatIslandLayer::LoadParam(param);
  mover_ = dynamic_cast<ElementMover*>(Twin());
  if (mover_ == nullptr) Fail("the float layer of type \"" + GetType() + "\" moves no elements");
}

bool MoverInt8Layer::ComputesInIntegers() {
  return mover_->MovesElements() && Int8Layer::ComputesInIntegers();
}

void MoverInt8Layer::Reshape() {
  FloatIslandLayer::Reshape();
  inputs_.assign(GetInputs().size(), nullptr);
  outputs_.assign(GetOutputs().size(), nullptr);
  converted_.resize(GetInputs().size());
  for (size_t k = 0; k < converted_.size(); ++k) {
    const bool used = GetOutputs().size() == 1 && k < convert_.size() && convert_[k];
    converted_[k].resize(used ? static_cast<size_t>(GetInputs()[k]->Count(0)) : 0);
  }
}

void MoverInt8Layer::Prepare() {
  auto identity = [](float v) { return v; };
  std::vector<CodeTable> tables;
  const std::vector<Data<unsigned char>*>& ins = GetInputs();
  const std::vector<Data<unsigned char>*>& outs = GetOutputs();
  const CodeGrid out = GridOf(outs[0]);
  if (outs.size() == 1) {
    for (const Data<unsigned char>* x : ins) {
      const CodeGrid in = GridOf(x);
      tables.push_back(BuildCodeTable(identity, in.scale, in.zero, out.scale, out.zero));
    }
  } else {
    const CodeGrid in = GridOf(ins[0]);
    for (const Data<unsigned char>* y : outs) {
      const CodeGrid o = GridOf(y);
      tables.push_back(BuildCodeTable(identity, in.scale, in.zero, o.scale, o.zero));
    }
  }
  convert_.clear();
  for (const CodeTable& t : tables) {
    bool same = true;
    for (int c = 0; c < 256; ++c) same = same && t[c] == c;
    convert_.push_back(!same);
  }
  fill_ = CodeOf(mover_->FillValue(), out.scale, out.zero);
  StoreTables(tables);
  // The buffers for inputs moved to the output grid.
  for (size_t k = 0; k < converted_.size(); ++k) {
    const bool used = outs.size() == 1 && convert_[k];
    converted_[k].resize(used ? static_cast<size_t>(ins[k]->Count(0)) : 0);
  }
}

void MoverInt8Layer::RunCodes() {
  const uint8_t* table = GetUint8AttrDatas().find("table")->second->GetCpuData();
  const std::vector<Data<unsigned char>*>& ins = GetInputs();
  const std::vector<Data<unsigned char>*>& outs = GetOutputs();
  const bool one_output = outs.size() == 1;
  for (size_t k = 0; k < ins.size(); ++k) {
    inputs_[k] = ins[k]->GetCpuData();
    if (one_output && convert_[k]) {
      ApplyCodeTable(table + 256 * k, inputs_[k], converted_[k].data(), ins[k]->Count(0));
      inputs_[k] = converted_[k].data();
    }
  }
  for (size_t k = 0; k < outs.size(); ++k) outputs_[k] = outs[k]->GetCpuData();
  mover_->MoveCodes(inputs_, outputs_, fill_);
  if (one_output) return;
  for (size_t k = 0; k < outs.size(); ++k)
    if (convert_[k]) ApplyCodeTable(table + 256 * k, outputs_[k], outputs_[k], outs[k]->Count(0));
}

}  // namespace qzdl
