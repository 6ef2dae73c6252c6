// A layer of the 8-bit net that runs its float kernel: its inputs are
// dequantized from their grids into float tensors, the float layer of the
// same type runs on them, and its outputs are quantized to their grids. The
// float layer, made from the same description, is the twin whose parameter,
// shape and weight code this layer uses, so nothing of a layer family is
// written twice. Every layer type of the runtime works this way in an 8-bit
// net; the integer kernels (docs/int8.md) replace it type by type.
//
// Tensors whose data type is "float" hold float values in their storage and
// are copied rather than converted. Weights stay float (the file's values),
// held by this layer's weight tensors and shared with the twin.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

class FloatIslandLayer : public Layer<unsigned char> {
 public:
  std::string GetTypeDetail() override;
  void LoadParam(const ParamReader& param) override;
  void Reshape() override;
  std::vector<WeightSpec> WeightSpecs() override;
  // The float kernel always reads a copy of its inputs.
  bool InPlaceSafe() const override { return false; }

  Layer<float>* Twin() const { return twin_.get(); }

 protected:
  void Run() override;

 private:
  std::unique_ptr<Layer<float>> twin_;
  NetContext twin_context_;
  std::vector<std::unique_ptr<Data<float>>> twin_inputs_, twin_outputs_;
  bool twin_weights_made_ = false;
};

}  // namespace qzdl
