// PriorBox and DetectionOutput. Expected outputs under fixtures/detection
// come from scripts/fixtures/make_detection_fixtures.py, which holds the same
// layer params as the tests below.
#include "runtime/layers/detection.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "support/net_builder.h"
#include "support/onnx_tensor.h"

namespace qzdl {
namespace {

using json11::Json;

test::OnnxTensor Fixture(const std::string& name) {
  return test::ReadOnnxTensor(std::string(QZDL_TEST_DATA_DIR) + "/detection/" + name + ".pb");
}

std::vector<float> OutputValues(Net<float>* net, int index = 0) {
  const float* y = net->GetFloatOutputData(index);
  return std::vector<float>(y, y + net->GetOutputCount(index));
}

using test::BuildError;

// ---------------------------------------------------------------------------
// PriorBox

struct PriorCase {
  std::string fixture;
  std::vector<int> feature;
  std::vector<int> image;
  Json::object param;
  int num_priors;
};

std::vector<PriorCase> PriorCases() {
  return {
      {"priorbox_a",
       {1, 8, 3, 4},
       {1, 3, 60, 80},
       {{"min_size", Json::array{20}},
        {"max_size", Json::array{40}},
        {"aspect_ratio", Json::array{2}},
        {"variance", Json::array{0.1, 0.1, 0.2, 0.2}}},
       4},
      {"priorbox_b",
       {1, 2, 2, 3},
       {1, 3, 40, 50},
       {{"min_size", Json::array{10, 25}},
        {"aspect_ratio", Json::array{2, 3, 1, 0.5}},
        {"clip", true},
        {"variance", Json::array{0.2}},
        {"step", 16}},
       10},
      {"priorbox_c",
       {2, 4, 5, 5},
       {2, 3, 100, 100},
       {{"min_size", 30},
        {"max_size", 50},
        {"aspect_ratio", Json::array{2}},
        {"flip", false},
        {"clip", true},
        {"variance", Json::array{0.1, 0.1, 0.2, 0.2}},
        {"img_h", 64},
        {"img_w", 96},
        {"step_h", 8},
        {"step_w", 10},
        {"offset", 0.25}},
       3},
  };
}

TEST(PriorBox, MatchesReference) {
  for (const PriorCase& c : PriorCases()) {
    SCOPED_TRACE(c.fixture);
    test::NetBuilder b;
    b.Input("feature", c.feature).Input("image", c.image);
    b.Layer("prior", "PriorBox", {"feature", "image"}, {"priors"}, c.param);
    auto net = b.Build();
    auto* layer = dynamic_cast<PriorBoxLayer<float>*>(net->GetLayer("prior"));
    ASSERT_NE(layer, nullptr);
    EXPECT_EQ(layer->NumPriors(), c.num_priors);
    net->ForwardAll();
    const test::OnnxTensor want = Fixture(c.fixture);
    const int values = c.feature[2] * c.feature[3] * c.num_priors * 4;
    EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{1, 2, values}));
    ASSERT_EQ(want.IntDims(), (std::vector<int>{1, 2, values}));
    EXPECT_LE(test::ToleranceRatio(OutputValues(net.get()), want.values, 1e-6, 0.0), 1.0);
  }
}

TEST(PriorBox, FirstLocationByHand) {
  // 2 x 2 map over a 20 x 20 image: step 10, first center (5, 5).
  test::NetBuilder b;
  b.Input("feature", {1, 1, 2, 2}).Input("image", {1, 3, 20, 20});
  b.Layer("prior", "PriorBox", {"feature", "image"}, {"priors"},
          {{"min_size", 4}, {"max_size", 16}, {"aspect_ratio", 4}});
  auto net = b.Build();
  net->ForwardAll();
  const std::vector<float> y = OutputValues(net.get());
  ASSERT_EQ(y.size(), 2u * 2 * 2 * 4 * 4);
  // min 4x4, sqrt(4*16) = 8x8, ratio 4: 8x2, ratio 1/4: 2x8.
  const std::vector<float> want = {0.15f, 0.15f, 0.35f, 0.35f, 0.05f, 0.05f, 0.45f, 0.45f,
                                   0.05f, 0.2f,  0.45f, 0.3f,  0.2f,  0.05f, 0.3f,  0.45f};
  for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(y[i], want[i], 1e-6) << i;
  // Default variance 0.1 on all four coordinates.
  for (size_t i = y.size() / 2; i < y.size(); ++i) EXPECT_EQ(y[i], 0.1f) << i;
}

