#include "runtime/int8/weighted_int8.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "runtime/int8/grid.h"
#include "runtime/layers/convolution.h"
#include "runtime/layers/inner_product.h"

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

void WeightedInt8Layer::Prepare() {
  INT8Config* config = context()->int8_config;
  const QuantizationConfig* x = config->GetDataConfig(GetInputs()[0]->GetName());
  const QuantizationConfig* y = config->GetDataConfig(GetOutputs()[0]->GetName());
  Data<unsigned char>* w = GetWeights()[0];
  const float* wf = reinterpret_cast<const float*>(w->GetCpuData());
  const int out = OutputChannels();
  const int64_t per = out > 0 ? w->Count(0) / out : 0;
  const bool has_bias = GetWeights().size() > 1;
  const float* bf =
      has_bias ? reinterpret_cast<const float*>(GetWeights()[1]->GetCpuData()) : nullptr;
  const std::vector<QuantizationConfig>* records = config->GetWeightConfig(GetName(), 0);
  if (records != nullptr && static_cast<int>(records->size()) != out) records = nullptr;

  Data<unsigned char>* codes = Attr(GetUint8AttrDatas(), "weight", w->GetDims());
  Data<int>* zero = Attr(GetInt32AttrDatas(), "weight_zero", {out});
  Data<int>* bias = Attr(GetInt32AttrDatas(), "bias", {out});
  Data<int>* multiplier = Attr(GetInt32AttrDatas(), "multiplier", {out});
  Data<int>* shift = Attr(GetInt32AttrDatas(), "shift", {out});
  Data<float>* scales = Attr(GetFloatAttrDatas(), "weight_scale", {out});

  q_ = ChannelQuantization();
  grids_.clear();
  q_.output_zero = y->getZeroPoint();
  input_zero_ = x->getZeroPoint();
  for (int o = 0; o < out; ++o) {
    float lo = 0, hi = 0;
    if (records != nullptr) {
      lo = (*records)[o].getMin();
      hi = (*records)[o].getMax();
    } else if (per > 0) {
      lo = std::numeric_limits<float>::max();
      hi = std::numeric_limits<float>::lowest();
      for (int64_t k = 0; k < per; ++k) {
        const float v = wf[WeightAt(o, k, per)];
        lo = std::min(lo, v);
        hi = std::max(hi, v);
      }
    }
    float scale = 0;
    int z = 0;
    GridOfRangeWithZero(lo, hi, 255.0f, scale, z);
    for (int64_t k = 0; k < per; ++k) {
      const int64_t at = WeightAt(o, k, per);
      codes->GetCpuData()[at] = scale > 0 ? CodeOf(wf[at], scale, z) : static_cast<uint8_t>(z);
    }
    const Requantizer r =
        MakeRequantizer(double(x->getScale()) * scale / y->getScale(), context()->high_accuracy);
    zero->GetCpuData()[o] = z;
    bias->GetCpuData()[o] = has_bias ? QuantizeBias(bf[o], x->getScale(), scale) : 0;
    multiplier->GetCpuData()[o] = r.multiplier;
    shift->GetCpuData()[o] = r.shift;
    scales->GetCpuData()[o] = scale;
    grids_.push_back({lo, hi, scale, z});
    q_.weight_zero.push_back(z);
    q_.bias.push_back(bias->GetCpuData()[o]);
    q_.requantizer.push_back(r);
  }
  PrepareKernel();
}

CodeWeights WeightedInt8Layer::KernelWeights(WeightForm form) {
  const bool shifts = ShiftsWeights();
  bool present = false;
  switch (form) {
    case WeightForm::kCentred: present = GetFloatAttrDatas().count("weight_centered") != 0; break;
    case WeightForm::kPairs: present = GetInt32AttrDatas().count("weight_pairs") != 0; break;
    case WeightForm::kQuads:
      present =
          GetInt32AttrDatas().count("weight_quads") && GetInt32AttrDatas().count("weight_sum");
      break;
    case WeightForm::kU8S8:
      present = shifts ? GetUint8AttrDatas().count("weight_shifted") &&
                             GetInt32AttrDatas().count("weight_shifted_sum")
                       : GetInt32AttrDatas().count("weight_sum") != 0;
      break;
  }
  if (!present) BuildKernelWeights(form);
  CodeWeights w;
  if (form == WeightForm::kCentred) {
    w.centred = GetFloatAttrDatas().at("weight_centered")->GetCpuData();
  } else if (form == WeightForm::kPairs) {
    w.pairs = GetInt32AttrDatas().at("weight_pairs")->GetCpuData();
  } else if (form == WeightForm::kQuads) {
    w.quads = GetInt32AttrDatas().at("weight_quads")->GetCpuData();
    w.code_sum = GetInt32AttrDatas().at("weight_sum")->GetCpuData();
  } else if (shifts) {
    w.shifted =
        reinterpret_cast<const int8_t*>(GetUint8AttrDatas().at("weight_shifted")->GetCpuData());
    w.shifted_sum = GetInt32AttrDatas().at("weight_shifted_sum")->GetCpuData();
  } else {
    w.codes = GetUint8AttrDatas().at("weight")->GetCpuData();
    w.code_sum = GetInt32AttrDatas().at("weight_sum")->GetCpuData();
  }
  return w;
}

