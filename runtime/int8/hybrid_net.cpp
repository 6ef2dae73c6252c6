// The whole-net search (docs/quantization-search.md): measures the hybrid
// net against the float net, tries candidate ranges tensor by tensor, then
// keeps layers in float, most sensitive first, and writes the result.
#include "runtime/int8/hybrid_net.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>

#include "runtime/atomic_file.h"
#include "runtime/errors.h"
#include "runtime/int8/quantized_model.h"

namespace qzdl {

HybridNet* CreateHybridNet(const std::string& jsonPath, const std::string& modelPath, bool, int) {
  std::unique_ptr<Net<unsigned char>> net(CreateQuantizedNet(jsonPath, modelPath));
  return new HybridNet(std::move(net), jsonPath, modelPath);
}

namespace {

// A trial must gain more than this to keep a range (measurement noise of
// equal nets is 0, but a gain this small is not worth a changed range).
constexpr double kMinGain = 1e-6;
// Tensor storage of one batch of items (four bytes an element, as if every
// tensor were float): above it the items run in chunks.
constexpr int64_t kBatchBytes = int64_t(512) << 20;

void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  fflush(stdout);
}

// Cosine similarity in double; 1 when both are all zeros, 0 when one is.
double Cosine(const std::vector<float>& a, const std::vector<float>& b) {
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    ab += double(a[i]) * b[i];
    aa += double(a[i]) * a[i];
    bb += double(b[i]) * b[i];
  }
  if (aa == 0 && bb == 0) return 1.0;
  if (aa == 0 || bb == 0) return 0.0;
  return ab / std::sqrt(aa * bb);
}

std::string RangeText(float lo, float hi) {
  char text[64];
  // + 0.0 prints a negative zero (a candidate's minimum of -(0 * step)) as 0.
  snprintf(text, sizeof text, "[%g, %g]", double(lo) + 0.0, double(hi) + 0.0);
  return text;
}

