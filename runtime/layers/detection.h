// SSD detection heads: the default (prior) boxes of a feature map, and the
// stage that decodes box regressions against them and keeps the best boxes
// per class with greedy non-maximum suppression.
#pragma once

#include <string>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

// "PriorBox": inputs a feature map [N, C, H, W] and the image [N, 3, IH, IW]
// (only their shapes are read). Output [1, 2, H * W * num_priors * 4]: first
// the boxes as normalized corners (xmin, ymin, xmax, ymax) per location and
// prior, then the four variances of every box.
template <typename T>
class PriorBoxLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  // Priors per feature-map location.
  int NumPriors() const { return static_cast<int>(box_sizes_.size()); }

 protected:
  void Run() override;

 private:
  struct BoxSize {
    double width;
    double height;
  };
  std::vector<BoxSize> box_sizes_;  // per location, in output order
  float variance_[4] = {0.1f, 0.1f, 0.1f, 0.1f};
  bool clip_ = false;
  float offset_ = 0.5f;
  int img_h_param_ = 0;  // 0: taken from the image input
  int img_w_param_ = 0;
  float step_h_param_ = 0.0f;  // 0: image size / feature-map size
  float step_w_param_ = 0.0f;
  // Set by Reshape.
  int layer_h_ = 0;
  int layer_w_ = 0;
  double img_h_ = 0.0;
  double img_w_ = 0.0;
  double step_h_ = 0.0;
  double step_w_ = 0.0;
};

// "DetectionOutput": inputs loc [N, num_priors * 4] (box regressions, any
// shape with that many values per item), conf [N, num_priors * num_classes]
// (class probabilities) and priors [1, 2, num_priors * 4] as PriorBox writes
// them. Output [1, 1, rows, 7]; a row is
// [image_id, label, score, xmin, ymin, xmax, ymax], and the rows after the
// last detection are filled with -1.
template <typename T>
class DetectionOutputLayer : public Layer<T> {
 public:
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  int GetNumClasses() const { return num_classes_; }
  // Rows reserved for each image: the most detections one image can give.
  int RowsPerImage() const { return rows_per_image_; }

 protected:
  void Run() override;

 private:
  struct Candidate {
    float score;
    int prior;
  };
  struct Detection {
    float score;
    int label;
    int prior;
  };
  // Writes the boxes of one item of loc, decoded against the priors.
  void DecodeBoxes(const float* loc, const float* priors);
  // Greedy NMS of class `label` of one item; appends the kept boxes to
  // detections_ from position `count` on and returns the new count.
  int SuppressClass(const float* conf, int label, int count);

  int num_classes_ = 0;
  int background_label_ = 0;
  float nms_threshold_ = 0.45f;
  int nms_top_k_ = -1;
  int keep_top_k_ = -1;
  float confidence_threshold_ = 0.01f;
  bool corner_code_ = false;
  bool variance_in_target_ = false;
  float eta_ = 1.0f;
  // Set by Reshape.
  int num_priors_ = 0;
  int rows_per_image_ = 0;
  std::vector<float> decoded_;         // num_priors * 4
  std::vector<Candidate> candidates_;  // num_priors
  std::vector<Detection> detections_;  // the most one item can keep after NMS
};

}  // namespace qzdl
