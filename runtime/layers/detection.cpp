#include "runtime/layers/detection.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace qzdl {

namespace {

std::string Num(double v) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", v);
  return text;
}

// Reads a pair of params given either as one value (`both`) or as two
// (`h`, `w`); absent values stay as they are.
template <typename Get>
void ReadPair(const ParamReader& param, const std::string& both, const std::string& h,
              const std::string& w, Get get) {
  if (param.Has(both) && (param.Has(h) || param.Has(w)))
    param.Fail("give either param \"" + both + "\" or params \"" + h + "\" and \"" + w +
               "\", not both");
  if (param.Has(h) != param.Has(w))
    param.Fail("params \"" + h + "\" and \"" + w + "\" must be given together");
  if (param.Has(both)) get(both, both);
  if (param.Has(h)) get(h, w);
}

}  // namespace

// ---------------------------------------------------------------------------
// PriorBox

template <>
void PriorBoxLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(2, 2, 1, 1);
  if (!param.Has("min_size")) param.Fail("missing param \"min_size\"");
  const std::vector<float> min_sizes = param.Floats("min_size", {});
  if (min_sizes.empty()) param.Fail("param \"min_size\" must have at least one value");
  for (float m : min_sizes)
    if (!(m > 0.0f)) param.Fail("param \"min_size\" values must be > 0");
  const std::vector<float> max_sizes = param.Floats("max_size", {});
  if (!max_sizes.empty() && max_sizes.size() != min_sizes.size())
    param.Fail("param \"max_size\" must have as many values as \"min_size\" (" +
               std::to_string(min_sizes.size()) + "), has " + std::to_string(max_sizes.size()));
  for (size_t i = 0; i < max_sizes.size(); ++i)
    if (!(max_sizes[i] > min_sizes[i]))
      param.Fail("param \"max_size\" value " + Num(max_sizes[i]) +
                 " must be greater than its min_size " + Num(min_sizes[i]));
  const std::vector<float> aspect_ratios = param.Floats("aspect_ratio", {});
  for (float r : aspect_ratios)
    if (!(r > 0.0f)) param.Fail("param \"aspect_ratio\" values must be > 0");
  const bool flip = param.Bool("flip", true);
  clip_ = param.Bool("clip", false);

  const std::vector<float> variance = param.Floats("variance", {0.1f});
  if (variance.size() != 1 && variance.size() != 4)
    param.Fail("param \"variance\" must have 1 or 4 values, has " +
               std::to_string(variance.size()));
  for (float v : variance)
    if (!(v > 0.0f)) param.Fail("param \"variance\" values must be > 0");
  for (int k = 0; k < 4; ++k) variance_[k] = variance[variance.size() == 1 ? 0 : k];

  img_h_param_ = img_w_param_ = 0;
  ReadPair(param, "img_size", "img_h", "img_w", [&](const std::string& h, const std::string& w) {
    img_h_param_ = param.Int(h, 0);
    img_w_param_ = param.Int(w, 0);
    if (img_h_param_ < 1) param.Fail("param \"" + h + "\" must be >= 1");
    if (img_w_param_ < 1) param.Fail("param \"" + w + "\" must be >= 1");
  });
  step_h_param_ = step_w_param_ = 0.0f;
  ReadPair(param, "step", "step_h", "step_w", [&](const std::string& h, const std::string& w) {
    step_h_param_ = param.Float(h, 0.0f);
    step_w_param_ = param.Float(w, 0.0f);
    if (!(step_h_param_ > 0.0f)) param.Fail("param \"" + h + "\" must be > 0");
    if (!(step_w_param_ > 0.0f)) param.Fail("param \"" + w + "\" must be > 0");
  });
  offset_ = param.Float("offset", 0.5f);

  // Ratio 1 first; a ratio within 1e-6 of one already listed is skipped.
  std::vector<double> ratios = {1.0};
  for (float r : aspect_ratios) {
    bool seen = false;
    for (double q : ratios) seen |= std::fabs(r - q) < 1e-6;
    if (seen) continue;
    ratios.push_back(r);
    if (flip) ratios.push_back(1.0 / r);
  }
  box_sizes_.clear();
  for (size_t i = 0; i < min_sizes.size(); ++i) {
    const double m = min_sizes[i];
    box_sizes_.push_back({m, m});
    if (!max_sizes.empty()) {
      const double s = std::sqrt(m * max_sizes[i]);
      box_sizes_.push_back({s, s});
    }
    for (double r : ratios) {
      if (std::fabs(r - 1.0) < 1e-6) continue;
      box_sizes_.push_back({m * std::sqrt(r), m / std::sqrt(r)});
    }
  }
}

