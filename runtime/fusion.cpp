#include "runtime/fusion.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "runtime/layers/activation.h"
#include "runtime/layers/concat.h"
#include "runtime/layers/normalization.h"

namespace qzdl {

namespace {

// The layers that read and write each tensor, by name, in net order (staged
// inputs are private copies under the shared name).
void TensorUsers(const std::vector<Layer<float>*>& layers,
                 std::map<std::string, std::vector<int>>* readers,
                 std::map<std::string, std::vector<int>>* writers) {
  for (int i = 0; i < static_cast<int>(layers.size()); ++i) {
    for (Data<float>* t : layers[i]->GetInputs()) (*readers)[t->GetName()].push_back(i);
    for (Data<float>* t : layers[i]->GetOutputs()) (*writers)[t->GetName()].push_back(i);
  }
}

// What runs: the layers that read each tensor, the layers that write it
// (a fused layer writes its destination, another layer its only output, or
// all of its outputs when it has several) and the tensor each layer writes
// (-1: none or several). Layers fused away do not run. Tensors are
// numbered by name.
struct RunningUse {
  std::map<std::string, int> ids;
  std::vector<std::vector<int>> readers, writers;  // by tensor
  std::vector<int> written;                        // by layer

  int Id(const std::string& name) {
    auto it = ids.emplace(name, static_cast<int>(ids.size())).first;
    readers.resize(ids.size());
    writers.resize(ids.size());
    return it->second;
  }
};

RunningUse RunningTensors(const std::vector<Layer<float>*>& layers) {
  RunningUse use;
  const int count = static_cast<int>(layers.size());
  use.written.assign(count, -1);
  for (int i = 0; i < count; ++i) {
    Layer<float>* l = layers[i];
    if (l->FusedAway()) continue;
    for (Data<float>* t : l->GetInputs()) use.readers[use.Id(t->GetName())].push_back(i);
    Data<float>* dst = l->FusedDestination();
    if (dst == nullptr && l->GetOutputs().size() == 1) dst = l->GetOutputs()[0];
    if (dst != nullptr) {
      use.written[i] = use.Id(dst->GetName());
      use.writers[use.written[i]].push_back(i);
    } else {
      for (Data<float>* t : l->GetOutputs()) use.writers[use.Id(t->GetName())].push_back(i);
    }
  }
  return use;
}

}  // namespace

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
  std::map<std::string, std::vector<int>> readers, writers;
  TensorUsers(layers, &readers, &writers);
  const int count = static_cast<int>(layers.size());
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
  for (Layer<float>* l : layers) l->SetOutputImageStride(0);
  if (!on) return 0;
  std::map<std::string, std::vector<int>> readers, writers;
  TensorUsers(layers, &readers, &writers);
  const RunningUse running = RunningTensors(layers);
  const int count = static_cast<int>(layers.size());
  const std::set<std::string> kept(keep.begin(), keep.end());
  // Per viewed tensor: the first layer that rewrites its storage through
  // the concat outputs that hold it (its readers must all come before).
  std::map<std::string, int> limit;
  // Later concats first: an output viewed by a later concat then already
  // points into that concat's output when its own inputs are placed.
  for (int c = count - 1; c >= 0; --c) {
    auto* concat = dynamic_cast<ConcatLayer<float>*>(layers[c]);
    if (concat == nullptr || layers[c]->GetOutputs().size() != 1) continue;
    // One block per input, or one per input and image: then an input whose
    // writer can space its images (Layer::SetOutputImageStride) and that
    // the concat alone reads is written in place, image by image.
    const bool whole = concat->Contiguous();
    if (!whole && !concat->PerImage()) continue;
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
      if (!whole) {
        // The one running writer (the others fused into it), read by the
        // concat alone: its output is no tensor of its own any more.
        const auto found = running.ids.find(n);
        if (found == running.ids.end()) continue;
        const std::vector<int>& by = running.writers[found->second];
        int others = 0;  // running readers besides the concat
        for (int r : running.readers[found->second]) others += r != c;
        if (by.size() != 1 || others != 0) continue;
        if (!layers[by[0]]->SetOutputImageStride(concat->OutBlock())) continue;
      }
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
  const RunningUse use = RunningTensors(layers);
  const std::map<std::string, int>& ids = use.ids;
  const std::vector<std::vector<int>>& readers = use.readers;
  const std::vector<std::vector<int>>& writers = use.writers;
  const std::vector<int>& written = use.written;
  const int count = static_cast<int>(layers.size());
  // A layout-agnostic layer's inputs and output form one group that shares
  // a layout.
  const int tensors = static_cast<int>(ids.size());
  std::vector<int> parent(tensors);
  for (int t = 0; t < tensors; ++t) parent[t] = t;
  std::function<int(int)> root = [&](int t) {
    return parent[t] == t ? t : parent[t] = root(parent[t]);
  };
  for (int i = 0; i < count; ++i) {
    Layer<float>* l = layers[i];
    if (l->FusedAway() || !l->LayoutAgnostic() || written[i] < 0) continue;
    for (Data<float>* t : l->GetInputs()) parent[root(ids.at(t->GetName()))] = root(written[i]);
  }
  // Per group: -1 while no convolution constrains it, then the one block
  // every convolution writing or reading a member uses, or 0.
  std::vector<int> block(tensors, -1);
  auto constrain = [&](int t, int b) {
    int& g = block[root(t)];
    g = (b <= 0 || (g != -1 && g != b)) ? 0 : b;
  };
  const std::set<std::string> kept(keep.begin(), keep.end());
  for (const auto& kv : ids) {
    const int t = kv.second;
    if (kept.count(kv.first) != 0 || writers[t].size() != 1) {
      constrain(t, 0);
      continue;
    }
    Layer<float>* w = layers[writers[t][0]];
    if (!w->LayoutAgnostic()) constrain(t, written[writers[t][0]] == t ? w->OutputBlock() : 0);
    for (int r : readers[t]) {
      Layer<float>* l = layers[r];
      if (r <= writers[t][0]) constrain(t, 0);
      if (!l->LayoutAgnostic()) {
        constrain(t, l->GetInputs().size() == 1 ? l->InputBlock() : 0);
      } else if (written[r] < 0) {
        constrain(t, 0);
      }
    }
  }
  int handed = 0;
  for (int t = 0; t < tensors; ++t) handed += block[root(t)] > 0 && !readers[t].empty();
  for (int i = 0; i < count; ++i) {
    Layer<float>* l = layers[i];
    if (l->FusedAway() || l->LayoutAgnostic()) continue;
    const bool in =
        l->GetInputs().size() == 1 && block[root(ids.at(l->GetInputs()[0]->GetName()))] > 0;
    const bool out = written[i] >= 0 && block[root(written[i])] > 0;
    if (in || out) l->SetBlocked(in, out);
  }
  return handed;
}

}  // namespace qzdl