// "1 tensor", "2 tensors".
std::string Count(size_t n, const char* what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

struct RangeChange {
  std::string tensor;
  float old_lo, old_hi, lo, hi;
};

// A layer switched to float: the tensors it marked "float" and the weight
// values it had before it took the float net's.
struct FloatSwitch {
  int layer = -1;
  std::vector<Data<unsigned char>*> tensors;
  std::vector<std::string> old_weights;
};

class Search {
 public:
  Search(Net<unsigned char>* net, Net<float>* float_net,
         const std::vector<std::vector<float>>& items)
      : net_(net), float_net_(float_net), items_(items) {}

  // Checks the items, runs the float net on them and shapes the hybrid net.
  void Prepare();
  // The hybrid net's cosine: the smallest over its outputs. `touched` are
  // the tensors whose grid or data type changed since the last measure.
  double Measure(const std::set<std::string>& touched);
  // After a change was undone: the layers from the first one that touches
  // these tensors no longer hold what the current net computes.
  void MarkStale(const std::set<std::string>& touched) {
    stale_from_ = std::min(stale_from_, FirstLayerTouching(touched));
  }
  // Deletes what the layers that read or write `tensor` derived from the
  // grids, so that their next forward rebuilds it.
  void ResetLayersOf(const std::string& tensor);
  // Marks the "int8" outputs of layer `index` "float" (its weights become
  // the float net's where they match) or undoes that.
  FloatSwitch SwitchToFloat(int index);
  void Undo(const FloatSwitch& s);
  void Restore();

  Net<unsigned char>* net() const { return net_; }

 private:
  int FirstLayerTouching(const std::set<std::string>& tensors) const;
  void SetInputs(size_t first, int count);
  void RunFloatNet();

  Net<unsigned char>* net_;
  Net<float>* float_net_;
  const std::vector<std::vector<float>>& items_;
  int64_t per_item_ = 0;
  int chunk_ = 1;
  int batch_ = 0;                              // the hybrid net's present batch
  int original_batch_ = 0;                     // and the one it came with
  std::vector<std::vector<float>> reference_;  // float outputs, by hybrid output
  // restart_ok_[s]: a forward from layer s on the last run's tensors is a
  // whole forward (one batch only; see Prepare).
  std::vector<bool> restart_ok_;
  int stale_from_ = 0;
  std::map<std::string, std::vector<int>> touching_;  // tensor -> layers, net order
  std::set<std::string> net_inputs_;
};

void Search::Prepare() {
  Data<unsigned char>* first = net_->GetInputData(0);
  per_item_ = first->Count(1);
  for (size_t i = 0; i < items_.size(); ++i) {
    if (int64_t(items_[i].size()) != per_item_)
      throw std::invalid_argument("whole-net search: input item " + std::to_string(i) + " has " +
                                  std::to_string(items_[i].size()) + " values; the net's first " +
                                  "input \"" + first->GetName() + "\" takes " +
                                  std::to_string(per_item_) + " per item");
  }
  if (float_net_->GetInputData(0)->Count(1) != per_item_)
    throw std::invalid_argument("whole-net search: the float net's first input takes " +
                                std::to_string(float_net_->GetInputData(0)->Count(1)) +
                                " values per item, the hybrid net's " + std::to_string(per_item_));
  if (net_->GetInputCount() > 1)
    Say("whole-net search: the net has %d inputs; the items go to \"%s\", the others get zeros\n",
        net_->GetInputCount(), first->GetName().c_str());
  RunFloatNet();

  // Which layers read or write each tensor, and how much one item takes.
  std::vector<Layer<unsigned char>*>& layers = net_->GetLayers();
  const int n = static_cast<int>(layers.size());
  std::set<const Data<unsigned char>*> tensors;
  for (int i = 0; i < net_->GetInputCount(); ++i) {
    net_inputs_.insert(net_->GetInputData(i)->GetName());
    tensors.insert(net_->GetInputData(i));
  }
  std::map<std::string, int> last_writer;
  for (int k = 0; k < n; ++k) {
    std::set<std::string> names;
    for (Data<unsigned char>* t : layers[k]->GetInputs()) names.insert(t->GetName());
    for (Data<unsigned char>* t : layers[k]->GetOutputs()) {
      names.insert(t->GetName());
      tensors.insert(t);
      last_writer[t->GetName()] = k;
    }
    for (const std::string& name : names) touching_[name].push_back(k);
  }
  int64_t bytes = 0;
  for (const Data<unsigned char>* t : tensors) bytes += t->Count(1) * 4;
  const int64_t fit = std::max<int64_t>(1, kBatchBytes / std::max<int64_t>(bytes, 1));
  chunk_ = static_cast<int>(std::min<int64_t>(fit, int64_t(items_.size())));

  // A forward from layer s reuses the tensors the last whole forward left.
  // That is right unless a tensor read from s on is read before it is
  // written there and also written there (an in-place chain begun before s).
  restart_ok_.assign(n + 1, false);
  restart_ok_[0] = true;
  for (int s = 1; s <= n && !net_->GetFrugalMode(); ++s) {
    bool ok = true;
    std::set<std::string> written;
    for (int k = s; k < n && ok; ++k) {
      for (Data<unsigned char>* t : layers[k]->GetInputs()) {
        auto w = last_writer.find(t->GetName());
        if (!written.count(t->GetName()) && w != last_writer.end() && w->second >= s) ok = false;
      }
      for (Data<unsigned char>* t : layers[k]->GetOutputs()) written.insert(t->GetName());
    }
    restart_ok_[s] = ok;
  }
  original_batch_ = first->GetDims().empty() ? 0 : first->GetDims()[0];
  batch_ = chunk_;
  net_->ReshapeBatchNum(batch_, 0);
  stale_from_ = 0;
}

void Search::RunFloatNet() {
  Net<float>* f = float_net_;
  const int batch = f->GetInputData(0)->GetDims()[0];
  f->ReshapeBatchNum(1, 0);
  for (int o = 0; o < net_->GetOutCount(); ++o) {
    const std::string& name = net_->GetOutputDataName(o);
    int j = 0;
    while (j < f->GetOutCount() && f->GetOutputDataName(j) != name) ++j;
    if (j == f->GetOutCount())
      throw std::invalid_argument("whole-net search: the float net has no output \"" + name + "\"");
  }
  reference_.assign(net_->GetOutCount(), {});
  std::vector<std::vector<float>> zeros(f->GetInputCount());
  for (int i = 1; i < f->GetInputCount(); ++i) zeros[i].assign(f->GetInputData(i)->Count(0), 0.0f);
  for (const std::vector<float>& item : items_) {
    f->SetFloatInputData(const_cast<float*>(item.data()), 0);
    for (int i = 1; i < f->GetInputCount(); ++i) f->SetFloatInputData(zeros[i].data(), i);
    f->ForwardAll();
    for (int o = 0; o < net_->GetOutCount(); ++o) {
      int j = 0;
      while (f->GetOutputDataName(j) != net_->GetOutputDataName(o)) ++j;
      const float* y = f->GetFloatOutputData(j);
      reference_[o].insert(reference_[o].end(), y, y + f->GetOutputData(j)->Count(0));
    }
  }
  if (batch != 1) f->ReshapeBatchNum(batch, 0);
}

int Search::FirstLayerTouching(const std::set<std::string>& tensors) const {
  int first = static_cast<int>(net_->GetLayers().size());
  for (const std::string& name : tensors) {
    if (net_inputs_.count(name)) return 0;  // the codes of the input change
    auto it = touching_.find(name);
    if (it != touching_.end() && !it->second.empty()) first = std::min(first, it->second.front());
  }
  return first;
}

void Search::SetInputs(size_t first, int count) {
  std::vector<float> buffer(static_cast<size_t>(per_item_) * count);
  for (int i = 0; i < count; ++i)
    std::copy(items_[first + i].begin(), items_[first + i].end(), buffer.begin() + i * per_item_);
  net_->SetFloatInputData(buffer.data(), 0);
  for (int i = 1; i < net_->GetInputCount(); ++i) {
    std::vector<float> zeros(static_cast<size_t>(net_->GetInputData(i)->Count(0)), 0.0f);
    net_->SetFloatInputData(zeros.data(), i);
  }
}

double Search::Measure(const std::set<std::string>& touched) {
  const int n = static_cast<int>(net_->GetLayers().size());
  std::vector<std::vector<float>> got(net_->GetOutCount());
  if (chunk_ == static_cast<int>(items_.size())) {
    // One batch: a forward from the first layer that changed, or earlier.
    int s = std::min(stale_from_, FirstLayerTouching(touched));
    while (!restart_ok_[s]) --s;
    if (s == 0) SetInputs(0, chunk_);
    net_->ForwardFromTo(s, n, false);
    for (int o = 0; o < net_->GetOutCount(); ++o)
      got[o] = RealValues(*net_, *net_->GetOutputData(o));
  } else {
    for (size_t first = 0; first < items_.size(); first += chunk_) {
      const int count = static_cast<int>(std::min<size_t>(chunk_, items_.size() - first));
      if (count != batch_) net_->ReshapeBatchNum(batch_ = count, 0);
      SetInputs(first, count);
      net_->ForwardAll();
      for (int o = 0; o < net_->GetOutCount(); ++o) {
        const std::vector<float> v = RealValues(*net_, *net_->GetOutputData(o));
        got[o].insert(got[o].end(), v.begin(), v.end());
      }
    }
  }
  stale_from_ = n;
  double cosine = 1.0;
  for (int o = 0; o < net_->GetOutCount(); ++o) {
    if (got[o].size() != reference_[o].size())
      throw std::invalid_argument("whole-net search: output \"" + net_->GetOutputDataName(o) +
                                  "\" has " + std::to_string(got[o].size()) +
                                  " values in the hybrid net and " +
                                  std::to_string(reference_[o].size()) + " in the float net");
    const double c = Cosine(got[o], reference_[o]);
    // NaN stays NaN, so no trial that gives it is kept.
    if (!(c >= cosine)) cosine = c;
  }
  return cosine;
}

void Search::ResetLayersOf(const std::string& tensor) {
  auto it = touching_.find(tensor);
  if (it == touching_.end()) return;
  for (int k : it->second) net_->GetLayers()[k]->DeleteAttrDatas();
}

FloatSwitch Search::SwitchToFloat(int index) {
  FloatSwitch s;
  s.layer = index;
  Layer<unsigned char>* layer = net_->GetLayers()[index];
  for (Data<unsigned char>* t : layer->GetOutputs()) {
    if (t->GetDataType() != "int8" ||
        std::find(s.tensors.begin(), s.tensors.end(), t) != s.tensors.end())
      continue;
    t->ChangeDataType("float");
    s.tensors.push_back(t);
  }
  for (Layer<unsigned char>* l : net_->GetLayers()) l->SyncDataType();
  // A layer in float computes on the float net's own weights where that net
  // has them (a model loaded from codes holds only their dequantized values).
  Layer<float>* twin = float_net_->GetLayer(layer->GetName());
  std::vector<Data<unsigned char>*>& w = layer->GetWeights();
  bool same = twin != nullptr && twin->GetType() == layer->GetType() &&
              twin->GetWeights().size() == w.size();
  for (size_t i = 0; same && i < w.size(); ++i)
    same = w[i]->GetDims() == twin->GetWeights()[i]->GetDims() && w[i]->GetCpuData() != nullptr &&
           twin->GetWeights()[i]->GetCpuData() != nullptr && w[i]->GetDataType() == "float";
  for (size_t i = 0; same && i < w.size(); ++i) {
    const size_t bytes = static_cast<size_t>(w[i]->Count(0)) * sizeof(float);
    s.old_weights.emplace_back(reinterpret_cast<const char*>(w[i]->GetCpuData()), bytes);
    std::memcpy(w[i]->GetCpuData(), twin->GetWeights()[i]->GetCpuData(), bytes);
  }
  return s;
}

void Search::Undo(const FloatSwitch& s) {
  std::set<std::string> names;
  for (Data<unsigned char>* t : s.tensors) {
    t->ChangeDataType("int8");
    names.insert(t->GetName());
  }
  for (Layer<unsigned char>* l : net_->GetLayers()) l->SyncDataType();
  std::vector<Data<unsigned char>*>& w = net_->GetLayers()[s.layer]->GetWeights();
  for (size_t i = 0; i < s.old_weights.size(); ++i)
    std::memcpy(w[i]->GetCpuData(), s.old_weights[i].data(), s.old_weights[i].size());
  MarkStale(names);
}

void Search::Restore() {
  if (original_batch_ > 0 && batch_ != original_batch_) net_->ReshapeBatchNum(original_batch_, 0);
}

// Stage 1: candidate ranges, tensor by tensor in net order.
void TryRanges(Search& search, double target, double& best,
               const std::map<std::string, std::vector<std::pair<float, float>>>& candidates,
               std::vector<RangeChange>& changes) {
  Net<unsigned char>* net = search.net();
  std::vector<Data<unsigned char>*> order;
  std::set<std::string> seen;
  auto add = [&](Data<unsigned char>* t) {
    if (seen.insert(t->GetName()).second && candidates.count(t->GetName())) order.push_back(t);
  };
  for (int i = 0; i < net->GetInputCount(); ++i) add(net->GetInputData(i));
  for (Layer<unsigned char>* layer : net->GetLayers())
    for (Data<unsigned char>* t : layer->GetOutputs()) add(t);
  if (order.empty()) return;
  Say("whole-net search: trying the candidate ranges of %s\n",
      Count(order.size(), "tensor").c_str());
  for (Data<unsigned char>* t : order) {
    // A "float" tensor is not quantized: its range changes nothing.
    if (t->GetDataType() != "int8") continue;
    const std::string name = t->GetName();
    QuantizationConfig* q = net->GetInt8Config()->GetDataConfig(name);
    const float old_lo = q->getMin(), old_hi = q->getMax();
    float lo = old_lo, hi = old_hi;
    for (const std::pair<float, float>& c : candidates.at(name)) {
      if (!std::isfinite(c.first) || !std::isfinite(c.second) || c.first > c.second) continue;
      if (c.first == lo && c.second == hi) continue;
      q->update(c.first, c.second);
      search.ResetLayersOf(name);
      const double cosine = search.Measure({name});
      if (cosine > best + kMinGain) {
        best = cosine;
        lo = c.first, hi = c.second;
        if (best >= target) break;
      } else {
        q->update(lo, hi);
        search.ResetLayersOf(name);
        search.MarkStale({name});
      }
    }
    if (lo != old_lo || hi != old_hi) {
      changes.push_back({name, old_lo, old_hi, lo, hi});
      Say("  tensor \"%s\": range %s -> %s, cosine %.6f\n", name.c_str(),
          RangeText(old_lo, old_hi).c_str(), RangeText(lo, hi).c_str(), best);
    }
    if (best >= target) return;
  }
}

bool ComputesIn8Bits(Layer<unsigned char>* layer) {
  for (Data<unsigned char>* t : layer->GetOutputs())
    if (t->GetDataType() == "int8") return true;
  return false;
}

// Stage 2: layers in float, the one whose switch gains most first.
void KeepLayersInFloat(Search& search, double target, double& best,
                       std::vector<std::string>& kept) {
  std::vector<Layer<unsigned char>*>& layers = search.net()->GetLayers();
  std::vector<std::pair<double, int>> gains;
  for (int k = 0; k < static_cast<int>(layers.size()); ++k) {
    if (!ComputesIn8Bits(layers[k])) continue;
    const FloatSwitch s = search.SwitchToFloat(k);
    std::set<std::string> names;
    for (Data<unsigned char>* t : s.tensors) names.insert(t->GetName());
    const double cosine = search.Measure(names);
    search.Undo(s);
    gains.emplace_back(std::isnan(cosine) ? -1e300 : cosine - best, k);
  }
  if (gains.empty()) return;
  Say("whole-net search: keeping layers in float, largest gain first (%s in 8 bits)\n",
      Count(gains.size(), "layer").c_str());
  std::stable_sort(gains.begin(), gains.end(),
                   [](const std::pair<double, int>& a, const std::pair<double, int>& b) {
                     return a.first > b.first;
                   });
  for (const std::pair<double, int>& g : gains) {
    Layer<unsigned char>* layer = layers[g.second];
    // An earlier switch of a layer writing the same tensors covered it.
    if (!ComputesIn8Bits(layer)) continue;
    const FloatSwitch s = search.SwitchToFloat(g.second);
    std::set<std::string> names;
    for (Data<unsigned char>* t : s.tensors) names.insert(t->GetName());
    const double cosine = search.Measure(names);
    const bool keep = cosine >= best;
    Say("  layer \"%s\" in float: cosine %.6f -> %.6f, %s\n", layer->GetName().c_str(), best,
        cosine, keep ? "kept" : "undone");
    if (keep) {
      best = cosine;
      kept.push_back(layer->GetName());
      if (best >= target) return;
    } else {
      search.Undo(s);
    }
  }
}

void WriteResult(Net<unsigned char>* net, const std::string& jsonPath,
                 const std::string& outputPath) {
  const bool serial =
      outputPath.size() >= 3 && outputPath.compare(outputPath.size() - 3, 3, ".fb") == 0;
  net->SetHybridMode(true);
  const std::string model = QuantizedWeightsBytes(*net, serial, outputPath);
  const std::string text = QuantizedDescriptionText(*net);
  std::string error;
  if (!WriteFilesAtomically({{jsonPath, text}, {outputPath, model}}, &error))
    throw NetFormatError("whole-net search: " + error);
}

}  // namespace