TEST(PriorBox, FollowsInputShapeOnReshape) {
  test::NetBuilder b;
  b.Input("feature", {1, 1, 2, 2}).Input("image", {1, 3, 20, 20});
  b.Layer("prior", "PriorBox", {"feature", "image"}, {"priors"}, {{"min_size", 4}});
  auto net = b.Build();
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{1, 2, 16}));
  net->ReshapeBatchNum(3, 0);
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{1, 2, 16}));
}

TEST(PriorBox, ParamErrors) {
  const std::string at = "net description: layer \"prior\" (PriorBox): ";
  auto error = [](const Json::object& param, std::vector<int> feature = {1, 1, 2, 2}) {
    test::NetBuilder b;
    b.Input("feature", feature).Input("image", {1, 3, 20, 20});
    b.Layer("prior", "PriorBox", {"feature", "image"}, {"priors"}, param);
    return BuildError(b);
  };
  EXPECT_EQ(error({}), at + "missing param \"min_size\"");
  EXPECT_EQ(error({{"min_size", Json::array{}}}),
            at + "param \"min_size\" must have at least one value");
  EXPECT_EQ(error({{"min_size", Json::array{4, 0}}}), at + "param \"min_size\" values must be > 0");
  EXPECT_EQ(error({{"min_size", Json::array{4, 6}}, {"max_size", 8}}),
            at + "param \"max_size\" must have as many values as \"min_size\" (2), has 1");
  EXPECT_EQ(error({{"min_size", 8}, {"max_size", 4}}),
            at + "param \"max_size\" value 4 must be greater than its min_size 8");
  EXPECT_EQ(error({{"min_size", 8}, {"aspect_ratio", Json::array{2, -1}}}),
            at + "param \"aspect_ratio\" values must be > 0");
  EXPECT_EQ(error({{"min_size", 8}, {"variance", Json::array{0.1, 0.2}}}),
            at + "param \"variance\" must have 1 or 4 values, has 2");
  EXPECT_EQ(error({{"min_size", 8}, {"variance", 0}}),
            at + "param \"variance\" values must be > 0");
  EXPECT_EQ(error({{"min_size", 8}, {"img_size", 30}, {"img_h", 30}}),
            at + "give either param \"img_size\" or params \"img_h\" and \"img_w\", not both");
  EXPECT_EQ(error({{"min_size", 8}, {"step_w", 4}}),
            at + "params \"step_h\" and \"step_w\" must be given together");
  EXPECT_EQ(error({{"min_size", 8}, {"img_size", 0}}), at + "param \"img_size\" must be >= 1");
  EXPECT_EQ(error({{"min_size", 8}, {"step_h", 4}, {"step_w", -2}}),
            at + "param \"step_w\" must be > 0");
  EXPECT_EQ(error({{"min_size", 8}, {"flip", "yes"}}), at + "param \"flip\" must be true or false");
  EXPECT_EQ(error({{"min_size", 8}}, {2, 2}),
            at + "input \"feature\" must have 4 axes, has shape [2, 2]");

  test::NetBuilder one_input;
  one_input.Input("feature", {1, 1, 2, 2});
  one_input.Layer("prior", "PriorBox", {"feature"}, {"priors"}, {{"min_size", 8}});
  EXPECT_EQ(BuildError(one_input), at + "expects 2 input(s), has 1");
}

// ---------------------------------------------------------------------------
// DetectionOutput

constexpr float kPad = -1.0f;

// Compares rows: ids, labels and scores exactly, coordinates within 1e-5.
void ExpectRows(const std::vector<float>& got, const std::vector<float>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    if (i % 7 < 3)
      EXPECT_EQ(got[i], want[i]) << "row " << i / 7 << " column " << i % 7;
    else
      EXPECT_NEAR(got[i], want[i], 1e-5) << "row " << i / 7 << " column " << i % 7;
  }
}

