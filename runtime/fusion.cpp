#include "runtime/fusion.h"

#include <algorithm>
#include <climits>
#include <map>
#include <set>
#include <string>

#include "runtime/layers/activation.h"
#include "runtime/layers/concat.h"
#include "runtime/layers/normalization.h"

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
    *e = swish->Hard() ? Epilogue{Epilogue::Kind::kHardSwish, 0.0f}
                       : Epilogue{Epilogue::Kind::kSwish, swish->Beta()};
    return true;
  }
  if (dynamic_cast<SigmoidLayer<float>*>(layer) != nullptr) {
    *e = {Epilogue::Kind::kSigmoid, 0.0f};
    return true;
  }
  return false;
}

int PlanFusion(const std::vector<Layer<float>*>& layers, const std::vector<std::string>& keep,
               bool on) {
  for (Layer<float>* l : layers) {
    l->FuseEpilogue(Epilogue{}, nullptr, nullptr);
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
  std::vector<bool> taken(layers.size(), false);  // producers and fused layers
  int fused = 0;
  for (int i = 0; i < count; ++i) {
    Layer<float>* producer = layers[i];
    if (taken[i] || producer->GetOutputs().size() != 1) continue;
    std::set<int> chain = {i};
    ChannelAffine* affine = nullptr;
    Epilogue e;
    Data<float>* dst = nullptr;
    int last = i;
    std::string t = producer->GetOutputs()[0]->GetName();
    // Follow the output through at most a Scale or BatchNormal and then an
    // activation, each the only reader of what the one before wrote.
    while (true) {
      if (kept.count(t) != 0) break;
      const std::vector<int>& rd = readers[t];
      auto after = std::upper_bound(rd.begin(), rd.end(), last);
      if (after == rd.end()) break;
      const int j = *after;
      Layer<float>* next = layers[j];
      if (taken[j] || next->GetInputs().size() != 1 || next->GetOutputs().size() != 1) break;
      Epilogue act;
      const bool is_act = EpilogueOf(next, &act);
      auto* aff = dynamic_cast<ChannelAffine*>(next);
      if (!is_act && (aff == nullptr || affine != nullptr)) break;
      Data<float>* out = next->GetOutputs()[0];
      const std::string u = out->GetName();
      bool reads_u = false;
      for (Data<float>* x : producer->GetInputs()) reads_u |= x->GetName() == u;
      if (reads_u) break;
      // Every writer of t is in the chain (or is `next`, in place), and no
      // layer outside the chain reads t before `next` has run (out of
      // place: at all).
      bool ok = true;
      for (int w : writers[t]) ok &= chain.count(w) != 0 || (w == j && u == t);
      for (int r : rd) ok &= chain.count(r) != 0 || r == j || (u == t && r > j);
      // The producer writes u early; no layer before `next` can see it, as
      // a tensor is first written by the layer that creates it (the net
      // refuses other rewrites than in-place ones).
      if (!ok) break;
      if (is_act) {
        e.kind = act.kind;
        e.param = act.param;
      } else {
        affine = aff;
      }
      chain.insert(j);
      last = j;
      dst = out;
      t = u;
      if (is_act) break;
    }
    if (chain.size() < 2) continue;
    if (!producer->FuseEpilogue(e, dst, affine)) continue;
    for (int j : chain) {
      taken[j] = true;
      if (j != i) layers[j]->SetFusedAway(true);
    }
    ++fused;
  }
  return fused;
}

int PlanConcatViews(const std::vector<Layer<float>*>& layers, const std::vector<std::string>& keep,
                    bool on, std::vector<Data<float>*>* viewed) {
  for (Data<float>* t : *viewed)
    if (t->GetCpuData() != nullptr) t->Reallocate();
  viewed->clear();
  if (!on) return 0;
  std::map<std::string, std::vector<int>> readers, writers;
  const int count = static_cast<int>(layers.size());
  for (int i = 0; i < count; ++i) {
    for (Data<float>* t : layers[i]->GetInputs()) readers[t->GetName()].push_back(i);
    for (Data<float>* t : layers[i]->GetOutputs()) writers[t->GetName()].push_back(i);
  }
  const std::set<std::string> kept(keep.begin(), keep.end());
  // Per viewed tensor: the first layer that rewrites its storage through
  // the concat outputs that hold it (its readers must all come before).
  std::map<std::string, int> limit;
  // Later concats first: an output viewed by a later concat then already
  // points into that concat's output when its own inputs are placed.
  for (int c = count - 1; c >= 0; --c) {
    auto* concat = dynamic_cast<ConcatLayer<float>*>(layers[c]);
    if (concat == nullptr || !concat->Contiguous() || layers[c]->GetOutputs().size() != 1) continue;
    Data<float>* out = layers[c]->GetOutputs()[0];
    const std::string o = out->GetName();
    if (out->GetCpuData() == nullptr || out->Count(0) == 0) continue;
    int rewrite = INT_MAX;
    for (int w : writers[o])
      if (w > c) rewrite = std::min(rewrite, w);
    auto held = limit.find(o);
    if (held != limit.end()) rewrite = std::min(rewrite, held->second);
    const std::vector<Data<float>*>& ins = layers[c]->GetInputs();
    for (size_t k = 0; k < ins.size(); ++k) {
      Data<float>* t = ins[k];
      const std::string n = t->GetName();
      if (n == o || kept.count(n) != 0 || limit.count(n) != 0) continue;
      if (t->GetCpuData() == nullptr || t->Count(0) == 0) continue;
      bool ok = true;
      for (size_t j = 0; j < ins.size(); ++j) ok &= j == k || ins[j]->GetName() != n;
      for (int w : writers[n]) ok &= w < c;
      for (int r : readers[n]) ok &= r < rewrite;
      if (!ok) continue;
      t->ShareData(out->GetCpuData() + concat->Offset(k));
      limit[n] = rewrite;
      viewed->push_back(t);
    }
  }
  return static_cast<int>(viewed->size());
}

int PlanBlockedLayouts(const std::vector<Layer<float>*>& layers,
                       const std::vector<std::string>& keep, bool on) {
  for (Layer<float>* l : layers) l->SetBlocked(false, false);
  if (!on) return 0;
  // What the running layers read and write (a fused layer writes its
  // destination; fused-away layers do not run).
  std::map<std::string, std::vector<int>> readers, writers;
  const int count = static_cast<int>(layers.size());
  for (int i = 0; i < count; ++i) {
    Layer<float>* l = layers[i];
    if (l->FusedAway()) continue;
    for (Data<float>* t : l->GetInputs()) readers[t->GetName()].push_back(i);
    if (Data<float>* dst = l->FusedDestination()) {
      writers[dst->GetName()].push_back(i);
    } else {
      for (Data<float>* t : l->GetOutputs()) writers[t->GetName()].push_back(i);
    }
  }
  const std::set<std::string> kept(keep.begin(), keep.end());
  std::vector<bool> in(count, false), out(count, false);
  int handed = 0;
  for (int i = 0; i < count; ++i) {
    Layer<float>* p = layers[i];
    const int block = p->FusedAway() ? 0 : p->OutputBlock();
    if (block == 0) continue;
    Data<float>* dst = p->FusedDestination();
    if (dst == nullptr && p->GetOutputs().size() == 1) dst = p->GetOutputs()[0];
    if (dst == nullptr) continue;
    const std::string t = dst->GetName();
    const std::vector<int>& rd = readers[t];
    if (kept.count(t) != 0 || writers[t] != std::vector<int>{i} || rd.empty()) continue;
    bool ok = true;
    for (int r : rd)
      ok &= r > i && layers[r]->GetInputs().size() == 1 && layers[r]->InputBlock() == block;
    if (!ok) continue;
    out[i] = true;
    for (int r : rd) in[r] = true;
    ++handed;
  }
  for (int i = 0; i < count; ++i)
    if (in[i] || out[i]) layers[i]->SetBlocked(in[i], out[i]);
  return handed;
}

}  // namespace qzdl
