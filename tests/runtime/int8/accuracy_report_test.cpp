// The accuracy report: its figures against the ones NumPy computed for the
// fixture (scripts/fixtures/make_accuracy_report_fixture.py), the checks of
// the two nets and of the items' values, the printed text and the JSON keys.
// Item lists and files: tests/dataloader/report_items_test.cpp.
#include "runtime/int8/accuracy_report.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <set>

#include "runtime/create_net.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/json11.h"
#include "runtime/run_support.h"
#include "support/net_builder.h"

namespace qzdl {
namespace {

std::string Fx(const std::string& name) {
  return std::string(QZDL_TEST_DATA_DIR) + "/accuracy_report/" + name;
}

std::unique_ptr<Net<float>> FloatNet() {
  return std::unique_ptr<Net<float>>(
      CreateNet<float>(Fx("net.json"), Fx("net.bin"), false, false, 0, 1));
}

std::unique_ptr<Net<unsigned char>> QuantNet(const std::string& json = Fx("net_hybrid.json")) {
  return std::unique_ptr<Net<unsigned char>>(CreateQuantizedNet(json, Fx("q.bin")));
}

// The fixture's items (list.txt: one .npy file and a label per line), or
// items of the wrong shape when `values` or `inputs` is changed.
class FixtureItems : public ReportItems {
 public:
  explicit FixtureItems(bool labelled = true) : labelled_(labelled) {
    const std::string text = test::ReadFile(Fx("list.txt"));
    for (size_t pos = 0; pos < text.size();) {
      const size_t tab = text.find('\t', pos), end = text.find('\n', pos);
      paths_.push_back(Fx(text.substr(pos, tab - pos)));
      labels_.push_back(std::stoi(text.substr(tab + 1, end - tab - 1)));
      pos = end + 1;
    }
  }
  int Count() const override { return static_cast<int>(paths_.size()); }
  bool Labelled() const override { return labelled_; }
  std::string Where(int index) const override { return "item " + std::to_string(index + 1); }
  void Read(int index, std::vector<std::vector<float>>* in, int* label) override {
    std::vector<float> v;
    std::string error;
    EXPECT_TRUE(ReadNpyFloats(paths_[index], &v, &error)) << error;
    if (!values.empty()) v = values;
    for (int i = 0; i < inputs; ++i) in->push_back(v);
    *label = labelled_ ? labels_[index] : -1;
  }

  std::vector<float> values;  // in place of the file's, when not empty
  int inputs = 1;

