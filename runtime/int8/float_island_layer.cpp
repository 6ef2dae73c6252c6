#include "runtime/int8/float_island_layer.h"

#include <cstring>

#include "runtime/int8/grid.h"
#include "runtime/kernels/parallel.h"
#include "runtime/layer_registry.h"

namespace qzdl {

namespace {

// Float values of `x` into `dst`: its codes dequantized on its grid, or its
// floats copied when the tensor holds floats.
void ToFloat(const Data<unsigned char>& x, INT8Config* config, float* dst) {
  const int64_t n = x.Count(0);
  if (x.GetDataType() == "float") {
    std::memcpy(dst, x.GetCpuData(), static_cast<size_t>(n) * sizeof(float));
    return;
  }
  const QuantizationConfig* grid = config->GetDataConfig(x.GetName());
  const float scale = grid->getScale();
  const int zero = grid->getZeroPoint();
  const unsigned char* codes = x.GetCpuData();
  ParallelFor(n, [&](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) dst[i] = RealOf(codes[i], scale, zero);
  });
}

// The reverse: floats quantized on the grid of `y`, or copied.
void FromFloat(const float* src, INT8Config* config, Data<unsigned char>* y) {
  const int64_t n = y->Count(0);
  if (y->GetDataType() == "float") {
    std::memcpy(y->GetCpuData(), src, static_cast<size_t>(n) * sizeof(float));
    return;
  }
  const QuantizationConfig* grid = config->GetDataConfig(y->GetName());
  const float scale = grid->getScale();
  const int zero = grid->getZeroPoint();
  unsigned char* codes = y->GetCpuData();
  ParallelFor(n, [&](int64_t begin, int64_t end) {
    for (int64_t i = begin; i < end; ++i) codes[i] = CodeOf(src[i], scale, zero);
  });
}

}  // namespace

std::string FloatIslandLayer::GetTypeDetail() { return twin_->GetTypeDetail(); }

void FloatIslandLayer::LoadParam(const ParamReader& param) {
  twin_ = CreateLayer<float>(GetType());
  if (!twin_) Fail("no float kernel for type \"" + GetType() + "\"");
  twin_->Bind(GetJson(), GetName(), GetType(), &twin_context_);
  std::vector<Data<float>*> ins, outs;
  for (Data<unsigned char>* x : GetInputs()) {
    twin_inputs_.push_back(std::make_unique<Data<float>>(x->GetName()));
    ins.push_back(twin_inputs_.back().get());
  }
  for (Data<unsigned char>* y : GetOutputs()) {
    twin_outputs_.push_back(std::make_unique<Data<float>>(y->GetName()));
    outs.push_back(twin_outputs_.back().get());
  }
  twin_->SetInputs(ins);
  twin_->SetOutputs(outs);
  twin_->LoadParam(param);
}

void FloatIslandLayer::Reshape() {
  for (size_t i = 0; i < twin_inputs_.size(); ++i) {
    twin_inputs_[i]->Resize(GetInputs()[i]->GetDims());
  }
  twin_->Reshape();
  if (!twin_weights_made_) {
    twin_->CreateWeights();
    twin_weights_made_ = true;
  }
  for (size_t i = 0; i < twin_outputs_.size(); ++i) {
    GetOutputs()[i]->Resize(twin_outputs_[i]->GetDims());
  }
  // The float tensors get their storage here, so that Run allocates nothing.
  for (auto& t : twin_inputs_) t->Reallocate();
  for (auto& t : twin_outputs_) t->Reallocate();
}

std::vector<WeightSpec> FloatIslandLayer::WeightSpecs() { return twin_->WeightSpecs(); }

void FloatIslandLayer::Run() {
  INT8Config* config = context()->int8_config;
  for (size_t i = 0; i < twin_inputs_.size(); ++i) {
    ToFloat(*GetInputs()[i], config, twin_inputs_[i]->GetCpuData());
  }
  // The weights are this layer's float blobs, shared with the twin.
  std::vector<Data<float>*>& twin_weights = twin_->GetWeights();
  for (size_t i = 0; i < twin_weights.size() && i < GetWeights().size(); ++i) {
    twin_weights[i]->ShareData(reinterpret_cast<float*>(GetWeights()[i]->GetCpuData()));
  }
  twin_->Forward();
  for (size_t i = 0; i < twin_outputs_.size(); ++i) {
    FromFloat(twin_outputs_[i]->GetCpuData(), config, GetOutputs()[i]);
  }
}

}  // namespace qzdl
