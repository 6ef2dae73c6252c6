#include "bench/bench_models.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <stdexcept>

#include "runtime/create_net.h"
#include "runtime/layer_registry.h"

namespace qzdl::bench {

namespace {

using json11::Json;

// Uniform floats in [-1, 1) from the 24 high bits of a Mersenne twister, whose
// sequence the language fixes; std::uniform_real_distribution is free to
// differ between libraries.
class Uniform {
 public:
  explicit Uniform(uint32_t seed) : gen_(seed) {}
  float Next() { return static_cast<float>(gen_() >> 8) * (2.0f / 16777216.0f) - 1.0f; }

 private:
  std::mt19937 gen_;
};

// Collects layers and weight blobs; each method adds one layer and returns
// the name of the tensor it writes.
class GraphBuilder {
 public:
  explicit GraphBuilder(uint32_t seed) : rng_(seed) {}

  std::string Input(const std::string& name, const std::vector<int>& dims) {
    inputs_.push_back(
        Json::object{{"name", name}, {"dims", Json::array(dims.begin(), dims.end())}});
    return name;
  }

  // A k x k convolution with bias. Weights have variance gain^2 * 2 / fan-in.
  std::string Conv(const std::string& name, const std::string& in, int cin, int cout, int k,
                   int stride, int pad, int group = 1, float gain = 1.0f) {
    const int fan_in = cin / group * k * k;
    const float bound = gain * std::sqrt(6.0f / static_cast<float>(fan_in));
    Blob(name, "weight", {cout, cin / group, k, k}, bound);
    Blob(name, "bias", {cout}, 0.05f);
    Json::object param{{"num_output", cout}, {"kernel_size", k}, {"stride", stride},
                       {"pad", pad},         {"group", group},   {"bias_term", true}};
    return Add(name, "Convolution", {in}, name, param);
  }

  // In place, as activations usually are.
  std::string Relu(const std::string& name, const std::string& in) {
    return Add(name, "ReLU", {in}, in, {});
  }
  std::string Relu6(const std::string& name, const std::string& in) {
    return Add(name, "ReLUX", {in}, in, {{"threshold", 6.0}});
  }

  std::string MaxPool(const std::string& name, const std::string& in, int k, int stride, int pad) {
    return Add(name, "Pooling", {in}, name,
               {{"pool", "max"}, {"kernel_size", k}, {"stride", stride}, {"pad", pad}});
  }
  std::string GlobalAvgPool(const std::string& name, const std::string& in) {
    return Add(name, "Pooling", {in}, name, {{"pool", "ave"}, {"global_pooling", true}});
  }
  std::string Sum(const std::string& name, const std::string& a, const std::string& b) {
    return Add(name, "Eltwise", {a, b}, name, {{"operation", "sum"}});
  }
  // Logits with variance about that of the input.
  std::string Fc(const std::string& name, const std::string& in, int k, int n) {
    Blob(name, "weight", {n, k}, std::sqrt(3.0f / static_cast<float>(k)));
    Blob(name, "bias", {n}, 0.05f);
    return Add(name, "InnerProduct", {in}, name, {{"num_output", n}, {"bias_term", true}});
  }
  std::string Softmax(const std::string& name, const std::string& in) {
    return Add(name, "Softmax", {in}, name, {{"axis", 1}});
  }

  BenchModel Finish(const std::string& name) {
    BenchModel m;
    m.name = name;
    m.net = Json::object{{"inputs", inputs_}, {"layers", layers_}};
    m.blobs = std::move(blobs_);
    return m;
  }

 private:
  std::string Add(const std::string& name, const std::string& type,
                  const std::vector<std::string>& inputs, const std::string& output,
                  Json::object param) {
    layers_.push_back(Json::object{{"name", name},
                                   {"type", type},
                                   {"inputs", Json::array(inputs.begin(), inputs.end())},
                                   {"outputs", Json::array{output}},
                                   {"param", std::move(param)}});
    return output;
  }

  void Blob(const std::string& layer, const std::string& blob, const std::vector<int>& dims,
            float bound) {
    size_t n = 1;
    for (int d : dims) n *= static_cast<size_t>(d);
    std::vector<float> values(n);
    for (float& v : values) v = bound * rng_.Next();
    blobs_.push_back(WeightBlob{layer, blob, dims, std::move(values)});
  }