struct DetCase {
  std::string fixture;
  int classes;
  Json::object param;
};

std::vector<DetCase> DetCases() {
  return {
      {"det_a",
       4,
       {{"num_classes", 4},
        {"nms_threshold", 0.45},
        {"nms_top_k", 12},
        {"keep_top_k", 15},
        {"confidence_threshold", 0.05}}},
      {"det_b",
       3,
       {{"num_classes", 3},
        {"background_label_id", -1},
        {"nms_threshold", 0.6},
        {"confidence_threshold", 0.2},
        {"code_type", "CORNER"},
        {"variance_encoded_in_target", true},
        {"eta", 0.9}}},
  };
}

TEST(DetectionOutput, MatchesReference) {
  const test::OnnxTensor priors = Fixture("det_priors");
  ASSERT_EQ(priors.IntDims(), (std::vector<int>{1, 2, 256}));
  for (const DetCase& c : DetCases()) {
    SCOPED_TRACE(c.fixture);
    const test::OnnxTensor loc = Fixture(c.fixture + "_loc");
    const test::OnnxTensor conf = Fixture(c.fixture + "_conf");
    const test::OnnxTensor want = Fixture(c.fixture + "_out");
    test::NetBuilder b;
    b.Input("loc", loc.IntDims()).Input("conf", conf.IntDims()).Input("priors", {1, 2, 256});
    b.Layer("det", "DetectionOutput", {"loc", "conf", "priors"}, {"dets"}, c.param);
    auto net = b.Build();
    net->SetFloatInputData(const_cast<float*>(loc.values.data()), 0);
    net->SetFloatInputData(const_cast<float*>(conf.values.data()), 1);
    net->SetFloatInputData(const_cast<float*>(priors.values.data()), 2);
    net->ForwardAll();
    EXPECT_EQ(net->GetOutputData(0)->GetDims(), want.IntDims());
    ExpectRows(OutputValues(net.get()), want.values);
    // A second run over the same inputs gives the same rows.
    net->ForwardAll();
    ExpectRows(OutputValues(net.get()), want.values);
  }
}

// Three priors used as boxes directly (CORNER code, zero regressions):
// A and B overlap heavily, C is apart from both.
const std::vector<float> kBoxA = {0.1f, 0.1f, 0.5f, 0.5f};
const std::vector<float> kBoxB = {0.12f, 0.1f, 0.5f, 0.52f};
const std::vector<float> kBoxC = {0.6f, 0.6f, 0.9f, 0.9f};

std::vector<float> HandPriors() {
  std::vector<float> p = kBoxA;
  p.insert(p.end(), kBoxB.begin(), kBoxB.end());
  p.insert(p.end(), kBoxC.begin(), kBoxC.end());
  p.resize(24, 0.1f);
  return p;
}

// Class scores per prior: background, class 1, class 2.
const std::vector<float> kHandConf = {0.1f, 0.8f, 0.1f,   // A
                                      0.2f, 0.7f, 0.1f,   // B
                                      0.3f, 0.2f, 0.5f};  // C

std::vector<float> Row(float image, float label, float score, const std::vector<float>& box) {
  return {image, label, score, box[0], box[1], box[2], box[3]};
}

std::vector<float> Rows(const std::vector<std::vector<float>>& rows, int pad_rows) {
  std::vector<float> out;
  for (const auto& r : rows) out.insert(out.end(), r.begin(), r.end());
  out.insert(out.end(), size_t(pad_rows) * 7, kPad);
  return out;
}

// Runs the hand-made case with `extra` params; returns the output rows.
std::vector<float> RunHand(const Json::object& extra, std::vector<int>* dims = nullptr) {
  Json::object param = {{"num_classes", 3}, {"code_type", "CORNER"}};
  for (const auto& kv : extra) param[kv.first] = kv.second;
  test::NetBuilder b;
  b.Input("loc", {1, 12}).Input("conf", {1, 9}).Input("priors", {1, 2, 12});
  b.Layer("det", "DetectionOutput", {"loc", "conf", "priors"}, {"dets"}, param);
  auto net = b.Build();
  std::vector<float> loc(12, 0.0f), conf = kHandConf, priors = HandPriors();
  net->SetFloatInputData(loc.data(), 0);
  net->SetFloatInputData(conf.data(), 1);
  net->SetFloatInputData(priors.data(), 2);
  net->ForwardAll();
  if (dims != nullptr) *dims = net->GetOutputData(0)->GetDims();
  return OutputValues(net.get());
}