template <>
void PriorBoxLayer<float>::Reshape() {
  this->ExpectRank(0, 4);
  this->ExpectRank(1, 4);
  layer_h_ = this->in(0)->GetDim(2);
  layer_w_ = this->in(0)->GetDim(3);
  img_h_ = img_h_param_ > 0 ? img_h_param_ : this->in(1)->GetDim(2);
  img_w_ = img_w_param_ > 0 ? img_w_param_ : this->in(1)->GetDim(3);
  step_h_ = step_h_param_ > 0.0f ? step_h_param_ : img_h_ / layer_h_;
  step_w_ = step_w_param_ > 0.0f ? step_w_param_ : img_w_ / layer_w_;
  const int64_t values = int64_t(layer_h_) * layer_w_ * NumPriors() * 4;
  // The values make one axis of the output, an int; the element count, twice
  // that, may pass 2^31 - 1.
  if (values > INT_MAX)
    this->Fail("a " + std::to_string(layer_h_) + " x " + std::to_string(layer_w_) +
               " feature map with " + std::to_string(NumPriors()) +
               " priors per location gives too many boxes");
  this->out()->Resize({1, 2, static_cast<int>(values)});
}

template <>
void PriorBoxLayer<float>::Run() {
  float* boxes = this->out()->GetCpuData();
  const int64_t values = int64_t(layer_h_) * layer_w_ * NumPriors() * 4;
  int64_t i = 0;
  for (int h = 0; h < layer_h_; ++h) {
    const double cy = (h + double(offset_)) * step_h_;
    for (int w = 0; w < layer_w_; ++w) {
      const double cx = (w + double(offset_)) * step_w_;
      for (const BoxSize& s : box_sizes_) {
        boxes[i++] = static_cast<float>((cx - s.width / 2) / img_w_);
        boxes[i++] = static_cast<float>((cy - s.height / 2) / img_h_);
        boxes[i++] = static_cast<float>((cx + s.width / 2) / img_w_);
        boxes[i++] = static_cast<float>((cy + s.height / 2) / img_h_);
      }
    }
  }
  if (clip_)
    for (int64_t k = 0; k < values; ++k) boxes[k] = std::min(std::max(boxes[k], 0.0f), 1.0f);
  float* variances = boxes + values;
  for (int64_t k = 0; k < values; ++k) variances[k] = variance_[k % 4];
}

// ---------------------------------------------------------------------------
// DetectionOutput

namespace {

// Order of candidates within a class: score descending, then prior ascending.
template <typename C>
bool ScoreFirst(const C& a, const C& b) {
  return a.score > b.score || (a.score == b.score && a.prior < b.prior);
}

float BoxArea(const float* b) {
  if (b[2] < b[0] || b[3] < b[1]) return 0.0f;
  return (b[2] - b[0]) * (b[3] - b[1]);
}

// Intersection over union; 0 for disjoint boxes or an empty union.
float Overlap(const float* a, const float* b) {
  if (b[0] > a[2] || b[2] < a[0] || b[1] > a[3] || b[3] < a[1]) return 0.0f;
  const float iw = std::min(a[2], b[2]) - std::max(a[0], b[0]);
  const float ih = std::min(a[3], b[3]) - std::max(a[1], b[1]);
  const float inter = iw * ih;
  const float uni = BoxArea(a) + BoxArea(b) - inter;
  return uni > 0.0f ? inter / uni : 0.0f;
}

}  // namespace