void OptimizeInt8Net(HybridNet* hybrid, Net<float>* floatNet,
                     std::vector<std::vector<float>>& inputs, double expectantCos,
                     std::string jsonPath, std::string outputPath,
                     std::map<std::string, std::vector<std::pair<float, float>>>* candidates) {
  if (inputs.empty()) {
    Say("whole-net search: no inputs given; nothing is measured or changed\n");
    return;
  }
  Search search(hybrid->GetNet(), floatNet, inputs);
  search.Prepare();
  const double before = search.Measure({});
  Say("whole-net search: cosine %.6f against the float net on %s, target %.6f\n", before,
      Count(inputs.size(), "input").c_str(), expectantCos);
  double best = before;
  std::vector<RangeChange> changes;
  std::vector<std::string> kept;
  if (best < expectantCos && candidates != nullptr)
    TryRanges(search, expectantCos, best, *candidates, changes);
  if (best < expectantCos) KeepLayersInFloat(search, expectantCos, best, kept);
  search.Restore();

  const bool reached = best >= expectantCos;
  Say("whole-net search: cosine %.6f -> %.6f, target %.6f %s\n", before, best, expectantCos,
      reached ? "reached" : "not reached: no candidate or layer left");
  std::string ranges, layers;
  for (const RangeChange& c : changes)
    ranges += (ranges.empty() ? " \"" : ", \"") + c.tensor + "\" " + RangeText(c.old_lo, c.old_hi) +
              " -> " + RangeText(c.lo, c.hi);
  for (const std::string& name : kept) layers += (layers.empty() ? " \"" : ", \"") + name + "\"";
  Say("  ranges changed:%s\n", ranges.empty() ? " none" : ranges.c_str());
  Say("  layers in float:%s\n", layers.empty() ? " none" : layers.c_str());
  if (changes.empty() && kept.empty()) {
    Say("  nothing changed; \"%s\" and \"%s\" are left as they are\n", jsonPath.c_str(),
        outputPath.c_str());
    return;
  }
  WriteResult(hybrid->GetNet(), jsonPath, outputPath);
  Say("  wrote \"%s\" and \"%s\"\n", jsonPath.c_str(), outputPath.c_str());
}

}  // namespace qzdl
