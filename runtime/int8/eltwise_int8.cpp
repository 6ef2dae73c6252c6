#include "runtime/int8/eltwise_int8.h"

#include "runtime/kernels/parallel.h"
#include "runtime/layers/eltwise.h"

namespace qzdl {

namespace {

using EltwiseOp = EltwiseLayer<float>::Op;
using BroadcastOp = BroadcastOpLayer<float>::Op;

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("arch=x86-64-v4", "avx2", "default")))
#endif
void Sum2(const uint8_t* a, const uint8_t* b, int32_t za, int32_t zb, int64_t ma, int64_t mb,
          int shift, int32_t zero, int64_t n, uint8_t* y) {
  const int64_t half = int64_t{1} << (shift - 1);
  for (int64_t i = 0; i < n; ++i) {
    const int64_t acc = int64_t(int32_t(a[i]) - za) * ma + int64_t(int32_t(b[i]) - zb) * mb;
    const int64_t v = zero + ((acc + half) >> shift);
    y[i] = static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
  }
}

}  // namespace

void EltwiseSumU8(const std::vector<const uint8_t*>& x, const std::vector<CodeGrid>& inputs,
                  const SumQuantization& q, int64_t count, uint8_t* y) {
  if (q.use_double || x.size() != 2) {
    ReferenceEltwiseSumU8(x, inputs, q, count, y);
    return;
  }
  const uint8_t* a = x[0];
  const uint8_t* b = x[1];
  const int32_t za = inputs[0].zero, zb = inputs[1].zero;
  const int64_t ma = q.multiplier[0], mb = q.multiplier[1];
  // A vectorized pass over a few bytes per code: chunks large enough that
  // waking the pool pays.
  ParallelFor(
      count,
      [&](int64_t begin, int64_t end) {
        Sum2(a + begin, b + begin, za, zb, ma, mb, q.shift, q.output_zero, end - begin, y + begin);
      },
      int64_t{1} << 16);
}

// ---- Eltwise --------------------------------------------------------------

void EltwiseInt8Layer::Reshape() {
  FloatIslandLayer::Reshape();
  sources_.assign(GetInputs().size(), nullptr);
}

bool EltwiseInt8Layer::Prepared() {
  const auto* twin = static_cast<EltwiseLayer<float>*>(Twin());
  if (twin->Operation() == EltwiseOp::kMax) return HasTables();
  return GetInt32AttrDatas().count("multiplier") != 0;
}

void EltwiseInt8Layer::Prepare() {
  const auto* twin = static_cast<EltwiseLayer<float>*>(Twin());
  grids_.clear();
  for (const Data<unsigned char>* x : GetInputs()) grids_.push_back(GridOf(x));
  const CodeGrid out = GridOf(GetOutputs()[0]);
  output_zero_ = out.zero;
  switch (twin->Operation()) {
    case EltwiseOp::kSum: {
      sum_ = MakeSumQuantization(grids_, twin->Coeffs(), out, HighAccuracy());
      StoreSumAttrs(grids_, sum_);
      break;
    }
    case EltwiseOp::kProd:
      product_ = MakeProductRequantizer(grids_, out, HighAccuracy());
      StoreProductAttrs(grids_, product_);
      break;
    case EltwiseOp::kMax:
      to_output_.clear();
      for (const CodeGrid& g : grids_)
        to_output_.push_back(RequantizeTable(g, out, HighAccuracy()));
      StoreTables(to_output_);
      break;
  }
}

void EltwiseInt8Layer::RunCodes() {
  const auto* twin = static_cast<EltwiseLayer<float>*>(Twin());
  for (size_t k = 0; k < sources_.size(); ++k) sources_[k] = GetInputs()[k]->GetCpuData();
  uint8_t* y = GetOutputs()[0]->GetCpuData();
  const int64_t count = GetOutputs()[0]->Count(0);
  switch (twin->Operation()) {
    case EltwiseOp::kSum:
      EltwiseSumU8(sources_, grids_, sum_, count, y);
      break;
    case EltwiseOp::kProd:
      ReferenceEltwiseProdU8(sources_, grids_, product_, output_zero_, count, y);
      break;
    case EltwiseOp::kMax:
      ReferenceEltwiseMaxU8(sources_, to_output_, count, y);
      break;
  }
}

// ---- BroadcastOp ----------------------------------------------------------

bool BroadcastOpInt8Layer::ComputesInIntegers() {
  const BroadcastOp op = static_cast<BroadcastOpLayer<float>*>(Twin())->Operation();
  if (op != BroadcastOp::kAdd && op != BroadcastOp::kSub && op != BroadcastOp::kMul) return false;
  return Int8Layer::ComputesInIntegers();
}

bool BroadcastOpInt8Layer::Prepared() { return GetInt32AttrDatas().count("multiplier") != 0; }

void BroadcastOpInt8Layer::Prepare() {
  const BroadcastOp op = static_cast<BroadcastOpLayer<float>*>(Twin())->Operation();
  grids_ = {GridOf(GetInputs()[0]), GridOf(GetInputs()[1])};
  const CodeGrid out = GridOf(GetOutputs()[0]);
  output_zero_ = out.zero;
  if (op == BroadcastOp::kMul) {
    product_ = MakeProductRequantizer(grids_, out, HighAccuracy());
    StoreProductAttrs(grids_, product_);
    return;
  }
  sum_ = MakeSumQuantization(grids_, {1.0f, op == BroadcastOp::kSub ? -1.0f : 1.0f}, out,
                             HighAccuracy());
  StoreSumAttrs(grids_, sum_);
}

void BroadcastOpInt8Layer::RunCodes() {
  const auto* twin = static_cast<BroadcastOpLayer<float>*>(Twin());
  BroadcastShape g;
  g.dims = twin->MergedDims().data();
  g.stride_a = twin->StridesA().data();
  g.stride_b = twin->StridesB().data();
  g.axes = static_cast<int64_t>(twin->MergedDims().size());
  g.count = GetOutputs()[0]->Count(0);
  const uint8_t* a = GetInputs()[0]->GetCpuData();
  const uint8_t* b = GetInputs()[1]->GetCpuData();
  uint8_t* y = GetOutputs()[0]->GetCpuData();
  if (twin->Operation() == BroadcastOp::kMul) {
    ReferenceBroadcastMulU8(g, a, b, grids_, product_, output_zero_, y);
  } else {
    ReferenceBroadcastSumU8(g, a, b, grids_, sum_, y);
  }
}

}  // namespace qzdl
