// The two cosine searchers: CosineSearcher scores a candidate range at the
// net's outputs after running the rest of the float net on the dequantized
// 8-bit result; CosineSimSearcher scores it on the layer's own output.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <set>

#include "quantization/mse_observer.h"
#include "quantization/observer.h"
#include "quantization/searcher.h"
#include "quantization/utils.h"

namespace qzdl {
namespace staticQuantization {
namespace {

int LayerIndex(Net<float>* net, const std::string& layer_name) {
  std::vector<Layer<float>*>& layers = net->GetLayers();
  for (size_t i = 0; i < layers.size(); ++i) {
    if (layers[i]->GetName() == layer_name) return static_cast<int>(i);
  }
  return static_cast<int>(layers.size());
}

// The 8-bit result of `int8_data` on the grid of `config`, written over the
// float tensor. Bounded by both buffers as well as by `count`.
void Dequantize(QuantizationConfig* config, Data<unsigned char>* int8_data, Data<float>* float_data,
                size_t count) {
  const float scale = config->getScale();
  const float zero = static_cast<float>(config->getZeroPoint() & 0xFF);
  count = std::min<size_t>(
      {count, static_cast<size_t>(int8_data->Count(0)), static_cast<size_t>(float_data->Count(0))});
  const unsigned char* codes = int8_data->GetCpuData();
  float* out = float_data->GetCpuData();
  for (size_t k = 0; k < count; ++k) out[k] = (static_cast<float>(codes[k]) - zero) * scale;
}

bool IsType(const std::string& type, std::initializer_list<const char*> types) {
  for (const char* t : types) {
    if (type == t) return true;
  }
  return false;
}

}  // namespace

double CosineSearcher::Score() {
  double score = 0.0;
  for (int o = 0; o < float_net->GetOutCount(); ++o) {
    Data<float>* data = float_net->GetOutputData(o);
    const std::vector<float>& a = float_activations[data->GetName()];
    const float* b = data->GetCpuData();
    const int64_t n = std::min<int64_t>(data->Count(0), static_cast<int64_t>(a.size()));
    double aa = 0.0;
    double ab = 0.0;
    double bb = 0.0;
    for (int64_t k = 0; k < n; ++k) {
      const double x = a[k];
      const double y = b[k];
      aa = std::fma(x, x, aa);
      ab = std::fma(x, y, ab);
      bb = std::fma(y, y, bb);
    }
    score += 1.0 - ab / (std::sqrt(aa) * std::sqrt(bb));
  }
  return score;
}

void CosineSearcher::SearchOneLayer(const std::string& layer_name,
                                    std::map<std::string, Observer*> observers) {
  const int layer_index = LayerIndex(float_net, layer_name);
  Layer<float>* float_layer = float_net->GetLayer(layer_name);
  Layer<unsigned char>* int8_layer = int8_net->GetLayer(layer_name);
  if (float_layer->GetOutputs().empty()) return;
  const std::string type = float_layer->GetType();
  std::vector<Layer<float>*>& layers = float_net->GetLayers();

  for (size_t i = 0; i < float_layer->GetOutputs().size(); ++i) {
    Data<float>* float_data = float_layer->GetOutputs()[i];
    Data<unsigned char>* int8_data = int8_layer->GetOutputs()[i];
    // Stays float in the 8-bit net: no range to search.
    if (int8_layer->GetOutputDataType() == "float") continue;
    const std::string name = float_data->GetName();
    std::vector<float> current =
        ToVector(float_data->GetCpuData(), static_cast<unsigned long>(float_data->Count(0)));
    // Only the length of the reference is read here.
    const size_t count = float_activations[name].size();

    auto* observer = static_cast<EnumObserver*>(observers[name]);
    std::vector<std::pair<float, float>> candidates = observer->GetCandidates();
    if (std::find(range_preserving_types.begin(), range_preserving_types.end(), type) !=
        range_preserving_types.end()) {
      for (Data<float>* input : float_layer->GetInputs()) {
        QuantizationConfig* c = int8_config->GetDataConfig(input->GetName());
        candidates.emplace_back(c->getMin(), c->getMax());
      }
    }
    if (IsType(type, {"Softmax", "Sigmoid"})) candidates.emplace_back(0.0f, 1.0f);
    if (IsType(type, {"TanH", "L2Normalize"})) candidates.emplace_back(-1.0f, 1.0f);

    float best_min = -1.0f;
    float best_max = 1.0f;
    double best_score = static_cast<double>(static_cast<float>(float_net->GetOutCount()) * 2.5f);
    // Every candidate is tried, a repeated one too: the set records them only.
    std::set<std::pair<float, float>> tried;
    QuantizationConfig* config = int8_config->GetDataConfig(name);
    const int n = static_cast<int>(candidates.size());
    for (int j = 0; j < n; ++j) {
      const float min = candidates[j].first;
      const float max = candidates[j].second;
      printf("[%d/%d]searching in %d_th candidate: [%05f, %05f]\r", j + 1, n, j + 1, min, max);
      fflush(stdout);
      EvaluateL2(current, min, max);
      tried.insert(candidates[j]);

      config->update(min, max);
      ClearInt8Layer(int8_layer);
      int8_layer->Forward();
      Dequantize(config, int8_data, float_data, count);
      for (size_t l = static_cast<size_t>(layer_index) + 1; l < layers.size(); ++l) {
        layers[l]->Forward();
      }
      const double score = Score();
      // A later candidate must do better by more than 1e-6; NaN never wins.
      if (score + 1e-6 < best_score) {
        best_min = min;
        best_max = max;
        best_score = score;
      }
    }

    // A second stage around the winner's grid is prepared and not taken.
    float scale = 0.0f;
    int zero = 0;
    ConfigureScaleZero(best_min, best_max, 8, scale, zero);
    candidates.clear();
    GenerateCandidates(candidates, scale, static_cast<unsigned char>(zero & 0xFF));

    config->update(best_min, best_max);
    ClearInt8Layer(int8_layer);
    int8_layer->Forward();
    Dequantize(config, int8_data, float_data, count);
    observer->SetVal(best_min, best_max);
  }

  // The bounded activations end at their fixed range whatever won.
  const std::string first_output_name = float_layer->GetOutputs()[0]->GetName();
  if (IsType(type, {"Softmax", "Sigmoid"})) {
    int8_config->GetDataConfig(first_output_name)->update(0.0f, 1.0f);
  } else if (IsType(type, {"TanH", "L2Normalize"})) {
    int8_config->GetDataConfig(first_output_name)->update(-1.0f, 1.0f);
  }
}

void CosineSearcher::GenerateCandidates(std::vector<std::pair<float, float>>& out, float scale,
                                        unsigned char zero) {
  static const int kScaleOffsets[] = {0,    4096, -4096, 2048,  -2048, 1024, -1024, 3072, -3072,
                                      512,  -512, 1536,  -1536, 256,   -256, 768,   -768, 128,
                                      -128, 384,  -384,  64,    -64,   192,  -192};
  auto range = [&](int e, int z) {
    const float step = static_cast<float>(e + 8192) * scale * 0.00012207031f;
    const int q = (static_cast<int>(zero) + z) & 255;
    const float min = q == 0 ? 0.0f : -(static_cast<float>(q) * step);
    out.emplace_back(min, std::fma(step, 255.0f, min));
  };
  for (const int e : kScaleOffsets) range(e, 0);
  if (zero != 0) {
    for (const int z : {-3, -1, 1, 3}) range(0, z);
  }
}

void CosineSimSearcher::SearchOneLayer(const std::string& layer_name,
                                       std::map<std::string, Observer*> observers) {
  Layer<float>* float_layer = float_net->GetLayer(layer_name);
  Layer<unsigned char>* int8_layer = int8_net->GetLayer(layer_name);
  for (size_t i = 0; i < float_layer->GetOutputs().size(); ++i) {
    Data<float>* float_data = float_layer->GetOutputs()[i];
    Data<unsigned char>* int8_data = int8_layer->GetOutputs()[i];
    const std::string name = float_data->GetName();
    if (int8_data->GetDataType() == "float") continue;

    float min = 0.0f;
    float max = 0.0f;
    observers[name]->Extract(min, max);
    float lo = min < 0 ? min : 0.0f;
    float hi = max > 0 ? max : 0.0f;

    // Steps of 0.5 % from the range down to half of it, 0 always inside.
    std::vector<std::pair<float, float>> candidates;
    candidates.emplace_back(lo, hi);
    const float dlo = lo * 0.005f;
    const float dhi = hi * 0.005f;
    for (int t = 1; t <= 100; ++t) {
      const float ft = static_cast<float>(t);
      candidates.emplace_back(std::fma(-ft, dlo, lo), std::fma(-ft, dhi, hi));
    }

    double best_similarity = 0.0;
    QuantizationConfig* config = int8_config->GetDataConfig(name);
    const int n_candidates = static_cast<int>(candidates.size());
    for (int j = 0; j < n_candidates; ++j) {
      const float cmin = candidates[j].first;
      const float cmax = candidates[j].second;
      config->update(cmin, cmax);
      ClearInt8Layer(int8_layer);
      int8_layer->Forward();

      const int64_t n = int8_data->Count(0);
      std::unique_ptr<float[]> dequantized(new float[static_cast<size_t>(std::max<int64_t>(n, 0))]);
      const unsigned char* codes = int8_data->GetCpuData();
      for (int64_t k = 0; k < n; ++k) dequantized[k] = config->invQuantization(codes[k]);
      const std::vector<float>& reference = float_activations[name];

      double similarity = 1.0;
      if (n > 0) {
        double sa = 0.0;
        double sab = 0.0;
        double sb = 0.0;
        const int64_t m = std::min<int64_t>(n, static_cast<int64_t>(reference.size()));
        for (int64_t k = 0; k < m; ++k) {
          const float p = dequantized[k];
          const float r = reference[k];
          sa += static_cast<double>(p * p);
          sab += static_cast<double>(p * r);
          sb += static_cast<double>(r * r);
        }
        similarity = (sa == 0.0 && sb == 0.0) ? 1.0 : sab / std::sqrt(sa * sb);
      }
      // Ties keep the earlier candidate; NaN does not win.
      if (similarity > best_similarity) {
        best_similarity = similarity;
        lo = cmin;
        hi = cmax;
      }
      printf("[%d/%d]searching in %d_th candidate: [%.5f, %.5f], sim: %f\n", j + 1, n_candidates,
             j + 1, cmin, cmax, best_similarity);
      fflush(stdout);
    }

    config->update(lo, hi);
    ClearInt8Layer(int8_layer);
    int8_layer->Forward();
    FakeQuantization(float_data->GetCpuData(), static_cast<unsigned long>(float_data->Count(0)), lo,
                     hi, 8);
    observers[name]->SetOptMinMax(lo, hi);
  }
}

}  // namespace staticQuantization
}  // namespace qzdl
