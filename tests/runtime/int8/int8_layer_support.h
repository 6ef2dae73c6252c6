// Small 8-bit nets for the layer tests: a net built from a NetBuilder on a
// configuration, random input codes, and what a float island computes on
// them (the float net on the dequantized inputs, its outputs quantized to
// their grids with CodeOf), to compare the integer layers against.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "runtime/int8/grid.h"
#include "runtime/json11.h"
#include "runtime/net.h"
#include "support/net_builder.h"

namespace qzdl {
namespace test_int8 {

inline std::unique_ptr<Net<unsigned char>> BuildInt8(const test::NetBuilder& nb, INT8Config* config,
                                                     bool high_accuracy = false) {
  std::string error;
  const json11::Json desc = json11::Json::parse(nb.JsonText(), error);
  EXPECT_EQ(error, "");
  auto net = std::make_unique<Net<unsigned char>>(desc, "int8", nullptr);
  net->SetInt8Config(config);
  if (high_accuracy) net->SetHighAccuracyDoubleMultiplier();
  std::string weights = nb.WeightsBytes();
  if (!nb.Blobs().empty()) net->LoadWeights(weights.data(), static_cast<int>(weights.size()));
  net->Reshape(true, 0);
  return net;
}

// Random codes into every input of `net`.
inline void FillRandomCodes(Net<unsigned char>& net, uint32_t seed) {
  std::mt19937 gen(seed);
  for (int i = 0; i < net.GetInputCount(); ++i) {
    Data<unsigned char>* x = net.GetInputData(i);
    for (int64_t k = 0; k < x->Count(0); ++k) x->GetCpuData()[k] = gen() & 255;
  }
}

inline std::vector<uint8_t> Codes(const Data<unsigned char>* t) {
  return std::vector<uint8_t>(t->GetCpuData(), t->GetCpuData() + t->Count(0));
}

// The float net of `nb` on the dequantized inputs of `q`, every output
// quantized with CodeOf: what a float island computes. `adjust` may change
// the float net (its weights) before it runs.
inline std::vector<std::vector<uint8_t>> IslandCodes(
    const test::NetBuilder& nb, INT8Config& config, Net<unsigned char>& q,
    const std::function<void(Net<float>&)>& adjust = nullptr) {
  std::unique_ptr<Net<float>> f = nb.Build();
  bool reshape = false;
  for (int i = 0; i < q.GetInputCount(); ++i) {
    if (f->GetInputData(i)->GetDims() == q.GetInputData(i)->GetDims()) continue;
    f->GetInputData(i)->Resize(q.GetInputData(i)->GetDims());
    reshape = true;
  }
  if (reshape) f->Reshape(true, 0);
  if (adjust) adjust(*f);
  for (int i = 0; i < q.GetInputCount(); ++i) {
    const Data<unsigned char>* x = q.GetInputData(i);
    const QuantizationConfig* g = config.GetDataConfig(x->GetName());
    std::vector<float> real;
    for (int64_t k = 0; k < x->Count(0); ++k)
      real.push_back(RealOf(x->GetCpuData()[k], g->getScale(), g->getZeroPoint()));
    f->SetFloatInputData(real.data(), i);
  }
  f->ForwardAll();
  std::vector<std::vector<uint8_t>> out;
  for (int i = 0; i < f->GetOutCount(); ++i) {
    const Data<float>* y = f->GetOutputData(i);
    const QuantizationConfig* g = config.GetDataConfig(y->GetName());
    std::vector<uint8_t> codes;
    for (int64_t k = 0; k < y->Count(0); ++k)
      codes.push_back(CodeOf(y->GetCpuData()[k], g->getScale(), g->getZeroPoint()));
    out.push_back(codes);
  }
  return out;
}

// The largest difference between two code vectors of one size.
inline int MaxCodeDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  EXPECT_EQ(a.size(), b.size());
  int worst = 0;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i)
    worst = std::max(worst, std::abs(int(a[i]) - int(b[i])));
  return worst;
}

}  // namespace test_int8
}  // namespace qzdl