template <>
void DetectionOutputLayer<float>::LoadParam(const ParamReader& param) {
  this->ExpectCounts(3, 3, 1, 1);
  num_classes_ = param.RequiredInt("num_classes");
  if (num_classes_ < 1) param.Fail("param \"num_classes\" must be >= 1");
  if (!param.Bool("share_location", true))
    param.Fail("param \"share_location\" false is not supported: loc must hold one box per prior");
  background_label_ = param.Int("background_label_id", 0);
  if (background_label_ < -1 || background_label_ >= num_classes_)
    param.Fail("param \"background_label_id\" must be -1 (none) or below num_classes " +
               std::to_string(num_classes_) + ", is " + std::to_string(background_label_));
  nms_threshold_ = param.Float("nms_threshold", 0.45f);
  if (!(nms_threshold_ >= 0.0f)) param.Fail("param \"nms_threshold\" must be >= 0");
  nms_top_k_ = param.Int("nms_top_k", -1);
  if (nms_top_k_ == 0 || nms_top_k_ < -1)
    param.Fail("param \"nms_top_k\" must be -1 (no limit) or >= 1, is " +
               std::to_string(nms_top_k_));
  keep_top_k_ = param.Int("keep_top_k", -1);
  if (keep_top_k_ == 0 || keep_top_k_ < -1)
    param.Fail("param \"keep_top_k\" must be -1 (no limit) or >= 1, is " +
               std::to_string(keep_top_k_));
  confidence_threshold_ = param.Float("confidence_threshold", 0.01f);
  corner_code_ = param.Choice("code_type", "CENTER_SIZE", {"CENTER_SIZE", "CORNER"}) == "CORNER";
  variance_in_target_ = param.Bool("variance_encoded_in_target", false);
  eta_ = param.Float("eta", 1.0f);
  if (!(eta_ > 0.0f && eta_ <= 1.0f)) param.Fail("param \"eta\" must be > 0 and <= 1");
}

template <>
void DetectionOutputLayer<float>::Reshape() {
  Data<float>* loc = this->in(0);
  Data<float>* conf = this->in(1);
  Data<float>* priors = this->in(2);
  const std::vector<int> pdims = priors->GetDims();
  if (pdims.size() != 3 || pdims[1] != 2 || pdims[2] % 4 != 0)
    this->Fail("input \"" + priors->GetName() +
               "\" (priors) must have shape [1, 2, 4 * num_priors], has " + DimsToString(pdims));
  num_priors_ = pdims[2] / 4;
  const int num = loc->GetDim(0);
  if (conf->GetDim(0) != num)
    this->Fail("inputs \"" + loc->GetName() + "\" and \"" + conf->GetName() +
               "\" must have the same batch, have " + std::to_string(num) + " and " +
               std::to_string(conf->GetDim(0)));
  if (loc->Count(1) != int64_t(num_priors_) * 4)
    this->Fail("input \"" + loc->GetName() + "\" (loc) must hold 4 * num_priors = " +
               std::to_string(int64_t(num_priors_) * 4) + " values per item, has " +
               std::to_string(loc->Count(1)) + " (shape " + DimsToString(loc->GetDims()) + ")");
  if (conf->Count(1) != int64_t(num_priors_) * num_classes_)
    this->Fail("input \"" + conf->GetName() + "\" (conf) must hold num_priors * num_classes = " +
               std::to_string(num_priors_) + " * " + std::to_string(num_classes_) + " = " +
               std::to_string(int64_t(num_priors_) * num_classes_) + " values per item, has " +
               std::to_string(conf->Count(1)) + " (shape " + DimsToString(conf->GetDims()) + ")");

  // The most boxes one item can keep: every class that is not background
  // keeps at most nms_top_k (or all priors), and keep_top_k caps the sum.
  const int classes = num_classes_ - (background_label_ >= 0 ? 1 : 0);
  const int64_t per_class = nms_top_k_ > 0 ? std::min(nms_top_k_, num_priors_) : num_priors_;
  const int64_t after_nms = classes * per_class;
  const int64_t per_image = keep_top_k_ > 0 ? std::min<int64_t>(after_nms, keep_top_k_) : after_nms;
  const int64_t rows = std::max<int64_t>(1, per_image * num);
  // The rows make one axis of the output (an int); the candidates of an item
  // are the work buffer, kept within 2^31 - 1 bytes.
  if (rows > INT_MAX || after_nms * int64_t(sizeof(Detection)) > INT_MAX)
    this->Fail("would reserve " + std::to_string(rows) +
               " detection rows; limit them with param \"keep_top_k\" or \"nms_top_k\"");
  rows_per_image_ = static_cast<int>(per_image);
  this->out()->Resize({1, 1, static_cast<int>(rows), 7});

  decoded_.assign(size_t(num_priors_) * 4, 0.0f);
  candidates_.assign(num_priors_, Candidate{0.0f, 0});
  detections_.assign(after_nms, Detection{0.0f, 0, 0});
}