TEST(DetectionOutput, SuppressesOverlapAndPads) {
  std::vector<int> dims;
  const std::vector<float> got = RunHand({}, &dims);
  // Two classes of three priors: six rows at most.
  EXPECT_EQ(dims, (std::vector<int>{1, 1, 6, 7}));
  // Class 1: B (0.7) overlaps A (0.8) and goes. Class 2: A and B tie at 0.1;
  // the lower prior index, A, wins and suppresses B. Background never shows.
  EXPECT_EQ(got, Rows({Row(0, 1, 0.8f, kBoxA), Row(0, 1, 0.2f, kBoxC), Row(0, 2, 0.5f, kBoxC),
                       Row(0, 2, 0.1f, kBoxA)},
                      2));
}

TEST(DetectionOutput, KeepTopKAcrossClasses) {
  std::vector<int> dims;
  const std::vector<float> got = RunHand({{"keep_top_k", 3}}, &dims);
  EXPECT_EQ(dims, (std::vector<int>{1, 1, 3, 7}));
  // The best three of 0.8, 0.5, 0.2, 0.1, listed by class.
  EXPECT_EQ(got, Rows({Row(0, 1, 0.8f, kBoxA), Row(0, 1, 0.2f, kBoxC), Row(0, 2, 0.5f, kBoxC)}, 0));
}

TEST(DetectionOutput, ConfidenceThresholdIsStrict) {
  // 0.2 itself does not pass a threshold of 0.2.
  EXPECT_EQ(RunHand({{"confidence_threshold", 0.2}}),
            Rows({Row(0, 1, 0.8f, kBoxA), Row(0, 2, 0.5f, kBoxC)}, 4));
}

TEST(DetectionOutput, NmsTopKLimitsEachClass) {
  std::vector<int> dims;
  const std::vector<float> got = RunHand({{"nms_top_k", 1}}, &dims);
  EXPECT_EQ(dims, (std::vector<int>{1, 1, 2, 7}));
  EXPECT_EQ(got, Rows({Row(0, 1, 0.8f, kBoxA), Row(0, 2, 0.5f, kBoxC)}, 0));
}

TEST(DetectionOutput, NoBackgroundAndLooseNms) {
  std::vector<int> dims;
  // No background class; with a threshold of 1 nothing is suppressed.
  const std::vector<float> got =
      RunHand({{"background_label_id", -1}, {"nms_threshold", 1.0}}, &dims);
  EXPECT_EQ(dims, (std::vector<int>{1, 1, 9, 7}));
  EXPECT_EQ(got, Rows({Row(0, 0, 0.3f, kBoxC), Row(0, 0, 0.2f, kBoxB), Row(0, 0, 0.1f, kBoxA),
                       Row(0, 1, 0.8f, kBoxA), Row(0, 1, 0.7f, kBoxB), Row(0, 1, 0.2f, kBoxC),
                       Row(0, 2, 0.5f, kBoxC), Row(0, 2, 0.1f, kBoxA), Row(0, 2, 0.1f, kBoxB)},
                      0));
}