void WeightedInt8Layer::BuildKernelWeights(WeightForm form) {
  const int out = OutputChannels();
  const Data<unsigned char>* codes = GetUint8AttrDatas().at("weight");
  const int64_t k_dim = out > 0 ? codes->Count(0) / out : 0;
  const bool contiguous = ContiguousChannels();
  auto at = [this, contiguous, k_dim](int o, int64_t k) {
    return contiguous ? int64_t(o) * k_dim + k : ChannelWeightAt(o, k);
  };
  if (form == WeightForm::kPairs) {
    const int groups = std::max(1, WeightGroups());
    const int per_group = out / groups;
    const int64_t lanes = PairWeightLanes(per_group, k_dim);
    Data<int>* pairs = Attr(GetInt32AttrDatas(), "weight_pairs",
                            {groups, static_cast<int>(lanes)});
    const uint8_t* w = codes->GetCpuData();
    for (int grp = 0; grp < groups; ++grp) {
      const int first = grp * per_group;
      PackPairWeights(
          per_group, k_dim, q_.weight_zero.data() + first,
          [&](int r, int64_t k) { return w[at(first + r, k)]; },
          pairs->GetCpuData() + grp * lanes);
    }
  } else if (form == WeightForm::kQuads) {
    const int groups = std::max(1, WeightGroups());
    const int per_group = out / groups;
    const int64_t lanes = QuadWeightLanes(per_group, k_dim);
    Data<int>* quads = Attr(GetInt32AttrDatas(), "weight_quads",
                            {groups, static_cast<int>(lanes)});
    const uint8_t* w = codes->GetCpuData();
    for (int grp = 0; grp < groups; ++grp) {
      const int first = grp * per_group;
      PackQuadWeights(
          per_group, k_dim, [&](int r, int64_t k) { return w[at(first + r, k)]; },
          quads->GetCpuData() + grp * lanes);
    }
    Data<int>* sums = Attr(GetInt32AttrDatas(), "weight_sum", {out});
    SumCodeRows(out, k_dim, w, at, sums->GetCpuData());
  } else if (form == WeightForm::kU8S8 && ShiftsWeights()) {
    Data<unsigned char>* w =
        Attr(GetUint8AttrDatas(), "weight_shifted", {out, static_cast<int>(k_dim)});
    Data<int>* sums = Attr(GetInt32AttrDatas(), "weight_shifted_sum", {out});
    ShiftWeights(out, k_dim, codes->GetCpuData(), at, reinterpret_cast<int8_t*>(w->GetCpuData()),
                 sums->GetCpuData());
  } else if (form == WeightForm::kU8S8) {
    Data<int>* sums = Attr(GetInt32AttrDatas(), "weight_sum", {out});
    SumCodeRows(out, k_dim, codes->GetCpuData(), at, sums->GetCpuData());
  } else {
    Data<float>* centred =
        Attr(GetFloatAttrDatas(), "weight_centered", {out, static_cast<int>(k_dim)});
    CentreWeights(out, k_dim, codes->GetCpuData(), q_.weight_zero, at, centred->GetCpuData());
  }
}

bool WeightedInt8Layer::ComputesInIntegers() {
  return GetInputs()[0]->GetDataType() == "int8" && GetOutputs()[0]->GetDataType() == "int8";
}

void WeightedInt8Layer::EnsurePrepared() {
  if (GetUint8AttrDatas().count("weight") == 0 || GetInt32AttrDatas().count("bias") == 0) {
    Prepare();
  }
}