 private:
  bool labelled_;
  std::vector<std::string> paths_;
  std::vector<int> labels_;
};

json11::Json Expected() {
  std::string error;
  const json11::Json j = json11::Json::parse(test::ReadFile(Fx("expected.json")), error);
  EXPECT_EQ(error, "");
  return j;
}

// The message of the AccuracyError that `fn` throws.
template <typename Fn>
std::string ErrorOf(Fn fn) {
  try {
    fn();
  } catch (const AccuracyError& e) {
    return e.what();
  }
  return "(no error)";
}

const TensorComparison* Find(const std::vector<TensorComparison>& list, const std::string& name) {
  for (const TensorComparison& t : list) {
    if (t.name == name) return &t;
  }
  return nullptr;
}

void ExpectFigures(const TensorComparison& got, const json11::Json& want) {
  SCOPED_TRACE(got.name);
  auto near = [](double a, double b) { EXPECT_NEAR(a, b, 1e-9 * std::max(1.0, std::fabs(b))); };
  near(got.Cosine(), want["cosine"].number_value());
  near(got.SqnrDb(), want["sqnr_db"].number_value());
  near(got.max_abs, want["max_abs"].number_value());
  near(got.float_min, want["float_min"].number_value());
  near(got.float_max, want["float_max"].number_value());
  near(got.worst_item_cosine, want["worst_item_cosine"].number_value());
  EXPECT_EQ(got.clipped, want["clipped"].int_value());
  EXPECT_EQ(got.worst_item, want["worst_item"].int_value());
  EXPECT_EQ(got.values, 30);
}

TEST(AccuracyReport, FiguresMatchNumPy) {
  auto f = FloatNet();
  auto q = QuantNet();
  FixtureItems items;
  const AccuracyReport r = CompareNets(f.get(), q.get(), items);
  const json11::Json want = Expected();
  EXPECT_EQ(r.items, 5);
  EXPECT_TRUE(r.labelled);
  ASSERT_EQ(r.outputs.size(), 1u);
  ExpectFigures(r.outputs[0], want["tensors"]["out"]);
  ASSERT_EQ(r.tensors.size(), 2u);
  ExpectFigures(*Find(r.tensors, "data"), want["tensors"]["data"]);
  ExpectFigures(*Find(r.tensors, "out"), want["tensors"]["out"]);
  // Worst first: the input, clipped at both ends, is further off.
  EXPECT_EQ(r.tensors[0].name, "data");
  ASSERT_TRUE(r.has_top1);
  EXPECT_EQ(r.float_correct, want["top1"]["float_correct"].int_value());
  EXPECT_EQ(r.quant_correct, want["top1"]["quantized_correct"].int_value());
  EXPECT_EQ(r.agree, want["top1"]["agree"].int_value());
  EXPECT_TRUE(r.tensors[0].has_grid);
  EXPECT_NEAR(r.tensors[0].grid_min, -1.0, 1e-6);
  EXPECT_NEAR(r.tensors[0].grid_max, 2.0, 1e-6);
  EXPECT_EQ(r.tensors[0].data_type, "int8");
  EXPECT_EQ(r.tensors[0].dims, (std::vector<int>{1, 6}));
}

TEST(AccuracyReport, ProgressIsCalledPerItem) {
  auto f = FloatNet();
  auto q = QuantNet();
  std::vector<std::pair<int, int>> calls;
  FixtureItems items;
  CompareNets(f.get(), q.get(), items, [&](int done, int total) {
    calls.push_back({done, total});
  });
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls.front(), std::make_pair(1, 5));
  EXPECT_EQ(calls.back(), std::make_pair(5, 5));
}

TEST(AccuracyReport, TextLines) {
  auto f = FloatNet();
  auto q = QuantNet();
  FixtureItems items;
  const std::string text = ReportText(CompareNets(f.get(), q.get(), items), 1);
  EXPECT_EQ(text,
            "outputs, float net against 8-bit net over 5 items:\n"
            "  \"out\" [1, 6]: cosine 0.997201, SQNR 20.96 dB, max abs error 0.4; worst item 3 "
            "(cosine 0.998919)\n"
            "top-1 of \"out\": float 60.00 % (3), 8-bit 40.00 % (2), agreement 80.00 % (4)\n"
            "tensors, worst first (1 of 2):\n"
            "   SQNR dB    cosine    max abs type  float range            grid range          "
            "    clipped  tensor\n"
            "     16.48  0.991683        0.6 int8  -1.6 .. 2.4            -1 .. 2             "
            "    16.667%  data [1, 6] (read by ReLU only)\n"
            "  (read by ReLU only: negative values clipped by the grid are zeroed by the ReLU "
            "anyway; see its output)\n");
}

TEST(AccuracyReport, WithoutLabelsOnlyAgreement) {
  auto f = FloatNet();
  auto q = QuantNet();
  FixtureItems items(false);
  const AccuracyReport r = CompareNets(f.get(), q.get(), items);
  EXPECT_FALSE(r.labelled);
  const std::string text = ReportText(r, 0);
  EXPECT_NE(text.find("top-1 of \"out\": agreement 80.00 % (4)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("tensors, worst first (2 of 2):\n"), std::string::npos) << text;
  std::string error;
  const json11::Json j = json11::Json::parse(ReportJson(r, "a.json", "b.json"), error);
  EXPECT_TRUE(j["top1"]["float_accuracy"].is_null());
  EXPECT_TRUE(j["top1"]["quantized_correct"].is_null());
  EXPECT_EQ(j["top1"]["agree"].int_value(), 4);
}

std::set<std::string> Keys(const json11::Json& j) {
  std::set<std::string> keys;
  for (const auto& kv : j.object_items()) keys.insert(kv.first);
  return keys;
}

TEST(AccuracyReport, JsonKeys) {
  auto f = FloatNet();
  auto q = QuantNet();
  FixtureItems items;
  const AccuracyReport r = CompareNets(f.get(), q.get(), items);
  std::string error;
  const json11::Json j = json11::Json::parse(ReportJson(r, "f.json", "q.json"), error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(Keys(j), (std::set<std::string>{"float_net", "quantized_net", "items", "labelled",
                                            "outputs", "top1", "tensors"}));
  EXPECT_EQ(j["float_net"].string_value(), "f.json");
  EXPECT_EQ(j["quantized_net"].string_value(), "q.json");
  EXPECT_EQ(j["items"].int_value(), 5);
  EXPECT_TRUE(j["labelled"].bool_value());
  EXPECT_EQ(Keys(j["top1"]),
            (std::set<std::string>{"output", "agree", "agreement", "float_correct",
                                   "quantized_correct", "float_accuracy", "quantized_accuracy"}));
  EXPECT_EQ(j["top1"]["output"].string_value(), "out");
  EXPECT_DOUBLE_EQ(j["top1"]["float_accuracy"].number_value(), 0.6);
  EXPECT_DOUBLE_EQ(j["top1"]["quantized_accuracy"].number_value(), 0.4);
  EXPECT_DOUBLE_EQ(j["top1"]["agreement"].number_value(), 0.8);
  const std::set<std::string> tensor_keys{"name",
                                          "dims",
                                          "data_type",
                                          "values",
                                          "cosine",
                                          "sqnr_db",
                                          "max_abs",
                                          "float_min",
                                          "float_max",
                                          "grid_min",
                                          "grid_max",
                                          "clipped",
                                          "worst_item",
                                          "worst_item_cosine",
                                          "relu_readers_only"};
  ASSERT_EQ(j["outputs"].array_items().size(), 1u);
  EXPECT_EQ(Keys(j["outputs"][0]), tensor_keys);
  ASSERT_EQ(j["tensors"].array_items().size(), 2u);
  for (const json11::Json& t : j["tensors"].array_items()) EXPECT_EQ(Keys(t), tensor_keys);
  const json11::Json& data = j["tensors"][0];
  EXPECT_EQ(data["name"].string_value(), "data");
  EXPECT_EQ(data["clipped"].int_value(), 5);
  EXPECT_TRUE(data["relu_readers_only"].bool_value());  // "data" is read by "relu" alone
  EXPECT_FALSE(j["tensors"][1]["relu_readers_only"].bool_value());
  EXPECT_NEAR(data["sqnr_db"].number_value(),
              Expected()["tensors"]["data"]["sqnr_db"].number_value(), 1e-9);
}

TEST(AccuracyReport, EqualAndZeroValues) {
  TensorComparison c;
  const float zeros[3] = {0, 0, 0}, ones[3] = {1, 2, 3};
  c.Add(zeros, zeros, 3, 1);
  EXPECT_EQ(c.Cosine(), 1.0);
  EXPECT_EQ(c.SqnrDb(), std::numeric_limits<double>::infinity());
  c.Add(ones, ones, 3, 2);
  EXPECT_EQ(c.SqnrDb(), std::numeric_limits<double>::infinity());
  EXPECT_DOUBLE_EQ(c.Cosine(), 1.0);
  EXPECT_EQ(c.max_abs, 0.0);
  TensorComparison z;
  z.Add(zeros, ones, 3, 1);  // the float net all zero, the 8-bit one not
  EXPECT_EQ(z.Cosine(), 0.0);
  EXPECT_EQ(z.SqnrDb(), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(z.max_abs, 3.0);
  // Infinite SQNR is "inf" in the text and null in JSON.
  AccuracyReport r;
  r.items = 2;
  r.outputs.push_back(c);
  r.outputs.back().name = "y";
  r.tensors.push_back(r.outputs.back());
  EXPECT_NE(ReportText(r, 0).find("SQNR inf dB"), std::string::npos) << ReportText(r, 0);
  std::string error;
  const json11::Json j = json11::Json::parse(ReportJson(r, "", ""), error);
  EXPECT_TRUE(j["outputs"][0]["sqnr_db"].is_null());
  EXPECT_TRUE(j["outputs"][0]["grid_min"].is_null());
  EXPECT_TRUE(j["top1"].is_null());
}

// A quantized description of `net` (the fixture's grid on every tensor).
std::string HybridOf(const std::string& inputs, const std::string& layers,
                     const std::string& outputs, const std::vector<std::string>& tensors) {
  std::string entries;
  for (const std::string& t : tensors) {
    entries += std::string(entries.empty() ? "" : ", ") + "{\"name\": \"" + t +
               "\", \"data_type\": \"int8\", \"min\": -1, \"max\": 2}";
  }
  return "{\"inputs\": " + inputs + ", \"outputs\": " + outputs + ", \"layers\": " + layers +
         ", \"quantization\": {\"version\": 1, \"hybrid\": true, \"tensors\": [" + entries + "]}}";
}

TEST(AccuracyReport, NetsMustHaveTheSameInputsAndOutputs) {
  const std::string dir = test::TempDir("accuracy_nets");
  const std::string input = "[{\"name\": \"data\", \"dims\": [1, 6]}]";
  const std::string relu_to_y =
      "[{\"name\": \"relu\", \"type\": \"ReLU\", \"inputs\": [\"data\"], \"outputs\": [\"y\"]}]";
  test::WriteFile(dir + "/renamed.json", HybridOf(input, relu_to_y, "[\"y\"]", {"data", "y"}));
  test::WriteFile(
      dir + "/two.json",
      HybridOf(input,
               "[{\"name\": \"relu\", \"type\": \"ReLU\", \"inputs\": [\"data\"], \"outputs\": "
               "[\"out\"]}, {\"name\": \"relu2\", \"type\": \"ReLU\", \"inputs\": [\"data\"], "
               "\"outputs\": [\"out2\"]}]",
               "[\"out\", \"out2\"]", {"data", "out", "out2"}));
  test::WriteFile(dir + "/wide.json",
                  HybridOf("[{\"name\": \"data\", \"dims\": [1, 8]}]",
                           "[{\"name\": \"relu\", \"type\": \"ReLU\", \"inputs\": [\"data\"], "
                           "\"outputs\": [\"out\"]}]",
                           "[\"out\"]", {"data", "out"}));
  auto f = FloatNet();
  auto renamed = QuantNet(dir + "/renamed.json");
  EXPECT_EQ(ErrorOf([&] { PrepareNets(f.get(), renamed.get()); }),
            "the nets' outputs differ: output 1 of the float net is \"out\" [1, 6], of the "
            "quantized net \"y\" [1, 6]");
  auto two = QuantNet(dir + "/two.json");
  FixtureItems items;
  EXPECT_EQ(ErrorOf([&] { CompareNets(f.get(), two.get(), items); }),
            "the nets' outputs differ: the float net has 1 output, the quantized net 2");
  auto wide = QuantNet(dir + "/wide.json");
  EXPECT_EQ(ErrorOf([&] { PrepareNets(f.get(), wide.get()); }),
            "the nets' inputs differ: input 1 of the float net is \"data\" [1, 6], of the "
            "quantized net \"data\" [1, 8]");
}

TEST(AccuracyReport, ItemsOfTheWrongSize) {
  auto f = FloatNet();
  auto q = QuantNet();
  FixtureItems items;
  items.values.resize(4);
  EXPECT_EQ(ErrorOf([&] { CompareNets(f.get(), q.get(), items); }),
            "item 1: 4 values for input \"data\" [1, 6], which takes 6");
  items.values.clear();
  items.inputs = 2;
  EXPECT_EQ(ErrorOf([&] { CompareNets(f.get(), q.get(), items); }),
            "item 1: values for 2 inputs, where the net has 1");
}

}  // namespace
}  // namespace qzdl
