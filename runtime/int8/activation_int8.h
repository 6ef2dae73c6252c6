// Unary activations in the 8-bit net (docs/int8.md): one table of 256
// output codes per layer (per channel for PReLU with a slope per channel),
// table[c] = CodeOf(f(RealOf(c))), where f is the float layer's own kernel
// run once on the 256 dequantized input codes, so that every function is
// defined in one place. Applying the table gives exactly what the float
// island gives.
#pragma once

#include <memory>

#include "runtime/int8/int8_layer.h"

namespace qzdl {

class TableInt8Layer : public Int8Layer {
 public:
  void LoadParam(const ParamReader& param) override;
  // A table maps each element on its own.
  bool InPlaceSafe() const override { return true; }

 protected:
  bool Prepared() override { return HasTables(); }
  // uint8 "table" [rows, 256]: one row, or one per channel.
  void Prepare() override;
  void RunCodes() override;

 private:
  // Rows of the table: the channels of a PReLU with a slope per channel,
  // else 1.
  int TableRows();

  // A second float layer of the type that computes the tables on a
  // [1, rows, 256] tensor of the dequantized codes.
  std::unique_ptr<Layer<float>> table_twin_;
  NetContext table_context_;
  Data<float> table_in_, table_out_;
  bool table_weights_made_ = false;
};

}  // namespace qzdl
