#include "quantization/weights_tuner.h"

#include <nlopt.h>

#include <cmath>
#include <cstdio>

#include "dataloader/data_loader.h"
#include "quantization/observer.h"
#include "quantization/searcher.h"
#include "quantization/utils.h"

namespace qzdl {
namespace staticQuantization {

double biastuning_func(unsigned int n, const double* x, double* grad, void* data) {
  auto* ctx = static_cast<BiasTuningContext*>(data);
  const float delta = static_cast<float>(x[0]);
  const std::vector<int>& dims = ctx->dims;
  const int N = dims.size() > 0 ? dims[0] : 0;
  const int C = dims.size() > 1 ? dims[1] : 1;
  const int S = dims.size() == 4 ? dims[2] * dims[3] : 1;
  if (N < 1) return 0.0;
  const long offset = static_cast<long>(ctx->channel) * S;
  float* output = ctx->output;
  const float* reference = ctx->reference;
  auto at = [&](int b, int s) { return offset + static_cast<long>(b) * C * S + s; };

  for (int b = 0; b < N; ++b) {
    for (int s = 0; s < S; ++s) output[at(b, s)] += delta;
  }
  double error = 0.0;
  for (int b = 0; b < N; ++b) {
    double sum = 0.0;
    for (int s = 0; s < S; ++s) {
      const double d = static_cast<double>(output[at(b, s)] - reference[at(b, s)]);
      sum = std::fma(d, d, sum);
    }
    error += sum / static_cast<double>(S);
  }
  // Taken back by subtraction: a rounding residue may stay, and is accepted.
  for (int b = 0; b < N; ++b) {
    for (int s = 0; s < S; ++s) output[at(b, s)] -= delta;
  }
  return error;
}

void WeightsTuner::Init() {
  printf("Collecting all float activation ... ");
  FeedAndCacheInputs(net, data_loader, float_activations);
  // Layer by layer, so that each tensor is taken before a later layer can
  // rewrite it in place.
  for (Layer<float>* layer : net->GetLayers()) {
    layer->Forward();
    for (Data<float>* output : layer->GetOutputs()) {
      float_activations[output->GetName()] =
          ToVector(output->GetCpuData(), static_cast<unsigned long>(output->Count(0)));
    }
  }
  printf("done!\n");
}

std::vector<float> WeightsTuner::GenerateCandidate(float step, int count, float center) {
  std::vector<float> out{0.0f};
  if (count > 1) {
    for (int i = 0; i < count / 2; ++i) {
      const float fi = static_cast<float>(i);
      out.push_back(std::fma(fi, step, center));
      out.push_back(std::fma(-fi, step, center));
    }
  }
  return out;
}

void WeightsTuner::SearchOneLayer(const std::string& layer_name,
                                  std::map<std::string, Observer*> observers) {
  Layer<float>* layer = net->GetLayer(layer_name);
  if (layer->GetType() != "Convolution") return;
  Data<float>* output = layer->GetOutputs()[0];
  const std::string name = output->GetName();
  float min = 0.0f;
  float max = 0.0f;
  observers[name]->Extract(min, max);
  // The output is pushed through its final grid first.
  FakeQuantization(output->GetCpuData(), static_cast<unsigned long>(output->Count(0)), min, max, 8);

  const int batch = output->GetDim(0);
  Data<float>* bias = layer->GetWeights()[1];
  const int channels = static_cast<int>(bias->Count(0));
  const long per_batch = batch == 0 ? 0 : static_cast<long>(output->Count(0)) / batch;
  const long spatial = channels == 0 ? 0 : per_batch / channels;

  BiasTuningContext ctx;
  ctx.dims = output->GetDims();
  ctx.reference = float_activations[name].data();
  ctx.output = output->GetCpuData();
  if (channels < 1) return;
  float* bias_data = bias->GetCpuData();
  for (int c = 0; c < channels; ++c) {
    ctx.channel = c;
    nlopt_opt opt = nlopt_create(NLOPT_LN_SBPLX, 1);
    nlopt_set_min_objective(opt, biastuning_func, &ctx);
    double x = 0.0;
    double error = 0.0;
    nlopt_optimize(opt, &x, &error);
    bias_data[c] = bias_data[c] + static_cast<float>(x);
    nlopt_destroy(opt);
    printf("----Perform BiasTuning in channel %d, delta: %.13f; error: %.5f\r", c + 1, x, error);
    fflush(stdout);
    // The tensor goes on holding what the corrected layer gives.
    for (int b = 0; b < batch; ++b) {
      for (long s = 0; s < spatial; ++s) {
        ctx.output[b * channels * spatial + c * spatial + s] += static_cast<float>(x);
      }
    }
  }
}

}  // namespace staticQuantization
}  // namespace qzdl
