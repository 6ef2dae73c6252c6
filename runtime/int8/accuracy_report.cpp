#include "runtime/int8/accuracy_report.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <set>

#include "runtime/errors.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/quant_config.h"
#include "runtime/run_support.h"

namespace qzdl {

namespace {

[[noreturn]] void Fail(const std::string& message) { throw AccuracyError(message); }

std::string Plural(int n, const std::string& word) {
  return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

double CosineOf(double fq, double ff, double qq) {
  if (ff > 0 && qq > 0) return fq / std::sqrt(ff * qq);
  return ff == qq ? 1.0 : 0.0;
}

// `name` "dims" as messages write a tensor.
std::string Described(const std::string& name, const std::vector<int>& dims) {
  return "\"" + name + "\" " + DimsToString(dims);
}

template <typename T>
void RunAtBatchOne(Net<T>* net, const std::string& which) {
  for (int i = 0; i < net->GetInputCount(); ++i) {
    if (net->GetInputData(i)->GetDim(0) == 1) continue;
    try {
      net->ReshapeBatchNum(1, 0);
    } catch (const NetFormatError& e) {
      Fail("cannot run the " + which + " net at batch 1: " + e.what());
    }
    return;
  }
}

// Fails unless both nets have the same tensors in `what` ("input", "output").
void CheckSameTensors(const std::string& what, const std::vector<std::string>& float_names,
                      const std::vector<std::vector<int>>& float_dims,
                      const std::vector<std::string>& quant_names,
                      const std::vector<std::vector<int>>& quant_dims) {
  const int n = static_cast<int>(float_names.size()), m = static_cast<int>(quant_names.size());
  if (n != m) {
    Fail("the nets' " + what + "s differ: the float net has " + Plural(n, what) +
         ", the quantized net " + std::to_string(m));
  }
  for (int k = 0; k < n; ++k) {
    if (float_names[k] == quant_names[k] && float_dims[k] == quant_dims[k]) continue;
    Fail("the nets' " + what + "s differ: " + what + " " + std::to_string(k + 1) +
         " of the float net is " + Described(float_names[k], float_dims[k]) +
         ", of the quantized net " + Described(quant_names[k], quant_dims[k]));
  }
}

template <typename T>
void Io(Net<T>* net, bool inputs, std::vector<std::string>* names,
        std::vector<std::vector<int>>* dims) {
  const int n = inputs ? net->GetInputCount() : net->GetOutCount();
  for (int k = 0; k < n; ++k) {
    names->push_back(inputs ? net->GetInputDataName(k) : net->GetOutputDataName(k));
    dims->push_back(inputs ? net->GetInputData(k)->GetDims() : net->GetOutputData(k)->GetDims());
  }
}

// A fresh comparison of tensor `t` of the quantized net, with its grid.
TensorComparison StartComparison(Net<unsigned char>* quant_net, const Data<unsigned char>& t) {
  TensorComparison c;
  c.name = t.GetName();
  c.dims = t.GetDims();
  c.data_type = t.GetDataType();
  INT8Config* config = quant_net->GetInt8Config();
  if (c.data_type == "int8" && config != nullptr && config->HasDataConfig(c.name)) {
    const QuantizationConfig* grid = config->GetDataConfig(c.name);
    c.has_grid = true;
    c.grid_min = (0.0 - grid->getZeroPoint()) * grid->getScale();
    c.grid_max = (255.0 - grid->getZeroPoint()) * grid->getScale();
  }
  return c;
}

int ArgMax(const float* v, int64_t n) {
  int64_t best = 0;
  for (int64_t k = 1; k < n; ++k) {
    if (v[k] > v[best]) best = k;
  }
  return static_cast<int>(best);
}

}  // namespace

void TensorComparison::Add(const float* f, const float* q, int64_t count, int item) {
  // Values further than half a step outside the grid were clipped; within
  // it they only round to the end code.
  const double half_step = has_grid ? (grid_max - grid_min) / 255.0 / 2 : 0.0;
  double ff = 0, qq = 0, fq = 0;
  for (int64_t k = 0; k < count; ++k) {
    const double a = f[k], b = q[k], e = a - b;
    ff += a * a, qq += b * b, fq += a * b, sum_ee += e * e;
    max_abs = std::max(max_abs, std::fabs(e));
    if (values == 0 && k == 0) float_min = float_max = a;
    float_min = std::min(float_min, a);
    float_max = std::max(float_max, a);
    if (has_grid && (a < grid_min - half_step || a > grid_max + half_step)) ++clipped;
  }
  sum_ff += ff, sum_qq += qq, sum_fq += fq;
  values += count;
  const double cosine = CosineOf(fq, ff, qq);
  if (worst_item == 0 || cosine < worst_item_cosine) {
    worst_item_cosine = cosine;
    worst_item = item;
  }
}

double TensorComparison::Cosine() const { return CosineOf(sum_fq, sum_ff, sum_qq); }

double TensorComparison::SqnrDb() const {
  if (sum_ee == 0) return std::numeric_limits<double>::infinity();
  if (sum_ff == 0) return -std::numeric_limits<double>::infinity();
  return 10.0 * std::log10(sum_ff / sum_ee);
}

void PrepareNets(Net<float>* float_net, Net<unsigned char>* quant_net) {
  RunAtBatchOne(float_net, "float");
  RunAtBatchOne(quant_net, "quantized");
  for (bool inputs : {true, false}) {
    std::vector<std::string> fn, qn;
    std::vector<std::vector<int>> fd, qd;
    Io(float_net, inputs, &fn, &fd);
    Io(quant_net, inputs, &qn, &qd);
    CheckSameTensors(inputs ? "input" : "output", fn, fd, qn, qd);
  }
}

AccuracyReport CompareNets(Net<float>* float_net, Net<unsigned char>* quant_net, ReportItems& items,
                           const std::function<void(int, int)>& progress) {
  PrepareNets(float_net, quant_net);

  AccuracyReport report;
  report.items = items.Count();
  report.labelled = report.items > 0 && items.Labelled();
  for (int k = 0; k < quant_net->GetOutCount(); ++k)
    report.outputs.push_back(StartComparison(quant_net, *quant_net->GetOutputData(k)));
  report.has_top1 = !report.outputs.empty() && quant_net->GetOutputData(0)->Count(0) > 1;

  // The shared tensors: the inputs, then every layer output in layer order
  // (a tensor written in place by several layers once, as its last writer
  // left it).
  std::vector<std::string> names;
  std::set<std::string> seen;
  auto consider = [&](const Data<float>* t) {
    if (!seen.insert(t->GetName()).second) return;
    const Data<unsigned char>* q = quant_net->GetData(t->GetName());
    if (q == nullptr || q->Count(0) != t->Count(0)) return;
    names.push_back(t->GetName());
    report.tensors.push_back(StartComparison(quant_net, *q));
  };
  for (int i = 0; i < float_net->GetInputCount(); ++i) consider(float_net->GetInputData(i));
  for (Layer<float>* layer : float_net->GetLayers()) {
    for (const Data<float>* t : layer->GetOutputs()) consider(t);
  }
  // Readers of each tensor; a layer that writes the tensor it reads (in
  // place) is one of its writers instead.
  std::map<std::string, std::vector<std::string>> reader_types;
  for (Layer<float>* layer : float_net->GetLayers()) {
    for (Data<float>* in : layer->GetInputs()) {
      const auto& outs = layer->GetOutputs();
      if (std::find(outs.begin(), outs.end(), in) == outs.end())
        reader_types[in->GetName()].push_back(layer->GetType());
    }
  }
  for (TensorComparison& t : report.tensors) {
    const std::vector<std::string>& types = reader_types[t.name];
    t.relu_readers_only =
        !types.empty() && std::all_of(types.begin(), types.end(),
                                      [](const std::string& type) { return type == "ReLU"; });
  }

  std::vector<std::vector<float>> inputs;
  for (int index = 0; index < report.items; ++index) {
    int label = -1;
    inputs.clear();
    items.Read(index, &inputs, &label);
    if (static_cast<int>(inputs.size()) != float_net->GetInputCount())
      Fail(items.Where(index) + ": values for " + Plural(static_cast<int>(inputs.size()), "input") +
           ", where the net has " + std::to_string(float_net->GetInputCount()));
    for (int i = 0; i < float_net->GetInputCount(); ++i) {
      const Data<float>* in = float_net->GetInputData(i);
      if (static_cast<int64_t>(inputs[i].size()) != in->Count(0)) {
        Fail(items.Where(index) + ": " + std::to_string(inputs[i].size()) + " values for input " +
             Described(float_net->GetInputDataName(i), in->GetDims()) + ", which takes " +
             std::to_string(in->Count(0)));
      }
      float_net->SetFloatInputData(inputs[i].data(), i);
      quant_net->SetFloatInputData(inputs[i].data(), i);
    }
    float_net->ForwardAll();
    quant_net->ForwardAll();

    for (int k = 0; k < float_net->GetOutCount(); ++k) {
      const std::vector<float> q = RealValues(*quant_net, *quant_net->GetOutputData(k));
      const float* f = float_net->GetFloatOutputData(k);
      report.outputs[k].Add(f, q.data(), static_cast<int64_t>(q.size()), index + 1);
      if (k != 0 || !report.has_top1) continue;
      const int float_top = ArgMax(f, static_cast<int64_t>(q.size()));
      const int quant_top = ArgMax(q.data(), static_cast<int64_t>(q.size()));
      report.agree += float_top == quant_top;
      report.float_correct += float_top == label;
      report.quant_correct += quant_top == label;
    }
    for (size_t t = 0; t < names.size(); ++t) {
      const Data<float>* f = float_net->GetData(names[t]);
      const Data<unsigned char>* qt = quant_net->GetData(names[t]);
      if (f->GetCpuData() == nullptr || qt->GetCpuData() == nullptr) continue;
      const std::vector<float> q = RealValues(*quant_net, *qt);
      report.tensors[t].Add(f->GetCpuData(), q.data(), static_cast<int64_t>(q.size()), index + 1);
    }
    if (progress) progress(index + 1, report.items);
  }
  // Worst first, NaN (from NaN values) as -infinity; equals keep the layer
  // order.
  auto key = [](double v) { return std::isnan(v) ? -std::numeric_limits<double>::infinity() : v; };
  std::stable_sort(report.tensors.begin(), report.tensors.end(),
                   [&](const TensorComparison& a, const TensorComparison& b) {
                     const double sa = key(a.SqnrDb()), sb = key(b.SqnrDb());
                     if (sa != sb) return sa < sb;
                     return key(a.Cosine()) < key(b.Cosine());
                   });
  return report;
}

}  // namespace qzdl