TEST(DetectionOutput, CenterSizeDecode) {
  // Prior centered at (0.5, 0.5), 0.2 x 0.4, variances 0.1, 0.1, 0.2, 0.2.
  test::NetBuilder b;
  b.Input("loc", {1, 4}).Input("conf", {1, 2}).Input("priors", {1, 2, 4});
  b.Layer("det", "DetectionOutput", {"loc", "conf", "priors"}, {"dets"}, {{"num_classes", 2}});
  auto net = b.Build();
  const float l2 = std::log(2.0f) / 0.2f;  // doubles the width
  std::vector<float> loc = {1.0f, -2.0f, l2, 0.0f};
  std::vector<float> conf = {0.25f, 0.75f};
  std::vector<float> priors = {0.4f, 0.3f, 0.6f, 0.7f, 0.1f, 0.1f, 0.2f, 0.2f};
  net->SetFloatInputData(loc.data(), 0);
  net->SetFloatInputData(conf.data(), 1);
  net->SetFloatInputData(priors.data(), 2);
  net->ForwardAll();
  // Center (0.5 + 0.1 * 1 * 0.2, 0.5 - 0.1 * 2 * 0.4) = (0.52, 0.42); 0.4 x 0.4.
  ExpectRows(OutputValues(net.get()), {0, 1, 0.75f, 0.32f, 0.22f, 0.72f, 0.62f});
}

TEST(DetectionOutput, GetNumClasses) {
  test::NetBuilder b;
  b.Input("loc", {1, 8}).Input("conf", {1, 42}).Input("priors", {1, 2, 8});
  b.Layer("det", "DetectionOutput", {"loc", "conf", "priors"}, {"dets"}, {{"num_classes", 21}});
  auto net = b.Build();
  auto* layer = dynamic_cast<DetectionOutputLayer<float>*>(net->GetLayer("det"));
  ASSERT_NE(layer, nullptr);
  EXPECT_EQ(layer->GetNumClasses(), 21);
  EXPECT_EQ(layer->RowsPerImage(), 40);
}

TEST(DetectionOutput, OnlyBackgroundGivesOnePaddingRow) {
  test::NetBuilder b;
  b.Input("loc", {2, 8}).Input("conf", {2, 2}).Input("priors", {1, 2, 8});
  b.Layer("det", "DetectionOutput", {"loc", "conf", "priors"}, {"dets"}, {{"num_classes", 1}});
  auto net = b.Build();
  net->ForwardAll();
  EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{1, 1, 1, 7}));
  EXPECT_EQ(OutputValues(net.get()), std::vector<float>(7, kPad));
}

TEST(DetectionOutput, Errors) {
  const std::string at = "net description: layer \"det\" (DetectionOutput): ";
  auto error = [](const Json::object& param, std::vector<int> loc = {1, 12},
                  std::vector<int> conf = {1, 9}, std::vector<int> priors = {1, 2, 12}) {
    test::NetBuilder b;
    b.Input("loc", loc).Input("conf", conf).Input("priors", priors);
    b.Layer("det", "DetectionOutput", {"loc", "conf", "priors"}, {"dets"}, param);
    return BuildError(b);
  };
  const Json::object ok = {{"num_classes", 3}};
  auto with = [&](const std::string& key, const Json& value) {
    Json::object p = ok;
    p[key] = value;
    return p;
  };
  EXPECT_EQ(error({}), at + "missing param \"num_classes\"");
  EXPECT_EQ(error({{"num_classes", 0}}), at + "param \"num_classes\" must be >= 1");
  EXPECT_EQ(error({{"num_classes", 2.5}}), at + "param \"num_classes\" must be an integer");
  EXPECT_EQ(
      error(with("share_location", false)),
      at + "param \"share_location\" false is not supported: loc must hold one box per prior");
  EXPECT_EQ(error(with("background_label_id", 3)),
            at + "param \"background_label_id\" must be -1 (none) or below num_classes 3, is 3");
  EXPECT_EQ(error(with("nms_threshold", -0.1)), at + "param \"nms_threshold\" must be >= 0");
  EXPECT_EQ(error(with("nms_top_k", 0)),
            at + "param \"nms_top_k\" must be -1 (no limit) or >= 1, is 0");
  EXPECT_EQ(error(with("keep_top_k", -2)),
            at + "param \"keep_top_k\" must be -1 (no limit) or >= 1, is -2");
  EXPECT_EQ(error(with("code_type", "CORNER_SIZE")),
            at + "param \"code_type\" is \"CORNER_SIZE\", expected one of \"CENTER_SIZE\", "
                 "\"CORNER\"");
  EXPECT_EQ(error(with("eta", 1.5)), at + "param \"eta\" must be > 0 and <= 1");
  EXPECT_EQ(error(ok, {1, 12}, {1, 9}, {1, 12}),
            at + "input \"priors\" (priors) must have shape [1, 2, 4 * num_priors], has [1, 12]");
  EXPECT_EQ(error(ok, {1, 12}, {1, 9}, {1, 2, 10}),
            at + "input \"priors\" (priors) must have shape [1, 2, 4 * num_priors], has [1, 2, "
                 "10]");
  EXPECT_EQ(error(ok, {1, 3, 5}, {1, 9}),
            at + "input \"loc\" (loc) must hold 4 * num_priors = 12 values per item, has 15 "
                 "(shape [1, 3, 5])");
  EXPECT_EQ(error(ok, {1, 12}, {1, 8}),
            at + "input \"conf\" (conf) must hold num_priors * num_classes = 3 * 3 = 9 values per "
                 "item, has 8 (shape [1, 8])");
  EXPECT_EQ(error(ok, {2, 12}, {1, 9}),
            at + "inputs \"loc\" and \"conf\" must have the same batch, have 2 and 1");

  test::NetBuilder two_inputs;
  two_inputs.Input("loc", {1, 12}).Input("conf", {1, 9});
  two_inputs.Layer("det", "DetectionOutput", {"loc", "conf"}, {"dets"}, ok);
  EXPECT_EQ(BuildError(two_inputs), at + "expects 3 input(s), has 2");
}

