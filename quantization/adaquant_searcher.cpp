// The AdaQuant searchers: factors around 1.0 on a layer's input and weight
// ranges, found by Nelder-Mead (NLopt, default stopping rules) on the squared
// error against the cached float activations. All work is on the float net.
#include <nlopt.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quantization/observer.h"
#include "quantization/searcher.h"
#include "quantization/utils.h"

namespace qzdl {
namespace staticQuantization {

template <typename T>
std::string list_string(const T* values, unsigned long count) {
  std::string s = "[";
  char buf[64];
  for (unsigned long i = 0; i < count; ++i) {
    snprintf(buf, sizeof buf, "%f", static_cast<double>(values[i]));
    if (i) s += ", ";
    s += buf;
  }
  return s + "]";
}
template std::string list_string<double>(const double* values, unsigned long count);

namespace {

// Every evaluation starts from clean float inputs, fake-quantized on the
// scaled ranges.
void QuantizeInputs(Layer<float>* layer, const std::vector<float>& input_min,
                    const std::vector<float>& input_max, const double* x,
                    std::map<std::string, std::vector<float>>* activations) {
  std::vector<Data<float>*>& inputs = layer->GetInputs();
  const size_t count = inputs.size();
  std::vector<float> smin(count);
  std::vector<float> smax(count);
  for (size_t i = 0; i < count; ++i) {
    smin[i] = static_cast<float>(static_cast<double>(input_min[i]) * x[i]);
    smax[i] = static_cast<float>(static_cast<double>(input_max[i]) * x[count + i]);
  }
  for (size_t i = 0; i < count; ++i) {
    Data<float>* input = inputs[i];
    const std::vector<float>& clean = (*activations)[input->GetName()];
    const size_t bytes = std::min(static_cast<size_t>(static_cast<int32_t>(input->GetSize())),
                                  clean.size() * sizeof(float));
    if (bytes > 0) std::memcpy(input->GetCpuData(), clean.data(), bytes);
    FakeQuantization(input->GetCpuData(), static_cast<unsigned long>(input->Count(0)), smin[i],
                     smax[i], 8);
  }
}

// Fake-quantizes the first weight tensor per channel on the scaled ranges;
// returns the saved float weights (empty when no weight range is known).
std::vector<float> QuantizeWeights(Layer<float>* layer, const std::vector<float>& weight_min,
                                   const std::vector<float>& weight_max, const double* x) {
  if (weight_min.empty() || weight_max.empty()) return {};
  Data<float>* w = layer->GetWeights()[0];
  const size_t total = static_cast<size_t>(w->Count(0));
  std::vector<float> saved(w->GetCpuData(), w->GetCpuData() + total);
  const size_t inputs = layer->GetInputs().size();
  const size_t channels = weight_min.size();
  const size_t per_channel = total / channels;
  for (size_t c = 0; c < channels; ++c) {
    const float wmin = static_cast<float>(static_cast<double>(weight_min[c]) * x[2 * inputs]);
    const float wmax = static_cast<float>(static_cast<double>(weight_max[c]) * x[2 * inputs + 1]);
    FakeQuantization(w->GetCpuData() + c * per_channel, per_channel, wmin, wmax, 8);
  }
  return saved;
}

void RestoreWeights(Layer<float>* layer, const std::vector<float>& saved) {
  if (saved.empty()) return;
  std::memcpy(layer->GetWeights()[0]->GetCpuData(), saved.data(), saved.size() * sizeof(float));
}

// Sum of d*d over the elements, d = a - b in single precision, in double.
double SquaredError(const float* a, const float* b, int64_t m) {
  double sum = 0.0;
  for (int64_t k = 0; k < m; ++k) {
    const double d = static_cast<double>(a[k] - b[k]);
    sum = std::fma(d, d, sum);
  }
  return sum;
}

// The shared set-up of both searchers: peak ranges of the inputs as they
// stand in the float net, and per-channel peaks of the first weight.
template <typename Context>
void CollectRanges(Layer<float>* layer, Context& ctx) {
  for (Data<float>* input : layer->GetInputs()) {
    ctx.input_min.push_back(input->GetMinValue());
    ctx.input_max.push_back(input->GetMaxValue());
  }
  if (layer->GetWeights().empty()) return;
  Data<float>* w = layer->GetWeights()[0];
  w->ChangeDataType("float");
  const int channels = layer->GetChannelNum();
  const int64_t per_channel = channels == 0 ? 0 : w->Count(0) / channels;
  for (int c = 0; c < channels; ++c) {
    const int from = static_cast<int>(c * per_channel);
    const int to = static_cast<int>((c + 1) * per_channel);
    ctx.weight_min.push_back(w->GetMinValue(from, to));
    ctx.weight_max.push_back(w->GetMaxValue(from, to));
  }
}

// Runs Nelder-Mead from all ones; returns the factors.
std::vector<double> Minimize(unsigned dim, nlopt_func objective, void* data) {
  nlopt_opt opt = nlopt_create(NLOPT_LN_NELDERMEAD, dim);
  nlopt_set_min_objective(opt, objective, data);
  std::vector<double> x(std::max(dim, 1u), 1.0);
  double error = 0.0;
  nlopt_optimize(opt, x.data(), &error);
  printf("\n----Final error: %.13f, res: %s\n", error, list_string(x.data(), dim).c_str());
  nlopt_destroy(opt);
  return x;
}

// Stores the scaled ranges: the inputs' in their observers, the weights' in
// the configuration of weight 0.
template <typename Context>
void StoreResult(Layer<float>* layer, Context& ctx, const std::vector<double>& x,
                 std::map<std::string, Observer*>& observers, INT8Config* config) {
  const size_t inputs = ctx.input_min.size();
  for (size_t i = 0; i < inputs; ++i) {
    ctx.input_min[i] = static_cast<float>(static_cast<double>(ctx.input_min[i]) * x[i]);
    ctx.input_max[i] = static_cast<float>(static_cast<double>(ctx.input_max[i]) * x[inputs + i]);
  }
  for (size_t i = 0; i < inputs; ++i) {
    observers[layer->GetInputs()[i]->GetName()]->SetOptMinMax(ctx.input_min[i], ctx.input_max[i]);
  }
  if (layer->GetWeights().empty() || ctx.weight_min.empty()) return;
  for (size_t c = 0; c < ctx.weight_min.size(); ++c) {
    ctx.weight_min[c] = static_cast<float>(static_cast<double>(ctx.weight_min[c]) * x[2 * inputs]);
    ctx.weight_max[c] =
        static_cast<float>(static_cast<double>(ctx.weight_max[c]) * x[2 * inputs + 1]);
    config->addWeightConfig(layer->GetName(), 0, static_cast<int>(c), ctx.weight_min[c],
                            ctx.weight_max[c]);
  }
}

unsigned Dimension(Layer<float>* layer) {
  return static_cast<unsigned>(2 * layer->GetInputs().size() +
                               (layer->GetWeights().empty() ? 0 : 2));
}

}  // namespace

double adaquant_func(unsigned int n, const double* x, double* grad, void* data) {
  auto* ctx = static_cast<AdaQuantContext*>(data);
  Net<float>* net = ctx->net;
  Layer<float>* layer = net->GetLayers()[ctx->layer_index];
  QuantizeInputs(layer, ctx->input_min, ctx->input_max, x, ctx->activations);
  const std::vector<float> saved = QuantizeWeights(layer, ctx->weight_min, ctx->weight_max, x);

  net->ForwardFromTo(ctx->layer_index, static_cast<int>(net->GetLayers().size()), false);
  double error = 0.0;
  for (int o = 0; o < net->GetOutCount(); ++o) {
    const float* out = net->GetFloatOutputData(o);
    const std::vector<float>& ref = (*ctx->activations)[net->GetOutputDataName(o)];
    const int64_t m = net->GetOutputCount(o);
    error +=
        SquaredError(out, ref.data(), std::min<int64_t>(m, ref.size())) / static_cast<double>(m);
  }
  RestoreWeights(layer, saved);
  printf("----Performing AdaQuant: error: %.13f, res: %s\r", error, list_string(x, n).c_str());
  fflush(stdout);
  return error;
}

double adaquantseq_func(unsigned int n, const double* x, double* grad, void* data) {
  auto* ctx = static_cast<AdaQuantSeqContext*>(data);
  // The best error lives in a private copy, so it never leaves its start
  // value: every evaluation with a finite error replaces the kept outputs.
  double best_error = ctx->best_error;
  Layer<float>* layer = ctx->layer;
  QuantizeInputs(layer, ctx->input_min, ctx->input_max, x, ctx->activations);
  const std::vector<float> saved = QuantizeWeights(layer, ctx->weight_min, ctx->weight_max, x);

  layer->Forward();
  double error = 0.0;
  for (Data<float>* output : layer->GetOutputs()) {
    const std::vector<float>& ref = (*ctx->activations)[output->GetName()];
    const int m = static_cast<int>(output->Count(0));
    error += SquaredError(ref.data(), output->GetCpuData(),
                          std::min<int64_t>(m, static_cast<int64_t>(ref.size()))) /
             static_cast<double>(m);
  }
  RestoreWeights(layer, saved);
  if (best_error > error) {
    best_error = error;
    std::vector<Data<float>*>& outputs = layer->GetOutputs();
    for (size_t i = 0; i < outputs.size() && i < ctx->best_outputs.size(); ++i) {
      const size_t count = static_cast<size_t>(outputs[i]->Count(0));
      if (ctx->best_outputs[i] == nullptr) ctx->best_outputs[i] = new float[count];
      std::memcpy(ctx->best_outputs[i], outputs[i]->GetCpuData(), count * sizeof(float));
    }
  }
  printf("----Performing AdaQuantSeq: error: %.13f, res: %s\r", error, list_string(x, n).c_str());
  fflush(stdout);
  return error;
}

void AdaQuantSearcher::SearchOneLayer(const std::string& layer_name,
                                      std::map<std::string, Observer*> observers) {
  std::vector<Layer<float>*>& layers = float_net->GetLayers();
  int layer_index = static_cast<int>(layers.size());
  for (size_t i = 0; i < layers.size(); ++i) {
    if (layers[i]->GetName() == layer_name) {
      layer_index = static_cast<int>(i);
      break;
    }
  }
  Layer<float>* layer = float_net->GetLayer(layer_name);
  AdaQuantContext ctx;
  ctx.layer_index = layer_index;
  ctx.net = float_net;
  ctx.activations = &float_activations;
  CollectRanges(layer, ctx);
  const std::vector<double> x = Minimize(Dimension(layer), adaquant_func, &ctx);
  StoreResult(layer, ctx, x, observers, int8_config);
}

void AdaQuantSeqSearcher::SearchOneLayer(const std::string& layer_name,
                                         std::map<std::string, Observer*> observers) {
  Layer<float>* layer = float_net->GetLayer(layer_name);
  AdaQuantSeqContext ctx;
  ctx.layer = layer;
  ctx.activations = &float_activations;
  CollectRanges(layer, ctx);
  // Start from the outputs as they are, so that a search whose every
  // evaluation failed leaves them unchanged.
  for (Data<float>* output : layer->GetOutputs()) {
    const size_t count = static_cast<size_t>(output->Count(0));
    float* buffer = new float[count];
    std::memcpy(buffer, output->GetCpuData(), count * sizeof(float));
    ctx.best_outputs.push_back(buffer);
  }
  const std::vector<double> x = Minimize(Dimension(layer), adaquantseq_func, &ctx);
  StoreResult(layer, ctx, x, observers, int8_config);
  // The outputs of the last evaluation with a finite error.
  std::vector<Data<float>*>& outputs = layer->GetOutputs();
  for (size_t i = 0; i < outputs.size(); ++i) {
    std::memcpy(outputs[i]->GetCpuData(), ctx.best_outputs[i],
                static_cast<size_t>(outputs[i]->Count(0)) * sizeof(float));
    delete[] ctx.best_outputs[i];
  }
}

}  // namespace staticQuantization
}  // namespace qzdl
