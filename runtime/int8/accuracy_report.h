// How close a quantized model is to its float net: both run on the same
// items, and every output and every tensor they share is compared (cosine,
// SQNR, largest error), with top-1 accuracy when the items have labels.
// qzdl_run --compare is the command line (docs/accuracy-report.md).
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/net.h"

namespace qzdl {

// A bad item list, item file or model pair; the message names the file.
class AccuracyError : public std::runtime_error {
 public:
  explicit AccuracyError(const std::string& message) : std::runtime_error(message) {}
};

// The items both nets run on, one at a time. dataloader/report_items.h
// makes them from item lists, folders and the converter's data sources; the
// runtime only runs and compares.
class ReportItems {
 public:
  virtual ~ReportItems() = default;
  virtual int Count() const = 0;
  // Whether the items have labels (all of them then).
  virtual bool Labelled() const = 0;
  // Item `index` (from 0): the values of every net input, in input order,
  // each the input's element count at batch 1, and its label (-1 when none).
  // A bad item throws AccuracyError naming its file.
  virtual void Read(int index, std::vector<std::vector<float>>* inputs, int* label) = 0;
  // Where item `index` comes from, for messages: "<list> line <n>", a file.
  virtual std::string Where(int index) const = 0;
};

// Sums of one compared tensor over all items; `f` the float net's values,
// `q` the quantized net's real values.
struct TensorComparison {
  std::string name;
  std::vector<int> dims;  // of one item (batch 1)
  std::string data_type;  // the quantized net's: "int8" or "float"
  bool has_grid = false;  // an "int8" tensor: its grid's real range
  double grid_min = 0, grid_max = 0;
  // Every layer that reads it is a ReLU: negative values that its grid
  // clips are values the ReLU zeroes anyway.
  bool relu_readers_only = false;
  int64_t values = 0;  // compared values, all items
  double sum_ff = 0, sum_qq = 0, sum_fq = 0, sum_ee = 0;
  double max_abs = 0;
  double float_min = 0, float_max = 0;  // of the float values
  int64_t clipped = 0;                  // float values outside the grid's range
  double worst_item_cosine = 1;         // the lowest cosine of one item's values
  int worst_item = 0;                   // that item, from 1 (0 before any)

  // One item's values; `item` numbers it from 1.
  void Add(const float* f, const float* q, int64_t count, int item);
  double Cosine() const;  // 1 when both are all zero, 0 when only one is
  double SqnrDb() const;  // +infinity when they are equal, -infinity for f all zero
};

struct AccuracyReport {
  int items = 0;
  bool labelled = false;
  std::vector<TensorComparison> outputs;  // in the nets' output order
  // Top-1 over the first output (argmax of one item's values, the first
  // largest): both nets' correct counts against the labels, and how often
  // their answers agree (with or without labels).
  bool has_top1 = false;
  int float_correct = 0, quant_correct = 0, agree = 0;
  // Every tensor of the float net that the quantized net has with the same
  // element count, worst first (lowest SQNR, then lowest cosine).
  std::vector<TensorComparison> tensors;
};

// Shapes both nets at batch 1 and checks that they have the same inputs and
// outputs (names and dims), in the same order.
void PrepareNets(Net<float>* float_net, Net<unsigned char>* quant_net);

// PrepareNets, then runs both nets on every item and compares. `progress` is
// called after each item with (done, total).
AccuracyReport CompareNets(Net<float>* float_net, Net<unsigned char>* quant_net, ReportItems& items,
                           const std::function<void(int, int)>& progress = nullptr);

// The report as printed: outputs, top-1, then the `worst` worst tensors (all
// when `worst` is 0 or above their number).
std::string ReportText(const AccuracyReport& report, int worst);
// The report as JSON (keys in docs/accuracy-report.md); all tensors.
std::string ReportJson(const AccuracyReport& report, const std::string& float_json,
                       const std::string& quant_json);

}  // namespace qzdl
