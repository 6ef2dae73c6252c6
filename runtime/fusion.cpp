#include "runtime/fusion.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "runtime/layers/activation.h"

namespace qzdl {

bool EpilogueOf(Layer<float>* layer, Epilogue* e) {
  if (layer->GetInputs().size() != 1 || layer->GetOutputs().size() != 1) return false;
  if (auto* relu = dynamic_cast<ReluLayer<float>*>(layer)) {
    *e = {Epilogue::Kind::kRelu, relu->NegativeSlope()};
    return true;
  }
  if (auto* leaky = dynamic_cast<LeakyReluLayer<float>*>(layer)) {
    *e = {Epilogue::Kind::kRelu, leaky->NegativeSlope()};
    return true;
  }
  if (auto* relux = dynamic_cast<ReluXLayer<float>*>(layer)) {
    *e = {Epilogue::Kind::kClip, relux->getThreshold()};
    return true;
  }
  if (auto* swish = dynamic_cast<SwishLayer<float>*>(layer)) {
    if (!swish->Hard()) return false;
    *e = {Epilogue::Kind::kHardSwish, 0.0f};
    return true;
  }
  return false;
}

int PlanFusion(const std::vector<Layer<float>*>& layers, const std::vector<std::string>& keep,
               bool on) {
  for (Layer<float>* l : layers) {
    l->FuseEpilogue(Epilogue{}, nullptr);
    l->SetFusedAway(false);
  }
  if (!on) return 0;
  // Tensors by name: staged inputs are private copies under the shared name.
  std::map<std::string, std::vector<int>> readers, writers;
  const int count = static_cast<int>(layers.size());
  for (int i = 0; i < count; ++i) {
    for (Data<float>* t : layers[i]->GetInputs()) readers[t->GetName()].push_back(i);
    for (Data<float>* t : layers[i]->GetOutputs()) writers[t->GetName()].push_back(i);
  }
  const std::set<std::string> kept(keep.begin(), keep.end());
  std::vector<bool> taken(layers.size(), false);  // producers and fused activations
  int fused = 0;
  for (int i = 0; i < count; ++i) {
    Layer<float>* producer = layers[i];
    if (taken[i] || producer->GetOutputs().size() != 1) continue;
    const std::string t = producer->GetOutputs()[0]->GetName();
    if (kept.count(t) != 0) continue;
    const std::vector<int>& rd = readers[t];
    if (rd.empty() || rd.front() <= i) continue;
    const int j = rd.front();
    Layer<float>* act = layers[j];
    Epilogue e;
    if (taken[j] || !EpilogueOf(act, &e)) continue;
    Data<float>* dst = act->GetOutputs()[0];
    const std::string u = dst->GetName();
    bool reads_dst = false;
    for (Data<float>* x : producer->GetInputs()) reads_dst |= x->GetName() == u;
    if (reads_dst) continue;
    if (u == t) {
      // In place: the activation rewrites t; readers after it read its result.
      if (writers[t] != std::vector<int>{i, j}) continue;
      if (std::count(rd.begin(), rd.end(), j) != 1) continue;
    } else {
      if (rd != std::vector<int>{j} || writers[t] != std::vector<int>{i}) continue;
    }
    if (!producer->FuseEpilogue(e, dst)) continue;
    act->SetFusedAway(true);
    taken[i] = taken[j] = true;
    ++fused;
  }
  return fused;
}

}  // namespace qzdl
