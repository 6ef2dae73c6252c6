#include "support/test_layers.h"

#include <cstring>

#include "runtime/layer_registry.h"

namespace qzdl::test {

int TestLayerCounters::reshape_calls = 0;
long TestLayerCounters::adjust_calls = 0;

namespace {

class TestAffineLayer : public Layer<float> {
 public:
  void LoadParam(const ParamReader& param) override {
    ExpectCounts(1, 1, 1, 1);
    has_bias_ = param.Bool("has_bias", false);
  }
  void Reshape() override {
    ++TestLayerCounters::reshape_calls;
    out()->Resize(in()->GetDims());
  }
  std::vector<WeightSpec> WeightSpecs() override {
    std::vector<WeightSpec> specs = {{"weight", {in()->GetDim(1)}}};
    if (has_bias_) specs.push_back({"bias", {in()->GetDim(1)}});
    return specs;
  }

 protected:
  void Run() override {
    const int n = in()->GetDim(0), c = in()->GetDim(1);
    const int64_t inner = in()->Count(2);
    const float* x = in()->GetCpuData();
    float* y = out()->GetCpuData();
    const float* w = weight(0)->GetCpuData();
    const float* b = has_bias_ ? weight(1)->GetCpuData() : nullptr;
    // Clears y before reading x: run on one shared buffer it would read zeros.
    std::memset(y, 0, sizeof(float) * out()->Count(0));
    for (int i = 0; i < n * c; ++i)
      for (int64_t k = 0; k < inner; ++k)
        y[i * inner + k] += x[i * inner + k] * w[i % c] + (b ? b[i % c] : 0.0f);
  }

 private:
  bool has_bias_ = false;
};

class TestSettleLayer : public Layer<float> {
 public:
  void LoadParam(const ParamReader& param) override {
    ExpectCounts(1, 1, 1, 1);
    settle_after_ = param.Int("settle_after", 0);
  }
  void Reshape() override { out()->Resize(in()->GetDims()); }
  bool AdjustInt8Config() override {
    ++TestLayerCounters::adjust_calls;
    return calls_++ < settle_after_;
  }

 protected:
  void Run() override {
    std::memcpy(out()->GetCpuData(), in()->GetCpuData(), in()->Count(0) * sizeof(float));
  }

 private:
  long settle_after_ = 0;
  long calls_ = 0;
};

template <class L>
std::unique_ptr<Layer<float>> Make() {
  return std::make_unique<L>();
}

}  // namespace

void RegisterTestLayers() {
  RegisterLayerTypeForTesting<float>("TestAffine", &Make<TestAffineLayer>);
  RegisterLayerTypeForTesting<float>("TestSettle", &Make<TestSettleLayer>);
}

}  // namespace qzdl::test
