#include "runtime/int8/convolution_int8.h"

#include <algorithm>
#include <cstring>

#include "runtime/int8/grid.h"
#include "runtime/layers/convolution.h"

namespace qzdl {

namespace {

template <typename D>
D* Attr(std::map<std::string, D*>& attrs, const std::string& name, const std::vector<int>& dims) {
  D*& t = attrs[name];
  if (t == nullptr) t = new D(name);
  t->Resize(dims);
  t->Reallocate();
  return t;
}

}  // namespace

void ConvolutionInt8Layer::Prepare() {
  INT8Config* config = context()->int8_config;
  const QuantizationConfig* x = config->GetDataConfig(GetInputs()[0]->GetName());
  const QuantizationConfig* y = config->GetDataConfig(GetOutputs()[0]->GetName());
  Data<unsigned char>* w = GetWeights()[0];
  const float* wf = reinterpret_cast<const float*>(w->GetCpuData());
  const int out = w->GetDim(0);
  const int64_t per = w->Count(1);
  const bool has_bias = GetWeights().size() > 1;
  const float* bf = has_bias ? reinterpret_cast<const float*>(GetWeights()[1]->GetCpuData()) : nullptr;
  const std::vector<QuantizationConfig>* records = config->GetWeightConfig(GetName(), 0);
  if (records != nullptr && static_cast<int>(records->size()) != out) records = nullptr;

  Data<unsigned char>* codes = Attr(GetUint8AttrDatas(), "weight", w->GetDims());
  Data<int>* zero = Attr(GetInt32AttrDatas(), "weight_zero", {out});
  Data<int>* bias = Attr(GetInt32AttrDatas(), "bias", {out});
  Data<int>* multiplier = Attr(GetInt32AttrDatas(), "multiplier", {out});
  Data<int>* shift = Attr(GetInt32AttrDatas(), "shift", {out});
  Data<float>* scales = Attr(GetFloatAttrDatas(), "weight_scale", {out});

  q_ = ChannelQuantization();
  q_.output_zero = y->getZeroPoint();
  input_zero_ = x->getZeroPoint();
  for (int o = 0; o < out; ++o) {
    const float* channel = wf + o * per;
    float lo = 0, hi = 0;
    if (records != nullptr) {
      lo = (*records)[o].getMin();
      hi = (*records)[o].getMax();
    } else if (per > 0) {
      lo = *std::min_element(channel, channel + per);
      hi = *std::max_element(channel, channel + per);
    }
    float scale = 0;
    int z = 0;
    GridOfRangeWithZero(lo, hi, 255.0f, scale, z);
    for (int64_t k = 0; k < per; ++k) {
      codes->GetCpuData()[o * per + k] = scale > 0 ? CodeOf(channel[k], scale, z) : z;
    }
    const Requantizer r =
        MakeRequantizer(double(x->getScale()) * scale / y->getScale(), context()->high_accuracy);
    zero->GetCpuData()[o] = z;
    bias->GetCpuData()[o] = has_bias ? QuantizeBias(bf[o], x->getScale(), scale) : 0;
    multiplier->GetCpuData()[o] = r.multiplier;
    shift->GetCpuData()[o] = r.shift;
    scales->GetCpuData()[o] = scale;
    q_.weight_zero.push_back(z);
    q_.bias.push_back(bias->GetCpuData()[o]);
    q_.requantizer.push_back(r);
  }
}

void ConvolutionInt8Layer::Run() {
  Data<unsigned char>* x = GetInputs()[0];
  Data<unsigned char>* y = GetOutputs()[0];
  if (x->GetDataType() == "float" || y->GetDataType() == "float") {
    FloatIslandLayer::Run();
    return;
  }
  if (GetUint8AttrDatas().count("weight") == 0 || GetInt32AttrDatas().count("bias") == 0) {
    Prepare();
  }
  const ConvGeometry& g = static_cast<ConvolutionLayer<float>*>(Twin())->geometry();
  ReferenceConvolutionU8(g, x->GetCpuData(), input_zero_, GetUint8AttrDatas()["weight"]->GetCpuData(),
                         q_, y->GetCpuData());
}

}  // namespace qzdl