void WeightedInt8Layer::AdoptSaved(const QuantizedBlob& weight, const QuantizedBlob* bias) {
  INT8Config* config = context()->int8_config;
  const float sx = config->GetDataConfig(GetInputs()[0]->GetName())->getScale();
  const int out = OutputChannels();
  const int64_t per = out > 0 ? GetWeights()[0]->Count(0) / out : 0;
  const auto* codes = reinterpret_cast<const uint8_t*>(weight.bytes.data());
  float* wf = reinterpret_cast<float*>(GetWeights()[0]->GetCpuData());
  std::vector<int32_t> saved_bias(bias != nullptr ? out : 0);
  if (bias != nullptr) std::memcpy(saved_bias.data(), bias->bytes.data(), saved_bias.size() * 4);
  for (int o = 0; o < out; ++o) {
    const ChannelGrid& g = weight.grids[o];
    config->addWeightConfig(GetName(), 0, o, g.min, g.max);
    for (int64_t k = 0; k < per; ++k) {
      const int64_t at = WeightAt(o, k, per);
      wf[at] = RealOf(codes[at], g.scale, g.zero);
    }
    if (bias != nullptr) {
      float* bf = reinterpret_cast<float*>(GetWeights()[1]->GetCpuData());
      bf[o] = static_cast<float>(double(saved_bias[o]) * sx * g.scale);
    }
  }
  Prepare();
  Data<unsigned char>* w = GetUint8AttrDatas()["weight"];
  std::memcpy(w->GetCpuData(), codes, static_cast<size_t>(w->Count(0)));
  Data<int>* b = GetInt32AttrDatas()["bias"];
  for (size_t o = 0; o < saved_bias.size(); ++o) q_.bias[o] = b->GetCpuData()[o] = saved_bias[o];
  PrepareKernel();
}

void WeightedInt8Layer::Run() {
  if (!ComputesInIntegers()) {
    FloatIslandLayer::Run();
    return;
  }
  Data<unsigned char>* x = GetInputs()[0];
  Data<unsigned char>* y = GetOutputs()[0];
  EnsurePrepared();
  RunCodes(x->GetCpuData(), GetUint8AttrDatas()["weight"]->GetCpuData(), y->GetCpuData());
}

void ConvolutionInt8Layer::Reshape() {
  WeightedInt8Layer::Reshape();
  kernel_.Reshape(static_cast<ConvolutionLayer<float>*>(Twin())->geometry());
}

void ConvolutionInt8Layer::RunCodes(const uint8_t* x, const uint8_t*, uint8_t* y) {
  kernel_.Run(x, input_zero_, KernelWeights(kernel_.Form()), q_, y);
}

int64_t ConvolutionInt8Layer::ChannelWeightAt(int o, int64_t k) const {
  return int64_t(o) * weight(0)->Count(1) + k;
}

int ConvolutionInt8Layer::OutputChannels() const { return weight(0)->GetDim(0); }

int ConvolutionInt8Layer::WeightGroups() const { return kernel_.Geometry().group; }

void DeconvolutionInt8Layer::RunCodes(const uint8_t* x, const uint8_t* weight, uint8_t* y) {
  const ConvGeometry& g = static_cast<DeconvolutionLayer<float>*>(Twin())->geometry();
  ReferenceDeconvolutionU8(g, x, input_zero_, weight, q_, y);
}

int64_t DeconvolutionInt8Layer::ChannelWeightAt(int o, int64_t k) const {
  return int64_t(o) * weight(0)->Count(1) + k;
}

int DeconvolutionInt8Layer::OutputChannels() const { return weight(0)->GetDim(0); }

namespace {

const InnerProductLayer<float>& InnerProduct(const FloatIslandLayer* layer) {
  return *static_cast<InnerProductLayer<float>*>(layer->Twin());
}

}  // namespace

void InnerProductInt8Layer::Reshape() {
  WeightedInt8Layer::Reshape();
  const InnerProductLayer<float>& ip = InnerProduct(this);
  kernel_.Reshape(ip.Batch(), ip.K(), ip.NumOutput());
}

void InnerProductInt8Layer::RunCodes(const uint8_t* x, const uint8_t*, uint8_t* y) {
  kernel_.Run(x, input_zero_,
              KernelWeights(kernel_.Shifted() ? WeightForm::kU8S8 : WeightForm::kCentred), q_, y);
}

int64_t InnerProductInt8Layer::ChannelWeightAt(int o, int64_t k) const {
  const InnerProductLayer<float>& ip = InnerProduct(this);
  const int out = ip.NumOutput();
  const int64_t k_dim = weight(0)->Count(0) / out;
  return ip.Transpose() ? k * out + o : int64_t(o) * k_dim + k;
}

bool InnerProductInt8Layer::ContiguousChannels() const { return !InnerProduct(this).Transpose(); }

int InnerProductInt8Layer::OutputChannels() const { return InnerProduct(this).NumOutput(); }

}  // namespace qzdl