template <>
void DetectionOutputLayer<float>::DecodeBoxes(const float* loc, const float* priors) {
  const float* variances = priors + int64_t(num_priors_) * 4;
  const float one[4] = {1.0f, 1.0f, 1.0f, 1.0f};
  for (int p = 0; p < num_priors_; ++p) {
    const float* l = loc + int64_t(p) * 4;
    const float* b = priors + int64_t(p) * 4;
    const float* v = variance_in_target_ ? one : variances + int64_t(p) * 4;
    float* out = decoded_.data() + int64_t(p) * 4;
    if (corner_code_) {
      for (int k = 0; k < 4; ++k) out[k] = b[k] + v[k] * l[k];
      continue;
    }
    const float pw = b[2] - b[0];
    const float ph = b[3] - b[1];
    const float pcx = (b[0] + b[2]) / 2;
    const float pcy = (b[1] + b[3]) / 2;
    const float cx = v[0] * l[0] * pw + pcx;
    const float cy = v[1] * l[1] * ph + pcy;
    const float w = std::exp(v[2] * l[2]) * pw;
    const float h = std::exp(v[3] * l[3]) * ph;
    out[0] = cx - w / 2;
    out[1] = cy - h / 2;
    out[2] = cx + w / 2;
    out[3] = cy + h / 2;
  }
}

template <>
int DetectionOutputLayer<float>::SuppressClass(const float* conf, int label, int count) {
  int n = 0;
  for (int p = 0; p < num_priors_; ++p) {
    const float s = conf[int64_t(p) * num_classes_ + label];
    if (s > confidence_threshold_) candidates_[n++] = {s, p};
  }
  auto first = candidates_.begin();
  if (nms_top_k_ > 0 && n > nms_top_k_) {
    std::partial_sort(first, first + nms_top_k_, first + n, ScoreFirst<Candidate>);
    n = nms_top_k_;
  } else {
    std::sort(first, first + n, ScoreFirst<Candidate>);
  }
  const int start = count;
  float threshold = nms_threshold_;
  for (int i = 0; i < n; ++i) {
    const float* box = decoded_.data() + int64_t(candidates_[i].prior) * 4;
    bool keep = true;
    for (int j = start; j < count && keep; ++j)
      keep = Overlap(box, decoded_.data() + int64_t(detections_[j].prior) * 4) <= threshold;
    if (!keep) continue;
    detections_[count++] = {candidates_[i].score, label, candidates_[i].prior};
    if (eta_ < 1.0f && threshold > 0.5f) threshold *= eta_;
  }
  return count;
}

template <>
void DetectionOutputLayer<float>::Run() {
  const float* loc = this->in(0)->GetCpuData();
  const float* conf = this->in(1)->GetCpuData();
  const float* priors = this->in(2)->GetCpuData();
  Data<float>* output = this->out();
  float* rows = output->GetCpuData();
  const int num = this->in(0)->GetDim(0);
  const int64_t loc_step = int64_t(num_priors_) * 4;
  const int64_t conf_step = int64_t(num_priors_) * num_classes_;
  const auto label_first = [](const Detection& a, const Detection& b) {
    return a.label < b.label || (a.label == b.label && ScoreFirst(a, b));
  };
  const auto score_first = [](const Detection& a, const Detection& b) {
    return a.score > b.score ||
           (a.score == b.score && (a.label < b.label || (a.label == b.label && a.prior < b.prior)));
  };
  int64_t written = 0;
  for (int n = 0; n < num; ++n) {
    DecodeBoxes(loc + n * loc_step, priors);
    int count = 0;
    for (int c = 0; c < num_classes_; ++c)
      if (c != background_label_) count = SuppressClass(conf + n * conf_step, c, count);
    if (keep_top_k_ > 0 && count > keep_top_k_) {
      // Keep the best keep_top_k over all classes, then list them by class again.
      auto first = detections_.begin();
      std::partial_sort(first, first + keep_top_k_, first + count, score_first);
      count = keep_top_k_;
      std::sort(first, first + count, label_first);
    }
    for (int i = 0; i < count; ++i) {
      const Detection& d = detections_[i];
      const float* box = decoded_.data() + int64_t(d.prior) * 4;
      float* row = rows + written * 7;
      row[0] = static_cast<float>(n);
      row[1] = static_cast<float>(d.label);
      row[2] = d.score;
      for (int k = 0; k < 4; ++k) row[3 + k] = box[k];
      ++written;
    }
  }
  std::fill(rows + written * 7, rows + output->Count(0), -1.0f);
}

}  // namespace qzdl