  Uniform rng_;
  Json::array inputs_;
  Json::array layers_;
  std::vector<WeightBlob> blobs_;
};

// The branch of a residual block ends without a ReLU and is added to the
// shortcut; a gain of 1/sqrt(2) keeps the sum's variance near that of either.
const float kResidualGain = std::sqrt(0.5f);

}  // namespace

std::vector<std::string> BenchModel::MissingLayerTypes() const {
  const std::vector<std::string> known = RegisteredLayerTypes<float>();
  std::set<std::string> missing;
  for (const Json& layer : net["layers"].array_items()) {
    const std::string& type = layer["type"].string_value();
    if (std::find(known.begin(), known.end(), type) == known.end()) missing.insert(type);
  }
  return {missing.begin(), missing.end()};
}

int64_t BenchModel::InputCountPerItem() const {
  int64_t n = 1;
  const Json::array& dims = net["inputs"][0]["dims"].array_items();
  for (size_t i = 1; i < dims.size(); ++i) n *= dims[i].int_value();
  return n;
}

BenchModel MakeResNet18(uint32_t seed) {
  GraphBuilder g(seed);
  std::string x = g.Input("data", {1, 3, 224, 224});
  x = g.Conv("conv1", x, 3, 64, 7, 2, 3);
  x = g.Relu("conv1_relu", x);
  x = g.MaxPool("pool1", x, 3, 2, 1);

  int cin = 64;
  const int channels[4] = {64, 128, 256, 512};
  for (int stage = 0; stage < 4; ++stage) {
    const int c = channels[stage];
    for (int block = 0; block < 2; ++block) {
      const int stride = (stage > 0 && block == 0) ? 2 : 1;
      const std::string p = "layer" + std::to_string(stage + 1) + "_" + std::to_string(block) + "_";
      std::string shortcut = x;
      if (stride != 1 || cin != c)
        shortcut = g.Conv(p + "downsample", x, cin, c, 1, stride, 0, 1, kResidualGain);
      std::string y = g.Conv(p + "conv1", x, cin, c, 3, stride, 1);
      y = g.Relu(p + "relu1", y);
      y = g.Conv(p + "conv2", y, c, c, 3, 1, 1, 1, kResidualGain);
      x = g.Sum(p + "sum", y, shortcut);
      x = g.Relu(p + "relu2", x);
      cin = c;
    }
  }
  x = g.GlobalAvgPool("pool5", x);
  x = g.Fc("fc", x, 512, 1000);
  g.Softmax("prob", x);
  return g.Finish("resnet18");
}

BenchModel MakeMobileNetV2(uint32_t seed) {
  GraphBuilder g(seed);
  std::string x = g.Input("data", {1, 3, 224, 224});
  x = g.Conv("conv1", x, 3, 32, 3, 2, 1);
  x = g.Relu6("conv1_relu", x);

  // Expansion t, output channels c, repeats n, first stride s.
  struct Stage {
    int t, c, n, s;
  };
  const Stage stages[] = {{1, 16, 1, 1}, {6, 24, 2, 2},  {6, 32, 3, 2}, {6, 64, 4, 2},
                          {6, 96, 3, 1}, {6, 160, 3, 2}, {6, 320, 1, 1}};
  int cin = 32;
  int index = 0;
  for (const Stage& st : stages) {
    for (int i = 0; i < st.n; ++i, ++index) {
      const int stride = i == 0 ? st.s : 1;
      const int hidden = cin * st.t;
      const std::string p = "block" + std::to_string(index) + "_";
      std::string y = x;
      if (st.t != 1) {
        y = g.Conv(p + "expand", y, cin, hidden, 1, 1, 0);
        y = g.Relu6(p + "expand_relu", y);
      }
      y = g.Conv(p + "dw", y, hidden, hidden, 3, stride, 1, hidden);
      y = g.Relu6(p + "dw_relu", y);
      const bool residual = stride == 1 && cin == st.c;
      // The projection is linear: no ReLU halves its input's energy.
      y = g.Conv(p + "project", y, hidden, st.c, 1, 1, 0, 1,
                 residual ? kResidualGain * kResidualGain : kResidualGain);
      x = residual ? g.Sum(p + "sum", y, x) : y;
      cin = st.c;
    }
  }
  x = g.Conv("conv_last", x, cin, 1280, 1, 1, 0);
  x = g.Relu6("conv_last_relu", x);
  x = g.GlobalAvgPool("pool", x);
  g.Fc("fc", x, 1280, 1000);
  return g.Finish("mobilenetv2");
}

std::vector<std::string> BenchModelNames() { return {"resnet18", "mobilenetv2"}; }

BenchModel MakeBenchModel(const std::string& name) {
  if (name == "resnet18") return MakeResNet18();
  if (name == "mobilenetv2") return MakeMobileNetV2();
  throw std::invalid_argument("unknown bench model: " + name);
}

std::unique_ptr<Net<float>> CreateBenchNet(const BenchModel& model, int batch) {
  std::string weights = model.WeightsBytes();
  std::unique_ptr<Net<float>> net(CreateNetFromContent<float>(
      model.JsonText(), weights.data(), static_cast<int>(weights.size()), false, false, 0, 1));
  net->ReshapeBatchNum(batch, 0);
  return net;
}

std::vector<float> BenchInput(size_t n, uint32_t seed) {
  Uniform rng(seed);
  std::vector<float> v(n);
  for (float& x : v) x = rng.Next();
  return v;
}

}  // namespace qzdl::bench