// ---------------------------------------------------------------------------
// A small SSD head: priors from a feature map and the image, detections from
// loc and conf given as net inputs. The same data as fixture det_a.

test::NetBuilder SsdHead() {
  test::NetBuilder b;
  b.Input("feature", {2, 8, 4, 4}).Input("image", {2, 3, 100, 100});
  b.Input("loc", {2, 64, 4}).Input("conf", {2, 64 * 4});
  b.Layer("prior", "PriorBox", {"feature", "image"}, {"priors"},
          {{"min_size", 30},
           {"max_size", 60},
           {"aspect_ratio", 2},
           {"variance", Json::array{0.1, 0.1, 0.2, 0.2}}});
  b.Layer("det", "DetectionOutput", {"loc", "conf", "priors"}, {"dets"}, DetCases()[0].param);
  return b;
}

TEST(DetectionOutput, SsdHeadNet) {
  const test::OnnxTensor loc = Fixture("det_a_loc");
  const test::OnnxTensor conf = Fixture("det_a_conf");
  const test::OnnxTensor want = Fixture("det_a_out");
  const test::OnnxTensor priors = Fixture("det_priors");
  for (bool frugal : {false, true}) {
    SCOPED_TRACE(frugal ? "frugal" : "not frugal");
    auto net = SsdHead().Build(frugal);
    ASSERT_EQ(net->GetOutCount(), 1);
    EXPECT_EQ(net->GetOutputDataName(0), "dets");
    net->SetFloatInputData(const_cast<float*>(loc.values.data()), 2);
    net->SetFloatInputData(const_cast<float*>(conf.values.data()), 3);
    net->ForwardAll();
    if (!frugal) {
      const Data<float>* p = net->GetData("priors");
      EXPECT_LE(test::ToleranceRatio(std::vector<float>(p->GetCpuData(), p->GetCpuData() + 512),
                                     priors.values, 1e-6, 0.0),
                1.0);
    }
    EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{1, 1, 30, 7}));
    ExpectRows(OutputValues(net.get()), want.values);

    // Batch 1: the first image alone, 15 rows.
    net->ReshapeBatchNum(1, 0);
    net->SetFloatInputData(const_cast<float*>(loc.values.data()), 2);
    net->SetFloatInputData(const_cast<float*>(conf.values.data()), 3);
    net->ForwardAll();
    EXPECT_EQ(net->GetOutputData(0)->GetDims(), (std::vector<int>{1, 1, 15, 7}));
    std::vector<float> first;
    for (size_t r = 0; r < want.values.size() / 7; ++r)
      if (want.values[r * 7] == 0.0f)
        first.insert(first.end(), want.values.begin() + r * 7, want.values.begin() + r * 7 + 7);
    ExpectRows(OutputValues(net.get()), first);
  }
}

}  // namespace
}  // namespace qzdl
