// The accuracy report as text (qzdl_run --compare) and as JSON (--json);
// the keys are documented in docs/accuracy-report.md.
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "runtime/int8/accuracy_report.h"
#include "runtime/json11.h"

namespace qzdl {

namespace {

std::string Format(const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

std::string Db(double db) {
  if (std::isinf(db)) return db > 0 ? "inf" : "-inf";
  return Format("%.2f", db);
}

std::string Percent(int part, int whole) {
  return Format("%.2f %% (%d)", whole > 0 ? 100.0 * part / whole : 0.0, part);
}

// Adding 0 turns -0 (a ReLU of a negative zero) into 0.
std::string Range(double lo, double hi) { return Format("%.4g .. %.4g", lo + 0.0, hi + 0.0); }

// Infinite and NaN figures become null: JSON has no numbers for them.
json11::Json Number(double v) { return std::isfinite(v) ? json11::Json(v) : json11::Json(); }

json11::Json TensorJson(const TensorComparison& t) {
  json11::Json::array dims;
  for (int d : t.dims) dims.push_back(d);
  return json11::Json::object{
      {"name", t.name},
      {"dims", dims},
      {"data_type", t.data_type},
      {"values", static_cast<double>(t.values)},
      {"cosine", Number(t.Cosine())},
      {"sqnr_db", Number(t.SqnrDb())},
      {"max_abs", Number(t.max_abs)},
      {"float_min", Number(t.float_min)},
      {"float_max", Number(t.float_max)},
      {"grid_min", t.has_grid ? Number(t.grid_min) : json11::Json()},
      {"grid_max", t.has_grid ? Number(t.grid_max) : json11::Json()},
      {"clipped", t.has_grid ? json11::Json(static_cast<double>(t.clipped)) : json11::Json()},
      {"worst_item", t.worst_item},
      {"worst_item_cosine", Number(t.worst_item_cosine)},
      {"relu_readers_only", t.relu_readers_only},
  };
}

}  // namespace

std::string ReportText(const AccuracyReport& r, int worst) {
  std::string out = Format("outputs, float net against 8-bit net over %d item%s:\n", r.items,
                           r.items == 1 ? "" : "s");
  for (const TensorComparison& o : r.outputs) {
    out += "  \"" + o.name + "\" " + DimsToString(o.dims) + ": cosine " +
           Format("%.6f", o.Cosine()) + ", SQNR " + Db(o.SqnrDb()) + " dB, max abs error " +
           Format("%.4g", o.max_abs) + "; worst item " + std::to_string(o.worst_item) +
           Format(" (cosine %.6f)\n", o.worst_item_cosine);
  }
  if (r.has_top1) {
    out += "top-1 of \"" + r.outputs.front().name + "\": ";
    if (r.labelled) {
      out += "float " + Percent(r.float_correct, r.items) + ", 8-bit " +
             Percent(r.quant_correct, r.items) + ", ";
    }
    out += "agreement " + Percent(r.agree, r.items) + "\n";
  }
  const int total = static_cast<int>(r.tensors.size());
  const int shown = worst <= 0 || worst > total ? total : worst;
  out += Format("tensors, worst first (%d of %d):\n", shown, total);
  out += Format("  %8s %9s %10s %-5s %-22s %-22s %8s  %s\n", "SQNR dB", "cosine", "max abs", "type",
                "float range", "grid range", "clipped", "tensor");
  bool relu_note = false;
  for (int k = 0; k < shown; ++k) {
    const TensorComparison& t = r.tensors[k];
    const std::string clipped =
        t.has_grid && t.values > 0 ? Format("%.3f%%", 100.0 * t.clipped / t.values) : "-";
    out +=
        Format("  %8s %9.6f %10.4g %-5s %-22s %-22s %8s  %s %s\n", Db(t.SqnrDb()).c_str(),
               t.Cosine(), t.max_abs, t.data_type.c_str(), Range(t.float_min, t.float_max).c_str(),
               t.has_grid ? Range(t.grid_min, t.grid_max).c_str() : "-", clipped.c_str(),
               t.name.c_str(), DimsToString(t.dims).c_str());
    if (t.relu_readers_only) {
      out.back() = ' ';  // for the line end
      out += "(read by ReLU only)\n";
      relu_note = true;
    }
  }
  if (relu_note) {
    out +=
        "  (read by ReLU only: negative values clipped by the grid are zeroed by the ReLU "
        "anyway; see its output)\n";
  }
  return out;
}

std::string ReportJson(const AccuracyReport& r, const std::string& float_json,
                       const std::string& quant_json) {
  json11::Json::array outputs, tensors;
  for (const TensorComparison& o : r.outputs) outputs.push_back(TensorJson(o));
  for (const TensorComparison& t : r.tensors) tensors.push_back(TensorJson(t));
  json11::Json top1;
  if (r.has_top1) {
    auto share = [&](int n) {
      return r.items > 0 ? json11::Json(double(n) / r.items) : json11::Json();
    };
    json11::Json::object o{
        {"output", r.outputs.front().name}, {"agree", r.agree}, {"agreement", share(r.agree)}};
    o["float_correct"] = r.labelled ? json11::Json(r.float_correct) : json11::Json();
    o["quantized_correct"] = r.labelled ? json11::Json(r.quant_correct) : json11::Json();
    o["float_accuracy"] = r.labelled ? share(r.float_correct) : json11::Json();
    o["quantized_accuracy"] = r.labelled ? share(r.quant_correct) : json11::Json();
    top1 = o;
  }
  const json11::Json report = json11::Json::object{
      {"float_net", float_json}, {"quantized_net", quant_json}, {"items", r.items},
      {"labelled", r.labelled},  {"outputs", outputs},          {"top1", top1},
      {"tensors", tensors},
  };
  return report.dump() + "\n";
}

}  // namespace qzdl
